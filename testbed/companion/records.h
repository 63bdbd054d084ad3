// Registration records of the host's plug-in interface, versions 9 to 12.
//
// A class is described once, in the structs below, and laid out as raw 32-bit words for the version
// that the host speaks: version 9 has shorter records and entries, 10 to 12 share one layout and
// differ in the version word.
#pragma once

#include <cstdint>
#include <span>

namespace companion {

struct HostObject;

// A property that the host reads and writes in the instance data itself, `position` bytes from its
// beginning.
struct Property {
  const char* name;
  const char* type;
  uint32_t position;
};

// A method of the class; `function` is called with the object first.
struct Method {
  const void* function;
  const char* declaration;
};

struct ClassDescription {
  const char* name;
  const char* superclass; // null: none
  uint32_t dataSize;
  void (*constructor)(HostObject*); // null: none
  void (*destructor)(HostObject*);  // null: none
  std::span<const Property> properties;
  std::span<const Method> methods;
};

// The interface version to speak to a host of this version.
int32_t interfaceVersion(double hostVersion);

// A new record, with its entries, that is never freed: the host keeps pointers into it. The names
// in `description` are not copied.
uint32_t* makeRecord(const ClassDescription& description, int32_t version);

// Where the host put the instance data of the class, in bytes from the object. Valid once the host
// registered it.
uint32_t dataPosition(const uint32_t* record);

} // namespace companion
