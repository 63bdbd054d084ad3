// The host's own tests. The plug-in here is this file: records written by hand as raw words, and
// functions that call the host only by the addresses that the resolver answers.
#include "testbed/host/host.h"

#include "testbed/cocoa/carbon.h"
#include "testbed/cocoa/crossing.h"
#include "testbed/cocoa/files.h"

#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" [[noreturn]] void __wrap_objc_exception_throw(void* object);
extern "C" const void* CFRetain(const void* object);
extern "C" void CFRelease(const void* object);

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// ---- A plug-in by hand

using Handle = void*;
using Word = uint32_t;

template <typename T> Word word(T* pointer) { return Word(reinterpret_cast<uintptr_t>(pointer)); }

// Asks the host as a plug-in does, and calls what it answers.
template <typename R, typename... A> R ask(const char* name, A... arguments) {
  auto* function = reinterpret_cast<R (*)(A...)>(host::resolve(name));
  if (!function) return R();
  return function(arguments...);
}

Handle buildString(const char* text, Word encoding = host::utf8) {
  Handle string = ask<Handle>("REALBuildString", text, int(strlen(text)));
  ask<void>("REALSetStringEncoding", string, encoding);
  return string;
}

struct Layout {
  Word record, property, method, event, constant;
};
constexpr Layout version9{25, 10, 4, 2, 3}, newer{29, 12, 6, 4, 5};

// Lays a class out as words; everything may be spoiled before it is registered.
struct Record {
  explicit Record(Word version, const char* name = "Thing")
      : layout(version == 9 ? version9 : newer), words(layout.record) {
    words[0] = version;
    words[1] = word(name);
    words[3] = 16;
    words[20] = 4;
  }
  void property(const char* name, const char* type, Word position = 0) {
    Word* entry = add(properties, layout.property, 7);
    entry[1] = word(name);
    entry[2] = word(type);
    entry[3] = 6;
    entry[4] = entry[5] = 0xFFFFFFFF;
    entry[6] = position;
  }
  template <typename F> Word* method(const char* declaration, F* function, int array = 9) {
    Word* entry = add(array == 9 ? methods : sharedMethods, layout.method, array);
    entry[0] = word(function);
    entry[2] = word(declaration);
    entry[3] = 4;
    return entry;
  }
  template <typename F> void shared(const char* declaration, F* function) {
    method(declaration, function, 23);
  }
  template <typename G, typename S> void computed(const char* declaration, G* getter, S* setter) {
    method(declaration, getter)[1] = word(setter);
  }
  void event(const char* declaration) { add(events, layout.event, 11)[0] = word(declaration); }
  void constant(const char* declaration) {
    add(constants, layout.constant, 18)[0] = word(declaration);
  }
  void enter() { ask<void>("PluginRegisterClass", words.data()); }
  Word eventWord(Word index) const { return events[index * layout.event + 1]; }

  Layout layout;
  std::vector<Word> words, properties, methods, events, constants, sharedMethods;

private:
  Word* add(std::vector<Word>& array, Word stride, int field) {
    array.resize(array.size() + stride);
    words[size_t(field)] = word(array.data());
    words[size_t(field) + 1] = Word(array.size() / stride);
    return array.data() + array.size() - stride;
  }
};

void announce(int version) { ask<void>("RegisterPluginVersion", version); }

// The class that most tests use. Its data is one word, "Handle".
Record* thing;
std::vector<std::string> calls;

Word* dataOf(Handle object) {
  return reinterpret_cast<Word*>(static_cast<char*>(object) + thing->words[4]);
}

void thingConstructor(Handle object) {
  calls.push_back("constructor " + std::to_string(*dataOf(object)));
  *dataOf(object) = 42;
}
void thingDestructor(Handle) { calls.push_back("destructor"); }
void thingDestructorMethod(Handle) { calls.push_back("Destructor"); }

Handle lastText;
Handle thingText(Handle) {
  ask<void>("REALLockString", lastText);
  return lastText;
}
void thingSetText(Handle, Handle text) {
  if (text) ask<void>("REALLockString", text);
  if (lastText) ask<void>("REALUnlockString", lastText);
  lastText = text;
}
bool flag;
uint8_t thingFlag(Handle) { return flag; }
void thingSetFlag(Handle, uint8_t value) { flag = value; }
double interval;
double thingInterval(Handle) { return interval; }
void thingSetInterval(Handle, double value) { interval = value; }
int64_t thingSum(Handle, int a, int64_t b, float c, double d, uint8_t e) {
  return a + b + int64_t(c) + int64_t(d) + e;
}
float thingHalf(Handle, float value) { return value / 2; }
Handle thingSame(Handle, Handle object) {
  if (object) ask<void>("REALLockObject", object);
  return object;
}
int sharedTwice(int value) { return value * 2; }

Handle thrownObject;
void thingThrow(Handle) { __wrap_objc_exception_throw(thrownObject); }
void makeThrown() {
  if (thrownObject) return;
  Handle string = buildString("thrown");
  thrownObject = ask<Handle>("REALGetStringCFString", string, 0);
  ask<void>("REALUnlockString", string);
}

void raise(const char* className, const char* message) {
  Handle exception = ask<Handle>("PluginNewInstance", className);
  Handle text = message ? buildString(message) : nullptr;
  ask<void>("REALSetPropValueString", exception, "Message", text);
  ask<void>("REALSetPropValueInt", exception, "ErrorNumber", 7);
  ask<void>("RuntimeRaiseException", exception);
  ask<void>("REALUnlockObject", exception);
  if (text) ask<void>("REALUnlockString", text);
}
void thingRaise(Handle) { raise("NilObjectException", "nothing there"); }

// Raises event INDEX with the words given.
template <typename R, typename... A> R raiseEvent(Word index, Handle target, A... arguments) {
  auto* handler = reinterpret_cast<R (*)(Handle, A...)>(
      ask<void*>("GetEventInstance", target, thing->eventWord(index)));
  if (!handler) return R();
  return handler(target, arguments...);
}
int thingCompare(Handle self) {
  Handle a = buildString("1.0"), b = buildString("2.0");
  int result = raiseEvent<int>(0, self, a, b);
  ask<void>("REALUnlockString", a);
  ask<void>("REALUnlockString", b);
  return result;
}

Record* makeThing(Word version) {
  // The host keeps pointers into a record for life.
  static std::deque<Record> records;
  auto* record = &records.emplace_back(version);
  record->words[5] = word(thingConstructor);
  record->words[6] = word(thingDestructor);
  record->property("Handle", "Integer");
  record->method("Destructor", thingDestructorMethod);
  record->computed("text as string", thingText, thingSetText);
  record->computed("flag as boolean", thingFlag, thingSetFlag);
  record->computed("interval as double", thingInterval, thingSetInterval);
  record->method("sum(a as integer, b as int64, c as single, d as double, e as boolean) as int64",
                 thingSum);
  record->method("half(value as single) as single", thingHalf);
  record->method("same(object as Thing) as Thing", thingSame);
  record->method("throws", thingThrow);
  record->method("raises", thingRaise);
  record->method("compare as integer", thingCompare);
  record->method("overloaded", thingRaise);
  record->method("overloaded(a as integer)", thingRaise);
  record->shared("twice(value as integer) as integer", sharedTwice);
  record->event("compareVersion(VersionA as string, VersionB as string) as integer");
  record->event("title as string");
  record->event("may as boolean");
  record->event("found(item as Thing)");
  record->event("list as dictionary()");
  record->event("ratio(a as double) as double");
  record->constant("One = 1");
  return record;
}

void load(const char* profile = "2013.03", int version = 12) {
  host::start(profile);
  announce(version);
  thing = makeThing(Word(version));
  thing->enter();
  calls.clear();
  lastText = nullptr;
}

class EveryHost : public testing::TestWithParam<host::Profile> {};
INSTANTIATE_TEST_SUITE_P(Profiles, EveryHost, testing::ValuesIn(host::profiles()),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           for (char& c : name)
                             if (c == '.') c = '_';
                           return name;
                         });

int newestInterface(const host::Profile& profile) {
  return profile.version >= 2013.03  ? 12
         : profile.version >= 2013.0 ? 11
         : profile.version >= 2012.0 ? 10
                                     : 9;
}

// ---- Start and resolver

// A death test, so that it comes before every other in a process that runs them all.
TEST(BeforeStartDeathTest, NothingWorks) {
  EXPECT_THROW(host::create("Date"), host::Error);
  EXPECT_THROW(host::profile(), host::Error);
}

TEST(Start, AnUnknownProfileIsAnError) { EXPECT_THROW(host::start("1999"), host::Error); }

TEST_P(EveryHost, ReportsItsVersion) {
  host::start(GetParam().name);
  EXPECT_EQ(host::resolve("REALGetRBVersion") == nullptr, GetParam().version == 0);
  EXPECT_EQ(ask<double>("REALGetRBVersion"), GetParam().version);
}

TEST_P(EveryHost, OffersStringDataOrItsFallback) {
  host::start(GetParam().name);
  bool modern = GetParam().version >= 2012.0;
  EXPECT_EQ(host::resolve("PluginGetStringData") != nullptr, modern);
  EXPECT_EQ(host::resolve("PluginDisposeStringData") != nullptr, modern);
  EXPECT_EQ(host::resolve("StringGetCString") != nullptr, !modern);
}

TEST(Resolver, CountsEveryLookupFoundOrNot) {
  host::start("2013.03");
  host::resolve("REALLockObject");
  host::resolve("NoSuchThing");
  host::resolve("NoSuchThing");
  EXPECT_EQ(host::lookups("REALLockObject"), 1u);
  EXPECT_EQ(host::lookups("NoSuchThing"), 2u);
  EXPECT_EQ(host::lookups("NeverAsked"), 0u);
}

TEST(Resolver, KnowsNoMethodByItsDeclaration) {
  host::start("2013.03");
  EXPECT_EQ(host::resolve("LenB( s as string ) as integer"), nullptr);
}

TEST(Resolver, GlobalMethodsAreFoundByExactDeclarationAndNullModule) {
  host::start("2013.03");
  auto find = [](const char* declaration, void* module = nullptr) {
    return ask<void*>("REALLoadGlobalMethod", declaration, module);
  };
  EXPECT_NE(find("LenB( s as string ) as integer"), nullptr);
  EXPECT_EQ(find("LenB(s as string) as integer"), nullptr);
  EXPECT_NE(find("VarType(value As Variant) As Int32"), nullptr);
  int module;
  EXPECT_EQ(find("VarType(value As Variant) As Int32", &module), nullptr);
}

// ---- Absence, faults, counts, log

TEST(Operations, AbsentOnesAreNotResolvedAndFailWhenCalledAnyway) {
  host::start("2013.03");
  auto* build = reinterpret_cast<Handle (*)(const char*, int)>(host::resolve("REALBuildString"));
  host::makeAbsent("REALBuildString");
  EXPECT_EQ(host::resolve("REALBuildString"), nullptr);
  EXPECT_EQ(build("a", 1), nullptr);
  EXPECT_TRUE(host::faultFired());
  host::makePresent("REALBuildString");
  EXPECT_EQ(host::resolve("REALBuildString"), reinterpret_cast<void*>(build));
}

TEST(Operations, NthCallFails) {
  host::start("2013.03");
  host::failCall("PluginNewInstance", 2, 2);
  std::vector<bool> made;
  for (int i = 0; i < 5; ++i) {
    Handle object = ask<Handle>("PluginNewInstance", "Date");
    made.push_back(object);
    ask<void>("REALUnlockObject", object);
  }
  EXPECT_THAT(made, ElementsAre(true, false, false, true, true));
  EXPECT_EQ(host::calls("PluginNewInstance"), 5u);
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Operations, AlwaysFailing) {
  host::start("2013.03");
  host::failAlways("PluginNewInstance");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask<Handle>("PluginNewInstance", "Date"), nullptr);
  host::clearFaults();
  Handle object = ask<Handle>("PluginNewInstance", "Date");
  EXPECT_NE(object, nullptr);
  ask<void>("REALUnlockObject", object);
}

TEST(Operations, NthFallibleOperationOfAllFails) {
  host::start("2013.03");
  auto scenario = [] {
    Handle date = ask<Handle>("PluginNewInstance", "Date");
    ask<void>("REALLockObject", date);
    ask<void>("REALUnlockObject", date);
    int year = 0;
    bool read = ask<bool>("REALGetPropValueInt", date, "Year", &year);
    ask<void>("REALUnlockObject", date);
    return std::pair(date != nullptr, read);
  };
  host::resetCounts();
  scenario();
  ASSERT_EQ(host::fallibleOperationsPerformed(), 2u);
  EXPECT_EQ(host::operationsPerformed(), 5u);
  host::failNthOperation(1);
  EXPECT_EQ(scenario(), std::pair(false, false));
  EXPECT_TRUE(host::faultFired());
  host::failNthOperation(2);
  EXPECT_EQ(scenario(), std::pair(true, false));
  host::failNthOperation(3);
  EXPECT_EQ(scenario(), std::pair(true, true));
  EXPECT_FALSE(host::faultFired());
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Operations, LockAndUnlockAreNotFallible) {
  EXPECT_FALSE(host::fallible("REALLockObject"));
  EXPECT_FALSE(host::fallible("REALUnlockString"));
  EXPECT_TRUE(host::fallible("REALSetStringEncoding"));
  EXPECT_THROW(host::fallible("NoSuchThing"), host::Error);
}

TEST(Operations, BooleansAreOneByteWithNoiseAbove) {
  host::start("2013.03");
  host::Object date = host::date({});
  int year;
  uint32_t answer = ask<uint32_t>("REALGetPropValueInt", date.handle(), "Year", &year);
  EXPECT_EQ(answer & 0xFF, 1u);
  EXPECT_NE(answer & 0xFFFFFF00, 0u);
}

TEST(Log, NumbersHandlesAsItMeetsThem) {
  host::start("2013.03");
  ask<void>("REALUnlockString", ask<Handle>("REALBuildString", "before", 6));
  auto record = [] {
    host::startLog();
    Handle string = ask<Handle>("REALBuildString", "abc", 3);
    ask<void>("REALUnlockString", string);
    host::failCall("PluginNewInstance");
    ask<Handle>("PluginNewInstance", "Date");
    return host::stopLog();
  };
  auto log = record();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].text(), R"(REALBuildString(pointer, 3) -> String#1 "abc")");
  EXPECT_EQ(log[1].text(), R"(REALUnlockString(String#1 "abc"))");
  EXPECT_EQ(log[2].text(), R"(PluginNewInstance("Date") fails)");
  EXPECT_TRUE(log[0].thread.main());
  EXPECT_EQ(log, record());
}

TEST(Log, IsEmptyWhenNobodyWatches) {
  host::start("2013.03");
  host::startLog();
  host::setWatching(false);
  ask<void>("REALUnlockString", ask<Handle>("REALBuildString", "abc", 3));
  host::setWatching(true);
  EXPECT_TRUE(host::stopLog().empty());
  EXPECT_EQ(host::operationsPerformed(), 0u);
}

// ---- Handles

using Handles = testing::Test;

TEST(HandlesDeathTest, ADeadHandleShowsWhereItDiedAndWhereItIsTouched) {
  host::start("2013.03");
  Handle date = ask<Handle>("PluginNewInstance", "Date");
  ask<void>("REALUnlockObject", date);
  EXPECT_DEATH(ask<void>("REALLockObject", date),
               "REALLockObject: Date#1 is dead\n  it died here:\n(.*\n)*"
               "  touched here \\(main\\):\n    .* in ");
}

TEST(HandlesDeathTest, OneUnlockTooMany) {
  host::start("2013.03");
  Handle string = ask<Handle>("REALBuildString", "a", 1);
  ask<void>("REALUnlockString", string);
  EXPECT_DEATH(ask<void>("REALUnlockString", string), "REALUnlockString: String#1 is dead");
}

TEST(HandlesDeathTest, AnObjectWhereAStringIsNeededAndTheOtherWayRound) {
  host::start("2013.03");
  host::Object date = host::date({});
  host::String string = host::string("a");
  EXPECT_DEATH(ask<void>("REALLockString", date.handle()), "is an object, a string is needed");
  EXPECT_DEATH(ask<void>("REALUnlockObject", string.handle()), "is a string, an object is needed");
  EXPECT_DEATH(ask<void>("REALSetPropValueString", date.handle(), "Message", date.handle()),
               "a string is needed");
}

TEST(HandlesDeathTest, WhatIsNoHandleAtAll) {
  host::start("2013.03");
  int something;
  EXPECT_DEATH(ask<void>("REALLockObject", &something), "is no handle of this host");
  host::Object date = host::date({});
  EXPECT_DEATH(ask<void>("REALLockObject", static_cast<char*>(date.handle()) + 4),
               "is no handle of this host");
}

TEST(HandlesDeathTest, AnObjectOfTheWrongClass) {
  host::start("2013.03");
  host::Object date = host::date({});
  EXPECT_DEATH(ask<int>("RuntimeUBound", date.handle()), "Date#1 is no array");
  EXPECT_DEATH(ask<int>("memoryBlockGetSize", date.handle()), "is no MemoryBlock");
  EXPECT_DEATH(ask<bool>("REALFSRefFromFolderItem", date.handle(), &date, nullptr),
               "is no FolderItem");
}

TEST(HandlesDeathTest, AnInventedClassReference) {
  host::start("2013.03");
  host::Object date = host::date({});
  int something;
  EXPECT_DEATH(ask<bool>("RuntimeObjectIsa", date.handle(), &something), "is no class reference");
}

TEST(HandlesDeathTest, ADeadHandleStaysKnownForThousandsOfLaterOnes) {
  host::start("2013.03");
  Handle dead = ask<Handle>("PluginNewInstance", "Date");
  ask<void>("REALUnlockObject", dead);
  for (int i = 0; i < 10000; ++i) host::Object later = host::date({});
  EXPECT_DEATH(ask<void>("REALLockObject", dead), "Date#1 is dead");
}

TEST(Handles, MemoryOfTheDeadIsUsedAgainInTheEnd) {
  host::start("2013.03");
  host::setStacks(false);
  std::set<Handle> places;
  for (int i = 0; i < 60000; ++i) places.insert(host::date({}).handle());
  EXPECT_LT(places.size(), 20000u);
  host::setStacks(true);
}

TEST(Classes, OfALaterHostStandWhereThoseOfAnEarlierOneStoodUnlessAnObjectIsLeft) {
  auto reference = [] { return ask<void*>("pluginObjectType", "Thing"); };
  auto startWithThing = [&] {
    host::start("2013.03");
    host::defineClass("Thing", "");
    return reference();
  };
  void* first = startWithThing();
  host::Object dead = host::create("Thing");
  std::string label = host::print(dead);
  dead.reset();
  EXPECT_EQ(startWithThing(), first);
  // Numbered from the start, as in any host.
  host::Object left = host::create("Thing");
  EXPECT_EQ(host::print(left), label);
  EXPECT_NE(startWithThing(), first);
  EXPECT_EQ(host::print(left), label);
}

TEST(Handles, NilIsHarmless) {
  host::start("2013.03");
  ask<void>("REALLockObject", Handle());
  ask<void>("REALUnlockObject", Handle());
  ask<void>("REALUnlockString", Handle());
  EXPECT_EQ(ask<Handle>("PluginNewInstance", "NoSuchClass"), nullptr);
}

TEST(Handles, ReferencesAreCounted) {
  host::start("2013.03");
  host::Object date = host::date({});
  ask<void>("REALLockObject", date.handle());
  EXPECT_EQ(host::referenceCount(date), 2);
  {
    host::Object copy = date;
    EXPECT_EQ(host::referenceCount(date), 3);
  }
  ask<void>("REALUnlockObject", date.handle());
  EXPECT_EQ(host::referenceCount(date), 1);
}

TEST(Handles, SurviveTheUseByManyThreads) {
  load();
  host::Object shared = host::create("Thing");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        ask<void>("REALLockObject", shared.handle());
        Handle string = buildString("text");
        Handle variant = ask<Handle>("StringToVariant", string);
        ask<void>("REALUnlockString", string);
        ask<void>("REALUnlockObject", variant);
        ask<void>("REALUnlockObject", shared.handle());
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(host::referenceCount(shared), 1);
  shared.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(LedgerTest, NamesWhatLivesAndWhereItWasMade) {
  host::start("2013.03");
  host::Object a = host::date({}), b = host::date({});
  host::String s = host::string("x");
  EXPECT_EQ(host::ledger(), (host::Ledger{{{"Date", 2}, {"String", 1}}}));
  EXPECT_EQ(testing::PrintToString(host::ledger()), "2 Date, 1 String alive");
  EXPECT_THAT(host::leakReport(), HasSubstr("Date#2, 1 reference, made here:\n    "));
  a.reset(), b.reset(), s.reset();
  EXPECT_EQ(testing::PrintToString(host::ledger()), "nothing alive");
  EXPECT_EQ(host::leakReport(), "");
}

// ---- Registration

TEST_P(EveryHost, TakesAClassInItsOwnLayoutAndFillsItIn) {
  int version = newestInterface(GetParam());
  load(GetParam().name, version);
  EXPECT_EQ(host::announcedVersion(), Word(version));
  EXPECT_EQ(thing->words[4], GetParam().dataOffset);
  const host::Registered& known = *host::registered("Thing");
  EXPECT_EQ(known.words.size(), version == 9 ? 25u : 29u);
  EXPECT_EQ(known.words[4], 0u);
  EXPECT_EQ(known.version, Word(version));
  EXPECT_EQ(known.record, thing->words.data());
  EXPECT_EQ(known.table(host::Registered::methods).stride, version == 9 ? 4u : 6u);
  EXPECT_EQ(known.table(host::Registered::methods).count, 12u);
  EXPECT_THAT(known.declarations(host::Registered::properties), ElementsAre("Handle"));
  EXPECT_THAT(known.declarations(host::Registered::constants), ElementsAre("One = 1"));
  EXPECT_THAT(host::registrationOrder(), ElementsAre("Thing"));
  std::set<Word> words;
  for (Word i = 0; i < 6; ++i) words.insert(thing->eventWord(i));
  EXPECT_EQ(words.size(), 6u) << "each event has a word of its own";
  EXPECT_FALSE(words.contains(0u));
}

TEST_P(EveryHost, CallsWhatWasRegistered) {
  load(GetParam().name, newestInterface(GetParam()));
  host::Object object = host::create("Thing");
  EXPECT_THAT(calls, ElementsAre("constructor 0"));
  EXPECT_EQ(host::get<int>(object, "Handle"), 42);
  host::set(object, "text as string", "Grüße");
  EXPECT_EQ(host::get<std::string>(object, "text as string"), "Grüße");
  host::set(object, "text as string", nullptr);
  EXPECT_EQ(host::get<std::optional<std::string>>(object, "text as string"), std::nullopt);
  host::set(object, "flag as boolean", true);
  EXPECT_TRUE(host::get<bool>(object, "flag as boolean"));
  host::set(object, "interval as double", 0.1);
  EXPECT_EQ(host::get<double>(object, "interval as double"), 0.1);
  object.reset();
  EXPECT_THAT(calls, ElementsAre("constructor 0", "Destructor", "destructor"));
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(RegistrationTest, SubclassesOfAPluginHaveTheirDataBehindTheSuperclass) {
  load();
  Record lower(12, "Lower");
  lower.words[2] = word("Thing");
  lower.property("Second", "Integer", 4);
  lower.enter();
  EXPECT_EQ(lower.words[4], thing->words[4] + 16);
  host::Object object = host::create("Lower");
  EXPECT_TRUE(host::isA(object, "Thing"));
  EXPECT_EQ(host::get<int>(object, "Handle"), 42);
  host::set(object, "Second", 5);
  EXPECT_EQ(static_cast<Word*>(host::data(object, "Lower"))[1], 5u);
  EXPECT_EQ(*static_cast<Word*>(host::data(object)), 42u);
}

void expectRefused(Record& record, const char* message) { EXPECT_DEATH(record.enter(), message); }

TEST(RegistrationDeathTest, AVersionThatTheHostDoesNotKnow) {
  host::start("2012.0");
  EXPECT_DEATH(announce(11), "knows the interface versions 9 to 10, not 11");
  EXPECT_DEATH(announce(8), "not 8");
}

TEST(RegistrationDeathTest, BeforeTheVersionIsAnnounced) {
  host::start("2013.03");
  Record record(12);
  expectRefused(record, "RegisterPluginVersion was not called before");
}

TEST(RegistrationDeathTest, EveryWrongWordIsNamed) {
  host::start("2013.03");
  announce(12);
  struct Case {
    std::function<void(Record&)> spoil;
    const char* message;
  };
  static int beyond;
  const Case cases[] = {
      {[](Record& r) { r.words[0] = 11; }, "word 0 must be the announced interface version 12"},
      {[](Record& r) { r.words[1] = 0; }, "word 1 must point to the class name"},
      {[](Record& r) { r.words[1] = 5; }, "word 1 must point to the class name"},
      {[](Record& r) { r.words[2] = word("NoSuchClass"); }, "superclass .NoSuchClass. is unknown"},
      {[](Record& r) { r.words[3] = 17; }, "word 3 must be a size"},
      {[](Record& r) { r.words[4] = 16; }, "word 4 is the host's and must be 0"},
      {[](Record& r) { r.words[5] = word(&beyond); }, "word 5 must be null or a function"},
      {[](Record& r) { r.words[6] = 1; }, "word 6 must be null or a function"},
      {[](Record& r) { r.words[8] = 0; }, "word 7 must be null exactly when its count is 0"},
      {[](Record& r) { r.words[9] = 0; }, "word 9 must be null exactly when its count is 0"},
      {[](Record& r) { r.words[10] = 0x01000000; }, "word 10 must be a count of entries"},
      {[](Record& r) { r.words[11] += 2; }, "word 11 must be aligned to 4 bytes"},
      {[](Record& r) { r.words[11] = 64; }, "word 11 must point to 6 entries of 4 words"},
      {[](Record& r) { r.words[13] = 1; }, "word 13 must be 0"},
      {[](Record& r) { r.words[16] = 1; }, "word 16 must be 0"},
      {[](Record& r) { r.words[28] = 1; }, "word 28 must be 0"},
      {[](Record& r) { r.properties[6] = 16; }, "property 0 word 6 must be a place in the data"},
      {[](Record& r) { r.properties[2] = 0; }, "property 0 word 2 must be a text"},
      {[](Record& r) { r.properties[10] = 1; }, "property 0 word 10 must be 0"},
      {[](Record& r) { r.methods[0] = 0; }, "method 0 word 0 must be a function"},
      {[](Record& r) { r.methods[6 + 1] = 4; }, "method 1 word 1 must be a function"},
      {[](Record& r) { r.methods[2] = word("a as"); }, "method 0 word 2 is no declaration"},
      {[](Record& r) { r.methods[4] = 4; }, "method 0 word 4 must be 0"},
      {[](Record& r) { r.events[1] = 7; }, "event 0 word 1 must be 0"},
      {[](Record& r) { r.constants[0] = word("One"); }, "constant 0 word 0 must point to"},
      {[](Record& r) { r.words[1] = word("Date"); }, "a class of this name is registered already"},
  };
  for (const Case& each : cases) {
    Record* record = makeThing(12);
    each.spoil(*record);
    expectRefused(*record, each.message);
  }
  EXPECT_DEATH(ask<void>("PluginRegisterClass", Handle()), "the record is null");
  EXPECT_DEATH(ask<void>("PluginRegisterClass", reinterpret_cast<Word*>(2)),
               "the record is not aligned");
  EXPECT_DEATH(ask<void>("PluginRegisterClass", reinterpret_cast<Word*>(64)),
               "the record cannot be read");
}

TEST(RegistrationDeathTest, TheNewLayoutInTheOldVersionAndTheOtherWayRound) {
  host::start("2013.03");
  announce(9);
  Record* record = makeThing(12);
  record->words[0] = 9;
  expectRefused(*record, "method 1 word 0 must be a function");
  announce(12);
  record = makeThing(9);
  record->words[0] = 12;
  record->words.resize(29);
  expectRefused(*record, "must |heap-buffer-overflow"); // a sanitizer is quicker
}

TEST(ObjectsDeathTest, WritingBesideTheDataIsSeen) {
  load();
  EXPECT_DEATH(
      {
        host::Object object = host::create("Thing");
        dataOf(object.handle())[-1] = 0;
      },
      "a plug-in wrote before the object's data");
  EXPECT_DEATH(
      {
        host::Object object = host::create("Thing");
        dataOf(object.handle())[4] = 0;
      },
      "a plug-in wrote behind the object's data");
}

void keepingDestructor(Handle object) { ask<void>("REALLockObject", object); }

TEST(ObjectsDeathTest, ADestructorThatKeepsAReference) {
  host::start("2013.03");
  announce(12);
  Record record(12, "Keeper");
  record.words[6] = word(keepingDestructor);
  record.enter();
  EXPECT_DEATH(host::create("Keeper"), "its destructors left 1 references to it behind");
}

TEST(Objects, NewInstancesAreLockedOnceAndConstructed) {
  load();
  Handle object = ask<Handle>("PluginNewInstance", "Thing");
  EXPECT_THAT(calls, ElementsAre("constructor 0"));
  EXPECT_EQ(*dataOf(object), 42u);
  ask<void>("REALUnlockObject", object);
  EXPECT_THAT(calls, ElementsAre("constructor 0", "Destructor", "destructor"));
}

TEST(Objects, ClassesCanBeHidden) {
  load();
  EXPECT_NE(ask<void*>("pluginObjectType", "Thing"), nullptr);
  host::hideClass("Thing");
  EXPECT_EQ(ask<Handle>("PluginNewInstance", "Thing"), nullptr);
  EXPECT_EQ(ask<void*>("pluginObjectType", "Thing"), nullptr);
  host::showClass("Thing");
  EXPECT_NE(ask<void*>("pluginObjectType", "Thing"), nullptr);
}

TEST(Objects, IsAGoesUpTheSuperclasses) {
  load();
  host::subclass("MyThing", "Thing");
  host::defineClass("Wrapper", {}, 4);
  host::Object object = host::create("MyThing");
  auto isA = [&](const char* name) {
    return ask<bool>("RuntimeObjectIsa", object.handle(), ask<void*>("pluginObjectType", name));
  };
  EXPECT_TRUE(isA("MyThing"));
  EXPECT_TRUE(isA("Thing"));
  EXPECT_FALSE(isA("Wrapper"));
  EXPECT_FALSE(isA("NoSuchClass"));
  EXPECT_FALSE(ask<bool>("RuntimeObjectIsa", Handle(), ask<void*>("pluginObjectType", "Thing")));
}

TEST(Objects, DefinedClassesHaveDataWherePluginClassesHaveIt) {
  load();
  host::defineClass("Wrapper", {}, 12);
  host::Object object = host::create("Wrapper");
  *static_cast<Word*>(host::data(object)) = 7;
  EXPECT_EQ(*dataOf(object.handle()), 7u);
}

// ---- Members

TEST(Members, AllTypesCross) {
  load();
  host::Object object = host::create("Thing");
  EXPECT_EQ(host::call(object, "sum", 1, int64_t(1) << 40, 2.5f, 3.5, true).as<int64_t>(),
            (int64_t(1) << 40) + 7);
  EXPECT_EQ(host::call(object, "half", 3.0f).as<float>(), 1.5f);
  EXPECT_EQ(host::call(object, "same", object).as<host::Object>(), object);
  EXPECT_TRUE(host::call(object, "same", nullptr).isNil());
  EXPECT_EQ(host::callShared("Thing", "twice(value as integer) as integer", 21).as<int>(), 42);
}

TEST(Members, WhatATestGetsWrongIsAnError) {
  load();
  host::Object object = host::create("Thing");
  EXPECT_THROW(host::call(object, "noSuchMember"), host::Error);
  EXPECT_THROW(host::call(object, "half"), host::Error);
  EXPECT_THROW(host::call(object, "half", "text"), host::Error);
  EXPECT_THROW(host::set(object, "raises", 1), host::Error);
  EXPECT_THROW(host::callShared("Thing", "half", 1), host::Error);
  EXPECT_THROW(host::create("NoSuchClass"), host::Error);
  EXPECT_THROW(host::call(host::Object(), "raises"), host::Error);
  EXPECT_THROW(host::get<bool>(object, "Handle"), host::Error);
  EXPECT_NO_THROW(host::call(object, "overloaded"));
  EXPECT_THROW(host::call(object, "Overloaded", 1), host::Error) << "two have this bare name";
  EXPECT_NO_THROW(host::call(object, "overloaded(a as integer)", 1));
}

Handle answersDate(Handle) { return ask<Handle>("PluginNewInstance", "Date"); }

TEST(MembersDeathTest, AnAnswerOfAnotherClassThanDeclared) {
  host::start("2013.03");
  announce(12);
  Record record(12, "Liar");
  record.method("dictionary as dictionary", answersDate);
  record.method("list as Liar()", answersDate);
  record.method("date as date", answersDate);
  record.enter();
  host::Object object = host::create("Liar");
  EXPECT_EQ(host::className(host::call(object, "date").as<host::Object>()), "Date");
  EXPECT_DEATH(host::call(object, "dictionary"), "answered Date#. where it declares dictionary");
  EXPECT_DEATH(host::call(object, "list"), "where it declares Liar()");
}

TEST(Throws, ComeOutOfMembersNatively) {
  load();
  makeThrown();
  host::Object object = host::create("Thing");
  host::CallResult result = host::callCatching(object, "throws");
  ASSERT_TRUE(result.thrown);
  EXPECT_EQ(result.thrown.object, thrownObject);
  EXPECT_EQ(result.thrown.text, "thrown");
  EXPECT_FALSE(host::callCatching(object, "half", 1.0f).thrown);
}

TEST(Throws, ComeOutOfAnOperationOnceAndInsteadOfItsWork) {
  load();
  makeThrown();
  host::Object object = host::create("Thing");
  lastText = buildString("abc");
  CFRetain(thrownObject);
  host::throwFromCall("REALLockString", thrownObject);
  EXPECT_EQ(host::callCatching(object, "text as string").thrown.object, thrownObject);
  EXPECT_TRUE(host::faultFired());
  host::CallResult result = host::callCatching(object, "text as string");
  EXPECT_FALSE(result.thrown);
  EXPECT_EQ(host::bytes(result.value.as<host::String>()), "abc");
  ask<void>("REALUnlockString", lastText);
  lastText = nullptr;
  host::failCall("REALLockString");
  EXPECT_FALSE(host::callCatching(object, "text as string").thrown) << "that call only fails";

  CFRetain(thrownObject);
  host::throwFromCall("REALLockString", thrownObject);
  host::clearFaults();
  host::failCall("REALLockString");
  EXPECT_FALSE(host::callCatching(object, "text as string").thrown) << "nothing is left of it";
}

TEST(Throws, OutOfDestructorsWaitForTheUnlock) {
  host::start("2013.03");
  announce(12);
  Record record(12, "Thrower");
  record.words[6] = word(thingThrow);
  record.enter();
  makeThrown();
  host::Object object = host::create("Thrower");
  EXPECT_TRUE(host::catching([&] { object.reset(); }));
  EXPECT_EQ(host::ledger(), host::Ledger{}) << "the object is gone all the same";
  EXPECT_TRUE(host::catching([] {
    host::Object array = host::array(9, {host::create("Thrower"), host::create("Thrower")});
  }));
  EXPECT_EQ(host::ledger(), host::Ledger{});
  EXPECT_FALSE(host::catching([] {}));
}

TEST(Throws, OutOfConstructorsLeaveNothingBehind) {
  host::start("2013.03");
  announce(12);
  Record record(12, "Thrower");
  record.words[5] = word(thingThrow);
  record.enter();
  makeThrown();
  EXPECT_TRUE(host::catching([&] { host::create("Thrower"); }));
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

// ---- Exceptions

TEST(Exceptions, StayPendingUntilTaken) {
  load();
  host::Object object = host::create("Thing");
  host::call(object, "raises");
  EXPECT_EQ(host::pendingExceptions(), 1u);
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->className, "NilObjectException");
  EXPECT_EQ(raised->message, "nothing there");
  EXPECT_EQ(raised->errorNumber, 7);
  EXPECT_EQ(raised->count, 1u);
  EXPECT_TRUE(host::isA(raised->object, "RuntimeException"));
  EXPECT_EQ(host::referenceCount(raised->object), 1);
  EXPECT_FALSE(host::takeException());
  raised.reset(), object.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Exceptions, TwoInOneCallAreSeen) {
  load();
  raise("RuntimeException", nullptr);
  raise("OutOfMemoryException", "");
  auto raised = host::takeException();
  EXPECT_EQ(raised->count, 2u);
  EXPECT_EQ(raised->className, "RuntimeException");
  EXPECT_EQ(raised->message, std::nullopt);
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST(ExceptionsDeathTest, RaisingNil) {
  host::start("2013.03");
  EXPECT_DEATH(ask<void>("RuntimeRaiseException", Handle()), "the exception is nil");
}

// ---- Events

TEST_P(EveryHost, RaisesEventsOfSubclasses) {
  load(GetParam().name, newestInterface(GetParam()));
  host::subclass("MyThing", "Thing",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event& event) {
                     EXPECT_EQ(host::className(event.target), "MyThing");
                     return event.text(0) < event.text(1) ? -5 : 5;
                   }}});
  host::Object object = host::create("MyThing");
  EXPECT_EQ(host::call(object, "compare").as<int>(), -5);
  ASSERT_EQ(host::events().size(), 1u);
  EXPECT_EQ(host::events()[0].className, "MyThing");
  EXPECT_THAT(host::events()[0].arguments, ElementsAre("\"1.0\"", "\"2.0\""));
  EXPECT_EQ(host::events()[0].answer, "-5");
  host::clearEvents();
  EXPECT_TRUE(host::events().empty());
  host::Object plain = host::create("Thing");
  EXPECT_EQ(host::call(plain, "compare").as<int>(), 0) << "no handler";
  object.reset(), plain.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Events, AnswersOfEveryType) {
  load();
  host::Object array = host::array(9);
  host::Object got;
  host::subclass("MyThing", "Thing",
                 {{"title as string", [](host::Event&) { return "title"; }},
                  {"may as boolean", [](host::Event&) { return true; }},
                  {"found(item as Thing)", [&](host::Event& event) { got = event[0]; }},
                  {"list", [&](host::Event&) { return array; }},
                  {"ratio", [](host::Event& event) { return event.value(0).as<double>() * 2; }}});
  host::Object object = host::create("MyThing");
  Handle title = raiseEvent<Handle>(1, object.handle());
  EXPECT_EQ(host::text(host::String::adopt(title)), "title");
  EXPECT_EQ(raiseEvent<uint32_t>(2, object.handle()) & 0xFF, 1u);
  EXPECT_NE(raiseEvent<uint32_t>(2, object.handle()) >> 8, 0u) << "noise above the byte";
  ask<int>("RuntimeUBound", array.handle());
  raiseEvent<Handle>(3, object.handle(), object.handle());
  EXPECT_EQ(got, object);
  got.reset();
  EXPECT_EQ(host::Object::adopt(raiseEvent<Handle>(4, object.handle())), array);
  EXPECT_EQ(host::referenceCount(array), 1);
  EXPECT_EQ(raiseEvent<double>(5, object.handle(), 1.25), 2.5);
  EXPECT_EQ(host::referenceCount(object), 1);
}

TEST(Events, AHandlerMayAnswerNil) {
  load();
  host::subclass("MyThing", "Thing", {{"title", [](host::Event&) { return nullptr; }}});
  host::Object object = host::create("MyThing");
  EXPECT_EQ(raiseEvent<Handle>(1, object.handle()), nullptr);
}

TEST(Events, HandlersCanBeReplaced) {
  load();
  host::subclass("MyThing", "Thing", {{"may", [](host::Event&) { return false; }}});
  host::handle("MyThing", "may", [](host::Event&) { return true; });
  host::Object object = host::create("MyThing");
  EXPECT_EQ(raiseEvent<uint32_t>(2, object.handle()) & 0xFF, 1u);
  EXPECT_THROW(host::handle("Thing", "may", [](host::Event&) { return true; }), host::Error);
  EXPECT_THROW(host::subclass("Other", "Thing", {{"noSuchEvent", [](host::Event&) {}}}),
               host::Error);
}

TEST(Events, RunOnTheThreadThatRaisedThem) {
  load();
  host::subclass("MyThing", "Thing", {{"may", [](host::Event&) { return true; }}});
  host::Object object = host::create("MyThing");
  raiseEvent<uint32_t>(2, object.handle());
  std::thread([&] { raiseEvent<uint32_t>(2, object.handle()); }).join();
  auto events = host::events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].thread.name(), "main");
  EXPECT_EQ(events[1].thread.name(), "worker 1");
}

void thingMay(Handle self) { raiseEvent<Word>(2, self); }

TEST(Events, WhatAHandlerThrowsPassesThroughThePlugin) {
  load();
  makeThrown();
  Record record(12, "Asker");
  record.method("ask", thingMay);
  record.enter();
  host::subclass("MyThing", "Thing", {{"may", [](host::Event& event) {
                                         host::call(event.target, "throws");
                                         return true;
                                       }}});
  host::Object object = host::create("MyThing");
  auto* address = reinterpret_cast<void*>(&thingMay);
  Word self = word(object.handle());
  host::Thrown thrown = host::catching([&] { crossing_enter(address, &self, 1); });
  EXPECT_EQ(thrown.object, thrownObject);
  EXPECT_EQ(host::referenceCount(object), 1);
}

TEST(EventsDeathTest, AWordThatTheHostNeverHandedOut) {
  load("2011.4", 9);
  host::Object object = host::create("Thing");
  EXPECT_DEATH(ask<void*>("GetEventInstance", object.handle(), 0u), "is no word that the host");
  EXPECT_DEATH(ask<void*>("GetEventInstance", object.handle(), word(thing->events.data() + 2)),
               "It is the address of the registered entry of Thing.title: pass the second word");
  host::Object date = host::date({});
  EXPECT_DEATH(ask<void*>("GetEventInstance", date.handle(), thing->eventWord(0)),
               "Date has no event compareVersion, Thing has");
  Word kept = thing->eventWord(0);
  thing->events[1] = 0;
  EXPECT_DEATH(ask<void*>("GetEventInstance", object.handle(), kept), "has lost the word");
}

TEST(EventsDeathTest, AWrongTargetAWrongAnswerAndACppException) {
  load();
  host::subclass("MyThing", "Thing",
                 {{"may", [](host::Event&) { return 5; }},
                  {"title", [](host::Event& event) { return event.text(3); }}});
  host::Object object = host::create("MyThing"), other = host::create("Thing");
  auto* handler = reinterpret_cast<Word (*)(Handle)>(
      ask<void*>("GetEventInstance", object.handle(), thing->eventWord(2)));
  EXPECT_DEATH(handler(other.handle()), "raised on Thing#1, but the handler asked for is that of");
  EXPECT_DEATH(handler(nullptr), "the target is nil");
  EXPECT_DEATH(handler(object.handle()), "answered 5: 5 is no boolean");
  EXPECT_DEATH(raiseEvent<Handle>(1, object.handle()), "threw: .*has no argument 3");
}

// ---- Strings

TEST_P(EveryHost, ShowsTextInTheRecordUpTo2013_0Only) {
  host::start(GetParam().name);
  host::String string = host::string(std::string_view("gr\0n", 4));
  auto* words = static_cast<Word*>(string.handle());
  std::string read(reinterpret_cast<const char*>(uintptr_t(words[1])) + 1, words[3]);
  EXPECT_EQ(read == host::bytes(string), GetParam().version <= 2013.0) << read;
  EXPECT_EQ(reinterpret_cast<const char*>(uintptr_t(words[1]))[1 + words[3]], 0);
}

TEST(Strings, EncodingsAreStoredAndConverted) {
  host::start("2013.03");
  EXPECT_EQ(host::encoding(host::String::adopt(ask<Handle>("REALBuildString", "a", 1))),
            host::unknownEncoding);
  host::String string = host::string("Grüße");
  EXPECT_EQ(ask<Word>("REALGetStringEncoding", string.handle()), host::utf8);
  struct Case {
    Word encoding;
    std::string bytes;
  };
  for (const Case& each : {Case{host::macRoman, "Gr\x9F\xA7"
                                                "e"},
                           Case{host::latin1, "Gr\xFC\xDF"
                                              "e"},
                           Case{host::utf16, {"G\0r\0\xFC\0\xDF\0e\0", 10}}}) {
    auto converted =
        host::String::adopt(ask<Handle>("REALConvertString", string.handle(), each.encoding));
    EXPECT_EQ(host::bytes(converted), each.bytes);
    EXPECT_EQ(host::encoding(converted), each.encoding);
    EXPECT_EQ(host::text(converted), "Grüße");
  }
  EXPECT_EQ(ask<Handle>("REALConvertString", string.handle(), host::ascii), nullptr);
  EXPECT_EQ(ask<Handle>("REALConvertString", string.handle(), 0x12345u), nullptr);
  EXPECT_EQ(ask<Handle>("REALConvertString", Handle(), host::utf8), nullptr);
  EXPECT_EQ(host::text(host::string("\xFF")), std::nullopt);
}

struct StringData {
  char* bytes;
  Word length, encoding;
};

TEST(Strings, DataIsLentAndGivenBack) {
  host::start("2013.03");
  host::String string = host::string("ü");
  StringData data{};
  ASSERT_TRUE(ask<bool>("PluginGetStringData", string.handle(), host::unknownEncoding, &data));
  EXPECT_EQ(std::string(data.bytes, data.length), "ü");
  EXPECT_EQ(data.bytes[data.length], 0);
  EXPECT_EQ(data.encoding, host::unknownEncoding);
  EXPECT_EQ(host::ledger(), (host::Ledger{{{"String", 1}, {"string data", 1}}}));
  ask<void>("PluginDisposeStringData", &data);
  ASSERT_TRUE(ask<bool>("PluginGetStringData", string.handle(), host::macRoman, &data));
  EXPECT_EQ(std::string(data.bytes, data.length), "\x9F");
  StringData again = data;
  ask<void>("PluginDisposeStringData", &data);
  EXPECT_FALSE(ask<bool>("PluginGetStringData", string.handle(), host::ascii, &data));
  EXPECT_FALSE(ask<bool>("PluginGetStringData", Handle(), host::utf8, &data));
  EXPECT_DEATH(ask<void>("PluginDisposeStringData", &again), "is no buffer that");
  string.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Strings, DataWithoutADisposerBelongsToThePlugin) {
  host::start("2013.03");
  host::makeAbsent("PluginDisposeStringData");
  host::String string = host::string("abc");
  StringData data{};
  ASSERT_TRUE(ask<bool>("PluginGetStringData", string.handle(), host::unknownEncoding, &data));
  free(data.bytes);
  string.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Strings, OldHostsGiveBytesAndLength) {
  host::start("2011.4");
  host::String string = host::string("abc"), empty = host::string("");
  EXPECT_STREQ(ask<const char*>("StringGetCString", string.handle()), "abc");
  auto* lenB = reinterpret_cast<int (*)(Handle)>(
      ask<void*>("REALLoadGlobalMethod", "LenB( s as string ) as integer", Handle()));
  EXPECT_EQ(lenB(string.handle()), 3);
  EXPECT_EQ(lenB(empty.handle()), 0);
  EXPECT_EQ(lenB(nullptr), 0);
}

TEST(Strings, CocoaStringsTakeEvenLoneSurrogates) {
  host::start("2013.03");
  EXPECT_EQ(ask<Handle>("REALGetStringCFString", host::string("\xFF").handle(), 0), nullptr);
  EXPECT_EQ(ask<Handle>("REALGetStringCFString", Handle(), 0), nullptr);
  char16_t lone[] = {u'a', 0xD800, 0};
  Handle made = ask<Handle>("REALGetStringCFString", host::string(lone).handle(), 0);
  ASSERT_NE(made, nullptr);
  CFRelease(made);
}

// ---- Variants

TEST(Variants, MakersAreSeen) {
  host::start("2013.03");
  auto check = [](Handle handle, int code, const char* maker, const char* described) {
    host::Object variant = host::Object::adopt(handle);
    EXPECT_EQ(host::inspect(variant).code, code);
    EXPECT_EQ(host::inspect(variant).maker, maker);
    EXPECT_EQ(host::describe(variant), described);
    EXPECT_EQ(host::referenceCount(variant), 1);
  };
  check(ask<Handle>("Int32ToVariant", -5), 2, "Int32ToVariant", "Int32 -5");
  check(ask<Handle>("UInt32ToVariant", 0xFFFFFFFFu), 3, "UInt32ToVariant", "UInt32 4294967295");
  check(ask<Handle>("Int64ToVariant", int64_t(-1) << 40), 3, "Int64ToVariant",
        "Int64 -1099511627776");
  check(ask<Handle>("UInt64ToVariant", UINT64_MAX), 3, "UInt64ToVariant",
        "UInt64 18446744073709551615");
  check(ask<Handle>("SingleToVariant", 1.5f), 4, "SingleToVariant", "Single 1.5");
  check(ask<Handle>("DoubleToVariant", 0.1), 5, "DoubleToVariant", "Double 0.1");
  check(ask<Handle>("BooleanToVariant", uint8_t(2)), 11, "BooleanToVariant", "Boolean true");
  host::String text = host::string("t");
  check(ask<Handle>("StringToVariant", text.handle()), 8, "StringToVariant", "\"t\"");
  check(ask<Handle>("StringToVariant", Handle()), 8, "StringToVariant", "nil");
}

TEST(Variants, AnyObjectIsOneAndAnyCodeCanBeClaimed) {
  host::start("2013.03");
  auto type = [](const host::Object& variant) {
    auto* varType = reinterpret_cast<int (*)(Handle)>(
        ask<void*>("REALLoadGlobalMethod", "VarType(value As Variant) As Int32", Handle()));
    int property = -1;
    if (variant) {
      EXPECT_TRUE(ask<bool>("REALGetPropValueInt", variant.handle(), "Type", &property));
      EXPECT_EQ(property, varType(variant.handle()));
    }
    return varType(variant.handle());
  };
  EXPECT_EQ(type({}), 0);
  EXPECT_EQ(type(host::date({})), 7);
  EXPECT_EQ(type(host::dictionary()), 9);
  EXPECT_EQ(type(host::array(9)), 4105);
  EXPECT_EQ(type(host::array(2)), 4098);
  EXPECT_EQ(type(host::variant(true)), 11);
  EXPECT_EQ(type(host::variantOfCode(77, 1)), 77);
}

TEST(Variants, AreReadByOperationsAndProperties) {
  host::start("2013.03");
  host::Object number = host::variant(3.75), text = host::variant("12.5");
  EXPECT_EQ(ask<int>("VariantToInt32", number.handle()), 3);
  EXPECT_EQ(ask<int64_t>("VariantToInt64", number.handle()), 3);
  EXPECT_EQ(ask<float>("VariantToSingle", number.handle()), 3.75f);
  EXPECT_EQ(ask<double>("VariantToDouble", text.handle()), 12.5);
  EXPECT_EQ(ask<int>("VariantToInt32", host::variantOfCode(11, 2).handle()), 2);
  EXPECT_EQ(host::text(host::String::adopt(ask<Handle>("VariantToString", number.handle()))),
            "3.75");
  EXPECT_EQ(ask<Handle>("VariantToString", Handle()), nullptr);
  EXPECT_EQ(ask<Handle>("VariantToString", host::variant(host::String()).handle()), nullptr);

  int64_t wide = 0;
  float single = 0;
  double real = 0;
  Handle string = nullptr, object = nullptr;
  EXPECT_TRUE(ask<bool>("REALGetPropValueInt64", number.handle(), "LongValue", &wide));
  EXPECT_TRUE(ask<bool>("REALGetPropValueSingle", number.handle(), "SingleValue", &single));
  EXPECT_TRUE(ask<bool>("REALGetPropValueDouble", number.handle(), "DoubleValue", &real));
  EXPECT_TRUE(ask<bool>("REALGetPropValueString", text.handle(), "StringValue", &string));
  EXPECT_EQ(wide, 3);
  EXPECT_EQ(single, 3.75f);
  EXPECT_EQ(real, 3.75);
  EXPECT_EQ(host::text(host::String::adopt(string)), "12.5");
  EXPECT_FALSE(ask<bool>("REALGetPropValueInt", number.handle(), "NoSuchProperty", &wide));
  EXPECT_FALSE(ask<bool>("REALGetPropValueInt", number.handle(), "LongValue", &wide));

  host::Object date = host::date({}), boxed = host::variantOfCode(7, date);
  for (const host::Object& each : {date, boxed}) {
    ASSERT_TRUE(ask<bool>("REALGetPropValueObject", each.handle(), "DateValue", &object));
    EXPECT_EQ(host::Object::adopt(object), date);
  }
  EXPECT_FALSE(ask<bool>("REALGetPropValueObject", number.handle(), "DateValue", &object));
}

// ---- Arrays

TEST(Arrays, OfObjectsAreFilledAndRead) {
  host::start("2013.03");
  auto array = host::Object::adopt(ask<Handle>("RuntimeArrayCreateSingleDimBoundedArray", 4, -1));
  ASSERT_TRUE(array);
  EXPECT_EQ(ask<int>("RuntimeUBound", array.handle()), -1);
  auto* insert = reinterpret_cast<void (*)(Handle, int, Handle)>(
      ask<void*>("RuntimeArrayDirectGetInsertProc", array.handle()));
  auto* get = reinterpret_cast<Handle (*)(Handle, int)>(
      ask<void*>("RuntimeArrayDirectGetGetProc", array.handle()));
  host::Object date = host::date({});
  insert(array.handle(), 0, date.handle());
  insert(array.handle(), 1, nullptr);
  EXPECT_EQ(host::referenceCount(date), 2);
  EXPECT_EQ(host::upperBound(array), 1);
  EXPECT_EQ(host::Object::adopt(get(array.handle(), 0)), date);
  EXPECT_EQ(get(array.handle(), 1), nullptr);
  EXPECT_EQ(host::outOfBounds(), 0u);
  EXPECT_EQ(get(array.handle(), 2), nullptr);
  insert(array.handle(), 9, date.handle());
  EXPECT_EQ(host::outOfBounds(), 2u);
  array.reset();
  EXPECT_EQ(host::referenceCount(date), 1);
  for (int bad : {3, 9})
    EXPECT_EQ(ask<Handle>("RuntimeArrayCreateSingleDimBoundedArray", bad, -1), nullptr);
  EXPECT_EQ(ask<Handle>("RuntimeArrayCreateSingleDimBoundedArray", 4, -2), nullptr);
}

template <typename T> T getElement(const host::Object& array, int index) {
  return reinterpret_cast<T (*)(Handle, int)>(
      ask<void*>("RuntimeArrayDirectGetGetProc", array.handle()))(array.handle(), index);
}

TEST(Arrays, AreReadByTheTypeOfTheirElements) {
  host::start("2013.03");
  EXPECT_EQ(getElement<int>(host::array(2, {1, -2}), 1), -2);
  EXPECT_EQ(getElement<int64_t>(host::array(3, {int64_t(1) << 40}), 0), int64_t(1) << 40);
  EXPECT_EQ(getElement<float>(host::array(4, {1.5f}), 0), 1.5f);
  EXPECT_EQ(getElement<double>(host::array(5, {0.1}), 0), 0.1);
  EXPECT_EQ(getElement<Word>(host::array(11, {true}), 0) & 0xFF, 1u);
  host::Object texts = host::array(8, {"a", nullptr});
  EXPECT_EQ(host::text(host::String::adopt(getElement<Handle>(texts, 0))), "a");
  EXPECT_EQ(getElement<Handle>(texts, 1), nullptr);
  host::Object dates = host::array(7, {host::date({}), 5});
  EXPECT_EQ(host::className(host::Object::adopt(getElement<Handle>(dates, 0))), "Date");
  EXPECT_EQ(getElement<Handle>(dates, 1), nullptr) << "an element that is no object";
  EXPECT_EQ(host::describe(host::array(9, {1, "b", nullptr})), "[Int32 1, \"b\", nil]");
}

TEST(Arrays, CanLieAboutTheirBound) {
  host::start("2013.03");
  host::Object array = host::array(9);
  host::setReportedBound(array, 3);
  EXPECT_EQ(ask<int>("RuntimeUBound", array.handle()), 3);
  EXPECT_EQ(host::upperBound(array), -1);
  host::makeAbsent("array.get Object");
  EXPECT_EQ(ask<void*>("RuntimeArrayDirectGetGetProc", array.handle()), nullptr);
}

// ---- Dictionaries

template <typename F> F* method(const host::Object& object, const char* declaration) {
  return reinterpret_cast<F*>(ask<void*>("REALLoadObjectMethod", object.handle(), declaration));
}
constexpr const char* setter = "Value(key As Variant, Assigns _value As Variant)";
constexpr const char* getter = "Value(key As Variant) As Variant";
constexpr const char* keyGetter = "Key(index As Integer) As Variant";

TEST(Dictionaries, AreFilledAndReadByTheirMethods) {
  host::start("2013.03");
  auto dictionary = host::Object::adopt(ask<Handle>("PluginNewInstance", "Dictionary"));
  auto* set = method<void(Handle, Handle, Handle)>(dictionary, setter);
  auto* get = method<Handle(Handle, Handle)>(dictionary, getter);
  auto* key = method<Handle(Handle, int)>(dictionary, keyGetter);
  host::Object one = host::variant("one"), value = host::variant(1);
  set(dictionary.handle(), one.handle(), value.handle());
  set(dictionary.handle(), nullptr, nullptr);
  int count = 0;
  EXPECT_TRUE(ask<bool>("REALGetPropValueInt", dictionary.handle(), "Count", &count));
  EXPECT_EQ(count, 2);
  EXPECT_EQ(host::Object::adopt(key(dictionary.handle(), 0)), one);
  EXPECT_EQ(key(dictionary.handle(), 1), nullptr);
  EXPECT_EQ(key(dictionary.handle(), 2), nullptr);
  EXPECT_EQ(host::Object::adopt(get(dictionary.handle(), host::variant("one").handle())), value)
      << "keys are compared by value";
  EXPECT_EQ(get(dictionary.handle(), value.handle()), nullptr);
  EXPECT_EQ(host::describe(dictionary), "{\"one\": Int32 1, nil: nil}");
  set(dictionary.handle(), one.handle(), nullptr);
  EXPECT_EQ(host::referenceCount(value), 1);
  one.reset(), value.reset(), dictionary.reset();
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST(Dictionaries, NumbersAreTheSameKeyWhateverTheirWidth) {
  host::start("2013.03");
  host::Object dictionary = host::dictionary({{5, "five"}, {"5", "text"}, {true, "yes"}});
  EXPECT_EQ(host::describe(host::at(dictionary, int64_t(5))), "\"five\"");
  EXPECT_EQ(host::describe(host::at(dictionary, 5.0)), "\"five\"");
  EXPECT_EQ(host::describe(host::at(dictionary, true)), "\"yes\"");
  EXPECT_FALSE(host::at(dictionary, 1));
  EXPECT_EQ(host::entries(dictionary).size(), 3u);
}

TEST(Dictionaries, CanLackMethodsLieAndChangeWhileRead) {
  host::start("2013.03");
  host::Object dictionary = host::dictionary({{"a", 1}});
  EXPECT_EQ(
      ask<void*>("REALLoadObjectMethod", dictionary.handle(), "Value(key as Variant) as Variant"),
      nullptr)
      << "declarations are compared as written";
  EXPECT_EQ(host::lookups(std::string("Dictionary.") + getter), 0u);
  auto* key = method<Handle(Handle, int)>(dictionary, keyGetter);
  host::onRead(dictionary, [&] { host::clear(dictionary); });
  EXPECT_EQ(key(dictionary.handle(), 0), nullptr);
  host::onRead(dictionary, nullptr);
  host::setReportedCount(dictionary, -7);
  EXPECT_EQ(host::get<int>(dictionary, "Count"), -7);
  host::lackMethod(dictionary, getter);
  EXPECT_EQ(ask<void*>("REALLoadObjectMethod", dictionary.handle(), getter), nullptr);
  EXPECT_NE(method<void()>(dictionary, setter), nullptr);
  host::Object other = host::dictionary();
  EXPECT_NE(method<void()>(other, getter), nullptr);
  host::makeAbsent(std::string("Dictionary.") + setter);
  EXPECT_EQ(method<void()>(other, setter), nullptr);
}

TEST(Dictionaries, NestedOnesDescribeThemselves) {
  host::start("2013.03");
  host::Object inner = host::dictionary({{"when", host::date({2021, 3, 7, 9, 5, 30})}});
  host::Object outer = host::dictionary(
      {{"in", inner}, {"list", host::array(9, {true})}, {"data", host::memoryBlock("\x01z")}});
  EXPECT_EQ(host::describe(outer), "{\"in\": {\"when\": Date 2021-03-07 09:05:30}, "
                                   "\"list\": [Boolean true], \"data\": MemoryBlock \"\\x01z\"}");
}

// ---- Dates, memory blocks

TEST(Dates, TakeAnyFieldAndCanRefuse) {
  host::start("2013.03");
  host::Object date = host::create("Date");
  const char* names[] = {"Year", "Month", "Day", "Hour", "Minute", "Second"};
  int value = 60;
  for (const char* name : names) ask<void>("REALSetPropValueInt", date.handle(), name, value++);
  EXPECT_EQ(host::dateFields(date), (host::DateFields{60, 61, 62, 63, 64, 65}));
  host::failProperty("Date", "Month");
  EXPECT_FALSE(ask<bool>("REALGetPropValueInt", date.handle(), "Month", &value));
  EXPECT_TRUE(ask<bool>("REALGetPropValueInt", date.handle(), "Day", &value));
  EXPECT_EQ(value, 62);
  host::failProperty("Date", "Month", false);
  EXPECT_EQ(host::get<int>(date, "Month"), 61);
  EXPECT_EQ(testing::PrintToString(host::DateFields{2021, 3, 7, 9, 5, 30}), "2021-03-07 09:05:30");
}

TEST(MemoryBlocks, HoldBytesAndCanLie) {
  host::start("2013.03");
  auto block = host::Object::adopt(ask<Handle>("newMemoryBlock", 3));
  memcpy(ask<void*>("memoryBlockGetPtr", block.handle()), "abc", 3);
  EXPECT_EQ(host::memoryBlockBytes(block), "abc");
  EXPECT_EQ(ask<int>("memoryBlockGetSize", block.handle()), 3);
  host::setReportedSize(block, -1);
  EXPECT_EQ(ask<int>("memoryBlockGetSize", block.handle()), -1);
  host::limitMemoryBlocks(100);
  EXPECT_EQ(ask<Handle>("newMemoryBlock", 101), nullptr);
  EXPECT_EQ(ask<Handle>("newMemoryBlock", -1), nullptr);
  host::limitMemoryBlocks({});
  EXPECT_TRUE(host::Object::adopt(ask<Handle>("newMemoryBlock", 101)));
  EXPECT_NE(ask<void*>("memoryBlockGetPtr", host::memoryBlock("").handle()), nullptr);
  EXPECT_TRUE(
      ask<bool>("RuntimeObjectIsa", block.handle(), ask<void*>("pluginObjectType", "MemoryBlock")));
}

// ---- FolderItems

class FolderItems : public testing::Test {
protected:
  void SetUp() override {
    host::start("2013.03");
    char name[] = "/tmp/host_test_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder = std::filesystem::canonical(name);
    std::ofstream(folder + "/b.txt") << "b";
    std::ofstream(folder + "/a.txt") << "a";
  }
  void TearDown() override { std::filesystem::remove_all(folder); }
  std::string folder;
};

TEST_F(FolderItems, GiveReferencesToWhatExists) {
  host::Object item = host::folderItem(folder + "/a.txt");
  FSRef ref;
  ASSERT_TRUE(ask<bool>("REALFSRefFromFolderItem", item.handle(), &ref, Handle()));
  EXPECT_EQ(files_path_from_ref(ref), folder + "/a.txt");
  host::Object missing = host::folderItem(folder + "/none");
  EXPECT_FALSE(ask<bool>("REALFSRefFromFolderItem", missing.handle(), &ref, Handle()));
  EXPECT_FALSE(ask<bool>("REALFSRefFromFolderItem", Handle(), &ref, Handle()));
}

TEST_F(FolderItems, GiveFolderAndNameForWhatDoesNot) {
  host::Object missing = host::folderItem(folder + "/nöne");
  FSRef ref;
  HFSUniStr255 name;
  ASSERT_TRUE(ask<bool>("REALFSRefFromFolderItem", missing.handle(), &ref, &name));
  EXPECT_EQ(files_path_from_ref(ref), folder);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(name.unicode), name.length), u"nöne");
  host::setLeafName(missing, u"");
  ASSERT_TRUE(ask<bool>("REALFSRefFromFolderItem", missing.handle(), &ref, &name));
  EXPECT_EQ(name.length, 0);
  host::Object lost = host::folderItem(folder + "/none/none");
  EXPECT_FALSE(ask<bool>("REALFSRefFromFolderItem", lost.handle(), &ref, &name));
}

TEST_F(FolderItems, AreMadeFromParentAndName) {
  FSRef parent;
  ASSERT_TRUE(files_ref_from_path(folder, parent));
  HFSUniStr255 name{1, {'x'}};
  auto item = host::Object::adopt(ask<Handle>("REALFolderItemFromParentFSRef", &parent, &name));
  EXPECT_EQ(host::path(item), folder + "/x");
  FSRef zero{};
  EXPECT_EQ(ask<Handle>("REALFolderItemFromParentFSRef", &zero, &name), nullptr);
}

TEST_F(FolderItems, GoToAndFromSpecifications) {
  host::Object item = host::folderItem(folder + "/a.txt");
  FSSpec spec;
  ASSERT_TRUE(ask<bool>("REALFSSpecFromFolderItem", &spec, item.handle()));
  auto back = host::Object::adopt(ask<Handle>("FolderItemFromFSSpec", &spec));
  EXPECT_EQ(host::path(back), folder + "/a.txt");
  EXPECT_EQ(ask<Handle>("FolderItemFromFSSpec", Handle()), nullptr);
}

TEST_F(FolderItems, AreRecognisedByTheirMethod) {
  constexpr const char* declaration = "TrueItem(Index as integer) as Folderitem";
  host::Object item = host::folderItem(folder + "/");
  auto* child = method<Handle(Handle, int)>(item, declaration);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(host::path(host::Object::adopt(child(item.handle(), 1))), folder + "/a.txt");
  EXPECT_EQ(host::path(host::Object::adopt(child(item.handle(), 2))), folder + "/b.txt");
  EXPECT_EQ(child(item.handle(), 3), nullptr);
  EXPECT_EQ(child(item.handle(), 0), nullptr);
  EXPECT_EQ(method<void()>(host::date({}), declaration), nullptr);
  EXPECT_THROW(host::folderItem("relative"), host::Error);
}

// ---- Values, run loop, trace, plug-ins

TEST(Values, ConvertWithoutLoss) {
  host::start("2013.03");
  EXPECT_EQ(host::Value(5).as<double>(), 5.0);
  EXPECT_EQ(host::Value(5.0).as<int>(), 5);
  EXPECT_EQ(host::Value(0xFFFFFFFFu).as<int>(), -1);
  EXPECT_THROW(host::Value(5.5).as<int>(), host::Error);
  EXPECT_THROW(host::Value(int64_t(1) << 40).as<int>(), host::Error);
  EXPECT_THROW(host::Value(1e300).as<int64_t>(), host::Error);
  EXPECT_THROW(host::Value("5").as<int>(), host::Error);
  EXPECT_THROW(host::Value(1).as<bool>(), host::Error);
  EXPECT_THROW(host::Value(1).as<std::string>(), host::Error);
  EXPECT_EQ(host::Value(nullptr).as<std::string>(), "");
  EXPECT_EQ(testing::PrintToString(host::Value("a\"b")), "\"a\\\"b\"");
  EXPECT_EQ(host::print(host::Value(host::date({}))), "Date#1");
}

TEST(RunLoop, TurnsUntilDoneOrLate) {
  host::start("2013.03");
  int turns = 0;
  EXPECT_TRUE(host::runUntil([&] { return ++turns == 3; }, 5));
  EXPECT_FALSE(host::runUntil([] { return false; }, 0.02));
  bool refused = false;
  std::thread([&] {
    host::Pool pool;
    EXPECT_FALSE(host::onMainThread());
    try {
      host::runUntil([] { return true; }, 0);
    } catch (const host::Error&) {
      refused = true;
    }
  }).join();
  EXPECT_TRUE(refused);
  EXPECT_TRUE(host::onMainThread());
}

TEST(Trace, TellsEveryStepInOrder) {
  host::start("2013.03");
  std::vector<std::string> steps;
  const char* kinds[] = {"loaded", "class", "call", "return", "event", "answer", "raise", "op"};
  host::trace([&](const host::Step& step) {
    std::string line = kinds[step.kind];
    line += " " + step.className + " " + step.member;
    for (const std::string& value : step.values) line += " " + value;
    steps.push_back(line + " " + step.thread.name());
  });
  announce(12);
  thing = makeThing(12);
  thing->enter();
  host::subclass("MyThing", "Thing", {{"compareVersion", [](host::Event&) { return 1; }}});
  host::Object object = host::create("MyThing");
  host::call(object, "compare");
  host::call(object, "raises");
  host::traceOperations(true);
  ask<void>("REALUnlockString", Handle());
  host::trace({});
  ask<void>("REALUnlockString", Handle());
  EXPECT_THAT(
      steps, ElementsAre("class Thing  main", "call MyThing compare as integer main",
                         "event MyThing compareVersion(VersionA as string, VersionB as string) as "
                         "integer \"1.0\" \"2.0\" main",
                         "answer MyThing compareVersion(VersionA as string, VersionB as string) as "
                         "integer 1 main",
                         "return MyThing compare as integer 1 main", "call MyThing raises main",
                         "raise NilObjectException  \"nothing there\" 7 main",
                         "return MyThing raises main", "op  REALUnlockString nil main"));
  host::takeExceptions();
}

double seenVersion;
void entry(void* (*resolver)(const char*)) {
  auto* version = reinterpret_cast<double (*)()>(resolver("REALGetRBVersion"));
  seenVersion = version ? version() : -1;
}

TEST(Plugins, AreEnteredWithTheResolver) {
  host::start("2012.99");
  host::startPlugin(reinterpret_cast<void*>(&entry), "test");
  EXPECT_EQ(seenVersion, 2012.99);
  EXPECT_EQ(host::lookups("REALGetRBVersion"), 1u);
  EXPECT_THROW(host::loadPlugin("/no/such/file"), host::Error);
}

} // namespace
