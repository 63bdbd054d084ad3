// What each host value becomes in Cocoa: every type code, every array, every rule of objects. The
// values come as those of the dictionaries that a feed-parameters handler answers.

#include "conversion.h"

#include "testbed/cocoa/typeids.h"
#include "testbed/server/release.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

using conversion::companion;
using conversion::Feeder;
using conversion::print;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

class ToCocoa : public session::Test {
protected:
  void SetUp() override {
    session::Test::SetUp();
    [NSTimeZone setDefaultTimeZone:[NSTimeZone localTimeZone]];
  }
};

// What makes no difference to a host's year.
class ToCocoaRules : public ToCocoa {};
// What does with the interface version or the place of the data.
class ToCocoaRecords : public ToCocoa {};

INSTANTIATE_TEST_SUITE_P(Hosts, ToCocoa, session::everyHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, ToCocoaRules, session::oneHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, ToCocoaRecords, session::everyInterface(), session::hostName);

constexpr const char* varType = "VarType(value As Variant) As Int32";

// The operations of the log that read a variant or a property of one, as they were called; without
// the first, which reads the key.
std::vector<std::string> readings(const std::vector<host::LogEntry>& log) {
  std::vector<std::string> calls;
  for (const host::LogEntry& entry : log) {
    if (entry.name.starts_with("VariantTo")) calls.push_back(entry.name);
    if (entry.name.starts_with("REALGetPropValue") && entry.arguments.at(1) != "\"Count\"")
      calls.push_back(entry.name + " " + entry.arguments.at(1));
  }
  if (!calls.empty()) calls.erase(calls.begin());
  return calls;
}

std::vector<std::string> arguments(const std::vector<host::LogEntry>& log,
                                   const std::string& operation, size_t index) {
  std::vector<std::string> all;
  for (const host::LogEntry& entry : log)
    if (entry.name == operation) all.push_back(entry.arguments.at(index));
  return all;
}

// ---- Nothing

TEST_P(ToCocoa, NothingGivesNil) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed(nullptr), "nil");
}

// ---- Scalars

struct ScalarRow {
  int32_t code;
  host::Value value;
  const char* expected;
  const char* reader;
  const char* property; // read instead of the operation where the host lacks that
};

std::vector<ScalarRow> scalarRows() {
  return {
      {2, -5, "l:-5", "VariantToInt32", "REALGetPropValueInt \"Int32Value\""},
      {16, 0xFF8800, "l:16746496", "VariantToInt32", "REALGetPropValueInt \"Int32Value\""},
      {3, int64_t{-5000000000}, "q:-5000000000", "VariantToInt64",
       "REALGetPropValueInt64 \"LongValue\""},
      {4, 1.25f, "f:1.25", "VariantToSingle", "REALGetPropValueSingle \"SingleValue\""},
      {5, 1e300, "d:1.0000000000000001e+300", "VariantToDouble",
       "REALGetPropValueDouble \"DoubleValue\""},
      {6, 19.75, "d:19.75", "VariantToDouble", "REALGetPropValueDouble \"DoubleValue\""},
      {8, "t8", "\"t8\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {18, "t18", "\"t18\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {19, "t19", "\"t19\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {20, "t20", "\"t20\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {21, "t21", "\"t21\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {23, "t23", "\"t23\"", "VariantToString", "REALGetPropValueString \"StringValue\""},
      {11, 1, "c:1", "VariantToInt32", "REALGetPropValueInt \"Int32Value\""},
  };
}

TEST_P(ToCocoaRecords, AScalarIsReadAndMadeByItsCode) {
  start();
  Feeder feeder;
  for (const ScalarRow& row : scalarRows()) {
    SCOPED_TRACE(row.code);
    host::startLog();
    EXPECT_EQ(feeder.printed(host::variantOfCode(row.code, row.value)), row.expected);
    EXPECT_THAT(readings(host::stopLog()), ElementsAre(row.reader));
  }
}

TEST_P(ToCocoaRecords, WithoutAReaderThePropertyIsRead) {
  start();
  Feeder feeder;
  for (const char* reader : {"VariantToString", "VariantToSingle", "VariantToDouble",
                             "VariantToInt64", "VariantToInt32"})
    host::makeAbsent(reader);
  for (const ScalarRow& row : scalarRows()) {
    SCOPED_TRACE(row.code);
    host::startLog();
    EXPECT_EQ(feeder.printed(host::variantOfCode(row.code, row.value)), row.expected);
    EXPECT_THAT(readings(host::stopLog()), ElementsAre(row.property));
  }
  // The host may come to have them.
  host::makePresent("VariantToInt64");
  host::startLog();
  EXPECT_EQ(feeder.printed(int64_t{5}), "q:5");
  EXPECT_THAT(readings(host::stopLog()), ElementsAre("VariantToInt64"));
}

TEST_P(ToCocoaRules, WhatCannotBeReadIsZero) {
  start();
  Feeder feeder;
  for (const char* reader : {"VariantToString", "VariantToSingle", "VariantToDouble",
                             "VariantToInt64", "VariantToInt32"})
    host::makeAbsent(reader);
  for (const char* property :
       {"StringValue", "SingleValue", "DoubleValue", "LongValue", "Int32Value"})
    host::failProperty("Variant", property);
  for (auto [code, expected] : std::initializer_list<std::pair<int32_t, const char*>>{{2, "l:0"},
                                                                                      {16, "l:0"},
                                                                                      {3, "q:0"},
                                                                                      {4, "f:0"},
                                                                                      {5, "d:0"},
                                                                                      {6, "d:0"},
                                                                                      {8, "nil"},
                                                                                      {18, "nil"},
                                                                                      {19, "nil"},
                                                                                      {20, "nil"},
                                                                                      {21, "nil"},
                                                                                      {23, "nil"},
                                                                                      {11, "c:0"}})
    EXPECT_EQ(feeder.printed(host::variantOfCode(code, 7)), expected) << code;
}

TEST_P(ToCocoa, CurrencyGivesADouble) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed(host::variantOfCode(6, 12.5)), "d:12.5");
}

TEST_P(ToCocoa, ABooleanOfTwoIsYes) {
  start();
  Feeder feeder;
  // Neither the low byte nor the lowest bit alone decides.
  for (int32_t value : {2, 1, -1, 0x100, INT32_MIN}) {
    id number = feeder.convert(host::variantOfCode(11, value));
    EXPECT_EQ(print(number), "c:1") << value;
    EXPECT_EQ([number class], [[NSNumber numberWithBool:YES] class]) << value;
  }
  EXPECT_EQ(feeder.printed(host::variantOfCode(11, 0)), "c:0");
  EXPECT_EQ(feeder.printed(true), "c:1");
  EXPECT_EQ(feeder.printed(false), "c:0");
}

TEST_P(ToCocoaRules, NumbersKeepTheirLimits) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed(INT32_MIN), "l:-2147483648");
  EXPECT_EQ(feeder.printed(INT32_MAX), "l:2147483647");
  EXPECT_EQ(feeder.printed(INT64_MIN), "q:-9223372036854775808");
  EXPECT_EQ(feeder.printed(INT64_MAX), "q:9223372036854775807");
  // The host gives its unsigned kinds the code of the signed 64 bits.
  EXPECT_EQ(feeder.printed(UINT32_MAX), "q:4294967295");
  EXPECT_EQ(feeder.printed(UINT64_MAX), "q:-1");
  EXPECT_EQ(feeder.printed(-0.0), "d:-0");
  EXPECT_EQ(feeder.printed(1.0 / 0.0), "d:inf");
}

TEST_P(ToCocoaRules, EveryOtherCodeGivesNil) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary();
  std::vector<int32_t> known = {2, 3, 4, 5, 6, 7, 8, 9, 11, 16, 18, 19, 20, 21, 23};
  int32_t others[] = {4102, 4106, 4108, 4109, 8192, 65536, INT32_MAX, -1, -2, INT32_MIN};
  for (int32_t code = 0; code <= 4097; ++code)
    if (!std::count(known.begin(), known.end(), code))
      host::put(dictionary, code, host::variantOfCode(code, 1));
  for (int32_t code : others) host::put(dictionary, code, host::variantOfCode(code, 1));
  NSDictionary* converted = feeder.convertDictionary(dictionary);
  EXPECT_EQ([converted count], 4098 - known.size() + std::size(others));
  NSEnumerator* keys = [converted keyEnumerator];
  while (NSNumber* key = [keys nextObject])
    EXPECT_EQ([converted objectForKey:key], [NSNull null]) << [key intValue];
}

TEST_P(ToCocoaRules, TheTypeIsAskedOfAGlobalMethodLoadedOnce) {
  start();
  Feeder feeder;
  host::startLog();
  EXPECT_EQ(feeder.printed(5), "l:5");
  std::vector<std::string> loads;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name == "REALLoadGlobalMethod") loads.push_back(entry.text());
  EXPECT_THAT(
      loads,
      ElementsAre("REALLoadGlobalMethod(\"VarType(value As Variant) As Int32\", nil) -> pointer"));
  EXPECT_EQ(feeder.printed("text"), "\"text\"");
  EXPECT_EQ(host::lookups(varType), 1u);
}

TEST_P(ToCocoa, WithoutTheMethodTheTypeIsReadAsAProperty) {
  start();
  Feeder feeder;
  host::makeAbsent(varType);
  host::startLog();
  EXPECT_EQ(feeder.printed(host::variantOfCode(6, 1.5)), "d:1.5");
  EXPECT_THAT(readings(host::stopLog()), testing::Contains("REALGetPropValueInt \"Type\""));
  EXPECT_EQ(feeder.printed(host::array(2, {1, 2})), "[l:1, l:2]");
  uint64_t before = host::lookups(varType);
  EXPECT_EQ(feeder.printed("text"), "\"text\"");
  EXPECT_EQ(host::lookups(varType), before + 2); // the key and the value
  host::failProperty("Variant", "Type");
  // The key has no type either, so it became NSNull.
  NSDictionary* converted = feeder.convertDictionary(host::dictionary({{"key", 5}}));
  EXPECT_EQ(print(converted), "{null: null}");
  host::failProperty("Variant", "Type", false);
  host::makePresent(varType);
  EXPECT_EQ(feeder.printed(5), "l:5");
}

// ---- Strings

TEST_P(ToCocoa, TextOfEveryEncodingKeepsItsCharacters) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed("gr\xC3\xBC\xC3\x9F \xF0\x9F\x8D\x8E"),
            "\"gr\xC3\xBC\xC3\x9F \xF0\x9F\x8D\x8E\"");
  EXPECT_EQ(feeder.printed(host::string(u"gr\u00FC\u00DF \U0001F34E")),
            "\"gr\xC3\xBC\xC3\x9F \xF0\x9F\x8D\x8E\"");
  EXPECT_EQ(feeder.printed(host::string("caf\x8E", host::macRoman)), "\"caf\xC3\xA9\"");
  EXPECT_EQ(feeder.printed(host::string("caf\xE9", host::latin1)), "\"caf\xC3\xA9\"");
  EXPECT_EQ(feeder.printed(host::string("caf\x8E", host::unknownEncoding)), "\"caf\xC3\xA9\"");
  EXPECT_EQ(feeder.printed(""), "\"\"");
}

TEST_P(ToCocoa, ANullStringGivesNil) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed(host::String()), "nil");
  EXPECT_EQ(feeder.printed(host::variantOfCode(8, nullptr)), "nil");
  host::failCall("VariantToString", 2); // the key is the first
  EXPECT_EQ(feeder.printed("text"), "nil");
  host::clearFaults();
}

TEST_P(ToCocoa, BrokenTextDoesNoHarm) {
  start();
  Feeder feeder;
  const char16_t lone[] = {'a', 0xD800, 'b'};
  NSString* kept = feeder.convert(host::string(std::u16string_view(lone, 3)));
  if (kept) EXPECT_EQ([kept length], 3u);
  NSString* cut = feeder.convert(host::string(std::string_view("ab\0cd", 5)));
  EXPECT_TRUE([cut hasPrefix:@"ab"]);
  // Bytes that are no UTF-8, nor UTF-16 in halves.
  host::takeExceptions();
  for (const host::String& broken :
       {host::string("\xFF\xFE\xC3"), host::string("a", host::utf16),
        host::string("\x80", host::ascii), host::string("a", 0x12345678)})
    feeder.convert(broken);
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Dates

TEST_P(ToCocoa, ADateGivesTheWallClockTime) {
  start();
  Feeder feeder;
  host::startLog();
  NSCalendarDate* date = feeder.convert(host::date({2021, 3, 7, 9, 5, 30}));
  EXPECT_THAT(readings(host::stopLog()),
              ElementsAre("REALGetPropValueObject \"DateValue\"", "REALGetPropValueInt \"Year\"",
                          "REALGetPropValueInt \"Month\"", "REALGetPropValueInt \"Day\"",
                          "REALGetPropValueInt \"Hour\"", "REALGetPropValueInt \"Minute\"",
                          "REALGetPropValueInt \"Second\""));
  ASSERT_TRUE([date isKindOfClass:[NSCalendarDate class]]);
  EXPECT_EQ(print(date), "2021-03-07 09:05:30");
  EXPECT_EQ(feeder.printed(host::variantOfCode(7, host::date({1999, 12, 31, 23, 59, 59}))),
            "1999-12-31 23:59:59");
}

TEST_P(ToCocoaRules, ADateThatCannotBeReadGivesNil) {
  start();
  Feeder feeder;
  EXPECT_EQ(feeder.printed(host::variantOfCode(7, "no date")), "nil");
  for (const char* field : {"Year", "Month", "Day", "Hour", "Minute", "Second"}) {
    host::failProperty("Date", field);
    EXPECT_EQ(feeder.printed(host::date({2021, 3, 7, 9, 5, 30})), "nil") << field;
    host::failProperty("Date", field, false);
  }
  host::failProperty("Date", "DateValue");
  EXPECT_EQ(feeder.printed(host::date({2021, 3, 7, 9, 5, 30})), "nil");
  host::failProperty("Date", "DateValue", false);
  host::makeAbsent("REALGetPropValueObject");
  host::Object date = host::date({2021, 3, 7, 9, 5, 30});
  EXPECT_EQ(feeder.printed(host::variantOfCode(7, date)), "nil");
}

TEST_P(ToCocoaRules, DatesOutOfRangeGiveSomeDateOrWhatCocoaRaises) {
  start();
  Feeder feeder;
  const host::DateFields odd[] = {{0, 1, 1, 0, 0, 0},
                                  {-1, 1, 1, 0, 0, 0},
                                  {10000, 1, 1, 0, 0, 0},
                                  {2021, 0, 1, 0, 0, 0},
                                  {2021, 13, 1, 0, 0, 0},
                                  {2021, 2, 0, 0, 0, 0},
                                  {2021, 2, 30, 0, 0, 0},
                                  {2021, 2, 28, -1, 0, 0},
                                  {2021, 2, 28, 24, 60, 61},
                                  {2021, 2, -5, 0, 0, -9},
                                  {INT32_MAX, 12, 31, 0, 0, 0},
                                  {INT32_MIN, 1, 1, 0, 0, 0},
                                  // No month below 0: GNUstep takes seconds to count up to it.
                                  {2021, 1, INT32_MIN, 0, 0, 0},
                                  {INT32_MAX, 1000000, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX}};
  for (const host::DateFields& fields : odd) {
    SCOPED_TRACE(testing::PrintToString(fields));
    NSDictionary* converted =
        feeder.convertDictionary(host::dictionary({{"value", host::date(fields)}}));
    id value = [converted objectForKey:@"value"];
    if (converted) EXPECT_TRUE([value isKindOfClass:[NSDate class]] || value == [NSNull null]);
  }
}

// ---- Arrays

struct ArrayRow {
  int32_t code;
  std::vector<host::Value> elements;
  const char* expected;
};

TEST_P(ToCocoaRecords, AnArrayIsReadByTheCodeOfItsElements) {
  start();
  Feeder feeder;
  const ArrayRow rows[] = {
      {2, {1, -2, INT32_MIN}, "[l:1, l:-2, l:-2147483648]"},
      {3, {int64_t{1}, int64_t{-5000000000}}, "[q:1, q:-5000000000]"},
      {4, {1.25f, -0.5f}, "[f:1.25, f:-0.5]"},
      {5, {1.125, 1e300}, "[d:1.125, d:1.0000000000000001e+300]"},
      {6, {int64_t{12500}}, "nil"},
      {7,
       {host::date({2021, 3, 7, 9, 5, 30}), host::date({1999, 12, 31, 23, 59, 59})},
       "[2021-03-07 09:05:30, 1999-12-31 23:59:59]"},
      {8, {"one", host::string(u"zw\u00F6lf")}, "[\"one\", \"zw\xC3\xB6lf\"]"},
      {9, {1, "two", 3.5, host::array(2, {4})}, "[l:1, \"two\", d:3.5, [l:4]]"},
      {10, {1}, "nil"},
      {11, {true, false, true}, "[c:1, c:0, c:1]"},
      {0, {1}, "nil"},
      {1, {1}, "nil"},
      {12, {1}, "nil"},
      {16, {1}, "nil"},
      {18, {1}, "nil"},
  };
  for (const ArrayRow& row : rows) {
    SCOPED_TRACE(row.code);
    id converted = feeder.convert(host::array(row.code, row.elements));
    EXPECT_EQ(print(converted), row.expected);
    if (converted) EXPECT_TRUE([converted isKindOfClass:[NSMutableArray class]]);
    EXPECT_EQ(feeder.printed(host::array(row.code)),
              std::string(row.expected) == "nil" ? "nil" : "[]");
  }
}

TEST_P(ToCocoaRules, TheElementGetterIsCalledWithTheArrayAndEachIndex) {
  start();
  Feeder feeder;
  host::Object array = host::array(2, {10, 20});
  host::Object dictionary = host::dictionary({{"value", array}});
  host::startLog();
  feeder.convertDictionary(dictionary);
  std::vector<std::string> steps;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name.starts_with("array.") || entry.name.starts_with("Runtime"))
      steps.push_back(entry.text());
  // Array#1 is what the handler answers.
  EXPECT_THAT(
      steps,
      ElementsAre(
          "RuntimeUBound(Array#1) -> 0", "RuntimeArrayDirectGetGetProc(Array#1) -> pointer",
          "array.get Object(Array#1, 0) -> Dictionary#1", "RuntimeUBound(Array#2) -> 1",
          "RuntimeArrayDirectGetGetProc(Array#2) -> pointer", "array.get Int32(Array#2, 0) -> 10",
          "RuntimeArrayDirectGetGetProc(Array#2) -> pointer", "array.get Int32(Array#2, 1) -> 20"));
  EXPECT_EQ(host::outOfBounds(), 0u);
}

TEST_P(ToCocoa, AStringArrayWithAnElementThatCannotBeConvertedRaises) {
  start();
  Feeder feeder;
  EXPECT_TRUE(feeder.raises(host::array(8, {"one", host::String(), "three"})));
  EXPECT_THAT(feeder.logged(), testing::HasSubstr("nil"));
}

TEST_P(ToCocoaRules, AnyArrayWithAnElementThatGivesNilRaises) {
  start();
  Feeder feeder;
  host::Object block = host::memoryBlock("x");
  host::setReportedSize(block, -1);
  EXPECT_TRUE(feeder.raises(host::array(7, {host::Object()})));
  EXPECT_TRUE(feeder.raises(host::array(9, {1, nullptr})));
  EXPECT_TRUE(feeder.raises(host::array(9, {host::variantOfCode(17, 1)})));
  EXPECT_TRUE(feeder.raises(host::array(9, {host::array(9, {block})})));
  EXPECT_TRUE(feeder.raises(host::array(9, {host::array(6)})));
  host::failProperty("Date", "Second");
  EXPECT_TRUE(feeder.raises(host::array(7, {host::date({2021, 3, 7, 9, 5, 30})})));
}

TEST_P(ToCocoaRules, WhatAnElementRaisesIsWhatEndsTheConversion) {
  companion()->provide(COMPANION_TIMES, 0);
  start();
  Feeder feeder;
  EXPECT_TRUE(feeder.raises(host::array(9, {1, host::create("CMTimeKVZ")})));
  EXPECT_THAT(feeder.logged(), testing::HasSubstr("valueWithCMTimeKVZ:"));
}

TEST_P(ToCocoaRules, AMissingElementGetterGivesZeros) {
  start();
  Feeder feeder;
  for (const char* getter : {"Int32", "Int64", "Single", "Double", "Boolean", "String"})
    host::makeAbsent(std::string("array.get ") + getter);
  EXPECT_EQ(feeder.printed(host::array(2, {5, 6})), "[l:0, l:0]");
  EXPECT_EQ(feeder.printed(host::array(3, {int64_t{5}})), "[q:0]");
  EXPECT_EQ(feeder.printed(host::array(4, {1.5f})), "[f:0]");
  EXPECT_EQ(feeder.printed(host::array(5, {1.5})), "[d:0]");
  EXPECT_EQ(feeder.printed(host::array(11, {true})), "[c:0]");
  EXPECT_TRUE(feeder.raises(host::array(8, {"text"})));
  // The way to the getters of the inner array alone.
  host::failCall("RuntimeArrayDirectGetGetProc", 2, 100);
  EXPECT_EQ(feeder.printed(host::array(2, {5, 6})), "[l:0, l:0]");
  host::failCall("RuntimeArrayDirectGetGetProc", 2, 100);
  EXPECT_TRUE(feeder.raises(host::array(9, {"text"})));
  host::clearFaults();
}

TEST_P(ToCocoaRules, ABoundThatLiesIsTakenAsItIs) {
  start();
  Feeder feeder;
  host::Object numbers = host::array(2, {5, 6}), strings = host::array(8, {"a"});
  host::setReportedBound(numbers, 3);
  EXPECT_EQ(feeder.printed(numbers), "[l:5, l:6, l:0, l:0]");
  EXPECT_EQ(host::outOfBounds(), 2u);
  for (int32_t bound : {-1, -2, INT32_MIN}) {
    host::setReportedBound(numbers, bound);
    EXPECT_EQ(feeder.printed(numbers), "[]") << bound;
  }
  host::setReportedBound(strings, 1);
  EXPECT_TRUE(feeder.raises(strings));
  host::setReportedBound(strings, {});
  EXPECT_EQ(feeder.printed(strings), "[\"a\"]");
}

TEST_P(ToCocoaRules, WithoutTheBoundOneElementIsRead) {
  start();
  Feeder feeder;
  host::makeAbsent("RuntimeUBound");
  EXPECT_EQ(feeder.printed(host::array(2, {5, 6})), "[l:5]");
}

TEST_P(ToCocoaRules, FiveHundredLevelsOfArraysAreCarried) {
  start();
  Feeder feeder;
  host::Object nested = host::array(8, {"core"});
  for (int i = 1; i < 500; ++i) nested = host::array(9, {nested});
  NSArray* level = feeder.convert(nested);
  for (int i = 1; i < 500; ++i) {
    ASSERT_EQ([level count], 1u) << "level " << i;
    level = [level objectAtIndex:0];
  }
  EXPECT_EQ(print(level), "[\"core\"]");
}

// ---- Objects: bytes, files, dictionaries

TEST_P(ToCocoaRecords, AMemoryBlockGivesItsBytes) {
  start();
  Feeder feeder;
  NSData* data = feeder.convert(host::memoryBlock(std::string_view("a\0b", 3)));
  EXPECT_EQ(print(data), std::string("data \"a\0b\"", 10));
  EXPECT_EQ(print(feeder.convert(host::memoryBlock(""))), "data \"\"");
}

TEST_P(ToCocoaRules, OddSizesOfMemoryBlocksDoNoHarm) {
  start();
  Feeder feeder;
  host::Object block = host::memoryBlock("abcdef");
  host::setReportedSize(block, 2);
  EXPECT_EQ(feeder.printed(block), "data \"ab\"");
  for (int32_t size : {-1, INT32_MIN}) {
    host::setReportedSize(block, size);
    EXPECT_EQ(feeder.printed(block), "nil") << size;
  }
  host::setReportedSize(block, {});
  host::makeAbsent("memoryBlockGetSize");
  host::makeAbsent("memoryBlockGetPtr");
  EXPECT_EQ(feeder.printed(block), "data \"\"");
  host::makePresent("memoryBlockGetSize");
  EXPECT_EQ(feeder.printed(block), "nil");
  EXPECT_EQ(feeder.printed(host::memoryBlock("a")), "nil") << "not even one byte without bytes";
  host::makePresent("memoryBlockGetPtr");
  EXPECT_EQ(feeder.printed(block), "data \"abcdef\"");
}

TEST_P(ToCocoa, AFolderItemGivesAFileURL) {
  start();
  Feeder feeder;
  std::string path = session::folder() + "/some file";
  EXPECT_EQ(feeder.printed(host::folderItem(path)),
            "file://" + testbed::percent_escaped(session::folder()) + "/some%20file");
  std::ofstream(path) << "content";
  NSURL* url = feeder.convert(host::folderItem(path));
  EXPECT_TRUE([url isFileURL]);
  EXPECT_EQ(std::string([[url path] UTF8String]), path);
  EXPECT_EQ(feeder.printed(host::folderItem(session::folder())),
            "file://" + testbed::percent_escaped(session::folder()) + "/");
  EXPECT_EQ(feeder.printed(host::folderItem(session::folder() + "/no/where")), "nil");
}

TEST_P(ToCocoaRules, AFolderItemIsKnownByItsMethod) {
  start();
  Feeder feeder;
  host::Object item = host::folderItem(session::folder());
  host::Object dictionary = host::dictionary({{"value", item}});
  host::startLog();
  feeder.convertDictionary(dictionary);
  EXPECT_THAT(arguments(host::stopLog(), "REALLoadObjectMethod", 1),
              testing::Contains("\"TrueItem(Index as integer) as Folderitem\""));
  host::lackMethod(item, "TrueItem(Index as integer) as Folderitem");
  host::Pool pool;
  id box = feeder.convert(item);
  EXPECT_EQ(print(box), "KVZREALobjectWrapper");
}

TEST_P(ToCocoaRules, AMemoryBlockIsNotAskedForTheMethodOfFiles) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"value", host::memoryBlock("x")}});
  host::startLog();
  feeder.convertDictionary(dictionary);
  for (const std::string& declaration : arguments(host::stopLog(), "REALLoadObjectMethod", 1))
    EXPECT_EQ(declaration.find("TrueItem"), std::string::npos);
}

TEST_P(ToCocoaRecords, ADictionaryGivesADictionary) {
  start();
  Feeder feeder;
  host::Object inner = host::dictionary({{"a", 1}, {2, "b"}});
  EXPECT_EQ(feeder.printed(inner), "{\"a\": l:1, l:2: \"b\"}");
  host::subclass("OwnDictionary", "Dictionary");
  host::Object own = host::create("OwnDictionary");
  host::put(own, "k", "v");
  EXPECT_EQ(feeder.printed(own), "{\"k\": \"v\"}");
}

// ---- Objects: wrapper classes

const std::vector<std::string> objectWrappers = {"NSPathComponentCellKVZ",
                                                 "NSPathCellKVZ",
                                                 "NSPathControlKVZ",
                                                 "NSObjectKVZ",
                                                 "NSPipeKVZ",
                                                 "NSTaskKVZ",
                                                 "NSFileHandleKVZ",
                                                 "NSClipViewKVZ",
                                                 "NSAnimationKVZ",
                                                 "NSCoderKVZ",
                                                 "NSTimeZoneKVZ",
                                                 "NSDateComponentsKVZ",
                                                 "NSAnimationContextKVZ",
                                                 "NSTimerKVZ",
                                                 "NSBoxKVZ",
                                                 "NSComboBoxKVZ",
                                                 "NSImageViewKVZ",
                                                 "NSPopUpButtonKVZ",
                                                 "NSTextFieldKVZ",
                                                 "NSSearchFieldCellKVZ",
                                                 "NSSecureTextFieldKVZ",
                                                 "NSSecureTextFieldCellKVZ",
                                                 "NSApplicationKVZ",
                                                 "NSSearchFieldKVZ",
                                                 "NSTabViewKVZ",
                                                 "NSTabViewItemKVZ",
                                                 "NSStepperKVZ",
                                                 "NSURLRequestKVZ",
                                                 "NSURLDownloadKVZ",
                                                 "NSURLConnectionKVZ",
                                                 "NSFontPanelKVZ",
                                                 "NSFontManagerKVZ",
                                                 "NSImageKVZ",
                                                 "NSImageRepKVZ",
                                                 "NSAffineTransformKVZ",
                                                 "NSFontKVZ",
                                                 "NSToolbarItemKVZ",
                                                 "NSToolbarKVZ",
                                                 "NSScreenKVZ",
                                                 "NSCharacterSetKVZ",
                                                 "NSTextStorageKVZ",
                                                 "NSColorKVZ",
                                                 "NSAttributedStringKVZ",
                                                 "NSAssertionHandlerKVZ",
                                                 "NSMenuKVZ",
                                                 "NSFontDescriptorKVZ",
                                                 "NSMenuItemKVZ",
                                                 "NSErrorKVZ",
                                                 "NSViewControllerKVZ",
                                                 "NSWindowControllerKVZ",
                                                 "NSHTTPCookieKVZ",
                                                 "NSHTTPCookieStorageKVZ",
                                                 "NSPasteboardKVZ",
                                                 "NSBundleKVZ",
                                                 "NSEnumeratorKVZ",
                                                 "NSDirectoryEnumeratorKVZ",
                                                 "NSRunningApplicationKVZ",
                                                 "NSURLCacheKVZ",
                                                 "NSCellKVZ",
                                                 "NSFileManagerKVZ",
                                                 "NSSoundKVZ",
                                                 "NSBezierPathKVZ",
                                                 "NSCursorKVZ",
                                                 "NSEventKVZ",
                                                 "NSIndexSetKVZ",
                                                 "NSCalendarKVZ",
                                                 "NSViewKVZ",
                                                 "NSWindowKVZ",
                                                 "NSColorListKVZ",
                                                 "NSColorSpaceKVZ",
                                                 "NSTableColumnKVZ",
                                                 "NSUndoManagerKVZ",
                                                 "NSScrollerKVZ",
                                                 "NSResponderKVZ",
                                                 "NSTextFieldCellKVZ",
                                                 "NSTextKVZ",
                                                 "NSTableHeaderViewKVZ",
                                                 "NSOperationKVZ",
                                                 "NSNotificationKVZ",
                                                 "NSNotificationCenterKVZ",
                                                 "NSDistributedNotificationCenterKVZ",
                                                 "QuartzFilterKVZ",
                                                 "NSUserDefaultsKVZ",
                                                 "NSDockTileKVZ",
                                                 "NSLocaleKVZ",
                                                 "NSAppleEventDescriptorKVZ",
                                                 "NSAppleScriptKVZ",
                                                 "NSTableViewKVZ",
                                                 "NSLayoutManagerKVZ",
                                                 "NSTextContainerKVZ",
                                                 "NSTextViewKVZ",
                                                 "NSTextTabKVZ",
                                                 "NSParagraphStyleKVZ",
                                                 "NSDraggingImageComponentKVZ",
                                                 "NSPasteboardItemKVZ",
                                                 "NSRunLoopKVZ",
                                                 "NSMetadataQueryKVZ",
                                                 "NSMetadataItemKVZ",
                                                 "NSPredicateKVZ",
                                                 "NSCompoundPredicateKVZ",
                                                 "NSSortDescriptorKVZ",
                                                 "NSMetadataQueryResultGroupKVZ",
                                                 "NSComparisonPredicateKVZ",
                                                 "NSExpressionKVZ",
                                                 "WebUIDelegateKVZ",
                                                 "WebResourceLoadDelegateKVZ",
                                                 "WebFrameLoadDelegateKVZ",
                                                 "WebDownloadDelegateKVZ",
                                                 "DRBurnKVZ",
                                                 "PDFAnnotationKVZ",
                                                 "PDFActionKVZ"};

struct StructRow {
  const char* wrapper;
  const char* code;
  size_t size;
};

const StructRow structRows[] = {
    {"NSSizeKVZ", "{_NSSize=ff}", 8},
    {"NSRectKVZ", "{_NSRect={_NSPoint=ff}{_NSSize=ff}}", 16},
    {"NSRangeKVZ", "{_NSRange=II}", 8},
    {"NSPointKVZ", "{_NSPoint=ff}", 8},
    {"QTKitTimeKVZ", "{?=qll}", 16},
    {"QTKitTimeRangeKVZ", "{?={?=qll}{?=qll}}", 32},
    {"CMTimeMappingKVZ", "{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", 96},
    {"CMTimeRangeKVZ", "{?={?=qiIq}{?=qiIq}}", 48},
    {"CMTimeKVZ", "{?=qiIq}", 24},
};

const std::vector<std::string> lastWrappers = {
    "WebPolicyDelegateKVZ", "CFObjectKVZ", "CGColorKVZ",   "CGFontKVZ", "CGImageKVZ",
    "CGColorSpaceKVZ",      "CGPathKVZ",   "CGContextKVZ", "CGLayerKVZ"};

// An instance of a wrapper class, converted, gives the very object it wraps and keeps it.
void expectItsObject(Feeder& feeder, const std::string& className) {
  SCOPED_TRACE(className);
  probeDeaths = 0;
  Probe* probe = [[Probe alloc] init];
  host::Object wrapper = host::create(className);
  *static_cast<id*>(host::data(wrapper)) = probe;
  {
    host::Pool pool;
    EXPECT_EQ(feeder.convert(wrapper), probe);
  }
  EXPECT_EQ(probe->retains, probe->releases);
  wrapper.reset();
  EXPECT_EQ(probeDeaths, 1);
}

TEST_P(ToCocoaRecords, EachWrapperClassGivesItsObject) {
  companion()->flatten(1); // each answers for itself alone
  companion()->provide(COMPANION_BOXES, 0);
  start();
  Feeder feeder;
  for (const std::string& name : objectWrappers) expectItsObject(feeder, name);
  for (const std::string& name : lastWrappers) expectItsObject(feeder, name);
}

TEST_P(ToCocoaRecords, ASubclassOfAWrapperClassGivesItsObject) {
  start();
  Feeder feeder;
  host::subclass("OwnWrapper", "NSTextViewKVZ");
  for (const char* name : {"OwnWrapper", "NSTextViewKVZ", "CFURLKVZ", "NSErrorKVZ"})
    expectItsObject(feeder, name);
}

TEST_P(ToCocoaRecords, AnEmptyWrapperGivesNil) {
  start();
  Feeder feeder;
  for (const char* name : {"NSErrorKVZ", "CFURLKVZ", "WebPolicyDelegateKVZ"})
    EXPECT_EQ(feeder.printed(host::create(name)), "nil") << name;
}

// What a value holds. Not by getValue:, which GNUstep's own structs answer in part.
std::string content(NSValue* value, size_t size) {
  std::string bytes(size, '\0');
  std::string code = [value objCType];
  auto copy = [&](auto read) { memcpy(bytes.data(), &read, sizeof read); };
  if (code == "{_NSSize=ff}")
    copy([value sizeValue]);
  else if (code == "{_NSPoint=ff}")
    copy([value pointValue]);
  else if (code == "{_NSRange=II}")
    copy([value rangeValue]);
  else if (code.starts_with("{_NSRect="))
    copy([value rectValue]);
  else
    [value getValue:bytes.data()];
  return bytes;
}

TEST_P(ToCocoaRecords, EachStructWrapperGivesAValueWithTheSameBytes) {
  companion()->flatten(1);
  start();
  Feeder feeder;
  for (const StructRow& row : structRows) {
    SCOPED_TRACE(row.wrapper);
    host::Object wrapper = host::create(row.wrapper);
    std::string bytes(row.size, '\0');
    for (size_t i = 0; i < row.size; ++i) bytes[i] = static_cast<char>(i * 5 + 1);
    memcpy(host::data(wrapper), bytes.data(), row.size);
    NSValue* value = feeder.convert(wrapper);
    ASSERT_TRUE([value isKindOfClass:[NSValue class]]);
    ASSERT_STREQ([value objCType], row.code);
    EXPECT_EQ(content(value, row.size), bytes);
  }
}

std::vector<std::string> allClasses() {
  std::vector<std::string> all = {"MemoryBlock", "Dictionary"};
  all.insert(all.end(), objectWrappers.begin(), objectWrappers.end());
  for (const StructRow& row : structRows) all.push_back(row.wrapper);
  all.insert(all.end(), lastWrappers.begin(), lastWrappers.end());
  return all;
}

TEST_P(ToCocoaRules, ClassesAreTestedInTheirOrder) {
  companion()->flatten(1);
  start();
  Feeder feeder;
  host::defineClass("Thing");
  host::Object dictionary = host::dictionary({{"value", host::create("Thing")}});
  host::startLog();
  {
    host::Pool pool;
    feeder.convertDictionary(dictionary);
  }
  EXPECT_THAT(arguments(host::stopLog(), "RuntimeObjectIsa", 1), ElementsAreArray(allClasses()));
}

TEST_P(ToCocoaRules, ABaseClassCatchesItsSubclassesFirst) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"value", host::create("NSTextViewKVZ")}});
  host::startLog();
  feeder.convertDictionary(dictionary);
  EXPECT_THAT(arguments(host::stopLog(), "RuntimeObjectIsa", 1),
              ElementsAre("MemoryBlock", "Dictionary", "NSPathComponentCellKVZ", "NSPathCellKVZ",
                          "NSPathControlKVZ", "NSObjectKVZ"));
}

TEST_P(ToCocoaRules, AWrapperClassThatTheHostGetsLaterIsFound) {
  companion()->flatten(1);
  start();
  Feeder feeder;
  Probe* probe = [[Probe new] autorelease];
  std::map<const char*, host::Object> wrappers;
  for (const char* name : {"NSPipeKVZ", "CGPathKVZ"}) {
    *static_cast<id*>(host::data(wrappers[name] = host::create(name))) = [probe retain];
    host::hideClass(name);
  }
  for (auto& [name, wrapper] : wrappers) {
    host::Pool pool;
    EXPECT_EQ(feeder.printed(wrapper), "KVZREALobjectWrapper");
  }
  for (auto& [name, wrapper] : wrappers) {
    host::showClass(name);
    EXPECT_EQ(feeder.convert(wrapper), probe);
  }
}

TEST_P(ToCocoaRules, AWrapperClassWhoseLookUpFailedOnceIsFound) {
  companion()->flatten(1);
  start();
  Feeder feeder;
  Probe* probe = [[Probe new] autorelease];
  host::Object wrapper = host::create("NSPathComponentCellKVZ");
  *static_cast<id*>(host::data(wrapper)) = [probe retain];
  host::failAlways("pluginObjectType");
  {
    host::Pool pool;
    EXPECT_EQ(feeder.printed(wrapper), "KVZREALobjectWrapper");
  }
  host::clearFaults();
  EXPECT_EQ(feeder.convert(wrapper), probe);
}

TEST_P(ToCocoaRules, TheClassOfBoxesThatIsLoadedLaterIsFound) {
  companion()->provide(COMPANION_BOXES, 0);
  start();
  Feeder feeder;
  host::defineClass("Thing");
  host::Object thing = host::create("Thing");
  EXPECT_EQ(feeder.printed(thing), "nil");
  Class box = conversion::cocoaClass("KVZREALobjectWrapper");
  class_addMethod(object_getClass(box), @selector(wrap:),
                  reinterpret_cast<IMP>(+[](id, SEL, void*) -> id { return @"boxed"; }), "@@:^v");
  EXPECT_EQ(feeder.printed(thing), "\"boxed\"");
}

TEST_P(ToCocoaRules, AClassIsAskedForUntilItIsFound) {
  start();
  Feeder feeder;
  host::defineClass("Thing");
  host::Object thing = host::create("Thing");
  host::hideClass("NSPipeKVZ");
  host::hideClass("CGPathKVZ");
  auto asked = [&] {
    host::Pool pool;
    host::Object dictionary = host::dictionary({{"value", thing}});
    host::startLog();
    feeder.convertDictionary(dictionary);
    return arguments(host::stopLog(), "pluginObjectType", 0);
  };
  EXPECT_EQ(asked().size(), allClasses().size());
  EXPECT_THAT(asked(), ElementsAre("\"NSPipeKVZ\"", "\"CGPathKVZ\""));
  EXPECT_THAT(asked(), ElementsAre("\"NSPipeKVZ\"", "\"CGPathKVZ\""));
  host::showClass("NSPipeKVZ");
  EXPECT_THAT(asked(), ElementsAre("\"NSPipeKVZ\"", "\"CGPathKVZ\""));
  EXPECT_THAT(asked(), ElementsAre("\"CGPathKVZ\""));
}

// ---- Other objects

TEST_P(ToCocoaRecords, AnyOtherObjectIsBoxed) {
  start();
  Feeder feeder;
  host::defineClass("Thing");
  for (const char* name : {"Thing", "SUAppcastItemKVZ", "NSExceptionKVZ"}) {
    SCOPED_TRACE(name);
    host::Object thing = host::create(name);
    {
      host::Pool pool;
      id box = feeder.convert(thing);
      EXPECT_EQ(print(box), "KVZREALobjectWrapper");
      EXPECT_EQ(companion()->count(COMPANION_LIVE_BOXES), 1u);
      EXPECT_EQ(host::referenceCount(thing), 2);
      EXPECT_EQ(host::Object::adopt([box unwrap]), thing);
    }
    EXPECT_EQ(companion()->count(COMPANION_LIVE_BOXES), 0u);
    EXPECT_EQ(host::referenceCount(thing), 1);
  }
}

TEST_P(ToCocoaRules, WithoutBoxesAnyOtherObjectGivesNil) {
  companion()->provide(COMPANION_BOXES, 0);
  start();
  Feeder feeder;
  host::defineClass("Thing");
  EXPECT_EQ(feeder.printed(host::create("Thing")), "nil");
}

TEST_P(ToCocoaRules, WithoutClassReferencesEveryObjectIsBoxed) {
  start();
  Feeder feeder;
  for (const char* operation : {"pluginObjectType", "RuntimeObjectIsa"}) {
    host::makeAbsent(operation);
    host::Pool pool;
    for (const host::Object& object :
         {host::memoryBlock("x"), host::dictionary(), host::create("NSErrorKVZ")})
      EXPECT_EQ(feeder.printed(object), "KVZREALobjectWrapper") << operation;
    host::makePresent(operation);
  }
  EXPECT_EQ(feeder.printed(host::memoryBlock("x")), "data \"x\"");
}

// ---- Failing operations

TEST_P(ToCocoaRules, WhateverFailsNothingElseLeaks) {
  start();
  Feeder feeder;
  host::defineClass("Thing");
  host::Object error = host::create("NSErrorKVZ");
  host::Object whole =
      host::dictionary({{"text", "t"},
                        {"numbers", host::array(9, {1, int64_t{2}, 3.5f, 4.5, true})},
                        {"dates", host::array(7, {host::date({2021, 3, 7, 9, 5, 30})})},
                        {"strings", host::array(8, {"a", host::string(u"b")})},
                        {"date", host::date({2021, 3, 7, 9, 5, 30})},
                        {"block", host::memoryBlock("x")},
                        {"file", host::folderItem(session::folder())},
                        {"inner", host::dictionary({{1, host::dictionary({{2, "deep"}})}})},
                        {"range", host::create("NSRangeKVZ")},
                        {"error", error},
                        {"thing", host::create("Thing")}});
  std::string expected;
  {
    host::Pool pool;
    expected = print(feeder.convertDictionary(whole));
  }
  host::Ledger before = host::ledger();
  unsigned failures = 0;
  for (uint64_t n = 1;; ++n) {
    SCOPED_TRACE(n);
    bool fired;
    {
      host::Pool pool;
      host::Object array = host::array(9, {whole});
      int held = host::referenceCount(whole);
      host::failNthOperation(n);
      NSArray* answer = feeder.ask(array);
      fired = host::faultFired();
      host::clearFaults();
      // What the callback held when something raised stays with it.
      while (host::referenceCount(array) > 1) host::Object::adopt(array.handle()).reset();
      while (host::referenceCount(whole) > held) host::Object::adopt(whole.handle()).reset();
      EXPECT_LE([answer count], 1u);
    }
    session::takeLog();
    EXPECT_EQ(host::pendingExceptions(), 0u);
    ASSERT_EQ(host::ledger(), before) << host::leakReport();
    if (!fired) break;
    ++failures;
  }
  EXPECT_GT(failures, 100u);
  host::Pool pool;
  EXPECT_EQ(print(feeder.convertDictionary(whole)), expected);
}

} // namespace
