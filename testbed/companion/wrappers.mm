#include "wrappers.h"

#include "exceptions.h"
#include "records.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

#import <Foundation/Foundation.h>

extern "C" void CFRelease(const void* object);

namespace companion {

namespace {

constexpr uint32_t cfTag = 0x52424346; // "RBCF"
constexpr uint32_t wrongTag = 0x46434252;

struct CFFields {
  const void* object;
  uint32_t own;
  uint32_t tag;
};

std::atomic<uint32_t> live;
uint32_t position; // of the instance data of every class without a superclass

void count(HostObject*) { ++live; }

void countOff(HostObject*) { --live; }

void* fields(HostObject* instance) { return reinterpret_cast<char*>(instance) + position; }

void writeTag(HostObject* instance) {
  count(instance);
  static_cast<CFFields*>(fields(instance))->tag = cfTag;
}

void releaseObject(HostObject* instance) {
  countOff(instance);
  id& object = *static_cast<id*>(fields(instance));
  forgetInstance(object, instance);
  [object release];
  object = nil;
}

void releaseCF(HostObject* instance) {
  countOff(instance);
  const void*& object = static_cast<CFFields*>(fields(instance))->object;
  if (object) CFRelease(object);
  object = nullptr;
}

// The base class's constructor has run by then, with the right tag.
void overwriteTag(HostObject* instance) {
  static_cast<CFFields*>(fields(instance))->tag = wrongTag;
}

void writeWrongTag(HostObject* instance) {
  count(instance);
  overwriteTag(instance);
}

// clang-format off
constexpr Property handle[] = {{"Handle", "Integer", 0}};
constexpr Property rectFields[] = {
    {"X", "Single", 0}, {"Y", "Single", 4}, {"Width", "Single", 8}, {"Height", "Single", 12}};
constexpr Property sizeFields[] = {{"Width", "Single", 0}, {"Height", "Single", 4}};
constexpr Property rangeFields[] = {{"Location", "UInt32", 0}, {"Length", "UInt32", 4}};
constexpr Property pointFields[] = {{"X", "Single", 0}, {"Y", "Single", 4}};
constexpr Property qtTimeFields[] = {
    {"TimeValue", "Int64", 0}, {"TimeScale", "Int32", 8}, {"Flags", "Int32", 12}};
constexpr Property qtTimeRangeFields[] = {
    {"TimeValue", "Int64", 0}, {"TimeScale", "Int32", 8}, {"TimeFlags", "Int32", 12},
    {"DurationValue", "Int64", 16}, {"DurationScale", "Int32", 24}, {"DurationFlags", "Int32", 28}};
constexpr Property cmTimeFields[] = {
    {"Value", "Int64", 0}, {"Timescale", "Int32", 8},
    {"Flags", "UInt32", 12}, {"Epoch", "Int64", 16}};
constexpr Property cmTimeRangeFields[] = {
    {"StartValue", "Int64", 0}, {"StartTimescale", "Int32", 8},
    {"StartFlags", "UInt32", 12}, {"StartEpoch", "Int64", 16},
    {"DurationValue", "Int64", 24}, {"DurationTimescale", "Int32", 32},
    {"DurationFlags", "UInt32", 36}, {"DurationEpoch", "Int64", 40}};
constexpr Property cmTimeMappingFields[] = {
    {"SourceStartValue", "Int64", 0}, {"SourceStartTimescale", "Int32", 8},
    {"SourceStartFlags", "UInt32", 12}, {"SourceStartEpoch", "Int64", 16},
    {"SourceDurationValue", "Int64", 24}, {"SourceDurationTimescale", "Int32", 32},
    {"SourceDurationFlags", "UInt32", 36}, {"SourceDurationEpoch", "Int64", 40},
    {"TargetStartValue", "Int64", 48}, {"TargetStartTimescale", "Int32", 56},
    {"TargetStartFlags", "UInt32", 60}, {"TargetStartEpoch", "Int64", 64},
    {"TargetDurationValue", "Int64", 72}, {"TargetDurationTimescale", "Int32", 80},
    {"TargetDurationFlags", "UInt32", 84}, {"TargetDurationEpoch", "Int64", 88}};

struct KindRow {
  uint32_t dataSize;
  void (*constructor)(HostObject*);
  void (*destructor)(HostObject*);
  std::span<const Property> properties;
};

// In the order of Kind.
constexpr KindRow kinds[] = {
    {4,  count,    releaseObject, handle},
    {12, writeTag, releaseCF,     handle},
    {12, count,    releaseCF,     handle},
    {16, count,    countOff,      rectFields},
    {8,  count,    countOff,      sizeFields},
    {8,  count,    countOff,      rangeFields},
    {8,  count,    countOff,      pointFields},
    {16, count,    countOff,      qtTimeFields},
    {32, count,    countOff,      qtTimeRangeFields},
    {24, count,    countOff,      cmTimeFields},
    {48, count,    countOff,      cmTimeRangeFields},
    {96, count,    countOff,      cmTimeMappingFields},
};
// clang-format on

struct Wrapper {
  const char* name;
  const char* superclass;
  Kind kind;
  bool provided = true;
  bool spoiled = false;
  uint32_t* record = nullptr;
};

bool flat;

std::deque<Wrapper>& wrappers() {
  static auto& all = *[] {
    auto* made = new std::deque<Wrapper>;
    for (const WrapperRow& row : wrapperTable)
      made->push_back({row.name, row.superclass, row.kind});
    return made;
  }();
  return all;
}

Wrapper* find(const char* name) {
  if (name)
    for (Wrapper& wrapper : wrappers())
      if (!strcmp(wrapper.name, name)) return &wrapper;
  return nullptr;
}

Wrapper* nearestBase(const Wrapper& wrapper) {
  if (flat) return nullptr;
  Wrapper* base = find(wrapper.superclass);
  while (base && !base->provided) base = find(base->superclass);
  return base;
}

ClassDescription describe(const Wrapper& wrapper, const Wrapper* base) {
  const KindRow& kind = kinds[static_cast<int>(wrapper.kind)];
  if (base)
    return {wrapper.name, base->name, 0, wrapper.spoiled ? overwriteTag : nullptr, nullptr, {}, {}};
  return {wrapper.name,
          nullptr,
          kind.dataSize,
          wrapper.spoiled ? writeWrongTag : kind.constructor,
          kind.destructor,
          kind.properties,
          {}};
}

// Every user of a wrapper class counts on one position, so a host that does otherwise cannot be
// served.
void notePosition(const Wrapper& wrapper) {
  static const Wrapper* first;
  if (!first) {
    first = &wrapper;
    position = dataPosition(wrapper.record);
  } else if (dataPosition(wrapper.record) != position) {
    fprintf(
        stderr,
        "companion: the host put the instance data of %s at byte %u, but that of %s at byte %u.\n"
        "Classes without a superclass must agree on it; look at the host's class registration.\n",
        first->name, position, wrapper.name, dataPosition(wrapper.record));
    abort();
  }
}

void registerWrapper(Wrapper& wrapper, int32_t version) {
  if (wrapper.record || !wrapper.provided) return;
  Wrapper* base = nearestBase(wrapper);
  if (base) registerWrapper(*base, version);
  wrapper.record = makeRecord(describe(wrapper, base), version);
  call(host.registerClass, wrapper.record);
  if (!base) notePosition(wrapper);
}

} // namespace

void provideAllWrappers(bool yes) {
  for (Wrapper& wrapper : wrappers()) wrapper.provided = yes;
}

bool provideWrapper(const char* name, bool yes) {
  Wrapper* wrapper = find(name);
  if (wrapper) wrapper->provided = yes;
  return wrapper;
}

bool addWrapper(const char* name, const char* superclass, const char* like) {
  const Wrapper* model = find(like);
  if (!model || (superclass && !find(superclass))) return false;
  static auto& names = *new std::deque<std::string>;
  const char* base = superclass ? names.emplace_back(superclass).c_str() : nullptr;
  wrappers().push_back({names.emplace_back(name).c_str(), base, model->kind});
  return true;
}

void flattenWrappers(bool yes) { flat = yes; }

bool spoilTag(const char* name) {
  Wrapper* wrapper = find(name);
  if (!wrapper || wrapper->kind != Kind::cf) return false;
  return wrapper->spoiled = true;
}

void registerWrappers(int32_t version) {
  for (Wrapper& wrapper : wrappers()) registerWrapper(wrapper, version);
}

HostObject* newWrapper(const char* name) {
  const Wrapper* wrapper = find(name);
  return wrapper && wrapper->record ? call(host.newInstance, name) : nullptr;
}

void* wrapperData(HostObject* instance) { return fields(instance); }

uint32_t liveWrappers() { return live; }

} // namespace companion
