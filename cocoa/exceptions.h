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

#include <setjmp.h>

// Runs the body inside an exception frame. Answers what was thrown out of it, borrowed, or nil when
// it ended on its own. Out of line on purpose, which is what keeps the caller's variables in
// memory: see above. After a throw nothing here is read but the frame.
template <class Body> [[gnu::noinline]] id attempt(Body&& body) {
  ExceptionFrame frame;
  objc_exception_try_enter(&frame);
  if (_setjmp(*reinterpret_cast<jmp_buf*>(&frame.buffer)) == 0) {
    body();
    objc_exception_try_exit(&frame);
    return nullptr;
  }
  return objc_exception_extract(&frame);
}

// Whether a thrown object is an NSException or of a subclass of it.
bool isNSException(id thrown);
