// The main job, as a person would see it: a program of the host's language updates itself through
// the plug-in. Ends with status 0 only if that really happened, or if nothing newer was to be had.

#include "arrows.h"
#include "columns.h"
#include "program.h"
#include "road.h"
#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"
#include "testbed/server/release.h"

#import <Foundation/Foundation.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Options {
  std::string host = "2013.03";
  std::string feed;                  // empty: releases of the demo's own, on loopback
  std::string check = "update";      // or "information"
  std::string plugin = "macho";      // or "elf"
  std::string framework = "1.5b6";   // or "1.6", "workers"
  std::string comparator = "normal"; // or "reverse"
  std::string road, picture;         // files to write the road into
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
      {"--plugin=", &Options::plugin, {"macho", "elf"}},
      {"--framework=", &Options::framework, {"1.5b6", "1.6", "workers"}},
      {"--comparator=", &Options::comparator, {"normal", "reverse"}},
      {"--road=", &Options::road, {}},
      {"--picture=", &Options::picture, {}},
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

const char* fileOf(const std::string& plugin) {
  return plugin == "elf" ? "libSparkleKVZ.so" : "SparkleKVZ.dylib";
}

void loadPlugins(const std::string& kind) {
  companion_open(COMPANION_PATH);
  host::loadPlugin(COMPANION_PATH);
  size_t companions = host::registrationOrder().size();
  if (kind == "elf") {
    host::loadPlugin(ELF_PLUGIN_PATH);
  } else {
    static auto bundle = loader::loadFile(MACHO_PLUGIN_PATH);
    host::startPlugin(reinterpret_cast<void*>(bundle->entry<void()>()), fileOf(kind));
  }
  road::listen();
  road::line(road::Actor::program,
             std::string("loads ") + fileOf(kind) + ", which registers " +
                 std::to_string(host::registrationOrder().size() - companions) +
                 " classes and speaks version " + std::to_string(host::announcedVersion()) +
                 " of the interface; before it, the companion plug-in with " +
                 std::to_string(companions),
             "start");
}

constexpr const char* installedVersion = "2.0";

// Two megabytes that no archive makes smaller, so that there is something to download.
std::string manual() {
  std::mt19937 numbers;
  std::string text(2 << 20, '\0');
  for (char& byte : text) byte = static_cast<char>(numbers());
  return text;
}

// One release above the installed version and one below it.
std::string publishReleases(testbed::Server& server, const testbed::Application& installed,
                            const testbed::KeyPair& keys) {
  std::vector<testbed::Item> items;
  for (const char* version : {"3.0", "1.0"}) {
    testbed::Application release = installed;
    release.files["Contents/Resources/Manual.pdf"] = manual();
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
                                        (parameters.empty() ? "" : " with " + parameters) +
                                        (request.user_agent.empty() ? "" : ", asked by ") +
                                        request.user_agent);
  }
}

// Whether the host is as it was before: nothing alive, nothing pending.
bool showHost() {
  int lost = 0;
  std::string which;
  for (const auto& [type, count] : host::ledger().alive) {
    lost += count;
    which += std::string(which.empty() ? ": " : ", ") + std::to_string(count) + " × " + type;
  }
  std::string pending;
  for (const host::Raised& raised : host::takeExceptions())
    pending += "; pending is a " + raised.className + ": " + raised.message.value_or("");
  road::fact("references", "lost: " + std::to_string(lost) + which + pending);
  return lost == 0 && pending.empty();
}

// Which of the updater's events came, and where; which did not.
void showEvents() {
  std::vector<std::pair<std::string, std::vector<std::string>>> byThread;
  std::set<std::string> came;
  std::vector<std::string> all =
      host::registered("SUUpdaterKVZ")->declarations(host::Registered::events);
  for (std::string& event : all) event = event.substr(0, event.find_first_of(" ("));
  for (const road::Line& line : road::all()) {
    if (!line.kind.starts_with("event ")) continue;
    std::string event = line.kind.substr(strlen("event "));
    if (std::ranges::find(all, event) == all.end()) continue; // of another class
    auto thread = std::ranges::find(byThread, line.thread, [](auto& row) { return row.first; });
    if (thread == byThread.end()) thread = byThread.insert(thread, {line.thread, {}});
    std::vector<std::string>& here = thread->second;
    if (std::ranges::find(here, event) == here.end()) here.push_back(event);
    came.insert(event);
  }
  auto listed = [](const auto& events) {
    std::string text;
    for (const std::string& event : events) text += (text.empty() ? "" : ", ") + event;
    return text;
  };
  road::fact("events", std::to_string(came.size()) + " of " + std::to_string(all.size()) + " came");
  for (const auto& [thread, events] : byThread) road::fact("  on " + thread, listed(events));
  std::erase_if(all, [&](const std::string& event) { return came.contains(event); });
  if (!all.empty()) road::fact("  not", listed(all));
}

std::string signature() {
  for (const road::Line& line : road::all())
    if (line.kind == "step signature") return "checked; the framework " + line.text;
  return "not checked";
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
    road::verdict(false, "The check failed: " + failure.reason);
    road::hint(row.advice);
    return row.status;
  }
  road::verdict(false, "The check failed: " + failure.reason);
  return 1;
}

void say(const std::string& text) { printf("%s\n", columns::wrapped(text, 0).c_str()); }

void introduceTheDemo(const Options& options, const std::string& feed) {
  say(std::string("SparkleKVZ ") + SPARKLEKVZ_VERSION + ", " +
      (options.plugin == "elf" ? "built for Linux" : "the bundle that ships") + " (" +
      fileOf(options.plugin) + "), in the simulated host " + options.host + ".");
  say("Host, companion plug-in, Cocoa and update framework (as " + options.framework +
      ") are this project's stand-ins for Linux; the plug-in is the product.");
  say(std::string("Demo ") + installedVersion + " is installed; its feed is " + feed);
  if (options.comparator == "reverse")
    say("The program's comparison is reversed: to it, lower versions are newer.");
  say("\nEach step has the thread on which it happens: main is the program's own, where it may do "
      "what it likes; the others are the framework's.");
  say("\nstep  thread     who        does what");
}

bool write(const std::string& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text;
  if (out.flush()) return true;
  road::verdict(false, file + " cannot be written: " + strerror(errno));
  return false;
}

// What has become of the application.
struct Outcome {
  std::string version; // that is installed
  std::string started; // the version that was started, if any
};

Outcome outcome(const std::filesystem::path& bundle, const std::filesystem::path& marker) {
  Outcome result{testbed::installed_version(bundle), {}};
  int process = road::startedProcess();
  if (!process) return result;
  testbed::wait_for_file(marker);
  waitpid(process, nullptr, 0);
  std::string told = testbed::read_file(marker);
  result.started = told.substr(0, told.find('\n'));
  return result;
}

// Three of the other ways, none that was just gone.
std::string others(const Options& options) {
  const struct {
    const char* setting;
    bool gone;
  } ways[] = {
      {"FRAMEWORK=1.6", options.framework == "1.6"},
      {"CHECK=information", options.check == "information"},
      {"HOST=2011.4", options.host == "2011.4"},
      {"COMPARATOR=reverse", options.comparator == "reverse"},
      {"PLUGIN=elf", options.plugin == "elf"},
      {"FRAMEWORK=workers", options.framework == "workers"},
      {"HOST=2014.1", options.host == "2014.1"},
  };
  std::string text;
  int count = 0;
  for (const auto& way : ways) {
    if (way.gone || count == 3) continue;
    if (++count > 1) text += count == 3 ? " or " : ", ";
    text += way.setting;
  }
  return text;
}

int judge(const Options& options, const Outcome& after, bool clean) {
  road::Failure failure = road::failure();
  if (!failure.kind.empty()) return failed(failure);
  std::string offered = program::offeredVersion();
  bool good = clean;
  if (offered.empty()) {
    road::verdict(good, "Nothing newer than " + std::string(installedVersion) + " in the feed.");
  } else if (options.check == "information") {
    road::verdict(good, "Version " + offered + " is available; nothing was installed.");
  } else {
    good = clean && after.version == offered && after.started == offered;
    std::string why = options.comparator == "reverse" ? ", as the reversed comparison wanted" : "";
    road::verdict(
        good, "Version " + after.version + " is installed in place of " + installedVersion + why +
                  (after.started.empty() ? ", but was not started."
                                         : ", and version " + after.started + " was started."));
  }
  if (good) road::hint("Try next: make demo " + others(options) + "; `make` lists what there is.");
  return good ? 0 : 1;
}

int run(const Options& options) {
  auto began = std::chrono::steady_clock::now();
  testbed::Folder folder;
  setenv("HOME", folder.path().c_str(), 1);
  setenv("TMPDIR", folder.path().c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", folder.path().c_str(), 1);
  setenv("SPARKLE_VERSION", options.framework.c_str(), 1);
  road::setHome(folder.path());

  testbed::KeyPair keys = testbed::make_key_pair();
  testbed::Application application;
  application.version = installedVersion;
  application.public_pem = keys.public_pem;
  application.marker = folder / "started";
  std::filesystem::path bundle = testbed::write_application(application, folder.path());
  testbed::Server server;
  std::string feed =
      options.feed.empty() ? publishReleases(server, application, keys) : options.feed;
  introduceTheDemo(options, feed);

  road::heading("Start-up");
  host::start(options.host);
  loadPlugins(options.plugin);
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

  road::heading(road::lastStage);
  if (options.feed.empty()) showRequests(server);
  // A real program keeps its updater to its end, which has come here.
  updater.reset();
  program::letGo();

  road::heading("Summary");
  showEvents();
  road::fact("signature", signature());
  Outcome after = outcome(bundle, folder / "started");
  road::fact("installed", after.version + (after.version == installedVersion ? ", as before" : "") +
                              (after.started.empty() ? "" : ", and started"));
  bool clean = showHost();
  std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - began;
  char text[20];
  snprintf(text, sizeof text, "%.1f", seconds.count());
  road::fact("seconds", text);

  if (!options.road.empty() && !road::write(options.road)) {
    road::verdict(false, "The road cannot be written to " + options.road + ".");
    return 1;
  }
  if (!options.picture.empty()) {
    std::string title =
        "The road of an update, with the testbed's framework as " + options.framework;
    if (!write(options.picture, picture::draw(title, arrowsOf(road::all())))) return 1;
  }
  return judge(options, after, clean);
}

} // namespace

int main(int count, char** arguments) {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  int status = 1;
  try {
    status = run(readOptions(count, arguments));
  } catch (const std::exception& error) {
    fprintf(stderr, "demo: %s\n", error.what());
  }
  [pool drain];
  return status;
}
