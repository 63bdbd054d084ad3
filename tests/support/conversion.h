// Both ways through the value conversion, as the framework and host programs reach it.
//
//   conversion::toHost(object)        an item answers { "value": object } to propertiesDictionary
//   conversion::Feeder().convert(v)   a handler answers [{ "value": v }] to
//   feedParametersForUpdater
//
// Cocoa objects given here are borrowed and never retained, so that a test can count what the
// plug-in does with them. Main thread, unless a test says otherwise. For one source file of a
// program: it defines Objective-C classes.
#pragma once

#include "odd_objects.h"
#include "plugin_objects.h"
#include "session.h"

#include "testbed/companion/companion.h"

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

// Counts what is done to it; belongs to whoever made it.
@interface Probe : NSObject {
@public
  int retains, releases;
}
@end

static int probeDeaths;

@implementation Probe
- (id)retain {
  ++retains;
  return [super retain];
}
- (oneway void)release {
  ++releases;
  [super release];
}
- (void)dealloc {
  ++probeDeaths;
  [super dealloc];
}
@end

@interface NSException (ConversionTests)
+ (void*)GetInstancesDictionaryKVZ;
@end

@interface NSObject (ConversionTests)
+ (id)wrap:(void*)object;
- (void*)unwrap;
@end

extern "C" {
const void* CFDictionaryGetValue(void* dictionary, const void* key);
void CFDictionarySetValue(void* dictionary, const void* key, const void* value);
void CFDictionaryRemoveValue(void* dictionary, const void* key);
}

namespace conversion {

// The companion's control interface; what it is to provide is said before the session starts.
inline const companion_api* companion() { return companion_open("libtestbed_companion.so"); }

// The Cocoa class of this name; made where GNUstep lacks it.
inline Class cocoaClass(const std::string& name, const char* superName = "NSObject") {
  if (Class known = objc_getClass(name.c_str())) return known;
  Class made = objc_allocateClassPair(objc_getClass(superName), name.c_str(), 0);
  objc_registerClassPair(made);
  return made;
}

inline host::Object itemWith(id properties) {
  host::Object item = host::create("SUAppcastItemKVZ");
  PlayedItem* played = [[PlayedItem alloc] init]; // the instance's, who releases it
  played->properties = properties;
  host::set(item, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>(played)));
  return item;
}

// What a dictionary, or whatever answers like one, becomes; nil when that ended in an exception.
inline host::Object dictionaryToHost(id dictionary) {
  host::Object item = itemWith(dictionary);
  return host::get<host::Object>(item, "propertiesDictionary as dictionary");
}

inline host::Object toHost(id object) {
  OneEntry* entry = [[OneEntry alloc] init];
  entry->value = object;
  host::Object dictionary = dictionaryToHost(entry);
  [entry release];
  if (!dictionary) {
    ADD_FAILURE() << "the whole conversion gave nil";
    return {};
  }
  return host::at(dictionary, "value");
}

inline std::string described(id object) { return host::describe(toHost(object)); }

// The registry of the companion; null without it.
inline void* registry() {
  if (![NSException respondsToSelector:@selector(GetInstancesDictionaryKVZ)]) return nullptr;
  return [NSException GetInstancesDictionaryKVZ];
}

// A box around a host object, autoreleased.
inline id boxed(const host::Object& object) {
  return [static_cast<Class>(objc_getClass("KVZREALobjectWrapper")) wrap:object.handle()];
}

// Whether a variant holds a string at all.
inline bool holdsString(const host::Object& variant) {
  return static_cast<bool>(host::inspect(variant).value.as<host::String>());
}

// The first field of an instance of a wrapper class.
inline id wrapped(const host::Object& instance) { return *static_cast<id*>(host::data(instance)); }

// A Cocoa object as one line: numbers as their type code and value, collections with their
// elements, the keys of dictionaries sorted by how they print.
inline std::string print(id object) {
  auto text = [](NSString* string) { return std::string([string UTF8String] ?: "(no UTF-8)"); };
  if (!object) return "nil";
  if (object == [NSNull null]) return "null";
  if ([object isKindOfClass:[NSNumber class]]) {
    std::string code = [object objCType];
    NSString* format = code == "Q" ? @"%llu" : @"%lld";
    NSString* value = code == "f" || code == "d"
                          ? [NSString stringWithFormat:@"%.17g", [object doubleValue]]
                          : [NSString stringWithFormat:format, [object longLongValue]];
    return code + ":" + text(value);
  }
  if ([object isKindOfClass:[NSString class]]) return "\"" + text(object) + "\"";
  if ([object isKindOfClass:[NSDate class]])
    return text([object descriptionWithCalendarFormat:@"%Y-%m-%d %H:%M:%S"
                                             timeZone:nil
                                               locale:nil]);
  if ([object isKindOfClass:[NSData class]])
    return "data \"" + std::string(static_cast<const char*>([object bytes]), [object length]) +
           "\"";
  if ([object isKindOfClass:[NSURL class]]) return text([object absoluteString]);
  if ([object isKindOfClass:[NSArray class]]) {
    std::string all = "[";
    for (NSUInteger i = 0; i < [object count]; ++i)
      all += (i ? ", " : "") + print([object objectAtIndex:i]);
    return all + "]";
  }
  if ([object isKindOfClass:[NSDictionary class]]) {
    std::map<std::string, std::string> sorted;
    NSEnumerator* keys = [object keyEnumerator];
    while (id key = [keys nextObject]) sorted[print(key)] = print([object objectForKey:key]);
    std::string all = "{";
    for (auto& [key, value] : sorted) all += (all.size() > 1 ? ", " : "") + key + ": " + value;
    return all + "}";
  }
  return object_getClassName(object);
}

// A host instance of the updater, whose handler answers what a test gives it. Loads the framework.
class Feeder {
public:
  Feeder() {
    EXPECT_TRUE(session::loadFramework());
    host::subclass("Feeder", "SUUpdaterKVZ",
                   {{"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                     [this](host::Event&) { return host::Value(answer_); }}});
    instance_ = host::construct("Feeder", "Constructor");
    id<HasDelegate> updater = reinterpret_cast<id>(host::get<int32_t>(instance_, "Handle"));
    delegate_ = [updater delegate];
    EXPECT_TRUE(delegate_);
  }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  // What the framework gets when the handler answers this.
  NSArray* ask(const host::Object& array) {
    answer_ = array;
    id answer = [static_cast<id<Delegate>>(delegate_) feedParametersForUpdater:nil
                                                          sendingSystemProfile:NO];
    answer_ = nullptr;
    return answer;
  }

  // What one host dictionary becomes; nil when that ended in an exception. Then the callback gives
  // back neither the array nor the element that it held, which is made good here.
  NSDictionary* convertDictionary(const host::Object& dictionary) {
    host::Object array = host::array(9, {dictionary});
    int held = host::referenceCount(dictionary);
    NSArray* answer = ask(array);
    log_ = session::takeLog();
    if ([answer count]) {
      EXPECT_EQ(host::referenceCount(array), 1);
      return [answer objectAtIndex:0];
    }
    EXPECT_EQ(log_.size(), 1u);
    EXPECT_EQ(host::referenceCount(array), 2);
    EXPECT_EQ(host::referenceCount(dictionary), held + 1);
    if (host::referenceCount(array) == 2) host::Object::adopt(array.handle()).reset();
    if (host::referenceCount(dictionary) > held) host::Object::adopt(dictionary.handle()).reset();
    return nil;
  }

  id convert(const host::Value& value) {
    NSDictionary* dictionary = convertDictionary(host::dictionary({{"value", value}}));
    EXPECT_EQ([dictionary count], 1u) << logged();
    id result = [[dictionary allValues] lastObject]; // the key may be what cannot be read
    return result == [NSNull null] ? nil : result;
  }
  std::string printed(const host::Value& value) { return print(convert(value)); }

  // Whether the conversion of this value ends in an exception, with nothing else lost.
  bool raises(const host::Value& value) {
    return !convertDictionary(host::dictionary({{"value", value}}));
  }
  // What the last conversion logged: the exception that ended it, if there was one.
  std::string logged() const { return log_.empty() ? "" : log_.front(); }

private:
  host::Object answer_, instance_;
  id delegate_ = nil;
  std::vector<std::string> log_;
};

} // namespace conversion
