#include "published.h"

#include "testbed/sparkle/SUStep.h"

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

@interface EndObserver : NSObject
@end

@implementation EndObserver
- (void)step:(NSNotification*)notification {
  NSDictionary* info = [notification userInfo];
  NSString* step = [info objectForKey:@"step"];
  if ([step isEqual:SUStepRelaunching]) process = [[info objectForKey:@"pid"] intValue];
  if ([step isEqual:SUStepFailed]) {
    std::lock_guard lock(mutex);
    failureKind = [[info objectForKey:@"failure"] UTF8String];
  }
  if ([step isEqual:SUStepFinished] || [step isEqual:SUStepFailed]) ended = true;
}
@end

namespace published {

Release::Release() {
  [[NSNotificationCenter defaultCenter] addObserver:[[EndObserver new] autorelease]
                                           selector:@selector(step:)
                                               name:SUUpdaterStepNotification
                                             object:nil];
  application.version = "2.0";
  application.public_pem = keys.public_pem;
  application.marker = folder / "started";
  bundle = testbed::write_application(application, folder.path());
  testbed::Application release = application;
  std::vector<testbed::Item> items;
  for (const char* version : {"1.0", "3.0"}) {
    release.version = version;
    item = testbed::publish(server, release, keys);
    item.title = std::string("Version ") + version;
    items.insert(items.begin(), item);
  }
  feed(testbed::appcast_xml(items));
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
  if (postponed && !ended) {
    host::call(updater, "InvokeUpdate");
    if (!host::runUntil([] { return bool(ended); }, 60)) return false;
  }
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
