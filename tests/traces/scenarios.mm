#include "scenarios.h"

#include "program.h"
#include "written.h"

#import <Foundation/Foundation.h>

#include <map>
#include <objc/runtime.h>
#include <sstream>

namespace traces {

namespace {

using written::found;
using written::line;
using Words = std::vector<std::string>; // of the scenario's name, behind the first

std::string yesOrNo(bool value) { return value ? "yes" : "no"; }
std::string trueOrFalse(bool value) { return value ? "true" : "false"; }

void makeUpdater(Program& program) {
  program.declare();
  program.updater = program.make();
  host::set(program.updater, "feedURL as string", program.release.feedURL());
}

// ---- Checks

struct Check {
  const char* className = "MyUpdater";
  bool mainBundle = false, automatic = false, profile = false;
};

using Condition = void (*)(Program&, Check&);

void feedAnswers(Program& program, testbed::Answer answer) {
  program.release.server.serve("/appcast.xml", std::move(answer));
}

const std::map<std::string, Condition> conditions = {
    {"none", [](Program& program,
                Check&) { program.release.feed(testbed::appcast_xml({program.release.older})); }},
    {"plain", [](Program&, Check& check) { check.className = "PlainUpdater"; }},
    {"main", [](Program&, Check& check) { check.mainBundle = true; }},
    {"automatic", [](Program&, Check& check) { check.automatic = true; }},
    {"profile", [](Program&, Check& check) { check.profile = true; }},
    {"nopostpone", [](Program& program, Check&) { program.postpones = false; }},
    {"relaunchnil", [](Program& program, Check&) { program.relaunches = false; }},
    {"badsignature",
     [](Program& program, Check&) { program.sign(testbed::sign(program.release.keys, "else")); }},
    // Of the archive itself, not of its digest.
    {"single",
     [](Program& program, Check&) {
       program.sign(testbed::sign_once(program.release.keys, program.release.archive("3.0")));
     }},
    {"404", [](Program& p, Check&) { feedAnswers(p, {.body = "no", .status = 404}); }},
    {"nonsense", [](Program& p, Check&) { feedAnswers(p, {.body = "This is a letter."}); }},
    {"noitems",
     [](Program& p, Check&) { feedAnswers(p, {.body = "<rss><channel></channel></rss>"}); }},
    {"hangup",
     [](Program& p, Check&) { feedAnswers(p, {.trouble = testbed::Answer::Trouble::hang_up}); }},
};

void check(Program& program, const Words& words) {
  Check check;
  for (size_t i = 1; i < words.size(); ++i) conditions.at(words[i])(program, check);
  program.declare();
  program.updater = check.mainBundle ? host::construct(check.className, "Constructor")
                                     : program.make(check.className);
  const host::Object& updater = program.updater;
  host::set(updater, "feedURL as string", program.release.feedURL());
  if (check.automatic) host::set(updater, "automaticallyDownloadsUpdates as boolean", true);
  if (check.profile) host::set(updater, "sendsSystemProfile as boolean", true);
  host::call(updater, words[0]);
  program.tellExceptions();
  program.settle();
  found("in progress: " + trueOrFalse(program.inProgress()));
  if (program.postponed) {
    host::call(updater, "InvokeUpdate");
    program.tellExceptions();
    program.wait([&] { return program.terminated || program.ended; });
    host::call(updater, "InvokeUpdate");
    program.tellExceptions();
    found("in progress: " + trueOrFalse(program.inProgress()));
  }
  {
    written::Quietly quietly;
    auto date = host::get<host::Object>(updater, "lastUpdateCheckDate as date");
    found(std::string("lastUpdateCheckDate ") + (date ? "a Date" : "nil"));
  }
  program.tellRequests();
  program.tellInstalled();
}

void checkTwice(Program& program, const Words& members) {
  steps::answer("A new version is available!", "Skip This Version");
  makeUpdater(program);
  host::call(program.updater, members[0]);
  program.settle();
  found("the second check");
  host::call(program.updater, members[1]);
  program.settle(2);
  program.tellExceptions();
  program.tellInstalled();
}

void checkFromAHandler(Program& program, const Words&) {
  program.declare();
  for (const char* event :
       {"updaterDidNotFindUpdate", "didFindValidUpdate(update as SUAppcastItemKVZ)"})
    host::handle("MyUpdater", event, [&](host::Event&) {
      line("begins another check");
      host::call(program.updater, "checkForUpdateInformation");
    });
  program.updater = program.make();
  host::set(program.updater, "feedURL as string", program.release.feedURL());
  host::call(program.updater, "checkForUpdateInformation");
  program.settle();
  program.tellExceptions();
  program.tellRequests();
}

void checkWithoutFeed(Program& program, const Words& member) {
  program.declare();
  program.updater = program.make();
  host::call(program.updater, member[0]);
  program.tellExceptions();
  bool dead = program.inProgress();
  found("in progress after the failed check: " + trueOrFalse(dead));
  host::set(program.updater, "feedURL as string", program.release.feedURL());
  found("now a feed is set, and another check is begun");
  host::call(program.updater, "checkForUpdateInformation");
  program.tellExceptions();
  program.wait([&] { return dead || program.ended; });
  found("in progress: " + trueOrFalse(program.inProgress()));
  program.tellRequests();
}

void checkByTimer(Program& program, const Words& words) {
  makeUpdater(program);
  host::set(program.updater, "automaticallyChecksForUpdates as boolean", true);
  if (!words.empty()) {
    found("the updater goes at once, the timer is due in a second");
    program.updater.reset();
  }
  program.settle();
  program.tellRequests();
}

// ---- Updaters that go

void letGoIn(Program& program, const char* event) {
  std::string name = std::string(event).substr(0, std::string(event).find('('));
  host::handle("MyUpdater", event, [&program, name](host::Event&) {
    line("lets go of the updater in " + name);
    program.updater.reset();
  });
}

void letGo(Program& program, const Words& where) {
  program.declare();
  for (const char* event :
       {"didFindValidUpdate(update as SUAppcastItemKVZ)",
        "willInstallUpdate(update as SUAppcastItemKVZ)", "updaterWillRelaunchApplication"})
    if (std::string_view(event).starts_with(where[0])) letGoIn(program, event);
  {
    host::Pool pool; // as a turn of the event loop ends
    program.updater = program.make();
  }
  host::set(program.updater, "feedURL as string", program.release.feedURL());
  {
    host::Pool pool;
    host::Object running = program.updater;
    host::call(running, "checkForUpdatesInBackground");
  }
  if (where[0] == "during") {
    found("lets go while the feed is being fetched");
    program.updater.reset();
  }
  program.settle();
  if (program.postponed && program.updater) {
    host::Object running = program.updater;
    host::call(running, "InvokeUpdate");
  }
  program.wait([&] { return bool(program.terminated); });
  program.tellExceptions();
  program.tellInstalled();
}

std::string retainCount(const host::Object& updater) {
  auto handle = static_cast<uintptr_t>(host::get<int32_t>(updater, "Handle"));
  return std::to_string([reinterpret_cast<id>(handle) retainCount]);
}

void oneAfterAnother(Program& program, const Words&) {
  program.declare();
  for (int number = 1; number <= 3; ++number) {
    std::string name = "updater " + std::to_string(number);
    found(name + " is made");
    {
      host::Pool pool; // as a turn of the event loop ends
      program.updater = program.make();
    }
    host::set(program.updater, "feedURL as string", program.release.feedURL());
    found("Handle 1, retainCount " + retainCount(program.updater));
    host::call(program.updater, "checkForUpdateInformation");
    program.settle(number);
    program.updater.reset();
    found(name + " is gone");
  }
}

void twoAtATime(Program& program, const Words&) {
  program.declare();
  host::Object first = program.make(), second = program.make();
  host::set(first, "feedURL as string", program.release.feedURL());
  found("two instances; retainCount " + retainCount(first));
  first.reset();
  found("the first is gone; the second checks");
  host::call(second, "checkForUpdateInformation");
  program.settle();
  second.reset();
  found("the second is gone; a third is made");
  host::Object third = program.make();
  host::call(third, "checkForUpdateInformation");
  program.settle(2);
}

// ---- Settings

void defaults(Program& program, const Words& words) {
  program.declare();
  program.updater = words.empty() ? program.make() : host::construct("MyUpdater", "Constructor");
  program.tellProperties();
}

void setters(Program& program, const Words&) {
  program.declare();
  program.updater = program.make();
  const host::Object& updater = program.updater;
  program.tellProperties();
  auto set = [&](const char* member, const host::Value& value) {
    host::set(updater, member, value);
    program.tellExceptions();
  };
  auto tellFeed = [&] {
    found("feedURL " + textOf(updater, "feedURL as string"));
    program.tellExceptions();
  };
  set("feedURL as string", "http://example.com/a b.xml");
  program.tellProperties();
  set("feedURL as string", "\"http://example.com/quoted.xml\"");
  for (const char* feed : {"'http://example.com/q.xml'", "relative/path.xml",
                           "http://example.com/a%20b.xml?x=1&y=2#frag", ""}) {
    set("feedURL as string", feed);
    tellFeed();
  }
  set("feedURL as string", nullptr);
  tellFeed();
  set("automaticallyChecksForUpdates as boolean", true);
  set("sendsSystemProfile as boolean", true);
  set("automaticallyDownloadsUpdates as boolean", true);
  for (double seconds : {0.5, 3600.0, 0.0, -5.0, 1e9}) {
    set("updateCheckInterval as double", seconds);
    double interval = host::get<double>(updater, "updateCheckInterval as double");
    bool automatic = host::get<bool>(updater, "automaticallyChecksForUpdates as boolean");
    found("interval " + std::to_string(interval) + " automatic " + trueOrFalse(automatic));
  }
  set("updateCheckInterval as double", 0.0);
  set("automaticallyChecksForUpdates as boolean", true);
  found("after interval 0 and automatic true: interval " +
        std::to_string(host::get<double>(updater, "updateCheckInterval as double")));
  set("automaticallyChecksForUpdates as boolean", false);
  program.tellProperties();
  program.updater.reset();
  // What the setters have led to.
  program.wait([&, before = program.scheduled.load()] { return program.scheduled > before; });
}

void permission(Program& program, const Words&) {
  makeUpdater(program);
  program.wait([] { return true; });
  found("the application posts NSApplicationDidFinishLaunchingNotification");
  [[NSNotificationCenter defaultCenter]
      postNotificationName:@"NSApplicationDidFinishLaunchingNotification"
                    object:nil];
  program.wait([] { return true; });
  program.tellProperties();
}

// ---- Appcasts and items without an updater

host::Object itemsOf(const host::Object& appcast) {
  return host::get<host::Object>(appcast, "items as SUAppcastItemKVZ()");
}

void appcast(Program& program, const Words& words) {
  program.declare();
  std::string kind = words.empty() ? "" : words[0];
  host::Object appcast = host::construct("SUAppcastKVZ", "Constructor");
  auto tellAgent = [&] {
    found("UserAgentString " + textOf(appcast, "UserAgentString as string"));
  };
  tellAgent();
  found("incrementalData " +
        host::print(host::getValue(appcast, "incrementalData as memoryblock")));
  found("items " + std::to_string(host::upperBound(itemsOf(appcast))));
  host::set(appcast, "UserAgentString as string", "Exämple/2.0");
  tellAgent();
  host::set(appcast, "UserAgentString as string", nullptr);
  tellAgent();
  host::set(appcast, "UserAgentString as string", "Example/2.0");
  host::Value url = kind == "nil"        ? host::Value(nullptr)
                    : kind == "nonsense" ? host::Value("this is no url")
                                         : host::Value(program.release.feedURL());
  host::call(appcast, "fetchAppcastFromURL", url);
  if (kind == "destroy") {
    appcast.reset();
    program.wait([&] { return program.release.server.requests().size() == 1; });
    return program.tellRequests();
  }
  if (!kind.empty()) program.tellExceptions();
  program.wait([&] { return !kind.empty() || program.loaded == 1; });
  host::Object items = itemsOf(appcast);
  found("items now " + std::to_string(host::upperBound(items) + 1));
  host::Object again = itemsOf(appcast);
  for (size_t i = 0; i < host::elements(items).size(); ++i)
    found("same instance again: " + yesOrNo(host::elements(items)[i].as<host::Object>() ==
                                            host::elements(again)[i].as<host::Object>()));
  auto data = host::get<host::Object>(appcast, "incrementalData as memoryblock");
  std::string bytes = data ? host::memoryBlockBytes(data) : "";
  bool whole = bytes == testbed::appcast_xml({program.release.item, program.release.older});
  found("incrementalData " + (whole ? "FEED" : std::to_string(bytes.size())) + " bytes");
  found("a second fetch");
  host::call(appcast, "fetchAppcastFromURL", program.release.feedURL());
  program.wait([&] { return program.loaded == (kind.empty() ? 2 : 1); });
  found("items " + std::to_string(host::upperBound(itemsOf(appcast)) + 1));
  program.tellRequests();
}

void item(Program& program, const Words&) {
  host::Object item = host::construct("SUAppcastItemKVZ", "Constructor");
  std::string all = "{";
  for (const char* name :
       {"title", "versionString", "displayVersionString", "itemDescription", "releaseNotesURL",
        "fileURL", "DSASignature", "minimumSystemVersion", "date", "propertiesDictionary"}) {
    bool isNil = host::getValue(item, name).isNil();
    all += (all.size() > 1 ? "," : "") + ("\"" + std::string(name)) +
           "\":" + (isNil ? "null" : "something");
  }
  found(all + "}");
  program.tellExceptions();
}

void selectors(Program&, const Words&) {
  struct {
    const char* type;
    bool ofClass;
    std::vector<const char*> names;
  } const rows[] = {
      {"SUUpdater", true, {"sharedUpdater", "updaterForBundle:"}},
      {"SUUpdater",
       false,
       {"feedURL", "setFeedURL:", "automaticallyChecksForUpdates",
        "setAutomaticallyChecksForUpdates:", "sendsSystemProfile",
        "setSendsSystemProfile:", "automaticallyDownloadsUpdates",
        "setAutomaticallyDownloadsUpdates:", "checkForUpdatesInBackground",
        "checkForUpdateInformation", "resetUpdateCycle", "updateInProgress", "updateCheckInterval",
        "setUpdateCheckInterval:", "lastUpdateCheckDate", "checkForUpdates:", "hostBundle",
        "setDelegate:"}},
      {"SUAppcast",
       false,
       {"init", "valueForKey:", "setUserAgentString:", "fetchAppcastFromURL:", "items"}},
      {"SUAppcastItem",
       false,
       {"init", "title", "versionString", "displayVersionString", "date", "itemDescription",
        "releaseNotesURL", "fileURL", "DSASignature", "minimumSystemVersion",
        "propertiesDictionary"}},
  };
  for (const auto& row : rows) {
    Class type = objc_getClass(row.type);
    for (const char* name : row.names) {
      SEL selector = sel_registerName(name);
      Method method = row.ofClass ? class_getClassMethod(type, selector)
                                  : class_getInstanceMethod(type, selector);
      found(std::string(row.ofClass ? "+" : "-") + "[" + row.type + " " + name + "] " +
            (method ? method_getTypeEncoding(method) : "MISSING"));
    }
  }
  found(std::string("protocol SUVersionComparison ") +
        (objc_getProtocol("SUVersionComparison") ? "found" : "MISSING"));
}

const std::map<std::string, void (*)(Program&, const Words&)> scenarios = {
    {"appcast", appcast},
    {"check", check},
    {"defaults", defaults},
    {"destroy", letGo},
    {"item", item},
    {"lifetimes", oneAfterAnother},
    {"nofeed", checkWithoutFeed},
    {"permission", permission},
    {"reentrant", checkFromAHandler},
    {"selectors", selectors},
    {"setters", setters},
    {"timer", checkByTimer},
    {"twice", checkTwice},
    {"two", twoAtATime},
};

} // namespace

void play(const std::string& scenario, const std::string& version, const std::string& file) {
  Words words;
  std::istringstream in(scenario);
  for (std::string word; std::getline(in, word, '-');) words.push_back(word);
  std::string name = words[0];
  words.erase(words.begin());

  Program program(version, file);
  bool loaded = session::loadFramework();
  found("LoadFramework " + trueOrFalse(loaded));
  host::trace([](const host::Step& step) { written::step(step); });
  scenarios.at(name)(program, words);
  program.updater.reset();
  program.end();
  host::trace({});
}

} // namespace traces
