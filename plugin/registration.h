// Class definitions: the records that the host reads at registration, and how they are given to it.
//
// All records are written in the layout of interface version 12. They stand in writable memory,
// because the host and the registration write into them, and live as long as the process.
#pragma once

#include "cocoa/cocoa_class.h"
#include "plugin/host.h"

using NativeFunction = void (*)();

struct REALproperty {
  const char* group;
  const char* name;
  const char* type;
  std::uint32_t flags;
  std::intptr_t getter; // -1: the host reads the record itself, at param
  std::intptr_t setter; // -1: likewise
  std::uint32_t param;
  std::uint32_t editor;
  std::uint32_t enumCount;
  void* enumEntries;
  void* attributes;
  std::uint32_t attributeCount;
};

struct REALmethodDefinition {
  NativeFunction function;
  NativeFunction setterFunction; // for an assignable property written as a method
  const char* declaration;
  std::uint32_t flags;
  void* attributes;
  std::uint32_t attributeCount;
};

struct REALevent {
  const char* declaration;
  std::uint32_t* forSystemUse; // the host's own word; see registeredEvent
  void* attributes;
  std::uint32_t attributeCount;
};

struct REALconstant {
  const char* declaration;
  std::uint32_t reserved[2];
  void* attributes;
  std::uint32_t attributeCount;
};

using InstanceFunction = void (*)(REALobjectStruct*);

struct REALclassDefinition {
  std::uint32_t version;
  const char* name;
  const char* superName;
  std::uint32_t dataSize;
  std::uint32_t forSystemUse; // where the host put the instance record, from the handle on
  InstanceFunction constructor;
  InstanceFunction destructor;
  REALproperty* properties;
  std::uint32_t propertyCount;
  REALmethodDefinition* methods;
  std::uint32_t methodCount;
  REALevent* events;
  std::uint32_t eventCount;
  void* eventInstances;
  std::uint32_t eventInstanceCount;
  void* interfaces;
  void* bindDescriptions;
  std::uint32_t bindDescriptionCount;
  REALconstant* constants;
  std::uint32_t constantCount;
  std::uint32_t flags;
  REALproperty* sharedProperties;
  std::uint32_t sharedPropertyCount;
  REALmethodDefinition* sharedMethods;
  std::uint32_t sharedMethodCount;
  std::uint32_t newerFields[4];
};

static_assert(sizeof(REALproperty) == 12 * 4);
static_assert(sizeof(REALmethodDefinition) == 6 * 4);
static_assert(sizeof(REALevent) == 4 * 4);
static_assert(sizeof(REALconstant) == 5 * 4);
static_assert(sizeof(REALclassDefinition) == 29 * 4);

inline constexpr std::uint32_t kLayoutVersion = 12;
inline constexpr std::uint32_t kClassFlags = 4;
inline constexpr std::uint32_t kMethodFlags = 4;
inline constexpr std::uint32_t kPropertyFlags = 6;

// A row of a member table: a method, or a property read and (perhaps) assigned through functions.
// A macro, since only a cast in the table itself is a constant.
#define MEMBER(declaration, function)                                                              \
  { reinterpret_cast<NativeFunction>(function), nullptr, declaration, kMethodFlags, nullptr, 0 }
#define PROPERTY(declaration, getter, setter)                                                      \
  {                                                                                                \
    reinterpret_cast<NativeFunction>(getter), reinterpret_cast<NativeFunction>(setter),            \
        declaration, kMethodFlags, nullptr, 0                                                      \
  }
#define EVENT(declaration)                                                                         \
  { declaration, nullptr, nullptr, 0 }
#define CONSTANT(declaration)                                                                      \
  { declaration, {0, 0}, nullptr, 0 }

// The property that all four classes share: the first word of the record, which holds the wrapped
// Cocoa object. The host reads and writes it with no help of ours.
#define HANDLE_PROPERTY                                                                            \
  { nullptr, "Handle", "Integer", kPropertyFlags, -1, -1, 0, 0, 0, nullptr, nullptr, 0 }

template <class Entry, std::size_t Count> consteval std::uint32_t entries(Entry (&)[Count]) {
  return Count;
}

// Each of these is defined beside the members of its class. The Cocoa classes are made at start-up,
// as if they stood in the bundle: whichever thread needs one first finds it there.
extern CocoaClass MySUVersionComparison;
extern CocoaClass MySUUpdaterDelegateInformalProtocol;
extern REALclassDefinition SUVersionComparisonDefinition;
extern REALclassDefinition SUAppcastItemDefinition;
extern REALclassDefinition SUUpdaterDefinition;
extern REALclassDefinition SUAppcastDefinition;

// The record of an instance; valid as long as the instance.
template <class Record>
inline Record& instanceRecord(const REALclassDefinition& type, REALobjectStruct* instance) {
  return *reinterpret_cast<Record*>(reinterpret_cast<char*>(instance) + type.forSystemUse);
}

// Adapts a record, in place, to the interface version of the host, and registers it. Once a class.
void MyREALRegisterClass(REALclassDefinition* definition);

// A new array of entries in the layout of version 9, never freed: the host keeps pointers into
// it. Null for a null array or a count of 0.
REALproperty* FixProperties(REALproperty* properties, int count);

// The word by which the host knows an event: that of the entry it was given at registration. In
// interface version 9 that entry is a copy, which the static entry's word points at.
std::uint32_t* registeredEvent(const REALevent& entry);

// The host program's handler of an event on an instance; null when it has none, when there is no
// instance, or when the host cannot tell. Asked afresh each time. Any thread.
template <class Handler>
inline Handler eventHandler(REALobjectStruct* instance, const REALevent& entry) {
  if (!instance) return nullptr;
  return reinterpret_cast<Handler>(REALGetEventInstance(instance, registeredEvent(entry)));
}

// The record of an instance of another plug-in's class. A class without a superclass of its own
// has its record at the same place in every object, ours included.
template <class Record> inline Record& familyRecord(REALobjectStruct* instance) {
  return instanceRecord<Record>(SUAppcastItemDefinition, instance);
}
