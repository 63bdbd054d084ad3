// One release of a feed, as host programs see it.
#include "fakes.h"
#include "session.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const char constructedTwice[] = "Constructor called too often. Object is already initialized.";
const char propertiesDictionary[] = "propertiesDictionary as dictionary";

struct Member {
  const char* declaration;
  const char* selector;
};
const Member texts[] = {
    {"title as string", "title"},
    {"versionString as string", "versionString"},
    {"displayVersionString as string", "displayVersionString"},
    {"itemDescription as string", "itemDescription"},
    {"DSASignature as string", "DSASignature"},
    {"minimumSystemVersion as string", "minimumSystemVersion"},
};
const Member urls[] = {
    {"releaseNotesURL as string", "releaseNotesURL"},
    {"fileURL as string", "fileURL"},
};
const Member others[] = {
    {"date as date", "date"},
    {propertiesDictionary, "propertiesDictionary"},
};

std::vector<Member> allMembers() {
  std::vector<Member> all(std::begin(texts), std::end(texts));
  all.insert(all.end(), std::begin(urls), std::end(urls));
  all.insert(all.end(), std::begin(others), std::end(others));
  return all;
}

class Item : public session::Test {
protected:
  void start() {
    session::Test::start();
    fake = [[FakeItem new] autorelease];
    item = fakes::wrapping("SUAppcastItemKVZ", fake);
    fakes::received();
  }
  void TearDown() override {
    item.reset();
    session::Test::TearDown();
  }
  static void loadFakes() {
    EXPECT_TRUE(fakes::load({{"SUUpdater", [FakeUpdater class]},
                             {"SUAppcast", [FakeAppcast class]},
                             {"SUAppcastItem", [FakeItem class]}}));
  }
  static host::Object handedOver(id object) {
    return fakes::handedOver("didFindValidUpdate(update as SUAppcastItemKVZ)",
                             "updater_didFindValidUpdate_on_mail_thread:", object);
  }

  FakeItem* fake = nil;
  host::Object item;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Item, session::everyInterface(), session::hostName);

// ---- The definition

TEST_P(Item, DeclaresItsMembersInTheirOrder) {
  start();
  const host::Registered* type = host::registered("SUAppcastItemKVZ");
  ASSERT_TRUE(type);
  using R = host::Registered;
  EXPECT_THAT(type->declarations(R::properties), ElementsAre("Handle"));
  EXPECT_THAT(type->declarations(R::methods),
              ElementsAre("title as string", "versionString as string",
                          "displayVersionString as string", "date as date",
                          "itemDescription as string", "releaseNotesURL as string",
                          "fileURL as string", "DSASignature as string",
                          "minimumSystemVersion as string", "Constructor", propertiesDictionary));
  EXPECT_THAT(type->declarations(R::events), IsEmpty());
  EXPECT_THAT(type->declarations(R::constants), IsEmpty());
  EXPECT_THAT(type->declarations(R::sharedMethods), IsEmpty());
  auto methods = type->table(R::methods);
  for (uint32_t i = 0; i < methods.count; ++i) EXPECT_EQ(methods[i][1], 0u) << "no setter";
}

// ---- Text, which every host builds in its own way

class ItemText : public Item {};
INSTANTIATE_TEST_SUITE_P(Hosts, ItemText, session::everyHost(), session::hostName);

TEST_P(ItemText, IsReadWithOneMessageEach) {
  start();
  for (const Member& member : texts) {
    SCOPED_TRACE(member.declaration);
    fakes::answer(member.selector) =
        [NSString stringWithFormat:@"Ünïcode \U0001F680 of %s", member.selector];
    auto text = host::get<host::String>(item, member.declaration);
    EXPECT_EQ(host::text(text), std::string("Ünïcode \U0001F680 of ") + member.selector);
    EXPECT_EQ(host::encoding(text), host::utf8);
    EXPECT_EQ(host::referenceCount(text), 1);
    EXPECT_THAT(fakes::received(), ElementsAre(member.selector));
  }
}

TEST_P(ItemText, IsNilForNilAndForEmptyText) {
  start();
  for (const Member& member : texts) {
    SCOPED_TRACE(member.declaration);
    EXPECT_FALSE(host::get<host::String>(item, member.declaration));
    fakes::answer(member.selector) = @"";
    EXPECT_FALSE(host::get<host::String>(item, member.declaration));
    EXPECT_THAT(fakes::received(), ElementsAre(member.selector, member.selector));
  }
}

TEST_P(ItemText, OfAHostileFeedArrivesAsAValueOrNotAtAll) {
  start();
  NSString* huge = [@"" stringByPaddingToLength:100000 withString:@"ü" startingAtIndex:0];
  const unichar lone[] = {'a', 0xD800, 'b'};
  const unichar withNul[] = {'a', 0, 'b'}, onlyNul[] = {0};
  fakes::answer("title") = huge;
  EXPECT_EQ(host::get<std::string>(item, "title as string").size(), 200000u);
  fakes::answer("title") = [NSString stringWithCharacters:withNul length:3];
  EXPECT_EQ(host::get<std::string>(item, "title as string"), "a");
  fakes::answer("title") = [NSString stringWithCharacters:onlyNul length:1];
  EXPECT_FALSE(host::get<host::String>(item, "title as string"));
  fakes::answer("title") = @"\x01\x02\t\n\r\x7F";
  EXPECT_EQ(host::get<std::string>(item, "title as string"), "\x01\x02\t\n\r\x7F");
  fakes::answer("title") = [NSString stringWithCharacters:lone length:3];
  host::get<host::String>(item, "title as string");
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(ItemText, OfURLsIsTheAbsoluteForm) {
  start();
  NSURL* base = [NSURL URLWithString:@"http://example.org/updates/feed.xml"];
  for (const Member& member : urls) {
    SCOPED_TRACE(member.declaration);
    fakes::answer(member.selector) = [NSURL URLWithString:@"notes/2.0.html?a=b#c"
                                            relativeToURL:base];
    auto text = host::get<host::String>(item, member.declaration);
    EXPECT_EQ(host::text(text), "http://example.org/updates/notes/2.0.html?a=b#c");
    EXPECT_EQ(host::referenceCount(text), 1);
    fakes::answer(member.selector) = [NSURL URLWithString:@"file:///tmp/a%20b"];
    EXPECT_EQ(host::get<std::string>(item, member.declaration), "file:///tmp/a%20b");
    EXPECT_THAT(fakes::received(), ElementsAre(member.selector, member.selector));
  }
}

TEST_P(Item, AURLWithoutTextIsNil) {
  start();
  for (const Member& member : urls) {
    EXPECT_FALSE(host::get<host::String>(item, member.declaration));
    EXPECT_THAT(fakes::received(), ElementsAre(member.selector));
    fakes::answer(member.selector) = [[FakeLink new] autorelease];
    EXPECT_FALSE(host::get<host::String>(item, member.declaration));
    EXPECT_THAT(fakes::received(), ElementsAre(member.selector, "absoluteString"));
  }
}

// ---- Other values

TEST_P(Item, TheDateIsANewHostDateOrNil) {
  start();
  EXPECT_TRUE(host::getValue(item, "date as date").isNil());
  fakes::answer("date") = [NSCalendarDate dateWithYear:2013
                                                 month:12
                                                   day:31
                                                  hour:23
                                                minute:59
                                                second:58
                                              timeZone:[NSTimeZone defaultTimeZone]];
  auto first = host::get<host::Object>(item, "date as date");
  auto second = host::get<host::Object>(item, "date as date");
  EXPECT_EQ(host::dateFields(first), (host::DateFields{2013, 12, 31, 23, 59, 58}));
  EXPECT_EQ(host::referenceCount(first), 1);
  EXPECT_FALSE(first == second) << "nothing is cached";
}

TEST_P(Item, ThePropertiesAreANewHostDictionaryOrNil) {
  start();
  EXPECT_TRUE(host::getValue(item, propertiesDictionary).isNil());
  fakes::answer("propertiesDictionary") = @{
    @"title" : @"New",
    @"enclosure" : @{@"length" : @1234, @"type" : @"application/zip"},
    @"tags" : @[ @"sparkle:criticalUpdate", @5 ],
  };
  auto first = host::get<host::Object>(item, propertiesDictionary);
  EXPECT_EQ(host::className(first), "Dictionary");
  EXPECT_EQ(host::referenceCount(first), 1);
  EXPECT_EQ(host::describe(host::at(first, "title")), "\"New\"");
  EXPECT_EQ(host::describe(host::at(first, "tags")), "[\"sparkle:criticalUpdate\", Int32 5]");
  auto enclosure = host::at(first, "enclosure");
  EXPECT_EQ(host::describe(host::at(enclosure, "length")), "Int32 1234");
  EXPECT_EQ(host::describe(host::at(enclosure, "type")), "\"application/zip\"");
  EXPECT_FALSE(first == host::get<host::Object>(item, propertiesDictionary));
  EXPECT_THAT(fakes::received(),
              ElementsAre("propertiesDictionary", "propertiesDictionary", "propertiesDictionary"));
}

TEST_P(Item, PropertiesAreAnEmptyDictionaryForAnEmptyDictionary) {
  start();
  fakes::answer("propertiesDictionary") = @{};
  auto dictionary = host::get<host::Object>(item, propertiesDictionary);
  ASSERT_TRUE(dictionary);
  EXPECT_THAT(host::entries(dictionary), IsEmpty());
}

TEST_P(Item, DatesAndDictionariesAreNilOnAHostThatMakesNone) {
  start();
  fakes::answer("date") = [NSDate date];
  fakes::answer("propertiesDictionary") = @{@"a" : @1};
  host::makeAbsent("PluginNewInstance");
  EXPECT_TRUE(host::getValue(item, "date as date").isNil());
  EXPECT_TRUE(host::getValue(item, propertiesDictionary).isNil());
}

TEST_P(Item, EveryCallAsksTheFrameworkAgain) {
  start();
  for (NSString* title in @[ @"one", @"two" ]) {
    fakes::answer("title") = title;
    EXPECT_EQ(host::get<std::string>(item, "title as string"), [title UTF8String]);
  }
}

// ---- Empty instances

TEST_P(Item, AnEmptyInstanceAnswersNilForEveryMemberAndSendsNothing) {
  start();
  host::Object empty = host::create("SUAppcastItemKVZ");
  EXPECT_EQ(host::get<uint32_t>(empty, "Handle"), 0u);
  fakes::Spy spy;
  for (const Member& member : allMembers())
    EXPECT_TRUE(host::getValue(empty, member.declaration).isNil()) << member.declaration;
  EXPECT_THAT(spy.messages(), IsEmpty());
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Item, DestroyingAnEmptyInstanceDoesNothing) {
  start();
  host::Object empty = host::create("SUAppcastItemKVZ");
  {
    fakes::Spy spy;
    empty.reset();
    EXPECT_THAT(spy.messages(), IsEmpty());
  }
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Exceptions out of the framework

TEST_P(Item, AnExceptionInAnyMemberArrivesOnceAndTheMemberIsNil) {
  start();
  std::vector<Member> members = allMembers();
  members.push_back({"releaseNotesURL as string", "absoluteString"});
  members.push_back({"fileURL as string", "absoluteString"});
  fakes::answer("releaseNotesURL") = fakes::answer("fileURL") = [[FakeLink new] autorelease];
  for (const Member& member : members) {
    SCOPED_TRACE(std::string(member.declaration) + ": " + member.selector);
    session::takeLog();
    fakes::on(member.selector) = [] { fakes::raise(); };
    EXPECT_TRUE(host::getValue(item, member.declaration).isNil());
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->message, "by the test");
    EXPECT_EQ(raised->count, 1u);
    EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("A Refused: by the test, Info: ")));
    fakes::on(member.selector) = nullptr;
  }
}

TEST_P(Item, WhatIsNoExceptionPassesOnThroughAnyMember) {
  start();
  for (const Member& member : allMembers()) {
    SCOPED_TRACE(member.declaration);
    fakes::on(member.selector) = [] { fakes::throwOther(); };
    host::Thrown thrown = host::catching([&] { host::getValue(item, member.declaration); });
    EXPECT_EQ(thrown.object, fakes::thrownObject());
    EXPECT_EQ(host::pendingExceptions(), 0u);
  }
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Item, EveryFailingMessageOfEveryMemberIsReported) {
  start();
  for (const Member& member : texts) fakes::answer(member.selector) = @"text";
  for (const Member& member : urls)
    fakes::answer(member.selector) = [NSURL URLWithString:@"http://example.org/"];
  fakes::answer("date") = [NSDate dateWithTimeIntervalSinceReferenceDate:0];
  fakes::answer("propertiesDictionary") = @{@"a" : @{@"b" : @[ @1, @"c" ]}};
  for (const Member& member : allMembers()) {
    SCOPED_TRACE(member.declaration);
    host::Value value;
    fakes::failEachMessage([] {}, [&] { value = host::getValue(item, member.declaration); },
                           [&] { EXPECT_TRUE(value.isNil()); });
    EXPECT_FALSE(value.isNil());
  }
}

// ---- Construction

TEST_P(Item, ConstructorFillsAnEmptyInstanceWithANewItem) {
  start();
  loadFakes();
  fakes::received();
  host::Object made = host::create("SUAppcastItemKVZ");
  {
    fakes::Spy spy;
    host::call(made, "Constructor");
    EXPECT_THAT(spy.messages(), ElementsAre("+[FakeItem alloc]", "-[FakeItem init]"));
  }
  id its = fakes::wrapped(made);
  EXPECT_TRUE([its isKindOfClass:[FakeItem class]]);
  EXPECT_EQ([its retainCount], 1u);
  EXPECT_EQ(fakes::registered(its), made.handle());
  EXPECT_EQ(host::referenceCount(made), 1);
  made.reset();
  EXPECT_EQ(fakes::freed(), 1u);
}

TEST_P(Item, ConstructorBeforeTheFrameworkIsLoadedLeavesItEmpty) {
  start();
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  EXPECT_EQ(host::get<uint32_t>(made, "Handle"), 0u);
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_EQ(fakes::registered(nil), nullptr);
  loadFakes();
  host::call(made, "Constructor");
  EXPECT_NE(host::get<uint32_t>(made, "Handle"), 0u) << "an empty instance may try again";
}

TEST_P(Item, ConstructorOnAFilledInstanceRaisesAndKeepsTheItem) {
  start();
  loadFakes();
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  fakes::answer("items") = @[ fake ];
  host::Object appcast = fakes::wrapping("SUAppcastKVZ", [[FakeAppcast new] autorelease]);
  auto array = host::get<host::Object>(appcast, "items as SUAppcastItemKVZ()");
  auto listed = host::elements(array).at(0).as<host::Object>();
  FakeItem* other = [[FakeItem new] autorelease];
  host::Object reported = handedOver(other);
  ASSERT_TRUE(reported);
  fakes::received();
  for (const host::Object& filled : {made, item, listed, reported}) {
    id before = fakes::wrapped(filled);
    host::call(filled, "Constructor");
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "UnsupportedOperationException");
    EXPECT_EQ(raised->message, constructedTwice);
    EXPECT_EQ(raised->errorNumber, 0);
    EXPECT_EQ(raised->count, 1u);
    EXPECT_EQ(fakes::wrapped(filled), before);
  }
  EXPECT_THAT(fakes::received(), IsEmpty());
}

TEST_P(Item, EveryFailingMessageOfTheConstructorIsReported) {
  start();
  loadFakes();
  host::Object made;
  unsigned messages = fakes::failEachMessage(
      [&] { made = host::create("SUAppcastItemKVZ"); }, [&] { host::call(made, "Constructor"); },
      [&] { EXPECT_EQ(host::get<uint32_t>(made, "Handle"), 0u); });
  EXPECT_EQ(messages, 2u) << "alloc, init";
}

TEST_P(Item, OfTheFrameworkIsAllNilAfterAPlainConstructor) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  EXPECT_STREQ(object_getClassName(fakes::wrapped(made)), "SUAppcastItem");
  for (const Member& member : allMembers())
    EXPECT_TRUE(host::getValue(made, member.declaration).isNil()) << member.declaration;
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Wrapping

TEST_P(Item, WrappingTheSameItemTwiceGivesTheSameInstanceLockedOnceMore) {
  start();
  FakeItem* other = [[FakeItem new] autorelease];
  host::Object first = handedOver(other);
  EXPECT_EQ(host::className(first), "SUAppcastItemKVZ");
  EXPECT_EQ(fakes::wrapped(first), other);
  EXPECT_EQ([other retainCount], 2u);
  EXPECT_EQ(fakes::registered(other), first.handle());
  EXPECT_EQ(host::referenceCount(first), 1);
  host::Object second = handedOver(other);
  EXPECT_EQ(first, second);
  EXPECT_EQ(host::referenceCount(first), 2);
  EXPECT_EQ([other retainCount], 2u);
}

TEST_P(Item, ANewInstanceStandsForAnItemWhoseFirstOneDied) {
  start();
  FakeItem* other = [[FakeItem new] autorelease];
  host::Object first = handedOver(other);
  first.reset();
  EXPECT_EQ(fakes::registered(other), nullptr);
  EXPECT_EQ([other retainCount], 1u);
  host::Object second = handedOver(other);
  EXPECT_EQ(fakes::wrapped(second), other);
}

TEST_P(Item, WithoutARegistryEveryWrappingGivesAnInstanceOfItsOwn) {
  session::start(GetParam(), {.companion = false});
  FakeItem* other = [[FakeItem new] autorelease];
  host::Object first = handedOver(other), second = handedOver(other);
  EXPECT_FALSE(first == second);
  EXPECT_EQ(fakes::wrapped(first), fakes::wrapped(second));
  EXPECT_EQ([other retainCount], 3u);
  first.reset();
  second.reset();
  EXPECT_EQ([other retainCount], 1u);
}

TEST_P(Item, AConstructedItemIsWrappedAsItsOwnInstance) {
  start();
  loadFakes();
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  EXPECT_EQ(handedOver(fakes::wrapped(made)), made);
}

// ---- Handle and destruction

TEST_P(Item, AnAssignedHandleIsNeitherRetainedNorRegistered) {
  start();
  FakeItem* other = [[FakeItem new] autorelease];
  host::Object filled = handedOver(other);
  FakeItem* third = [[FakeItem new] autorelease];
  fakes::answer("title") = @"third";
  host::set(filled, "Handle", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(third)));
  EXPECT_EQ([other retainCount], 2u) << "still the instance's reference";
  EXPECT_EQ([third retainCount], 1u);
  EXPECT_EQ(fakes::registered(other), filled.handle());
  EXPECT_EQ(fakes::registered(third), nullptr);
  EXPECT_EQ(host::get<std::string>(filled, "title as string"), "third");
  [third retain];
  // The registry still names this instance for the first item; it goes before the instance does.
  host::set(filled, "Handle", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(other)));
  filled.reset();
  EXPECT_EQ([other retainCount], 1u) << "the destructor releases what it finds";
  EXPECT_EQ([third retainCount], 2u);
  [third release];
}

TEST_P(Item, DestructionUnregistersThenReleases) {
  start();
  loadFakes();
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  id its = [fakes::wrapped(made) retain];
  fakes::Spy spy;
  made.reset();
  EXPECT_THAT(spy.messages(), ElementsAre("-[FakeItem release]"));
  EXPECT_EQ(fakes::registered(its), nullptr);
  EXPECT_EQ([its retainCount], 1u);
  [its release];
}

TEST_P(Item, AnExceptionInDestructionIsReported) {
  start();
  loadFakes();
  host::Object made;
  unsigned messages =
      fakes::failEachMessage([&] { made = host::construct("SUAppcastItemKVZ", "Constructor"); },
                             [&] { made.reset(); }, [] {});
  EXPECT_EQ(messages, 1u) << "release";
}

class ItemRegistry : public Item {
protected:
  void startAlone() { session::start(GetParam(), {.companion = false}); }
};
INSTANTIATE_TEST_SUITE_P(Host, ItemRegistry, session::oneHost(), session::hostName);

TEST_P(ItemRegistry, IsWrittenByTheConstructorAndForgetsBeforeTheRelease) {
  startAlone();
  fakes::offerRegistry();
  loadFakes();
  host::Object made = host::construct("SUAppcastItemKVZ", "Constructor");
  made.reset();
  host::create("SUAppcastItemKVZ");
  EXPECT_THAT(fakes::received(),
              ElementsAre("init", "registry: set FakeItem", "registry: remove FakeItem"));
}

TEST_P(ItemRegistry, OnlyTheRegisteredConstructorAndDestructorRunTheSharedInitialisation) {
  startAlone();
  fakes::offerRegistry(nil);
  loadFakes();
  host::Object made;
  EXPECT_EQ(fakes::initialisations([&] { made = host::create("SUAppcastItemKVZ"); }), 1u);
  EXPECT_EQ(fakes::initialisations([&] { host::call(made, "Constructor"); }), 0u);
  for (const Member& member : allMembers())
    EXPECT_EQ(fakes::initialisations([&] { host::getValue(made, member.declaration); }), 0u)
        << member.declaration;
  EXPECT_EQ(fakes::initialisations([&] { made.reset(); }), 1u);
}

} // namespace
