#include "plugin/failure.h"

#include <string.h>

void RaiseException(const char* className, const char* message, unsigned long) {
  REALstringStruct* text = nullptr;
  if (message && *message) {
    text = originalREALBuildString(message, static_cast<int>(strlen(message)));
    if (text) REALSetStringEncoding(text, kCFStringEncodingASCII);
  }
  REALobjectStruct* exception = REALnewInstance(className);
  if (!exception) exception = REALnewInstance("RuntimeException");
  if (exception) {
    REALSetPropValueString(exception, "Message", text);
    REALSetPropValueInt32(exception, "ErrorNumber", 0);
    REALRaiseException(exception);
    REALUnlockObject(exception);
  }
  unlock(text);
}

void RaiseNSExceptionKVZ(id exception) {
  id name = send<id>(exception, "name"_sel);
  id reason = send<id>(exception, "reason"_sel);
  id userInfo = send<id>(exception, "userInfo"_sel);
  NSLog("A %@: %@, Info: %@\n"_ns, name, reason, userInfo);

  auto* object = send<REALobjectStruct*>("NSException"_class, "NewNSExceptionKVZ:"_sel, exception);
  if (!object) return;
  REALRaiseException(object);
  REALUnlockObject(object);
}

void raiseInHost(id thrown) {
  if (!isNSException(thrown)) objc_exception_throw(thrown);
  RaiseNSExceptionKVZ(thrown);
}

void logException(id thrown) {
  if (!isNSException(thrown)) objc_exception_throw(thrown);
  NSLog("%@"_ns, thrown);
}

void raiseAlreadyInitialized() {
  RaiseException("UnsupportedOperationException",
                 "Constructor called too often. Object is already initialized.", 0);
}
