// The frame in which the plug-in runs Cocoa work.
//
// A Cocoa exception is a longjmp on this platform: everything between the throw and the frame is
// left as it stands and no C++ destructor runs. Two rules follow, for every body given to
// attempt():
//   - nothing with a non-trivial destructor lives across a message send;
//   - what must survive a throw (results, references to give back) lives in variables that the
//     body captures by reference, so that it stands in memory and not in a register.
//
//   REALstringStruct* result = nullptr;
//   if (id thrown = attempt([&] { result = ...; })) ...
#pragma once

#include "cocoa/objc.h"

#include <type_traits>

// Runs body(context) inside an exception frame. Answers what was thrown out of it, borrowed, or
// nil when it ended on its own. Out of line on purpose: see above.
id attemptCall(void (*body)(void* context), void* context);

template <class Body> inline id attempt(Body&& body) {
  using Plain = std::remove_reference_t<Body>;
  return attemptCall([](void* context) { (*static_cast<Plain*>(context))(); }, &body);
}

// Whether a thrown object is an NSException or of a subclass of it.
bool isNSException(id thrown);
