// A host program's say in which version is newer.
#include "fakes.h"
#include "session.h"

#include <gmock/gmock.h>

#include <climits>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

@interface NSObject (Comparator)
- (NSComparisonResult)compareVersion:(NSString*)versionA toVersion:(NSString*)versionB;
- (void)clearTarget;
@end

namespace {

const char comparatorClass[] = "MySUVersionComparison";
const char compareVersion[] = "compareVersion(VersionA as string, VersionB as string) as integer";
const char constructedTwice[] = "Constructor called too often. Object is already initialized.";

class Comparison : public session::Test {
protected:
  // A constructed instance of a host class that answers what ANSWER does; without one the event
  // has no handler.
  void start(host::Handlers handlers = {}) {
    session::Test::start();
    host::subclass("MyComparison", "SUVersionComparisonKVZ", std::move(handlers));
    instance = host::construct("MyComparison", "Constructor");
    comparator = fakes::wrapped(instance);
    ASSERT_TRUE(comparator);
  }
  void TearDown() override {
    instance.reset();
    session::Test::TearDown();
  }
  static host::Handlers answering(int32_t answer) {
    return {{compareVersion, [=](host::Event&) { return answer; }}};
  }

  host::Object instance;
  id comparator = nil;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Comparison, session::everyInterface(), session::hostName);

// ---- The definition

TEST_P(Comparison, DeclaresItsMembersInTheirOrder) {
  start();
  const host::Registered* type = host::registered("SUVersionComparisonKVZ");
  ASSERT_TRUE(type);
  using R = host::Registered;
  EXPECT_THAT(type->declarations(R::properties), ElementsAre("Handle"));
  EXPECT_THAT(type->declarations(R::methods), ElementsAre("Constructor", "Destructor"));
  EXPECT_THAT(type->declarations(R::events), ElementsAre(compareVersion));
  EXPECT_THAT(
      type->declarations(R::constants),
      ElementsAre("NSOrderedAscending = -1", "NSOrderedSame = 0", "NSOrderedDescending = 1"));
  EXPECT_THAT(type->declarations(R::sharedMethods), IsEmpty());
  auto methods = type->table(R::methods);
  for (uint32_t i = 0; i < methods.count; ++i) EXPECT_EQ(methods[i][1], 0u) << "no setter";
}

TEST_P(Comparison, TheCocoaClassHasItsVariableAndMethodsWithTheirTypes) {
  start();
  Class type = object_getClass(comparator);
  EXPECT_STREQ(class_getName(type), comparatorClass);
  EXPECT_EQ(class_getSuperclass(type), [NSObject class]);
  unsigned count = 0;
  Ivar* variables = class_copyIvarList(type, &count);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(ivar_getName(variables[0]), "target");
  EXPECT_STREQ(ivar_getTypeEncoding(variables[0]), "^{REALobjectStruct=}");
  free(variables);
  EXPECT_EQ(class_getInstanceSize(type), 2 * sizeof(void*)) << "nothing between them";

  std::map<std::string, std::string> methods;
  Method* own = class_copyMethodList(type, &count);
  for (unsigned i = 0; i < count; ++i)
    methods[sel_getName(method_getName(own[i]))] = method_getTypeEncoding(own[i]);
  free(own);
  EXPECT_EQ(methods, (std::map<std::string, std::string>{
                         {"copyWithZone:", "@12@0:4^{_NSZone=}8"},
                         {"initWithTarget:", "@12@0:4^{REALobjectStruct=}8"},
                         {"clearTarget", "v8@0:4"},
                         {"dealloc", "v8@0:4"},
                         {"compareVersion:toVersion:", "i16@0:4@8@12"},
                     }));
}

TEST_P(Comparison, AdoptsTheFrameworksProtocolWhenThatIsLoaded) {
  session::Test::start();
  ASSERT_TRUE(loadFramework());
  Protocol* protocol = objc_getProtocol("SUVersionComparison");
  ASSERT_TRUE(protocol);
  instance = host::construct("SUVersionComparisonKVZ", "Constructor");
  EXPECT_TRUE([fakes::wrapped(instance) conformsToProtocol:protocol]);
  auto method = protocol_getMethodDescription(
      protocol, sel_registerName("compareVersion:toVersion:"), YES, YES);
  ASSERT_TRUE(method.types);
  EXPECT_STREQ(method.types, "i16@0:4@8@12");
}

TEST_P(Comparison, AdoptsTheProtocolOfAFrameworkThatIsLoadedLater) {
  start();
  EXPECT_EQ(objc_getProtocol("SUVersionComparison"), nil);
  ASSERT_TRUE(loadFramework());
  Protocol* protocol = objc_getProtocol("SUVersionComparison");
  ASSERT_TRUE(protocol);
  EXPECT_TRUE([comparator conformsToProtocol:protocol]);
  host::Object later = host::construct("SUVersionComparisonKVZ", "Constructor");
  EXPECT_TRUE([fakes::wrapped(later) conformsToProtocol:protocol]);
  EXPECT_EQ(object_getClass(fakes::wrapped(later)), object_getClass(comparator));
}

// ---- Construction

TEST_P(Comparison, AdoptsTheProtocolOfAFrameworkThatTheProgramLoaded) {
  session::Test::start();
  NSString* path = [NSString stringWithUTF8String:SPARKLE_FRAMEWORKS "/Sparkle.framework"];
  ASSERT_TRUE([[NSBundle bundleWithPath:path] load]);
  instance = host::construct("SUVersionComparisonKVZ", "Constructor");
  EXPECT_TRUE(
      [fakes::wrapped(instance) conformsToProtocol:objc_getProtocol("SUVersionComparison")]);
}

TEST_P(Comparison, ConstructorMakesARegisteredComparatorWithoutTheFramework) {
  start();
  EXPECT_FALSE(host::callShared("SUUpdaterKVZ", "IsFrameworkLoaded as boolean").as<bool>());
  EXPECT_STREQ(object_getClassName(comparator), comparatorClass);
  EXPECT_EQ([comparator retainCount], 1u) << "the instance's own";
  EXPECT_EQ(fakes::registered(comparator), instance.handle());
  EXPECT_EQ(host::referenceCount(instance), 1) << "neither comparator nor registry hold it";
}

TEST_P(Comparison, IsEmptyBeforeItsConstructor) {
  session::Test::start();
  host::Object empty = host::create("SUVersionComparisonKVZ");
  EXPECT_EQ(host::get<uint32_t>(empty, "Handle"), 0u);
  host::call(empty, "Destructor");
  empty.reset();
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Comparison, ASecondConstructorRaisesAndKeepsTheComparator) {
  start(answering(7));
  host::call(instance, "Constructor");
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->className, "UnsupportedOperationException");
  EXPECT_EQ(raised->message, constructedTwice);
  EXPECT_EQ(raised->errorNumber, 0);
  EXPECT_EQ(raised->count, 1u);
  EXPECT_EQ(fakes::wrapped(instance), comparator);
  EXPECT_EQ([comparator retainCount], 1u);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], 7);
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Comparison, WorksWithoutARegistry) {
  session::start(GetParam(), {.companion = false});
  host::subclass("MyComparison", "SUVersionComparisonKVZ", answering(7));
  instance = host::construct("MyComparison", "Constructor");
  EXPECT_EQ([fakes::wrapped(instance) compareVersion:@"1" toVersion:@"2"], 7);
}

TEST_P(Comparison, RunsTheSharedInitialisationWhenItComesAndGoes) {
  session::start(GetParam(), {.companion = false});
  fakes::offerRegistry(nil);
  auto initialises = [](const std::function<void()>& body) { return fakes::initialisations(body); };
  EXPECT_EQ(initialises([&] { instance = host::create("SUVersionComparisonKVZ"); }), 1u);
  EXPECT_EQ(initialises([&] { host::call(instance, "Constructor"); }), 0u);
  EXPECT_EQ(initialises([&] { instance.reset(); }), 1u);
}

TEST_P(Comparison, EveryFailingMessageOfTheConstructorIsReported) {
  session::Test::start();
  host::subclass("MyComparison", "SUVersionComparisonKVZ", answering(7));
  unsigned messages =
      fakes::failEachMessage([&] { instance = host::create("MyComparison"); },
                             [&] { host::call(instance, "Constructor"); },
                             [&] { EXPECT_EQ(host::get<uint32_t>(instance, "Handle"), 0u); });
  EXPECT_GE(messages, 3u) << "alloc, initWithTarget:, init";
  EXPECT_EQ([fakes::wrapped(instance) compareVersion:@"1" toVersion:@"2"], 7);
}

// ---- Comparing

TEST_P(Comparison, WithoutAHandlerEveryComparisonIsAscending) {
  start();
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"1"], NSOrderedAscending);
  EXPECT_EQ([comparator compareVersion:nil toVersion:nil], NSOrderedAscending);
  EXPECT_EQ(host::referenceCount(instance), 1);
}

TEST_P(Comparison, OnAHostThatCannotTellWhoHandlesEveryComparisonIsAscending) {
  start(answering(1));
  host::makeAbsent("GetEventInstance");
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  host::makePresent("GetEventInstance");
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedDescending);
}

TEST_P(Comparison, TheHandlersAnswerIsPassedOnAsItStands) {
  start();
  for (int32_t answer : {-1, 0, 1, 7, -2, INT_MAX, INT_MIN}) {
    host::handle("MyComparison", compareVersion, [=](host::Event&) { return answer; });
    EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], answer);
  }
}

TEST_P(Comparison, TheHandlerGetsBothVersionsInTheirOrder) {
  start();
  std::vector<std::optional<std::string>> seen;
  host::handle("MyComparison", compareVersion, [&](host::Event& event) {
    EXPECT_EQ(event.target, instance);
    seen.insert(seen.end(), {event.text(0), event.text(1)});
    return 0;
  });
  NSString* longVersion = [@"" stringByPaddingToLength:5000 withString:@"1." startingAtIndex:0];
  [comparator compareVersion:@"1.0" toVersion:@"2.0 β"];
  [comparator compareVersion:longVersion toVersion:@"x"];
  EXPECT_THAT(seen, ElementsAre("1.0", "2.0 β", [longVersion UTF8String], "x"));
}

TEST_P(Comparison, ANilOrEmptyVersionReachesTheHandlerAsTheNilString) {
  start();
  std::vector<bool> nils;
  host::handle("MyComparison", compareVersion, [&](host::Event& event) {
    nils.insert(nils.end(), {event.value(0).isNil(), event.value(1).isNil()});
    return 0;
  });
  [comparator compareVersion:nil toVersion:@"1"];
  [comparator compareVersion:@"1" toVersion:nil];
  [comparator compareVersion:nil toVersion:nil];
  [comparator compareVersion:@"" toVersion:@"1"];
  EXPECT_THAT(nils, ElementsAre(true, false, false, true, true, true, true, false));
}

TEST_P(Comparison, TheStringsAndTheInstanceAreGivenBack) {
  start();
  host::Object target;
  host::String first, second;
  int during = 0;
  host::handle("MyComparison", compareVersion, [&](host::Event& event) {
    first = event.value(0).as<host::String>();
    second = event.value(1).as<host::String>();
    during = host::referenceCount(event.target);
    return 0;
  });
  [comparator compareVersion:@"1" toVersion:@"2"];
  EXPECT_EQ(host::referenceCount(first), 1);
  EXPECT_EQ(host::referenceCount(second), 1);
  EXPECT_EQ(host::referenceCount(instance), 1);
  EXPECT_EQ(during, 3) << "the test's, the event's, and the comparator's for the call";
}

TEST_P(Comparison, RunsOnTheThreadThatAsks) {
  start();
  host::handle("MyComparison", compareVersion, [](host::Event& event) {
    EXPECT_EQ(event.thread, host::currentThread());
    return event.thread.main() ? 1 : 7;
  });
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], 1);
  NSInteger onWorker = 0;
  ASSERT_TRUE(fakes::onWorker([&] { onWorker = [comparator compareVersion:@"1" toVersion:@"2"]; }));
  EXPECT_EQ(onWorker, 7);
}

TEST_P(Comparison, ComparesForTheFrameworkFromSeveralThreadsAtOnce) {
  start(answering(7));
  std::atomic<int> right{0};
  ASSERT_TRUE(fakes::onWorker([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&] {
        host::Pool pool;
        for (int n = 0; n < 50; ++n) right += [comparator compareVersion:@"1" toVersion:@"2"] == 7;
      });
    for (std::thread& thread : threads) thread.join();
  }));
  EXPECT_EQ(right, 200);
  EXPECT_EQ(host::referenceCount(instance), 1);
}

TEST_P(Comparison, ACopyIsTheSameObject) {
  start(answering(7));
  id copy = [comparator copy];
  EXPECT_EQ(copy, comparator);
  EXPECT_EQ([comparator retainCount], 2u);
  host::clearEvents();
  EXPECT_EQ([copy compareVersion:@"1" toVersion:@"2"], 7);
  EXPECT_EQ(host::events().size(), 1u);
  [copy release];
}

// ---- Lifetimes, in every order

TEST_P(Comparison, AComparatorThatOutlivesItsInstanceIsAscendingAndLeavesTheHostAlone) {
  start(answering(7));
  [comparator retain]; // the framework
  instance.reset();
  EXPECT_EQ([comparator retainCount], 1u);
  EXPECT_EQ(fakes::registered(comparator), nullptr);
  host::clearEvents();
  host::resetCounts();
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  EXPECT_THAT(host::events(), IsEmpty());
  EXPECT_EQ(host::operationsPerformed(), 0u);
  [comparator release];
}

TEST_P(Comparison, AnInstanceOutlivesTheFrameworksHold) {
  start(answering(7));
  [comparator retain];
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], 7);
  [comparator release];
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], 7);
  fakes::Spy spy;
  instance.reset();
  EXPECT_EQ(spy.count("-[MySUVersionComparison dealloc]"), 1);
}

TEST_P(Comparison, DestructionClearsTheLinkThenReleases) {
  start();
  fakes::Spy spy;
  instance.reset();
  std::vector<std::string> own;
  for (const std::string& message : spy.messages())
    if (message.find(comparatorClass) != std::string::npos) own.push_back(message);
  EXPECT_THAT(own,
              ElementsAre("-[MySUVersionComparison clearTarget]",
                          "-[MySUVersionComparison release]", "-[MySUVersionComparison dealloc]"));
}

TEST_P(Comparison, NothingOfTheLinkIsLeftAtTheEnd) {
  start();
  id other = [[object_getClass(comparator) alloc] performSelector:@selector(initWithTarget:)
                                                       withObject:(id)instance.handle()];
  auto variables = fakes::variablesAtTheEnd<1>(other, [&] { [other release]; });
  EXPECT_THAT(variables, ElementsAre(nullptr));
}

TEST_P(Comparison, TheDestructorMethodAloneCutsTheLinkAndReleasesNothing) {
  start(answering(7));
  host::call(instance, "Destructor");
  EXPECT_EQ(fakes::wrapped(instance), comparator);
  EXPECT_EQ([comparator retainCount], 1u);
  EXPECT_EQ(fakes::registered(comparator), instance.handle());
  host::clearEvents();
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  EXPECT_THAT(host::events(), IsEmpty());
}

TEST_P(Comparison, AComparatorWithoutATargetIsAscending) {
  start(answering(7));
  id alone =
      [[object_getClass(comparator) alloc] performSelector:sel_registerName("initWithTarget:")
                                                withObject:nil];
  EXPECT_EQ([alone compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  [alone release];
}

TEST_P(Comparison, TheInstanceLivesThroughAComparisonInWhichItsLastReferenceGoes) {
  start();
  [comparator retain];
  bool aliveAfterwards = false;
  host::handle("MyComparison", compareVersion, [&](host::Event& event) {
    instance.reset();
    event.target.reset();
    aliveAfterwards = host::ledger().alive.count("MyComparison");
    return 7;
  });
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], 7);
  EXPECT_TRUE(aliveAfterwards);
  EXPECT_EQ(host::ledger(), host::Ledger{});
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], NSOrderedAscending);
  [comparator release];
}

TEST_P(Comparison, IsAnsweredThoughTheLastReferenceThatItGivesBackThrows) {
  session::start(GetParam(), {.companion = false}); // which an exception is reported with
  host::subclass("MyComparison", "SUVersionComparisonKVZ");
  instance = host::construct("MyComparison", "Constructor");
  comparator = fakes::wrapped(instance);
  class_replaceMethod(object_getClass(comparator), @selector(clearTarget),
                      reinterpret_cast<IMP>(+[](id, SEL) { fakes::raise(); }), "v8@0:4");
  host::handle("MyComparison", compareVersion, [&](host::Event& event) {
    instance.reset();
    event.target.reset();
    return 7;
  });
  session::takeLog();
  int answer = 0;
  host::Thrown thrown =
      host::catching([&] { answer = [comparator compareVersion:@"1" toVersion:@"2"]; });
  EXPECT_FALSE(thrown) << thrown.text;
  EXPECT_EQ(answer, 7);
  EXPECT_THAT(session::takeLog(),
              ElementsAre(HasSubstr("A Refused: "), HasSubstr("NewNSExceptionKVZ:")));
}

TEST_P(Comparison, BothGoTogetherWhenAComparisonEndsTheLastReference) {
  start();
  host::handle("MyComparison", compareVersion, [&](host::Event&) {
    instance.reset();
    return 7;
  });
  fakes::Spy spy;
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], 7);
  EXPECT_EQ(spy.count("-[MySUVersionComparison dealloc]"), 1);
}

TEST_P(Comparison, AnAnsweredComparatorServesTheFrameworkUntilItsInstanceGoes) {
  session::Test::start();
  host::subclass("MyComparison", "SUVersionComparisonKVZ", answering(7));
  host::Object answered = host::construct("MyComparison", "Constructor");
  host::subclass("MyUpdater", "SUUpdaterKVZ",
                 {{"versionComparatorForUpdater as SUVersionComparisonKVZ",
                   [&](host::Event&) { return answered; }}});
  host::Object updater = host::construct("MyUpdater", "Constructor");
  id delegate = static_cast<id*>(host::data(updater, "SUUpdaterKVZ"))[1];
  id held = [[delegate performSelector:sel_registerName("versionComparatorForUpdater:")
                            withObject:nil] retain];
  updater.reset();
  EXPECT_EQ([held compareVersion:@"1" toVersion:@"2"], 7);
  answered.reset();
  EXPECT_EQ([held compareVersion:@"1" toVersion:@"2"], NSOrderedAscending);
  [held release];
}

TEST_P(Comparison, EveryFailingMessageOfDestructionIsReported) {
  session::Test::start();
  host::subclass("MyComparison", "SUVersionComparisonKVZ", answering(7));
  id held = nil; // so that a half-done release is no matter
  auto letGo = [&] {
    for (NSUInteger left = [held retainCount]; left > 0; --left) [held release];
    held = nil;
  };
  unsigned messages = fakes::failEachMessage(
      [&] {
        instance = host::construct("MyComparison", "Constructor");
        held = [fakes::wrapped(instance) retain];
      },
      [&] { instance.reset(); },
      [&] {
        EXPECT_FALSE(instance);
        letGo();
      });
  letGo();
  EXPECT_GE(messages, 2u) << "clearTarget, release";
}

// ---- Exceptions

TEST_P(Comparison, AnExceptionInTheHandlerIsLoggedAndTheVersionsAreAscending) {
  start();
  host::handle("MyComparison", compareVersion, [](host::Event&) {
    fakes::raise(@"Refused", @"by the handler");
    return 1;
  });
  session::takeLog();
  EXPECT_EQ([comparator compareVersion:@"2" toVersion:@"1"], NSOrderedAscending);
  EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("by the handler")));
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_EQ(host::referenceCount(instance), 1);
}

TEST_P(Comparison, WhatIsNoExceptionPassesOnAndLeavesNothingLocked) {
  start();
  host::handle("MyComparison", compareVersion, [](host::Event&) {
    fakes::throwOther();
    return 1;
  });
  host::Thrown thrown = host::catching([&] { [comparator compareVersion:@"2" toVersion:@"1"]; });
  EXPECT_EQ(thrown.object, fakes::thrownObject());
  EXPECT_EQ(host::referenceCount(instance), 1);
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

// A string that cannot be read.
} // namespace

@interface RaisingString : NSString
@end
@implementation RaisingString
- (NSUInteger)length {
  fakes::raise(@"Refused", @"to be read");
  return 0;
}
- (unichar)characterAtIndex:(NSUInteger)index {
  (void)index;
  return 'x';
}
@end

namespace {

TEST_P(Comparison, AVersionThatCannotBeReadIsLoggedAndTheVersionsAreAscending) {
  start(answering(1));
  NSString* broken = [[RaisingString new] autorelease];
  session::takeLog();
  EXPECT_EQ([comparator compareVersion:broken toVersion:@"1"], NSOrderedAscending);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:broken], NSOrderedAscending);
  auto log = session::takeLog();
  EXPECT_THAT(log, ElementsAre(HasSubstr("to be read"), HasSubstr("to be read")));
  EXPECT_THAT(host::events(), IsEmpty());
  EXPECT_EQ(host::referenceCount(instance), 1);
}

} // namespace
