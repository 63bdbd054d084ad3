// What may go otherwise than repetition.h says, each with its reason. Every row is reviewed: it
// stands for a decision of the plug-in's design or of the platform, not for a bug.
#pragma once

#include <cstddef>

namespace torture {

// What goes wrong.
enum Mode : unsigned {
  failOperation = 1,   // the n-th fallible operation of the host answers zero
  absentOperation = 2, // the named operation is not there
  failMessage = 4,     // the n-th message raises an NSException
  throwObject = 8,     // the n-th message throws an object that is no NSException
  failFunction = 16,   // the n-th call of a function of Cocoa or of the C library fails
  nothing = 32,
};
constexpr unsigned always = 63, anyFault = 31, anyThrow = failMessage | throwObject,
                   anyHostFault = failOperation | absentOperation;

enum Excuse : unsigned {
  losesInHost = 1,    // host objects of the classes named stay alive
  losesInCocoa = 2,   // Cocoa objects of the classes named stay alive
  staysEntered = 4,   // an entry stays in the registry
  isSwallowed = 8,    // an NSException is neither raised nor logged
  comesOut = 16,      // an NSException comes out of a step
  goesOtherwise = 32, // an answer is neither the usual one nor nothing
  isRaised = 64,      // an NSException in a callback is raised in the host
};

// Texts are patterns of fnmatch(3), with @(one|other).
struct Loss {
  const char* scenario;
  unsigned modes;   // of Mode
  const char* hit;  // what failed: an operation, a function, or a message such as "-NSURL retain"
  const char* step; // in which step it failed; "*" also when it never did
  unsigned excuses; // of Excuse
  // Those that losesInHost and losesInCocoa are about, separated by spaces; % is the class of the
  // object that the failing message was for.
  const char* classes;
  const char* reason;
};

extern const Loss losses[];
extern const size_t lossCount;

} // namespace torture
