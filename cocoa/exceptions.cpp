#include "cocoa/exceptions.h"

#include "cocoa/message.h"

bool isNSException(id thrown) {
  return objc_exception_match(reinterpret_cast<Class>("NSException"_class), thrown) != 0;
}
