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

#include "session.h"

#include "testbed/companion/companion.h"

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

// Plays an item of the framework.
@interface PlayedItem : NSObject {
@public
  id properties;
}
@end

@implementation PlayedItem
- (id)propertiesDictionary {
  return properties;
}
@end

// A dictionary of one entry, whose value may be nil.
@interface OneEntry : NSObject {
@public
  id value;
}
@end

@implementation OneEntry
- (NSArray*)allKeys {
  return [NSArray arrayWithObject:@"value"];
}
- (id)objectForKey:(id)key {
  return [key isEqual:@"value"] ? value : nil;
}
@end

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

@protocol FeedDelegate
- (id)feedParametersForUpdater:(id)updater sendingSystemProfile:(BOOL)sending;
@end

@protocol HasDelegate
- (id)delegate;
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

  // What the framework gets when the handler answers this. The handler's own reference stays here
  // until the next call or reset.
  NSArray* ask(const host::Object& array) {
    answer_ = array;
    id answer = [static_cast<id<FeedDelegate>>(delegate_) feedParametersForUpdater:nil
                                                              sendingSystemProfile:NO];
    answer_ = nullptr;
    return answer;
  }

  // What one host dictionary becomes; nil when that ended in an exception, which was logged.
  NSDictionary* convertDictionary(const host::Object& dictionary) {
    NSArray* answer = ask(host::array(9, {dictionary}));
    return [answer count] ? [answer objectAtIndex:0] : nil;
  }

  id convert(const host::Value& value) {
    NSDictionary* dictionary = convertDictionary(host::dictionary({{"value", value}}));
    id result = [dictionary objectForKey:@"value"];
    if (!result) ADD_FAILURE() << "the whole conversion gave nil";
    return result == [NSNull null] ? nil : result;
  }

private:
  host::Object answer_, instance_;
  id delegate_ = nil;
};

} // namespace conversion
