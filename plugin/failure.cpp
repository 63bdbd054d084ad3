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

void logExceptions(const id* thrown, std::size_t count) {
  id other = nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    if (!thrown[i]) continue;
    if (isNSException(thrown[i])) {
      NSLog("%@"_ns, thrown[i]);
    } else if (!other) {
      other = thrown[i];
    }
  }
  if (other) objc_exception_throw(other);
}

id giveBack(REALobjectStruct*& held) {
  return attempt([&] { unlock(held); });
}

id giveBack(REALstringStruct* held) {
  return attempt([&] { unlock(held); });
}

void raiseAlreadyInitialized() {
  RaiseException("UnsupportedOperationException",
                 "Constructor called too often. Object is already initialized.", 0);
}
