// Registration, loading the framework, and one check with the testbed's own framework.

#include "played.h"
#include "scenarios.h"
#include "stage.h"

#include "testbed/server/release.h"
#include "testbed/sparkle/steps.h"

namespace torture {

namespace {

constexpr const char* loadFramework = "LoadFramework(path as folderitem) as boolean";
constexpr const char* isLoaded = "IsFrameworkLoaded as boolean";

std::string folderOf(const char* name) {
  return std::string(SPARKLE_FRAMEWORKS "/") + name + ".framework";
}

// From the entry to the end of one instance of each class.
void registration() {
  callback("REALPluginMain", [] { loadPlugin(); });
  for (const char* name :
       {"SUVersionComparisonKVZ", "SUAppcastItemKVZ", "SUUpdaterKVZ", "SUAppcastKVZ"}) {
    if (!host::registered(name)) {
      if (!faulty()) fail(std::string(name) + " is not registered");
      continue;
    }
    host::Object instance = make(name);
    // A host up to 2011 is given copies of the tables, which may find no memory.
    bool hasHandle = host::registered(name)->table(host::Registered::properties).count;
    if (instance && (hasHandle || !faulty())) expect(name, host::getValue(instance, "Handle"), "0");
    destroy(instance);
  }
}

host::Value load(const host::Object& folder, Raises raises = {}) {
  return shared("SUUpdaterKVZ", loadFramework, {folder}, raises);
}

void loading() {
  expect("not yet", shared("SUUpdaterKVZ", isLoaded), "false");
  expect("nil", load(nullptr), "false");
  expect("no such folder", load(host::folderItem(SPARKLE_FRAMEWORKS "/no/where")), "false");
  expect("no bundle", load(host::folderItem("/tmp/no such folder")), "false");
  expect("broken", load(host::folderItem(folderOf("Broken"))), "false");
  expect("without classes", load(host::folderItem(folderOf("WithoutClasses"))), "false");
  expect("whole", load(host::folderItem(folderOf("Sparkle"))), "true");
  expect("now", shared("SUUpdaterKVZ", isLoaded), "true");
  expect("again", load(nullptr), "true");
}

void loadingRaises() {
  expect("raising", load(host::folderItem(folderOf("Raising")), {"NSExceptionKVZ", nullptr}),
         "false");
}

// Once it has the updater's class, the framework counts as loaded.
void loadingInPart() {
  host::Object folder = host::folderItem(folderOf("WithoutItem"));
  expect("first", load(folder), "false");
  expect("now", shared("SUUpdaterKVZ", isLoaded), "true");
  expect("again", load(folder), "true");
}

// A check for information, with a feed in a file.
void check() {
  testbed::Folder folder;
  testbed::Application application;
  std::string bundle = testbed::write_application(application, folder.path());
  testbed::Item item;
  item.title = "Version 2.0";
  item.version = "2.0";
  item.url = "http://127.0.0.1:9/Demo_2.0.zip";
  testbed::write_file(folder / "appcast.xml", testbed::appcast_xml({item}));

  std::string found = "nil";
  host::subclass("OwnSUUpdaterKVZ", "SUUpdaterKVZ",
                 {{"didFinishLoadingAppcast(update as SUAppcastKVZ)", [](host::Event&) {}},
                  {"didFindValidUpdate(update as SUAppcastItemKVZ)",
                   [&](host::Event& event) { found = host::className(event[0]); }},
                  {"updaterDidNotFindUpdate", [](host::Event&) {}}});
  if (shown(load(host::folderItem(folderOf("Sparkle")))) != "true") {
    if (!faulty()) fail("the framework is not loaded");
    return;
  }
  static bool started, ended; // the framework may take steps beyond the end of this
  static int idleTurns;
  steps::watch([](const steps::Step& step) {
    idleTurns = 0;
    if (step.is("checking")) started = true;
    if (step.is("finished") || step.is("failed")) ended = true;
  });
  host::Object updater = make("OwnSUUpdaterKVZ");
  member(updater, "Constructor(Bundle as folderitem)", {host::folderItem(bundle)});
  assign(updater, "feedURL as string",
         "file://" + testbed::percent_escaped(folder / "appcast.xml"));
  // Where the feed did not arrive, the framework raises.
  mixedStep(
      "check",
      [&] {
        if (updater) host::call(updater, "checkForUpdateInformation");
        // A delegate that throws leaves a check without an end.
        constexpr double patience = 20;
        constexpr int mostIdleTurns = 50;
        auto isOver = [] { return ended || (faulty() && ++idleTurns > mostIdleTurns); };
        if (started && !host::runUntil(isOver, patience)) fail("the check did not end");
      },
      faulty() ? Raises{"NSExceptionKVZ", nullptr} : Raises{});
  if (!started && !faulty()) fail("the check did not start");
  expect("found", found, "SUAppcastItemKVZ");
  destroy(updater);
}

} // namespace

const std::vector<Scenario> frameworkScenarios = {
    {"registration", &unregistered, registration},
    {"loading", &unloaded, loading, nullptr, Counting::nothing},
    {"loading-raising", &unloaded, loadingRaises, nullptr, Counting::nothing},
    {"loading-in-part", &unloaded, loadingInPart, nullptr, Counting::nothing},
    {"check", &unloaded, check, nullptr, Counting::nothing},
};

} // namespace torture
