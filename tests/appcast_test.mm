// One feed, as host programs see it.
#include "fakes.h"
#include "session.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// Answers its objects backwards, and may give up half-way.
@interface BackwardsItems : NSArray {
@public
  NSArray* objects;
}
@end
@interface GivingUp : NSEnumerator {
@public
  NSEnumerator* source;
  int left;
  BOOL withoutException;
}
@end
@implementation GivingUp
- (id)nextObject {
  if (left-- > 0) return [source nextObject];
  if (withoutException) fakes::throwOther();
  fakes::raise();
  return nil;
}
@end
@implementation BackwardsItems
- (NSUInteger)count {
  return [objects count];
}
- (id)objectAtIndex:(NSUInteger)index {
  return [objects objectAtIndex:index];
}
- (NSEnumerator*)objectEnumerator {
  return [objects reverseObjectEnumerator];
}
@end
@interface BreakingItems : BackwardsItems {
@public
  int left;
  BOOL withoutException;
}
@end
@implementation BreakingItems
- (NSEnumerator*)objectEnumerator {
  GivingUp* enumerator = [[GivingUp new] autorelease];
  enumerator->source = [objects objectEnumerator];
  enumerator->left = left;
  enumerator->withoutException = withoutException;
  return enumerator;
}
@end

// Looks at the record that it is in while it goes.
@interface LastLook : NSObject {
@public
  id* record;
  id* seen;
}
@end
@implementation LastLook
- (void)dealloc {
  *seen = *record;
  [super dealloc];
}
@end

namespace {

const char constructedTwice[] = "Constructor called too often. Object is already initialized.";
const char userAgent[] = "UserAgentString as string";
const char fetch[] = "fetchAppcastFromURL(url as string)";
const char items[] = "items as SUAppcastItemKVZ()";
const char incrementalData[] = "incrementalData as memoryblock";

class Appcast : public session::Test {
protected:
  void start() {
    session::Test::start();
    fake = [[FakeAppcast new] autorelease];
    appcast = fakes::wrapping("SUAppcastKVZ", fake);
    fakes::received();
  }
  void TearDown() override {
    appcast.reset();
    session::Test::TearDown();
  }
  static void loadFakes() {
    EXPECT_TRUE(fakes::load({{"SUUpdater", [FakeUpdater class]},
                             {"SUAppcast", [FakeAppcast class]},
                             {"SUAppcastItem", [FakeItem class]}}));
  }
  static NSArray* newItems(int count) {
    NSMutableArray* all = [NSMutableArray array];
    for (int i = 0; i < count; ++i) {
      FakeItem* item = [FakeItem new];
      [all addObject:item];
      [item release];
    }
    fakes::received();
    return all;
  }
  host::Object itemsOf(const host::Object& instance) {
    return host::get<host::Object>(instance, items);
  }
  // The Cocoa objects of an array of instances.
  static std::vector<id> wrappedIn(const host::Object& array) {
    std::vector<id> objects;
    for (const host::Value& element : host::elements(array))
      objects.push_back(element.isNil() ? nil : fakes::wrapped(element.as<host::Object>()));
    return objects;
  }
  static std::vector<id> asVector(NSArray* array) {
    std::vector<id> objects;
    for (id object in array) objects.push_back(object);
    return objects;
  }
  static host::Object handedOver(id object) {
    return fakes::handedOver("didFinishLoadingAppcast(update as SUAppcastKVZ)",
                             "updater_didFinishLoadingAppcast_on_mail_thread:", object);
  }

  FakeAppcast* fake = nil;
  host::Object appcast;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Appcast, session::everyInterface(), session::hostName);

TEST_P(Appcast, ALeakedInstanceIsReportedWithTheNameOfThePlugInsFunction) {
  start();
  fakes::answer("items") = newItems(1);
  host::Object listed = itemsOf(appcast);
  EXPECT_THAT(host::leakReport(), AllOf(HasSubstr("SparkleKVZ"), Not(HasSubstr("(no symbol)"))));
}

TEST_P(Appcast, DeclaresItsMembersInTheirOrder) {
  start();
  const host::Registered* type = host::registered("SUAppcastKVZ");
  ASSERT_TRUE(type);
  using R = host::Registered;
  EXPECT_THAT(type->declarations(R::properties), ElementsAre("Handle"));
  EXPECT_THAT(type->declarations(R::methods),
              ElementsAre(userAgent, fetch, "Constructor", items, incrementalData));
  EXPECT_THAT(type->declarations(R::events), IsEmpty());
  EXPECT_THAT(type->declarations(R::constants), IsEmpty());
  EXPECT_THAT(type->declarations(R::sharedMethods), IsEmpty());
  auto methods = type->table(R::methods);
  for (uint32_t i = 0; i < methods.count; ++i) EXPECT_EQ(methods[i][1] != 0, i == 0);
}

// ---- The user agent and the fetch: text, which every host shows in its own way

class AppcastText : public Appcast {};
INSTANTIATE_TEST_SUITE_P(Hosts, AppcastText, session::everyHost(), session::hostName);

TEST_P(AppcastText, TheUserAgentIsReadByKey) {
  start();
  fakes::answer("valueForKey: userAgentString") = @"Prögram/1.0";
  auto text = host::get<host::String>(appcast, userAgent);
  EXPECT_EQ(host::text(text), "Prögram/1.0");
  EXPECT_EQ(host::referenceCount(text), 1);
  EXPECT_THAT(fakes::received(), ElementsAre("valueForKey: userAgentString"));
}

TEST_P(AppcastText, TheUserAgentIsNilForNilAndForEmptyText) {
  start();
  EXPECT_FALSE(host::get<host::String>(appcast, userAgent));
  fakes::answer("valueForKey: userAgentString") = @"";
  EXPECT_FALSE(host::get<host::String>(appcast, userAgent));
}

TEST_P(AppcastText, TheUserAgentIsAssignedByMessage) {
  start();
  host::String text = host::string("Program/2.0");
  host::set(appcast, userAgent, text);
  host::set(appcast, userAgent, nullptr);
  EXPECT_THAT(fakes::received(),
              ElementsAre("setUserAgentString: Program/2.0", "setUserAgentString: nil"));
  EXPECT_EQ(host::referenceCount(text), 1);
}

TEST_P(AppcastText, TheUserAgentSurvivesTheRoadThroughTheFramework) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  EXPECT_FALSE(host::get<host::String>(made, userAgent));
  host::set(made, userAgent, "Program/3.0");
  EXPECT_EQ(host::get<std::string>(made, userAgent), "Program/3.0");
  host::set(made, userAgent, nullptr);
  EXPECT_FALSE(host::get<host::String>(made, userAgent));
}

TEST_P(AppcastText, FetchesTheURLOfTheText) {
  start();
  host::String text = host::string("http://example.org/feed.xml?a=%20b");
  host::call(appcast, fetch, text);
  EXPECT_THAT(fakes::received(),
              ElementsAre("fetchAppcastFromURL: http://example.org/feed.xml?a=%20b"));
  EXPECT_EQ(host::referenceCount(text), 1);
}

TEST_P(AppcastText, FetchesANilURLForNilAndForWhatIsNoURL) {
  start();
  for (const host::Value& text : {host::Value(nullptr), host::Value(""), host::Value("no url"),
                                  host::Value("http://ü.org"), host::Value("50%")}) {
    SCOPED_TRACE(host::print(text));
    host::call(appcast, fetch, text);
    EXPECT_THAT(fakes::received(), ElementsAre("fetchAppcastFromURL: nil"));
  }
}

// ---- Items

TEST_P(Appcast, ItemsAreAnArrayOfInstancesInTheOrderOfTheFeed) {
  start();
  NSArray* all = newItems(3);
  fakes::answer("items") = all;
  host::Object array = itemsOf(appcast);
  EXPECT_EQ(host::upperBound(array), 2);
  EXPECT_EQ(host::referenceCount(array), 1);
  EXPECT_EQ(wrappedIn(array), asVector(all));
  for (const host::Value& element : host::elements(array)) {
    auto instance = element.as<host::Object>();
    EXPECT_EQ(host::className(instance), "SUAppcastItemKVZ");
    EXPECT_EQ(fakes::registered(fakes::wrapped(instance)), instance.handle());
    EXPECT_EQ([fakes::wrapped(instance) retainCount], 2u) << "the feed's and the instance's";
  }
  EXPECT_THAT(fakes::received(), ElementsAre("items"));
}

TEST_P(Appcast, ItemsBelongToTheArrayAlone) {
  start();
  NSArray* all = newItems(2);
  fakes::answer("items") = all;
  host::Object array = itemsOf(appcast);
  host::Object kept = host::elements(array)[0].as<host::Object>();
  EXPECT_EQ(host::referenceCount(kept), 2);
  array.reset();
  EXPECT_EQ(host::referenceCount(kept), 1);
  EXPECT_EQ([[all objectAtIndex:0] retainCount], 2u);
  EXPECT_EQ([[all objectAtIndex:1] retainCount], 1u);
}

TEST_P(Appcast, ItemsTwiceAreTwoArraysOfTheSameInstances) {
  start();
  fakes::answer("items") = newItems(2);
  host::Object first = itemsOf(appcast), second = itemsOf(appcast);
  EXPECT_FALSE(first == second);
  for (size_t i : {0u, 1u})
    EXPECT_EQ(host::elements(first)[i].as<host::Object>(),
              host::elements(second)[i].as<host::Object>());
}

TEST_P(Appcast, ItemsOfAnEmptyInstanceAndOfAnUnfetchedFeedAreAnEmptyArray) {
  start();
  host::Object empty = host::create("SUAppcastKVZ");
  for (const host::Object& instance : {empty, appcast}) {
    host::Object array = itemsOf(instance);
    ASSERT_TRUE(array);
    EXPECT_EQ(host::upperBound(array), -1);
  }
  fakes::answer("items") = @[];
  EXPECT_EQ(host::upperBound(itemsOf(appcast)), -1);
  ASSERT_TRUE(loadFramework());
  EXPECT_EQ(host::upperBound(itemsOf(host::construct("SUAppcastKVZ", "Constructor"))), -1);
}

TEST_P(Appcast, ItemsComeInTheOrderOfTheEnumerator) {
  start();
  BackwardsItems* backwards = [[BackwardsItems new] autorelease];
  backwards->objects = newItems(3);
  fakes::answer("items") = backwards;
  std::vector<id> expected = asVector(backwards->objects);
  std::reverse(expected.begin(), expected.end());
  EXPECT_EQ(wrappedIn(itemsOf(appcast)), expected);
}

TEST_P(Appcast, AnItemThatIsTwiceInTheFeedIsTheSameInstanceTwice) {
  start();
  id one = [[FakeItem new] autorelease];
  fakes::answer("items") = @[ one, one ];
  host::Object array = itemsOf(appcast);
  EXPECT_EQ(wrappedIn(array), (std::vector<id>{one, one}));
  EXPECT_EQ(host::elements(array)[0].as<host::Object>(),
            host::elements(array)[1].as<host::Object>());
  EXPECT_EQ([one retainCount], 2u + 2u) << "twice in the feed, once the instance, once here";
}

TEST_P(Appcast, ItemsThatTheHostMakesNoInstanceForLeaveNilAtTheirPlaces) {
  start();
  NSArray* all = newItems(4);
  fakes::answer("items") = all;
  host::failCall("PluginNewInstance", 2, 2);
  host::Object array = itemsOf(appcast);
  EXPECT_EQ(wrappedIn(array),
            (std::vector<id>{[all objectAtIndex:0], nil, nil, [all objectAtIndex:3]}));
  for (int i : {1, 2}) {
    EXPECT_EQ([[all objectAtIndex:i] retainCount], 1u);
    EXPECT_EQ(fakes::registered([all objectAtIndex:i]), nullptr);
  }
}

TEST_P(Appcast, ItemsAreNilOnAHostThatMakesNoArrays) {
  start();
  fakes::answer("items") = newItems(1);
  host::makeAbsent("RuntimeArrayCreateSingleDimBoundedArray");
  EXPECT_FALSE(itemsOf(appcast));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Appcast, ItemsAreSkippedOnAHostThatInsertsNothing) {
  start();
  NSArray* all = newItems(2);
  fakes::answer("items") = all;
  host::makeAbsent("RuntimeArrayDirectGetInsertProc");
  host::Object array = itemsOf(appcast);
  ASSERT_TRUE(array);
  EXPECT_EQ(host::upperBound(array), -1);
  EXPECT_EQ([[all objectAtIndex:0] retainCount], 1u) << "the instance is given back";
}

TEST_P(Appcast, ItemsAreCreatedAsAnEmptyArrayOfObjectsFirstOfAll) {
  start();
  fakes::answer("items") = newItems(1);
  host::startLog();
  host::Object array = itemsOf(appcast);
  auto log = host::stopLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log[0].name, "RuntimeArrayCreateSingleDimBoundedArray");
  EXPECT_THAT(log[0].arguments, ElementsAre("4", "-1"));
}

TEST_P(Appcast, ItemsBeforeAnExceptionAreAnswered) {
  start();
  for (int before : {0, 1, 2}) {
    BreakingItems* breaking = [[BreakingItems new] autorelease];
    breaking->objects = newItems(3);
    breaking->left = before;
    fakes::answer("items") = breaking;
    session::takeLog();
    host::Object array = itemsOf(appcast);
    ASSERT_TRUE(array);
    EXPECT_EQ(host::upperBound(array), before - 1);
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->count, 1u);
    EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("A Refused: by the test, Info: ")));
  }
}

TEST_P(Appcast, AnItemWhoseInsertionThrowsIsGivenBack) {
  start();
  NSArray* all = newItems(2);
  fakes::answer("items") = all;
  host::throwFromCall("array.insert Object", [[NSException alloc] initWithName:@"Refused"
                                                                        reason:@"by the test"
                                                                      userInfo:nil]);
  host::Object array = itemsOf(appcast);
  ASSERT_TRUE(array);
  EXPECT_EQ(host::upperBound(array), -1);
  EXPECT_TRUE(host::takeException());
  EXPECT_EQ([[all objectAtIndex:0] retainCount], 1u) << "no instance holds it";
}

TEST_P(Appcast, WhatIsNoExceptionPassesOnThroughItemsAndLeavesNothingBehind) {
  start();
  BreakingItems* breaking = [[BreakingItems new] autorelease];
  breaking->objects = newItems(3);
  breaking->left = 2;
  breaking->withoutException = YES;
  fakes::answer("items") = breaking;
  host::Thrown thrown = host::catching([&] { itemsOf(appcast); });
  EXPECT_EQ(thrown.object, fakes::thrownObject());
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Appcast, EveryFailingMessageOfItemsIsReportedAndLeavesAnArray) {
  start();
  fakes::answer("items") = newItems(2);
  host::Object array;
  int longest = -1;
  fakes::failEachMessage([] {}, [&] { array = itemsOf(appcast); },
                         [&] {
                           ASSERT_TRUE(array);
                           EXPECT_GE(host::upperBound(array), longest);
                           longest = host::upperBound(array);
                         });
  EXPECT_EQ(host::upperBound(array), 1);
}

// ---- Incremental data

TEST_P(Appcast, IncrementalDataIsReadByKeyIntoANewMemoryBlock) {
  start();
  fakes::answer("valueForKey: incrementalData") = [NSData dataWithBytes:"<rss\0/>" length:7];
  auto block = host::get<host::Object>(appcast, incrementalData);
  EXPECT_EQ(host::memoryBlockBytes(block), std::string("<rss\0/>", 7));
  EXPECT_EQ(host::referenceCount(block), 1);
  EXPECT_THAT(fakes::received(), ElementsAre("valueForKey: incrementalData"));
}

TEST_P(Appcast, IncrementalDataIsNilForNilAndForEmptyData) {
  start();
  EXPECT_TRUE(host::getValue(appcast, incrementalData).isNil());
  fakes::answer("valueForKey: incrementalData") = [NSData data];
  EXPECT_TRUE(host::getValue(appcast, incrementalData).isNil());
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Empty instances

TEST_P(Appcast, AnEmptyInstanceAnswersNothingAndSendsNothing) {
  start();
  host::Object empty = host::create("SUAppcastKVZ");
  host::String text = host::string("http://example.org/");
  EXPECT_EQ(host::get<uint32_t>(empty, "Handle"), 0u);
  EXPECT_TRUE(host::getValue(empty, userAgent).isNil());
  EXPECT_TRUE(host::getValue(empty, incrementalData).isNil());
  host::set(empty, userAgent, text);
  host::set(empty, userAgent, nullptr);
  host::call(empty, fetch, text);
  host::call(empty, fetch, nullptr);
  EXPECT_THAT(fakes::received(), IsEmpty());
  EXPECT_EQ(host::referenceCount(text), 1);
  empty.reset();
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Exceptions out of the framework

struct Member {
  const char* name;
  const char* selector;
  std::function<host::Value(const host::Object&)> call;
};
const Member members[] = {
    {"reading the user agent", "valueForKey:",
     [](const host::Object& appcast) { return host::getValue(appcast, userAgent); }},
    {"assigning the user agent", "setUserAgentString:",
     [](const host::Object& appcast) {
       host::set(appcast, userAgent, "Program/1.0");
       return host::Value();
     }},
    {"fetching", "fetchAppcastFromURL:",
     [](const host::Object& appcast) {
       return host::call(appcast, fetch, "http://example.org/feed.xml");
     }},
    {"incremental data", "valueForKey:",
     [](const host::Object& appcast) { return host::getValue(appcast, incrementalData); }},
};

TEST_P(Appcast, AnExceptionInAnyMemberArrivesOnceAndTheMemberIsNil) {
  start();
  fakes::answer("valueForKey: userAgentString") = @"text";
  fakes::answer("valueForKey: incrementalData") = [NSData dataWithBytes:"x" length:1];
  for (const Member& member : members) {
    SCOPED_TRACE(member.name);
    session::takeLog();
    fakes::on(member.selector) = [] { fakes::raise(); };
    EXPECT_TRUE(member.call(appcast).isNil());
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->message, "by the test");
    EXPECT_EQ(raised->count, 1u);
    EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("A Refused: by the test, Info: ")));
    fakes::on(member.selector) = nullptr;
  }
}

TEST_P(Appcast, WhatIsNoExceptionPassesOnThroughAnyMember) {
  start();
  for (const Member& member : members) {
    SCOPED_TRACE(member.name);
    fakes::on(member.selector) = [] { fakes::throwOther(); };
    host::Thrown thrown = host::catching([&] { member.call(appcast); });
    EXPECT_EQ(thrown.object, fakes::thrownObject());
    EXPECT_EQ(host::pendingExceptions(), 0u);
  }
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Appcast, EveryFailingMessageOfEveryMemberIsReported) {
  start();
  fakes::answer("valueForKey: userAgentString") = @"text";
  fakes::answer("valueForKey: incrementalData") = [NSData dataWithBytes:"x" length:1];
  for (const Member& member : members) {
    SCOPED_TRACE(member.name);
    host::Value value;
    unsigned messages = fakes::failEachMessage([] {}, [&] { value = member.call(appcast); },
                                               [&] { EXPECT_TRUE(value.isNil()); });
    EXPECT_GE(messages, 1u);
  }
}

// ---- Construction, wrapping, destruction

TEST_P(Appcast, ConstructorFillsAnEmptyInstanceWithANewAppcast) {
  start();
  loadFakes();
  host::Object made = host::create("SUAppcastKVZ");
  {
    fakes::Spy spy;
    host::call(made, "Constructor");
    auto messages = spy.messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2], "+[FakeAppcast alloc]");
    EXPECT_EQ(messages[messages.size() - 1], "-[FakeAppcast init]");
  }
  id its = fakes::wrapped(made);
  EXPECT_TRUE([its isKindOfClass:[FakeAppcast class]]);
  EXPECT_EQ([its retainCount], 1u);
  EXPECT_EQ(fakes::registered(its), made.handle());
  EXPECT_EQ(host::referenceCount(made), 1);
  made.reset();
  EXPECT_EQ(fakes::freed(), 1u);
}

TEST_P(Appcast, ConstructorBeforeTheFrameworkIsLoadedLeavesItEmpty) {
  start();
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  EXPECT_EQ(host::get<uint32_t>(made, "Handle"), 0u);
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_EQ(fakes::registered(nil), nullptr);
  loadFakes();
  host::call(made, "Constructor");
  EXPECT_NE(host::get<uint32_t>(made, "Handle"), 0u);
}

TEST_P(Appcast, ConstructorOnAFilledInstanceRaisesAndKeepsTheAppcast) {
  start();
  loadFakes();
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  FakeAppcast* other = [[FakeAppcast new] autorelease];
  host::Object reported = handedOver(other);
  ASSERT_TRUE(reported);
  fakes::received();
  for (const host::Object& filled : {made, appcast, reported}) {
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

TEST_P(Appcast, EveryFailingMessageOfTheConstructorIsReported) {
  start();
  loadFakes();
  host::Object made;
  fakes::failEachMessage([&] { made = host::create("SUAppcastKVZ"); },
                         [&] { host::call(made, "Constructor"); },
                         [&] { EXPECT_EQ(host::get<uint32_t>(made, "Handle"), 0u); });
  EXPECT_NE(host::get<uint32_t>(made, "Handle"), 0u);
}

TEST_P(Appcast, WrappingTheSameAppcastTwiceGivesTheSameInstanceLockedOnceMore) {
  start();
  FakeAppcast* other = [[FakeAppcast new] autorelease];
  host::Object first = handedOver(other);
  EXPECT_EQ(host::className(first), "SUAppcastKVZ");
  EXPECT_EQ(fakes::wrapped(first), other);
  EXPECT_EQ([other retainCount], 2u);
  host::Object second = handedOver(other);
  EXPECT_EQ(first, second);
  EXPECT_EQ(host::referenceCount(first), 2);
  EXPECT_EQ([other retainCount], 2u);
  first.reset();
  second.reset();
  EXPECT_EQ(fakes::registered(other), nullptr);
  EXPECT_EQ([other retainCount], 1u);
}

TEST_P(Appcast, AConstructedAppcastIsWrappedAsItsOwnInstance) {
  start();
  loadFakes();
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  EXPECT_EQ(handedOver(fakes::wrapped(made)), made);
}

TEST_P(Appcast, WorksWithoutARegistry) {
  session::start(GetParam(), {.companion = false});
  loadFakes();
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  NSArray* all = newItems(2);
  fakes::answer("items") = all;
  host::Object first = itemsOf(made), second = itemsOf(made);
  EXPECT_EQ(wrappedIn(first), asVector(all));
  EXPECT_FALSE(host::elements(first)[0].as<host::Object>() ==
               host::elements(second)[0].as<host::Object>())
      << "nothing remembers the first instance";
  EXPECT_EQ([[all objectAtIndex:0] retainCount], 3u);
}

TEST_P(Appcast, AnAssignedHandleIsNeitherRetainedNorRegistered) {
  start();
  FakeAppcast* other = [[FakeAppcast new] autorelease];
  host::Object empty = host::create("SUAppcastKVZ");
  host::set(empty, "Handle", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(other)));
  EXPECT_EQ([other retainCount], 1u);
  EXPECT_EQ(fakes::registered(other), nullptr);
  [other retain];
  empty.reset();
  EXPECT_EQ([other retainCount], 1u) << "the destructor releases what it finds";
}

TEST_P(Appcast, IsEmptyWhenWhatItWrappedGoes) {
  start();
  LastLook* last = [LastLook new]; // the instance's
  id seen = last;
  host::Object instance = host::create("SUAppcastKVZ");
  last->record = static_cast<id*>(host::data(instance));
  last->seen = &seen;
  *last->record = last;
  instance.reset();
  EXPECT_EQ(seen, nil);
}

TEST_P(Appcast, AnExceptionInDestructionIsReported) {
  start();
  loadFakes();
  host::Object made;
  unsigned messages = fakes::failEachMessage(
      [&] { made = host::construct("SUAppcastKVZ", "Constructor"); }, [&] { made.reset(); }, [] {});
  EXPECT_EQ(messages, 1u) << "release";
}

class AppcastRegistry : public Appcast {
protected:
  void startAlone() { session::start(GetParam(), {.companion = false}); }
};
INSTANTIATE_TEST_SUITE_P(Host, AppcastRegistry, session::oneHost(), session::hostName);

TEST_P(AppcastRegistry, IsWrittenByTheConstructorAndForgetsBeforeTheRelease) {
  startAlone();
  fakes::offerRegistry();
  loadFakes();
  host::Object made = host::construct("SUAppcastKVZ", "Constructor");
  made.reset();
  host::create("SUAppcastKVZ");
  EXPECT_THAT(fakes::received(),
              ElementsAre("init", "registry: set FakeAppcast", "registry: remove FakeAppcast"));
}

TEST_P(AppcastRegistry, MostMembersRunTheSharedInitialisation) {
  startAlone();
  fakes::offerRegistry(nil);
  loadFakes();
  host::Object made;
  auto initialises = [](const std::function<void()>& body) { return fakes::initialisations(body); };
  EXPECT_EQ(initialises([&] { made = host::create("SUAppcastKVZ"); }), 1u);
  EXPECT_EQ(initialises([&] { host::call(made, "Constructor"); }), 1u);
  EXPECT_EQ(initialises([&] { host::getValue(made, userAgent); }), 1u);
  EXPECT_EQ(initialises([&] { host::getValue(made, items); }), 1u);
  EXPECT_EQ(initialises([&] { host::getValue(made, incrementalData); }), 1u);
  EXPECT_EQ(initialises([&] { host::set(made, userAgent, "x"); }), 0u);
  EXPECT_EQ(initialises([&] { host::call(made, fetch, "http://example.org/"); }), 0u);
  EXPECT_EQ(initialises([&] { made.reset(); }), 1u);
}

// The companion is missing, so what an item's destructor raises leaves it; and the array that was
// to hold the item does not.
TEST_P(Appcast, GivesAnItemBackOnceThoughItsDestructorThrows) {
  session::start(GetParam(), {.companion = false});
  ClingingItem* item = [ClingingItem new];
  fakes::answer("items") = [NSArray arrayWithObject:item];
  item->clings = true;
  host::Object appcast = fakes::wrapping("SUAppcastKVZ", [[FakeAppcast new] autorelease]);
  host::makeAbsent("RuntimeArrayDirectGetInsertProc");
  host::CallResult result = host::callCatching(appcast, "items as SUAppcastItemKVZ()");
  EXPECT_THAT(result.thrown.text, testing::HasSubstr("NewNSExceptionKVZ:"));
  [item release];
}

} // namespace
