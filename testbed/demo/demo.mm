// The main job, as a person would see it: a program of the host's language updates itself through
// the plug-in. Ends with status 0 only if that really happened, or if nothing newer was to be had.

#include "program.h"
#include "road.h"
#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"
#include "testbed/server/release.h"

#import <Foundation/Foundation.h>

#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

namespace {

struct Options {
  std::string host = "2013.03";
  std::string feed;                  // empty: releases of the demo's own, on loopback
  std::string check = "update";      // or "information"
  std::string plugin = "elf";        // or "macho"
  std::string framework = "1.5b6";   // or "1.6", "workers"
  std::string comparator = "normal"; // or "reverse"
  std::string road;                  // a file to write the road into
};

struct OptionRow {
  const char* name; // --host=, which is HOST= of make
  std::string Options::*value;
  std::vector<const char*> allowed; // empty: anything
};

[[noreturn]] void refuse(const std::string& problem) {
  fprintf(stderr, "demo: %s\n", problem.c_str());
  exit(64);
}

Options readOptions(int count, char** arguments) {
  Options options;
  std::vector<const char*> hosts;
  for (const host::Profile& profile : host::profiles()) hosts.push_back(profile.name);
  const OptionRow rows[] = {
      {"--host=", &Options::host, hosts},
      {"--feed=", &Options::feed, {}},
      {"--check=", &Options::check, {"update", "information"}},
      {"--plugin=", &Options::plugin, {"elf", "macho"}},
      {"--framework=", &Options::framework, {"1.5b6", "1.6", "workers"}},
      {"--comparator=", &Options::comparator, {"normal", "reverse"}},
      {"--road=", &Options::road, {}},
  };
  for (int i = 1; i < count; ++i) {
    const OptionRow* match = nullptr;
    for (const OptionRow& row : rows) {
      if (strncmp(arguments[i], row.name, strlen(row.name)) == 0) match = &row;
    }
    if (!match) refuse(std::string("unknown option ") + arguments[i]);
    std::string value = arguments[i] + strlen(match->name);
    std::string choices;
    bool allowed = match->allowed.empty();
    for (const char* choice : match->allowed) {
      allowed |= value == choice;
      choices += std::string(" ") + choice;
    }
    if (!allowed) {
      std::string name = match->name + 2;
      for (char& letter : name) letter = static_cast<char>(toupper(letter));
      refuse(name + value + " is not known; choose one of:" + choices);
    }
    options.*match->value = value;
  }
  return options;
}

// The companion's hundred and more wrapper classes are not what the road is about.
void loadPlugins(const std::string& kind) {
  companion_open(COMPANION_PATH);
  host::loadPlugin(COMPANION_PATH);
  road::listen();
  road::line(road::Actor::program, "has loaded the companion plug-in, which registered " +
                                       std::to_string(host::registrationOrder().size()) +
                                       " classes");
  if (kind == "elf") return host::loadPlugin(ELF_PLUGIN_PATH);
  static auto bundle = loader::loadFile(MACHO_PLUGIN_PATH);
  host::startPlugin(reinterpret_cast<void*>(bundle->entry<void()>()), "SparkleKVZ.dylib");
}

constexpr const char* installedVersion = "2.0";

// One release above the installed version and one below it.
std::string publishReleases(testbed::Server& server, const testbed::Application& installed,
                            const testbed::KeyPair& keys) {
  std::vector<testbed::Item> items;
  for (const char* version : {"3.0", "1.0"}) {
    testbed::Application release = installed;
    release.version = version;
    release.short_version = std::string(version) + " for everybody";
    testbed::Item item = testbed::publish(server, release, keys);
    item.title = std::string("Demo ") + version;
    item.description = "<p>What is new in " + std::string(version) + "</p>";
    item.release_notes = server.url("/notes.html");
    items.push_back(item);
  }
  server.serve("/appcast.xml", {testbed::appcast_xml(items)});
  return server.url("/appcast.xml");
}

void showRequests(const testbed::Server& server) {
  for (const testbed::Request& request : server.requests()) {
    std::string parameters;
    for (const auto& [key, value] : request.parameters) {
      parameters += std::string(parameters.empty() ? "" : ", ") + key + " = \"" + value + "\"";
    }
    road::line(road::Actor::server, "answered a request for " + request.path +
                                        (parameters.empty() ? "" : " with " + parameters) + " by " +
                                        request.user_agent);
  }
}

// Whether the host is as it was before: nothing alive, nothing pending.
bool showHost() {
  bool clean = true;
  for (const auto& [type, count] : host::ledger().alive) {
    road::line(road::Actor::program, "has lost " + std::to_string(count) + " × " + type);
    clean = false;
  }
  for (const host::Raised& raised : host::takeExceptions()) {
    road::line(road::Actor::program,
               "has a pending " + raised.className + ": " + raised.message.value_or(""));
    clean = false;
  }
  if (clean) {
    road::line(road::Actor::program, "has lost no object or string, and no exception is pending");
  }
  return clean;
}

struct FailureStatus {
  const char* kind;
  int status;
  const char* advice;
};
constexpr FailureStatus failureStatus[] = {
    {"fetch", 2, "Start the server, or correct the address in FEED."},
    {"xml", 3, "The feed must be an RSS document; look at it in a browser."},
    {"signature", 4, "Sign the archive's digest with the key whose public half is in the app."},
    {"download", 5, "Correct the url of the feed's enclosure."},
};

int failed(const road::Failure& failure) {
  for (const FailureStatus& row : failureStatus) {
    if (failure.kind != row.kind) continue;
    road::verdict(false, "The check failed: " + failure.reason + ".\n" + row.advice);
    return row.status;
  }
  road::verdict(false, "The check failed: " + failure.reason);
  return 1;
}

int run(const Options& options) {
  testbed::Folder folder;
  setenv("HOME", folder.path().c_str(), 1);
  setenv("TMPDIR", folder.path().c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", folder.path().c_str(), 1);
  setenv("SPARKLE_VERSION", options.framework.c_str(), 1);

  testbed::KeyPair keys = testbed::make_key_pair();
  testbed::Application application;
  application.version = installedVersion;
  application.public_pem = keys.public_pem;
  application.marker = folder / "started";
  std::filesystem::path bundle = testbed::write_application(application, folder.path());
  testbed::Server server;
  std::string feed =
      options.feed.empty() ? publishReleases(server, application, keys) : options.feed;

  printf("SparkleKVZ %s, %s, in the simulated host %s.\n"
         "Host, Cocoa and update framework (as %s) are this project's stand-ins for Linux; the "
         "plug-in is the product.\n"
         "Demo %s is installed; its feed is %s\n",
         SPARKLEKVZ_VERSION,
         options.plugin == "elf" ? "built for Linux (libSparkleKVZ.so)"
                                 : "the bundle that ships (SparkleKVZ.dylib, Mach-O)",
         options.host.c_str(), options.framework.c_str(), installedVersion, feed.c_str());
  if (options.comparator == "reverse")
    printf("The program's comparison is reversed: to it, lower versions are newer.\n");
  printf("\nstep  thread     who        does what\n");

  road::heading("Start-up");
  host::start(options.host);
  loadPlugins(options.plugin);
  road::line(road::Actor::plugin,
             "speaks version " + std::to_string(host::announcedVersion()) + " of the interface");
  program::declareClasses({.lookOnly = options.check == "information",
                           .lowerIsNewer = options.comparator == "reverse",
                           .relaunchPath = bundle});

  road::heading("The check");
  host::Object updater =
      program::makeUpdater(std::string(SPARKLE_FRAMEWORKS) + "/Sparkle.framework", bundle);
  if (!updater) return 1;
  program::check(updater, feed);
  if (!host::runUntil([] { return road::ended() || program::relaunchIsPostponed(); }, 60)) {
    road::verdict(false, "The check did not end within a minute.");
    return 1;
  }

  if (program::relaunchIsPostponed()) {
    road::heading("The relaunch");
    host::call(updater, "InvokeUpdate");
  }

  road::heading("Afterwards");
  if (options.feed.empty()) showRequests(server);
  // A real program keeps its updater to its end, which has come here.
  updater.reset();
  program::letGo();
  bool clean = showHost();
  if (!options.road.empty() && !road::write(options.road)) {
    road::verdict(false, "The road cannot be written to " + options.road + ".");
    return 1;
  }

  road::Failure failure = road::failure();
  if (!failure.kind.empty()) return failed(failure);
  std::string offered = program::offeredVersion();
  if (offered.empty()) {
    road::verdict(clean, "Nothing newer than " + std::string(installedVersion) + " in the feed.");
    return clean ? 0 : 1;
  }
  if (options.check == "information") {
    road::verdict(clean, "Version " + offered + " is available; nothing was installed.");
    return clean ? 0 : 1;
  }
  std::string now = testbed::installed_version(bundle);
  bool started = testbed::wait_for_file(folder / "started");
  if (int process = road::startedProcess()) waitpid(process, nullptr, 0);
  std::string by = testbed::read_file(folder / "started");
  bool good = clean && now == offered && started && by.substr(0, by.find('\n')) == offered;
  std::string why = options.comparator == "reverse" ? ", as the reversed comparison wanted" : "";
  road::verdict(good,
                "Version " + now + " is installed in place of " + installedVersion + why +
                    (started ? ", and version " + by.substr(0, by.find('\n')) + " was started."
                             : ", but was not started."));
  return good ? 0 : 1;
}

} // namespace

int main(int count, char** arguments) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  int status = run(readOptions(count, arguments));
  [pool drain];
  return status;
}
