// Every rule by which a Cocoa object becomes a host value. The objects are the values of an item's
// properties.

#include "played.h"
#include "scenarios.h"

#include "testbed/cocoa/typeids.h"
#include "testbed/companion/appkit.h"
#include "testbed/server/release.h"

#include <objc/runtime.h>

extern "C" {
void CFDictionarySetValue(void* dictionary, const void* key, const void* value);
void CFDictionaryRemoveValue(void* dictionary, const void* key);
}

@interface NSException (Registry)
+ (void*)GetInstancesDictionaryKVZ;
@end

@interface NSObject (Boxes)
+ (id)wrap:(void*)object;
@end

// A number of any type code.
@interface CodedNumber : NSNumber {
@public
  const char* code;
}
@end
@implementation CodedNumber
- (const char*)objCType {
  return code;
}
- (void)getValue:(void*)buffer {
  *static_cast<char*>(buffer) = 0;
}
#define READER(type, name, value)                                                                  \
  -(type)name {                                                                                    \
    return value;                                                                                  \
  }
READER(BOOL, boolValue, YES)
READER(unsigned char, unsignedCharValue, 203)
READER(short, shortValue, -30004)
READER(unsigned short, unsignedShortValue, 60005)
READER(int, intValue, -2000000006)
READER(unsigned int, unsignedIntValue, 4000000007u)
READER(long, longValue, -2000000008)
READER(unsigned long, unsignedLongValue, 4000000009u)
READER(long long, longLongValue, -9000000000000000010)
READER(float, floatValue, 14.25f)
READER(double, doubleValue, 15.125)
@end

// Raises when its second element is asked for.
@interface BrittleArray : NSArray
@end
@implementation BrittleArray
- (NSUInteger)count {
  return 2;
}
- (id)objectAtIndex:(NSUInteger)index {
  if (index) [NSException raise:@"Brittle" format:@"no element 1"];
  return @"first";
}
@end

namespace torture {

namespace {

constexpr Raises anException = {"NSExceptionKVZ", nullptr};
constexpr const char* propertiesMember = "propertiesDictionary as dictionary";

// What the object becomes; one conversion is a member call.
host::Object convert(id object, Raises raises = {}) {
  OneEntry* entry = [[OneEntry new] autorelease];
  entry->value = object;
  PlayedItem* played = [PlayedItem played];
  played->properties = entry;
  host::Object item = played::wrapping("SUAppcastItemKVZ", played);
  auto dictionary = member(item, propertiesMember, {}, raises).as<host::Object>();
  host::Object result = dictionary ? host::at(dictionary, "value") : host::Object();
  dictionary.reset();
  destroy(item);
  return result;
}

void expectHost(const std::string& label, id object, const std::string& expected,
                const std::vector<std::string>& otherwise = {}, Raises raises = {}) {
  host::Object result = convert(object, raises);
  expect(label, host::describe(result), expected, otherwise);
  destroy(result);
}

NSString* text(const std::string& utf8) { return [NSString stringWithUTF8String:utf8.c_str()]; }

void nothings() {
  expectHost("nil", nil, "nil");
  expectHost("NSNull", [NSNull null], "nil");
}

void strings() {
  for (const std::string& each : {std::string("short"), std::string(99, 'x'), std::string(100, 'y'),
                                  std::string("gr\u00fc\u00df \u20ac")})
    // Marked with no encoding it reads as Mac Roman.
    expectHost("string", text(each), "\"" + each + "\"",
               {"\"gr\u221a\u00ba\u221a\u00fc \u201a\u00c7\u00a8\""});
  expectHost("no text", @"", "nil");
}

void numbers() {
  struct Row {
    const char* code;
    const char* expected;
  };
  constexpr Row rows[] = {
      {"c", "Boolean true"},      {"C", "Int32 203"},         {"s", "Int32 -30004"},
      {"S", "Int32 60005"},       {"i", "Int32 -2000000006"}, {"I", "UInt32 4000000007"},
      {"l", "Int32 -2000000008"}, {"L", "UInt32 4000000009"}, {"q", "Int64 -9000000000000000010"},
      {"Q", "UInt64 4000000009"}, {"f", "Single 14.25"},      {"d", "Double 15.125"},
      {"B", "Double 15.125"},
  };
  CodedNumber* number = [[CodedNumber new] autorelease];
  for (const Row& row : rows) {
    number->code = row.code;
    expectHost(row.code, number, row.expected);
  }
}

void data() {
  Raises outOfMemory = {"OutOfMemoryException",
                        "Failed to allocate a memoryblock with 4 bytes in size."};
  expectHost("data", [NSData dataWithBytes:"data" length:4], "MemoryBlock \"data\"", {},
             faulty() ? outOfMemory : Raises{});
  expectHost("no data", [NSData data], "nil");
}

void dates() {
  expectHost("date", played::date(), "Date 2021-03-07 09:05:30",
             {"Date 1904-03-07 09:05:30", "Date 2021-01-07 09:05:30", "Date 2021-03-01 09:05:30",
              "Date 2021-03-07 00:05:30", "Date 2021-03-07 09:00:30", "Date 2021-03-07 09:05:00",
              "Date 1904-01-01 00:00:00"});
}

std::vector<std::string> described(const host::Object& array) {
  std::vector<std::string> all;
  if (array && host::className(array) == "Array")
    for (const host::Value& element : host::elements(array)) all.push_back(shown(element));
  return all;
}

void collections() {
  NSArray* inner = [NSArray arrayWithObjects:@"one", [NSNumber numberWithInt:2], nil];
  host::Object result = convert(inner);
  expectElements("array", described(result), {"\"one\"", "Int32 2"});
  destroy(result);
  result = convert([NSSet setWithObject:@"member"]);
  expectElements("set", described(result), {"\"member\""});
  destroy(result);
  result = convert([NSArray arrayWithObject:inner]);
  std::vector<std::string> outer = described(result);
  if (!faulty()) expectElements("nested", outer, {"[\"one\", Int32 2]"});
  if (outer.size() > 1) fail("nested: more than one");
  destroy(result);

  NSDictionary* dictionary =
      [NSDictionary dictionaryWithObject:[NSDictionary dictionaryWithObject:@"deep" forKey:@"k"]
                                  forKey:@"inner"];
  result = convert(dictionary);
  bool is = result && host::className(result) == "Dictionary";
  host::Object level = is ? host::at(result, "inner") : host::Object();
  is = level && host::className(level) == "Dictionary";
  expect("dictionary", host::describe(is ? host::at(level, "k") : host::Object()), "\"deep\"");
  level.reset();
  destroy(result);
  expectHost("empty array", [NSArray array], "[]");
  expectHost("empty dictionary", [NSDictionary dictionary], "{}");
}

void brittleCollections() {
  expectHost("brittle", [[BrittleArray new] autorelease], "nil", {}, anException);
  expectHost("brittle inside",
             [NSDictionary dictionaryWithObject:[[BrittleArray new] autorelease] forKey:@"k"],
             "nil", {"{\"k\": nil}"}, anException);
}

void registered() {
  host::Object instance = make("SUAppcastItemKVZ");
  NSString* object = @"would be text";
  void* registry = [NSException GetInstancesDictionaryKVZ];
  if (instance) CFDictionarySetValue(registry, object, instance.handle());
  expectHost("registered", object, "SUAppcastItemKVZ");
  CFDictionaryRemoveValue(registry, object);
  destroy(instance);
}

// The class of this name; made where GNUstep lacks it, until the process ends.
Class cocoaClass(const char* name) {
  if (Class known = objc_getClass(name)) return known;
  Class made = objc_allocateClassPair([NSObject class], name, 0);
  objc_registerClassPair(made);
  return made;
}

struct FixedRow {
  const char* wrapper;
  id object;
};

std::vector<FixedRow> fixedRows() {
  return {
      {"NSCalendarKVZ", [[[NSCalendar currentCalendar] copy] autorelease]},
      {"NSErrorKVZ", [NSError errorWithDomain:@"domain" code:7 userInfo:nil]},
      {"NSRunningApplicationKVZ", [[cocoaClass("NSRunningApplication") new] autorelease]},
      {"NSFontKVZ", [[cocoaClass("NSFont") new] autorelease]},
      {"NSFileHandleKVZ", [NSFileHandle fileHandleWithNullDevice]},
      {"NSCharacterSetKVZ", [NSCharacterSet characterSetWithCharactersInString:@"abc"]},
      {"NSLocaleKVZ", [[[NSLocale alloc] initWithLocaleIdentifier:@"en_US"] autorelease]},
      {"NSTimerKVZ", [NSTimer timerWithTimeInterval:3600
                                             target:[NSObject class]
                                           selector:@selector(class)
                                           userInfo:nil
                                            repeats:NO]},
      {"NSTimeZoneKVZ", [NSTimeZone timeZoneForSecondsFromGMT:3600]},
      {"NSParagraphStyleKVZ", [[cocoaClass("NSParagraphStyle") new] autorelease]},
  };
}

void fixedWrappers() {
  for (const FixedRow& row : fixedRows()) expectHost(row.wrapper, row.object, row.wrapper);
}

id attributed() { return [[[NSAttributedString alloc] initWithString:@"a"] autorelease]; }

void walkedClasses() {
  constexpr const char* views[] = {"NSTextViewKVZ", "NSTextKVZ", "NSViewKVZ", "NSResponderKVZ",
                                   "NSObjectKVZ"};
  typeids_deny(objc_getClass("NSResponder"));
  Class textView = objc_getClass("NSTextView");
  expectHost("NSTextView", [[textView new] autorelease], views[0],
             {std::begin(views), std::end(views)});
  Class longName = static_cast<Class>(appkit_class_with_long_name(200));
  expectHost("long name", [[longName new] autorelease], "NSViewKVZ",
             {std::begin(views), std::end(views)});
  expectHost("attributed", attributed(), "NSAttributedStringKVZ", {"NSObjectKVZ"});
}

void URLs() {
  const std::string file = SPARKLE_FRAMEWORKS "/Broken.framework/Versions/A/Sparkle";
  const std::string missing = SPARKLE_FRAMEWORKS "/Broken.framework/missing";
  const std::string lost = SPARKLE_FRAMEWORKS "/no/where";
  auto item = [](const std::string& path) { return "FolderItem \"" + path + "\""; };
  auto string = [](const std::string& path) {
    return "\"file://" + testbed::percent_escaped(path) + "\"";
  };
  expectHost("file", [NSURL fileURLWithPath : text(file)], item(file), { string(file) });
  expectHost("missing", [NSURL fileURLWithPath : text(missing)], item(missing),
             { string(missing) });
  expectHost("lost", [NSURL fileURLWithPath:text(lost)], string(lost));
  expectHost("root", [NSURL fileURLWithPath : @"/"], item("/"), { string("/") });
  expectHost("network", [NSURL URLWithString:@"http://example.org/a"], "\"http://example.org/a\"");
}

void boxes() {
  host::defineClass("Thing");
  host::Object thing = make("Thing");
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  id box = [static_cast<Class>(objc_getClass("KVZREALobjectWrapper")) wrap:thing.handle()];
  expectHost("box", box, "Thing");
  [pool drain];
  destroy(thing);
}

struct ValueRow {
  const char* code;
  const char* wrapper;
};
constexpr ValueRow valueRows[] = {
    {"{_NSRect={_NSPoint=ff}{_NSSize=ff}}", "NSRectKVZ"},
    {"{_NSSize=ff}", "NSSizeKVZ"},
    {"{_NSRange=II}", "NSRangeKVZ"},
    {"{_NSPoint=ff}", "NSPointKVZ"},
    {"{?=qll}", "QTKitTimeKVZ"},
    {"{?={?=qll}{?=qll}}", "QTKitTimeRangeKVZ"},
    {"{?=qiIq}", "CMTimeKVZ"},
    {"{?={?=qiIq}{?=qiIq}}", "CMTimeRangeKVZ"},
    {"{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", "CMTimeMappingKVZ"},
    {"i", "nil"},
};

void expectValues(bool wrapped) {
  const uint8_t bytes[96] = {1, 2, 3};
  for (const ValueRow& row : valueRows)
    expectHost(row.code, [NSValue valueWithBytes:bytes objCType:row.code],
               wrapped ? row.wrapper : "nil");
}

void values() { expectValues(true); }
void unwrappedValues() { expectValues(false); }

struct CFRow {
  const char* function;
  const char* wrapper;
};
constexpr CFRow cfRows[] = {
    {"CFURLGetTypeID", "CFURLKVZ"},
    {"CFDictionaryGetTypeID", "CFDictionaryKVZ"},
    {"CFStringGetTypeID", "CFStringKVZ"},
    {"CFNumberGetTypeID", "CFNumberKVZ"},
    {"CFArrayGetTypeID", "CFArrayKVZ"},
    {"CFBooleanGetTypeID", "CFBooleanKVZ"},
    {"CFDataGetTypeID", "CFBinaryDataKVZ"},
    {"CFCharacterSetGetTypeID", "CFCharacterSetKVZ"},
    {"CFBundleGetTypeID", "CFBundleKVZ"},
    {"CFSetGetTypeID", "CFSetKVZ"},
    {"CFBagGetTypeID", "CFBagKVZ"},
    {"CFUUIDGetTypeID", "CFUUIDKVZ"},
    {"CFTimeZoneGetTypeID", "CFTimeZoneKVZ"},
    {"CFDateGetTypeID", "CFDateKVZ"},
    {"CFAttributedStringGetTypeID", "CFAttributedStringKVZ"},
    {"CFErrorGetTypeID", "CFErrorKVZ"},
    {"CGPSConverterGetTypeID", "CGPSConverterKVZ"},
    {"CGContextGetTypeID", "CGContextKVZ"},
    {"CGColorSpaceGetTypeID", "CGColorSpaceKVZ"},
    {"CGColorGetTypeID", "CGColorKVZ"},
    {"CGImageGetTypeID", "CGImageKVZ"},
    {"CGLayerGetTypeID", "CGLayerKVZ"},
    {"CGFontGetTypeID", "CGFontKVZ"},
    {"CGDataConsumerGetTypeID", "CGDataConsumerKVZ"},
    {"CGDataProviderGetTypeID", "CGDataProviderKVZ"},
    {"CTFontGetTypeID", "CTFontKVZ"},
    {"CTFontCollectionGetTypeID", "CTFontCollectionKVZ"},
    {"CTFrameGetTypeID", "CTFrameKVZ"},
    {"CTFramesetterGetTypeID", "CTFramesetterKVZ"},
    {"CTGlyphInfoGetTypeID", "CTGlyphInfoKVZ"},
    {"CTLineGetTypeID", "CTLineKVZ"},
    {"CTParagraphStyleGetTypeID", "CTParagraphStyleKVZ"},
    {"CTRunGetTypeID", "CTRunKVZ"},
    {"CTRunDelegateGetTypeID", "CTRunDelegateKVZ"},
    {"CTTypesetterGetTypeID", "CTTypesetterKVZ"},
};

id ofType(const char* function) { return [typeids_object(typeids_of(function)) autorelease]; }

// The general wrapper stands in where the right one cannot be made; what the rule cannot do is left
// to the class walk.
void cfObjects() {
  for (const CFRow& row : cfRows)
    expectHost(row.wrapper, ofType(row.function), row.wrapper, {"CFObjectKVZ", "NSObjectKVZ"});
}

void oddCFObjects() {
  expectHost("no row", [typeids_object(typeids_of_no_row()) autorelease], "CFObjectKVZ",
             {"NSObjectKVZ"});
  expectHost("no type", [typeids_object(0) autorelease], "NSObjectKVZ");
  for (const char* place : {"_cfTypeID", "CFGetTypeID"}) {
    id object = ofType("CFURLGetTypeID");
    typeids_throw(object, place, TYPEIDS_NSEXCEPTION);
    expectHost(place, object, "NSObjectKVZ");
  }
}

void spoiledCFObjects() {
  for (const char* function : {"CFURLGetTypeID", "CTLineGetTypeID", "CFBagGetTypeID"}) {
    // Flat and spoiled: the general wrapper has no tag either.
    bool tagged = !strcmp(function, "CFBagGetTypeID");
    expectHost(function, ofType(function), tagged ? "CFBagKVZ" : "nil",
               {"CFObjectKVZ", "NSObjectKVZ"});
  }
}

// A host without a single wrapper class.
void unwrapped() {
  expectHost("error", [NSError errorWithDomain:@"domain" code:7 userInfo:nil], "nil");
  expectHost("object", [[NSObject new] autorelease], "nil");
  expectHost("URL", ofType("CFURLGetTypeID"), "nil");
  expectHost("image", ofType("CGImageGetTypeID"), "nil");
}

} // namespace

const std::vector<Scenario> toHostScenarios = {
    {"to-host-nothing", &standard, nothings},
    {"to-host-strings", &standard, strings},
    {"to-host-numbers", &standard, numbers},
    {"to-host-data", &standard, data},
    {"to-host-dates", &standard, dates},
    {"to-host-collections", &standard, collections},
    {"to-host-brittle", &standard, brittleCollections},
    {"to-host-registered", &standard, registered},
    {"to-host-fixed", &standard, fixedWrappers, [] { fixedRows(); }},
    {"to-host-walked", &standard, walkedClasses, [] { attributed(); }},
    {"to-host-urls", &standard, URLs},
    {"to-host-boxes", &standard, boxes},
    {"to-host-values", &standard, values},
    {"to-host-values-bare", &bare, unwrappedValues},
    {"to-host-cf", &standard, cfObjects},
    {"to-host-cf-odd", &standard, oddCFObjects},
    {"to-host-cf-spoiled", &flat, spoiledCFObjects},
    {"to-host-bare", &bare, unwrapped},
    {"to-host-collections-alone", &alone, collections},
};

} // namespace torture
