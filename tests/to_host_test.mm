// What each Cocoa object becomes in the host: every rule, in their order, and every row of their
// tables. The objects come as values of an item's propertiesDictionary.

#include "conversion.h"
#include "unreported.h"

#include "testbed/cocoa/numbers.h"
#include "testbed/cocoa/typeids.h"
#include "testbed/server/release.h"

#include <gmock/gmock.h>

#include <cmath>
#include <fstream>
#include <set>

using conversion::cocoaClass;
using conversion::companion;
using conversion::described;
using conversion::dictionaryToHost;
using conversion::registry;
using conversion::toHost;
using conversion::wrapped;
using testing::ElementsAre;
using testing::ElementsAreArray;

// A number of any type code, whose readers all answer something else.
@interface CodedNumber : NSNumber {
@public
  const char* code;
}
@end

@implementation CodedNumber
// clang-format off
- (const char*)objCType                      { return code; }
- (void)getValue:(void*)buffer               { *static_cast<char*>(buffer) = 0; }
- (BOOL)boolValue                            { return 1; }
- (signed char)charValue                     { return 0; }
- (unsigned char)unsignedCharValue           { return 203; }
- (short)shortValue                          { return -30004; }
- (unsigned short)unsignedShortValue         { return 60005; }
- (int)intValue                              { return -2000000006; }
- (unsigned int)unsignedIntValue             { return 4000000007u; }
- (long)longValue                            { return -2000000008; }
- (unsigned long)unsignedLongValue           { return 4000000009u; }
- (long long)longLongValue                   { return -9000000000000000010; }
- (unsigned long long)unsignedLongLongValue  { return 9000000000000000011u; }
- (NSInteger)integerValue                    { return -12; }
- (NSUInteger)unsignedIntegerValue           { return 13; }
- (float)floatValue                          { return 14.25f; }
- (double)doubleValue                        { return 15.125; }
// clang-format on
@end

// A value of any type code without a content.
@interface CodedValue : NSValue {
@public
  const char* code;
}
@end

@implementation CodedValue
- (const char*)objCType {
  return code;
}
- (void)getValue:(void*)buffer {
  (void)buffer;
}
- (NSRect)rectValue {
  return NSMakeRect(1, 2, 3, 4);
}
- (NSSize)sizeValue {
  return NSMakeSize(5, 6);
}
- (NSRange)rangeValue {
  return NSMakeRange(7, 8);
}
- (NSPoint)pointValue {
  return NSMakePoint(9, 10);
}
@end

// Answers its objects in another order than its enumerator.
@interface TurnedSet : NSSet
@end

@implementation TurnedSet
- (NSUInteger)count {
  return 3;
}
- (id)member:(id)object {
  return object;
}
- (NSEnumerator*)objectEnumerator {
  return [[NSArray arrayWithObjects:@"a", @"b", @"c", nil] objectEnumerator];
}
- (NSArray*)allObjects {
  return [NSArray arrayWithObjects:@"c", @"b", @"a", nil];
}
@end

// Throws the first time it is retained.
@interface Reluctant : NSObject {
@public
  BOOL willing;
}
@end

@implementation Reluctant
- (unsigned long)_cfTypeID {
  return typeids_of("CFBagGetTypeID");
}
- (id)retain {
  if (!willing) {
    willing = YES;
    [NSException raise:@"Reluctant" format:@"not the first time"];
  }
  return [super retain];
}
@end

// Has a type identifier, but says that it does not answer it.
@interface Denying : NSObject
@end

@implementation Denying
- (unsigned long)_cfTypeID {
  return typeids_of("CFURLGetTypeID");
}
- (BOOL)respondsToSelector:(SEL)selector {
  return !sel_isEqual(selector, @selector(_cfTypeID)) && [super respondsToSelector:selector];
}
@end

extern "C" id CFStringCreateWithCharacters(const void* allocator, const unichar* units, long count);

namespace {

class ToHost : public session::Test {
protected:
  void SetUp() override {
    session::Test::SetUp();
    [NSTimeZone setDefaultTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  }

  // One exception of this class is pending; takes it.
  void expectException(const std::string& className) {
    auto raised = host::takeException();
    ASSERT_TRUE(raised) << "no exception is pending";
    EXPECT_EQ(raised->className, className);
    EXPECT_EQ(raised->count, 1u);
    session::takeLog();
  }
};

// What makes no difference to a host's year.
class ToHostRules : public ToHost {};
// What does with the interface version or the place of the data.
class ToHostRecords : public ToHost {};

INSTANTIATE_TEST_SUITE_P(Hosts, ToHost, session::everyHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, ToHostRules, session::oneHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, ToHostRecords, session::everyInterface(), session::hostName);

int retainCount(id object) { return static_cast<int>([object retainCount]); }

// The calls of an operation in the log, by their first argument.
std::vector<std::string> firstArguments(const std::vector<host::LogEntry>& log,
                                        const std::string& operation) {
  std::vector<std::string> arguments;
  for (const host::LogEntry& entry : log)
    if (entry.name == operation) arguments.push_back(entry.arguments.at(0));
  return arguments;
}

std::string existingFile() {
  std::string path = session::folder() + "/existing";
  std::ofstream(path) << "content";
  return path;
}

NSString* text(const std::string& utf8) { return [NSString stringWithUTF8String:utf8.c_str()]; }

// ---- Nothing

TEST_P(ToHost, NothingAndNSNullGiveNull) {
  start();
  EXPECT_FALSE(toHost(nil));
  EXPECT_FALSE(toHost([NSNull null]));
}

// ---- The registry

TEST_P(ToHostRecords, ARegisteredObjectComesBackAsItsInstance) {
  start();
  host::Object instance = host::create("SUAppcastItemKVZ");
  NSString* object = @"would be text";
  CFDictionarySetValue(registry(), object, instance.handle());
  host::Object first = toHost(object), second = toHost(object);
  EXPECT_EQ(first, instance);
  EXPECT_EQ(second, instance);
  EXPECT_EQ(host::referenceCount(instance), 3);
  CFDictionaryRemoveValue(registry(), object);
  EXPECT_EQ(described(object), "\"would be text\"");
}

TEST_P(ToHostRules, NothingStaysNothingWhateverTheRegistryHolds) {
  start();
  host::Object instance = host::create("SUAppcastItemKVZ");
  CFDictionarySetValue(registry(), [NSNull null], instance.handle());
  EXPECT_FALSE(toHost([NSNull null]));
  CFDictionaryRemoveValue(registry(), [NSNull null]);
  EXPECT_EQ(host::referenceCount(instance), 1);
}

// ---- Arrays and sets

TEST_P(ToHost, AnArrayGivesItsElementsInOrder) {
  start();
  EXPECT_EQ(described([NSArray arrayWithObjects:@"one", [NSNumber numberWithInt:2], @"three",
                                                [NSNumber numberWithDouble:4.5], [NSNull null],
                                                [NSArray arrayWithObject:@"five"], nil]),
            "[\"one\", Int32 2, \"three\", Double 4.5, nil, [\"five\"]]");
}

TEST_P(ToHost, ASetGivesItsElementsInTheOrderOfAllObjects) {
  start();
  EXPECT_EQ(described([[TurnedSet new] autorelease]), "[\"c\", \"b\", \"a\"]");
  NSMutableSet* set = [NSMutableSet set];
  for (int i = 0; i < 20; ++i) [set addObject:[NSNumber numberWithInt:i * 7]];
  EXPECT_EQ(described(set), described([set allObjects]));
}

TEST_P(ToHostRules, AnArrayIsMadeEmptyAndFilledElementByElement) {
  start();
  NSArray* array = [NSArray arrayWithObjects:@"a", [NSNumber numberWithInt:2], nil];
  host::startLog();
  host::Object made = toHost(array);
  std::vector<std::string> steps;
  for (const host::LogEntry& entry : host::stopLog()) {
    if (entry.name.starts_with("RuntimeArray") || entry.name.starts_with("array."))
      steps.push_back(entry.text());
  }
  EXPECT_THAT(steps, ElementsAre("RuntimeArrayCreateSingleDimBoundedArray(4, -1) -> Array#1",
                                 "RuntimeArrayDirectGetInsertProc(Array#1) -> pointer",
                                 "array.insert Object(Array#1, 0, Variant#2)",
                                 "RuntimeArrayDirectGetInsertProc(Array#1) -> pointer",
                                 "array.insert Object(Array#1, 1, Variant#3)"));
  EXPECT_EQ(host::referenceCount(made), 1);
  for (const host::Value& element : host::elements(made))
    EXPECT_EQ(host::referenceCount(element.as<host::Object>()), 3); // the array's and two of ours
}

TEST_P(ToHostRules, AnEmptyCollectionGivesAnEmptyArray) {
  start();
  for (id collection : {static_cast<id>([NSArray array]), static_cast<id>([NSSet set])}) {
    host::Object array = toHost(collection);
    ASSERT_TRUE(array);
    EXPECT_EQ(host::upperBound(array), -1);
  }
}

TEST_P(ToHostRules, WithoutAnArrayACollectionGivesNull) {
  start();
  host::failAlways("RuntimeArrayCreateSingleDimBoundedArray");
  EXPECT_FALSE(toHost([NSArray arrayWithObject:@"a"]));
  EXPECT_FALSE(toHost([NSSet setWithObject:@"a"]));
}

TEST_P(ToHostRules, ACollectionThatHoldsItselfGivesNull) {
  start();
  NSMutableArray* array = [NSMutableArray arrayWithObject:@"before"];
  for (id itself : {array, array}) [array addObject:itself];
  NSMutableSet* set = [NSMutableSet set];
  NSArray* between = [NSArray arrayWithObject:set];
  [set addObject:between];
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  [dictionary setObject:[NSArray arrayWithObject:dictionary] forKey:@"self"];
  for (id cycle : {static_cast<id>(array), static_cast<id>(set), static_cast<id>(dictionary)}) {
    OneEntry* entry = [[OneEntry new] autorelease];
    entry->value = cycle;
    EXPECT_FALSE(dictionaryToHost(entry));
    EXPECT_EQ(host::ledger(), host::Ledger{}) << host::leakReport();
  }
  [array removeAllObjects];
  [set removeAllObjects];
  [dictionary removeAllObjects];
}

TEST_P(ToHostRules, FiveHundredLevelsOfArraysAreCarried) {
  start();
  id nested = @"core";
  for (int i = 0; i < 500; ++i) nested = [NSArray arrayWithObject:nested];
  host::Object level = toHost(nested);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(host::upperBound(level), 0) << "level " << i;
    level = host::elements(level)[0].as<host::Object>();
  }
  EXPECT_EQ(host::describe(level), "\"core\"");
}

TEST_P(ToHostRules, WhatAnArrayRaisesIsRaisedInTheHost) {
  start();
  BrittleArray* array = [[BrittleArray new] autorelease];
  EXPECT_FALSE(dictionaryToHost([NSDictionary dictionaryWithObject:array forKey:@"k"]));
  expectException("NSExceptionKVZ");
}

TEST_P(ToHostRules, AnElementWhoseInsertionThrowsIsGivenBack) {
  start();
  host::throwFromCall("array.insert Object", [[NSException alloc] initWithName:@"Refused"
                                                                        reason:@"by the test"
                                                                      userInfo:nil]);
  NSArray* array = [NSArray arrayWithObject:@"element"];
  EXPECT_FALSE(dictionaryToHost([NSDictionary dictionaryWithObject:array forKey:@"k"]));
  EXPECT_TRUE(host::takeException());
  EXPECT_EQ(host::ledger(), host::Ledger{}) << host::leakReport();
}

TEST_P(ToHostRules, WhatElseAnArrayThrowsPassesOn) {
  start();
  BrittleArray* array = [[BrittleArray new] autorelease];
  array->thrown = [[NSObject new] autorelease];
  NSDictionary* dictionary = [NSDictionary dictionaryWithObject:array forKey:@"k"];
  host::Object item = conversion::itemWith(dictionary);
  host::CallResult result = host::callCatching(item, "propertiesDictionary as dictionary");
  EXPECT_EQ(result.thrown.object, array->thrown);
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Strings

TEST_P(ToHost, AStringGivesAStringVariantInUTF8) {
  start();
  std::string accents = "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x8D\x8E";
  for (const std::string& each :
       {std::string("plain"), accents, std::string(99, 'x'), std::string(100, 'y')}) {
    host::VariantView view = host::inspect(toHost(text(each)));
    EXPECT_EQ(view.maker, "StringToVariant");
    EXPECT_EQ(host::bytes(view.value.as<host::String>()), each);
    EXPECT_EQ(host::encoding(view.value.as<host::String>()), host::utf8);
  }
}

TEST_P(ToHostRules, AStringWithoutATextInUTF8GivesAVariantOfNoString) {
  start();
  const unichar lone[] = {'a', 0xD800, 'b'}, turned[] = {0xDC00, 0xD800}, nul[] = {0, 'a'};
  id strings[] = {@"", CFStringCreateWithCharacters(nullptr, lone, 3),
                  CFStringCreateWithCharacters(nullptr, turned, 2),
                  CFStringCreateWithCharacters(nullptr, nul, 2)};
  for (id string : strings) {
    SCOPED_TRACE([string length]);
    host::VariantView view = host::inspect(toHost(string));
    EXPECT_EQ(view.maker, "StringToVariant");
    EXPECT_FALSE(view.value.as<host::String>());
    [string release];
  }
}

TEST_P(ToHostRules, TextBehindANulIsLeftOut) {
  start();
  const unichar units[] = {'a', 'b', 0, 'c'};
  EXPECT_EQ(described([NSString stringWithCharacters:units length:4]), "\"ab\"");
}

// ---- Data

TEST_P(ToHostRules, DataGivesAMemoryBlock) {
  start();
  EXPECT_EQ(host::memoryBlockBytes(toHost([NSData dataWithBytes:"a\0b" length:3])),
            std::string("a\0b", 3));
  EXPECT_FALSE(toHost([NSData data]));
}

// A raise ends the call: nothing more is converted, and what was goes back.
TEST_P(ToHostRules, DataThatTheHostHasNoRoomForRaisesOnceAndEndsTheConversion) {
  start();
  host::limitMemoryBlocks(2);
  NSData* large = [NSData dataWithBytes:"abc" length:3];
  NSData* larger = [NSData dataWithBytes:"abcd" length:4];
  NSArray* both = [NSArray arrayWithObjects:@"before", large, larger, nil];
  const struct {
    NSDictionary* source;
    unsigned others; // conversions of what is not data
  } rows[] = {
      {[NSDictionary dictionaryWithObject:large forKey:@"key"], 1},
      {[NSDictionary dictionaryWithObject:@"value" forKey:large], 0},
      {[NSDictionary dictionaryWithObject:larger forKey:large], 0},
      {[NSDictionary dictionaryWithObjectsAndKeys:large, large, large, larger, nil], 0},
      {[NSDictionary dictionaryWithObject:both forKey:@"key"], 2},
      {[NSDictionary dictionaryWithObject:[NSSet setWithObjects:large, larger, nil] forKey:@"key"],
       1},
      {[NSDictionary dictionaryWithObject:[NSDictionary dictionaryWithObject:both forKey:@"inner"]
                                   forKey:@"key"],
       3},
  };
  for (auto& row : rows) {
    SCOPED_TRACE([[row.source description] UTF8String]);
    host::resetCounts();
    EXPECT_FALSE(conversion::dictionaryToHost(row.source));
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->count, 1u);
    EXPECT_EQ(raised->className, "OutOfMemoryException");
    EXPECT_EQ(host::calls("newMemoryBlock"), 1u);
    EXPECT_EQ(host::calls("StringToVariant"), row.others);
    EXPECT_EQ(host::calls("Dictionary.Value(key As Variant, Assigns _value As Variant)"), 0u);
  }
}

// ---- Numbers

struct NumberRow {
  const char* code;
  const char* maker;
  host::Value value;
};

TEST_P(ToHostRecords, ANumberIsReadAndMadeByItsTypeCode) {
  start();
  const NumberRow rows[] = {
      {"c", "BooleanToVariant", true},
      {"C", "Int32ToVariant", 203},
      {"s", "Int32ToVariant", -30004},
      {"S", "Int32ToVariant", 60005},
      {"i", "Int32ToVariant", -2000000006},
      {"I", "UInt32ToVariant", 4000000007u},
      {"l", "Int32ToVariant", -2000000008},
      {"L", "UInt32ToVariant", 4000000009u},
      {"q", "Int64ToVariant", int64_t{-9000000000000000010}},
      {"Q", "UInt64ToVariant", uint64_t{4000000009}},
      {"f", "SingleToVariant", 14.25f},
      {"d", "DoubleToVariant", 15.125},
      // Any other code.
      {"B", "DoubleToVariant", 15.125},
      {"D", "DoubleToVariant", 15.125},
      {"", "DoubleToVariant", 15.125},
      {"ci", "DoubleToVariant", 15.125},
      {"rc", "DoubleToVariant", 15.125},
      {"{_NSRange=II}", "DoubleToVariant", 15.125},
  };
  for (const NumberRow& row : rows) {
    SCOPED_TRACE(row.code);
    CodedNumber* number = [[CodedNumber new] autorelease];
    number->code = row.code;
    host::VariantView view = host::inspect(toHost(number));
    EXPECT_EQ(view.maker, row.maker);
    EXPECT_EQ(view.value.held(), row.value.held());
  }
}

TEST_P(ToHost, TrueAndACharacterBothGiveABoolean) {
  start();
  EXPECT_EQ(described([NSNumber numberWithBool:YES]), "Boolean true");
  EXPECT_EQ(described([NSNumber numberWithBool:NO]), "Boolean false");
  EXPECT_EQ(described([NSNumber numberWithChar:65]), "Boolean true");
  EXPECT_EQ(described([NSNumber numberWithChar:-1]), "Boolean true");
  EXPECT_EQ(described([NSNumber numberWithChar:0]), "Boolean false");
}

TEST_P(ToHost, AnUnsigned64BitNumberKeepsItsLow32Bits) {
  start();
  host::Object variant = toHost(numbers_coded('Q', (1ll << 32) + 5));
  EXPECT_EQ(host::inspect(variant).maker, "UInt64ToVariant");
  EXPECT_EQ(host::describe(variant), "UInt64 5");
  EXPECT_EQ(described([NSNumber numberWithUnsignedLongLong:UINT64_MAX]), "UInt64 4294967295");
}

TEST_P(ToHostRules, NumbersOfCocoaKeepTheirKindAndValue) {
  start();
  const std::pair<NSNumber*, const char*> cases[] = {
      {[NSNumber numberWithUnsignedChar:200], "Int32 200"},
      {[NSNumber numberWithShort:-32768], "Int32 -32768"},
      {[NSNumber numberWithUnsignedShort:65535], "Int32 65535"},
      {[NSNumber numberWithInt:INT32_MIN], "Int32 -2147483648"},
      {[NSNumber numberWithUnsignedInt:UINT32_MAX], "Int64 4294967295"},
      {[NSNumber numberWithLong:-7], "Int32 -7"},
      {[NSNumber numberWithUnsignedLong:UINT32_MAX], "Int64 4294967295"},
      {[NSNumber numberWithLongLong:INT64_MIN], "Int64 -9223372036854775808"},
      {[NSNumber numberWithFloat:-0.5f], "Single -0.5"},
      {[NSNumber numberWithDouble:1e300], "Double 1e+300"},
  };
  for (auto& [number, expected] : cases) EXPECT_EQ(described(number), expected);
  EXPECT_TRUE(
      std::isnan(host::inspect(toHost([NSNumber numberWithDouble:NAN])).value.as<double>()));
  EXPECT_TRUE(
      std::isinf(host::inspect(toHost([NSNumber numberWithFloat:-INFINITY])).value.as<float>()));
}

// ---- Dates and dictionaries

TEST_P(ToHostRules, ADateGivesADateWithoutTheFraction) {
  start();
  NSDate* date = [NSDate dateWithTimeIntervalSinceReferenceDate:64.75];
  EXPECT_EQ(described(date), "Date 2001-01-01 00:01:04");
}

TEST_P(ToHostRules, DatesOutOfRangeGiveSomeDateOrWhatCocoaRaises) {
  start();
  OddDate* date = [[OddDate new] autorelease];
  NSDictionary* dictionary = [NSDictionary dictionaryWithObject:date forKey:@"k"];
  for (double seconds : {-1e300, -1e15, 1e12, 1e15, 1e300, double(NAN), double(INFINITY)}) {
    SCOPED_TRACE(seconds);
    date->seconds = seconds;
    session::Unreported dates; // GNUstep's initialiser raises and loses what it was given
    host::Object made = dictionaryToHost(dictionary);
    EXPECT_EQ(static_cast<bool>(made), !host::takeException());
    if (made) EXPECT_EQ(host::className(host::at(made, "k")), "Date");
  }
  EXPECT_EQ(host::className(toHost([NSDate distantPast])), "Date");
  EXPECT_EQ(host::className(toHost([NSDate distantFuture])), "Date");
}

TEST_P(ToHost, ADictionaryGivesADictionary) {
  start();
  NSDictionary* inner = [NSDictionary dictionaryWithObject:[NSNumber numberWithInt:1] forKey:@"a"];
  EXPECT_EQ(described([NSDictionary dictionaryWithObject:inner forKey:@"inner"]),
            "{\"inner\": {\"a\": Int32 1}}");
}

// ---- Wrappers by the class, and the class walk

TEST_P(ToHostRecords, AnAttributedStringIsWrappedByItsClass) {
  start();
  NSAttributedString* styled = [[NSAttributedString alloc] initWithString:@"styled"];
  int before = retainCount(styled);
  host::Object wrapper = toHost(styled);
  ASSERT_EQ(host::className(wrapper), "NSAttributedStringKVZ");
  EXPECT_EQ(wrapped(wrapper), styled);
  EXPECT_EQ(retainCount(styled), before + 1);
  EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
  EXPECT_NE(toHost(styled), wrapper);
  wrapper.reset();
  EXPECT_EQ(retainCount(styled), before);
  [styled release];
}

TEST_P(ToHostRules, TheWalkOfAnAttributedStringBeginsAtItsOwnClass) {
  start();
  NSMutableAttributedString* styled =
      [[[NSMutableAttributedString alloc] initWithString:@"styled"] autorelease];
  std::string own = std::string(object_getClassName(styled)) + "KVZ";
  host::defineClass(own, "NSAttributedStringKVZ");
  EXPECT_EQ(host::className(toHost(styled)), own);
}

TEST_P(ToHostRecords, TheWalkEndsAtTheFirstClassThatTheHostHas) {
  start();
  typeids_deny(cocoaClass("NSResponder"));
  cocoaClass("NSView", "NSResponder");
  cocoaClass("NSText", "NSView");
  id view = [cocoaClass("NSTextView", "NSText") new];
  int before = retainCount(view);
  for (const char* expected :
       {"NSTextViewKVZ", "NSTextKVZ", "NSViewKVZ", "NSResponderKVZ", "NSObjectKVZ"}) {
    host::Object wrapper = toHost(view);
    ASSERT_EQ(host::className(wrapper), expected);
    EXPECT_EQ(wrapped(wrapper), view);
    EXPECT_EQ(retainCount(view), before + 1);
    wrapper.reset();
    EXPECT_EQ(retainCount(view), before);
    host::hideClass(expected);
  }
  host::startLog();
  EXPECT_FALSE(toHost(view));
  EXPECT_THAT(firstArguments(host::stopLog(), "PluginNewInstance"),
              ElementsAre("\"Dictionary\"", "\"NSTextViewKVZ\"", "\"NSTextKVZ\"", "\"NSViewKVZ\"",
                          "\"NSResponderKVZ\"", "\"NSObjectKVZ\""));
  EXPECT_EQ(retainCount(view), before);
  EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
  [view release];
}

TEST_P(ToHostRules, TheWalkIsMadeForEachObjectWhoseWrapperIsMissing) {
  start();
  host::hideClass("NSObjectKVZ");
  typeids_deny(cocoaClass("NSStranger"));
  id object = [[cocoaClass("NSStranger") new] autorelease];
  for (int i = 0; i < 2; ++i) {
    host::startLog();
    EXPECT_FALSE(toHost(object));
    EXPECT_THAT(firstArguments(host::stopLog(), "PluginNewInstance"),
                ElementsAre("\"Dictionary\"", "\"NSStrangerKVZ\"", "\"NSObjectKVZ\""));
  }
}

TEST_P(ToHostRules, AWrapperClassThatTheHostGetsLaterIsFound) {
  start();
  typeids_deny(cocoaClass("NSStranger"));
  id stranger = [[cocoaClass("NSStranger") new] autorelease];
  host::hideClass("NSObjectKVZ");
  for (const char* name : {"NSErrorKVZ", "NSRectKVZ", "CFURLKVZ", "CFObjectKVZ"})
    host::hideClass(name);
  NSValue* rect = [NSValue valueWithRect:NSMakeRect(1, 2, 3, 4)];
  id reference = [typeids_object(typeids_of("CFURLGetTypeID")) autorelease];
  EXPECT_FALSE(toHost(stranger));
  NSError* error = [NSError errorWithDomain:@"domain" code:7 userInfo:nil];
  EXPECT_FALSE(toHost(error));
  EXPECT_FALSE(toHost(rect));
  EXPECT_FALSE(toHost(reference));
  for (const char* name : {"NSObjectKVZ", "NSErrorKVZ", "NSRectKVZ", "CFURLKVZ"})
    host::showClass(name);
  host::defineClass("NSStrangerKVZ", "NSObjectKVZ");
  EXPECT_EQ(host::className(toHost(stranger)), "NSStrangerKVZ");
  EXPECT_EQ(host::className(toHost(error)), "NSErrorKVZ");
  EXPECT_EQ(host::className(toHost(rect)), "NSRectKVZ");
  EXPECT_EQ(host::className(toHost(reference)), "CFURLKVZ");
}

BOOL isAFont(id, SEL, Class type) { return type == objc_lookUpClass("NSFont"); }

TEST_P(ToHostRules, ACocoaClassThatIsLoadedLaterIsFound) {
  start();
  host::hideClass("NSObjectKVZ");
  ASSERT_FALSE(objc_lookUpClass("NSFont"));
  typeids_deny(cocoaClass("NSStranger"));
  id standsForAFont = [[cocoaClass("NSStranger") new] autorelease];
  class_addMethod(object_getClass(standsForAFont), @selector(isKindOfClass:),
                  reinterpret_cast<IMP>(isAFont), "c@:#");
  EXPECT_FALSE(toHost(standsForAFont));
  cocoaClass("NSFont");
  EXPECT_EQ(host::className(toHost(standsForAFont)), "NSFontKVZ");
}

TEST_P(ToHostRules, AClassNameOver199CharactersIsPassedOver) {
  start();
  typeids_deny(cocoaClass("NSResponder"));
  cocoaClass("NSView", "NSResponder");
  for (size_t length : {196u, 199u, 200u, 300u}) {
    SCOPED_TRACE(length);
    std::string name = "NSLong" + std::string(length - 6, 'x');
    // The host has it all the same.
    host::defineClass(name + "KVZ", "NSViewKVZ");
    id object = [[cocoaClass(name, "NSView") new] autorelease];
    EXPECT_EQ(host::className(toHost(object)), length <= 199 ? name + "KVZ" : "NSViewKVZ");
  }
}

// ---- Wrappers by a fixed name

// An object of the class, and what it becomes.
struct ObjectRow {
  const char* cocoaClass;
  const char* expected;
  id (*make)();
};

template <const char* Name> id plainObject() { return [[cocoaClass(Name) new] autorelease]; }

id calendar() { return [[[NSCalendar currentCalendar] copy] autorelease]; }
id error() { return [NSError errorWithDomain:@"domain" code:7 userInfo:nil]; }
id runningApplication() { return [[cocoaClass("NSRunningApplication") new] autorelease]; }
id font() { return [[cocoaClass("NSFont") new] autorelease]; }
id paragraphStyle() { return [[cocoaClass("NSParagraphStyle") new] autorelease]; }
id fileHandle() { return [NSFileHandle fileHandleForReadingAtPath:text(existingFile())]; }
id characterSet() { return [NSCharacterSet characterSetWithCharactersInString:@"abc"]; }
id locale() { return [[[NSLocale alloc] initWithLocaleIdentifier:@"en_US"] autorelease]; }
id timer() {
  return [NSTimer timerWithTimeInterval:3600
                                 target:[NSObject class]
                               selector:@selector(class)
                               userInfo:nil
                                repeats:NO];
}
id timeZone() { return [NSTimeZone timeZoneForSecondsFromGMT:3600]; }

const ObjectRow fixedRows[] = {
    {"NSCalendar", "NSCalendarKVZ", calendar},
    {"NSError", "NSErrorKVZ", error},
    {"NSRunningApplication", "NSRunningApplicationKVZ", runningApplication},
    {"NSFont", "NSFontKVZ", font},
    {"NSFileHandle", "NSFileHandleKVZ", fileHandle},
    {"NSCharacterSet", "NSCharacterSetKVZ", characterSet},
    {"NSLocale", "NSLocaleKVZ", locale},
    {"NSTimer", "NSTimerKVZ", timer},
    {"NSTimeZone", "NSTimeZoneKVZ", timeZone},
    {"NSParagraphStyle", "NSParagraphStyleKVZ", paragraphStyle},
};

// Makes the object's class a subclass of its own, of a name that the host has a wrapper for.
void giveOwnClass(id object) {
  std::string name = std::string("Own") + object_getClassName(object);
  object_setClass(object, cocoaClass(name, object_getClassName(object)));
  host::defineClass(name + "KVZ", "NSObjectKVZ");
}

TEST_P(ToHostRecords, ObjectsWithAFixedWrapperAreWrappedOnceAndRegistered) {
  start();
  for (const ObjectRow& row : fixedRows) {
    SCOPED_TRACE(row.cocoaClass);
    id object = [row.make() retain];
    giveOwnClass(object);
    int before = retainCount(object);
    host::Object wrapper = toHost(object);
    ASSERT_EQ(host::className(wrapper), row.expected);
    EXPECT_EQ(wrapped(wrapper), object);
    EXPECT_EQ(retainCount(object), before + 1);
    EXPECT_EQ(CFDictionaryGetValue(registry(), object), wrapper.handle());
    EXPECT_EQ(toHost(object), wrapper);
    EXPECT_EQ(host::referenceCount(wrapper), 1);
    EXPECT_EQ(retainCount(object), before + 1);
    wrapper.reset();
    EXPECT_EQ(retainCount(object), before);
    EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
    [object release];
  }
}

TEST_P(ToHostRules, WithoutTheFixedWrapperClassTheObjectGivesNull) {
  start();
  for (const ObjectRow& row : fixedRows) {
    SCOPED_TRACE(row.cocoaClass);
    host::hideClass(row.expected);
    id object = [row.make() retain];
    giveOwnClass(object);
    int before = retainCount(object);
    EXPECT_FALSE(toHost(object));
    EXPECT_EQ(retainCount(object), before);
    EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
    [object release];
  }
}

TEST_P(ToHost, TheSameErrorGivesTheSameObjectWhileItLives) {
  start();
  NSError* object = error();
  host::Object first = toHost(object), second = toHost(object);
  EXPECT_EQ(first, second);
  EXPECT_EQ(host::referenceCount(first), 2);
}

TEST_P(ToHost, TheSameErrorGivesTwoObjectsWithoutARegistry) {
  companion()->provide(COMPANION_REGISTRY, 0);
  start();
  NSError* object = error();
  host::Object first = toHost(object), second = toHost(object);
  EXPECT_EQ(host::className(first), "NSErrorKVZ");
  EXPECT_EQ(host::className(second), "NSErrorKVZ");
  EXPECT_NE(first, second);
  EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
}

// ---- URLs

TEST_P(ToHost, AURLOfAnExistingFileGivesAFolderItem) {
  start();
  std::string path = existingFile();
  EXPECT_EQ(described([NSURL fileURLWithPath:text(path)]), "FolderItem \"" + path + "\"");
}

TEST_P(ToHostRules, AURLOfAMissingFileGivesAFolderItemWhileItsFolderExists) {
  start();
  std::string path = session::folder() + "/missing";
  EXPECT_EQ(described([NSURL fileURLWithPath:text(path)]), "FolderItem \"" + path + "\"");
  NSURL* lost = [NSURL fileURLWithPath:text(path + "/deeper")];
  EXPECT_EQ(described(lost), "\"file://" + testbed::percent_escaped(path) + "/deeper\"");
}

TEST_P(ToHost, AURLOfANetworkSchemeGivesItsAbsoluteString) {
  start();
  NSURL* base = [NSURL URLWithString:@"https://example.org/feeds/"];
  host::Object variant = toHost([NSURL URLWithString:@"appcast.xml?a=1" relativeToURL:base]);
  EXPECT_EQ(host::inspect(variant).maker, "StringToVariant");
  EXPECT_EQ(host::describe(variant), "\"https://example.org/feeds/appcast.xml?a=1\"");
}

NSString* noString(id, SEL) { return nil; }

TEST_P(ToHostRules, AURLWithoutAnAbsoluteStringGivesAVariantOfNoString) {
  start();
  NSURL* url = [[[NSURL alloc] initWithString:@"https://example.org/"] autorelease];
  Class type = cocoaClass("WordlessURL", "NSURL");
  class_addMethod(type, @selector(absoluteString), reinterpret_cast<IMP>(noString), "@8@0:4");
  object_setClass(url, type);
  host::VariantView view = host::inspect(toHost(url));
  EXPECT_EQ(view.maker, "StringToVariant");
  EXPECT_FALSE(view.value.as<host::String>());
}

// ---- Boxed host objects

TEST_P(ToHostRecords, ABoxGivesTheHostObjectInIt) {
  start();
  host::defineClass("Thing");
  host::Object thing = host::create("Thing");
  {
    host::Pool pool;
    id box = conversion::boxed(thing);
    host::Object unboxed = toHost(box);
    EXPECT_EQ(unboxed, thing);
    EXPECT_EQ(host::referenceCount(thing), 3); // thing, the box, unboxed
  }
  EXPECT_EQ(host::referenceCount(thing), 1);
}

// ---- Values

struct StructRow {
  const char* code;
  const char* wrapper; // null: gives null
  size_t size;
};

constexpr StructRow structRows[] = {
    {"{_NSRect={_NSPoint=ff}{_NSSize=ff}}", "NSRectKVZ", 16},
    {"{_NSSize=ff}", "NSSizeKVZ", 8},
    {"{_NSRange=II}", "NSRangeKVZ", 8},
    {"{_NSPoint=ff}", "NSPointKVZ", 8},
    {"{?=qll}", "QTKitTimeKVZ", 16},
    {"{?={?=qll}{?=qll}}", "QTKitTimeRangeKVZ", 32},
    {"{?=qiIq}", "CMTimeKVZ", 24},
    {"{?={?=qiIq}{?=qiIq}}", "CMTimeRangeKVZ", 48},
    {"{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", "CMTimeMappingKVZ", 96},
};

std::string pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 5 + 1);
  return bytes;
}

TEST_P(ToHostRecords, AStructGivesItsWrapperWithTheSameBytes) {
  start();
  for (const StructRow& row : structRows) {
    SCOPED_TRACE(row.code);
    std::string bytes = pattern(row.size);
    host::Object wrapper = toHost([NSValue valueWithBytes:bytes.data() objCType:row.code]);
    ASSERT_EQ(host::className(wrapper), row.wrapper);
    EXPECT_EQ(host::referenceCount(wrapper), 1);
    EXPECT_EQ(std::string(static_cast<char*>(host::data(wrapper)), row.size), bytes);
  }
}

TEST_P(ToHostRules, CocoasOwnStructsHaveTheseTypes) {
  start();
  EXPECT_EQ(host::className(toHost([NSValue valueWithRect:NSMakeRect(1, 2, 3, 4)])), "NSRectKVZ");
  EXPECT_EQ(host::className(toHost([NSValue valueWithSize:NSMakeSize(1, 2)])), "NSSizeKVZ");
  EXPECT_EQ(host::className(toHost([NSValue valueWithRange:NSMakeRange(1, 2)])), "NSRangeKVZ");
  EXPECT_EQ(host::className(toHost([NSValue valueWithPoint:NSMakePoint(1, 2)])), "NSPointKVZ");
}

TEST_P(ToHostRules, EachStructIsReadByItsOwnMessage) {
  start();
  struct {
    const char* code;
    std::vector<float> floats;
  } rows[] = {{structRows[0].code, {1, 2, 3, 4}},
              {structRows[1].code, {5, 6}},
              {structRows[3].code, {9, 10}}};
  CodedValue* value = [[CodedValue new] autorelease];
  for (auto& row : rows) {
    value->code = row.code;
    host::Object wrapper = toHost(value);
    auto* floats = static_cast<float*>(host::data(wrapper));
    EXPECT_EQ(std::vector<float>(floats, floats + row.floats.size()), row.floats) << row.code;
  }
  value->code = "{_NSRange=II}";
  host::Object range = toHost(value);
  EXPECT_EQ(static_cast<uint32_t*>(host::data(range))[0], 7u);
  EXPECT_EQ(static_cast<uint32_t*>(host::data(range))[1], 8u);
}

TEST_P(ToHostRules, AValueOfAnotherTypeGivesNull) {
  start();
  CodedValue* value = [[CodedValue new] autorelease];
  for (const char* code :
       {"", "i", "@", "^v", "{_NSPoint=ff}x", "{_NSSize=ff}{_NSSize=ff}", "{_NSRange=QQ}",
        "{_NSPoint=dd}", "{?=qll}x", "r{_NSSize=ff}", "{?=qiIqq}", "{_NSRect={_NSPoint=ff}}"}) {
    value->code = code;
    EXPECT_FALSE(toHost(value)) << code;
  }
  int number = 5;
  EXPECT_FALSE(toHost([NSValue valueWithBytes:&number objCType:@encode(int)]));
  EXPECT_FALSE(toHost([NSValue valueWithPointer:&number]));
}

TEST_P(ToHostRules, WithoutTheWrapperClassAStructGivesNull) {
  start();
  for (const StructRow& row : structRows) {
    host::hideClass(row.wrapper);
    EXPECT_FALSE(toHost([NSValue valueWithBytes:pattern(row.size).data() objCType:row.code]))
        << row.code;
  }
}

TEST_P(ToHostRules, TimesGiveNullWhereValuesDoNotAnswerThem) {
  companion()->provide(COMPANION_TIMES, 0);
  start();
  for (const StructRow& row : structRows) {
    host::Object wrapper = toHost([NSValue valueWithBytes:pattern(row.size).data()
                                                 objCType:row.code]);
    EXPECT_EQ(static_cast<bool>(wrapper), std::string(row.code).starts_with("{_NS")) << row.code;
  }
}

// ---- Core Foundation objects

struct CFRow {
  const char* type;
  const char* wrapper;
};

constexpr CFRow cfRows[] = {
    {"CFURL", "CFURLKVZ"},
    {"CFDictionary", "CFDictionaryKVZ"},
    {"CFString", "CFStringKVZ"},
    {"CFNumber", "CFNumberKVZ"},
    {"CFArray", "CFArrayKVZ"},
    {"CFBoolean", "CFBooleanKVZ"},
    {"CFData", "CFBinaryDataKVZ"},
    {"CFCharacterSet", "CFCharacterSetKVZ"},
    {"CFBundle", "CFBundleKVZ"},
    {"CFSet", "CFSetKVZ"},
    {"CFBag", "CFBagKVZ"},
    {"CFUUID", "CFUUIDKVZ"},
    {"CFTimeZone", "CFTimeZoneKVZ"},
    {"CFDate", "CFDateKVZ"},
    {"CFAttributedString", "CFAttributedStringKVZ"},
    {"CFError", "CFErrorKVZ"},
    {"CGPSConverter", "CGPSConverterKVZ"},
    {"CGContext", "CGContextKVZ"},
    {"CGColorSpace", "CGColorSpaceKVZ"},
    {"CGColor", "CGColorKVZ"},
    {"CGImage", "CGImageKVZ"},
    {"CGLayer", "CGLayerKVZ"},
    {"CGFont", "CGFontKVZ"},
    {"CGDataConsumer", "CGDataConsumerKVZ"},
    {"CGDataProvider", "CGDataProviderKVZ"},
    {"CTFont", "CTFontKVZ"},
    {"CTFontCollection", "CTFontCollectionKVZ"},
    {"CTFrame", "CTFrameKVZ"},
    {"CTFramesetter", "CTFramesetterKVZ"},
    {"CTGlyphInfo", "CTGlyphInfoKVZ"},
    {"CTLine", "CTLineKVZ"},
    {"CTParagraphStyle", "CTParagraphStyleKVZ"},
    {"CTRun", "CTRunKVZ"},
    {"CTRunDelegate", "CTRunDelegateKVZ"},
    {"CTTypesetter", "CTTypesetterKVZ"},
};

bool isImage(const CFRow& row) { return std::string(row.type) == "CGImage"; }

id objectOf(const CFRow& row) {
  unsigned long type = typeids_of((std::string(row.type) + "GetTypeID").c_str());
  EXPECT_NE(type, 0u) << row.type;
  return typeids_object(type);
}

TEST_P(ToHostRecords, ACoreFoundationObjectIsWrappedByItsType) {
  start();
  for (const CFRow& row : cfRows) {
    SCOPED_TRACE(row.type);
    id object = objectOf(row);
    host::Object wrapper = toHost(object);
    ASSERT_EQ(host::className(wrapper), row.wrapper);
    EXPECT_EQ(wrapped(wrapper), object);
    typeids_counts counts = typeids_count(object);
    EXPECT_EQ(counts.retains, 1u);
    EXPECT_EQ(counts.releases, 0u);
    EXPECT_EQ(counts.image_retains, isImage(row) ? 1u : 0u);
    EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
    EXPECT_NE(toHost(object), wrapper);
    wrapper.reset();
    EXPECT_EQ(typeids_count(object).releases, typeids_count(object).retains);
    [object release];
  }
}

TEST_P(ToHostRules, ATypeOfNoRowGivesTheGeneralWrapper) {
  start();
  id object = typeids_object(typeids_of_no_row());
  host::startLog();
  EXPECT_EQ(host::className(toHost(object)), "CFObjectKVZ");
  EXPECT_THAT(firstArguments(host::stopLog(), "PluginNewInstance"),
              ElementsAre("\"Dictionary\"", "\"CFObjectKVZ\""));
  [object release];
}

TEST_P(ToHostRules, TheGeneralWrapperStandsInForAMissingClassButNotForAnImage) {
  start();
  for (const CFRow& row : cfRows) {
    SCOPED_TRACE(row.type);
    host::hideClass(row.wrapper);
    id object = objectOf(row);
    host::Object wrapper = toHost(object);
    EXPECT_EQ(host::className(wrapper), isImage(row) ? "nil" : "CFObjectKVZ");
    wrapper.reset();
    EXPECT_EQ(typeids_count(object).releases, typeids_count(object).retains);
    [object release];
  }
  host::hideClass("CFObjectKVZ");
  for (const CFRow& row : cfRows) {
    id object = objectOf(row);
    EXPECT_FALSE(toHost(object)) << row.type;
    EXPECT_EQ(typeids_count(object).releases, typeids_count(object).retains);
    [object release];
  }
}

TEST_P(ToHostRules, AWrapperWithAWrongTagGivesNull) {
  for (const CFRow& row : cfRows)
    if (!isImage(row)) companion()->spoil_tag(row.wrapper);
  start();
  for (const CFRow& row : cfRows) {
    SCOPED_TRACE(row.type);
    id object = objectOf(row);
    EXPECT_EQ(static_cast<bool>(toHost(object)), isImage(row));
    EXPECT_EQ(typeids_count(object).releases, typeids_count(object).retains);
    EXPECT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
    [object release];
  }
}

TEST_P(ToHostRules, TheGeneralWrapperNeedsTheTagToo) {
  companion()->spoil_tag("CFObjectKVZ");
  start();
  id object = typeids_object(typeids_of_no_row());
  EXPECT_FALSE(toHost(object));
  host::hideClass("CTLineKVZ");
  id line = typeids_object(typeids_of("CTLineGetTypeID"));
  EXPECT_FALSE(toHost(line));
  EXPECT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
  [object release];
  [line release];
}

TEST_P(ToHostRules, ATypeOfZeroOrBelowGoesToTheClassWalk) {
  start();
  for (unsigned long type : {0ul, 0xFFFFFFFFul, 0x80000000ul}) {
    id object = typeids_object(type);
    EXPECT_EQ(host::className(toHost(object)), "NSObjectKVZ") << type;
    [object release];
  }
  EXPECT_EQ(host::className(toHost([[Denying new] autorelease])), "NSObjectKVZ");
}

TEST_P(ToHostRules, AnExceptionInTheRuleOfCoreFoundationGoesToTheClassWalk) {
  start();
  for (const char* place : {"_cfTypeID", "CFGetTypeID"}) {
    SCOPED_TRACE(place);
    id object = typeids_object(typeids_of("CFURLGetTypeID"));
    typeids_throw(object, place, TYPEIDS_NSEXCEPTION);
    host::Object wrapper = toHost(object);
    EXPECT_EQ(host::className(wrapper), "NSObjectKVZ");
    wrapper.reset();
    EXPECT_EQ(typeids_count(object).releases, typeids_count(object).retains);
    [object release];
  }
  Reluctant* reluctant = [Reluctant new];
  int before = retainCount(reluctant);
  EXPECT_EQ(host::className(toHost(reluctant)), "NSObjectKVZ");
  EXPECT_EQ(retainCount(reluctant), before);
  [reluctant release];
  EXPECT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
  EXPECT_EQ(session::takeLog().size(), 0u);
}

TEST_P(ToHostRules, AnObjectThatNeverLetsItselfBeRetainedRaises) {
  start();
  for (const char* type : {"CFURLGetTypeID", "CGImageGetTypeID"}) {
    id object = typeids_object(typeids_of(type));
    typeids_throw(object, "retain", TYPEIDS_NSEXCEPTION);
    OneEntry* entry = [[OneEntry new] autorelease];
    entry->value = object;
    EXPECT_FALSE(dictionaryToHost(entry));
    expectException("NSExceptionKVZ");
    [object release];
  }
  EXPECT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
}

TEST_P(ToHostRules, AnotherObjectThrownInTheRuleOfCoreFoundationPassesOn) {
  start();
  for (const char* place : {"_cfTypeID", "CFGetTypeID", "retain"}) {
    SCOPED_TRACE(place);
    id object = typeids_object(typeids_of("CFURLGetTypeID"));
    typeids_throw(object, place, TYPEIDS_OTHER_OBJECT);
    OneEntry* entry = [[OneEntry new] autorelease];
    entry->value = object;
    host::Object item = conversion::itemWith(entry);
    host::CallResult result = host::callCatching(item, "propertiesDictionary as dictionary");
    EXPECT_EQ(result.thrown.className, "NSObject");
    EXPECT_EQ(host::pendingExceptions(), 0u);
    [object release];
  }
  EXPECT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
}

// ---- The order of the rules

std::set<Class>& claimed() {
  static std::set<Class> classes;
  return classes;
}

BOOL claims(id self, SEL, Class type) {
  if (claimed().contains(type)) return YES;
  for (Class each = object_getClass(self); each; each = class_getSuperclass(each))
    if (each == type) return YES;
  return NO;
}

unsigned long urlType(id, SEL) { return typeids_of("CFURLGetTypeID"); }

// From now on the object says to be of every claimed class, and to be a CFURL.
id pretending(id object) {
  std::string name = std::string("Pretending") + object_getClassName(object);
  Class type = cocoaClass(name, object_getClassName(object));
  class_addMethod(type, @selector(isKindOfClass:), reinterpret_cast<IMP>(claims), "c12@0:4#8");
  class_addMethod(type, @selector(_cfTypeID), reinterpret_cast<IMP>(urlType), "L8@0:4");
  object_setClass(object, type);
  return object;
}

id box() {
  host::Object thing = host::create("Thing");
  return conversion::boxed(thing);
}

// Each object is taken by its own rule although it claims to be of every class below, too: those of
// the fixed wrappers stand between the first and the last.
const ObjectRow firstRows[] = {
    {"NSArray", "[\"a\"]", [] { return (id)[NSMutableArray arrayWithObject:@"a"]; }},
    {"NSSet", "[\"a\"]", [] { return (id)[NSMutableSet setWithObject:@"a"]; }},
    {"NSString", "\"a\"", [] { return (id)[NSMutableString stringWithString:@"a"]; }},
    {"NSData", "MemoryBlock \"a\"", [] { return (id)[NSMutableData dataWithBytes:"a" length:1]; }},
    {"NSNumber", "Double 15.125",
     [] {
       CodedNumber* number = [[CodedNumber new] autorelease];
       number->code = "{_NSPoint=ff}";
       return (id)number;
     }},
    {"NSDate", "Date 2001-01-01 00:00:00",
     [] { return (id)[NSDate dateWithTimeIntervalSinceReferenceDate:0]; }},
    {"NSDictionary", "{\"k\": \"v\"}",
     [] { return (id)[NSMutableDictionary dictionaryWithObject:@"v" forKey:@"k"]; }},
    {"NSAttributedString", "NSAttributedStringKVZ",
     [] { return (id)[[[NSMutableAttributedString alloc] initWithString:@"a"] autorelease]; }},
};
const ObjectRow lastRows[] = {
    {"NSURL", "\"https://example.org/\"",
     [] { return (id)[NSURL URLWithString:@"https://example.org/"]; }},
    {"KVZREALobjectWrapper", "Thing", box},
    {"NSValue", "NSPointKVZ", [] { return (id)[NSValue valueWithPoint:NSMakePoint(1, 2)]; }},
    {"TestbedTypedObject", "CFURLKVZ",
     [] { return (id)[typeids_object(typeids_of("CFURLGetTypeID")) autorelease]; }},
};

std::vector<ObjectRow> inOrder() {
  std::vector<ObjectRow> all(std::begin(firstRows), std::end(firstRows));
  all.insert(all.end(), std::begin(fixedRows), std::end(fixedRows));
  all.insert(all.end(), std::begin(lastRows), std::end(lastRows));
  return all;
}

TEST_P(ToHostRules, TheFirstRuleThatFitsWins) {
  start();
  host::defineClass("Thing");
  const std::vector<ObjectRow> rows = inOrder();
  for (const ObjectRow& row : rows) cocoaClass(row.cocoaClass);
  for (auto row = rows.begin(); row < rows.end(); ++row) {
    SCOPED_TRACE(row->cocoaClass);
    host::Pool pool;
    claimed().clear();
    for (auto later = row + 1; later < rows.end(); ++later)
      claimed().insert(objc_getClass(later->cocoaClass));
    EXPECT_EQ(described(pretending(row->make())), row->expected);
    EXPECT_EQ(host::pendingExceptions(), 0u);
    claimed().clear(); // before the pool lets the object go
  }
}

TEST_P(ToHostRules, TheRegistryComesBeforeEveryRuleOfClasses) {
  start();
  host::defineClass("Thing");
  host::Object instance = host::create("SUAppcastItemKVZ");
  for (const ObjectRow& row : inOrder()) {
    host::Pool pool;
    id object = row.make();
    CFDictionarySetValue(registry(), object, instance.handle());
    EXPECT_EQ(toHost(object), instance) << row.cocoaClass;
    CFDictionaryRemoveValue(registry(), object);
  }
}

// ---- What the host may lack

struct LackRow {
  const char* operation;
  id object;
  const char* without;
  const char* with;
};

TEST_P(ToHost, WithoutAMakerThereIsNullUntilTheHostHasIt) {
  start();
  CodedNumber* number = [[CodedNumber new] autorelease];
  number->code = "?";
  const LackRow rows[] = {
      {"StringToVariant", @"a", "nil", "\"a\""},
      {"BooleanToVariant", [NSNumber numberWithBool:YES], "nil", "Boolean true"},
      {"Int32ToVariant", [NSNumber numberWithInt:1], "nil", "Int32 1"},
      {"UInt32ToVariant", numbers_coded('I', 1), "nil", "UInt32 1"},
      {"Int64ToVariant", [NSNumber numberWithLongLong:1], "nil", "Int64 1"},
      {"UInt64ToVariant", numbers_coded('Q', 1), "nil", "UInt64 1"},
      {"SingleToVariant", [NSNumber numberWithFloat:1.5], "nil", "Single 1.5"},
      {"DoubleToVariant", number, "nil", "Double 15.125"},
      {"RuntimeArrayCreateSingleDimBoundedArray", [NSArray arrayWithObject:@"a"], "nil", "[\"a\"]"},
      {"REALSetPropValueInt", [NSDate dateWithTimeIntervalSinceReferenceDate:0],
       "Date 1904-01-01 00:00:00", "Date 2001-01-01 00:00:00"},
  };
  for (const LackRow& row : rows) {
    SCOPED_TRACE(row.operation);
    host::makeAbsent(row.operation);
    EXPECT_EQ(described(row.object), row.without);
    uint64_t before = host::lookups(row.operation);
    EXPECT_EQ(described(row.object), row.without);
    EXPECT_GT(host::lookups(row.operation), before);
    host::makePresent(row.operation);
    EXPECT_EQ(described(row.object), row.with);
    uint64_t found = host::lookups(row.operation);
    EXPECT_EQ(described(row.object), row.with);
    EXPECT_EQ(host::lookups(row.operation), found);
  }
}

TEST_P(ToHostRules, WithoutAWayToInsertAnArrayStaysEmpty) {
  start();
  host::makeAbsent("RuntimeArrayDirectGetInsertProc");
  EXPECT_EQ(described([NSArray arrayWithObjects:@"a", @"b", nil]), "[]");
  EXPECT_EQ(host::lookups("RuntimeArrayDirectGetInsertProc"), 2u);
  host::makePresent("RuntimeArrayDirectGetInsertProc");
  host::makeAbsent("array.insert Object");
  EXPECT_EQ(described([NSArray arrayWithObjects:@"a", @"b", nil]), "[]");
}

TEST_P(ToHostRules, WithoutABuilderOfStringsTheVariantHoldsNone) {
  start();
  host::makeAbsent("REALBuildString");
  host::VariantView view = host::inspect(
      host::entries(dictionaryToHost([NSDictionary dictionaryWithObject:@"v" forKey:@"k"]))[0]
          .second);
  EXPECT_EQ(view.maker, "StringToVariant");
  EXPECT_FALSE(view.value.as<host::String>());
}

TEST_P(ToHostRules, ABlockWhosePlaceIsNotToBeHadGivesNull) {
  start();
  host::makeAbsent("memoryBlockGetPtr");
  EXPECT_FALSE(toHost([NSData dataWithBytes:"a" length:1]));
  expectLosses({{{"MemoryBlock", 1}}}, "a block without a place is not given back");
}

TEST_P(ToHostRules, WhateverFailsNothingLeaks) {
  start();
  NSDictionary* inner =
      [NSDictionary dictionaryWithObjectsAndKeys:@"v", @"k", [NSNumber numberWithInt:3], @"n", nil];
  NSArray* tree =
      [NSArray arrayWithObjects:@"text", [NSNumber numberWithDouble:2.5],
                                [NSArray arrayWithObject:inner], inner, [NSSet setWithObject:@"s"],
                                [NSDate dateWithTimeIntervalSinceReferenceDate:0], error(),
                                [NSURL fileURLWithPath:text(existingFile())],
                                [NSURL URLWithString:@"https://example.org/"],
                                [NSValue valueWithRange:NSMakeRange(1, 2)],
                                [[NSObject new] autorelease], nil];
  NSDictionary* whole = [NSDictionary dictionaryWithObject:tree forKey:@"tree"];
  std::string expected = host::describe(dictionaryToHost(whole));
  unsigned failures = 0;
  for (uint64_t n = 1;; ++n) {
    SCOPED_TRACE(n);
    host::Object item = conversion::itemWith(whole);
    host::failNthOperation(n);
    host::Object made = host::get<host::Object>(item, "propertiesDictionary as dictionary");
    bool fired = host::faultFired();
    host::clearFaults();
    made.reset();
    item.reset();
    host::takeExceptions();
    ASSERT_EQ(host::ledger(), host::Ledger{}) << host::leakReport();
    ASSERT_EQ(companion()->count(COMPANION_LIVE_WRAPPERS), 0u);
    if (!fired) break;
    ++failures;
  }
  EXPECT_GT(failures, 50u);
  EXPECT_EQ(host::describe(dictionaryToHost(whole)), expected);
  session::takeLog();
}

} // namespace
