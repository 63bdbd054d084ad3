#include "framework/wrapping.h"

#include "convert/registry.h"

REALobjectStruct* wrap(const REALclassDefinition& type, id object) {
  if (!object) return nullptr;
  if (REALobjectStruct* instance = registeredInstance(object)) {
    REALLockObject(instance);
    return instance;
  }
  // Retained first: nothing may throw once the instance is there and not handed out.
  send<id>(object, "retain"_sel);
  REALobjectStruct* instance = REALnewInstance(type.name);
  if (!instance) {
    send<void>(object, "release"_sel);
    return nullptr;
  }
  fill(type, instance, object);
  return instance;
}

void fill(const REALclassDefinition& type, REALobjectStruct* instance, id object) {
  if (!object) return;
  wrappedObject(type, instance) = object;
  enterInstance(object, instance);
}

void empty(const REALclassDefinition& type, REALobjectStruct* instance) {
  id& object = wrappedObject(type, instance);
  if (!object) return;
  removeInstance(object);
  // The release may call back into the host; by then the record is empty.
  id released = object;
  object = nullptr;
  send<void>(released, "release"_sel);
}
