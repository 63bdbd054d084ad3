// What the host classes around one Cocoa object have in common. Their record begins with that
// object (host programs see it as the property Handle), nil while the instance is empty. The
// record owns one reference, and the instance registry maps the object to the instance.
//
// None of these catches: call them inside a frame. Host thread, except where a callback of the
// framework wraps an object on its own.
#pragma once

#include "plugin/registration.h"

inline id& wrappedObject(const REALclassDefinition& type, REALobjectStruct* instance) {
  return instanceRecord<id>(type, instance);
}

// The instance that stands for the object: the one that is registered, or a new one. It comes with
// one reference that belongs to the caller. Null for nil, and when the host makes no instance.
REALobjectStruct* wrap(const REALclassDefinition& type, id object);

// Fills an empty record with a new object, whose one reference it takes over. Nil changes nothing.
void fill(const REALclassDefinition& type, REALobjectStruct* instance, id object);

// Takes the object out of the registry and releases it.
void empty(const REALclassDefinition& type, REALobjectStruct* instance);
