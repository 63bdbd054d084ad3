#include "companion.h"

#include "boxes.h"
#include "exceptions.h"
#include "records.h"
#include "values.h"
#include "wrappers.h"

#include <objc/runtime.h>

namespace companion {

namespace {

bool entered;
bool provided[COMPANION_PART_COUNT] = {true, true, true, true, true, true};

// A Cocoa class, and the class here whose methods it gets.
struct Category {
  const char* owner;
  const char* source;
};
constexpr Category exception = {"NSException", "CompanionException"};
constexpr Category value = {"NSValue", "CompanionValue"};

struct AddedMethod {
  companion_part part;
  const Category& category;
  char level; // '+' of the class, '-' of its instances
  const char* selector;
};

// clang-format off
constexpr AddedMethod addedMethods[] = {
    {COMPANION_NEW_EXCEPTION, exception, '+', "NewNSExceptionKVZ:"},
    {COMPANION_PREPARE,       exception, '+', "PrepareNSExceptionKVZ"},
    {COMPANION_REGISTRY,      exception, '+', "GetInstancesDictionaryKVZ"},
    {COMPANION_TIMES,         value,     '-', "QTTimeValueKVZ"},
    {COMPANION_TIMES,         value,     '-', "QTTimeRangeValueKVZ"},
    {COMPANION_TIMES,         value,     '-', "CMTimeValueKVZ"},
    {COMPANION_TIMES,         value,     '-', "CMTimeRangeValueKVZ"},
    {COMPANION_TIMES,         value,     '-', "CMTimeMappingValueKVZ"},
    {COMPANION_TIMES,         value,     '+', "valueWithQTTimeKVZ:"},
    {COMPANION_TIMES,         value,     '+', "valueWithQTTimeRangeKVZ:"},
    {COMPANION_TIMES,         value,     '+', "valueWithCMTimeKVZ:"},
    {COMPANION_TIMES,         value,     '+', "valueWithCMTimeRangeKVZ:"},
    {COMPANION_TIMES,         value,     '+', "valueWithCMTimeMappingKVZ:"},
};
// clang-format on

// Methods of a class are instance methods of its metaclass.
Class leveled(const char* name, char level) {
  Class named = objc_getClass(name);
  return level == '+' ? object_getClass(named) : named;
}

void addMethods() {
  for (const AddedMethod& added : addedMethods) {
    if (!provided[added.part]) continue;
    const SEL selector = sel_registerName(added.selector);
    const auto method =
        class_getInstanceMethod(leveled(added.category.source, added.level), selector);
    class_addMethod(leveled(added.category.owner, added.level), selector,
                    method_getImplementation(method), method_getTypeEncoding(method));
  }
}

void require(bool right, const char* problem, const char* detail) {
  if (right) return;
  fprintf(stderr, "companion: %s%s\nSee companion.h for what may be asked, and when.\n", problem,
          detail);
  abort();
}

void requireBeforeEntry(const char* function) {
  require(!entered, "too late, REALPluginMain has run: ", function);
}

void requireName(bool known, const char* name) {
  require(known, "no such wrapper class, or not for this use: ", name);
}

void provide(companion_part part, int yes) {
  requireBeforeEntry("provide");
  provided[part] = yes;
}

void registerAll(int yes) {
  requireBeforeEntry("register_all");
  provideAllWrappers(yes);
}

void registerClass(const char* name, int yes) {
  requireBeforeEntry("register_class");
  requireName(provideWrapper(name, yes), name);
}

void addClass(const char* name, const char* superclass, const char* like) {
  requireBeforeEntry("add_class");
  requireName(addWrapper(name, superclass, like), name);
}

void flatten(int yes) {
  requireBeforeEntry("flatten");
  flattenWrappers(yes);
}

void spoil(const char* name) {
  requireBeforeEntry("spoil_tag");
  requireName(spoilTag(name), name);
}

void refuse(int yes) { refuseExceptions(yes); }

uint32_t count(companion_counter counter) {
  switch (counter) {
  case COMPANION_PREPARED:
    return preparations();
  case COMPANION_EXCEPTIONS:
    return exceptionsMade();
  case COMPANION_REGISTERED:
    return registrySize();
  case COMPANION_LIVE_WRAPPERS:
    return liveWrappers();
  case COMPANION_LIVE_BOXES:
    return liveBoxes();
  }
  require(false, "no such counter", "");
  return 0;
}

void* data(void* instance) { return wrapperData(static_cast<HostObject*>(instance)); }

constexpr companion_api api = {provide, registerAll, registerClass, addClass, flatten,
                               spoil,   refuse,      count,         data};

} // namespace

} // namespace companion

extern "C" __attribute__((visibility("default"))) const companion_api* companion_control() {
  return &companion::api;
}

extern "C" __attribute__((visibility("default"))) void
REALPluginMain(companion::Resolver resolver) {
  using namespace companion;
  requireBeforeEntry("REALPluginMain");
  entered = true;
  resolveOperations(resolver);
  makeRegistry();
  const int32_t version = interfaceVersion(call(host.hostVersion));
  call(host.registerPluginVersion, version);
  if (provided[COMPANION_EXCEPTION_CLASS]) registerExceptionClass(version);
  registerWrappers(version);
  if (provided[COMPANION_BOXES]) registerBoxClass();
  addMethods();
}
