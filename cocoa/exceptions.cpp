#include "cocoa/exceptions.h"

#include "cocoa/message.h"

#include <setjmp.h>

[[gnu::noinline]] id attemptCall(void (*body)(void* context), void* context) {
  ExceptionFrame frame;
  objc_exception_try_enter(&frame);
  if (_setjmp(*reinterpret_cast<jmp_buf*>(&frame.buffer)) == 0) {
    body(context);
    objc_exception_try_exit(&frame);
    return nullptr;
  }
  return objc_exception_extract(&frame);
}

bool isNSException(id thrown) {
  return objc_exception_match(reinterpret_cast<Class>("NSException"_class), thrown) != 0;
}
