// Text between host and Cocoa: which way it takes on which host, and that it arrives unchanged.
//
// Cocoa to host goes through an item's title, host to Cocoa through an appcast's user agent.

#include "plugin_entry.h"

#include "testbed/cocoa/faults.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#include <malloc.h>

using testing::ElementsAre;

@interface Texts : NSObject {
@public
  id title;
  NSString* received;
  unsigned messages;
}
@end

@implementation Texts
- (id)title {
  return title;
}
- (void)setUserAgentString:(NSString*)text {
  ++messages;
  [text retain];
  [received release];
  received = text;
}
- (void)dealloc {
  [received release];
  [super dealloc];
}
@end

// Says to be of any length, and counts who looks at its units.
@interface EndlessString : NSString {
@public
  NSUInteger claimed;
  unsigned looks;
}
@end

@implementation EndlessString
- (NSUInteger)length {
  return claimed;
}
- (unichar)characterAtIndex:(NSUInteger)index {
  ++looks;
  return static_cast<unichar>('a' + index % 26);
}
@end

// Long enough for a buffer, and raises when it is read.
@interface BrittleString : NSString
@end

@implementation BrittleString
- (NSUInteger)length {
  return 10000;
}
- (unichar)characterAtIndex:(NSUInteger)index {
  [NSException raise:@"Brittle" format:@"unit %lu", static_cast<unsigned long>(index)];
  return 'x';
}
@end

// Any units, paired surrogates or not.
@interface UnitString : NSString {
@public
  std::u16string units;
}
@end

@implementation UnitString
- (NSUInteger)length {
  return units.size();
}
- (unichar)characterAtIndex:(NSUInteger)index {
  return units.at(index);
}
@end

namespace {

NSString* cocoa(std::u16string_view units) {
  UnitString* string = [[UnitString new] autorelease];
  string->units = units;
  return string;
}

std::u16string unitsOf(NSString* string) {
  std::u16string units([string length], u'\0');
  [string getCharacters:reinterpret_cast<unichar*>(units.data())
                  range:NSMakeRange(0, units.size())];
  return units;
}

// Of well-formed text.
std::string utf8(std::u16string_view units) {
  std::string bytes;
  for (size_t i = 0; i < units.size(); ++i) {
    uint32_t c = units[i];
    if (c >= 0xD800 && c < 0xDC00) c = 0x10000 + ((c - 0xD800) << 10) + (units[++i] - 0xDC00);
    if (c < 0x80) {
      bytes += char(c);
      continue;
    }
    int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    bytes += char((0xFF00 >> (more + 1) & 0xFF) | c >> 6 * more);
    while (more--) bytes += char(0x80 | (c >> 6 * more & 0x3F));
  }
  return bytes;
}

std::u16string repeated(std::u16string_view unit, size_t length) {
  std::u16string units;
  while (units.size() + unit.size() <= length) units += unit;
  units.resize(length, u'.');
  return units;
}

constexpr size_t lengths[] = {1, 98, 99, 100, 101, 10000};
// One, two and three bytes a unit, and pairs.
constexpr std::u16string_view alphabets[] = {u"x", u"\u00FC", u"\u20AC", u"\U0001F600", u"e\u0301"};

// A stored text and what it means.
struct Sample {
  const char* name;
  std::string bytes;
  uint32_t encoding;
  std::u16string units;
};

const std::u16string mixed = u"Gr\u00FC\u00DFe \u20AC \U0001F600 e\u0301 \u00E9 \t\r\n&";

std::string raw(std::u16string_view units) {
  return {reinterpret_cast<const char*>(units.data()), units.size() * 2};
}

const std::vector<Sample> samples = {
    {"empty", "", host::utf8, u""},
    {"empty UTF-16", "", host::utf16, u""},
    {"UTF-8", utf8(mixed), host::utf8, mixed},
    {"UTF-16", raw(mixed), host::utf16, mixed},
    {"UTF-16 with a zero byte in each unit", raw(u"plain"), host::utf16, u"plain"},
    {"ASCII", "plain & simple", host::ascii, u"plain & simple"},
    {"Latin 1",
     "Gr\xFC\xDF"
     "e",
     host::latin1, u"Gr\u00FC\u00DFe"},
    {"Mac Roman",
     "Gr\x9F\xA7"
     "e \x8E",
     host::macRoman, u"Gr\u00FC\u00DFe \u00E9"},
    {"unknown, taken as Mac Roman",
     "Gr\x9F\xA7"
     "e",
     host::unknownEncoding, u"Gr\u00FC\u00DFe"},
};

std::vector<std::string> operationsLogged() {
  std::vector<std::string> names;
  for (const host::LogEntry& entry : host::stopLog()) names.push_back(entry.name);
  return names;
}

// What BODY leaves allocated when it runs again and again.
size_t growth(const std::function<void()>& body) {
  auto run = [&](int times) {
    for (int i = 0; i < times; ++i) {
      host::Pool pool;
      body();
    }
    return mallinfo2().uordblks;
  };
  run(20);
  size_t before = run(20);
  size_t after = run(200);
  return after > before ? after - before : 0;
}

class Text : public session::Test {
protected:
  void begin() {
    start();
    texts = [Texts new];
    item = holder("SUAppcastItemKVZ");
    appcast = holder("SUAppcastKVZ");
  }
  void TearDown() override {
    item.reset();
    appcast.reset();
    [texts release];
    session::Test::TearDown();
  }

  // What the host program gets for a title.
  host::String toHost(NSString* text) {
    texts->title = text;
    return host::get<host::String>(item, "title as string");
  }
  // What Cocoa gets for a user agent; nil when it gets nil.
  NSString* toCocoa(const host::String& string) {
    unsigned before = texts->messages;
    setUserAgent(string);
    EXPECT_EQ(texts->messages, before + 1);
    return texts->received;
  }
  NSString* toCocoa(const Sample& sample) {
    return toCocoa(host::string(sample.bytes, sample.encoding));
  }
  void setUserAgent(const host::String& string) {
    host::set(appcast, "UserAgentString as string", string);
  }
  void expectSamplesArrive() {
    for (const Sample& sample : samples) {
      SCOPED_TRACE(sample.name);
      NSString* received = toCocoa(sample);
      EXPECT_TRUE(received);
      EXPECT_EQ(unitsOf(received), sample.units);
    }
    for (size_t length : lengths)
      for (std::u16string_view alphabet : alphabets) {
        std::u16string units = repeated(alphabet, length);
        SCOPED_TRACE(testing::Message() << length << " times " << utf8(alphabet));
        EXPECT_EQ(unitsOf(toCocoa(host::string(utf8(units)))), units);
        EXPECT_EQ(unitsOf(toCocoa(host::string(units))), units);
      }
  }

  double version() const { return host::profile().version; }
  bool readsTheRecord() const { return version() <= 2013.0; }

  Texts* texts = nil;

private:
  host::Object holder(const char* className) {
    host::Object instance = host::create(className);
    // The instance releases what its Handle holds.
    host::set(instance, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>([texts retain])));
    return instance;
  }

  host::Object item, appcast;
};

// ---- Cocoa to host -----------------------------------------------------------------------------

TEST_P(Text, NilAndEmptyTextFromCocoaAreTheNilString) {
  begin();
  EXPECT_FALSE(toHost(nil));
  EXPECT_FALSE(toHost(@""));
  EXPECT_FALSE(toHost(cocoa(u"")));
  EXPECT_EQ(host::calls("REALBuildString"), 0u);
}

TEST_P(Text, ReachesTheHostInUTF8WhateverItsLength) {
  begin();
  for (size_t length : lengths)
    for (std::u16string_view alphabet : alphabets) {
      std::u16string units = repeated(alphabet, length);
      SCOPED_TRACE(testing::Message() << length << " times " << utf8(alphabet));
      host::String string = toHost(cocoa(units));
      ASSERT_TRUE(string);
      EXPECT_EQ(host::bytes(string), utf8(units));
      EXPECT_EQ(host::encoding(string), host::utf8);
      EXPECT_EQ(host::referenceCount(string), 1);
    }
}

TEST_P(Text, IsNotNormalisedOnItsWayToTheHost) {
  begin();
  EXPECT_EQ(host::bytes(toHost(@"\u00E9")), "\xC3\xA9");
  EXPECT_EQ(host::bytes(toHost(@"e\u0301")), "e\xCC\x81");
}

TEST_P(Text, EndsForTheHostAtTheFirstNul) {
  begin();
  EXPECT_EQ(host::bytes(toHost(cocoa(std::u16string(u"ab\0cd", 5)))), "ab");
  EXPECT_FALSE(toHost(cocoa(std::u16string(u"\0abc", 4))));
  EXPECT_EQ(host::bytes(toHost(cocoa(repeated(u"x", 99) + u'\0' + repeated(u"y", 99)))),
            std::string(99, 'x'));
}

TEST_P(Text, KeepsControlCharacters) {
  begin();
  std::u16string units;
  for (char16_t c = 1; c < 0x20; ++c) units += c;
  EXPECT_EQ(host::bytes(toHost(cocoa(units))), utf8(units));
}

TEST_P(Text, WithALoneSurrogateIsTheNilString) {
  begin();
  EXPECT_FALSE(toHost(cocoa(u"a\xD83D")));
  EXPECT_FALSE(toHost(cocoa(u"\xDE00z")));
  EXPECT_FALSE(toHost(cocoa(repeated(u"a", 200) + u'\xD83D' + repeated(u"b", 200))));
  EXPECT_EQ(host::calls("REALBuildString"), 0u);
}

TEST_P(Text, IsBuiltAndMarkedWithTheTwoOperationsThatEveryHostHas) {
  begin();
  host::startLog();
  host::String string = toHost(@"abc");
  std::vector<host::LogEntry> log = host::stopLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].name, "REALBuildString");
  EXPECT_EQ(log[0].arguments.at(1), "3");
  EXPECT_EQ(log[1].name, "REALSetStringEncoding");
  EXPECT_EQ(log[1].arguments.at(1), std::to_string(0x08000100));
}

TEST_P(Text, IsReturnedUnmarkedWhereTheHostCannotMarkIt) {
  begin();
  host::makeAbsent("REALSetStringEncoding");
  host::String string = toHost(@"abc");
  EXPECT_EQ(host::bytes(string), "abc");
  EXPECT_EQ(host::encoding(string), host::unknownEncoding);
}

TEST_P(Text, IsTheNilStringWhereTheHostBuildsNone) {
  begin();
  host::makeAbsent("REALBuildString");
  EXPECT_FALSE(toHost(@"abc"));
  host::makePresent("REALBuildString");
  host::failCall("REALBuildString");
  EXPECT_FALSE(toHost(@"abc"));
  EXPECT_EQ(host::calls("REALSetStringEncoding"), 0u);
  EXPECT_TRUE(toHost(@"abc"));
}

INSTANTIATE_TEST_SUITE_P(Hosts, Text, session::everyHost(), session::hostName);

class TextBuffer : public Text {};

TEST_P(TextBuffer, StandsOnTheStackBelowAHundredUnits) {
  begin();
  for (size_t length : lengths) {
    NSString* text = cocoa(repeated(u"\u20AC", length));
    faults_start(FAULTS_THIS_THREAD);
    EXPECT_TRUE(toHost(text)) << length;
    faults_stop();
    EXPECT_EQ(faults_calls("malloc") + faults_calls("calloc"), length < 100 ? 0u : 1u) << length;
  }
}

TEST_P(TextBuffer, IsFullWithSixHundredBytes) {
  begin();
  // Three bytes a unit is the most there is: a hundred units fill half of the buffer.
  std::u16string units = repeated(u"\uFFFD", 100);
  host::String string = toHost(cocoa(units));
  EXPECT_EQ(host::bytes(string).size(), 300u);
  EXPECT_EQ(host::bytes(string), utf8(units));
}

TEST_P(TextBuffer, ThatCannotBeHadGivesTheNilString) {
  begin();
  for (const char* function : {"malloc", "calloc"}) {
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_call(function, 1);
    host::String string = toHost(cocoa(repeated(u"x", 100)));
    faults_stop();
    EXPECT_EQ(!string, faults_fired() == 1) << function;
  }
}

TEST_P(TextBuffer, IsNotAskedForWhenItsSizeHasNoNumber) {
  begin();
  for (NSUInteger length : {357913942u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EndlessString* endless = [[EndlessString new] autorelease];
    endless->claimed = length;
    faults_start(FAULTS_THIS_THREAD);
    EXPECT_FALSE(toHost(endless)) << length;
    faults_stop();
    EXPECT_EQ(faults_calls("malloc") + faults_calls("calloc"), 0u);
    EXPECT_EQ(endless->looks, 0u);
  }
}

TEST_P(TextBuffer, HoldsTenMegabytes) {
  begin();
  EndlessString* endless = [[EndlessString new] autorelease];
  endless->claimed = 10'000'000;
  host::String string = toHost(endless);
  std::string bytes = host::bytes(string);
  ASSERT_EQ(bytes.size(), 10'000'000u);
  EXPECT_EQ(bytes.substr(0, 5), "abcde");
  EXPECT_EQ(bytes.back(), char('a' + 9'999'999 % 26));
}

TEST_P(TextBuffer, ThatDoesNotFitGivesTheNilStringAndIsFreed) {
  begin();
  for (size_t length : {10, 10000}) {
    NSString* text = cocoa(repeated(u"x", length));
    EXPECT_LT(growth([&] {
                faults_start(FAULTS_THIS_THREAD);
                faults_fail_call("CFStringGetCString", 1);
                EXPECT_FALSE(toHost(text));
                faults_stop();
              }),
              20'000u);
  }
}

TEST_P(TextBuffer, IsFreedWhenReadingTheTextThrows) {
  begin();
  BrittleString* brittle = [[BrittleString new] autorelease];
  EXPECT_LT(growth([&] {
              EXPECT_FALSE(toHost(brittle));
              EXPECT_EQ(host::takeExceptions().size(), 1u);
              session::takeLog();
            }),
            100'000u);
}

TEST_P(TextBuffer, IsFreedWithTheString) {
  begin();
  NSString* text = cocoa(repeated(u"x", 10000));
  EXPECT_LT(growth([&] { EXPECT_TRUE(toHost(text)); }), 100'000u);
}

TEST_P(TextBuffer, IsFreedWhereTheHostBuildsNoString) {
  begin();
  host::makeAbsent("REALBuildString");
  NSString* text = cocoa(repeated(u"x", 10000));
  EXPECT_LT(growth([&] { EXPECT_FALSE(toHost(text)); }), 100'000u);
}

INSTANTIATE_TEST_SUITE_P(Hosts, TextBuffer, session::oneHost(), session::hostName);

// ---- Host to Cocoa
// -------------------------------------------------------------------------------

class StoredText : public Text {
protected:
  void withoutCFStrings() { host::makeAbsent("REALGetStringCFString"); }

  // The operations on one string whose CFString cannot be had.
  std::vector<std::string> byteOperations() const {
    std::vector<std::string> expected(version() >= 2012.0 ? 2 : 1, "REALGetStringCFString");
    expected.push_back("REALGetStringEncoding");
    if (readsTheRecord()) {
      expected.insert(expected.end(), {"REALLockString", "REALUnlockString"});
    } else {
      expected.insert(expected.end(), {"PluginGetStringData", "PluginDisposeStringData"});
    }
    return expected;
  }
};

TEST_P(StoredText, NilStaysNilAndAsksTheHostForNothing) {
  begin();
  toCocoa(host::string("before"));
  host::startLog();
  EXPECT_FALSE(toCocoa(host::String()));
  EXPECT_THAT(host::stopLog(), testing::IsEmpty());
}

TEST_P(StoredText, ArrivesUnchanged) {
  begin();
  expectSamplesArrive();
}

TEST_P(StoredText, ArrivesUnchangedByItsBytes) {
  begin();
  withoutCFStrings();
  expectSamplesArrive();
}

TEST_P(StoredText, IsAskedForAsACFStringFirstWithItsAmpersands) {
  begin();
  host::startLog();
  EXPECT_EQ(unitsOf(toCocoa(host::string("a&b"))), u"a&b");
  std::vector<host::LogEntry> log = host::stopLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].name, "REALGetStringCFString");
  EXPECT_EQ(log[0].arguments.at(1), "0");
}

TEST_P(StoredText, IsReadByItsBytesWhenThereIsNoCFString) {
  begin();
  host::String string = host::string("abc");
  host::failAlways("REALGetStringCFString");
  host::startLog();
  EXPECT_EQ(unitsOf(toCocoa(string)), u"abc");
  std::vector<host::LogEntry> log = host::stopLog();
  std::vector<std::string> names;
  for (const host::LogEntry& entry : log) {
    names.push_back(entry.name);
    if (entry.name == "PluginGetStringData") EXPECT_EQ(entry.arguments.at(1), "65535");
    if (entry.name == "REALGetStringCFString") EXPECT_EQ(entry.arguments.at(1), "0");
  }
  // "unversioned" and 2011.4 have their bytes in the record like the others up to 2013.0.
  EXPECT_EQ(names, byteOperations());
}

TEST_P(StoredText, IsAskedForOnceMoreAsACFStringFrom2012On) {
  begin();
  host::failCall("REALGetStringCFString");
  host::startLog();
  EXPECT_EQ(unitsOf(toCocoa(host::string("abc"))), u"abc");
  if (version() >= 2012.0) {
    EXPECT_THAT(operationsLogged(), ElementsAre("REALGetStringCFString", "REALGetStringCFString"));
  } else {
    EXPECT_EQ(operationsLogged(), byteOperations());
  }
}

TEST_P(StoredText, AsksForAMissingOperationAtEachAttempt) {
  begin();
  withoutCFStrings();
  host::resetCounts();
  toCocoa(host::string("abc"));
  unsigned attempts = version() >= 2012.0 ? 2 : 1;
  EXPECT_EQ(host::lookups("REALGetStringCFString"), attempts);
  toCocoa(host::string("abc"));
  EXPECT_EQ(host::lookups("REALGetStringCFString"), 2 * attempts);
}

TEST_P(StoredText, EndsAtANulUnlessItIsReadByItsLength) {
  begin();
  std::string bytes("ab\0cd", 5);
  EXPECT_EQ(unitsOf(toCocoa(host::string(bytes))), std::u16string(u"ab\0cd", 5));
  withoutCFStrings();
  EXPECT_EQ(unitsOf(toCocoa(host::string(bytes))), u"ab");
  EXPECT_EQ(unitsOf(toCocoa(host::string(std::u16string_view(u"ab\0cd", 5)))),
            std::u16string(u"ab\0cd", 5));
}

TEST_P(StoredText, OfAnOddNumberOfUTF16BytesLosesTheLast) {
  begin();
  withoutCFStrings();
  EXPECT_EQ(unitsOf(toCocoa(host::string(raw(u"abc") + 'x', host::utf16))), u"abc");
  EXPECT_EQ(unitsOf(toCocoa(host::string("x", host::utf16))), u"");
}

TEST_P(StoredText, KeepsALoneSurrogateInUTF16) {
  begin();
  withoutCFStrings();
  EXPECT_EQ(unitsOf(toCocoa(host::string(std::u16string_view(u"a\xD83Dz")))), u"a\xD83Dz");
}

TEST_P(StoredText, IsNotNormalisedOnItsWayToCocoa) {
  begin();
  for (int byBytes : {0, 1}) {
    if (byBytes) withoutCFStrings();
    EXPECT_EQ(unitsOf(toCocoa(host::string("\xC3\xA9"))), u"\u00E9");
    EXPECT_EQ(unitsOf(toCocoa(host::string("e\xCC\x81"))), u"e\u0301");
  }
}

TEST_P(StoredText, ThatItsEncodingDoesNotKnowIsNil) {
  begin();
  for (int byBytes : {0, 1}) {
    if (byBytes) withoutCFStrings();
    toCocoa(host::string("before"));
    EXPECT_FALSE(toCocoa(host::string("a\xFFz", host::utf8)));
    EXPECT_FALSE(toCocoa(host::string("\xC3", host::utf8)));
    EXPECT_FALSE(toCocoa(host::string("Gr\xFC\xDF"
                                      "e",
                                      host::ascii)));
    EXPECT_FALSE(toCocoa(host::string("abc", 0x12345)));
  }
}

TEST_P(StoredText, IsMacRomanWhereTheHostCannotTellItsEncoding) {
  begin();
  withoutCFStrings();
  host::makeAbsent("REALGetStringEncoding");
  EXPECT_EQ(unitsOf(toCocoa(host::string("Gr\x9F\xA7"
                                         "e",
                                         host::latin1))),
            u"Gr\u00FC\u00DFe");
}

TEST_P(StoredText, IsNilWhereCoreFoundationMakesNoString) {
  begin();
  host::failAlways("REALGetStringCFString");
  const char* makers[] = {"CFStringCreateWithCString", "CFStringCreateWithCharacters"};
  for (uint32_t encoding : {host::utf8, host::utf16}) {
    toCocoa(host::string("before"));
    host::String string = host::string("ab", encoding);
    faults_start(FAULTS_THIS_THREAD);
    for (const char* maker : makers) faults_fail_call(maker, 1);
    host::startLog();
    EXPECT_FALSE(toCocoa(string));
    faults_stop();
    EXPECT_EQ(faults_fired(), 1u);
    EXPECT_EQ(operationsLogged(), byteOperations());
  }
}

// Makes the next string of units that anybody makes throw.
bool nextStringThrows;
IMP makeString;

id throwOrMake(id self, SEL selector, const unichar* units, NSUInteger length) {
  if (std::exchange(nextStringThrows, false)) [NSException raise:@"NoString" format:@"none today"];
  using Make = id (*)(id, SEL, const unichar*, NSUInteger);
  return reinterpret_cast<Make>(makeString)(self, selector, units, length);
}

TEST_P(StoredText, IsGivenBackWhenMakingTheCocoaStringThrows) {
  begin();
  Method method = class_getInstanceMethod(object_getClass([NSString alloc]),
                                          @selector(initWithCharacters:length:));
  makeString = method_setImplementation(method, reinterpret_cast<IMP>(throwOrMake));
  toCocoa(host::string("before"));
  unsigned before = texts->messages;
  host::failAlways("REALGetStringCFString");
  for (uint32_t encoding : {host::utf8, host::utf16}) {
    host::String string = host::string("abcd", encoding);
    host::startLog();
    nextStringThrows = true;
    setUserAgent(string);
    EXPECT_FALSE(nextStringThrows);
    std::vector<std::string> names = operationsLogged();
    std::vector<std::string> expected = byteOperations();
    ASSERT_GE(names.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), names.begin()))
        << testing::PrintToString(names);
    EXPECT_EQ(host::referenceCount(string), 1);
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->message, "none today");
  }
  EXPECT_EQ(texts->messages, before) << "the setter was sent all the same";
}

TEST_P(StoredText, IsReleasedOnceCocoaIsDoneWithIt) {
  begin();
  host::String wide = host::string(repeated(u"x", 10000));
  host::String narrow = host::string(std::string(10000, 'x'));
  for (int byBytes : {0, 1}) {
    if (byBytes) withoutCFStrings();
    EXPECT_LT(growth([&] {
                EXPECT_EQ([toCocoa(wide) length], 10000u);
                EXPECT_EQ([toCocoa(narrow) length], 10000u);
              }),
              100'000u);
  }
}

INSTANTIATE_TEST_SUITE_P(Hosts, StoredText, session::everyHost(), session::hostName);

// Hosts up to 2013.0 show the text in the string's record: one byte behind the address in the
// second word, as many bytes as the fourth says.
class StringRecord : public StoredText {
protected:
  static uint32_t* words(const host::String& string) {
    return static_cast<uint32_t*>(string.handle());
  }
};

TEST_P(StringRecord, IsReadWhereTheHostShowsIt) {
  begin();
  withoutCFStrings();
  host::String string = host::string("host text", host::utf8);
  static const char other[] = "\4seen";
  words(string)[1] = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(other));
  EXPECT_EQ(unitsOf(toCocoa(string)), readsTheRecord() ? u"seen" : u"host text");
}

TEST_P(StringRecord, GivesUTF16ByItsLengthAlone) {
  begin();
  withoutCFStrings();
  host::String string = host::string(std::u16string_view(u"four"));
  if (readsTheRecord()) words(string)[3] = 4;
  EXPECT_EQ(unitsOf(toCocoa(string)), readsTheRecord() ? u"fo" : u"four");
}

TEST_P(StringRecord, WithoutTextIsNil) {
  begin();
  withoutCFStrings();
  toCocoa(host::string("before"));
  host::String string = host::string("text");
  words(string)[1] = 0;
  EXPECT_EQ(!toCocoa(string), readsTheRecord());
}

INSTANTIATE_TEST_SUITE_P(Hosts, StringRecord, session::everyHost(), session::hostName);

// ---- Hosts without string data
// -------------------------------------------------------------------

// Only hosts above 2013.0 are asked for string data.
auto hostsWithoutRecord() {
  return testing::Values(std::string("2013.01"), std::string("2013.03"), std::string("2014.1"));
}

class StringData : public StoredText {
protected:
  // A host that offers the bytes of a string and their number instead of string data.
  void beginWithCopies() {
    begin();
    withoutCFStrings();
    host::makeAbsent("PluginGetStringData");
    host::makeAbsent("PluginDisposeStringData");
    host::makePresent("StringGetCString");
  }
  static constexpr const char* lenB = "LenB( s as string ) as integer";
};

TEST_P(StringData, ThatFailsGivesNilAndIsNotDisposedOf) {
  begin();
  withoutCFStrings();
  toCocoa(host::string("before"));
  uint64_t disposed = host::calls("PluginDisposeStringData");
  host::failCall("PluginGetStringData");
  EXPECT_FALSE(toCocoa(host::string("abc")));
  EXPECT_EQ(host::calls("PluginDisposeStringData"), disposed);
}

TEST_P(StringData, IsFreedWhereTheHostDoesNotDisposeOfIt) {
  begin();
  withoutCFStrings();
  host::makeAbsent("PluginDisposeStringData");
  host::String string = host::string(std::string(10000, 'x'));
  EXPECT_LT(growth([&] { EXPECT_EQ([toCocoa(string) length], 10000u); }), 100'000u);
}

TEST_P(StringData, IsCopiedWhereTheHostOnlyShowsItsBytes) {
  beginWithCopies();
  expectSamplesArrive();
  EXPECT_GT(host::calls("StringGetCString"), 0u);
  EXPECT_GT(host::calls(lenB), 0u);
}

TEST_P(StringData, TakesOneBufferForACopyAndFreesIt) {
  beginWithCopies();
  host::String string = host::string(std::string(10000, 'x'));
  EXPECT_LT(growth([&] {
              faults_start(FAULTS_THIS_THREAD);
              EXPECT_EQ([toCocoa(string) length], 10000u);
              faults_stop();
              EXPECT_EQ(faults_calls("malloc") + faults_calls("calloc"), 1u);
            }),
            100'000u);
}

TEST_P(StringData, IsAskedForOnceAUseWithWhatItsCopyNeeds) {
  beginWithCopies();
  const char* const needed[] = {"PluginGetStringData", "StringGetCString", "REALLoadGlobalMethod",
                                lenB};
  host::makeAbsent("StringGetCString");
  host::makeAbsent("REALLoadGlobalMethod");
  auto lookUps = [&] {
    host::resetCounts();
    toCocoa(host::string("abc"));
    std::vector<uint64_t> all;
    for (const char* name : needed) all.push_back(host::lookups(name));
    return all;
  };
  EXPECT_THAT(lookUps(), ElementsAre(1, 1, 0, 0)) << "nothing more is needed";
  host::makePresent("StringGetCString");
  EXPECT_THAT(lookUps(), ElementsAre(1, 1, 1, 0));
  host::makePresent("REALLoadGlobalMethod");
  EXPECT_THAT(lookUps(), ElementsAre(1, 0, 1, 1));
  EXPECT_THAT(lookUps(), ElementsAre(1, 0, 0, 0));
  host::makePresent("PluginGetStringData");
  EXPECT_THAT(lookUps(), ElementsAre(1, 0, 0, 0));
  EXPECT_THAT(lookUps(), ElementsAre(0, 0, 0, 0));
}

TEST_P(StringData, WithoutABufferForItsCopyIsNil) {
  beginWithCopies();
  toCocoa(host::string("before"));
  host::String string = host::string("abc");
  faults_start(FAULTS_THIS_THREAD);
  faults_fail_call("malloc", 1);
  EXPECT_FALSE(toCocoa(string));
  faults_stop();
  EXPECT_EQ(faults_fired(), 1u);
}

TEST_P(StringData, IsNilWhereTheHostHasNeitherWay) {
  for (const char* missing : {lenB, "StringGetCString"}) {
    SCOPED_TRACE(missing);
    if (missing == std::string_view(lenB)) beginWithCopies();
    host::makeAbsent(missing);
    EXPECT_FALSE(toCocoa(host::string("abc")));
    host::makePresent(missing);
    EXPECT_TRUE(toCocoa(host::string("abc")));
  }
}

TEST_P(StringData, IsNilWhereTheHostCannotLoadItsOwnMethods) {
  beginWithCopies();
  host::makeAbsent("REALLoadGlobalMethod");
  EXPECT_FALSE(toCocoa(host::string("abc")));
}

TEST_P(StringData, IsNilWhenTheHostShowsNoBytes) {
  beginWithCopies();
  toCocoa(host::string("before"));
  host::failAlways("StringGetCString");
  EXPECT_FALSE(toCocoa(host::string("abc")));
}

INSTANTIATE_TEST_SUITE_P(Hosts, StringData, hostsWithoutRecord(), session::hostName);

// A host that offers no string data, but wants to dispose of it: what it is given shows how the
// copy lies in memory.
struct DisposedData {
  std::string bytes;
  std::string behind; // the four bytes after them
  uint32_t encoding = 0;
  unsigned count = 0;
} disposed;

void dispose(void* record) {
  auto* words = static_cast<uint32_t*>(record);
  auto* bytes = reinterpret_cast<char*>(words[0]);
  disposed = {std::string(bytes, words[1]), std::string(bytes + words[1], 4), words[2],
              disposed.count + 1};
  free(bytes);
}

void* resolveWithDisposal(const char* name) {
  if (std::string_view(name) == "PluginDisposeStringData") return reinterpret_cast<void*>(dispose);
  return host::resolve(name);
}

class CopiedStringData : public session::Test {};

TEST_P(CopiedStringData, IsDisposedOfByTheHostWithFourZerosBehindIt) {
  host::start(GetParam());
  host::makeAbsent("PluginGetStringData");
  host::makePresent("StringGetCString");
  host::makeAbsent("REALGetStringCFString");
  session::enterPlugin(resolveWithDisposal);
  Texts* texts = [Texts new];
  host::Object appcast = host::create("SUAppcastKVZ");
  host::set(appcast, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>([texts retain])));
  unsigned count = 0;
  for (const Sample& sample : samples) {
    SCOPED_TRACE(sample.name);
    host::set(appcast, "UserAgentString as string", host::string(sample.bytes, sample.encoding));
    EXPECT_EQ(unitsOf(texts->received), sample.units);
    EXPECT_EQ(disposed.count, ++count);
    EXPECT_EQ(disposed.bytes, sample.bytes);
    EXPECT_EQ(disposed.behind, std::string(4, '\0'));
    EXPECT_EQ(disposed.encoding, host::unknownEncoding);
  }
  appcast.reset();
  [texts release];
}

INSTANTIATE_TEST_SUITE_P(Hosts, CopiedStringData, hostsWithoutRecord(), session::hostName);

} // namespace
