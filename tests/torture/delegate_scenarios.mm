// What the framework reports to and asks of the delegate and the comparator.

#include "scenarios.h"
#include "stage.h"

namespace torture {

namespace {

constexpr const char* reportingEvents[] = {
    "updaterWillRelaunchApplication",
    "updaterDidNotFindUpdate",
    "didFindValidUpdate(update as SUAppcastItemKVZ)",
    "willInstallUpdate(update as SUAppcastItemKVZ)",
    "didFinishLoadingAppcast(update as SUAppcastKVZ)",
};

// What each reporting event was told, by its declaration.
struct Told {
  std::vector<std::string> lines;

  host::Handler handler(const char* declaration) {
    return [this, declaration](host::Event& event) {
      std::string line = declaration;
      if (!event.arguments.empty()) line += ": " + host::className(event[0]);
      if (!event.thread.main()) line += ", not on the main thread";
      lines.push_back(line);
    };
  }
};

host::Handlers reporting(Told& told) {
  host::Handlers handlers;
  for (const char* declaration : reportingEvents)
    handlers.emplace_back(declaration, told.handler(declaration));
  return handlers;
}

using Send = void (*)(id<Delegate> delegate, id updater, id item, id appcast);
struct Report {
  const char* label;
  Send send;
  const char* told;
};
constexpr Report reports[] = {
    {"updater:didFinishLoadingAppcast:",
     [](id<Delegate> delegate, id updater, id, id appcast) {
       [delegate updater:updater didFinishLoadingAppcast:appcast];
     },
     "didFinishLoadingAppcast(update as SUAppcastKVZ): SUAppcastKVZ"},
    {"updater:didFindValidUpdate:",
     [](id<Delegate> delegate, id updater, id item, id) {
       [delegate updater:updater didFindValidUpdate:item];
     },
     "didFindValidUpdate(update as SUAppcastItemKVZ): SUAppcastItemKVZ"},
    {"updater:willInstallUpdate:",
     [](id<Delegate> delegate, id updater, id item, id) {
       [delegate updater:updater willInstallUpdate:item];
     },
     "willInstallUpdate(update as SUAppcastItemKVZ): SUAppcastItemKVZ"},
    {"updaterDidNotFindUpdate:",
     [](id<Delegate> delegate, id updater, id, id) { [delegate updaterDidNotFindUpdate:updater]; },
     "updaterDidNotFindUpdate"},
    {"updaterWillRelaunchApplication:",
     [](id<Delegate> delegate, id updater, id, id) {
       [delegate updaterWillRelaunchApplication:updater];
     },
     "updaterWillRelaunchApplication"},
};

// Reports everything through DELIVER, which makes a step of each.
void reportAll(void (*deliver)(const char*, const std::function<void()>&, unsigned)) {
  Told told;
  Stage stage(reporting(told));
  PlayedItem* item = [PlayedItem played];
  PlayedAppcast* appcast = [PlayedAppcast played];
  if (stage.delegate)
    for (const Report& report : reports) {
      told.lines.clear();
      deliver(
          report.label, [&] { report.send(stage.delegate, stage.played, item, appcast); }, 0);
      std::string line = told.lines.size() == 1 ? told.lines[0] : "nil";
      // Where the host makes no instance, the handler is told nil.
      expect(report.label, line, report.told, {line.substr(0, line.find(':')) + ": nil"});
    }
  stage.end();
}

void reportsOnMainThread() { reportAll(callback); }
void reportsOnWorker() { reportAll(workerCallback); }

// The item that is reported twice reaches both handlers as one instance, if it lives that long.
void reportsOneItem() {
  host::Object kept, again;
  Stage stage({{"didFindValidUpdate(update as SUAppcastItemKVZ)",
                [&](host::Event& event) { kept = event[0]; }},
               {"willInstallUpdate(update as SUAppcastItemKVZ)",
                [&](host::Event& event) { again = event[0]; }}});
  PlayedItem* item = [PlayedItem played];
  if (stage.delegate) {
    callback("found", [&] { [stage.delegate updater:nil didFindValidUpdate:item]; });
    callback("installing", [&] { [stage.delegate updater:nil willInstallUpdate:item]; });
    callback("found nothing", [&] { [stage.delegate updater:nil willInstallUpdate:nil]; });
    if (!faulty() && (!kept || again)) fail("the handlers were not told as they should be");
  }
  again.reset();
  expect("version", member(kept, "versionString as string"), "3.0");
  destroy(kept);
  stage.end();
}

constexpr const char* claimed[] = {
    "pathToRelaunchForUpdater:",
    "versionComparatorForUpdater:",
    "updaterWillRelaunchApplication:",
    "updaterDidNotFindUpdate:",
    "updaterShouldPromptForPermissionToCheckForUpdates:",
    "updater:didFindValidUpdate:",
    "updater:willInstallUpdate:",
    "updater:didFinishLoadingAppcast:",
    "bestValidUpdateInAppcast:forUpdater:",
};
constexpr const char* alwaysClaimed[] = {
    "feedParametersForUpdater:sendingSystemProfile:",
    "updater:shouldPostponeRelaunchForUpdate:untilInvoking:",
};

void expectClaim(id<Delegate> delegate, const char* selector, bool expected) {
  bool answer = false;
  bareCallback(selector, [&] {
    answer = [static_cast<id>(delegate) respondsToSelector:sel_registerName(selector)];
  });
  expect(selector, answer ? "true" : "false", expected ? "true" : "false");
}

void claims() {
  Told told;
  host::Handlers handlers = reporting(told);
  Stage stage(handlers);
  if (stage.delegate) {
    for (const char* selector : claimed) {
      bool answering = !strncmp(selector, "path", 4) || !strncmp(selector, "version", 7) ||
                       !strncmp(selector, "best", 4) || strstr(selector, "Permission");
      expectClaim(stage.delegate, selector, !answering);
    }
    for (const char* selector : alwaysClaimed) expectClaim(stage.delegate, selector, true);
    expectClaim(stage.delegate, "noSuchMessage", false);
  }
  stage.end();
}

// A host program that listens to nothing.
void deaf() {
  Stage stage({});
  if (stage.delegate) {
    for (const char* selector : claimed) expectClaim(stage.delegate, selector, false);
    for (const Report& report : reports)
      callback(report.label, [&] { report.send(stage.delegate, stage.played, nil, nil); });
    id<Delegate> delegate = stage.delegate;
    id answer = @"unasked";
    callback("path", [&] { answer = [delegate pathToRelaunchForUpdater:nil]; });
    callback("comparator", [&] { answer = [delegate versionComparatorForUpdater:nil]; });
    callback("best", [&] { answer = [delegate bestValidUpdateInAppcast:nil forUpdater:nil]; });
    callback("parameters",
             [&] { answer = [delegate feedParametersForUpdater:nil sendingSystemProfile:NO]; });
    if (answer && !faulty()) fail("something was answered");
    BOOL yes = YES;
    callback("prompt",
             [&] { yes = [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; });
    PlayedInvocation* invocation = [[PlayedInvocation new] autorelease];
    callback("postpone", [&] {
      yes = [delegate updater:nil shouldPostponeRelaunchForUpdate:nil untilInvoking:invocation];
    });
    if (yes && !faulty()) fail("YES was answered");
    // Kept all the same.
    member(stage.updater, "InvokeUpdate", {},
           faulty() ? Raises{"NilObjectException", "invocation is nil!"} : Raises{});
    if (!faulty() && invocation->invoked != 1) fail("the invocation was not kept");
  }
  stage.end();
}

// Handlers that answer something; CALL makes a step of each callback.
void askAll(void (*call)(const char*, const std::function<void()>&, unsigned)) {
  host::subclass("OwnSUVersionComparisonKVZ", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event&) { return 1; }}});
  host::Object comparison = make("OwnSUVersionComparisonKVZ");
  member(comparison, "Constructor");
  PlayedItem* item = [PlayedItem played];
  PlayedAppcast* appcast = [PlayedAppcast played];
  host::Object chosen = played::wrapping("SUAppcastItemKVZ", item);
  std::string told;

  Stage stage({
      {"pathToRelaunchForUpdater as string", [](host::Event&) { return "/Applications/Demo.app"; }},
      {"versionComparatorForUpdater as SUVersionComparisonKVZ",
       [&](host::Event&) { return comparison; }},
      {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
       [](host::Event&) { return true; }},
      {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
       [&](host::Event& event) {
         told = host::className(event[0]);
         return chosen;
       }},
      {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
       [](host::Event& event) { return event.boolean(0) ? host::array(9) : host::Object(); }},
      {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
       [](host::Event&) { return true; }},
  });
  if (id<Delegate> delegate = stage.delegate) {
    id answer = nil;
    std::string text;
    call(
        "path", [&] { text = shown([delegate pathToRelaunchForUpdater:nil]); }, 0);
    expect("path", text.empty() ? "nil" : text, "/Applications/Demo.app");
    call(
        "comparator", [&] { answer = [[delegate versionComparatorForUpdater:nil] retain]; }, 0);
    if (answer && host::get<uint32_t>(comparison, "Handle") != reinterpret_cast<uintptr_t>(answer))
      fail("the comparator is another");
    if (!answer && !faulty()) fail("there is no comparator");
    [answer release];
    BOOL yes = NO;
    call(
        "prompt", [&] { yes = [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; },
        0);
    expect("prompt", yes ? "true" : "false", "true");
    answer = nil;
    call(
        "best", [&] { answer = [delegate bestValidUpdateInAppcast:appcast forUpdater:nil]; }, 0);
    if (answer != item && (answer || !faulty())) fail("the best update is another");
    for (BOOL profile : {YES, NO}) {
      text = "nil";
      call(
          "parameters",
          [&] {
            text = shown(static_cast<id>([delegate feedParametersForUpdater:nil
                                                       sendingSystemProfile:profile]));
          },
          // Without its bound an array counts as one element, which is nil.
          faulty() ? 1 : 0);
      expect("parameters", text, profile ? "[]" : "nil");
    }
    yes = NO;
    PlayedInvocation* invocation = [[PlayedInvocation new] autorelease];
    call(
        "postpone",
        [&] {
          yes = [delegate updater:nil
              shouldPostponeRelaunchForUpdate:item
                                untilInvoking:invocation];
        },
        0);
    expect("postponed", yes ? "true" : "false", "true");
  }
  stage.end();
  destroy(chosen);
  destroy(comparison);
}

void answersOnMainThread() { askAll(callback); }
void answersOnWorker() { askAll(workerCallback); }

// Handlers that answer nil, or an instance with nothing in it.
void answersOfNothing() {
  host::Object comparison = make("SUVersionComparisonKVZ"), item = make("SUAppcastItemKVZ");
  bool empty = false;
  Stage stage({
      {"pathToRelaunchForUpdater as string", [](host::Event&) { return host::String(); }},
      {"versionComparatorForUpdater as SUVersionComparisonKVZ",
       [&](host::Event&) { return empty ? comparison : host::Object(); }},
      {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
       [&](host::Event&) { return empty ? item : host::Object(); }},
  });
  if (id<Delegate> delegate = stage.delegate)
    for (bool each : {false, true}) {
      empty = each;
      id answer = nil;
      callback("path", [&] { answer = [delegate pathToRelaunchForUpdater:nil]; });
      if (answer) fail("a path was answered");
      callback("comparator", [&] { answer = [delegate versionComparatorForUpdater:nil]; });
      if (answer) fail("a comparator was answered");
      callback("best", [&] { answer = [delegate bestValidUpdateInAppcast:nil forUpdater:nil]; });
      if (answer) fail("an item was answered");
    }
  stage.end();
  destroy(item);
  destroy(comparison);
}

// Handlers that let a Cocoa exception through.
void raisingHandlers() {
  auto raise = [](host::Event&) { [NSException raise:@"Refused" format:@"by the handler"]; };
  auto raiseObject = [](host::Event&) -> host::Object {
    [NSException raise:@"Refused" format:@"by the handler"];
    return nullptr;
  };
  auto raiseBoolean = [](host::Event&) -> bool {
    [NSException raise:@"Refused" format:@"by the handler"];
    return false;
  };
  auto raiseString = [](host::Event&) -> host::String {
    [NSException raise:@"Refused" format:@"by the handler"];
    return {};
  };
  Stage stage({
      {"didFindValidUpdate(update as SUAppcastItemKVZ)", raise},
      {"updaterDidNotFindUpdate", raise},
      {"pathToRelaunchForUpdater as string", raiseString},
      {"versionComparatorForUpdater as SUVersionComparisonKVZ", raiseObject},
      {"updaterShouldPromptForPermissionToCheckForUpdates as boolean", raiseBoolean},
      {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ", raiseObject},
      {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()", raiseObject},
      {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
       raiseBoolean},
  });
  if (id<Delegate> delegate = stage.delegate) {
    PlayedItem* item = [PlayedItem played];
    PlayedAppcast* appcast = [PlayedAppcast played];
    callback(
        "found", [&] { [delegate updater:nil didFindValidUpdate:item]; }, 1);
    callback(
        "not found", [&] { [delegate updaterDidNotFindUpdate:nil]; }, 1);
    id answer = nil;
    callback(
        "path", [&] { answer = [delegate pathToRelaunchForUpdater:nil]; }, 1);
    callback(
        "comparator", [&] { answer = [delegate versionComparatorForUpdater:nil]; }, 1);
    callback(
        "best", [&] { answer = [delegate bestValidUpdateInAppcast:appcast forUpdater:nil]; }, 1);
    callback(
        "parameters",
        [&] { answer = [delegate feedParametersForUpdater:nil sendingSystemProfile:NO]; }, 1);
    if (answer) fail("something was answered");
    BOOL yes = NO;
    callback(
        "prompt", [&] { yes = [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; },
        1);
    callback(
        "postpone",
        [&] {
          yes = [delegate updater:nil shouldPostponeRelaunchForUpdate:item untilInvoking:nil];
        },
        1);
    if (yes) fail("YES was answered");
  }
  stage.end();
}

void postponing() {
  constexpr Raises invocationIsNil = {"NilObjectException", "invocation is nil!"};
  Stage stage({{"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
                [](host::Event&) { return true; }}});
  PlayedInvocation* invocations[2] = {[[PlayedInvocation new] autorelease],
                                      [[PlayedInvocation new] autorelease]};
  if (id<Delegate> delegate = stage.delegate) {
    member(stage.updater, "InvokeUpdate", {}, invocationIsNil);
    for (PlayedInvocation* invocation : invocations) {
      callback("postpone", [&] {
        [delegate updater:nil
            shouldPostponeRelaunchForUpdate:[PlayedItem played]
                              untilInvoking:invocation];
      });
    }
    // With a fault it may be there still, or never have come.
    member(stage.updater, "InvokeUpdate", {}, faulty() ? invocationIsNil : Raises{});
    if (!faulty() && (invocations[0]->invoked || invocations[1]->invoked != 1))
      fail("another invocation was invoked");
    member(stage.updater, "InvokeUpdate", {}, invocationIsNil);
    callback("postpone again", [&] {
      [delegate updater:nil shouldPostponeRelaunchForUpdate:nil untilInvoking:invocations[0]];
    });
  }
  stage.end(); // with an invocation still kept
}

// Keeps the delegate beyond its updater.
void outlivingDelegate() {
  Told told;
  Stage stage(reporting(told));
  id delegate = [static_cast<id>(stage.delegate) retain];
  id copy = nil;
  if (delegate) bareCallback("copy", [&] { copy = [delegate copy]; });
  if (copy && copy != delegate) fail("the copy is another object");
  [copy release];
  stage.end();
  bareCallback("release", [&] { [delegate release]; });
}

void parameters() {
  host::Object answer;
  Stage stage({feedHandler(answer)});
  if (id<Delegate> delegate = stage.delegate) {
    host::Object two = host::array(9, {host::dictionary({{"key", "lang"}, {"value", "de"}}),
                                       host::dictionary({{"key", "n"}, {"value", 7}})});
    NSArray* given = feedParameters("two", delegate, answer, two);
    std::vector<std::string> shownOnes;
    for (NSUInteger i = 0; i < [given count]; ++i)
      shownOnes.push_back(shown(static_cast<id>([given objectAtIndex:i])));
    std::vector<std::string> expected = {"{[key: lang, value: de]}", "{[key: n, value: l:7]}"};
    if (!faulty() && shownOnes != expected) fail("two: other parameters");
    if (shownOnes.size() > 2) fail("two: more than two");

    // A nil among them ends the conversion; what was there before it is answered.
    host::Object holed = host::array(9, {host::dictionary({{"key", "lang"}}), nullptr});
    given = feedParameters("holed", delegate, answer, holed, 1);
    if (!faulty() && [given count] != 1) fail("holed: not one");
    if ([given count] > 1) fail("holed: more than one");
    given = feedParameters("none", delegate, answer, host::array(9), 0);
    if (!faulty() && (!given || [given count])) fail("none: not an empty array");
    given = feedParameters("nil", delegate, answer, nullptr, 0);
    if (given) fail("nil: an array");
  }
  stage.end();
}

void comparison() {
  host::subclass("OwnSUVersionComparisonKVZ", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event& event) -> int {
                     if (!event.text(0) || !event.text(1)) return -2;
                     return event.text(0)->compare(*event.text(1)) > 0 ? 7 : -7;
                   }}});
  host::Object comparison = make("OwnSUVersionComparisonKVZ");
  member(comparison, "Constructor");
  id comparator =
      comparison
          ? reinterpret_cast<id>(static_cast<uintptr_t>(host::get<uint32_t>(comparison, "Handle")))
          : nil;
  if (comparator) {
    id<Comparator> framework = [comparator retain];
    int order = 0;
    auto compare = [&](const char* label, id a, id b, int expected) {
      order = -1;
      callback(label, [&] { order = [framework compareVersion:a toVersion:b]; });
      expect(label, std::to_string(order), std::to_string(expected), {"-1", "-2"});
    };
    compare("newer", @"2", @"1", 7);
    compare("older", @"1", @"2", -7);
    compare("nothing", nil, @"2", -2);
    order = -1;
    workerCallback(
        "on a thread", [&] { order = [framework compareVersion:@"2" toVersion:@"1"]; }, 0);
    expect("on a thread", std::to_string(order), "7", {"-1", "-2"});
    id copy = nil;
    bareCallback("copy", [&] { copy = [static_cast<id>(framework) copy]; });
    if (copy && copy != comparator) fail("the copy is another object");
    [copy release];
    member(comparison, "Constructor", {},
           {"UnsupportedOperationException",
            "Constructor called too often. Object is already initialized."});
    member(comparison, "Destructor");
    compare("cut off", @"2", @"1", -1);
    destroy(comparison);
    bareCallback("release", [&] { [static_cast<id>(framework) release]; });
  } else {
    if (!faulty()) fail("there is no comparator");
    member(comparison, "Destructor");
    destroy(comparison);
  }
}

// Without a handler, and with one that raises.
void silentComparison() {
  host::subclass("Raising", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event&) -> int {
                     [NSException raise:@"Refused" format:@"by the handler"];
                     return 1;
                   }}});
  for (const char* name : {"SUVersionComparisonKVZ", "Raising"}) {
    host::Object comparison = make(name);
    member(comparison, "Constructor");
    if (comparison)
      if (uint32_t handle = host::get<uint32_t>(comparison, "Handle")) {
        id<Comparator> comparator = reinterpret_cast<id>(static_cast<uintptr_t>(handle));
        int order = 0;
        bool raises = *name == 'R';
        callback(
            "compare", [&] { order = [comparator compareVersion:@"1" toVersion:@"2"]; },
            raises ? 1 : 0);
        if (order != -1 && !wasCutShort()) fail("answered " + std::to_string(order));
      }
    destroy(comparison);
  }
}

} // namespace

const std::vector<Scenario> delegateScenarios = {
    {"reports", &standard, reportsOnMainThread},
    {"reports-on-worker", &standard, reportsOnWorker},
    {"reports-one-item", &standard, reportsOneItem},
    {"reports-alone", &alone, reportsOnMainThread},
    {"claims", &standard, claims},
    {"deaf", &standard, deaf},
    {"answers", &standard, answersOnMainThread},
    {"answers-on-worker", &standard, answersOnWorker},
    {"answers-of-nothing", &standard, answersOfNothing},
    {"handlers-raising", &standard, raisingHandlers},
    {"postponing", &standard, postponing},
    {"delegate-outliving", &standard, outlivingDelegate},
    {"parameters", &standard, parameters},
    {"comparison", &standard, comparison},
    {"comparison-silent", &standard, silentComparison},
};

} // namespace torture
