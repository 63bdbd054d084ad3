// The instance registry: which host instance wraps which Cocoa object. It belongs to the family of
// plug-ins and may be absent; then nothing is found and nothing is entered.
//
// It holds no references on either side: an entry is good because the instance's destructor
// removes it. Host thread, except that callbacks which wrap an object use it on theirs; there is
// no lock.
#pragma once

#include "plugin/host.h"

extern CFMutableDictionaryRef instances;

// The instance that wraps this object, borrowed; or null.
inline REALobjectStruct* registeredInstance(id object) {
  if (!instances) return nullptr;
  return static_cast<REALobjectStruct*>(const_cast<void*>(CFDictionaryGetValue(instances, object)));
}

inline void enterInstance(id object, REALobjectStruct* instance) {
  if (instances) CFDictionarySetValue(instances, object, instance);
}

inline void removeInstance(id object) {
  if (instances) CFDictionaryRemoveValue(instances, object);
}
