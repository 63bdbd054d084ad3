// The updater's members, its binding and its end.

#include "played.h"
#include "scenarios.h"

namespace torture {

namespace {

constexpr Raises anException = {"NSExceptionKVZ", nullptr};
constexpr Raises calledTooOften = {"UnsupportedOperationException",
                                   "Constructor called too often. Object is already initialized."};
constexpr Raises invocationIsNil = {"NilObjectException", "invocation is nil!"};

constexpr const char* bundleConstructor = "Constructor(Bundle as folderitem)";

PlayedUpdater* offer(Behaviour behaviour = PlayedAnswers) {
  PlayedUpdater* played = [PlayedUpdater playedSo:behaviour];
  [PlayedUpdater offer:played];
  return played;
}

bool isBound(const host::Object& updater) {
  return updater && host::get<uint32_t>(updater, "Handle");
}

void properties() {
  PlayedUpdater* played = offer();
  host::Object updater = make("SUUpdaterKVZ");
  member(updater, "Constructor");
  if (!faulty() && played->delegate == nil) fail("the updater has no delegate");

  assign(updater, "feedURL as string", "http://example.org/appcast.xml");
  expect("feed kept", shown(static_cast<id>(played->feed)), "http://example.org/appcast.xml");
  expect("feed", member(updater, "feedURL as string"), "http://example.org/appcast.xml");
  for (host::Value nowhere : {host::Value("no URL at all"), host::Value(host::String())}) {
    assign(updater, "feedURL as string", nowhere);
    expect("no feed kept", shown(static_cast<id>(played->feed)), "nil",
           {"http://example.org/appcast.xml"});
  }
  expect("no feed", member(updater, "feedURL as string"), "nil",
         {"http://example.org/appcast.xml"});
  for (const char* flag :
       {"automaticallyChecksForUpdates as boolean", "sendsSystemProfile as boolean",
        "automaticallyDownloadsUpdates as boolean"}) {
    assign(updater, flag, true);
    expect(flag, member(updater, flag), "true");
    assign(updater, flag, false);
    expect(flag, member(updater, flag), "false", {"true"});
  }
  assign(updater, "updateCheckInterval as double", 86400.5);
  expect("interval", member(updater, "updateCheckInterval as double"), "86400.5");
  expect("exception", member(updater, "_exception as NSExceptionKVZ"), "nil");
  destroy(updater);
  if (!faulty() && played->delegate) fail("the updater kept its delegate");
}

void actions() {
  PlayedUpdater* played = offer();
  host::Object updater = make("SUUpdaterKVZ");
  host::Object bundle = host::folderItem("/tmp");
  member(updater, bundleConstructor, {bundle});
  int expected = 0;
  for (const char* action : {"checkForUpdates", "checkForUpdatesInBackground",
                             "checkForUpdateInformation", "resetUpdateCycle"}) {
    member(updater, action);
    if (++expected != played->actions && !faulty()) fail(std::string(action) + " did not arrive");
  }
  expect("in progress", member(updater, "updateInProgress as boolean"), "true");
  expect("date", member(updater, "lastUpdateCheckDate as date"), "Date 2021-03-07 09:05:30",
         {"Date 1904-03-07 09:05:30", "Date 2021-01-07 09:05:30", "Date 2021-03-01 09:05:30",
          "Date 2021-03-07 00:05:30", "Date 2021-03-07 09:00:30", "Date 2021-03-07 09:05:00",
          "Date 1904-01-01 00:00:00"});
  expect("bundle", member(updater, "hostBundle as folderitem"), "FolderItem \"/tmp\"");
  member(updater, bundleConstructor, {bundle}, isBound(updater) ? calledTooOften : Raises{});
  member(updater, "Constructor", {}, isBound(updater) ? calledTooOften : Raises{});
  destroy(updater);
}

void askEverything(const host::Object& updater, Raises raises, Raises invoked = {}) {
  expect("feed", member(updater, "feedURL as string", {}, raises), "nil");
  assign(updater, "feedURL as string", "http://example.org/", raises);
  for (const char* flag :
       {"automaticallyChecksForUpdates as boolean", "sendsSystemProfile as boolean",
        "automaticallyDownloadsUpdates as boolean"}) {
    assign(updater, flag, true, raises);
    expect(flag, member(updater, flag, {}, raises), "false");
  }
  assign(updater, "updateCheckInterval as double", 1.5, raises);
  expect("interval", member(updater, "updateCheckInterval as double", {}, raises), "0");
  for (const char* action : {"checkForUpdates", "checkForUpdatesInBackground",
                             "checkForUpdateInformation", "resetUpdateCycle"})
    member(updater, action, {}, raises);
  expect("in progress", member(updater, "updateInProgress as boolean", {}, raises), "false");
  expect("date", member(updater, "lastUpdateCheckDate as date", {}, raises), "nil");
  expect("bundle", member(updater, "hostBundle as folderitem", {}, raises), "nil");
  member(updater, "InvokeUpdate", {}, invoked);
}

void unbound() {
  host::Object updater = make("SUUpdaterKVZ");
  askEverything(updater, {});
  destroy(updater);
}

// Bound twice to nothing: each time a delegate is made.
void halfBound() {
  [PlayedUpdater offer:nil];
  host::Object updater = make("SUUpdaterKVZ");
  member(updater, "Constructor");
  if (updater) expect("handle", host::getValue(updater, "Handle"), "0");
  askEverything(updater, {}, invocationIsNil);
  member(updater, bundleConstructor, {host::Object()});
  destroy(updater);
}

void raising() {
  offer(PlayedRaises);
  host::Object updater = make("SUUpdaterKVZ");
  member(updater, "Constructor");
  askEverything(updater, isBound(updater) ? anException : Raises{}, invocationIsNil);
  destroy(updater);
}

// The framework hands the same updater to both; callbacks go to the later one.
void sharedUpdater() {
  PlayedUpdater* played = offer();
  host::Object first = make("SUUpdaterKVZ"), second = make("SUUpdaterKVZ");
  member(first, "Constructor");
  id delegate = played->delegate;
  member(second, "Constructor");
  if (!faulty() && played->delegate == delegate) fail("both have one delegate");
  destroy(first);
  if (!faulty() && played->delegate) fail("the end of one leaves the delegate of the other");
  destroy(second);
}

// Folders that are no bundle, and one that is not even there.
void oddBundles() {
  for (const char* path : {"/tmp/no such folder/at all", "/"}) {
    offer();
    host::Object updater = make("SUUpdaterKVZ");
    member(updater, bundleConstructor, {host::folderItem(path)});
    if (!faulty() && !isBound(updater)) fail("the updater is not bound");
    destroy(updater);
  }
}

} // namespace

const std::vector<Scenario> updaterScenarios = {
    {"updater", &standard, properties},           {"updater-alone", &alone, properties},
    {"updater-actions", &standard, actions},      {"updater-unbound", &standard, unbound},
    {"updater-half-bound", &standard, halfBound}, {"updater-raising", &standard, raising},
    {"updater-shared", &standard, sharedUpdater}, {"updater-odd-bundles", &standard, oddBundles},
    {"updater-unloaded", &unloaded, halfBound},
};

} // namespace torture
