// The host class around the framework's updater.
#include "fakes.h"
#include "session.h"
#include "unreported.h"

#include "testbed/cocoa/crossing.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const char constructedTwice[] = "Constructor called too often. Object is already initialized.";
const char delegateClass[] = "MySUUpdaterDelegateInformalProtocol";

// ---- The members, as host programs name them

struct Flag {
  const char* declaration;
  const char* getter;
  const char* setter; // null: cannot be assigned
};
const Flag flags[] = {
    {"automaticallyChecksForUpdates as boolean", "automaticallyChecksForUpdates",
     "setAutomaticallyChecksForUpdates:"},
    {"sendsSystemProfile as boolean", "sendsSystemProfile", "setSendsSystemProfile:"},
    {"automaticallyDownloadsUpdates as boolean", "automaticallyDownloadsUpdates",
     "setAutomaticallyDownloadsUpdates:"},
    {"updateInProgress as boolean", "updateInProgress", nullptr},
};

struct Action {
  const char* declaration;
  const char* message;
};
const Action actions[] = {
    {"checkForUpdatesInBackground", "checkForUpdatesInBackground"},
    {"checkForUpdateInformation", "checkForUpdateInformation"},
    {"resetUpdateCycle", "resetUpdateCycle"},
    {"checkForUpdates", "checkForUpdates: nil"},
};

// Each member that sends a message to the updater, and the first message that it sends.
struct Guarded {
  std::string name;
  std::string selector;
  std::function<host::Value(const host::Object&)> call;
};
Guarded reading(const char* declaration, const char* selector) {
  return {std::string("reading ") + declaration, selector,
          [=](const host::Object& updater) { return host::getValue(updater, declaration); }};
}
Guarded assigning(const char* declaration, const char* selector, const host::Value& value) {
  return {std::string("assigning ") + declaration, selector,
          [=](const host::Object& updater) -> host::Value {
            host::set(updater, declaration, value);
            return {};
          }};
}
std::vector<Guarded> guardedMembers() {
  std::vector<Guarded> all = {
      reading("feedURL as string", "feedURL"),
      assigning("feedURL as string", "setFeedURL:", "http://example.org/feed"),
      reading("updateCheckInterval as double", "updateCheckInterval"),
      assigning("updateCheckInterval as double", "setUpdateCheckInterval:", 3600.0),
      reading("lastUpdateCheckDate as date", "lastUpdateCheckDate"),
      reading("hostBundle as folderitem", "hostBundle"),
  };
  for (const Flag& flag : flags) {
    all.push_back(reading(flag.declaration, flag.getter));
    if (flag.setter) all.push_back(assigning(flag.declaration, flag.setter, true));
  }
  for (const Action& action : actions) {
    std::string message = action.message;
    all.push_back(
        {action.declaration, message.substr(0, message.find(' ')),
         [=](const host::Object& updater) { return host::call(updater, action.declaration); }});
  }
  return all;
}

bool isZero(const host::Value& value) {
  if (auto* boolean = std::get_if<bool>(&value.held())) return !*boolean;
  if (auto* number = std::get_if<double>(&value.held())) return *number == 0;
  return value.isNil();
}

// The second field of the record, behind the one that Handle shows.
id delegateOf(const host::Object& updater) {
  return static_cast<id*>(host::data(updater, "SUUpdaterKVZ"))[1];
}

void expectOneException(const char* className, const char* message) {
  auto raised = host::takeException();
  ASSERT_TRUE(raised) << "nothing was raised";
  EXPECT_EQ(raised->className, className);
  EXPECT_EQ(raised->message, message);
  EXPECT_EQ(raised->errorNumber, 0);
  EXPECT_EQ(raised->count, 1u);
}

void postpone(id delegate, id invocation) {
  // The delegate of a host class without handlers never postpones, but keeps the invocation.
  using Method = BOOL (*)(id, SEL, id, id, id);
  SEL selector = @selector(updater:shouldPostponeRelaunchForUpdate:untilInvoking:);
  reinterpret_cast<Method>(class_getMethodImplementation(object_getClass(delegate), selector))(
      delegate, selector, nil, nil, invocation);
}

class Updater : public session::Test {
protected:
  void start() {
    session::Test::start();
    fake = [[FakeUpdater new] autorelease];
    fakes::answer("sharedUpdater") = fake;
    fakes::answer("updaterForBundle:") = fake;
  }
  // The framework consists of FakeUpdater and its like, and answers FAKE to whoever asks. The
  // reference that the plug-in gives back is taken here.
  host::Object bound(const char* constructor = "Constructor") {
    loadFakes();
    [fake retain];
    return host::construct("SUUpdaterKVZ", constructor);
  }
  static void loadFakes() {
    EXPECT_TRUE(fakes::load({{"SUUpdater", [FakeUpdater class]},
                             {"SUAppcast", [FakeAppcast class]},
                             {"SUAppcastItem", [FakeItem class]}}));
    fakes::received();
  }
  // What every member of an instance without an updater does: nothing.
  static void expectUnbound(const host::Object& updater) {
    EXPECT_EQ(host::get<uint32_t>(updater, "Handle"), 0u);
    EXPECT_TRUE(host::getValue(updater, "_exception as NSExceptionKVZ").isNil());
    fakes::Spy spy;
    for (const Guarded& member : guardedMembers()) {
      SCOPED_TRACE(member.name);
      EXPECT_TRUE(isZero(member.call(updater)));
    }
    EXPECT_EQ(host::pendingExceptions(), 0u);
    for (const std::string& message : spy.messages())
      EXPECT_THAT(message, HasSubstr("[NSException ")) << "only the registry is asked for";
  }

  FakeUpdater* fake = nil;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Updater, session::everyInterface(), session::hostName);

// ---- The definition

TEST_P(Updater, DeclaresItsMembersInTheirOrder) {
  start();
  const host::Registered* type = host::registered("SUUpdaterKVZ");
  ASSERT_TRUE(type);
  using R = host::Registered;
  EXPECT_EQ(type->superName, "");
  EXPECT_THAT(
      type->declarations(R::methods),
      ElementsAre("InvokeUpdate", "_exception as NSExceptionKVZ", "feedURL as string",
                  "automaticallyChecksForUpdates as boolean", "sendsSystemProfile as boolean",
                  "automaticallyDownloadsUpdates as boolean", "checkForUpdatesInBackground",
                  "checkForUpdateInformation", "resetUpdateCycle", "updateInProgress as boolean",
                  "updateCheckInterval as double", "lastUpdateCheckDate as date", "checkForUpdates",
                  "Constructor", "Constructor(Bundle as folderitem)", "hostBundle as folderitem"));
  EXPECT_THAT(
      type->declarations(R::sharedMethods),
      ElementsAre("LoadFramework(path as folderitem) as boolean", "IsFrameworkLoaded as boolean"));
  EXPECT_THAT(type->declarations(R::events),
              ElementsAre("pathToRelaunchForUpdater as string",
                          "versionComparatorForUpdater as SUVersionComparisonKVZ",
                          "updaterWillRelaunchApplication", "updaterDidNotFindUpdate",
                          "updaterShouldPromptForPermissionToCheckForUpdates as boolean",
                          "didFindValidUpdate(update as SUAppcastItemKVZ)",
                          "willInstallUpdate(update as SUAppcastItemKVZ)",
                          "didFinishLoadingAppcast(update as SUAppcastKVZ)",
                          "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
                          "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                          "shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as "
                          "boolean"));
  EXPECT_THAT(type->declarations(R::properties), ElementsAre("Handle"));
  EXPECT_THAT(type->declarations(R::constants), IsEmpty());
  EXPECT_THAT(type->declarations(R::sharedProperties), IsEmpty());
}

TEST_P(Updater, OnlyTheAssignableMembersHaveASetter) {
  start();
  for (const char* declaration :
       {"feedURL as string", "automaticallyChecksForUpdates as boolean",
        "sendsSystemProfile as boolean", "automaticallyDownloadsUpdates as boolean",
        "updateCheckInterval as double"})
    EXPECT_TRUE(host::memberAddress("SUUpdaterKVZ", declaration, true)) << declaration;
  auto methods = host::registered("SUUpdaterKVZ")->table(host::Registered::methods);
  int setters = 0;
  for (uint32_t i = 0; i < methods.count; ++i) setters += methods[i][1] != 0;
  EXPECT_EQ(setters, 5);
}

// ---- Members of a bound instance

TEST_P(Updater, FlagsAreReadWithOneMessageEach) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const Flag& each : flags) {
    SCOPED_TRACE(each.declaration);
    for (bool yes : {true, false, true}) {
      fakes::flag(each.getter) = yes;
      EXPECT_EQ(host::get<bool>(updater, each.declaration), yes);
      EXPECT_THAT(fakes::received(), ElementsAre(each.getter));
    }
    fakes::flag(each.getter) = false;
  }
}

TEST_P(Updater, FlagsAreAssignedWithOneMessageEach) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const Flag& each : flags) {
    if (!each.setter) continue;
    SCOPED_TRACE(each.declaration);
    host::set(updater, each.declaration, true);
    EXPECT_THAT(fakes::received(), ElementsAre(std::string(each.setter) + " YES"));
    host::set(updater, each.declaration, false);
    EXPECT_THAT(fakes::received(), ElementsAre(std::string(each.setter) + " NO"));
  }
}

TEST_P(Updater, ActionsSendOneMessageEach) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const Action& each : actions) {
    host::call(updater, each.declaration);
    EXPECT_THAT(fakes::received(), ElementsAre(each.message));
  }
}

TEST_P(Updater, TheCheckIntervalCrossesUnchanged) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  using Limits = std::numeric_limits<double>;
  for (double seconds : {0.0, -1.0, 0.1, 3600.0, 86400.0, 1e300, Limits::denorm_min(),
                         Limits::infinity(), -Limits::infinity()}) {
    host::set(updater, "updateCheckInterval as double", seconds);
    EXPECT_EQ(fakes::state().interval, seconds);
    EXPECT_EQ(host::get<double>(updater, "updateCheckInterval as double"), seconds);
  }
  host::set(updater, "updateCheckInterval as double", Limits::quiet_NaN());
  EXPECT_TRUE(std::isnan(fakes::state().interval));
  EXPECT_TRUE(std::isnan(host::get<double>(updater, "updateCheckInterval as double")));
}

TEST_P(Updater, TheLastCheckIsAHostDateOrNil) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  EXPECT_TRUE(host::getValue(updater, "lastUpdateCheckDate as date").isNil());
  fakes::answer("lastUpdateCheckDate") = [NSCalendarDate dateWithYear:2021
                                                                month:3
                                                                  day:7
                                                                 hour:9
                                                               minute:5
                                                               second:30
                                                             timeZone:[NSTimeZone defaultTimeZone]];
  auto date = host::get<host::Object>(updater, "lastUpdateCheckDate as date");
  EXPECT_EQ(host::dateFields(date), (host::DateFields{2021, 3, 7, 9, 5, 30}));
  EXPECT_EQ(host::referenceCount(date), 1);
}

TEST_P(Updater, TheHostBundleIsAFolderItem) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  std::string path = session::frameworkPath();
  fakes::answer("hostBundle") =
      [NSBundle bundleWithPath:[NSString stringWithUTF8String:path.c_str()]];
  auto folder = host::get<host::Object>(updater, "hostBundle as folderitem");
  ASSERT_TRUE(folder);
  EXPECT_EQ(host::path(folder), path);
  EXPECT_EQ(host::referenceCount(folder), 1);
}

TEST_P(Updater, TheHostBundleIsNilWithoutABundleOrAPathOfIt) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  EXPECT_TRUE(host::getValue(updater, "hostBundle as folderitem").isNil());
  EXPECT_THAT(fakes::received(), ElementsAre("hostBundle"));
  fakes::answer("hostBundle") = [[FakeLink new] autorelease];
  EXPECT_TRUE(host::getValue(updater, "hostBundle as folderitem").isNil());
  EXPECT_THAT(fakes::received(), ElementsAre("hostBundle", "bundlePath"));
}

TEST_P(Updater, TheHostBundleIsNilWhenItsFolderCannotBe) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  fakes::answer("hostBundle") = [[FakeLink new] autorelease];
  fakes::answer("bundlePath") = @"/no/such/folder/anywhere";
  EXPECT_TRUE(host::getValue(updater, "hostBundle as folderitem").isNil());
}

TEST_P(Updater, TheExceptionMemberIsAlwaysNil) {
  start();
  host::Object empty = host::create("SUUpdaterKVZ");
  EXPECT_TRUE(host::getValue(empty, "_exception as NSExceptionKVZ").isNil());
  host::Object updater = bound();
  fakes::received();
  EXPECT_TRUE(host::getValue(updater, "_exception as NSExceptionKVZ").isNil());
  EXPECT_THAT(fakes::received(), IsEmpty());
}

// ---- The feed, whose text every host shows in its own way

class UpdaterFeed : public Updater {};
INSTANTIATE_TEST_SUITE_P(Hosts, UpdaterFeed, session::everyHost(), session::hostName);

TEST_P(UpdaterFeed, IsReadAsAbsoluteText) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  fakes::answer("feedURL") = [NSURL URLWithString:@"http://example.org/a%20b/feed.xml?x=1#y"];
  auto url = host::get<host::String>(updater, "feedURL as string");
  EXPECT_EQ(host::text(url), "http://example.org/a%20b/feed.xml?x=1#y");
  EXPECT_EQ(host::referenceCount(url), 1);
  EXPECT_THAT(fakes::received(), ElementsAre("feedURL"));

  fakes::answer("feedURL") =
      [NSURL URLWithString:@"feed.xml"
             relativeToURL:[NSURL URLWithString:@"http://example.org/updates/index.html"]];
  EXPECT_EQ(host::get<std::string>(updater, "feedURL as string"),
            "http://example.org/updates/feed.xml");
}

TEST_P(UpdaterFeed, IsNilWithoutAURLOrTextOfIt) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
  fakes::answer("feedURL") = [[FakeLink new] autorelease];
  fakes::received();
  EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
  EXPECT_THAT(fakes::received(), ElementsAre("feedURL", "absoluteString"));
  fakes::answer("absoluteString") = @"";
  EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
}

TEST_P(UpdaterFeed, IsAssignedAsAURL) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  host::set(updater, "feedURL as string", "http://example.org/feed.xml?a=b");
  host::set(updater, "feedURL as string", "feed.xml");
  EXPECT_THAT(fakes::received(),
              ElementsAre("setFeedURL: http://example.org/feed.xml?a=b", "setFeedURL: feed.xml"));
}

TEST_P(UpdaterFeed, IsClearedByNilAndByWhatIsNoURL) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const host::Value& text :
       {host::Value(nullptr), host::Value(""), host::Value("no url"), host::Value("http://ü.org"),
        host::Value("50%"), host::Value("http://example.org/\n")}) {
    SCOPED_TRACE(host::print(text));
    host::set(updater, "feedURL as string", text);
    EXPECT_THAT(fakes::received(), ElementsAre("setFeedURL: nil"));
  }
  EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
}

TEST_P(UpdaterFeed, IsClearedByTextThatCannotBeRead) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  host::makeAbsent("REALGetStringCFString");
  host::set(updater, "feedURL as string", host::string("http://example.org/\xFF\xFE"));
  EXPECT_THAT(fakes::received(), ElementsAre("setFeedURL: nil"));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(UpdaterFeed, KeepsNoReferenceOnTheTextOrTheURL) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  host::String text = host::string("http://example.org/feed.xml");
  host::set(updater, "feedURL as string", text);
  EXPECT_EQ(host::referenceCount(text), 1);
}

TEST_P(UpdaterFeed, SurvivesTheRoadThroughTheFramework) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  host::set(updater, "feedURL as string", "http://example.org/feed.xml");
  EXPECT_EQ(host::get<std::string>(updater, "feedURL as string"), "http://example.org/feed.xml");
}

TEST_P(UpdaterFeed, OfTheFrameworkRaisesWhileNoneIsSet) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  host::set(updater, "feedURL as string", nullptr);
  EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->className, "NSExceptionKVZ");
  EXPECT_EQ(raised->count, 1u);
  EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("A SUNoFeedURL: ")));
}

// ---- Exceptions out of the framework

TEST_P(Updater, AnExceptionInAnyMemberArrivesOnceAndTheMemberAnswersZero) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const Flag& each : flags) fakes::flag(each.getter) = true;
  fakes::state().interval = 5;
  fakes::answer("feedURL") = [[FakeLink new] autorelease];
  fakes::answer("hostBundle") = [[FakeLink new] autorelease];
  std::vector<Guarded> members = guardedMembers();
  Guarded text = reading("feedURL as string", "absoluteString");
  Guarded path = reading("hostBundle as folderitem", "bundlePath");
  members.insert(members.end(), {text, path});
  for (const Guarded& member : members) {
    SCOPED_TRACE(member.name + ": " + member.selector);
    session::takeLog();
    fakes::on(member.selector) = [] { fakes::raise(); };
    EXPECT_TRUE(isZero(member.call(updater)));
    expectOneException("NSExceptionKVZ", "by the test");
    EXPECT_THAT(session::takeLog(), ElementsAre(HasSubstr("A Refused: by the test, Info: ")));
    fakes::on(member.selector) = nullptr;
  }
}

TEST_P(Updater, WhatIsNoExceptionPassesOnThroughAnyMember) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  for (const Guarded& member : guardedMembers()) {
    SCOPED_TRACE(member.name);
    fakes::on(member.selector) = [] { fakes::throwOther(); };
    host::Thrown thrown = host::catching([&] { member.call(updater); });
    EXPECT_EQ(thrown.object, fakes::thrownObject());
    EXPECT_EQ(host::pendingExceptions(), 0u);
    fakes::on(member.selector) = nullptr;
  }
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Updater, EveryFailingMessageOfEveryMemberIsReported) {
  start();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  fakes::answer("feedURL") = [NSURL URLWithString:@"http://example.org/"];
  fakes::answer("lastUpdateCheckDate") = [NSDate dateWithTimeIntervalSinceReferenceDate:0];
  fakes::answer("hostBundle") = [NSBundle mainBundle];
  for (const Guarded& member : guardedMembers()) {
    SCOPED_TRACE(member.name);
    host::Value value;
    unsigned messages = fakes::failEachMessage([] {}, [&] { value = member.call(updater); },
                                               [&] { EXPECT_TRUE(isZero(value)); });
    EXPECT_GE(messages, 1u);
  }
}

// ---- Binding

struct Constructor {
  const char* declaration;
  bool takesBundle;
};
const Constructor constructors[] = {{"Constructor", false},
                                    {"Constructor(Bundle as folderitem)", true}};

void callConstructor(const host::Object& updater, const Constructor& constructor) {
  if (constructor.takesBundle)
    host::call(updater, constructor.declaration, host::folderItem(session::frameworkPath()));
  else
    host::call(updater, constructor.declaration);
}

TEST_P(Updater, ConstructorBindsTheSharedUpdater) {
  start();
  loadFakes();
  [fake retain];
  host::Object updater = host::create("SUUpdaterKVZ");
  NSUInteger references = [fake retainCount];
  bool delegateStoodFirst = false;
  fakes::on("sharedUpdater") = [&] { delegateStoodFirst = delegateOf(updater) != nil; };
  host::call(updater, "Constructor");
  EXPECT_TRUE(delegateStoodFirst);
  EXPECT_THAT(fakes::received(),
              ElementsAre("sharedUpdater", std::string("setDelegate: ") + delegateClass));
  EXPECT_EQ(fakes::wrapped(updater), fake);
  EXPECT_EQ([fake retainCount], references) << "the reference handed out is not retained";
  EXPECT_EQ(fakes::state().delegate, delegateOf(updater));
  EXPECT_EQ([delegateOf(updater) retainCount], 1u);
  EXPECT_EQ(fakes::registered(fake), updater.handle());
  EXPECT_EQ(host::referenceCount(updater), 1) << "neither delegate nor registry hold the instance";
}

TEST_P(Updater, ConstructorWithABundleAsksForTheUpdaterOfThatBundle) {
  start();
  loadFakes();
  [fake retain];
  host::Object folder = host::folderItem(session::frameworkPath());
  host::Object updater =
      host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)", folder);
  EXPECT_THAT(fakes::received(), ElementsAre("updaterForBundle: " + session::frameworkPath(),
                                             std::string("setDelegate: ") + delegateClass));
  EXPECT_EQ(fakes::wrapped(updater), fake);
  EXPECT_EQ(fakes::state().delegate, delegateOf(updater));
  EXPECT_EQ(fakes::registered(fake), updater.handle());
  EXPECT_EQ(host::referenceCount(folder), 1);
}

TEST_P(Updater, ConstructorWithANilBundleAsksForTheUpdaterOfANilBundle) {
  start();
  loadFakes();
  [fake retain];
  host::Object updater =
      host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)", nullptr);
  EXPECT_THAT(fakes::received(),
              ElementsAre("updaterForBundle: nil", std::string("setDelegate: ") + delegateClass));
  EXPECT_EQ(fakes::wrapped(updater), fake);
}

TEST_P(Updater, ConstructorWithAMissingFolderAsksForTheUpdaterOfANilBundle) {
  start();
  loadFakes();
  [fake retain];
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)",
                                         host::folderItem(session::folder() + "/no such bundle"));
  EXPECT_EQ(fakes::received().front(), "updaterForBundle: nil");
}

TEST_P(Updater, ConstructorWithAFolderThatHasNoURLAsksForTheUpdaterOfANilBundle) {
  start();
  loadFakes();
  [fake retain];
  host::makeAbsent("REALFSRefFromFolderItem");
  host::makeAbsent("REALFSSpecFromFolderItem");
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)",
                                         host::folderItem(session::frameworkPath()));
  EXPECT_EQ(fakes::received().front(), "updaterForBundle: nil");
}

TEST_P(Updater, ASecondConstructorRaisesAndKeepsTheFirstBinding) {
  start();
  loadFakes();
  for (const Constructor& first : constructors)
    for (const Constructor& second : constructors) {
      SCOPED_TRACE(std::string(first.declaration) + ", then " + second.declaration);
      [fake retain];
      host::Object updater = host::create("SUUpdaterKVZ");
      callConstructor(updater, first);
      id delegate = delegateOf(updater);
      fakes::received();
      callConstructor(updater, second);
      expectOneException("UnsupportedOperationException", constructedTwice);
      EXPECT_THAT(fakes::received(), IsEmpty());
      EXPECT_EQ(fakes::wrapped(updater), fake);
      EXPECT_EQ(delegateOf(updater), delegate);
      EXPECT_EQ(fakes::state().delegate, delegate);
      EXPECT_EQ(fakes::registered(fake), updater.handle());
    }
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Updater, AConstructorOnAHandleThatWasAssignedRaises) {
  start();
  loadFakes();
  host::Object updater = fakes::wrapping("SUUpdaterKVZ", fake);
  host::call(updater, "Constructor");
  expectOneException("UnsupportedOperationException", constructedTwice);
  EXPECT_EQ(delegateOf(updater), nil);
}

TEST_P(Updater, IsEmptyBeforeItsConstructor) {
  start();
  loadFakes();
  host::Object updater = host::create("SUUpdaterKVZ");
  EXPECT_EQ(delegateOf(updater), nil);
  expectUnbound(updater);
  EXPECT_THAT(fakes::received(), IsEmpty());
}

TEST_P(Updater, ConstructorBeforeTheFrameworkIsLoadedLeavesItHalfBound) {
  start();
  for (const Constructor& constructor : constructors) {
    SCOPED_TRACE(constructor.declaration);
    host::Object updater = host::create("SUUpdaterKVZ");
    callConstructor(updater, constructor);
    EXPECT_NE(delegateOf(updater), nil);
    EXPECT_EQ(host::pendingExceptions(), 0u);
    EXPECT_FALSE(host::get<host::String>(updater, "feedURL as string"));
    EXPECT_EQ(host::get<double>(updater, "updateCheckInterval as double"), 0.0);
    EXPECT_FALSE(host::get<bool>(updater, "updateInProgress as boolean"));
    EXPECT_FALSE(host::get<host::Object>(updater, "hostBundle as folderitem"));
    expectUnbound(updater);
  }
}

TEST_P(Updater, ConstructorOfAFrameworkWithoutAnUpdaterLeavesItHalfBound) {
  start();
  loadFakes();
  fakes::answer("sharedUpdater") = fakes::answer("updaterForBundle:") = nil;
  for (const Constructor& constructor : constructors) {
    SCOPED_TRACE(constructor.declaration);
    host::Object updater = host::create("SUUpdaterKVZ");
    callConstructor(updater, constructor);
    EXPECT_NE(delegateOf(updater), nil);
    EXPECT_EQ(fakes::registered(nil), nullptr);
    expectUnbound(updater);
  }
}

TEST_P(Updater, AHalfBoundInstanceTakesAnotherConstructorAndLosesItsFirstDelegate) {
  start();
  for (const Constructor& constructor : constructors) {
    SCOPED_TRACE(constructor.declaration);
    fakes::answer("sharedUpdater") = fakes::answer("updaterForBundle:") = nil;
    session::Unreported firstDelegates;
    host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
    id first = delegateOf(updater);
    if (fakes::frameworkClasses().empty()) loadFakes();
    callConstructor(updater, constructor);
    id second = delegateOf(updater);
    EXPECT_NE(second, first);
    fakes::answer("sharedUpdater") = fakes::answer("updaterForBundle:") = fake;
    [fake retain];
    callConstructor(updater, constructor);
    EXPECT_EQ(host::pendingExceptions(), 0u);
    EXPECT_EQ(fakes::wrapped(updater), fake);
    EXPECT_EQ(fakes::state().delegate, delegateOf(updater));
    EXPECT_NE(delegateOf(updater), second);
    EXPECT_EQ([first retainCount], 1u) << "replaced without a release";
    EXPECT_EQ([second retainCount], 1u) << "replaced without a release";
  }
}

TEST_P(Updater, WorksWithoutARegistry) {
  session::start(GetParam(), {.companion = false});
  fake = [[FakeUpdater new] autorelease];
  fakes::answer("sharedUpdater") = fake;
  host::Object updater = bound();
  EXPECT_EQ(fakes::wrapped(updater), fake);
  host::set(updater, "sendsSystemProfile as boolean", true);
  updater.reset();
  EXPECT_THAT(fakes::received(),
              ElementsAre("sharedUpdater", std::string("setDelegate: ") + delegateClass,
                          "setSendsSystemProfile: YES", "setDelegate: nil"));
}

TEST_P(Updater, AnExceptionInAConstructorKeepsWhatWasDone) {
  start();
  loadFakes();
  fakes::on("sharedUpdater") = [] { fakes::raise(); };
  session::Unreported firstDelegate; // replaced by the second call's
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  expectOneException("NSExceptionKVZ", "by the test");
  EXPECT_EQ(host::get<uint32_t>(updater, "Handle"), 0u);
  EXPECT_NE(delegateOf(updater), nil);
  EXPECT_EQ(fakes::registered(fake), nullptr);

  fakes::on("sharedUpdater") = nullptr;
  fakes::on("setDelegate:") = [] { fakes::raise(); };
  [fake retain];
  host::call(updater, "Constructor");
  expectOneException("NSExceptionKVZ", "by the test");
  EXPECT_EQ(fakes::wrapped(updater), fake);
  EXPECT_EQ(fakes::registered(fake), nullptr);
  fakes::on("setDelegate:") = nullptr;

  host::call(updater, "Constructor");
  expectOneException("UnsupportedOperationException", constructedTwice);
}

TEST_P(Updater, EveryFailingMessageOfAConstructorIsReported) {
  start();
  loadFakes();
  for (const Constructor& constructor : constructors) {
    SCOPED_TRACE(constructor.declaration);
    host::Object updater;
    unsigned messages = fakes::failEachMessage(
        [&] {
          if (updater && fakes::wrapped(updater)) [fake retain];
          updater.reset();
          updater = host::create("SUUpdaterKVZ");
        },
        [&] { callConstructor(updater, constructor); }, [] {});
    EXPECT_GE(messages, 5u) << "alloc, initWithTarget:, init, the updater, setDelegate:";
    [fake retain];
  }
}

TEST_P(Updater, BothConstructorsGiveTheFrameworksOneUpdaterOfTheMainBundle) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object shared = host::construct("SUUpdaterKVZ", "Constructor");
  host::Object ofNil =
      host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)", nullptr);
  host::Object other = host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)",
                                       host::folderItem(session::frameworkPath("WithoutItem")));
  EXPECT_EQ(fakes::wrapped(shared), fakes::wrapped(ofNil));
  EXPECT_NE(fakes::wrapped(shared), fakes::wrapped(other));
  EXPECT_EQ(host::path(host::get<host::Object>(other, "hostBundle as folderitem")),
            session::frameworkPath("WithoutItem"));
}

// ---- Handle

TEST_P(Updater, AnAssignedHandleIsNeitherRetainedNorRegistered) {
  start();
  host::Object updater = bound();
  FakeUpdater* other = [[FakeUpdater new] autorelease];
  NSUInteger ofFake = [fake retainCount], ofOther = [other retainCount];
  fakes::received();
  host::set(updater, "Handle", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(other)));
  EXPECT_THAT(fakes::received(), IsEmpty());
  EXPECT_EQ([fake retainCount], ofFake);
  EXPECT_EQ([other retainCount], ofOther);
  EXPECT_EQ(fakes::registered(fake), updater.handle());
  EXPECT_EQ(fakes::registered(other), nullptr);
  host::call(updater, "checkForUpdates");
  EXPECT_THAT(fakes::received(), ElementsAre("checkForUpdates: nil"));

  [other retain];
  updater.reset();
  EXPECT_EQ([other retainCount], ofOther) << "the destructor releases what it finds";
  EXPECT_EQ([fake retainCount], ofFake);
  [fake release];
}

// ---- Destruction

TEST_P(Updater, DestructionDetachesThenReleasesTheUpdaterThenTheDelegate) {
  start();
  host::Object updater = bound();
  id delegate = delegateOf(updater);
  NSUInteger references = [fake retainCount];
  const void* registeredThen = updater.handle();
  fakes::on("setDelegate:") = [&] { registeredThen = fakes::registered(fake); };
  fakes::Spy spy;
  updater.reset();
  std::string d = std::string("-[") + delegateClass;
  EXPECT_THAT(spy.messages(), ElementsAre("-[FakeUpdater setDelegate:]", "-[FakeUpdater release]",
                                          d + " release]", d + " dealloc]"));
  EXPECT_EQ(registeredThen, nullptr) << "the registry forgets first";
  EXPECT_EQ(fakes::state().delegate, nil);
  EXPECT_NE(delegate, nil);
  EXPECT_EQ([fake retainCount], references - 1);
}

TEST_P(Updater, DestructionEmptiesTheRecord) {
  start();
  host::Object updater = bound();
  constexpr size_t destructorWord = 6;
  uint32_t destructor = host::registered("SUUpdaterKVZ")->words[destructorWord];
  auto argument = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(updater.handle()));
  crossing_enter(reinterpret_cast<void*>(uintptr_t(destructor)), &argument, 1);
  EXPECT_EQ(fakes::wrapped(updater), nil);
  EXPECT_EQ(delegateOf(updater), nil);
}

TEST_P(Updater, DestructionOfAHalfBoundInstanceReleasesTheDelegate) {
  start();
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  fakes::Spy spy;
  updater.reset();
  std::string d = std::string("-[") + delegateClass;
  EXPECT_THAT(spy.messages(), ElementsAre(d + " release]", d + " dealloc]"));
}

TEST_P(Updater, DestructionReleasesAKeptInvocation) {
  start();
  host::Object updater = bound();
  FakeInvocation* invocation = [FakeInvocation new];
  postpone(delegateOf(updater), invocation);
  [invocation release];
  EXPECT_EQ(fakes::freed(), 0u);
  updater.reset();
  EXPECT_EQ(fakes::freed(), 1u);
}

TEST_P(Updater, DestructionLeavesTheFrameworksUpdaterWithoutADelegate) {
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  id framework = fakes::wrapped(updater);
  EXPECT_EQ([framework delegate], delegateOf(updater));
  updater.reset();
  EXPECT_EQ([framework delegate], nil);
  EXPECT_EQ(fakes::registered(framework), nullptr);
}

TEST_P(Updater, EveryFailingMessageOfDestructionIsReported) {
  start();
  loadFakes();
  host::Object updater;
  session::Unreported delegates; // which an ended destructor has not got to
  unsigned messages = fakes::failEachMessage(
      [&] {
        [fake retain];
        updater = host::construct("SUUpdaterKVZ", "Constructor");
      },
      [&] { updater.reset(); }, [] {});
  EXPECT_EQ(messages, 4u) << "setDelegate:, release, release of the delegate, its dealloc";
}

TEST_P(Updater, WhatIsNoExceptionPassesOnThroughDestruction) {
  start();
  session::Unreported delegate; // which the ended destructor has not got to
  host::Object updater = bound();
  fakes::on("setDelegate:") = [] { fakes::throwOther(); };
  host::Thrown thrown = host::catching([&] { updater.reset(); });
  EXPECT_EQ(thrown.object, fakes::thrownObject());
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

// ---- Several instances of one updater

TEST_P(Updater, SharingLeavesDelegateAndRegistryToTheInstanceConstructedLast) {
  start();
  host::Object first = bound();
  [fake retain];
  host::Object second = host::construct("SUUpdaterKVZ", "Constructor");
  EXPECT_EQ(fakes::wrapped(first), fakes::wrapped(second));
  EXPECT_NE(delegateOf(first), delegateOf(second));
  EXPECT_EQ(fakes::state().delegate, delegateOf(second));
  EXPECT_EQ(fakes::registered(fake), second.handle());
}

TEST_P(Updater, DestroyingEitherSharingInstanceDetachesTheUpdater) {
  start();
  loadFakes();
  for (bool firstGoes : {true, false}) {
    [[fake retain] retain];
    host::Object first = host::construct("SUUpdaterKVZ", "Constructor");
    host::Object second = host::construct("SUUpdaterKVZ", "Constructor");
    NSUInteger references = [fake retainCount];
    host::Object& going = firstGoes ? first : second;
    host::Object& staying = firstGoes ? second : first;
    going.reset();
    EXPECT_EQ(fakes::state().delegate, nil);
    EXPECT_EQ([fake retainCount], references - 1);
    EXPECT_EQ(fakes::registered(fake), nullptr);
    fakes::received();
    host::call(staying, "checkForUpdates");
    EXPECT_THAT(fakes::received(), ElementsAre("checkForUpdates: nil"));
    staying.reset();
    EXPECT_EQ([fake retainCount], references - 2);
  }
}

// ---- Completing a postponed relaunch

TEST_P(Updater, InvokeUpdateOfAnEmptyInstanceDoesNothing) {
  start();
  host::Object updater = host::create("SUUpdaterKVZ");
  host::call(updater, "InvokeUpdate");
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Updater, InvokeUpdateWithoutAPostponedRelaunchRaises) {
  start();
  host::Object halfBound = host::construct("SUUpdaterKVZ", "Constructor");
  host::call(halfBound, "InvokeUpdate");
  expectOneException("NilObjectException", "invocation is nil!");
  host::Object updater = bound();
  host::call(updater, "InvokeUpdate");
  expectOneException("NilObjectException", "invocation is nil!");
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Updater, InvokeUpdateInvokesOnceAndReleases) {
  start();
  host::Object updater = bound();
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  postpone(delegateOf(updater), invocation);
  EXPECT_EQ([invocation retainCount], 2u);
  fakes::received();
  host::call(updater, "InvokeUpdate");
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
  EXPECT_EQ([invocation retainCount], 1u);
  EXPECT_EQ(host::pendingExceptions(), 0u);

  host::call(updater, "InvokeUpdate");
  expectOneException("NilObjectException", "invocation is nil!");
  EXPECT_THAT(fakes::received(), IsEmpty());

  postpone(delegateOf(updater), invocation);
  host::call(updater, "InvokeUpdate");
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
  EXPECT_EQ(host::pendingExceptions(), 0u);
}

TEST_P(Updater, InvokeUpdateInvokesTheLastOfTwoPostponedRelaunches) {
  start();
  host::Object updater = bound();
  FakeInvocation* first = [FakeInvocation new];
  FakeInvocation* second = [[FakeInvocation new] autorelease];
  postpone(delegateOf(updater), first);
  [first release];
  EXPECT_EQ(fakes::freed(), 0u);
  postpone(delegateOf(updater), second);
  EXPECT_EQ(fakes::freed(), 1u);
  EXPECT_EQ([second retainCount], 2u);
  host::call(updater, "InvokeUpdate");
  EXPECT_EQ([second retainCount], 1u);
}

TEST_P(Updater, AnExceptionWhileInvokingLeavesTheInvocationInPlace) {
  start();
  host::Object updater = bound();
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  postpone(delegateOf(updater), invocation);
  fakes::on("invoke") = [] { fakes::raise(); };
  host::call(updater, "InvokeUpdate");
  expectOneException("NSExceptionKVZ", "by the test");
  EXPECT_EQ([invocation retainCount], 2u);

  fakes::on("invoke") = [] { fakes::throwOther(); };
  EXPECT_EQ(host::callCatching(updater, "InvokeUpdate").thrown.object, fakes::thrownObject());
  EXPECT_EQ([invocation retainCount], 2u);

  fakes::on("invoke") = nullptr;
  fakes::received();
  host::call(updater, "InvokeUpdate");
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
  EXPECT_EQ([invocation retainCount], 1u);
}

TEST_P(Updater, ARelaunchPostponedWhileOneIsInvokedWaitsForTheNextInvokeUpdate) {
  start();
  for (bool raising : {false, true}) {
    SCOPED_TRACE(raising ? "raising" : "returning");
    host::Object updater = bound();
    FakeInvocation* first = [[FakeInvocation new] autorelease];
    FakeInvocation* second = [[FakeInvocation new] autorelease];
    postpone(delegateOf(updater), first);
    fakes::on("invoke") = [&] {
      postpone(delegateOf(updater), second);
      if (raising) fakes::raise();
    };
    host::call(updater, "InvokeUpdate");
    EXPECT_EQ(host::takeExceptions().size(), raising ? 1u : 0u);
    fakes::on("invoke") = nullptr;
    EXPECT_EQ([first retainCount], 1u);
    EXPECT_EQ([second retainCount], 2u);
    host::call(updater, "InvokeUpdate");
    EXPECT_EQ([second retainCount], 1u);
    EXPECT_EQ(host::pendingExceptions(), 0u);
  }
}

// Calls it as a host does that holds no reference on the instance meanwhile.
host::Thrown invokeUpdate(const host::Object& updater) {
  auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(updater.handle()));
  return host::catching([word] {
    uint32_t argument = word;
    crossing_enter(host::memberAddress("SUUpdaterKVZ", "InvokeUpdate"), &argument, 1);
  });
}

// A relaunch quits the program, which then lets go of what it has.
TEST_P(Updater, MayGoWhileItsRelaunchIsInvoked) {
  start();
  const std::function<void()> ends[] = {[] {}, [] { fakes::raise(); }, [] { fakes::throwOther(); }};
  for (auto& end : ends) {
    SCOPED_TRACE(&end - ends);
    host::Object updater = bound();
    FakeInvocation* invocation = [[FakeInvocation new] autorelease];
    postpone(delegateOf(updater), invocation);
    bool gone = false;
    fakes::on("invoke") = [&] {
      updater.reset();
      gone = !host::ledger().alive.count("SUUpdaterKVZ");
      end();
    };
    fakes::Spy spy;
    host::Thrown thrown = invokeUpdate(updater);
    EXPECT_TRUE(gone);
    EXPECT_EQ(bool(thrown), &end == &ends[2]);
    EXPECT_EQ(host::takeExceptions().size(), &end == &ends[1] ? 1u : 0u);
    EXPECT_EQ([invocation retainCount], 1u);
    EXPECT_EQ(spy.count(std::string("-[") + delegateClass + " dealloc]"), 1);
    EXPECT_EQ(host::ledger(), host::Ledger{});
  }
}

TEST_P(Updater, MayGoAfterPostponingAgainWhileItsRelaunchIsInvoked) {
  start();
  for (bool raising : {false, true}) {
    SCOPED_TRACE(raising ? "raising" : "returning");
    host::Object updater = bound();
    FakeInvocation* first = [[FakeInvocation new] autorelease];
    FakeInvocation* second = [[FakeInvocation new] autorelease];
    postpone(delegateOf(updater), first);
    fakes::on("invoke") = [&] {
      postpone(delegateOf(updater), second);
      updater.reset();
      if (raising) fakes::raise();
    };
    invokeUpdate(updater);
    EXPECT_EQ(host::takeExceptions().size(), raising ? 1u : 0u);
    EXPECT_EQ([first retainCount], 1u);
    EXPECT_EQ([second retainCount], 1u);
  }
}

// ---- The registry and the shared initialisation

class UpdaterRegistry : public Updater {
protected:
  // The registry is not there yet when the host starts.
  void startAlone() {
    session::start(GetParam(), {.companion = false});
    fake = [[FakeUpdater new] autorelease];
    fakes::answer("sharedUpdater") = fakes::answer("updaterForBundle:") = fake;
  }
};
INSTANTIATE_TEST_SUITE_P(Host, UpdaterRegistry, session::oneHost(), session::hostName);

TEST_P(UpdaterRegistry, DestroyingAnEmptyInstanceStillRemovesTheNilKey) {
  startAlone();
  fakes::offerRegistry();
  host::Object updater = host::create("SUUpdaterKVZ");
  updater.reset();
  EXPECT_THAT(fakes::received(), ElementsAre("registry: remove nil"));
}

TEST_P(UpdaterRegistry, IsWrittenAfterBindingAndForgetsBeforeDetaching) {
  startAlone();
  fakes::offerRegistry();
  host::Object updater = bound();
  EXPECT_EQ([fakes::registry() objectForKey:fake], static_cast<id>(updater.handle()));
  updater.reset();
  std::string attach = std::string("setDelegate: ") + delegateClass;
  EXPECT_THAT(fakes::received(), ElementsAre("sharedUpdater", attach, "registry: set FakeUpdater",
                                             "registry: remove FakeUpdater", "setDelegate: nil"));
}

TEST_P(UpdaterRegistry, IsNotWrittenWithoutAnUpdater) {
  startAlone();
  fakes::offerRegistry();
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  EXPECT_THAT(fakes::received(), IsEmpty());
  updater.reset();
  EXPECT_THAT(fakes::received(), ElementsAre("registry: remove nil"));
}

TEST_P(UpdaterRegistry, SomeMembersRunTheSharedInitialisation) {
  startAlone();
  fakes::offerRegistry(nil);
  host::Object updater;
  auto initialises = [](const std::function<void()>& body) { return fakes::initialisations(body); };
  EXPECT_EQ(initialises([&] { updater = host::create("SUUpdaterKVZ"); }), 1u);
  EXPECT_EQ(initialises([&] { host::call(updater, "InvokeUpdate"); }), 1u);
  {
    session::Unreported firstDelegate; // replaced by the second call's
    EXPECT_EQ(initialises([&] { host::call(updater, "Constructor"); }), 1u);
  }
  EXPECT_EQ(initialises([&] { callConstructor(updater, constructors[1]); }), 1u);
  for (bool isBound : {false, true}) {
    if (isBound) updater = fakes::wrapping("SUUpdaterKVZ", fake);
    for (const Guarded& member : guardedMembers()) {
      bool expected = member.selector == "hostBundle" || member.selector == "checkForUpdates:";
      EXPECT_EQ(initialises([&] { member.call(updater); }), expected ? 1u : 0u) << member.name;
    }
    EXPECT_EQ(initialises([&] { host::getValue(updater, "_exception as NSExceptionKVZ"); }), 0u);
  }
}

} // namespace
