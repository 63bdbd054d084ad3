#include "published.h"

#include "testbed/sparkle/steps.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <sys/wait.h>

namespace {

std::mutex mutex;
published::Told told;
std::string failureKind;
std::atomic<bool> ended, postponed;
std::atomic<int> process;

std::string optionalText(const host::Object& object, const char* member) {
  return host::get<std::optional<std::string>>(object, member).value_or("");
}

void note(const host::Event& event, bool reports = false) {
  std::lock_guard lock(mutex);
  told.events.push_back(event.declaration.substr(0, event.declaration.find_first_of(" (")));
  if (reports && !event.thread.main()) told.reportsOnMain = false;
}

host::Handler reporting(void (*more)(host::Event&) = nullptr) {
  return [more](host::Event& event) {
    note(event, true);
    if (more) more(event);
  };
}

void loaded(host::Event& event) {
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  std::lock_guard lock(mutex);
  told.items = host::upperBound(items) + 1;
}

void foundUpdate(host::Event& event) {
  std::string version = optionalText(event[0], "versionString as string");
  std::string title = optionalText(event[0], "title as string");
  std::string properties =
      host::describe(host::get<host::Object>(event[0], "propertiesDictionary as dictionary"));
  std::lock_guard lock(mutex);
  told.version = version;
  told.title = title;
  told.properties = properties;
}

} // namespace

namespace published {

Release::Release() {
  steps::watch([](const steps::Step& step) {
    std::lock_guard lock(mutex);
    if (step.process) process = step.process;
    if (!step.failure.empty()) failureKind = step.failure;
    if (step.is("finished") || step.is("failed") || step.is("terminating")) ended = true;
  });
  application.version = "2.0";
  application.public_pem = keys.public_pem;
  application.marker = folder / "started";
  bundle = testbed::write_application(application, folder.path());
  // As a program's environment has it: a folder for what is temporary, and an application that is
  // the main bundle.
  std::filesystem::create_directory(folder / "tmp");
  setenv("TMPDIR", (folder / "tmp").c_str(), 1);
  setenv("SPARKLE_HOST_BUNDLE", bundle.c_str(), 1);
  item = publish("3.0", "Sat, 26 Jul 2008 15:20:11 +0000");
  older = publish("1.0", "Sat, 19 Jul 2008 15:20:11 +0000");
  feed();
}

testbed::Application Release::application_of(const std::string& version) const {
  testbed::Application release = application;
  release.version = version;
  release.short_version = version + " for everybody";
  return release;
}

testbed::Item Release::publish(const std::string& version, const char* date) {
  testbed::Item made = testbed::publish(server, application_of(version), keys);
  made.title = "Version " + version;
  made.description = "<p>News</p>";
  made.date = date;
  made.minimum_system.clear();
  return made;
}

std::string Release::archive(const std::string& version) const {
  return testbed::make_archive(testbed::entries_of(application_of(version)));
}

void Release::feed(const std::string& xml) { server.serve("/appcast.xml", {xml}); }

host::Object Release::updater(host::Handlers replaced) {
  host::subclass("Comparison", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer",
                   [](host::Event& event) {
                     note(event);
                     return event.text(0).value_or("").compare(event.text(1).value_or(""));
                   }}});
  comparison_ = host::construct("Comparison", "Constructor");
  host::Object comparison = comparison_;
  std::string path = bundle;
  host::subclass("Updater", "SUUpdaterKVZ",
                 {{"pathToRelaunchForUpdater as string",
                   [path](host::Event& event) {
                     note(event);
                     return path;
                   }},
                  {"versionComparatorForUpdater as SUVersionComparisonKVZ",
                   [comparison](host::Event& event) {
                     note(event);
                     return comparison;
                   }},
                  {"updaterWillRelaunchApplication", reporting()},
                  {"updaterDidNotFindUpdate", reporting()},
                  {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
                   [](host::Event& event) {
                     note(event);
                     return false;
                   }},
                  {"didFindValidUpdate(update as SUAppcastItemKVZ)", reporting(foundUpdate)},
                  {"willInstallUpdate(update as SUAppcastItemKVZ)", reporting()},
                  {"didFinishLoadingAppcast(update as SUAppcastKVZ)", reporting(loaded)},
                  {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
                   [](host::Event& event) -> host::Object {
                     note(event);
                     auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
                     for (const host::Value& value : host::elements(items)) {
                       auto item = value.as<host::Object>();
                       if (!optionalText(item, "versionString as string").empty() &&
                           !optionalText(item, "fileURL as string").empty())
                         return item;
                     }
                     return nullptr;
                   }},
                  {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                   [](host::Event& event) {
                     note(event);
                     return host::array(9, {host::dictionary({{"key", "name"}, {"value", "ä & b"}}),
                                            host::dictionary({{"key", "count"}, {"value", 7}})});
                   }},
                  {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
                   [](host::Event& event) {
                     note(event);
                     postponed = true;
                     return true;
                   }}});
  for (auto& [declaration, handler] : replaced) host::handle("Updater", declaration, handler);
  return host::construct("Updater", "Constructor(Bundle as folderitem)", host::folderItem(bundle));
}

bool Release::check(const host::Object& updater, const char* member) {
  ended = postponed = false;
  host::set(updater, "feedURL as string", feedURL());
  host::call(updater, member);
  if (!host::runUntil([] { return ended || postponed; }, 60)) return false;
  if (postponed && !ended) host::call(updater, "InvokeUpdate");
  comparison_.reset();
  host::handle("Updater", "versionComparatorForUpdater as SUVersionComparisonKVZ",
               [](host::Event&) { return nullptr; });
  return true;
}

Told Release::told() const {
  std::lock_guard lock(mutex);
  return ::told;
}

std::string Release::failure() const {
  std::lock_guard lock(mutex);
  return failureKind;
}

std::string Release::started() const {
  if (!process) return "";
  testbed::wait_for_file(folder / "started");
  waitpid(process, nullptr, 0);
  std::string text = testbed::read_file(folder / "started");
  return text.substr(0, text.find('\n'));
}

} // namespace published
