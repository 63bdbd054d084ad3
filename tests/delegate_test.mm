// The delegate: what the framework reports and asks becomes events of the host program.
#include "fakes.h"
#include "session.h"

#include "SUUpdaterDelegate.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const char delegateClass[] = "MySUUpdaterDelegateInformalProtocol";

const char pathToRelaunch[] = "pathToRelaunchForUpdater as string";
const char versionComparator[] = "versionComparatorForUpdater as SUVersionComparisonKVZ";
const char willRelaunch[] = "updaterWillRelaunchApplication";
const char didNotFind[] = "updaterDidNotFindUpdate";
const char shouldPrompt[] = "updaterShouldPromptForPermissionToCheckForUpdates as boolean";
const char didFind[] = "didFindValidUpdate(update as SUAppcastItemKVZ)";
const char willInstall[] = "willInstallUpdate(update as SUAppcastItemKVZ)";
const char didFinishLoading[] = "didFinishLoadingAppcast(update as SUAppcastKVZ)";
const char bestValid[] = "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ";
const char feedParameters[] = "feedParametersForUpdater(sendingProfile as boolean) as dictionary()";
const char shouldPostpone[] =
    "shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean";

// A callback that only reports, with the object that it carries to the main thread.
struct Report {
  const char* event;
  const char* selector;
  const char* half;        // of the main thread
  const char* wrapperName; // of the handler's argument; null when it has none
  void (*send)(id delegate, id object);
};
const Report reports[] = {
    {didFinishLoading, "updater:didFinishLoadingAppcast:",
     "updater_didFinishLoadingAppcast_on_mail_thread:", "SUAppcastKVZ",
     [](id delegate, id object) { [delegate updater:nil didFinishLoadingAppcast:object]; }},
    {willInstall,
     "updater:willInstallUpdate:", "updater_willInstallUpdate_on_mail_thread:", "SUAppcastItemKVZ",
     [](id delegate, id object) { [delegate updater:nil willInstallUpdate:object]; }},
    {didFind, "updater:didFindValidUpdate:", "updater_didFindValidUpdate_on_mail_thread:",
     "SUAppcastItemKVZ",
     [](id delegate, id object) { [delegate updater:nil didFindValidUpdate:object]; }},
    {didNotFind, "updaterDidNotFindUpdate:", "updaterDidNotFindUpdate_on_mail_thread:", nullptr,
     [](id delegate, id object) { [delegate updaterDidNotFindUpdate:object]; }},
    {willRelaunch,
     "updaterWillRelaunchApplication:", "updaterWillRelaunchApplication_on_mail_thread:", nullptr,
     [](id delegate, id object) { [delegate updaterWillRelaunchApplication:object]; }},
};

// Callbacks that are claimed only while their event has a handler.
struct Claim {
  const char* selector;
  const char* event;
};
const Claim claims[] = {
    {"pathToRelaunchForUpdater:", pathToRelaunch},
    {"versionComparatorForUpdater:", versionComparator},
    {"updaterWillRelaunchApplication:", willRelaunch},
    {"updaterDidNotFindUpdate:", didNotFind},
    {"updaterShouldPromptForPermissionToCheckForUpdates:", shouldPrompt},
    {"updater:didFindValidUpdate:", didFind},
    {"updater:willInstallUpdate:", willInstall},
    {"updater:didFinishLoadingAppcast:", didFinishLoading},
    {"bestValidUpdateInAppcast:forUpdater:", bestValid},
};
const char* const alwaysClaimed[] = {
    "feedParametersForUpdater:sendingSystemProfile:",
    "updater:shouldPostponeRelaunchForUpdate:untilInvoking:",
};

// A handler of any event that answers its empty value.
host::Handler emptyHandler(const std::string& event) {
  if (event.ends_with(" as boolean")) return [](host::Event&) { return false; };
  if (event.ends_with(" as string")) return [](host::Event&) { return host::String(); };
  if (event.find(") as ") != std::string::npos || event.find(" as SU") != std::string::npos)
    return [](host::Event& event) -> host::Value {
      bool answers = event.declaration.find("update as") == std::string::npos;
      return answers ? host::Value(host::Object()) : host::Value();
    };
  return [](host::Event&) {};
}

const char* const allEvents[] = {pathToRelaunch, versionComparator, willRelaunch,  didNotFind,
                                 shouldPrompt,   didFind,           willInstall,   didFinishLoading,
                                 bestValid,      feedParameters,    shouldPostpone};

struct Place {
  const char* name;
  bool (*run)(const std::function<void()>& body);
};
const Place places[] = {{"main",
                         [](const std::function<void()>& body) {
                           body();
                           return true;
                         }},
                        {"worker", fakes::onWorker}};

class Delegate : public session::Test {
protected:
  // An instance of a host class with these handlers, and its delegate.
  void start(host::Handlers handlers = {}, session::Options options = {}) {
    session::Test::start(options);
    host::subclass("MyUpdater", "SUUpdaterKVZ", std::move(handlers));
    ASSERT_TRUE(fakes::load({{"SUUpdater", [FakeUpdater class]},
                             {"SUAppcast", [FakeAppcast class]},
                             {"SUAppcastItem", [FakeItem class]}}));
    fakes::answer("sharedUpdater") = [FakeUpdater new]; // released with the instance
    updater = host::construct("MyUpdater", "Constructor");
    delegate = fakes::state().delegate;
    item = [[FakeItem new] autorelease];
    appcast = [[FakeAppcast new] autorelease];
    fakes::received();
  }
  void TearDown() override {
    updater.reset();
    session::Test::TearDown();
  }
  // What a report carries.
  id objectOf(const Report& report) {
    if (!report.wrapperName) return fakes::wrapped(updater);
    return std::string(report.wrapperName) == "SUAppcastKVZ" ? appcast : item;
  }

  BOOL postpone(id invocation) {
    return [delegate updater:nil
        shouldPostponeRelaunchForUpdate:item
                          untilInvoking:static_cast<NSInvocation*>(invocation)];
  }

  host::Object updater;
  id delegate = nil;
  id item = nil;
  id appcast = nil;
};
INSTANTIATE_TEST_SUITE_P(Hosts, Delegate, session::everyInterface(), session::hostName);

// ---- The class

TEST_P(Delegate, HasTheMethodsOfItsProtocolWithTheirTypes) {
  start();
  const struct {
    const char* selector;
    const char* types; // result, receiver, selector, arguments
  } methods[] = {
      {"feedParametersForUpdater:sendingSystemProfile:", "@@:@c"},
      {"updater:shouldPostponeRelaunchForUpdate:untilInvoking:", "c@:@@@"},
      {"copyWithZone:", "@@:^{_NSZone=}"},
      {"initWithTarget:", "@@:^{REALobjectStruct=}"},
      {"bestValidUpdateInAppcast:forUpdater:", "@@:@@"},
      {"updater_didFinishLoadingAppcast_on_mail_thread:", "v@:@"},
      {"updater:didFinishLoadingAppcast:", "v@:@@"},
      {"updater_willInstallUpdate_on_mail_thread:", "v@:@"},
      {"updater:willInstallUpdate:", "v@:@@"},
      {"updater_didFindValidUpdate_on_mail_thread:", "v@:@"},
      {"updater:didFindValidUpdate:", "v@:@@"},
      {"updaterShouldPromptForPermissionToCheckForUpdates:", "c@:@"},
      {"updaterDidNotFindUpdate_on_mail_thread:", "v@:@"},
      {"updaterDidNotFindUpdate:", "v@:@"},
      {"updaterWillRelaunchApplication_on_mail_thread:", "v@:@"},
      {"updaterWillRelaunchApplication:", "v@:@"},
      {"versionComparatorForUpdater:", "@@:@"},
      {"pathToRelaunchForUpdater:", "@@:@"},
      {"dealloc", "v@:"},
      {"respondsToSelector:", "c@::"},
  };
  Class type = object_getClass(delegate);
  EXPECT_STREQ(class_getName(type), delegateClass);
  EXPECT_EQ(class_getSuperclass(type), [NSObject class]);
  unsigned count = 0;
  Method* own = class_copyMethodList(type, &count);
  EXPECT_EQ(count, std::size(methods));
  for (auto& each : methods) {
    SCOPED_TRACE(each.selector);
    bool found = false;
    for (unsigned i = 0; i < count; ++i) {
      if (strcmp(sel_getName(method_getName(own[i])), each.selector)) continue;
      found = true;
      std::string types;
      for (const char* at = method_getTypeEncoding(own[i]); *at; ++at)
        if (!isdigit(*at)) types += *at;
      EXPECT_EQ(types, each.types);
    }
    EXPECT_TRUE(found);
  }
  free(own);
  Ivar* variables = class_copyIvarList(type, &count);
  ASSERT_EQ(count, 2u);
  EXPECT_STREQ(ivar_getName(variables[0]), "target");
  EXPECT_STREQ(ivar_getTypeEncoding(variables[0]), "^{REALobjectStruct=}");
  EXPECT_STREQ(ivar_getName(variables[1]), "invocation");
  EXPECT_STREQ(ivar_getTypeEncoding(variables[1]), "@");
  free(variables);
  EXPECT_EQ(class_getInstanceSize(type), 3 * sizeof(void*)) << "nothing between them";
}

TEST_P(Delegate, IsSharedNotCopied) {
  start();
  id copy = [delegate copy];
  EXPECT_EQ(copy, delegate);
  EXPECT_EQ([delegate retainCount], 2u);
  [copy release];
}

// ---- What it claims to implement

TEST_P(Delegate, ClaimsOnlyWhatTheHostProgramHandles) {
  start();
  for (const Claim& claim : claims)
    EXPECT_FALSE([delegate respondsToSelector:sel_registerName(claim.selector)]) << claim.selector;
  for (const char* selector : alwaysClaimed)
    EXPECT_TRUE([delegate respondsToSelector:sel_registerName(selector)]) << selector;
}

TEST_P(Delegate, ClaimsExactlyTheCallbackOfTheOneHandledEvent) {
  start();
  for (const Claim& handled : claims) {
    std::string name = std::string("Handles") + handled.event;
    host::subclass(name, "SUUpdaterKVZ", {{handled.event, emptyHandler(handled.event)}});
    host::Object instance = host::construct(name, "Constructor");
    if (host::pendingExceptions()) break;
    id its = fakes::state().delegate;
    for (const Claim& claim : claims)
      EXPECT_EQ([its respondsToSelector:sel_registerName(claim.selector)], &claim == &handled)
          << claim.selector << " with a handler of " << handled.event;
    for (const char* selector : alwaysClaimed)
      EXPECT_TRUE([its respondsToSelector:sel_registerName(selector)]) << selector;
    [fakes::wrapped(instance) retain]; // the instances share the updater
  }
}

TEST_P(Delegate, ClaimsEverythingWhenEveryEventIsHandled) {
  host::Handlers all;
  for (const char* event : allEvents) all.emplace_back(event, emptyHandler(event));
  start(all);
  for (const Claim& claim : claims)
    EXPECT_TRUE([delegate respondsToSelector:sel_registerName(claim.selector)]) << claim.selector;
  for (const char* selector : alwaysClaimed)
    EXPECT_TRUE([delegate respondsToSelector:sel_registerName(selector)]) << selector;
}

TEST_P(Delegate, AnswersForOtherSelectorsLikeAnyObject) {
  start();
  for (const char* selector :
       {"retain", "description", "copyWithZone:", "initWithTarget:", "respondsToSelector:",
        "updater_didFinishLoadingAppcast_on_mail_thread:",
        "updater_willInstallUpdate_on_mail_thread:", "updater_didFindValidUpdate_on_mail_thread:",
        "updaterDidNotFindUpdate_on_mail_thread:", "updaterWillRelaunchApplication_on_mail_thread:",
        "performSelectorOnMainThread:withObject:waitUntilDone:"})
    EXPECT_TRUE([delegate respondsToSelector:sel_registerName(selector)]) << selector;
  for (const char* selector : {"updater:didAbortWithError:", "length", "compareVersion:toVersion:",
                               "updater_didFindValidUpdate_on_main_thread:"})
    EXPECT_FALSE([delegate respondsToSelector:sel_registerName(selector)]) << selector;
}

TEST_P(Delegate, AsksTheHostAfreshForEveryClaim) {
  start();
  SEL selector = sel_registerName("pathToRelaunchForUpdater:");
  EXPECT_FALSE([delegate respondsToSelector:selector]);
  uint64_t before = host::calls("GetEventInstance");
  EXPECT_FALSE([delegate respondsToSelector:selector]);
  EXPECT_EQ(host::calls("GetEventInstance"), before + 1);
  host::handle("MyUpdater", pathToRelaunch, emptyHandler(pathToRelaunch));
  EXPECT_TRUE([delegate respondsToSelector:selector]);
}

TEST_P(Delegate, ClaimsNoneOfTheNineOnAHostThatCannotTell) {
  host::Handlers all;
  session::Test::start();
  host::makeAbsent("GetEventInstance");
  for (const char* event : allEvents) all.emplace_back(event, emptyHandler(event));
  host::subclass("MyUpdater", "SUUpdaterKVZ", all);
  updater = host::construct("MyUpdater", "Constructor");
  delegate = static_cast<id*>(host::data(updater))[1];
  for (const Claim& claim : claims)
    EXPECT_FALSE([delegate respondsToSelector:sel_registerName(claim.selector)]) << claim.selector;
  for (const char* selector : alwaysClaimed)
    EXPECT_TRUE([delegate respondsToSelector:sel_registerName(selector)]) << selector;
}

TEST_P(Delegate, TheClaimMayBeAskedForOnAnyThread) {
  start({{pathToRelaunch, emptyHandler(pathToRelaunch)}});
  bool handled = false, unhandled = true;
  ASSERT_TRUE(fakes::onWorker([&] {
    handled = [delegate respondsToSelector:sel_registerName("pathToRelaunchForUpdater:")];
    unhandled = [delegate respondsToSelector:sel_registerName("updaterDidNotFindUpdate:")];
  }));
  EXPECT_TRUE(handled);
  EXPECT_FALSE(unhandled);
}

// ---- Without a handler, without a target

// Sends every callback and expects the defaults.
void expectDefaults(id delegate, id item, id appcast) {
  for (const Report& report : reports) report.send(delegate, nil);
  EXPECT_FALSE([delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]);
  EXPECT_EQ([delegate pathToRelaunchForUpdater:nil], nil);
  EXPECT_EQ([delegate versionComparatorForUpdater:nil], nil);
  EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], nil);
  EXPECT_EQ([delegate feedParametersForUpdater:nil sendingSystemProfile:YES], nil);
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  EXPECT_FALSE([delegate updater:nil
      shouldPostponeRelaunchForUpdate:item
                        untilInvoking:static_cast<NSInvocation*>(static_cast<id>(invocation))]);
  EXPECT_EQ([invocation retainCount], 2u) << "kept even so";
}

TEST_P(Delegate, AnswersDefaultsWithoutHandlersAndStillKeepsTheInvocation) {
  start();
  NSUInteger ofItem = [item retainCount], ofAppcast = [appcast retainCount];
  expectDefaults(delegate, item, appcast);
  EXPECT_EQ([item retainCount], ofItem) << "nothing is wrapped for nobody";
  EXPECT_EQ([appcast retainCount], ofAppcast);
  ASSERT_TRUE(fakes::onWorker([&] { expectDefaults(delegate, item, appcast); }));
  EXPECT_THAT(host::events(), IsEmpty());
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Delegate, WithoutATargetClaimsEverythingAndAnswersDefaults) {
  start();
  id alone = [[object_getClass(delegate) alloc] performSelector:sel_registerName("initWithTarget:")
                                                     withObject:nil];
  host::resetCounts();
  for (const Claim& claim : claims)
    EXPECT_TRUE([alone respondsToSelector:sel_registerName(claim.selector)]) << claim.selector;
  for (const char* selector : alwaysClaimed)
    EXPECT_TRUE([alone respondsToSelector:sel_registerName(selector)]) << selector;
  EXPECT_FALSE([alone respondsToSelector:sel_registerName("length")]);
  expectDefaults(alone, item, appcast);
  EXPECT_EQ(host::operationsPerformed(), 0u);
  [alone release];
}

TEST_P(Delegate, AnswersDefaultsOnAHostThatCannotTellWhoHandles) {
  session::Test::start();
  host::makeAbsent("GetEventInstance");
  host::Handlers all;
  for (const char* event : allEvents) all.emplace_back(event, emptyHandler(event));
  host::subclass("MyUpdater", "SUUpdaterKVZ", all);
  updater = host::construct("MyUpdater", "Constructor");
  delegate = static_cast<id*>(host::data(updater))[1];
  expectDefaults(delegate, nil, nil);
  EXPECT_THAT(host::events(), IsEmpty());
}

// ---- Reports

TEST_P(Delegate, ReportsReachTheirEventOnTheMainThreadWithTheObjectWrapped) {
  start();
  for (const Report& report : reports)
    for (const Place& place : places) {
      SCOPED_TRACE(std::string(report.event) + " from " + place.name);
      id object = objectOf(report);
      int handled = 0;
      host::handle("MyUpdater", report.event, [&](host::Event& event) {
        ++handled;
        EXPECT_TRUE(event.thread.main());
        EXPECT_EQ(event.target, updater);
        ASSERT_EQ(event.arguments.size(), report.wrapperName ? 1u : 0u);
        if (!report.wrapperName) return;
        EXPECT_EQ(host::className(event[0]), report.wrapperName);
        EXPECT_EQ(fakes::wrapped(event[0]), object);
      });
      ASSERT_TRUE(place.run([&] { report.send(delegate, object); }));
      EXPECT_EQ(handled, 1);
    }
}

TEST_P(Delegate, AReportOnTheMainThreadIsDeliveredAtOnce) {
  start();
  for (const Report& report : reports) {
    bool sent = false;
    host::handle("MyUpdater", report.event, [&](host::Event&) { EXPECT_FALSE(sent); });
    host::clearEvents();
    report.send(delegate, objectOf(report));
    sent = true;
    EXPECT_EQ(host::events().size(), 1u) << report.event;
  }
}

TEST_P(Delegate, AReportFromAWorkerThreadReturnsOnlyAfterTheHandlerHasRun) {
  start();
  for (const Report& report : reports) {
    SCOPED_TRACE(report.event);
    std::atomic<bool> returned{false}, handlerEnded{false};
    host::handle("MyUpdater", report.event, [&](host::Event&) {
      EXPECT_FALSE(returned);
      handlerEnded = true;
    });
    ASSERT_TRUE(fakes::onWorker([&] {
      report.send(delegate, objectOf(report));
      EXPECT_TRUE(handlerEnded);
      returned = true;
    }));
    EXPECT_TRUE(returned);
  }
}

TEST_P(Delegate, AReportHopsEvenWithoutAHandler) {
  start();
  for (const Report& report : reports) {
    fakes::Spy spy;
    ASSERT_TRUE(fakes::onWorker([&] { report.send(delegate, objectOf(report)); }));
    EXPECT_THAT(spy.messages(),
                ElementsAre(std::string("-[") + delegateClass +
                            " performSelectorOnMainThread:withObject:waitUntilDone:]"));
  }
}

TEST_P(Delegate, TheMainThreadHalvesRaiseTheEventWhereTheyAreCalled) {
  start();
  for (const Report& report : reports) {
    SCOPED_TRACE(report.half);
    host::handle("MyUpdater", report.event, [&](host::Event& event) {
      EXPECT_FALSE(event.thread.main());
      if (report.wrapperName) {
        EXPECT_EQ(fakes::wrapped(event[0]), objectOf(report));
      }
    });
    host::clearEvents();
    ASSERT_TRUE(fakes::onWorker([&] {
      [delegate performSelector:sel_registerName(report.half) withObject:objectOf(report)];
    }));
    EXPECT_EQ(host::events().size(), 1u);
  }
}

TEST_P(Delegate, AReportOfNilReachesTheHandlerAsNil) {
  start();
  for (const Report& report : reports) {
    if (!report.wrapperName) continue;
    int handled = 0;
    host::handle("MyUpdater", report.event, [&](host::Event& event) {
      ++handled;
      EXPECT_FALSE(event[0]);
    });
    report.send(delegate, nil);
    EXPECT_EQ(handled, 1) << report.event;
  }
}

TEST_P(Delegate, AReportReachesTheHandlerWithNilWhenTheHostMakesNoInstance) {
  start();
  host::hideClass("SUAppcastItemKVZ");
  host::hideClass("SUAppcastKVZ");
  for (const Report& report : reports) {
    if (!report.wrapperName) continue;
    id object = objectOf(report);
    NSUInteger references = [object retainCount];
    int handled = 0;
    host::handle("MyUpdater", report.event, [&](host::Event& event) {
      ++handled;
      EXPECT_FALSE(event[0]);
    });
    report.send(delegate, object);
    EXPECT_EQ(handled, 1) << report.event;
    EXPECT_EQ([object retainCount], references);
    EXPECT_EQ(fakes::registered(object), nullptr);
  }
}

TEST_P(Delegate, TheWrappedInstanceIsGivenBackAfterTheHandler) {
  start();
  for (const Report& report : reports) {
    if (!report.wrapperName) continue;
    SCOPED_TRACE(report.event);
    id object = objectOf(report);
    NSUInteger references = [object retainCount];
    host::Object kept;
    host::handle("MyUpdater", report.event, [&](host::Event& event) {
      kept = event[0];
      EXPECT_EQ([object retainCount], references + 1);
      EXPECT_EQ(fakes::registered(object), kept.handle());
    });
    report.send(delegate, object);
    EXPECT_EQ(host::referenceCount(kept), 1);
    kept.reset();
    EXPECT_EQ([object retainCount], references);
    EXPECT_EQ(fakes::registered(object), nullptr);
  }
}

TEST_P(Delegate, TheSameItemReachesEveryHandlerAsTheSameInstanceWhileThatLives) {
  start();
  host::Object found, installed, postponed;
  host::handle("MyUpdater", didFind, [&](host::Event& event) { found = event[0]; });
  host::handle("MyUpdater", willInstall, [&](host::Event& event) { installed = event[0]; });
  host::handle("MyUpdater", shouldPostpone, [&](host::Event& event) {
    postponed = event[0];
    return false;
  });
  ASSERT_TRUE(fakes::onWorker([&] {
    [delegate updater:nil didFindValidUpdate:item];
    [delegate updater:nil willInstallUpdate:item];
    postpone(nil);
  }));
  EXPECT_TRUE(found);
  EXPECT_EQ(found, installed);
  EXPECT_EQ(found, postponed);
  EXPECT_EQ(host::referenceCount(found), 3);

  FakeItem* other = [[FakeItem new] autorelease];
  [delegate updater:nil didFindValidUpdate:static_cast<id>(other)];
  EXPECT_NE(found, installed);
}

TEST_P(Delegate, TheItemsOfAnAppcastAreTheInstancesThatTheReportsCarry) {
  start();
  fakes::answer("items") = @[ item ];
  std::vector<host::Value> items;
  host::Object loaded, found;
  host::handle("MyUpdater", didFinishLoading, [&](host::Event& event) {
    loaded = event[0];
    items = host::elements(host::get<host::Object>(loaded, "items as SUAppcastItemKVZ()"));
  });
  host::handle("MyUpdater", didFind, [&](host::Event& event) { found = event[0]; });
  [delegate updater:nil didFinishLoadingAppcast:appcast];
  [delegate updater:nil didFindValidUpdate:item];
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].as<host::Object>(), found);
}

TEST_P(Delegate, AReportLosesItsInstanceOnAHostThatTakesNothingBack) {
  start();
  expectLosses({{{"SUAppcastItemKVZ", 1}}}, "the host offers no REALUnlockObject");
  host::handle("MyUpdater", didFind, [](host::Event&) {});
  host::makeAbsent("REALUnlockObject");
  [delegate updater:nil didFindValidUpdate:item];
  host::makePresent("REALUnlockObject");
  EXPECT_EQ(host::events().size(), 1u);
}

// ---- Answers

TEST_P(Delegate, AnswersWhetherToPromptOnTheCallingThread) {
  start();
  for (const Place& place : places)
    for (bool yes : {true, false}) {
      bool inPlace = false;
      host::handle("MyUpdater", shouldPrompt, [&](host::Event& event) {
        inPlace = event.thread == host::currentThread() &&
                  event.thread.main() == (&place == &places[0]) && event.target == updater;
        return yes;
      });
      BOOL answer = !yes;
      ASSERT_TRUE(place.run(
          [&] { answer = [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; }));
      EXPECT_EQ(answer, yes ? YES : NO);
      EXPECT_TRUE(inPlace) << place.name;
    }
}

class DelegateText : public Delegate {};
INSTANTIATE_TEST_SUITE_P(Hosts, DelegateText, session::everyHost(), session::hostName);

TEST_P(DelegateText, AnswersThePathToRelaunch) {
  start();
  host::String path = host::string("/Applications/Ünï.app");
  host::handle("MyUpdater", pathToRelaunch, [&](host::Event&) { return path; });
  for (const Place& place : places) {
    std::string answer;
    ASSERT_TRUE(
        place.run([&] { answer = [[delegate pathToRelaunchForUpdater:nil] UTF8String] ?: "nil"; }));
    EXPECT_EQ(host::events().back().thread.main(), &place == &places[0]);
    // A host that shows only stored bytes says nothing of their encoding beyond its number.
    EXPECT_EQ(answer, "/Applications/Ünï.app");
    EXPECT_EQ(host::referenceCount(path), 1) << "given back";
  }
}

TEST_P(DelegateText, AnswersNoPathForANilString) {
  start();
  host::handle("MyUpdater", pathToRelaunch, [](host::Event&) { return host::String(); });
  EXPECT_EQ([delegate pathToRelaunchForUpdater:nil], nil);
}

TEST_P(DelegateText, TheAnsweredPathIsAutoreleased) {
  start();
  host::handle("MyUpdater", pathToRelaunch, [](host::Event&) { return "/Applications/A.app"; });
  NSString* path = nil;
  {
    host::Pool pool;
    path = [[delegate pathToRelaunchForUpdater:nil] retain];
    EXPECT_GT([path retainCount], 1u);
  }
  EXPECT_EQ([path retainCount], 1u);
  [path release];
}

TEST_P(Delegate, AnswersTheComparatorOfTheAnsweredInstance) {
  start();
  host::Object comparison = host::construct("SUVersionComparisonKVZ", "Constructor");
  id comparator = fakes::wrapped(comparison);
  host::handle("MyUpdater", versionComparator, [&](host::Event&) { return comparison; });
  for (const Place& place : places) {
    id answer = nil;
    NSUInteger during = 0;
    ASSERT_TRUE(place.run([&] {
      host::Pool pool;
      answer = [delegate versionComparatorForUpdater:nil];
      during = [comparator retainCount];
    }));
    EXPECT_EQ(answer, comparator);
    EXPECT_EQ(during, 2u) << "the caller's, until its pool goes";
    EXPECT_EQ([comparator retainCount], 1u);
    EXPECT_EQ(host::referenceCount(comparison), 1);
    EXPECT_EQ(host::events().back().thread.main(), &place == &places[0]);
  }
}

TEST_P(Delegate, TheAnsweredComparatorOutlivesItsInstance) {
  start();
  host::handle("MyUpdater", versionComparator, [](host::Event&) {
    return host::construct("SUVersionComparisonKVZ", "Constructor");
  });
  host::Pool pool;
  id comparator = [delegate versionComparatorForUpdater:nil];
  ASSERT_TRUE(comparator);
  EXPECT_EQ(host::ledger().alive.count("SUVersionComparisonKVZ"), 0u);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], NSOrderedAscending);
}

TEST_P(Delegate, AnswersNoComparatorForNilAndForAnEmptyInstance) {
  start();
  host::Object answer;
  host::handle("MyUpdater", versionComparator, [&](host::Event&) { return answer; });
  EXPECT_EQ([delegate versionComparatorForUpdater:nil], nil);
  answer = host::create("SUVersionComparisonKVZ");
  EXPECT_EQ([delegate versionComparatorForUpdater:nil], nil);
  EXPECT_EQ(host::referenceCount(answer), 1);
}

TEST_P(Delegate, AnswersTheItemOfTheAnsweredInstance) {
  start();
  host::Object best = fakes::wrapping("SUAppcastItemKVZ", item);
  host::Object seen;
  host::handle("MyUpdater", bestValid, [&](host::Event& event) {
    seen = event[0];
    return best;
  });
  NSUInteger references = [item retainCount];
  for (const Place& place : places) {
    id answer = nil;
    NSUInteger during = 0;
    ASSERT_TRUE(place.run([&] {
      host::Pool pool;
      answer = [delegate bestValidUpdateInAppcast:appcast forUpdater:nil];
      during = [item retainCount];
    }));
    EXPECT_EQ(answer, item);
    EXPECT_EQ(during, references + 1);
    EXPECT_EQ([item retainCount], references);
    EXPECT_EQ(host::events().back().thread.main(), &place == &places[0]);
    EXPECT_EQ(fakes::wrapped(seen), appcast);
    EXPECT_EQ(host::referenceCount(seen), 1);
    EXPECT_EQ(host::referenceCount(best), 1);
  }
}

TEST_P(Delegate, GivesTheAnsweredItemBackBeforeTheAppcast) {
  start();
  host::Object best = fakes::wrapping("SUAppcastItemKVZ", item);
  host::handle("MyUpdater", bestValid, [&](host::Event&) { return best; });
  host::startLog();
  [delegate bestValidUpdateInAppcast:appcast forUpdater:nil];
  std::vector<std::string> unlocks;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name == "REALUnlockObject") unlocks.push_back(entry.arguments[0]);
  EXPECT_THAT(unlocks, ElementsAre("SUAppcastItemKVZ#1", "SUAppcastKVZ#1"));
}

TEST_P(Delegate, TheAnsweredItemOutlivesItsInstance) {
  start();
  FakeItem* only = [FakeItem new];
  host::handle("MyUpdater", bestValid, [&](host::Event&) {
    host::Object instance = fakes::wrapping("SUAppcastItemKVZ", only);
    [only release];
    return instance;
  });
  {
    host::Pool pool;
    EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], static_cast<id>(only));
    EXPECT_EQ(fakes::freed(), 0u);
  }
  EXPECT_EQ(fakes::freed(), 1u);
}

TEST_P(Delegate, AnswersNoItemForNilAndForAnEmptyInstance) {
  start();
  host::Object answer;
  host::handle("MyUpdater", bestValid, [&](host::Event&) { return answer; });
  EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], nil);
  answer = host::create("SUAppcastItemKVZ");
  EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], nil);
  EXPECT_EQ(host::referenceCount(answer), 1);
}

TEST_P(Delegate, AsksForTheBestItemOfNoAppcastWithNil) {
  start();
  host::handle("MyUpdater", bestValid, [](host::Event& event) {
    EXPECT_FALSE(event[0]);
    return host::Object();
  });
  EXPECT_EQ([delegate bestValidUpdateInAppcast:nil forUpdater:nil], nil);
  EXPECT_EQ(host::events().size(), 1u);
}

TEST_P(Delegate, AnAnsweredInstanceOfAnotherClassIsReadAsTheDeclaredOne) {
  start();
  host::Object other = fakes::wrapping("SUAppcastItemKVZ", item);
  host::handle("MyUpdater", versionComparator, [&](host::Event&) { return other; });
  EXPECT_EQ([delegate versionComparatorForUpdater:nil], item);
  EXPECT_EQ(host::referenceCount(other), 1);
}

// ---- Feed parameters

class FeedParameters : public Delegate {
protected:
  // Answers the array to the one question, and what the framework got.
  NSArray* ask(const host::Object& array) {
    host::handle("MyUpdater", feedParameters, [&](host::Event&) { return array; });
    return [delegate feedParametersForUpdater:nil sendingSystemProfile:NO];
  }
};
INSTANTIATE_TEST_SUITE_P(Hosts, FeedParameters, session::everyHost(), session::hostName);

constexpr int32_t objects = 9; // elements of an array

TEST_P(FeedParameters, AreDictionariesInTheirOrder) {
  start();
  host::Object first = host::dictionary(
      {{"key", "os"}, {"value", "10.6"}, {"displayKey", "System"}, {"displayValue", "Mac OS X"}});
  host::Object second = host::dictionary({{"key", "n"}, {"value", 5}});
  host::Object array = host::array(objects, {first, second});
  int firstBefore = host::referenceCount(first);
  NSArray* answer = ask(array);
  EXPECT_TRUE([answer isKindOfClass:[NSMutableArray class]]);
  EXPECT_TRUE([answer isEqual:(@[
                        @{
                          @"key" : @"os",
                          @"value" : @"10.6",
                          @"displayKey" : @"System",
                          @"displayValue" : @"Mac OS X"
                        },
                        @{@"key" : @"n",
                          @"value" : @5}
                      ])])
      << [[answer description] UTF8String];
  EXPECT_EQ(host::referenceCount(array), 1);
  EXPECT_EQ(host::referenceCount(first), firstBefore);
}

TEST_P(FeedParameters, AreAskedForOnTheCallingThreadWithTheProfileFlag) {
  start();
  std::vector<bool> seen;
  host::handle("MyUpdater", feedParameters, [&](host::Event& event) {
    EXPECT_EQ(event.target, updater);
    seen.push_back(event.boolean(0));
    return host::array(objects, {host::dictionary({{"key", "a"}})});
  });
  for (const Place& place : places)
    for (BOOL sending : {YES, NO}) {
      NSUInteger count = 0;
      ASSERT_TRUE(place.run([&] {
        count = [[delegate feedParametersForUpdater:nil sendingSystemProfile:sending] count];
      }));
      EXPECT_EQ(count, 1u);
      EXPECT_EQ(host::events().back().thread.main(), &place == &places[0]);
    }
  EXPECT_THAT(seen, ElementsAre(true, false, true, false));
}

TEST_P(FeedParameters, OfAnEmptyArrayAreAnEmptyMutableArray) {
  start();
  host::Object array = host::array(objects);
  NSArray* answer = ask(array);
  ASSERT_TRUE(answer);
  EXPECT_EQ([answer count], 0u);
  EXPECT_TRUE([answer isKindOfClass:[NSMutableArray class]]);
  EXPECT_EQ(host::referenceCount(array), 1);
}

TEST_P(FeedParameters, OfANilArrayAreNil) {
  start();
  EXPECT_EQ(ask(nullptr), nil);
  EXPECT_EQ(host::events().size(), 1u);
}

TEST_P(FeedParameters, OfAnEmptyDictionaryAreAnEmptyDictionary) {
  start();
  NSArray* answer = ask(host::array(objects, {host::dictionary()}));
  EXPECT_TRUE([answer isEqual:@[ @{} ]]);
}

TEST_P(FeedParameters, OfAnElementThatIsNoDictionaryAreAnEmptyDictionary) {
  start();
  host::Object date = host::date({});
  NSArray* answer = ask(host::array(objects, {date}));
  EXPECT_TRUE([answer isEqual:@[ @{} ]]);
  EXPECT_EQ(host::referenceCount(date), 1);
}

TEST_P(FeedParameters, AreThoseBeforeANilElement) {
  start();
  expectLosses({{{"Array", 1}, {"Dictionary", 2}, {"String", 2}, {"Variant", 4}}},
               "the array is not given back after an exception, and holds its elements");
  host::Object first = host::dictionary({{"a", 1}});
  host::Object last = host::dictionary({{"b", 2}});
  host::Object array = host::array(objects, {first, nullptr, last});
  session::takeLog();
  NSArray* answer = ask(array);
  EXPECT_TRUE([answer isEqual:@[ @{@"a" : @1} ]]);
  EXPECT_THAT(session::takeLog(), ElementsAre(Not(HasSubstr("Info: "))));
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_EQ(host::referenceCount(array), 2) << "the bridge's own is lost";
  EXPECT_EQ(host::referenceCount(first), 2) << "read and given back before the exception";
}

// Gives back the references that a call is known to have lost, and answers how many they were.
int recover(const host::Object& object, int expected) {
  int lost = 0;
  for (; host::referenceCount(object) > expected; ++lost) host::Object::adopt(object.handle());
  return lost;
}

TEST_P(FeedParameters, AreThoseBeforeAnExceptionWhichLosesTheArrayAndTheElementAtHand) {
  start();
  host::Object first = host::dictionary({{"a", 1}});
  host::Object second = host::dictionary({{"b", 2}});
  host::Object array = host::array(objects, {first, second});
  host::handle("MyUpdater", feedParameters, [&](host::Event&) { return array; });
  NSUInteger most = 0;
  for (unsigned nth = 1;; ++nth) {
    SCOPED_TRACE("message " + std::to_string(nth));
    session::takeLog();
    faults_start(FAULTS_ALL_THREADS);
    faults_fail_message(nth, FAULTS_NSEXCEPTION);
    NSArray* answer = [delegate feedParametersForUpdater:nil sendingSystemProfile:NO];
    bool failed = faults_fired() != 0;
    faults_fail_message(0, FAULTS_NSEXCEPTION);
    faults_stop();
    if (!failed) break;
    EXPECT_EQ(session::takeLog().size(), 1u);
    EXPECT_EQ(host::pendingExceptions(), 0u);
    EXPECT_GE([answer count], most);
    most = [answer count];
    EXPECT_EQ(recover(array, 1), 1);
    EXPECT_EQ(recover(first, 2), answer && most == 0 ? 1 : 0);
    EXPECT_EQ(recover(second, 2), most == 1 ? 1 : 0);
    ASSERT_LT(nth, 100u);
  }
  EXPECT_EQ(most, 1u);
}

TEST_P(FeedParameters, OfAHostWithoutUpperBoundsAreTheFirstAlone) {
  start();
  host::makeAbsent("RuntimeUBound");
  NSArray* answer =
      ask(host::array(objects, {host::dictionary({{"a", 1}}), host::dictionary({{"b", 2}})}));
  EXPECT_TRUE([answer isEqual:@[ @{@"a" : @1} ]]);
}

TEST_P(FeedParameters, OfAHostWithoutElementAccessAreNone) {
  start();
  expectLosses({{{"Array", 1}, {"Dictionary", 1}, {"String", 1}, {"Variant", 2}}},
               "the array is not given back after the exception");
  host::makeAbsent("RuntimeArrayDirectGetGetProc");
  NSArray* answer = ask(host::array(objects, {host::dictionary({{"a", 1}})}));
  ASSERT_TRUE(answer);
  EXPECT_EQ([answer count], 0u);
  EXPECT_EQ(session::takeLog().size(), 1u);
}

TEST_P(FeedParameters, WithABoundBelowMinusOneAreNone) {
  start();
  host::Object array = host::array(objects, {host::dictionary({{"a", 1}})});
  host::setReportedBound(array, -1);
  EXPECT_EQ([ask(array) count], 0u);
  EXPECT_EQ(host::referenceCount(array), 1);
}

// ---- Postponing a relaunch

TEST_P(Delegate, AnswersWhetherToPostponeTheRelaunchOnTheCallingThread) {
  start();
  for (const Place& place : places)
    for (bool yes : {true, false}) {
      host::Object seen;
      host::handle("MyUpdater", shouldPostpone, [&](host::Event& event) {
        seen = event[0];
        EXPECT_EQ(event.thread.main(), &place == &places[0]);
        EXPECT_EQ(event.target, updater);
        return yes;
      });
      FakeInvocation* invocation = [[FakeInvocation new] autorelease];
      BOOL answer = !yes;
      ASSERT_TRUE(place.run([&] { answer = postpone(invocation); }));
      EXPECT_EQ(answer, yes ? YES : NO);
      EXPECT_EQ(fakes::wrapped(seen), item);
      EXPECT_EQ(host::className(seen), "SUAppcastItemKVZ");
      EXPECT_EQ(host::referenceCount(seen), 1);
      EXPECT_EQ([invocation retainCount], 2u) << "kept whatever the answer";
    }
}

TEST_P(Delegate, ASecondPostponedRelaunchReplacesTheFirst) {
  start();
  FakeInvocation* first = [FakeInvocation new];
  FakeInvocation* second = [[FakeInvocation new] autorelease];
  postpone(first);
  [first release];
  EXPECT_EQ(fakes::freed(), 0u);
  postpone(second);
  EXPECT_EQ(fakes::freed(), 1u);
  EXPECT_EQ([second retainCount], 2u);
  host::call(updater, "InvokeUpdate");
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
  EXPECT_EQ([second retainCount], 1u);
}

TEST_P(Delegate, TheInvocationIsKeptBeforeTheHandlerRuns) {
  start();
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  host::handle("MyUpdater", shouldPostpone, [&](host::Event&) {
    host::call(updater, "InvokeUpdate");
    return true;
  });
  postpone(invocation);
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
  EXPECT_EQ([invocation retainCount], 1u);
}

TEST_P(Delegate, NothingOfTheLinkAndTheInvocationIsLeftAtTheEnd) {
  start();
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  postpone(invocation);
  auto variables = fakes::variablesAtTheEnd<2>(delegate, [&] { updater.reset(); });
  EXPECT_THAT(variables, ElementsAre(nullptr, nullptr));
}

TEST_P(Delegate, ANilInvocationReplacesTheKeptOne) {
  start();
  FakeInvocation* invocation = [[FakeInvocation new] autorelease];
  postpone(invocation);
  postpone(nil);
  EXPECT_EQ([invocation retainCount], 1u);
  host::call(updater, "InvokeUpdate");
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->message, "invocation is nil!");
}

TEST_P(Delegate, ARealInvocationRunsWhenTheHostProgramCompletesTheRelaunch) {
  start();
  FakeInvocation* target = [[FakeInvocation new] autorelease];
  NSInvocation* invocation = [NSInvocation
      invocationWithMethodSignature:[target methodSignatureForSelector:@selector(invoke)]];
  [invocation setTarget:target];
  [invocation setSelector:@selector(invoke)];
  host::handle("MyUpdater", shouldPostpone, [](host::Event&) { return true; });
  ASSERT_TRUE(fakes::onWorker([&] { EXPECT_TRUE(postpone(invocation)); }));
  host::call(updater, "InvokeUpdate");
  EXPECT_THAT(fakes::received(), ElementsAre("invoke"));
}

// ---- Exceptions in callbacks

struct Callback {
  std::string name;
  const char* event;
  std::function<void(id delegate, id item, id appcast)> send; // expects the default answer
};
std::vector<Callback> allCallbacks() {
  std::vector<Callback> all;
  for (const Report& report : reports) {
    all.push_back({report.selector, report.event, [&report](id delegate, id item, id appcast) {
                     bool wrapsAppcast =
                         report.wrapperName && !strcmp(report.wrapperName, "SUAppcastKVZ");
                     report.send(delegate, wrapsAppcast ? appcast : item);
                   }});
  }
  all.push_back({"prompt", shouldPrompt, [](id delegate, id, id) {
                   EXPECT_FALSE([delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]);
                 }});
  all.push_back({"path", pathToRelaunch, [](id delegate, id, id) {
                   EXPECT_EQ([delegate pathToRelaunchForUpdater:nil], nil);
                 }});
  all.push_back({"comparator", versionComparator, [](id delegate, id, id) {
                   EXPECT_EQ([delegate versionComparatorForUpdater:nil], nil);
                 }});
  all.push_back({"best", bestValid, [](id delegate, id, id appcast) {
                   EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], nil);
                 }});
  all.push_back({"feed parameters", feedParameters, [](id delegate, id, id) {
                   EXPECT_EQ([delegate feedParametersForUpdater:nil sendingSystemProfile:YES], nil);
                 }});
  all.push_back({"postpone", shouldPostpone, [](id delegate, id item, id) {
                   EXPECT_FALSE([delegate updater:nil
                       shouldPostponeRelaunchForUpdate:item
                                         untilInvoking:nil]);
                 }});
  return all;
}

// A handler that throws before it answers.
host::Handler throwing(const std::string& event, void (*thrower)()) {
  host::Handler empty = emptyHandler(event);
  return [=](host::Event& raised) {
    thrower();
    return empty(raised);
  };
}

TEST_P(Delegate, AnExceptionInAHandlerIsLoggedAndSwallowed) {
  start();
  for (const Callback& callback : allCallbacks())
    for (const Place& place : places) {
      SCOPED_TRACE(callback.name + " on " + place.name);
      host::handle("MyUpdater", callback.event,
                   throwing(callback.event, [] { fakes::raise(@"Refused", @"by the handler"); }));
      NSUInteger ofItem = [item retainCount], ofAppcast = [appcast retainCount];
      session::takeLog();
      ASSERT_TRUE(place.run([&] { callback.send(delegate, item, appcast); }));
      EXPECT_THAT(session::takeLog(), ElementsAre(AllOf(HasSubstr("by the handler"),
                                                        Not(HasSubstr("Info: (null)\n")))));
      EXPECT_EQ(host::pendingExceptions(), 0u);
      EXPECT_EQ([item retainCount], ofItem) << "the wrapped instance is given back";
      EXPECT_EQ([appcast retainCount], ofAppcast);
    }
}

TEST_P(Delegate, TheLogLineOfASwallowedExceptionIsItsDescriptionAlone) {
  start();
  NSException* exception = [NSException exceptionWithName:@"Named" reason:@"reasoned" userInfo:nil];
  host::handle("MyUpdater", shouldPrompt, [=](host::Event&) {
    [exception raise];
    return true;
  });
  session::takeLog();
  EXPECT_FALSE([delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]);
  auto log = session::takeLog();
  ASSERT_EQ(log.size(), 1u);
  // Behind the date, the program and its numbers, in brackets.
  std::string text = log[0].substr(log[0].find("] ") + 2);
  while (text.ends_with('\n')) text.pop_back();
  EXPECT_EQ(text, [[exception description] UTF8String]) << log[0];
}

TEST_P(Delegate, WhatIsNoExceptionPassesOnThroughACallback) {
  start();
  for (const Callback& callback : allCallbacks()) {
    SCOPED_TRACE(callback.name);
    host::handle("MyUpdater", callback.event, throwing(callback.event, fakes::throwOther));
    NSUInteger ofItem = [item retainCount], ofAppcast = [appcast retainCount];
    host::Thrown thrown = host::catching([&] { callback.send(delegate, item, appcast); });
    EXPECT_EQ(thrown.object, fakes::thrownObject());
    EXPECT_EQ([item retainCount], ofItem) << "the wrapped instance is given back";
    EXPECT_EQ([appcast retainCount], ofAppcast);
  }
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

// Without the companion an exception leaves the destructor of an instance: what it is raised with
// is missing. Where the callback's reference was the last, it leaves the giving back of it.
class DelegateWithoutCompanion : public Delegate {
protected:
  void start() { Delegate::start({}, {.companion = false}); }
  // An item that raises when the reference of the instance around it goes; ours goes first.
  id clinging() {
    ClingingItem* made = [ClingingItem new];
    items_.push_back(made);
    made->clings = true;
    return made;
  }
  // Sends, and expects both exceptions in the log: the item's, and the missing report of it.
  void expectLogged(const std::function<void()>& send) {
    session::takeLog();
    host::Thrown thrown = host::catching(send);
    EXPECT_FALSE(thrown) << thrown.text;
    EXPECT_THAT(session::takeLog(),
                ElementsAre(HasSubstr("A Clinging: "), HasSubstr("NewNSExceptionKVZ:")));
  }
  void TearDown() override {
    Delegate::TearDown();
    for (id each : items_) [each release];
  }

private:
  std::vector<id> items_;
};
INSTANTIATE_TEST_SUITE_P(Hosts, DelegateWithoutCompanion, session::everyInterface(),
                         session::hostName);

TEST_P(DelegateWithoutCompanion, LogsWhatGivingAReportedInstanceBackThrows) {
  start();
  for (const Report& report : reports) {
    if (!report.wrapperName) continue;
    int handled = 0;
    host::handle("MyUpdater", report.event, [&](host::Event&) { ++handled; });
    expectLogged([&] { report.send(delegate, clinging()); });
    EXPECT_EQ(handled, 1) << report.event;
  }
}

TEST_P(DelegateWithoutCompanion, AnswersThoughGivingInstancesBackThrows) {
  start();
  id held = nil;
  auto answerInstance = [&](host::Event&) {
    host::Object made = host::create("SUAppcastItemKVZ");
    held = clinging();
    host::set(made, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>([held retain])));
    return made;
  };
  host::handle("MyUpdater", versionComparator, answerInstance);
  expectLogged([&] { EXPECT_EQ([delegate versionComparatorForUpdater:nil], held); });
  host::handle("MyUpdater", bestValid, answerInstance);
  expectLogged(
      [&] { EXPECT_EQ([delegate bestValidUpdateInAppcast:appcast forUpdater:nil], held); });
  host::handle("MyUpdater", shouldPostpone, [](host::Event&) { return true; });
  expectLogged([&] {
    EXPECT_TRUE([delegate updater:nil
        shouldPostponeRelaunchForUpdate:clinging()
                          untilInvoking:nil]);
  });
}

TEST_P(DelegateWithoutCompanion, GivesTheAppcastBackThoughGivingTheItemBackThrows) {
  start();
  host::handle("MyUpdater", bestValid,
               [&](host::Event&) { return fakes::wrapping("SUAppcastItemKVZ", clinging()); });
  NSUInteger references = [appcast retainCount];
  expectLogged([&] { [delegate bestValidUpdateInAppcast:appcast forUpdater:nil]; });
  EXPECT_EQ([appcast retainCount], references);
}

TEST_P(DelegateWithoutCompanion, LogsWhatTheHandlerThrewBeforeWhatGivingBackThrows) {
  start();
  host::handle("MyUpdater", didFind,
               throwing(didFind, [] { fakes::raise(@"Refused", @"by the handler"); }));
  session::takeLog();
  host::Thrown thrown =
      host::catching([&] { [delegate updater:nil didFindValidUpdate:clinging()]; });
  EXPECT_FALSE(thrown) << thrown.text;
  EXPECT_THAT(session::takeLog(),
              ElementsAre(HasSubstr("A Clinging: "), HasSubstr("by the handler"),
                          HasSubstr("NewNSExceptionKVZ:")));
}

TEST_P(DelegateWithoutCompanion, PassesOnWhatIsNoExceptionThoughGivingBackThrowsOne) {
  start();
  host::handle("MyUpdater", didFind, throwing(didFind, fakes::throwOther));
  host::Thrown thrown =
      host::catching([&] { [delegate updater:nil didFindValidUpdate:clinging()]; });
  EXPECT_EQ(thrown.object, fakes::thrownObject());
}

TEST_P(Delegate, EveryFailingMessageOfACallbackIsLoggedAndSwallowed) {
  start();
  host::Object comparison = host::construct("SUVersionComparisonKVZ", "Constructor");
  host::Object best = fakes::wrapping("SUAppcastItemKVZ", [[FakeItem new] autorelease]);
  host::handle("MyUpdater", shouldPrompt, [](host::Event&) { return true; });
  host::handle("MyUpdater", pathToRelaunch, [](host::Event&) { return "/Applications/A.app"; });
  host::handle("MyUpdater", versionComparator, [&](host::Event&) { return comparison; });
  host::handle("MyUpdater", bestValid, [&](host::Event&) { return best; });
  host::handle("MyUpdater", shouldPostpone, [](host::Event&) { return true; });
  for (const Report& report : reports) host::handle("MyUpdater", report.event, [](host::Event&) {});
  const std::function<void()> sends[] = {
      [&] { [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; },
      [&] { [delegate pathToRelaunchForUpdater:nil]; },
      [&] { [delegate versionComparatorForUpdater:nil]; },
      [&] { [delegate bestValidUpdateInAppcast:appcast forUpdater:nil]; },
      [&] { postpone(nil); },
      [&] { reports[0].send(delegate, appcast); },
      [&] { reports[1].send(delegate, item); },
      [&] { reports[2].send(delegate, item); },
      [&] { reports[3].send(delegate, nil); },
      [&] { reports[4].send(delegate, nil); },
  };
  for (size_t i = 0; i < std::size(sends); ++i)
    for (unsigned nth = 1;; ++nth) {
      SCOPED_TRACE("callback " + std::to_string(i) + ", message " + std::to_string(nth));
      session::takeLog();
      faults_start(FAULTS_ALL_THREADS);
      faults_fail_message(nth, FAULTS_NSEXCEPTION);
      sends[i]();
      bool failed = faults_fired() != 0;
      faults_fail_message(0, FAULTS_NSEXCEPTION);
      faults_stop();
      if (!failed) break;
      size_t raised = host::takeExceptions().size(), lines = session::takeLog().size();
      EXPECT_EQ(lines, 1u);
      // A wrapper's destructor is called by the host, and reports to it.
      EXPECT_LE(raised, 1u);
      ASSERT_LT(nth, 100u);
    }
  EXPECT_EQ(host::referenceCount(comparison), 1);
  EXPECT_EQ(host::referenceCount(best), 1);
}

} // namespace
