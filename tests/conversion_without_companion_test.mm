// Value conversion in a program without the companion plug-in: no wrapper classes, no registry, no
// boxes, no methods for times. What does not need them goes on; what does falls through.

#include "conversion.h"

#include "testbed/cocoa/numbers.h"
#include "testbed/cocoa/typeids.h"
#include "testbed/server/release.h"

#include <gmock/gmock.h>

#include <fstream>

using conversion::cocoaClass;
using conversion::described;
using conversion::dictionaryToHost;
using conversion::Feeder;
using conversion::print;
using conversion::toHost;
using conversion::wrapped;

// Raises when it is walked.
@interface RaisingArray : NSArray
@end

@implementation RaisingArray
- (NSUInteger)count {
  return 1;
}
- (id)objectAtIndex:(NSUInteger)index {
  [NSException raise:@"Raising" format:@"no element %u", static_cast<unsigned>(index)];
  return nil;
}
@end

namespace {

class WithoutCompanion : public session::Test {
protected:
  void SetUp() override {
    session::Test::SetUp();
    [NSTimeZone setDefaultTimeZone:[NSTimeZone localTimeZone]];
  }
  void start() { session::Test::start({.companion = false}); }
};

// What makes no difference to a host's year.
class WithoutCompanionRules : public WithoutCompanion {};

INSTANTIATE_TEST_SUITE_P(Hosts, WithoutCompanion, session::everyHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, WithoutCompanionRules, session::oneHost(), session::hostName);

int retainCount(id object) { return static_cast<int>([object retainCount]); }

NSString* text(const std::string& utf8) { return [NSString stringWithUTF8String:utf8.c_str()]; }

// Gives null, and is retained by nobody.
void expectNull(id object) {
  int before = retainCount(object);
  EXPECT_FALSE(toHost(object)) << object_getClassName(object);
  EXPECT_EQ(retainCount(object), before) << object_getClassName(object);
}

// ---- To the host

TEST_P(WithoutCompanion, PlainValuesCrossToTheHost) {
  start();
  EXPECT_FALSE(conversion::registry());
  EXPECT_FALSE(toHost(nil));
  EXPECT_FALSE(toHost([NSNull null]));
  NSDate* date = [NSCalendarDate dateWithYear:2021
                                        month:3
                                          day:7
                                         hour:9
                                       minute:5
                                       second:30
                                     timeZone:[NSTimeZone defaultTimeZone]];
  NSArray* values = [NSArray
      arrayWithObjects:@"text", [NSNumber numberWithBool:YES], [NSNumber numberWithInt:-3],
                       numbers_coded('I', 4), [NSNumber numberWithLongLong:5],
                       numbers_coded('Q', 6), [NSNumber numberWithFloat:1.5f],
                       [NSNumber numberWithDouble:2.5], date, [NSSet setWithObject:@"member"],
                       [NSData dataWithBytes:"abc" length:3],
                       [NSDictionary dictionaryWithObject:@"v" forKey:@"k"], nil];
  EXPECT_EQ(described(values),
            "[\"text\", Boolean true, Int32 -3, UInt32 4, Int64 5, UInt64 6, Single 1.5, Double "
            "2.5, Date 2021-03-07 09:05:30, [\"member\"], MemoryBlock \"abc\", {\"k\": \"v\"}]");
}

TEST_P(WithoutCompanion, URLsCrossToTheHost) {
  start();
  std::string path = session::folder() + "/file";
  std::ofstream(path) << "content";
  EXPECT_EQ(described([NSURL fileURLWithPath:text(path)]), "FolderItem \"" + path + "\"");
  EXPECT_EQ(described([NSURL URLWithString:@"https://example.org/feed"]),
            "\"https://example.org/feed\"");
}

TEST_P(WithoutCompanionRules, ObjectsThatNeedAWrapperGiveNull) {
  start();
  for (const char* name : {"NSFont", "NSParagraphStyle", "NSRunningApplication", "NSView"})
    expectNull([[cocoaClass(name) new] autorelease]);
  expectNull([[[NSAttributedString alloc] initWithString:@"styled"] autorelease]);
  expectNull([[[NSCalendar currentCalendar] copy] autorelease]);
  expectNull([NSError errorWithDomain:@"domain" code:7 userInfo:nil]);
  expectNull([NSFileHandle fileHandleForReadingAtPath:@"/dev/null"]);
  expectNull([NSCharacterSet characterSetWithCharactersInString:@"abc"]);
  expectNull([[[NSLocale alloc] initWithLocaleIdentifier:@"en_US"] autorelease]);
  expectNull([NSTimer timerWithTimeInterval:3600
                                     target:[NSObject class]
                                   selector:@selector(class)
                                   userInfo:nil
                                    repeats:NO]);
  expectNull([NSTimeZone timeZoneForSecondsFromGMT:3600]);
  expectNull([[NSObject new] autorelease]);
  expectNull([NSBundle mainBundle]);
}

TEST_P(WithoutCompanionRules, StructsGiveNull) {
  start();
  char bytes[96] = {};
  for (const char* code :
       {"{_NSRect={_NSPoint=ff}{_NSSize=ff}}", "{_NSSize=ff}", "{_NSRange=II}", "{_NSPoint=ff}",
        "{?=qll}", "{?={?=qll}{?=qll}}", "{?=qiIq}", "{?={?=qiIq}{?=qiIq}}",
        "{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", "i"})
    EXPECT_FALSE(toHost([NSValue valueWithBytes:bytes objCType:code])) << code;
}

TEST_P(WithoutCompanionRules, CoreFoundationObjectsGiveNull) {
  start();
#define ROW(name) #name "GetTypeID",
  const char* types[] = {TYPEID_ROWS(ROW)};
#undef ROW
  std::vector<unsigned long> ids = {0, typeids_of_no_row()};
  for (const char* type : types) ids.push_back(typeids_of(type));
  for (unsigned long type : ids) {
    id object = typeids_object(type);
    EXPECT_FALSE(toHost(object)) << type;
    EXPECT_EQ(typeids_count(object).retains, typeids_count(object).releases) << type;
    [object release];
  }
}

TEST_P(WithoutCompanionRules, CoreFoundationObjectsThatRaiseGiveNull) {
  start();
  for (const char* place : {"_cfTypeID", "CFGetTypeID"}) {
    id object = typeids_object(typeids_of("CFURLGetTypeID"));
    typeids_throw(object, place, TYPEIDS_NSEXCEPTION);
    EXPECT_FALSE(toHost(object)) << place;
    [object release];
  }
}

TEST_P(WithoutCompanionRules, AClassOfTheNameOfABoxIsNoRule) {
  start();
  EXPECT_FALSE(objc_getClass("KVZREALobjectWrapper"));
  expectNull([[cocoaClass("KVZUnknownWrapper") new] autorelease]);
}

// Wrapper classes may come from other plug-ins, without the companion's registry.

TEST_P(WithoutCompanion, TheSameErrorGivesTwoObjects) {
  start();
  host::defineClass("NSErrorKVZ", {}, sizeof(id));
  Probe* probe = [[Probe alloc] init];
  NSError* error = [NSError errorWithDomain:@"domain"
                                       code:7
                                   userInfo:[NSDictionary dictionaryWithObject:probe forKey:@"p"]];
  int before = retainCount(error);
  host::Object first = toHost(error), second = toHost(error);
  ASSERT_EQ(host::className(first), "NSErrorKVZ");
  ASSERT_EQ(host::className(second), "NSErrorKVZ");
  EXPECT_NE(first, second);
  EXPECT_EQ(retainCount(error), before + 2);
  for (const host::Object& each : {first, second}) {
    EXPECT_EQ(wrapped(each), error);
    [wrapped(each) release]; // nobody else will
  }
  [probe release];
}

TEST_P(WithoutCompanion, AWrapperOfCoreFoundationNeedsItsTag) {
  start();
  host::defineClass("CFURLKVZ", {}, 12);
  host::defineClass("CFObjectKVZ", {}, 12);
  host::defineClass("CGImageKVZ", {}, 12);
  for (unsigned long type : {typeids_of("CFURLGetTypeID"), typeids_of("CFBagGetTypeID")}) {
    id object = typeids_object(type);
    EXPECT_FALSE(toHost(object));
    EXPECT_EQ(typeids_count(object).retains, typeids_count(object).releases);
    [object release];
  }
  id image = typeids_object(typeids_of("CGImageGetTypeID"));
  host::Object wrapper = toHost(image);
  ASSERT_EQ(host::className(wrapper), "CGImageKVZ");
  EXPECT_EQ(wrapped(wrapper), image);
  EXPECT_EQ(typeids_count(image).image_retains, 1u);
  [image release];
  [image release]; // the wrapper's
}

TEST_P(WithoutCompanion, TheClassWalkFindsWhatTheHostHas) {
  start();
  host::defineClass("NSObjectKVZ", {}, sizeof(id));
  typeids_deny([Probe class]);
  Probe* probe = [[Probe alloc] init];
  host::Object wrapper = toHost(probe);
  EXPECT_EQ(host::className(wrapper), "NSObjectKVZ");
  EXPECT_EQ(wrapped(wrapper), probe);
  EXPECT_EQ(probe->retains, 1);
  [probe release];
  [probe release]; // the wrapper's
}

TEST_P(WithoutCompanion, StructsAreWrappedByWhatTheHostHas) {
  start();
  host::defineClass("NSRangeKVZ", {}, sizeof(NSRange));
  host::Object wrapper = toHost([NSValue valueWithRange:NSMakeRange(3, 4)]);
  ASSERT_EQ(host::className(wrapper), "NSRangeKVZ");
  EXPECT_EQ(static_cast<uint32_t*>(host::data(wrapper))[0], 3u);
  EXPECT_EQ(static_cast<uint32_t*>(host::data(wrapper))[1], 4u);
}

TEST_P(WithoutCompanion, AnExceptionOfCocoaIsLoggedAndEndsInAnother) {
  start();
  NSArray* array = [[RaisingArray new] autorelease];
  host::Object item = conversion::itemWith([NSDictionary dictionaryWithObject:array forKey:@"k"]);
  host::CallResult result = host::callCatching(item, "propertiesDictionary as dictionary");
  EXPECT_THAT(result.thrown.text, testing::HasSubstr("NewNSExceptionKVZ:"));
  std::vector<std::string> log = session::takeLog();
  ASSERT_FALSE(log.empty());
  EXPECT_THAT(log[0], testing::HasSubstr("A Raising: no element 0, Info: "));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(WithoutCompanion, ACollectionThatHoldsItselfGivesNull) {
  start();
  NSMutableArray* array = [NSMutableArray array];
  id itself = array;
  [array addObject:itself];
  EXPECT_FALSE(dictionaryToHost([NSDictionary dictionaryWithObject:array forKey:@"k"]));
  [array removeAllObjects];
}

// ---- To Cocoa

TEST_P(WithoutCompanion, PlainValuesCrossToCocoa) {
  start();
  Feeder feeder;
  std::string path = session::folder() + "/file";
  std::ofstream(path) << "content";
  EXPECT_EQ(feeder.printed(nullptr), "nil");
  EXPECT_EQ(
      feeder.printed(host::array(
          9, {-3, int64_t{5}, 1.5f, 2.5, host::variantOfCode(6, 3.5), true, "text",
              host::variantOfCode(16, 255), host::date({2021, 3, 7, 9, 5, 30}), host::array(2, {1}),
              host::array(3, {int64_t{1}}), host::array(4, {1.5f}), host::array(5, {1.5}),
              host::array(8, {"a"}), host::array(11, {true}), host::dictionary({{"k", "v"}}),
              host::memoryBlock("abc"), host::folderItem(path)})),
      "[l:-3, q:5, f:1.5, d:2.5, d:3.5, c:1, \"text\", l:255, 2021-03-07 09:05:30, [l:1], "
      "[q:1], [f:1.5], [d:1.5], [\"a\"], [c:1], {\"k\": \"v\"}, data \"abc\", file://" +
          testbed::percent_escaped(path) + "]");
}

TEST_P(WithoutCompanion, AnyOtherObjectGivesNil) {
  start();
  Feeder feeder;
  host::defineClass("Thing");
  EXPECT_EQ(feeder.printed(host::create("Thing")), "nil");
  EXPECT_EQ(feeder.printed(host::create("SUAppcastItemKVZ")), "nil");
  EXPECT_EQ(feeder.printed(host::variantOfCode(9, 5)), "nil");
  EXPECT_TRUE(feeder.raises(host::array(9, {host::create("Thing")})));
}

TEST_P(WithoutCompanionRules, EachMissingClassIsAskedForEachTime) {
  start();
  Feeder feeder;
  host::defineClass("Thing");
  host::Object dictionary = host::dictionary({{"value", host::create("Thing")}});
  feeder.convertDictionary(dictionary);
  host::resetCounts();
  feeder.convertDictionary(dictionary);
  // Only the host's own two, MemoryBlock and Dictionary, are known by now.
  EXPECT_EQ(host::calls("RuntimeObjectIsa"), 2u);
  EXPECT_EQ(host::calls("pluginObjectType"), 129u);
}

TEST_P(WithoutCompanion, WrappersOfOthersGiveTheirObject) {
  start();
  Feeder feeder;
  for (const char* name : {"NSErrorKVZ", "WebPolicyDelegateKVZ", "CFObjectKVZ"}) {
    SCOPED_TRACE(name);
    host::defineClass(name, {}, 12);
    host::Object wrapper = host::create(name);
    Probe* probe = [[Probe alloc] init];
    *static_cast<id*>(host::data(wrapper)) = probe;
    {
      host::Pool pool;
      EXPECT_EQ(feeder.convert(wrapper), probe);
    }
    EXPECT_EQ(probe->retains, probe->releases);
    [probe release];
  }
}

TEST_P(WithoutCompanion, StructsOfOthersGiveTheirValue) {
  start();
  Feeder feeder;
  host::defineClass("NSRangeKVZ", {}, sizeof(NSRange));
  host::Object wrapper = host::create("NSRangeKVZ");
  static_cast<uint32_t*>(host::data(wrapper))[0] = 3;
  static_cast<uint32_t*>(host::data(wrapper))[1] = 4;
  NSValue* value = feeder.convert(wrapper);
  EXPECT_TRUE(NSEqualRanges([value rangeValue], NSMakeRange(3, 4)));
}

TEST_P(WithoutCompanion, AHostDictionaryThatHoldsItselfGivesNothing) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}});
  host::put(dictionary, "itself", dictionary);
  EXPECT_FALSE(feeder.convertDictionary(dictionary));
  host::clear(dictionary);
}

TEST_P(WithoutCompanion, FiveHundredLevelsCrossBothWays) {
  start();
  Feeder feeder;
  host::Object inHost = host::dictionary({{"k", "core"}});
  id cocoa = @"core";
  for (int i = 1; i < 500; ++i) {
    inHost = host::dictionary({{"k", inHost}});
    cocoa = [NSDictionary dictionaryWithObject:cocoa forKey:@"k"];
  }
  EXPECT_EQ(host::describe(dictionaryToHost(feeder.convertDictionary(inHost))),
            host::describe(inHost));
  EXPECT_TRUE(toHost(cocoa));
}

} // namespace
