// Dictionaries both ways: entries, the host's methods and how often they are looked up, depth,
// cycles, and dictionaries that change or lack something while they are read.

#include "conversion.h"

#include <gmock/gmock.h>

#include <thread>

#import <GNUstepBase/GNUstep.h>

using conversion::dictionaryToHost;
using conversion::Feeder;
using conversion::print;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;

// A dictionary whose keys stand in the order given; the keys may be nil.
@interface Listed : NSDictionary {
@public
  NSArray* keys;
  NSArray* values;
}
@end

@implementation Listed
- (id)init {
  return self;
}
- (void)dealloc {
  [keys release];
  [values release];
  [super dealloc];
}
- (NSUInteger)count {
  return [keys count];
}
- (NSArray*)allKeys {
  return keys;
}
- (NSEnumerator*)keyEnumerator {
  return [keys objectEnumerator];
}
- (id)objectForKey:(id)key {
  NSUInteger place = [keys indexOfObject:key];
  return place < [values count] ? [values objectAtIndex:place] : nil;
}
@end

// Raises, or throws another object, when a message of this name arrives; at the second time, so
// that something was converted before.
@interface BrittleDictionary : Listed {
@public
  std::string* place;
  id thrown;
  int calls;
}
@end

@implementation BrittleDictionary
- (void)at:(const char*)here {
  if (*place != here || ++calls < (*place == "allKeys" ? 1 : 2)) return;
  if (thrown) @throw thrown;
  [NSException raise:@"Brittle" format:@"on purpose in %s", here];
}
- (NSArray*)allKeys {
  [self at:"allKeys"];
  return [super allKeys];
}
- (id)objectForKey:(id)key {
  [self at:"objectForKey:"];
  return [super objectForKey:key];
}
@end

namespace {

constexpr const char* setter = "Value(key As Variant, Assigns _value As Variant)";
constexpr const char* getter = "Value(key As Variant) As Variant";
constexpr const char* keyGetter = "Key(index As Integer) As Variant";

class Dictionaries : public session::Test {
protected:
  // One exception of the companion's class is pending; takes it.
  void expectException() {
    auto raised = host::takeException();
    ASSERT_TRUE(raised) << "no exception is pending";
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->count, 1u);
    session::takeLog();
  }
};

// What makes no difference to a host's year.
class DictionaryRules : public Dictionaries {};

INSTANTIATE_TEST_SUITE_P(Hosts, Dictionaries, session::everyHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, DictionaryRules, session::oneHost(), session::hostName);

NSDictionary* listed(NSArray* keys, NSArray* values) {
  Listed* made = [[Listed new] autorelease];
  made->keys = [keys retain];
  made->values = [values retain];
  return made;
}

template <typename... Objects> NSArray* list(Objects... objects) {
  id all[] = {objects...};
  return [NSArray arrayWithObjects:all count:sizeof...(objects)];
}

std::string method(const char* declaration) { return std::string("Dictionary.") + declaration; }

// The methods looked up on objects in the log, in their order: "#1 set".
std::vector<std::string> lookups(const std::vector<host::LogEntry>& log) {
  std::vector<std::string> all;
  for (const host::LogEntry& entry : log) {
    if (entry.name != "REALLoadObjectMethod") continue;
    std::string object = entry.arguments.at(0), declaration = entry.arguments.at(1);
    std::string shortly = declaration == "\"" + std::string(setter) + "\""      ? "set"
                          : declaration == "\"" + std::string(getter) + "\""    ? "get"
                          : declaration == "\"" + std::string(keyGetter) + "\"" ? "key"
                          : declaration.starts_with("\"TrueItem")               ? ""
                                                                                : declaration;
    if (!shortly.empty()) all.push_back(object.substr(object.find('#')) + " " + shortly);
  }
  return all;
}

std::vector<std::string> threeFor(std::initializer_list<const char*> dictionaries) {
  std::vector<std::string> all;
  for (std::string each : dictionaries)
    for (const char* which : {" set", " get", " key"}) all.push_back(each + which);
  return all;
}

std::vector<std::string> callsOf(const std::vector<host::LogEntry>& log, const std::string& name) {
  std::vector<std::string> all;
  for (const host::LogEntry& entry : log)
    if (entry.name == name) all.push_back(entry.text().substr(name.size()));
  return all;
}

// ---- To the host

TEST_P(Dictionaries, EntriesComeInTheOrderOfTheKeys) {
  start();
  NSDictionary* source =
      listed(list(@"z", [NSNumber numberWithInt:3], @"a", [NSNumber numberWithBool:YES]),
             list(@"first", [NSNumber numberWithDouble:2.5], [NSNull null], @"last"));
  EXPECT_EQ(host::describe(dictionaryToHost(source)),
            "{\"z\": \"first\", Int32 3: Double 2.5, \"a\": nil, Boolean true: \"last\"}");
}

TEST_P(Dictionaries, WithoutAListOfKeysTheHostGetsAnEmptyDictionary) {
  start();
  host::Object made = dictionaryToHost(listed(nil, nil));
  ASSERT_TRUE(made);
  EXPECT_EQ(host::describe(made), "{}");
  EXPECT_EQ(host::describe(dictionaryToHost([NSDictionary dictionary])), "{}");
}

TEST_P(Dictionaries, NoDictionaryGivesNull) {
  start();
  EXPECT_FALSE(dictionaryToHost(nil));
}

TEST_P(Dictionaries, ANestedDictionaryIsConvertedOnBothLevels) {
  start();
  NSDictionary* inner = listed(list(@"a", @"b"), list(@"1", @"2"));
  NSDictionary* source =
      listed(list(@"before", @"inner", @"after"), list(@"x", static_cast<id>(inner), @"y"));
  host::startLog();
  host::Object made = dictionaryToHost(source);
  // The outer one finds its own methods again after the inner one.
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1", "#2", "#1"})));
  EXPECT_EQ(host::describe(made),
            "{\"before\": \"x\", \"inner\": {\"a\": \"1\", \"b\": \"2\"}, \"after\": \"y\"}");
}

TEST_P(DictionaryRules, TheOuterMethodsAreSoughtBehindEachConversion) {
  start();
  NSDictionary* inner = listed(list(@"a"), list(@"1"));
  host::startLog();
  host::Object made = dictionaryToHost(listed(list(@"inner"), list(static_cast<id>(inner))));
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#2", "#1"})));
  made = nullptr;
  host::startLog();
  dictionaryToHost(listed(list(@"before", @"inner"), list(@"x", static_cast<id>(inner))));
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1", "#2", "#1"})));
}

TEST_P(DictionaryRules, ADictionaryAsAKeyIsConvertedToo) {
  start();
  NSDictionary* inner = listed(list(@"a"), list(@"1"));
  EXPECT_EQ(host::describe(dictionaryToHost(listed(list(static_cast<id>(inner)), list(@"v")))),
            "{{\"a\": \"1\"}: \"v\"}");
}

TEST_P(DictionaryRules, MethodsAreLookedUpOnceAConversion) {
  start();
  NSMutableDictionary* source = [NSMutableDictionary dictionary];
  for (int i = 0; i < 50; ++i) [source setObject:@"v" forKey:[NSNumber numberWithInt:i]];
  for (int turn = 0; turn < 2; ++turn) {
    host::startLog();
    host::Object made = dictionaryToHost(source);
    EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1"})));
    EXPECT_EQ(host::entries(made).size(), 50u);
  }
  host::startLog();
  dictionaryToHost([NSDictionary dictionary]);
  EXPECT_TRUE(lookups(host::stopLog()).empty());
}

TEST_P(DictionaryRules, AnEmptyInnerDictionaryMakesTheOuterLookAgain) {
  start();
  NSDictionary* empty = [NSDictionary dictionary];
  host::startLog();
  dictionaryToHost(listed(list(@"a", @"b", @"c"), list(@"1", static_cast<id>(empty), @"3")));
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1", "#1"})));
}

TEST_P(DictionaryRules, AKeyThatGivesNothingIsStillHandedToTheHost) {
  start();
  NSDictionary* source = listed(list([NSNull null], @"k"), list(@"v", [NSNull null]));
  host::startLog();
  host::Object made = dictionaryToHost(source);
  EXPECT_THAT(callsOf(host::stopLog(), method(setter)),
              ElementsAre("(Dictionary#1, nil, Variant#1)", "(Dictionary#1, Variant#2, nil)"));
  EXPECT_EQ(host::describe(made), "{nil: \"v\", \"k\": nil}");
}

TEST_P(DictionaryRules, KeysAndValuesAreGivenBackBeforeTheNextEntry) {
  start();
  host::Object made = dictionaryToHost(listed(list(@"a", @"b"), list(@"1", @"2")));
  for (auto& [key, value] : host::entries(made)) {
    EXPECT_EQ(host::referenceCount(key), 2); // the dictionary's and ours
    EXPECT_EQ(host::referenceCount(value), 2);
  }
  EXPECT_EQ(host::referenceCount(made), 1);
}

TEST_P(DictionaryRules, WithoutASetterTheDictionaryStaysEmpty) {
  start();
  host::makeAbsent(method(setter));
  EXPECT_EQ(host::describe(dictionaryToHost(listed(list(@"a"), list(@"1")))), "{}");
  host::makePresent(method(setter));
  EXPECT_EQ(host::describe(dictionaryToHost(listed(list(@"a"), list(@"1")))), "{\"a\": \"1\"}");
}

TEST_P(DictionaryRules, TheOtherMethodsAreNotNeededToFill) {
  start();
  host::makeAbsent(method(getter));
  host::makeAbsent(method(keyGetter));
  EXPECT_EQ(host::describe(dictionaryToHost(listed(list(@"a"), list(@"1")))), "{\"a\": \"1\"}");
}

TEST_P(DictionaryRules, WithoutTheHostClassThereIsNull) {
  start();
  host::Object item = conversion::itemWith([NSDictionary dictionaryWithObject:@"v" forKey:@"k"]);
  host::hideClass("Dictionary");
  EXPECT_FALSE(host::get<host::Object>(item, "propertiesDictionary as dictionary"));
  host::showClass("Dictionary");
  host::makeAbsent("PluginNewInstance");
  EXPECT_FALSE(host::get<host::Object>(item, "propertiesDictionary as dictionary"));
  host::makePresent("PluginNewInstance");
  host::makeAbsent("REALLoadObjectMethod");
  EXPECT_EQ(host::describe(host::get<host::Object>(item, "propertiesDictionary as dictionary")),
            "{}");
}

BrittleDictionary* brittle(std::string& place) {
  BrittleDictionary* made = [[BrittleDictionary new] autorelease];
  made->keys = [list(@"a", @"b", @"c") retain];
  made->values = [list(@"1", @"2", @"3") retain];
  made->place = &place;
  return made;
}

TEST_P(Dictionaries, WhatADictionaryRaisesIsRaisedInTheHostAndNothingStays) {
  start();
  for (std::string place : {"allKeys", "objectForKey:"}) {
    SCOPED_TRACE(place);
    EXPECT_FALSE(dictionaryToHost(brittle(place)));
    expectException();
    EXPECT_EQ(host::ledger(), host::Ledger{}) << host::leakReport();
    // Inside another one, whose methods were looked up by then.
    NSDictionary* outer = listed(list(@"x", @"y"), list(@"1", static_cast<id>(brittle(place))));
    EXPECT_FALSE(dictionaryToHost(outer));
    expectException();
    EXPECT_EQ(host::ledger(), host::Ledger{}) << host::leakReport();
    // Nothing is remembered of the dictionaries that are gone.
    host::startLog();
    host::Object made = dictionaryToHost(listed(list(@"a"), list(@"1")));
    EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1"})));
    EXPECT_EQ(host::describe(made), "{\"a\": \"1\"}");
  }
}

TEST_P(DictionaryRules, WhatElseADictionaryThrowsPassesOn) {
  start();
  for (std::string place : {"allKeys", "objectForKey:"}) {
    SCOPED_TRACE(place);
    BrittleDictionary* source = brittle(place);
    source->thrown = [[NSObject new] autorelease];
    host::Object item = conversion::itemWith(source);
    host::CallResult result = host::callCatching(item, "propertiesDictionary as dictionary");
    EXPECT_EQ(result.thrown.object, source->thrown);
    EXPECT_EQ(host::pendingExceptions(), 0u);
  }
}

// ---- To Cocoa

TEST_P(Dictionaries, AHostDictionaryGivesAMutableOne) {
  start();
  Feeder feeder;
  NSDictionary* made =
      feeder.convertDictionary(host::dictionary({{"z", "first"}, {3, 2.5}, {true, int64_t{7}}}));
  EXPECT_EQ(print(made), "{\"z\": \"first\", c:1: q:7, l:3: d:2.5}");
  EXPECT_TRUE([made isKindOfClass:[NSMutableDictionary class]]);
}

TEST_P(Dictionaries, AnEmptyHostDictionaryGivesAnEmptyImmutableOne) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"k", "v"}});
  auto expectEmpty = [&](const char* why) {
    SCOPED_TRACE(why);
    NSDictionary* made = feeder.convertDictionary(dictionary);
    EXPECT_EQ(print(made), "{}");
    EXPECT_FALSE([made isKindOfClass:[NSMutableDictionary class]]);
  };
  for (int32_t count : {0, -1, INT32_MIN}) {
    host::setReportedCount(dictionary, count);
    expectEmpty("a count of nothing");
  }
  host::setReportedCount(dictionary, {});
  host::failProperty("Dictionary", "Count");
  expectEmpty("an unreadable count");
  host::failProperty("Dictionary", "Count", false);
  host::failAlways("REALGetPropValueInt");
  expectEmpty("no reader of counts");
  host::clearFaults();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"k\": \"v\"}");
  dictionary = host::dictionary();
  expectEmpty("no entries");
}

TEST_P(Dictionaries, AValueOfNilGivesNSNull) {
  start();
  Feeder feeder;
  NSDictionary* made =
      feeder.convertDictionary(host::dictionary({{"nil", nullptr}, {"text", "v"}}));
  EXPECT_EQ([made count], 2u);
  EXPECT_EQ([made objectForKey:@"nil"], [NSNull null]);
  EXPECT_EQ(print([made objectForKey:@"text"]), "\"v\"");
}

TEST_P(DictionaryRules, WhatCannotBeCarriedGivesNSNullOnEitherSide) {
  start();
  Feeder feeder;
  host::Object odd = host::variantOfCode(17, 1), other = host::variantOfCode(22, 2);
  EXPECT_EQ(print(feeder.convertDictionary(host::dictionary({{"k", odd}}))), "{\"k\": null}");
  EXPECT_EQ(print(feeder.convertDictionary(host::dictionary({{odd, "v"}}))), "{null: \"v\"}");
  EXPECT_EQ(print(feeder.convertDictionary(host::dictionary({{odd, "first"}, {other, "last"}}))),
            "{null: \"last\"}");
}

TEST_P(DictionaryRules, AnEntryWithANullKeyIsLeftOut) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{nullptr, "lost"}, {"k", "v"}});
  host::startLog();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"k\": \"v\"}");
  EXPECT_THAT(
      callsOf(host::stopLog(), method(getter)),
      ElementsAre("(Dictionary#1, nil) -> Variant#1", "(Dictionary#1, Variant#2) -> Variant#3"));
  NSDictionary* none = feeder.convertDictionary(host::dictionary({{nullptr, "lost"}}));
  EXPECT_EQ(print(none), "{}");
  EXPECT_TRUE([none isKindOfClass:[NSMutableDictionary class]]);
}

TEST_P(DictionaryRules, KeysAreReadByTheirIndexInOrder) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}, {"b", 2}, {"c", 3}});
  host::startLog();
  feeder.convertDictionary(dictionary);
  EXPECT_THAT(callsOf(host::stopLog(), method(keyGetter)),
              ElementsAre("(Dictionary#1, 0) -> Variant#1", "(Dictionary#1, 1) -> Variant#3",
                          "(Dictionary#1, 2) -> Variant#5"));
}

TEST_P(Dictionaries, ANestedHostDictionaryIsConvertedOnBothLevels) {
  start();
  Feeder feeder;
  host::Object inner = host::dictionary({{"a", 1}, {"b", 2}});
  host::Object dictionary = host::dictionary({{"before", "x"}, {"inner", inner}, {"after", "y"}});
  host::startLog();
  NSDictionary* made = feeder.convertDictionary(dictionary);
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1", "#2", "#1"})));
  EXPECT_EQ(print(made),
            "{\"after\": \"y\", \"before\": \"x\", \"inner\": {\"a\": l:1, \"b\": l:2}}");
}

TEST_P(DictionaryRules, ADictionaryAsAKeyOfAHostDictionaryIsConvertedToo) {
  start();
  Feeder feeder;
  host::Object inner = host::dictionary({{"a", 1}});
  host::Object dictionary = host::dictionary({{inner, "v"}, {"k", inner}});
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)),
            "{\"k\": {\"a\": l:1}, {\"a\": l:1}: \"v\"}");
}

TEST_P(DictionaryRules, MethodsOfAHostDictionaryAreLookedUpOnceAConversion) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary();
  for (int i = 0; i < 50; ++i) host::put(dictionary, i, "v");
  for (int turn = 0; turn < 2; ++turn) {
    host::startLog();
    EXPECT_EQ([feeder.convertDictionary(dictionary) count], 50u);
    EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1"})));
  }
}

TEST_P(DictionaryRules, AnEmptyInnerHostDictionaryLeavesTheOuterItsMethods) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}, {"b", host::dictionary()}, {"c", 3}});
  host::startLog();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"a\": l:1, \"b\": {}, \"c\": l:3}");
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1"})));
}

TEST_P(DictionaryRules, EveryTemporaryReferenceOfAHostDictionaryIsGivenBack) {
  start();
  Feeder feeder;
  host::Object key = host::variant("k"), inner = host::dictionary({{"a", 1}});
  host::Object dictionary = host::dictionary({{key, inner}});
  feeder.convertDictionary(dictionary);
  EXPECT_EQ(host::referenceCount(dictionary), 1);
  EXPECT_EQ(host::referenceCount(key), 2);
  EXPECT_EQ(host::referenceCount(inner), 2);
}

TEST_P(DictionaryRules, ADictionaryThatLacksAMethodGivesWhatIsLeft) {
  start();
  Feeder feeder;
  auto lacking = [](std::initializer_list<const char*> methods) {
    host::Object dictionary = host::dictionary({{"a", 1}, {"b", 2}});
    for (const char* each : methods) host::lackMethod(dictionary, each);
    return dictionary;
  };
  EXPECT_EQ(print(feeder.convertDictionary(lacking({setter}))), "{\"a\": l:1, \"b\": l:2}");
  EXPECT_EQ(print(feeder.convertDictionary(lacking({getter}))), "{\"a\": null, \"b\": null}");
  EXPECT_EQ(print(feeder.convertDictionary(lacking({keyGetter}))), "{}");
  EXPECT_EQ(print(feeder.convertDictionary(lacking({setter, getter, keyGetter}))), "{}");
  host::Object outer = host::dictionary(
      {{"before", 1}, {"inner", lacking({getter})}, {"lost", lacking({keyGetter})}, {"after", 2}});
  EXPECT_EQ(print(feeder.convertDictionary(outer)), "{\"after\": l:2, \"before\": l:1, \"inner\": "
                                                    "{\"a\": null, \"b\": null}, \"lost\": {}}");
  host::makeAbsent("REALLoadObjectMethod");
  EXPECT_EQ(print(feeder.convertDictionary(lacking({}))), "{}");
}

// While a key is read the host may run anything, another conversion too.
TEST_P(DictionaryRules, EachReadUsesTheMethodsOfItsOwnDictionary) {
  start();
  Feeder feeder;
  host::Object different = host::dictionary({{"other", 1}});
  host::lackMethod(different, getter);
  host::Object dictionary = host::dictionary({{"a", 1}, {"b", 2}});
  bool running = false;
  host::onRead(dictionary, [&] {
    if (std::exchange(running, true)) return;
    EXPECT_EQ(print(feeder.convertDictionary(different)), "{\"other\": null}");
    running = false;
  });
  host::startLog();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"a\": l:1, \"b\": l:2}");
  host::onRead(dictionary, {});
  // Each key and each value is read behind a conversion of the other dictionary.
  EXPECT_THAT(lookups(host::stopLog()),
              ElementsAreArray(threeFor({"#1", "#2", "#1", "#2", "#1", "#2", "#1", "#2"})));
}

int dictionariesToMake;

id makeDictionary(id type, SEL, NSUInteger capacity) {
  if (dictionariesToMake-- == 0) return nil;
  return [[[type alloc] initWithCapacity:capacity] autorelease];
}

TEST_P(DictionaryRules, AHostDictionaryForWhichCocoaMakesNoneGivesNothing) {
  start();
  Feeder feeder;
  class_replaceMethod(object_getClass([NSMutableDictionary class]),
                      @selector(dictionaryWithCapacity:), reinterpret_cast<IMP>(makeDictionary),
                      "@12@0:4I8");
  dictionariesToMake = 1;
  host::Object dictionary = host::dictionary({{"inner", host::dictionary({{"a", 1}})}});
  host::resetCounts();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"inner\": null}");
  EXPECT_EQ(host::calls(method(keyGetter)), 1u) << "the inner one is not read";
}

TEST_P(DictionaryRules, AnExceptionInTheMiddleLeavesNothingBehind) {
  start();
  Feeder feeder;
  host::Object broken = host::array(8, {host::String()});
  host::Object dictionary =
      host::dictionary({{"a", 1}, {"inner", host::dictionary({{"x", broken}})}});
  EXPECT_FALSE(feeder.convertDictionary(dictionary));
  EXPECT_EQ(host::referenceCount(broken), 2);
  EXPECT_EQ(host::referenceCount(dictionary), 1);
  broken.reset();
  dictionary = host::dictionary({{"k", "v"}});
  host::startLog();
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"k\": \"v\"}");
  EXPECT_THAT(lookups(host::stopLog()), ElementsAreArray(threeFor({"#1"})));
}

TEST_P(DictionaryRules, ADictionaryIsConvertedOnTheThreadThatAsks) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"k", host::dictionary({{"a", 1}})}});
  std::string made;
  std::thread worker([&] {
    GSRegisterCurrentThread();
    {
      host::Pool pool;
      made = print(feeder.convertDictionary(dictionary));
    }
    GSUnregisterCurrentThread();
  });
  worker.join();
  EXPECT_EQ(made, "{\"k\": {\"a\": l:1}}");
}

// ---- Depth and cycles

TEST_P(Dictionaries, FiveHundredLevelsAreCarriedToTheHost) {
  start();
  id nested = @"core";
  for (int i = 0; i < 500; ++i) nested = [NSDictionary dictionaryWithObject:nested forKey:@"k"];
  host::Object level = dictionaryToHost(nested);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(host::entries(level).size(), 1u) << "level " << i;
    level = host::at(level, "k");
  }
  EXPECT_EQ(host::describe(level), "\"core\"");
}

TEST_P(Dictionaries, FiveHundredLevelsAreCarriedToCocoa) {
  start();
  Feeder feeder;
  host::Object nested = host::dictionary({{"k", "core"}});
  for (int i = 1; i < 500; ++i) nested = host::dictionary({{"k", nested}});
  id level = feeder.convertDictionary(nested);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ([level count], 1u) << "level " << i;
    level = [level objectForKey:@"k"];
  }
  EXPECT_EQ(print(level), "\"core\"");
}

TEST_P(DictionaryRules, DictionariesAndArraysCountTogetherTowardsTheBound) {
  start();
  Feeder feeder;
  constexpr int deepest = 512;
  for (int levels : {deepest, deepest + 1, 5000}) {
    SCOPED_TRACE(levels);
    id cocoa = @"core";
    host::Object inHost = host::variant("core");
    for (int i = 1; i < levels; ++i) {
      cocoa = i % 2 ? static_cast<id>([NSArray arrayWithObject:cocoa])
                    : static_cast<id>([NSDictionary dictionaryWithObject:cocoa forKey:@"k"]);
      inHost = i % 2 ? host::array(9, {inHost}) : host::dictionary({{"k", inHost}});
    }
    bool fits = levels <= deepest;
    EXPECT_EQ(static_cast<bool>(dictionaryToHost([NSDictionary dictionaryWithObject:cocoa
                                                                             forKey:@"k"])),
              fits);
    EXPECT_EQ(feeder.convertDictionary(host::dictionary({{"k", inHost}})) != nil, fits);
  }
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Dictionaries, ADictionaryThatHoldsItselfGivesNull) {
  start();
  NSMutableDictionary* source = [NSMutableDictionary dictionaryWithObject:@"v" forKey:@"a"];
  id itself = source;
  [source setObject:itself forKey:@"itself"];
  [source setObject:[NSArray arrayWithObject:itself] forKey:@"again"];
  EXPECT_FALSE(dictionaryToHost(source));
  EXPECT_EQ(host::pendingExceptions(), 0u);
  [source removeAllObjects];
  EXPECT_EQ(host::describe(dictionaryToHost(source)), "{}");
}

TEST_P(Dictionaries, AHostDictionaryThatHoldsItselfGivesNothing) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}});
  host::Object around = host::dictionary({{"array", host::array(9, {dictionary})}});
  host::put(dictionary, "itself", dictionary);
  host::put(dictionary, "around", around);
  EXPECT_FALSE(feeder.convertDictionary(dictionary));
  EXPECT_FALSE(feeder.convertDictionary(around));
  host::clear(dictionary);
  host::put(dictionary, "a", 1);
  EXPECT_EQ(print(feeder.convertDictionary(around)), "{\"array\": [{\"a\": l:1}]}");
}

// ---- Dictionaries that change while they are read

TEST_P(Dictionaries, ACountThatLiesGivesTheEntriesThatAreThere) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}, {"b", 2}});
  host::setReportedCount(dictionary, 5);
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"a\": l:1, \"b\": l:2}");
  host::setReportedCount(dictionary, 1);
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"a\": l:1}");
}

TEST_P(DictionaryRules, ADictionaryThatIsEmptiedGivesWhatWasReadByThen) {
  start();
  Feeder feeder;
  for (int at : {1, 2, 3, 4}) {
    SCOPED_TRACE(at);
    host::Object dictionary = host::dictionary({{"a", host::dictionary({{"x", 1}})}, {"b", 2}});
    int reads = 0;
    host::onRead(dictionary, [&] {
      if (++reads == at) host::clear(dictionary);
    });
    const char* expected[] = {"{}", "{\"a\": null}", "{\"a\": {\"x\": l:1}}",
                              "{\"a\": {\"x\": l:1}, \"b\": null}"};
    EXPECT_EQ(print(feeder.convertDictionary(dictionary)), expected[at - 1]);
    host::onRead(dictionary, {});
  }
}

TEST_P(DictionaryRules, ADictionaryThatGrowsGivesAsManyEntriesAsItHadAtFirst) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{0, "v"}, {1, "v"}});
  int reads = 0;
  host::onRead(dictionary, [&] { host::put(dictionary, 100 + ++reads, "new"); });
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{l:0: \"v\", l:1: \"v\"}");
  host::onRead(dictionary, {});
}

TEST_P(DictionaryRules, AnOuterDictionaryEmptiedByTheInnerOneDoesNoHarm) {
  start();
  Feeder feeder;
  host::Object outer;
  {
    host::Object inner = host::dictionary({{"x", 1}, {"y", 2}});
    outer = host::dictionary({{"inner", inner}, {"after", 3}});
    host::onRead(inner, [&] { host::clear(outer); });
  } // the outer dictionary alone holds the inner one now
  EXPECT_EQ(print(feeder.convertDictionary(outer)), "{\"inner\": {\"x\": l:1, \"y\": l:2}}");
}

TEST_P(DictionaryRules, AConversionInsideAReadDoesNotDisturbTheOneAround) {
  start();
  Feeder feeder;
  host::Object dictionary = host::dictionary({{"a", 1}, {"b", 2}});
  int reads = 0;
  host::onRead(dictionary, [&] {
    ++reads;
    EXPECT_EQ(host::describe(dictionaryToHost(listed(list(@"k"), list(@"v")))), "{\"k\": \"v\"}");
  });
  EXPECT_EQ(print(feeder.convertDictionary(dictionary)), "{\"a\": l:1, \"b\": l:2}");
  EXPECT_EQ(reads, 4);
  host::onRead(dictionary, {});
}

TEST_P(DictionaryRules, KeysThatACocoaDictionaryNoLongerHasGiveNil) {
  start();
  EXPECT_EQ(host::describe(dictionaryToHost(listed(list(@"a", @"gone"), list(@"1")))),
            "{\"a\": \"1\", \"gone\": nil}");
}

} // namespace
