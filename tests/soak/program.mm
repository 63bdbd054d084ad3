#include "program.h"

#include "framework.h"

#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"

#include <cstdio>
#include <malloc.h>
#include <objc/runtime.h>
#include <unistd.h>

namespace soak {

Delivered delivered;

namespace {

host::Object theComparison;

id classNamedHere(id, SEL, NSString* name) { return classNamed(name); }

void loadFramework() {
  Method method = class_getInstanceMethod([NSBundle class], @selector(classNamed:));
  IMP original = method_setImplementation(method, reinterpret_cast<IMP>(classNamedHere));
  host::Value loaded =
      host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                       host::folderItem(SPARKLE_FRAMEWORKS "/WithoutClasses.framework"));
  method_setImplementation(method, original);
  if (!loaded.as<bool>()) throw host::Error("the framework cannot be loaded");
}

void loadPlugin(const std::string& kind) {
  if (kind == "elf") return host::loadPlugin(ELF_PLUGIN_PATH);
  static auto bundle = loader::loadFile(MACHO_PLUGIN_PATH);
  host::startPlugin(reinterpret_cast<void*>(bundle->entry<void()>()), bundle->name);
}

// A handler of a reporting event that counts, and then does MORE.
host::Handler report(std::atomic<uint64_t>& count, void (*more)(host::Event&) = nullptr) {
  return [&count, more](host::Event& event) {
    ++count;
    if (!event.thread.main()) ++delivered.offMain;
    if (more) more(event);
  };
}

void readItems(host::Event& event) {
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  for (const host::Value& item : host::elements(items))
    host::get<host::String>(item.as<host::Object>(), "versionString as string");
}

void readTexts(host::Event& event) {
  host::get<host::String>(event[0], "title as string");
  host::get<host::String>(event[0], "fileURL as string");
}

void readProperties(host::Event& event) {
  readTexts(event);
  host::get<host::Object>(event[0], "date as date");
  host::get<host::Object>(event[0], "propertiesDictionary as dictionary");
}

host::Object parameters(host::Event& event) {
  ++delivered.asked;
  if (!event.boolean(0)) return host::array(9);
  return host::array(9, {host::dictionary({{"key", "lang"}, {"value", "de"}}),
                         host::dictionary({{"key", "count"}, {"value", 7}})});
}

host::Object firstItem(host::Event& event) {
  ++delivered.asked;
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  return host::elements(items).at(0).as<host::Object>();
}

void defineClasses(bool careful) {
  host::subclass("Comparison", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event& event) {
                     ++delivered.compared;
                     return event.text(0) < event.text(1) ? -1 : 1;
                   }}});
  theComparison = host::construct("Comparison", "Constructor");
  host::subclass(
      "Updater", "SUUpdaterKVZ",
      {{"pathToRelaunchForUpdater as string",
        [](host::Event&) {
          ++delivered.asked;
          return "/Applications/Demo.app";
        }},
       {"versionComparatorForUpdater as SUVersionComparisonKVZ",
        [](host::Event&) {
          ++delivered.asked;
          return theComparison;
        }},
       {"updaterWillRelaunchApplication", report(delivered.relaunching)},
       {"updaterDidNotFindUpdate", report(delivered.notFound)},
       {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
        [](host::Event&) {
          ++delivered.asked;
          return true;
        }},
       {"didFindValidUpdate(update as SUAppcastItemKVZ)",
        report(delivered.found, careful ? readTexts : readProperties)},
       {"willInstallUpdate(update as SUAppcastItemKVZ)", report(delivered.installing, readTexts)},
       {"didFinishLoadingAppcast(update as SUAppcastKVZ)", report(delivered.appcasts, readItems)},
       {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ", firstItem},
       {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()", parameters},
       {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
        [](host::Event&) {
          ++delivered.asked;
          return true;
        }}});
}

} // namespace

const host::Object& comparison() { return theComparison; }

void startProgram(const Options& options, bool careful) {
  host::start(options.host);
  host::setWatching(false);
  companion_open(COMPANION_PATH);
  host::loadPlugin(COMPANION_PATH);
  loadPlugin(options.plugin);
  loadFramework();
  defineClasses(careful);
}

bool endProgram() {
  theComparison.reset();
  // The last threads hold their updaters until they have ended.
  host::runUntil([] { return alive() == 0; }, patience);
  bool clean = true;
  auto check = [&](bool good, const std::string& problem) {
    if (!good) printf("FAILED  %s\n", problem.c_str());
    clean &= good;
  };
  for (const auto& [name, count] : host::ledger().alive)
    check(false, "still alive in the host: " + std::to_string(count) + " " + name);
  check(alive() == 0, "still alive in the framework: " + std::to_string(alive()) + " objects");
  uint32_t entered = companion_open(COMPANION_PATH)->count(COMPANION_REGISTERED);
  check(entered == 0, "still in the registry: " + std::to_string(entered) + " instances");
  for (const host::Raised& raised : host::takeExceptions())
    check(false, "pending: " + raised.className);
  check(delivered.offMain == 0,
        std::to_string(delivered.offMain) + " reports came off the main thread");
  return clean;
}

// The address sanitizer keeps what was freed for a while, by default so much that memory would grow
// all through a short run.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=1"; }

// Under the address sanitizer, whose malloc is another.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

size_t allocatedBytes() {
  if (__sanitizer_get_current_allocated_bytes) return __sanitizer_get_current_allocated_bytes();
  struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

size_t residentBytes() {
  unsigned long pages = 0;
  if (FILE* file = fopen("/proc/self/statm", "r")) {
    if (fscanf(file, "%*u %lu", &pages) != 1) pages = 0;
    fclose(file);
  }
  return pages * size_t(sysconf(_SC_PAGESIZE));
}

} // namespace soak
