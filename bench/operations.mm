#include "bench/operations.h"

#include "bench/floor/floor.h"
#include "bench/lookups.h"

#include "testbed/cocoa/crossing.h"
#include "testbed/cocoa/faults.h"
#include "testbed/cocoa/numbers.h"
#include "testbed/cocoa/typeids.h"
#include "testbed/companion/companion.h"

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <set>

// What the plug-in speaks to instead of the framework: objects that answer at once, so that nothing
// hides what the plug-in itself costs.

@interface BenchUpdater : NSObject {
  BOOL flag;
@public
  NSURL* feed;
}
@end
@implementation BenchUpdater
- (BOOL)automaticallyChecksForUpdates {
  return flag;
}
- (void)setAutomaticallyChecksForUpdates:(BOOL)yes {
  flag = yes;
}
- (NSURL*)feedURL {
  return feed;
}
- (void)setFeedURL:(NSURL*)url {
  (void)url;
}
- (void)setDelegate:(id)delegate {
  (void)delegate;
}
@end

@interface BenchAppcast : NSObject {
@public
  NSArray* items;
}
@end
@implementation BenchAppcast
- (NSArray*)items {
  return items;
}
- (void)setUserAgentString:(NSString*)text {
  (void)text;
}
@end

@interface BenchItem : NSObject {
@public
  NSString* title;
  NSDictionary* properties;
}
@end
@implementation BenchItem
- (NSString*)title {
  return title;
}
- (NSDictionary*)propertiesDictionary {
  return properties;
}
@end

@interface BenchThing : NSObject
@end
@implementation BenchThing
+ (void)initialize {
  typeids_deny(self);
}
@end

@interface NSObject (Boxes)
+ (id)wrap:(void*)object;
@end

namespace bench {
namespace {

constexpr const char* profileName = "2013.03";
constexpr unsigned many = 200;   // calls of a short operation in one batch
constexpr unsigned values = 100; // of one kind in a call that converts

void* plugin; // its entry
uint32_t wordOf(const void* address) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address));
}
void* pointerTo(uint32_t word) { return reinterpret_cast<void*>(static_cast<uintptr_t>(word)); }

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "bench: %s\n", what.c_str());
  abort();
}

// ---- The floors
// ----------------------------------------------------------------------------------

FloorFacts facts;
std::vector<void*> classReferences;
std::vector<void*> classRecords;
std::vector<std::string> wrapperNames;
std::vector<const char*> wrapperNamePointers;
host::Object program; // whose events the callbacks raise
host::Object feed;    // what its handler answers as feed parameters

uint32_t call(void* function, std::vector<uint32_t> words = {}) {
  return static_cast<uint32_t>(
      crossing_enter(function, words.data(), static_cast<unsigned>(words.size())));
}

void* floorOf(const std::string& name) {
  void* found = pointerTo(call(reinterpret_cast<void*>(floorFunction), {wordOf(name.c_str())}));
  if (!found) fail("there is no floor \"" + name + "\"");
  return found;
}

uint32_t eventWord(std::string_view declaration) {
  auto table = host::registered("SUUpdaterKVZ")->table(host::Registered::events);
  for (uint32_t i = 0; i < table.count; ++i)
    if (static_cast<const char*>(pointerTo(table[i][0])) == declaration) return table[i][1];
  fail("the plug-in has no event " + std::string(declaration));
}

void startFloors() {
  facts.resolver = host::resolve;
  facts.recordOffset = host::profile().dataOffset;
  facts.notFoundEvent = eventWord("updaterDidNotFindUpdate");
  facts.foundEvent = eventWord("didFindValidUpdate(update as SUAppcastItemKVZ)");
  facts.feedEvent =
      eventWord("feedParametersForUpdater(sendingProfile as boolean) as dictionary()");
  facts.target = program.handle();
  classRecords.clear();
  for (const std::string& name : host::registrationOrder())
    if (name.starts_with("SU"))
      classRecords.push_back(const_cast<uint32_t*>(host::registered(name)->record));
  facts.classRecords = classRecords.data();
  facts.classRecordCount = static_cast<unsigned>(classRecords.size());
  facts.classReferences = classReferences.data();
  facts.classReferenceCount = static_cast<unsigned>(classReferences.size());
  call(reinterpret_cast<void*>(floorStart), {wordOf(&facts)});
}

void expect(unsigned classTests) {
  wrapperNamePointers.clear();
  for (const std::string& name : wrapperNames) wrapperNamePointers.push_back(name.c_str());
  wrapperNamePointers.push_back(nullptr);
  call(reinterpret_cast<void*>(floorExpect), {wordOf(wrapperNamePointers.data()), classTests});
}

// ---- Calls
// ---------------------------------------------------------------------------------------

Call member(const host::Object& instance, std::string_view className, std::string_view declaration,
            bool setter = false, std::vector<uint32_t> arguments = {}) {
  void* function = host::memberAddress(className, declaration, setter);
  if (!function) fail("the plug-in has no member " + std::string(declaration));
  std::vector<uint32_t> words{wordOf(instance.handle())};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return {Call::By::host, function, words};
}

Prepared pair(Call plugin, const std::string& floor, Gives gives) {
  Prepared prepared;
  prepared.plugin = std::move(plugin);
  prepared.floor = prepared.plugin;
  prepared.floor.function = floorOf(floor);
  prepared.gives = gives;
  return prepared;
}

Call callback(id self, void* function, SEL selector, id first, uint32_t second) {
  return {Call::By::framework, function, {wordOf(self), wordOf(selector), wordOf(first), second}};
}

id delegateOf(const host::Object& updater) { return static_cast<id*>(host::data(updater))[1]; }

Prepared callbackPair(SEL selector, const std::string& floor, id first, uint32_t second) {
  id delegate = delegateOf(program);
  static id beside = static_cast<id>(pointerTo(call(reinterpret_cast<void*>(floorDelegate))));
  Prepared prepared;
  prepared.plugin =
      callback(delegate, reinterpret_cast<void*>([delegate methodForSelector:selector]), selector,
               first, second);
  prepared.floor = callback(beside, crossing_thunk(floorOf(floor)), selector, first, second);
  return prepared;
}

// An instance that owns a new object of the class.
template <class Played> host::Object playing(const char* className, Played* played) {
  host::Object instance = host::create(className);
  host::set(instance, "Handle", wordOf(played));
  return instance;
}

// ---- Text
// ----------------------------------------------------------------------------------------

std::u16string units(unsigned count) {
  std::u16string text;
  for (unsigned i = 0; i < count; ++i) text += static_cast<char16_t>(i % 9 ? u'a' + i % 26 : u'ä');
  return text;
}

NSString* cocoaText(unsigned count) {
  std::u16string text = units(count);
  return [[NSString alloc] initWithCharacters:reinterpret_cast<const unichar*>(text.data())
                                       length:text.size()];
}

host::String hostText(unsigned count) {
  NSString* text = [cocoaText(count) autorelease];
  return host::string([text UTF8String]);
}

host::String urlText(unsigned count) {
  std::string text = "http://example.org/";
  text.resize(count, 'a');
  return host::string(text);
}

Prepared title(unsigned count) {
  BenchItem* item = [BenchItem new];
  item->title = cocoaText(count);
  host::Object instance = playing("SUAppcastItemKVZ", item);
  Prepared prepared =
      pair(member(instance, "SUAppcastItemKVZ", "title as string"), "title", Gives::string);
  prepared.kept = {instance};
  return prepared;
}

Prepared userAgent(unsigned count) {
  host::Object instance = playing("SUAppcastKVZ", [BenchAppcast new]);
  host::String text = hostText(count);
  Prepared prepared = pair(
      member(instance, "SUAppcastKVZ", "UserAgentString as string", true, {wordOf(text.handle())}),
      "set user agent", Gives::nothing);
  prepared.kept = {instance};
  prepared.text = text;
  return prepared;
}

Prepared feedURL(bool setter) {
  constexpr unsigned length = 99;
  BenchUpdater* updater = [BenchUpdater new];
  host::String text = urlText(length);
  updater->feed =
      [[NSURL alloc] initWithString:[NSString stringWithUTF8String:host::bytes(text).c_str()]];
  host::Object instance = playing("SUUpdaterKVZ", updater);
  Prepared prepared = setter ? pair(member(instance, "SUUpdaterKVZ", "feedURL as string", true,
                                           {wordOf(text.handle())}),
                                    "set feed URL", Gives::nothing)
                             : pair(member(instance, "SUUpdaterKVZ", "feedURL as string"),
                                    "feed URL", Gives::string);
  prepared.kept = {instance};
  prepared.text = text;
  return prepared;
}

// ---- Booleans, items, callbacks, start-up
// --------------------------------------------------------

Prepared flag(bool setter) {
  host::Object instance = playing("SUUpdaterKVZ", [BenchUpdater new]);
  const char* declaration = "automaticallyChecksForUpdates as boolean";
  Prepared prepared =
      setter ? pair(member(instance, "SUUpdaterKVZ", declaration, true, {1}), "set flag",
                    Gives::nothing)
             : pair(member(instance, "SUUpdaterKVZ", declaration), "flag", Gives::nothing);
  prepared.kept = {instance};
  return prepared;
}

enum class Time { first, repeated };

Prepared items(unsigned count, Time time) {
  NSMutableArray* array = [NSMutableArray new];
  for (unsigned i = 0; i < count; ++i) [array addObject:[[BenchItem new] autorelease]];
  BenchAppcast* appcast = [BenchAppcast new];
  appcast->items = array;
  host::Object instance = playing("SUAppcastKVZ", appcast);
  const char* declaration = "items as SUAppcastItemKVZ()";
  Prepared prepared = pair(member(instance, "SUAppcastKVZ", declaration), "items", Gives::object);
  prepared.kept = {instance};
  // While an array is alive its instances are, and the next array is of the same.
  if (time == Time::repeated)
    prepared.kept.push_back(host::get<host::Object>(instance, declaration));
  return prepared;
}

Prepared notFound() {
  return callbackPair(@selector(updaterDidNotFindUpdate:), "not found", nil, 0);
}

Prepared found() {
  return callbackPair(@selector(updater:didFindValidUpdate:), "found", nil,
                      wordOf([BenchItem new]));
}

Prepared startUp() {
  Prepared prepared;
  uint32_t resolver = wordOf(reinterpret_cast<void*>(host::resolve));
  prepared.plugin = {Call::By::host, plugin, {resolver}};
  prepared.floor = {Call::By::host, floorOf("start"), {resolver}};
  prepared.before = [] {
    // What the host wrote into the definitions when they were registered before.
    for (void* record : classRecords) {
      auto* words = static_cast<uint32_t*>(record);
      constexpr int placeWord = 4, events = 11, eventCount = 12, eventWords = 4;
      words[placeWord] = 0;
      for (uint32_t i = 0; i < words[eventCount]; ++i)
        static_cast<uint32_t*>(pointerTo(words[events]))[i * eventWords + 1] = 0;
    }
    host::start(profileName);
    host::setWatching(false);
  };
  return prepared;
}

// ---- Dictionaries and values: to the host
// --------------------------------------------------------

host::Object itemWith(NSDictionary* properties) {
  BenchItem* item = [BenchItem new];
  item->properties = [properties retain];
  return playing("SUAppcastItemKVZ", item);
}

Call properties(const host::Object& item) {
  return member(item, "SUAppcastItemKVZ", "propertiesDictionary as dictionary");
}

Prepared dictionaryToHost(unsigned count) {
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  for (unsigned i = 0; i < count; ++i)
    [dictionary setObject:[NSString stringWithFormat:@"value of %u", i]
                   forKey:[NSString stringWithFormat:@"key %u", i]];
  host::Object item = itemWith(dictionary);
  Prepared prepared = pair(properties(item), "properties", Gives::object);
  prepared.kept = {item};
  return prepared;
}

using Make = id (*)(unsigned index);

NSDictionary* dictionaryOf(Make make, unsigned count) {
  NSMutableArray* array = [NSMutableArray array];
  std::set<id> distinct;
  for (unsigned i = 0; i < count; ++i) {
    id value = make(i);
    distinct.insert(value);
    [array addObject:value];
  }
  // What has an instance already is converted otherwise.
  if (distinct.size() != count && ![make(0) isKindOfClass:[NSNull class]] &&
      ![make(0) isKindOfClass:[NSNumber class]])
    fail(std::string("the values of ") + object_getClassName(make(0)) + " are not distinct");
  return [NSDictionary dictionaryWithObject:array forKey:@"values"];
}

// Runs one call with the host's log on.
std::vector<host::LogEntry> logOf(const Call& call, Gives gives) {
  host::setWatching(true);
  host::setStacks(false);
  host::startLog();
  {
    host::Pool pool;
    uint64_t result = 0;
    perform(call, 1, &result);
    drop(gives, result);
  }
  std::vector<host::LogEntry> log = host::stopLog();
  host::setWatching(false);
  return log;
}

std::string unquoted(const std::string& text) {
  return text.size() > 1 && text[0] == '"' ? text.substr(1, text.size() - 2) : text;
}

bool isWrapperName(const std::string& name) { return name.ends_with("KVZ"); }

Prepared valuesToHost(const std::string& floor, Make make) {
  // The floor is told what the plug-in finds out.
  wrapperNames.clear();
  {
    host::Object item = itemWith(dictionaryOf(make, 1));
    for (const host::LogEntry& entry : logOf(properties(item), Gives::object))
      if (entry.name == "PluginNewInstance" && isWrapperName(unquoted(entry.arguments[0])))
        wrapperNames.push_back(unquoted(entry.arguments[0]));
  }
  host::Object item = itemWith(dictionaryOf(make, values));
  Prepared prepared = pair(properties(item), "properties: " + floor, Gives::object);
  prepared.kept = {item};
  expect(0);
  return prepared;
}

Prepared knownToHost() {
  static NSMutableArray* known = [NSMutableArray new];
  for (unsigned i = 0; i < values; ++i) [known addObject:[[BenchItem new] autorelease]];
  BenchAppcast* appcast = [BenchAppcast new];
  appcast->items = known;
  host::Object instance = playing("SUAppcastKVZ", appcast);
  host::Object instances = host::get<host::Object>(instance, "items as SUAppcastItemKVZ()");
  Prepared prepared =
      valuesToHost("known", [](unsigned i) -> id { return [known objectAtIndex:i]; });
  prepared.kept.push_back(instances);
  prepared.kept.push_back(instance);
  return prepared;
}

Prepared unknownToHost() {
  host::hideClass("NSObjectKVZ");
  return valuesToHost("unknown object",
                      [](unsigned) -> id { return [[BenchThing new] autorelease]; });
}

template <class Struct> id boxed(Struct content, const char* type) {
  return [NSValue valueWithBytes:&content objCType:type];
}

struct Words {
  uint32_t words[24];
};
id boxedTime(const char* type) { return boxed(Words{}, type); }

struct CocoaRow {
  const char* name;
  const char* floor;
  Make make;
};

id number(unsigned i, const char* type) {
  switch (*type) {
  case 'c':
    return [NSNumber numberWithBool:i % 2];
  case 'f':
    return [NSNumber numberWithFloat:static_cast<float>(i)];
  case 'd':
    return [NSNumber numberWithDouble:i];
  default:
    return numbers_coded(*type, i % 100);
  }
}

id newOf(const char* className) {
  return [[[static_cast<id>(objc_getClass(className)) alloc] init] autorelease];
}

id cfObject(const char* function) {
  return [typeids_object(function ? typeids_of(function) : typeids_of_no_row()) autorelease];
}

#define CODE(code)                                                                                 \
  {                                                                                                \
    "NSNumber of type " code, "number " code, [](unsigned i) -> id { return number(i, code); }     \
  }
#define VALUE(name, floor, expression)                                                             \
  {                                                                                                \
    name, floor, [](unsigned i) -> id {                                                            \
      (void)i;                                                                                     \
      return expression;                                                                           \
    }                                                                                              \
  }

const CocoaRow cocoaRows[] = {
    VALUE("NSNull", "null", [NSNull null]),
    VALUE("NSArray of one string", "array",
          [NSArray arrayWithObject:([NSString stringWithFormat:@"element %u", i])]),
    VALUE("NSSet of one string", "set",
          [NSSet setWithObject:([NSString stringWithFormat:@"element %u", i])]),
    VALUE("NSString of 10 units", "string", ([NSString stringWithFormat:@"string %03u", i])),
    VALUE("NSData", "data", [NSData dataWithBytes:&i length:sizeof i]),
    CODE("c"),
    CODE("C"),
    CODE("s"),
    CODE("S"),
    CODE("i"),
    CODE("I"),
    CODE("l"),
    CODE("L"),
    CODE("q"),
    CODE("Q"),
    CODE("f"),
    CODE("d"),
    VALUE("NSDate", "date", [NSDate dateWithTimeIntervalSinceReferenceDate:i * 1e5]),
    VALUE("NSDictionary of one string", "dictionary",
          [NSDictionary dictionaryWithObject:@"value"
                                      forKey:([NSString stringWithFormat:@"key %u", i])]),
    VALUE("NSAttributedString", "attributed string",
          ([[[NSAttributedString alloc] initWithString:[NSString stringWithFormat:@"%u", i]]
              autorelease])),
    VALUE("NSCalendar", "NSCalendar",
          [[[NSCalendar alloc] initWithCalendarIdentifier:NSGregorianCalendar] autorelease]),
    VALUE("NSError", "NSError",
          ([NSError errorWithDomain:@"bench" code:static_cast<int>(i) userInfo:nil])),
    VALUE("NSRunningApplication", "NSRunningApplication", newOf("NSRunningApplication")),
    VALUE("NSFont", "NSFont", newOf("NSFont")),
    VALUE("NSFileHandle", "NSFileHandle",
          ([[[NSFileHandle alloc] initWithFileDescriptor:0 closeOnDealloc:NO] autorelease])),
    VALUE(
        "NSCharacterSet", "NSCharacterSet",
        [NSCharacterSet characterSetWithCharactersInString:([NSString stringWithFormat:@"%u", i])]),
    VALUE(
        "NSLocale", "NSLocale",
        ([[[NSLocale alloc]
            initWithLocaleIdentifier:[NSString stringWithFormat:@"%c%c", 'a' + int(i / 26),
                                                                'a' + int(i % 26)]] autorelease])),
    VALUE("NSTimer", "NSTimer",
          ([NSTimer timerWithTimeInterval:1e6
                                   target:[NSNull null]
                                 selector:@selector(description)
                                 userInfo:nil
                                  repeats:NO])),
    VALUE("NSTimeZone", "NSTimeZone",
          [NSTimeZone timeZoneForSecondsFromGMT:static_cast<int>(i + 1) * 60]),
    VALUE("NSParagraphStyle", "NSParagraphStyle", newOf("NSParagraphStyle")),
    VALUE("NSURL of a file", "file URL",
          ([[[NSURL alloc] initFileURLWithPath:@"/usr"] autorelease])),
    VALUE("NSURL of the network", "other URL",
          ([NSURL URLWithString:[NSString stringWithFormat:@"http://example.org/%u", i]])),
    VALUE("boxed host object", "box",
          ([static_cast<id>(objc_getClass("KVZREALobjectWrapper")) wrap:program.handle()])),
    VALUE("NSValue of a rectangle", "rect", [NSValue valueWithRect:NSMakeRect(1, 2, 3, 4)]),
    VALUE("NSValue of a size", "size", [NSValue valueWithSize:NSMakeSize(1, 2)]),
    VALUE("NSValue of a range", "range", [NSValue valueWithRange:NSMakeRange(1, 2)]),
    VALUE("NSValue of a point", "point", [NSValue valueWithPoint:NSMakePoint(1, 2)]),
    VALUE("NSValue of a QuickTime time", "QTTime", boxedTime("{?=qll}")),
    VALUE("NSValue of a QuickTime time range", "QTTimeRange", boxedTime("{?={?=qll}{?=qll}}")),
    VALUE("NSValue of a media time", "CMTime", boxedTime("{?=qiIq}")),
    VALUE("NSValue of a media time range", "CMTimeRange", boxedTime("{?={?=qiIq}{?=qiIq}}")),
    VALUE("NSValue of a media time mapping", "CMTimeMapping",
          boxedTime("{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}")),
    VALUE("CF object of the first type", "CF object", cfObject("CFURLGetTypeID")),
    VALUE("CF object of the last type", "CF object", cfObject("CTTypesetterGetTypeID")),
    VALUE("CF object of no known type", "CF object", cfObject(nullptr)),
    VALUE("CF image", "image", cfObject("CGImageGetTypeID")),
    VALUE("other object with a wrapper class", "other object", [[BenchThing new] autorelease]),
};

// ---- To Cocoa
// ------------------------------------------------------------------------------------

Prepared feedPair(const std::string& floor) {
  return callbackPair(@selector(feedParametersForUpdater:sendingSystemProfile:), floor, nil, 1);
}

Prepared feeding(Prepared prepared, const host::Object& parameters) {
  prepared.before = [parameters, then = std::move(prepared.before)] {
    feed = parameters;
    if (then) then();
  };
  return prepared;
}

host::Object parametersOf(const host::Object& value) {
  return host::array(9, {host::dictionary({{"values", value}})});
}

Prepared dictionaryToCocoa(unsigned count) {
  host::Object dictionary = host::dictionary();
  for (unsigned i = 0; i < count; ++i)
    host::put(dictionary, "key " + std::to_string(i), "value of " + std::to_string(i));
  return feeding(feedPair("feed"), host::array(9, {dictionary}));
}

struct HostRow {
  const char* name;
  const char* floor;
  int32_t elementCode;
  host::Value (*make)(unsigned index);
};

// The classes that the plug-in tests for this object, in order.
std::vector<std::string> classTests(const host::Object& parameters) {
  feed = parameters;
  std::vector<std::string> tested;
  for (const host::LogEntry& entry : logOf(feedPair("feed").plugin, Gives::nothing))
    if (entry.name == "RuntimeObjectIsa") tested.push_back(unquoted(entry.arguments[1]));
  return tested;
}

Prepared valuesToCocoa(const HostRow& row) {
  std::vector<host::Value> elements;
  for (unsigned i = 0; i < values; ++i) elements.push_back(row.make(i));
  unsigned tests = 0;
  if (row.elementCode == 9) {
    std::vector<std::string> tested = classTests(parametersOf(host::array(9, {elements[0]})));
    tests = static_cast<unsigned>(tested.size());
    using ClassRef = void* (*)(const char*);
    auto reference = reinterpret_cast<ClassRef>(host::resolve("pluginObjectType"));
    for (unsigned i = 0; i < tests; ++i) {
      if (i == classReferences.size()) classReferences.push_back(reference(tested[i].c_str()));
      if (classReferences[i] != reference(tested[i].c_str()))
        fail("class " + tested[i] + " is tested out of order");
    }
    startFloors();
  }
  Prepared prepared = feeding(feedPair(std::string("feed: ") + row.floor),
                              parametersOf(host::array(row.elementCode, elements)));
  expect(tests);
  return prepared;
}

#define ELEMENT(name, floor, code, expression)                                                     \
  {                                                                                                \
    name, floor, code, [](unsigned i) -> host::Value {                                             \
      (void)i;                                                                                     \
      return expression;                                                                           \
    }                                                                                              \
  }
#define OF_CODE(name, floor, code, value)                                                          \
  ELEMENT(name, floor, 9, host::variantOfCode(code, host::Value(value)))

const HostRow hostRows[] = {
    OF_CODE("Variant of an Int32", "int32", 2, static_cast<int32_t>(i)),
    OF_CODE("Variant of a colour", "int32", 16, static_cast<int32_t>(i)),
    OF_CODE("Variant of an Int64", "int64", 3, static_cast<int64_t>(i)),
    OF_CODE("Variant of a Single", "single", 4, static_cast<float>(i)),
    OF_CODE("Variant of a Double", "double", 5, static_cast<double>(i)),
    OF_CODE("Variant of a Currency", "double", 6, static_cast<double>(i)),
    ELEMENT("Variant of a Date", "date", 9, host::date({2021, 3, 7, 9, 5, 30})),
    OF_CODE("Variant of a String of 10 units", "string", 8, "a string 9"),
    OF_CODE("Variant of a Boolean", "boolean", 11, i % 2 == 0),
    ELEMENT("array of one String", "array of strings", 9, host::array(9, {"element"})),
    ELEMENT("element of an Int32 array", "int32 elements", 2, static_cast<int32_t>(i)),
    ELEMENT("element of an Int64 array", "int64 elements", 3, static_cast<int64_t>(i)),
    ELEMENT("element of a Single array", "single elements", 4, static_cast<float>(i)),
    ELEMENT("element of a Double array", "double elements", 5, static_cast<double>(i)),
    ELEMENT("element of a Date array", "date elements", 7, host::date({2021, 3, 7, 9, 5, 30})),
    ELEMENT("element of a String array", "string elements", 8, "element 10"),
    ELEMENT("element of a Boolean array", "boolean elements", 11, i % 2 == 0),
    ELEMENT("MemoryBlock", "memory block", 9, host::memoryBlock("bytes")),
    ELEMENT("FolderItem", "folder item", 9, host::folderItem("/usr")),
    ELEMENT("Dictionary of one String", "dictionary", 9, host::dictionary({{"key", "value"}})),
    ELEMENT("wrapper of a Cocoa object", "wrapper", 9,
            [] {
              host::Object wrapper = host::create("NSErrorKVZ");
              static_cast<id*>(host::data(wrapper))[0] = [NSObject new];
              return wrapper;
            }()),
    ELEMENT("wrapper of a size", "size", 9, host::create("NSSizeKVZ")),
    ELEMENT("wrapper of a rectangle", "rect", 9, host::create("NSRectKVZ")),
    ELEMENT("wrapper of a range", "range", 9, host::create("NSRangeKVZ")),
    ELEMENT("wrapper of a point", "point", 9, host::create("NSPointKVZ")),
    ELEMENT("wrapper of a QuickTime time", "QTTime", 9, host::create("QTKitTimeKVZ")),
    ELEMENT("wrapper of a QuickTime time range", "QTTimeRange", 9,
            host::create("QTKitTimeRangeKVZ")),
    ELEMENT("wrapper of a media time mapping", "CMTimeMapping", 9,
            host::create("CMTimeMappingKVZ")),
    ELEMENT("wrapper of a media time range", "CMTimeRange", 9, host::create("CMTimeRangeKVZ")),
    ELEMENT("wrapper of a media time", "CMTime", 9, host::create("CMTimeKVZ")),
    ELEMENT("wrapper of a CF object", "wrapper", 9,
            [] {
              host::Object wrapper = host::create("CFObjectKVZ");
              static_cast<id*>(host::data(wrapper))[0] = [NSObject new];
              return wrapper;
            }()),
    ELEMENT("other host object", "other object", 9, host::create("SUAppcastItemKVZ")),
};

// ---- The table
// -----------------------------------------------------------------------------------

std::vector<Operation> makeOperations() {
  std::vector<Operation> all;
  constexpr double flags = 1.10, strings = 1.05, lists = 1.10, variants = 1.10, callbacks = 1.15;

  const char* section = "Booleans of the updater";
  all.push_back({section, "getter", flags, many, [] { return flag(false); }});
  all.push_back({section, "setter", flags, many, [] { return flag(true); }});

  section = "Strings";
  for (unsigned count : {10u, 99u, 100u, 10000u}) {
    std::string length = std::to_string(count) + " units";
    all.push_back(
        {section, "getter, " + length, strings, many, [=] { return title(count); }, count});
    all.push_back(
        {section, "setter, " + length, strings, many, [=] { return userAgent(count); }, count});
  }
  for (bool setter : {false, true})
    all.push_back({section, setter ? "feedURL setter, 99 units" : "feedURL getter, 99 units",
                   strings, many, [=] { return feedURL(setter); }, 99});

  section = "Items of an appcast";
  for (Time time : {Time::first, Time::repeated})
    for (unsigned count : {10u, 100u, 1000u, 10000u}) {
      const char* which = time == Time::first ? ", first call" : ", repeated call";
      std::string from = count < 1000 ? "" : std::to_string(count / 100) + " items" + which;
      // What a first call makes is alive until its batch ends.
      unsigned calls = time == Time::first ? 1 : std::max(1u, 1000 / count);
      all.push_back({section, std::to_string(count) + " items" + which, lists, calls,
                     [=] { return items(count, time); }, count, from});
    }

  section = "Dictionaries";
  for (unsigned count : {10u, 1000u, 100000u}) {
    auto entries = [](unsigned count) { return std::to_string(count) + " entries"; };
    std::string to = "propertiesDictionary, ", back = "feed parameters, ";
    unsigned calls = std::max(1u, 1000 / count);
    all.push_back({section, to + entries(count), lists, calls,
                   [=] { return dictionaryToHost(count); }, count,
                   count == 10 ? "" : to + entries(count / 100)});
    all.push_back({section, back + entries(count), lists, calls,
                   [=] { return dictionaryToCocoa(count); }, count,
                   count == 10 ? "" : back + entries(count / 100)});
  }

  section = "Values on their way to the host";
  // One call a batch: what an earlier call made is alive until the batch ends, and would be found.
  all.push_back({section, "object with an instance", variants, 1, knownToHost, values});
  for (const CocoaRow& row : cocoaRows)
    all.push_back({section, row.name, variants, 1,
                   [&row] { return valuesToHost(row.floor, row.make); }, values});

  section = "Values on their way to Cocoa";
  for (const HostRow& row : hostRows)
    all.push_back({section, row.name, variants, 1, [&row] { return valuesToCocoa(row); }, values});

  section = "Reporting callbacks on the main thread";
  all.push_back({section, "updaterDidNotFindUpdate", callbacks, many, notFound});
  all.push_back({section, "didFindValidUpdate with a new instance", callbacks, many, found});

  section = "Objects of no wrapper class";
  all.push_back({section, "on their way to the host", variants, 1, unknownToHost, values});

  section = "Start-up";
  all.push_back({section, "registration of the four classes", variants, 1, startUp});
  return all;
}

} // namespace

// ---- operations.h
// --------------------------------------------------------------------------------

void startHost(Family family) {
  host::start(profileName);
  const companion_api* companion = companion_open(COMPANION_PATH);
  companion->register_all(family == Family::there);
  host::loadPlugin(COMPANION_PATH);
  host::loadPlugin(ELF_PLUGIN_PATH);
  plugin = dlsym(dlopen(ELF_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL), "REALPluginMain");
  host::subclass("BenchProgram", "SUUpdaterKVZ",
                 {{"updaterDidNotFindUpdate", [](host::Event&) {}},
                  {"didFindValidUpdate(update as SUAppcastItemKVZ)", [](host::Event&) {}},
                  {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                   [](host::Event&) { return feed; }}});
  // Without a framework there is no updater, but the delegate is made.
  program = host::construct("BenchProgram", "Constructor");
  startFloors();
  host::setWatching(false);
}

const std::vector<Operation>& operations() {
  static const auto* all = new std::vector<Operation>(makeOperations());
  return *all;
}

void perform(const Call& call, unsigned count, uint64_t* results) {
  const uint32_t* words = call.words.data();
  auto size = static_cast<unsigned>(call.words.size());
  if (call.by == Call::By::host) {
    for (unsigned i = 0; i < count; ++i) results[i] = crossing_enter(call.function, words, size);
    return;
  }
  using Method = uint32_t (*)(uint32_t, uint32_t, uint32_t, uint32_t);
  auto method = reinterpret_cast<Method>(call.function);
  for (unsigned i = 0; i < count; ++i) results[i] = method(words[0], words[1], words[2], words[3]);
}

void drop(Gives gives, uint64_t result) {
  void* handle = pointerTo(static_cast<uint32_t>(result));
  if (gives == Gives::string) host::String::adopt(handle);
  if (gives == Gives::object) host::Object::adopt(handle);
}

namespace {

LookUps lookUpsOf(const Call& call, Gives gives) {
  // The host also counts what it is asked for an object at hand, as "array.insert Object": that is
  // no look-up by name, or (a method) counted below.
  auto ofOperations = [] {
    uint64_t sum = 0;
    for (const std::string& name : host::operationNames())
      if (name.find('.') == std::string::npos) sum += host::lookups(name);
    return sum;
  };
  uint64_t operations = ofOperations();
  unsigned runtime = runtimeLookUps();
  LookUps result{};
  for (const host::LogEntry& entry : logOf(call, gives)) {
    if (entry.name == "pluginObjectType") ++result.classes;
    if (entry.name == "PluginNewInstance") ++result.classes;
    if (entry.name == "REALLoadObjectMethod") ++result.methods;
  }
  result.classes += static_cast<unsigned>(ofOperations() - operations);
  result.classes += runtimeLookUps() - runtime;
  return result;
}

// What a further object adds, COUNT being for so many of them; the first time does not count.
template <class Count> LookUps perObject(Count count) {
  count(1);
  LookUps first = count(1), second = count(2);
  return {second.classes - first.classes, second.methods - first.methods};
}

} // namespace

LookUps lookUpsToHost() {
  auto thing = [](unsigned) -> id { return [[BenchThing new] autorelease]; };
  return perObject([&](unsigned things) {
    host::Object item = itemWith(dictionaryOf(thing, things));
    return lookUpsOf(properties(item), Gives::object);
  });
}

LookUps impliedLookUpsToHost() {
  unsigned classes = 0;
  for (Class type = [BenchThing class]; type; type = class_getSuperclass(type)) ++classes;
  for (const char* name : floors::ruleClasses) classes += objc_lookUpClass(name) == Nil;
  return {classes, 0};
}

LookUps impliedLookUpsToCocoa() {
  constexpr unsigned wrapperClasses = 129;
  return {wrapperClasses + (objc_lookUpClass("KVZREALobjectWrapper") == Nil), 1};
}

LookUps lookUpsToCocoa() {
  host::defineClass("Thing");
  Call call = feedPair("feed").plugin;
  return perObject([&](unsigned things) {
    std::vector<host::Value> elements;
    for (unsigned i = 0; i < things; ++i) elements.emplace_back(host::create("Thing"));
    feed = parametersOf(host::array(9, elements));
    return lookUpsOf(call, Gives::nothing);
  });
}

void callOnce(const Prepared& prepared, const Call& call) {
  if (prepared.before) prepared.before();
  host::Pool pool;
  uint64_t result = 0;
  perform(call, 1, &result);
  drop(prepared.gives, result);
}

unsigned allocations(const Prepared& prepared) {
  if (prepared.before) prepared.before();
  host::Pool pool;
  uint64_t result = 0;
  faults_start(FAULTS_THIS_THREAD);
  perform(prepared.plugin, 1, &result);
  faults_stop();
  drop(prepared.gives, result);
  return static_cast<unsigned>(faults_calls("malloc") + faults_calls("calloc"));
}

std::vector<std::string> stepsOf(const Prepared& prepared, const Call& call) {
  if (prepared.before) prepared.before();
  host::setWatching(true);
  host::setStacks(false);
  host::Pool pool;
  std::vector<std::string> steps;
  // The log is the host's own list; what came since the last step goes before the next.
  size_t taken = 0;
  auto takeLog = [&] {
    for (const host::LogEntry& entry : host::currentLog(taken)) {
      steps.push_back(entry.text());
      ++taken;
    }
  };
  struct Context {
    decltype(takeLog)& take;
    std::vector<std::string>& steps;
  } context{takeLog, steps};
  faults_on_message(
      [](void* given, id receiver, SEL selector) {
        auto* context = static_cast<Context*>(given);
        context->take();
        bool ofClass = class_isMetaClass(object_getClass(receiver));
        // The floor's delegate is of a class of its own.
        std::string name = object_getClassName(receiver);
        if (name == "BenchFloorDelegate") name = object_getClassName(delegateOf(program));
        context->steps.push_back((ofClass ? "+[" : "-[") + name + " " + sel_getName(selector) +
                                 "]");
      },
      &context);
  faults_on_call(
      [](void* given, const char* name) {
        std::string function = name;
        if (function == "malloc" || function == "calloc") return;
        auto* context = static_cast<Context*>(given);
        context->take();
        context->steps.push_back(function + "()");
      },
      &context);
  host::startLog();
  faults_start(FAULTS_THIS_THREAD);
  uint64_t result = 0;
  perform(call, 1, &result);
  faults_stop();
  takeLog();
  host::stopLog();
  faults_on_message(nullptr, nullptr);
  faults_on_call(nullptr, nullptr);
  drop(prepared.gives, result);
  host::setWatching(false);
  return steps;
}

} // namespace bench
