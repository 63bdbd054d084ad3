// CFMutableDictionary with null callbacks: keys and values are bare pointers, compared by address
// and never retained.
//
// Threads: any; each call is whole. An NSDictionary given instead is asked like one.

#import <Foundation/Foundation.h>

#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"

#include <mutex>
#include <unordered_map>

@interface TestbedPointerDictionary : NSObject {
@public
  std::mutex* lock;
  std::unordered_map<const void*, const void*>* entries;
}
@end

@implementation TestbedPointerDictionary
- (instancetype)init {
  if ((self = [super init])) {
    lock = new std::mutex;
    entries = new std::unordered_map<const void*, const void*>;
  }
  return self;
}
- (void)dealloc {
  delete entries;
  delete lock;
  [super dealloc];
}
- (NSString*)description {
  std::lock_guard guard(*lock);
  return [NSString
      stringWithFormat:@"<%p: %u pointers>", self, static_cast<unsigned>(entries->size())];
}
@end

namespace {

// The dictionary's own entries, or null when it is an NSDictionary.
TestbedPointerDictionary* of_pointers(id dictionary, const char* function) {
  if (!dictionary) marks::die("%s: a null pointer, which crashes on Mac OS X", function);
  if (object_getClass(dictionary) == [TestbedPointerDictionary class]) return dictionary;
  return nil;
}

} // namespace

extern "C" {
#pragma GCC visibility push(default)

id CFDictionaryCreateMutable(const void*, long limit, const void* keys, const void* values) {
  if (limit < 0) marks::die("CFDictionaryCreateMutable: a limit of %ld", limit);
  if (keys || values)
    marks::die("CFDictionaryCreateMutable: only null callbacks are supported (bare pointers)");
  if (observe::fails("CFDictionaryCreateMutable")) return nil;
  return marks::leave([] { return [TestbedPointerDictionary new]; });
}

const void* CFDictionaryGetValue(id dictionary, const void* key) {
  if (auto* pointers = of_pointers(dictionary, "CFDictionaryGetValue")) {
    std::lock_guard guard(*pointers->lock);
    auto found = pointers->entries->find(key);
    return found == pointers->entries->end() ? nullptr : found->second;
  }
  return marks::leave([&]() -> const void* {
    return [static_cast<NSDictionary*>(dictionary) objectForKey:static_cast<id>(key)];
  });
}

void CFDictionarySetValue(id dictionary, const void* key, const void* value) {
  if (auto* pointers = of_pointers(dictionary, "CFDictionarySetValue")) {
    std::lock_guard guard(*pointers->lock);
    (*pointers->entries)[key] = value;
    return;
  }
  marks::leave([&] {
    [static_cast<NSMutableDictionary*>(dictionary) setObject:static_cast<id>(value)
                                                      forKey:static_cast<id>(key)];
  });
}

void CFDictionaryRemoveValue(id dictionary, const void* key) {
  if (auto* pointers = of_pointers(dictionary, "CFDictionaryRemoveValue")) {
    std::lock_guard guard(*pointers->lock);
    pointers->entries->erase(key);
    return;
  }
  marks::leave([&] {
    [static_cast<NSMutableDictionary*>(dictionary) removeObjectForKey:static_cast<id>(key)];
  });
}

long CFDictionaryGetCount(id dictionary) {
  if (auto* pointers = of_pointers(dictionary, "CFDictionaryGetCount")) {
    std::lock_guard guard(*pointers->lock);
    return static_cast<long>(pointers->entries->size());
  }
  return marks::leave(
      [&] { return static_cast<long>([static_cast<NSDictionary*>(dictionary) count]); });
}

#pragma GCC visibility pop
} // extern "C"
