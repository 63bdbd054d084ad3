// The wrapper classes of the family: host classes whose instance data begins with a Cocoa object, a
// Core Foundation reference or a struct, and which any plug-in of the family may create by name and
// fill in.
//
// A class of the tables owns what its first field holds: the object is released when the instance
// is destroyed, and its registry entry goes if it stands for this instance. All classes without a
// superclass have their instance data at one position; that is what lets plug-ins reach the data of
// classes that they did not register. Classes with a superclass bring no data of their own.
#pragma once

#include "operations.h"

#include <span>

namespace companion {

enum class Kind {
  object,     // retained Cocoa object
  cf,         // retained CFTypeRef, a word of the class's own, the tag
  untaggedCF, // the same without the tag
  rect,
  size,
  range,
  point,
  qtTime,
  qtTimeRange,
  cmTime,
  cmTimeRange,
  cmTimeMapping,
};

struct WrapperRow {
  const char* name;
  const char* superclass; // of the same table; null: none
  Kind kind;
};

extern const std::span<const WrapperRow> wrapperTable;

// Set-up, before registration. Names are those of the table or of added classes; false for another
// name.
void provideAllWrappers(bool yes);
bool provideWrapper(const char* name, bool yes);
bool addWrapper(const char* name, const char* superclass, const char* like);
void flattenWrappers(bool yes);
bool spoilTag(const char* name); // false as well for a class that has no tag

// Registers what is provided, superclasses first. A class whose superclass is not provided gets the
// nearest one above it that is.
void registerWrappers(int32_t version);

// A new instance of a wrapper class registered here, locked for the caller; null when there is
// none.
HostObject* newWrapper(const char* name);

// The instance data of an instance of a wrapper class. After registration.
void* wrapperData(HostObject* instance);

uint32_t liveWrappers();

} // namespace companion
