#include "program.h"

#include "road.h"

#include <atomic>
#include <mutex>

namespace program {
namespace {

Choices choices;
std::atomic<bool> postponed;
std::mutex mutex;
std::string offered;

// The program keeps its comparison: the framework goes on asking it after the event.
host::Object comparison;

constexpr size_t widestValue = 70;

// The beginning of what is longer than a line.
std::string shortened(const std::string& text) {
  return text.size() <= widestValue ? text : text.substr(0, widestValue) + "…";
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void say(const std::string& text) { road::line(road::Actor::program, text); }

std::string textOf(const host::Object& object, const char* member) {
  return host::get<std::optional<std::string>>(object, member).value_or("nothing");
}

// Version numbers as the demo's programmer understands them: numbers between dots.
int compareVersions(const std::string& a, const std::string& b) {
  const char* x = a.c_str();
  const char* y = b.c_str();
  while (*x || *y) {
    char* end;
    long left = strtol(x, &end, 10);
    x = *end ? end + 1 : end;
    long right = strtol(y, &end, 10);
    y = *end ? end + 1 : end;
    if (left != right) return left < right ? -1 : 1;
  }
  return 0;
}

int compare(const std::string& a, const std::string& b) {
  int order = compareVersions(a, b);
  return choices.lowerIsNewer ? -order : order;
}

host::Object parameter(const char* key, const char* value, const char* displayKey,
                       const char* displayValue) {
  return host::dictionary({{"key", value ? key : ""},
                           {"value", value},
                           {"displayKey", displayKey},
                           {"displayValue", displayValue}});
}

host::Object feedParameters(host::Event&) {
  return host::array(9, {parameter("edition", "Pro", "Edition", "Pro"),
                         parameter("lang", "de", "Language", "Deutsch")});
}

void appcastLoaded(host::Event& event) {
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  say("  the feed has " + std::to_string(host::elements(items).size()) + " releases");
}

// The newest release that can be installed.
host::Object bestUpdate(host::Event& event) {
  host::Object best;
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  for (const host::Value& value : host::elements(items)) {
    auto item = value.as<host::Object>();
    auto version = host::get<std::optional<std::string>>(item, "versionString as string");
    auto file = host::get<std::optional<std::string>>(item, "fileURL as string");
    if (!version || !file) continue;
    if (!best || compare(textOf(best, "versionString as string"), *version) < 0) best = item;
  }
  return best;
}

void updateFound(host::Event& event) {
  {
    std::lock_guard lock(mutex);
    offered = textOf(event[0], "versionString as string");
  }
  auto properties = host::get<host::Object>(event[0], "propertiesDictionary as dictionary");
  for (const auto& [key, value] : host::entries(properties)) {
    say("  reads " + host::describe(key) + ": " + shortened(host::describe(value)));
  }
}

const host::Handlers updaterEvents = {
    {"pathToRelaunchForUpdater as string", [](host::Event&) { return choices.relaunchPath; }},
    {"versionComparatorForUpdater as SUVersionComparisonKVZ",
     [](host::Event&) { return comparison; }},
    {"updaterWillRelaunchApplication", [](host::Event&) { say("  saves its documents"); }},
    {"updaterDidNotFindUpdate", [](host::Event&) { say("  is told that nothing is newer"); }},
    {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
     [](host::Event&) { return false; }},
    {"didFindValidUpdate(update as SUAppcastItemKVZ)", updateFound},
    {"willInstallUpdate(update as SUAppcastItemKVZ)",
     [](host::Event& event) {
       say("  is told that \"" + textOf(event[0], "displayVersionString as string") +
           "\" will be installed");
     }},
    {"didFinishLoadingAppcast(update as SUAppcastKVZ)", appcastLoaded},
    {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ", bestUpdate},
    {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()", feedParameters},
    {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
     [](host::Event&) {
       postponed = true;
       return true;
     }},
};

} // namespace

void declareClasses(const Choices& wanted) {
  choices = wanted;
  host::subclass("DemoUpdater", "SUUpdaterKVZ", road::introducing(updaterEvents));
  host::subclass("DemoComparison", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event& event) {
                     return compare(event.text(0).value_or(""), event.text(1).value_or(""));
                   }}});
}

host::Object makeUpdater(const std::string& framework, const std::string& bundle) {
  host::Object folder = host::folderItem(framework), application = host::folderItem(bundle);
  road::introduce(folder, nameOf(framework));
  road::introduce(application, nameOf(bundle));
  bool loaded =
      host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean", folder)
          .as<bool>();
  if (!loaded) {
    road::verdict(false, "The framework in " + framework + " cannot be loaded.");
    return nullptr;
  }
  comparison = host::construct("DemoComparison", "Constructor");
  return host::construct("DemoUpdater", "Constructor(Bundle as folderitem)", application);
}

void check(const host::Object& updater, const std::string& feed) {
  host::set(updater, "feedURL as string", feed);
  host::call(updater,
             choices.lookOnly ? "checkForUpdateInformation" : "checkForUpdatesInBackground");
}

bool relaunchIsPostponed() { return postponed; }

void letGo() { comparison.reset(); }

std::string offeredVersion() {
  std::lock_guard lock(mutex);
  return offered;
}

} // namespace program
