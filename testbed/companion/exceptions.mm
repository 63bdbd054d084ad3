#include "exceptions.h"

#include "records.h"

#include <atomic>
#include <cstring>

extern "C" {
void* CFDictionaryCreateMutable(const void* allocator, long capacity, const void* keyCallBacks,
                                const void* valueCallBacks);
const void* CFDictionaryGetValue(const void* dictionary, const void* key);
void CFDictionaryRemoveValue(void* dictionary, const void* key);
long CFDictionaryGetCount(const void* dictionary);
}

namespace companion {

namespace {

constexpr uint32_t utf8 = 0x08000100;
constexpr const char* hostClassName = "NSExceptionKVZ";
constexpr const char* hostBaseName = "RuntimeException";

std::atomic<bool> refused;
std::atomic<uint32_t> prepared;
std::atomic<uint32_t> made;
uint32_t* record;

NSException*& wrapped(HostObject* instance) {
  return *reinterpret_cast<NSException**>(reinterpret_cast<char*>(instance) + dataPosition(record));
}

void destroy(HostObject* instance) {
  [wrapped(instance) release];
  wrapped(instance) = nil;
}

HostString* name(HostObject* instance) { return makeString([wrapped(instance) name]); }
HostString* reason(HostObject* instance) { return makeString([wrapped(instance) reason]); }

const Method methods[] = {
    {reinterpret_cast<const void*>(name), "name as string"},
    {reinterpret_cast<const void*>(reason), "reason as string"},
    {reinterpret_cast<const void*>(reason), "Message as string"},
};
constexpr size_t methodsBesideBase = 2; // the base class brings "Message"
constexpr Property properties[] = {{"Handle", "Integer", 0}};

void* registry;

} // namespace

// Without callbacks: pointers as they are, nothing retained.
void makeRegistry() { registry = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr); }

void registerExceptionClass(int32_t version) {
  const bool hasBase = call(host.classReference, hostBaseName);
  const std::span<const Method> all = methods;
  record = makeRecord({hostClassName, hasBase ? hostBaseName : nullptr, sizeof(NSException*),
                       nullptr, destroy, properties, hasBase ? all.first(methodsBesideBase) : all},
                      version);
  call(host.registerClass, record);
}

void forgetInstance(id object, HostObject* instance) {
  if (object && CFDictionaryGetValue(registry, object) == instance)
    CFDictionaryRemoveValue(registry, object);
}

HostString* makeString(NSString* text) {
  @autoreleasepool {
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
    if (!bytes) return nullptr;
    HostString* string = call(host.buildString, static_cast<const char*>([bytes bytes]),
                              static_cast<int32_t>([bytes length]));
    if (string) call(host.setStringEncoding, string, utf8);
    return string;
  }
}

void refuseExceptions(bool yes) { refused = yes; }
uint32_t preparations() { return prepared; }
uint32_t exceptionsMade() { return made; }
uint32_t registrySize() { return CFDictionaryGetCount(registry); }

} // namespace companion

using namespace companion;

@implementation CompanionException

+ (HostObject*)NewNSExceptionKVZ:(NSException*)exception {
  // Without the class, a host could still answer with some object of its own; its data is not ours
  // to write.
  if (refused || !record) return nullptr;
  HostObject* object = call(host.newInstance, hostClassName);
  if (!object) return nullptr;
  wrapped(object) = [exception retain];
  if (HostString* message = makeString([exception reason])) {
    call(host.setStringProperty, object, "Message", message);
    call(host.unlockString, message);
  }
  ++made;
  return object;
}

+ (void)PrepareNSExceptionKVZ {
  ++prepared;
}

+ (void*)GetInstancesDictionaryKVZ {
  return registry;
}

@end
