#include "program.h"

#include "written.h"

#import <Foundation/Foundation.h>

#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace traces {

namespace {

using written::line;

host::Object parameter(const char* key, const host::Value& value) {
  return host::dictionary(
      {{"key", key}, {"value", value}, {"displayKey", key}, {"displayValue", value}});
}

// With letters that a URL gives a meaning to, and values of every kind.
host::Object parameters(host::Event& event) {
  line(std::string("sendingProfile ") + (event.boolean(0) ? "true" : "false"));
  return host::array(9, {parameter("edition", "Pro & Team"), parameter("name", "ä+b#c=d?e/f%"),
                         parameter("count", 7), parameter("flag", true), parameter("d", 1.5)});
}

host::Object firstItem(host::Event& event) {
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  for (const host::Value& item : host::elements(items))
    if (auto object = item.as<host::Object>()) return object;
  return nullptr;
}

void appcastLoaded(host::Event& event) {
  auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
  line(std::to_string(host::upperBound(items) + 1) + " items, user agent " +
       textOf(event[0], "UserAgentString as string"));
}

int32_t compare(host::Event& event) {
  std::string a = event.text(0).value_or(""), b = event.text(1).value_or("");
  return a < b ? -1 : a > b ? 1 : 0;
}

host::Handlers handlers(Program& program) {
  return {
      {"pathToRelaunchForUpdater as string",
       [&](host::Event&) -> host::Value {
         if (!program.relaunches) return nullptr;
         return program.release.bundle;
       }},
      {"versionComparatorForUpdater as SUVersionComparisonKVZ",
       [&](host::Event&) { return program.comparison; }},
      {"updaterWillRelaunchApplication", [](host::Event&) {}},
      {"updaterDidNotFindUpdate", [](host::Event&) {}},
      {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
       [](host::Event&) { return false; }},
      {"didFindValidUpdate(update as SUAppcastItemKVZ)",
       [&](host::Event& event) {
         program.found = event[0];
         std::string title = textOf(event[0], "title as string");
         std::string version = textOf(event[0], "versionString as string");
         std::string signature = written::normal(textOf(event[0], "DSASignature as string"));
         line("title " + title + " version " + version + " signature " +
              signature.substr(0, signature.size() - 1));
       }},
      {"willInstallUpdate(update as SUAppcastItemKVZ)",
       [&](host::Event& event) {
         bool same = program.found == event[0];
         line(std::string("the same instance as before: ") + (same ? "yes" : "no"));
       }},
      {"didFinishLoadingAppcast(update as SUAppcastKVZ)", appcastLoaded},
      {"bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ", firstItem},
      {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()", parameters},
      {"shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
       [&](host::Event&) {
         if (program.postpones) program.postponed = true;
         return program.postpones;
       }},
  };
}

} // namespace

std::string textOf(const host::Object& object, const char* member) {
  auto text = host::get<std::optional<std::string>>(object, member);
  return text ? "\"" + *text + "\"" : "nil";
}

Program::Program(const std::string& version, const std::string& file) : version(version) {
  written::begin(file);
  written::call(release.folder.path(), "FOLDER");
  written::call(":" + std::to_string(release.server.port()) + "/", ":PORT/");
  written::call(" " + std::to_string(getpid()), " PID");
  written::call(release.item.signature, "SIGNATURE");
  steps::watch([this](const steps::Step& step) {
    written::step(this->version, step);
    if (step.process) process = step.process;
    if (step.is("relaunching")) tool = step.detail;
    if (step.is("loaded")) ++loaded;
    if (step.is("finished") || step.is("failed")) ++ended;
    if (step.is("scheduled")) ++scheduled;
    if (step.is("terminating")) terminated = true;
    if (step.is("waiting")) waits = true;
  });
}

void Program::sign(const std::string& signature) {
  written::call(signature, "SIGNATURE");
  release.item.signature = signature;
  release.feed();
}

void Program::declare() {
  host::subclass("Comparison", "SUVersionComparisonKVZ",
                 {{"compareVersion(VersionA as string, VersionB as string) as integer", compare}});
  comparison = host::construct("Comparison", "Constructor");
  host::subclass("MyUpdater", "SUUpdaterKVZ", handlers(*this));
  host::subclass("PlainUpdater", "SUUpdaterKVZ");
}

host::Object Program::make(const char* className) const {
  return host::construct(className, "Constructor(Bundle as folderitem)",
                         host::folderItem(release.bundle));
}

bool Program::inProgress() const {
  written::Quietly quietly;
  return host::get<bool>(updater, "updateInProgress as boolean");
}

bool Program::wait(const std::function<bool()>& condition) {
  constexpr double patience = 60;
  bool held = host::runUntil(condition, patience);
  int turns = 10;
  host::runUntil([&] { return --turns == 0; }, patience);
  return held;
}

void Program::settle(int checks) {
  bool settled =
      wait([&] { return postponed || terminated || waits || ended >= checks; }) && !waits;
  if (!settled) written::found("NOT SETTLED after the time");
}

void Program::tellProperties() const {
  for (const char* member :
       {"feedURL as string", "automaticallyChecksForUpdates as boolean",
        "sendsSystemProfile as boolean", "automaticallyDownloadsUpdates as boolean",
        "updateInProgress as boolean", "updateCheckInterval as double",
        "lastUpdateCheckDate as date", "hostBundle as folderitem"}) {
    written::Quietly quietly;
    host::Value value = host::getValue(updater, member);
    std::string shown = std::string(member) + " -> " + host::print(value);
    if (std::string_view(member).starts_with("hostBundle"))
      shown += " " + host::path(value.as<host::Object>());
    written::found(shown);
    for (const host::Raised& raised : host::takeExceptions())
      written::found("   raised " + raised.className + ": " + raised.message.value_or("nil"));
  }
}

void Program::tellExceptions() const {
  for (const host::Raised& raised : host::takeExceptions())
    written::found("pending " + raised.className + ": " + raised.message.value_or("nil"));
}

void Program::tellRequests() const {
  for (const testbed::Request& request : release.server.requests())
    written::found("server: " + request.method + " " + request.path +
                   (request.query.empty() ? "" : "?" + request.query) + "  agent \"" +
                   request.user_agent + "\"");
}

void Program::tellInstalled() {
  written::found("installed now: " + release.installed());
  if (process) waitpid(process, nullptr, 0);
  std::string started = testbed::read_file(release.folder / "started");
  written::found(started.empty() ? "started: nothing"
                                 : "started: " + started.substr(0, started.find('\n')));
  if (!tool.empty()) written::found("relaunch tool: " + tool);
}

void Program::end() {
  tellExceptions();
  found.reset();
  comparison.reset();
  for (const auto& [type, count] : host::ledger().alive)
    written::found("ALIVE at the end: " + std::to_string(count) + " x " + type);
}

} // namespace traces
