// Dates and bytes on their way between the framework and host programs.
#include "fakes.h"
#include "session.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

// Bytes that claim any length.
@interface FakeData : FakeObject {
@public
  const void* itsBytes;
  NSUInteger itsLength;
}
@end
@implementation FakeData
- (const void*)bytes {
  fakes::note("bytes");
  return itsBytes;
}
- (NSUInteger)length {
  fakes::note("length");
  return itsLength;
}
@end

namespace {

const char* const fieldNames[] = {"Year", "Month", "Day", "Hour", "Minute", "Second"};

NSTimeZone* zone(int minutesEastOfGreenwich) {
  return [NSTimeZone timeZoneForSecondsFromGMT:minutesEastOfGreenwich * 60];
}

NSCalendarDate* calendarDate(const host::DateFields& fields, NSTimeZone* zone) {
  return [NSCalendarDate dateWithYear:fields.year
                                month:static_cast<NSUInteger>(fields.month)
                                  day:static_cast<NSUInteger>(fields.day)
                                 hour:static_cast<NSUInteger>(fields.hour)
                               minute:static_cast<NSUInteger>(fields.minute)
                               second:static_cast<NSUInteger>(fields.second)
                             timeZone:zone];
}

const host::DateFields moments[] = {
    {2021, 3, 7, 9, 5, 30},     {2000, 12, 31, 23, 59, 59}, {2001, 1, 1, 0, 0, 0},
    {1970, 1, 1, 0, 0, 0},      {1969, 12, 31, 23, 59, 59}, {1904, 1, 1, 0, 0, 0},
    {2012, 2, 29, 12, 0, 1},    {2038, 1, 19, 3, 14, 8},    {2100, 2, 28, 23, 59, 59},
    {3999, 12, 31, 23, 59, 59},
};
constexpr int zones[] = {0, 60, -300, 330, 840, -720};

class Dates : public session::Test {
protected:
  void start() {
    session::Test::start();
    item = fakes::wrapping("SUAppcastItemKVZ", [[FakeItem new] autorelease]);
    fakes::received();
  }
  void TearDown() override {
    item.reset();
    updater.reset();
    session::Test::TearDown();
  }
  host::Object toHost(NSDate* date) {
    fakes::answer("date") = date;
    return host::get<host::Object>(item, "date as date");
  }
  host::DateFields fieldsOf(NSDate* date) { return host::dateFields(toHost(date)); }
  // What the framework gets for a value that the host program puts into its feed parameters; NSNull
  // when it cannot be carried.
  id toCocoa(const host::Object& value) {
    if (!updater) {
      host::subclass("Parameters", "SUUpdaterKVZ");
      updater = host::construct("Parameters", "Constructor");
    }
    host::Object array = host::array(9, {host::dictionary({{"value", value}})});
    host::handle("Parameters",
                 "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                 [=](host::Event&) { return array; });
    id delegate = static_cast<id*>(host::data(updater, "SUUpdaterKVZ"))[1];
    NSArray* answer =
        [delegate performSelector:sel_registerName("feedParametersForUpdater:sendingSystemProfile:")
                       withObject:nil
                       withObject:nil];
    // The handler holds the array, and with it the value.
    host::handle("Parameters",
                 "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                 [](host::Event&) { return host::Object(); });
    EXPECT_EQ([answer count], 1u);
    return [[answer lastObject] objectForKey:@"value"];
  }

  host::Object item;
  host::Object updater;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Dates, session::everyInterface(), session::hostName);

// ---- Cocoa to host

TEST_P(Dates, AreTheFieldsOfTheDefaultTimeZone) {
  start();
  for (int minutes : zones) {
    [NSTimeZone setDefaultTimeZone:zone(minutes)];
    for (const host::DateFields& moment : moments) {
      EXPECT_EQ(fieldsOf(calendarDate(moment, zone(minutes))), moment) << minutes;
    }
  }
}

TEST_P(Dates, AreNotTheFieldsOfTheirOwnTimeZone) {
  start();
  NSDate* noonInGreenwich = calendarDate({2021, 3, 7, 12, 0, 0}, zone(0));
  [NSTimeZone setDefaultTimeZone:zone(330)];
  EXPECT_EQ(fieldsOf(noonInGreenwich), (host::DateFields{2021, 3, 7, 17, 30, 0}));
  [NSTimeZone setDefaultTimeZone:zone(-13 * 60)];
  EXPECT_EQ(fieldsOf(noonInGreenwich), (host::DateFields{2021, 3, 6, 23, 0, 0}));
}

TEST_P(Dates, DropTheFractionOfTheSecondAndDoNotRound) {
  start();
  [NSTimeZone setDefaultTimeZone:zone(0)];
  NSTimeInterval whole =
      [calendarDate({2021, 3, 7, 9, 5, 30}, zone(0)) timeIntervalSinceReferenceDate];
  for (double fraction : {0.0, 0.001, 0.25, 0.5, 0.75, 0.999})
    EXPECT_EQ(fieldsOf([NSDate dateWithTimeIntervalSinceReferenceDate:whole + fraction]),
              (host::DateFields{2021, 3, 7, 9, 5, 30}))
        << fraction;
}

TEST_P(Dates, OfAllRoadsAreTheSame) {
  start();
  [NSTimeZone setDefaultTimeZone:zone(0)];
  const host::DateFields moment{2013, 12, 31, 23, 59, 58};
  NSDate* date = calendarDate(moment, zone(0));
  EXPECT_EQ(fieldsOf(date), moment);
  fakes::answer("propertiesDictionary") = @{@"pubDate" : date};
  auto properties = host::get<host::Object>(item, "propertiesDictionary as dictionary");
  EXPECT_EQ(host::dateFields(host::at(properties, "pubDate")), moment);
  host::Object bound = fakes::wrapping("SUUpdaterKVZ", [[FakeUpdater new] autorelease]);
  fakes::answer("lastUpdateCheckDate") = date;
  EXPECT_EQ(host::dateFields(host::get<host::Object>(bound, "lastUpdateCheckDate as date")),
            moment);
}

TEST_P(Dates, BeyondAnyCalendarArriveSomehow) {
  start();
  for (NSDate* date : {[NSDate distantPast],
                       [NSDate distantFuture],
                       [NSDate dateWithTimeIntervalSinceReferenceDate:-1e11],
                       [NSDate dateWithTimeIntervalSinceReferenceDate:1e11]})
    EXPECT_TRUE(toHost(date));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Dates, AreWrittenFieldByFieldInOrder) {
  start();
  [NSTimeZone setDefaultTimeZone:zone(0)];
  NSDate* date = calendarDate({2021, 3, 7, 9, 5, 30}, zone(0));
  host::startLog();
  toHost(date);
  std::vector<std::string> written;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name == "REALSetPropValueInt")
      written.push_back(entry.arguments.at(1) + " = " + entry.arguments.at(2));
  EXPECT_THAT(written, ElementsAre("\"Year\" = 2021", "\"Month\" = 3", "\"Day\" = 7",
                                   "\"Hour\" = 9", "\"Minute\" = 5", "\"Second\" = 30"));
}

TEST_P(Dates, AreMadeForCocoaInTheZoneThatIsAskedFor) {
  start();
  fakes::Spy spy;
  toCocoa(host::date({2021, 3, 7, 9, 5, 30}));
  EXPECT_EQ(spy.count("+[NSTimeZone localTimeZone]"), 1);
}

TEST_P(Dates, AreReadFieldByFieldBeforeTheHostsDateIsMade) {
  start();
  NSDate* date = [NSDate date];
  toHost(date);
  std::vector<std::string> fields;
  fakes::Spy spy;
  toHost(date);
  for (const std::string& message : spy.messages())
    if (message.starts_with("-[NSCalendarDate ") && !message.ends_with(" autorelease]"))
      fields.push_back(message.substr(message.find(' ') + 1));
  EXPECT_THAT(fields, ElementsAre("initWithTimeIntervalSinceReferenceDate:]", "yearOfCommonEra]",
                                  "monthOfYear]", "dayOfMonth]", "secondOfMinute]", "minuteOfHour]",
                                  "hourOfDay]"));
}

id noDate(id self, SEL, NSTimeInterval) {
  [self release];
  return nil;
}

TEST_P(Dates, AreNilWhereCocoaMakesNoCalendarDate) {
  start();
  NSDate* date = [NSDate date];
  class_replaceMethod([NSCalendarDate class], @selector(initWithTimeIntervalSinceReferenceDate:),
                      reinterpret_cast<IMP>(noDate), "@16@0:4d8");
  EXPECT_FALSE(toHost(date));
  EXPECT_EQ(host::calls("PluginNewInstance"), 0u);
}

TEST_P(Dates, BelongToTheCallerAlone) {
  start();
  EXPECT_EQ(host::referenceCount(toHost([NSDate date])), 1);
}

TEST_P(Dates, AreNilForNilAndOnAHostThatMakesNone) {
  start();
  EXPECT_FALSE(toHost(nil));
  host::hideClass("Date");
  EXPECT_FALSE(toHost([NSDate date]));
  host::showClass("Date");
  host::makeAbsent("PluginNewInstance");
  EXPECT_FALSE(toHost([NSDate date]));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Dates, KeepTheFieldsThatCanBeSet) {
  start();
  [NSTimeZone setDefaultTimeZone:zone(0)];
  int32_t host::DateFields::*const places[] = {
      &host::DateFields::year, &host::DateFields::month,  &host::DateFields::day,
      &host::DateFields::hour, &host::DateFields::minute, &host::DateFields::second};
  const host::DateFields moment{2021, 3, 7, 9, 5, 30};
  for (size_t i = 0; i < std::size(places); ++i) {
    host::failProperty("Date", fieldNames[i]);
    host::DateFields expected = moment;
    expected.*places[i] = host::DateFields().*places[i];
    EXPECT_EQ(fieldsOf(calendarDate(moment, zone(0))), expected) << fieldNames[i];
    host::failProperty("Date", fieldNames[i], false);
  }
}

TEST_P(Dates, AreUnsetOnAHostThatSetsNoPropertiesWhichIsAskedForEachOne) {
  start();
  host::makeAbsent("REALSetPropValueInt");
  uint64_t before = host::lookups("REALSetPropValueInt");
  EXPECT_EQ(fieldsOf([NSDate date]), host::DateFields{});
  EXPECT_EQ(host::lookups("REALSetPropValueInt"), before + 6);
}

// ---- Host to Cocoa

TEST_P(Dates, OfTheHostAreThatLocalWallClockTimeAndComeBackTheSame) {
  start();
  for (int minutes : zones) {
    [NSTimeZone setDefaultTimeZone:zone(minutes)];
    for (const host::DateFields& moment : moments) {
      NSCalendarDate* date = toCocoa(host::date(moment));
      ASSERT_TRUE([date isKindOfClass:[NSCalendarDate class]]);
      EXPECT_TRUE([date isEqualToDate:calendarDate(moment, zone(minutes))])
          << [[date description] UTF8String];
      EXPECT_EQ(fieldsOf(date), moment) << minutes;
    }
  }
}

TEST_P(Dates, OfTheHostAreReadFieldByFieldInOrder) {
  start();
  host::startLog();
  toCocoa(host::date({2021, 3, 7, 9, 5, 30}));
  std::vector<std::string> read;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name == "REALGetPropValueInt" && entry.arguments.at(1) != "\"Count\"")
      read.push_back(entry.arguments.at(1));
  EXPECT_THAT(read, ElementsAre("\"Year\"", "\"Month\"", "\"Day\"", "\"Hour\"", "\"Minute\"",
                                "\"Second\""));
}

TEST_P(Dates, OfTheHostAreNothingWhenAnyFieldCannotBeRead) {
  start();
  for (const char* name : fieldNames) {
    host::failProperty("Date", name);
    EXPECT_EQ(toCocoa(host::date({2021, 3, 7, 9, 5, 30})), [NSNull null]) << name;
    host::failProperty("Date", name, false);
  }
  EXPECT_NE(toCocoa(host::date({2021, 3, 7, 9, 5, 30})), [NSNull null]);
}

TEST_P(Dates, OfTheHostAreNotReadBeyondTheFirstFailure) {
  start();
  host::failProperty("Date", "Day");
  host::startLog();
  toCocoa(host::date({2021, 3, 7, 9, 5, 30}));
  std::vector<std::string> read;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name == "REALGetPropValueInt" && entry.arguments.at(1) != "\"Count\"")
      read.push_back(entry.arguments.at(1));
  EXPECT_THAT(read, ElementsAre("\"Year\"", "\"Month\"", "\"Day\""));
}

TEST_P(Dates, OfTheHostThatAreNoneArriveSomehowOrNotAtAll) {
  start();
  constexpr int32_t most = std::numeric_limits<int32_t>::max();
  constexpr int32_t least = std::numeric_limits<int32_t>::min();
  const host::DateFields strange[] = {
      {0, 0, 0, 0, 0, 0},        {2021, 13, 1, 0, 0, 0},      {2021, 2, 30, 24, 60, 60},
      {2021, 0, -1, -1, -1, -1}, {-5000, 1, 1, 0, 0, 0},      {99999, 1, 1, 0, 0, 0},
      {2021, 1, 1, most, 0, 0},  {2021, 1, 1, 0, most, most}, {2021, 1, 1, least, least, least},
  };
  for (const host::DateFields& fields : strange) {
    SCOPED_TRACE(testing::PrintToString(fields));
    EXPECT_TRUE(toCocoa(host::date(fields)));
  }
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Dates, OfTheHostKeepTheirReferences) {
  start();
  host::Object date = host::date({2021, 3, 7, 9, 5, 30});
  toCocoa(date);
  EXPECT_EQ(host::referenceCount(date), 1);
}

// ---- Data

class Data : public session::Test {
protected:
  void start() {
    session::Test::start();
    appcast = fakes::wrapping("SUAppcastKVZ", [[FakeAppcast new] autorelease]);
  }
  void TearDown() override {
    appcast.reset();
    session::Test::TearDown();
  }
  host::Object toHost(id data) {
    fakes::answer("valueForKey: incrementalData") = data;
    return host::get<host::Object>(appcast, "incrementalData as memoryblock");
  }
  static FakeData* claiming(uint32_t length, const void* bytes = "bytes") {
    FakeData* data = [[FakeData new] autorelease];
    data->itsBytes = bytes;
    data->itsLength = length;
    return data;
  }
  static void expectOutOfMemory(const std::string& size) {
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "OutOfMemoryException");
    EXPECT_EQ(raised->message, "Failed to allocate a memoryblock with " + size + " bytes in size.");
    EXPECT_EQ(raised->errorNumber, 0);
    EXPECT_EQ(raised->count, 1u);
  }

  host::Object appcast;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Data, session::everyInterface(), session::hostName);

TEST_P(Data, IsANewMemoryBlockOfExactlyItsBytes) {
  start();
  for (size_t size : {1u, 2u, 3u, 4096u, 1000003u}) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
    host::startLog();
    auto block = toHost([NSData dataWithBytes:bytes.data() length:size]);
    auto log = host::stopLog();
    ASSERT_TRUE(block);
    EXPECT_EQ(host::memoryBlockBytes(block), bytes);
    EXPECT_EQ(host::referenceCount(block), 1);
    auto made = std::find_if(log.begin(), log.end(),
                             [](auto& entry) { return entry.name == "newMemoryBlock"; });
    ASSERT_NE(made, log.end());
    EXPECT_THAT(made->arguments, ElementsAre(std::to_string(size)));
  }
}

TEST_P(Data, IsCopied) {
  start();
  NSMutableData* data = [NSMutableData dataWithBytes:"abc" length:3];
  auto block = toHost(data);
  memset([data mutableBytes], 'x', 3);
  EXPECT_EQ(host::memoryBlockBytes(block), "abc");
}

TEST_P(Data, WithoutBytesIsNilAndNoException) {
  start();
  for (id data : std::initializer_list<id>{nil, [NSData data], claiming(0), claiming(5, nullptr),
                                           claiming(0xFFFFFFFF), claiming(0x80000000)})
    EXPECT_FALSE(toHost(data));
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_EQ(host::calls("newMemoryBlock"), 0u);
}

TEST_P(Data, OfTheLargestLengthIsRefusedWithoutAskingTheHost) {
  start();
  EXPECT_FALSE(toHost(claiming(0x7FFFFFFF)));
  expectOutOfMemory("2147483647");
  EXPECT_EQ(host::calls("newMemoryBlock"), 0u);
}

TEST_P(Data, OfTheLengthBelowTheLargestIsAskedOfTheHost) {
  start();
  host::limitMemoryBlocks(1000);
  EXPECT_FALSE(toHost(claiming(0x7FFFFFFE)));
  expectOutOfMemory("2147483646");
  EXPECT_EQ(host::calls("newMemoryBlock"), 1u);
}

TEST_P(Data, ThatTheHostCannotAllocateRaises) {
  start();
  host::limitMemoryBlocks(2);
  EXPECT_FALSE(toHost([NSData dataWithBytes:"abc" length:3]));
  expectOutOfMemory("3");
  EXPECT_TRUE(toHost([NSData dataWithBytes:"ab" length:2]));
}

TEST_P(Data, OnAHostWithoutMemoryBlocksRaises) {
  start();
  host::makeAbsent("newMemoryBlock");
  EXPECT_FALSE(toHost([NSData dataWithBytes:"a" length:1]));
  expectOutOfMemory("1");
}

TEST_P(Data, ThatTheHostCannotAllocateRaisesTheFallbackWhereTheClassIsUnknown) {
  start();
  host::limitMemoryBlocks(0);
  host::hideClass("OutOfMemoryException");
  EXPECT_FALSE(toHost([NSData dataWithBytes:"a" length:1]));
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->className, "RuntimeException");
  EXPECT_EQ(raised->message, "Failed to allocate a memoryblock with 1 bytes in size.");
}

TEST_P(Data, WhosePlaceCannotBeHadIsNilAndLosesTheBlock) {
  start();
  expectLosses({{{"MemoryBlock", 2}}}, "a block without a place is not given back");
  host::failCall("memoryBlockGetPtr");
  EXPECT_FALSE(toHost([NSData dataWithBytes:"a" length:1]));
  host::clearFaults();
  host::makeAbsent("memoryBlockGetPtr");
  EXPECT_FALSE(toHost([NSData dataWithBytes:"a" length:1]));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

} // namespace
