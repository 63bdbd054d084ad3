// What docs/guide.md shows, done by a program. A line "// | ..." is a line of the guide, in the
// host's language, and below it stands what it does; tests/docs/snippets_test.py compares the two.
// The other tests see the mistakes that the guide describes.

#include "published.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#import <Foundation/Foundation.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

std::string text(const host::Object& object, const char* member) {
  return host::get<std::string>(object, member);
}

// The elements of "items as SUAppcastItemKVZ()" and the like.
std::vector<host::Object> listed(const host::Object& array) {
  std::vector<host::Object> result;
  for (const host::Value& value : host::elements(array)) result.push_back(value.as<host::Object>());
  return result;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A constant of SUVersionComparisonKVZ, from the text that was registered.
int constant(const std::string& name) {
  for (const std::string& declared :
       host::registered("SUVersionComparisonKVZ")->declarations(host::Registered::constants))
    if (declared.starts_with(name + " = ")) return std::stoi(declared.substr(name.size() + 3));
  throw host::Error("no constant " + name);
}

// The host language's function: all but letters, digits and -_.~ as %XX.
std::string encodeURLComponent(const std::string& text) {
  std::string result;
  for (unsigned char c : text) {
    char escaped[4];
    snprintf(escaped, sizeof escaped, "%%%02X", c);
    bool plain = isalnum(c) || std::string("-_.~").find(char(c)) != std::string::npos;
    result += plain ? std::string(1, char(c)) : escaped;
  }
  return result;
}

std::string document(const char* name) {
  std::filesystem::path file = std::filesystem::path(DOCS_FOLDER) / name;
  std::string text = testbed::read_file(file);
  EXPECT_NE(text, "") << file << " cannot be read";
  return text;
}

// The fenced block of the guide that follows the marker "<!-- MARKER -->".
std::string block(const std::string& marker) {
  std::string guide = document("guide.md");
  size_t begin = guide.find("<!-- " + marker + " -->\n```");
  if (begin == std::string::npos) throw host::Error("the guide has no block " + marker);
  begin = guide.find('\n', guide.find("```", begin)) + 1;
  return guide.substr(begin, guide.find("```", begin) - begin);
}

// What a command of a Unix shell prints; nothing may fail.
std::string shell(const std::filesystem::path& folder, const std::string& script) {
  testbed::write_file(folder / "script.sh", "set -e\ncd '" + folder.string() + "'\n" + script);
  std::string output = (folder / "output").string();
  std::string command = "sh '" + (folder / "script.sh").string() + "' >'" + output + "' 2>'" +
                        output + ".errors' </dev/null";
  EXPECT_EQ(std::system(command.c_str()), 0) << testbed::read_file(output + ".errors");
  return testbed::read_file(output);
}

// The length of a DSA key's q, from what openssl prints of it: bytes in hexadecimal, the first of
// them 00 where the number would else look negative.
int bitsOfQ(const std::filesystem::path& key) {
  std::string text =
      shell(key.parent_path(), "openssl dsa -in " + key.filename().string() + " -noout -text");
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(R"(Q:\s*((?:[0-9a-f]{2}[:\s]+)+))"))) return 0;
  std::string digits = std::regex_replace(match.str(1), std::regex("[^0-9a-f]"), "");
  if (digits.starts_with("00")) digits.erase(0, 2);
  return int(digits.size()) * 4;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

} // namespace

// A program with its framework inside, version 2.0, whose feed offers 3.0 and 1.0. Names that
// begin with m are the properties that the guide's programs have.
class Guide : public session::Test {
protected:
  published::Release site;
  std::filesystem::path contents = std::filesystem::path(site.bundle) / "Contents";
  std::vector<std::string> messages; // of MsgBox
  host::Object mUpdater, mComparison, mHistory, mFeedParameters;
  std::atomic<bool> mSomebodyWaits = false, mHasUnsavedDocuments = false, mRelaunchWaits = false,
                    mWantsBetas = false;

  void SetUp() override {
    Test::SetUp();
    setenv("SPARKLE_HOST_BUNDLE", site.bundle.c_str(), 1);
    install({{"SUFeedURL", site.feedURL()}});
    start();
    host::subclass("MyUpdater", "SUUpdaterKVZ");
    host::subclass("MyComparison", "SUVersionComparisonKVZ");
  }

  void TearDown() override {
    mUpdater = mComparison = mHistory = mFeedParameters = nullptr;
    Test::TearDown();
  }

  // Version 2.0 with these lines in its Info.plist, and the framework inside.
  void install(std::map<std::string, std::string> info) {
    site.application.info = std::move(info);
    testbed::write_application(site.application, site.folder.path());
    std::filesystem::create_directories(contents / "Frameworks");
    std::filesystem::remove(contents / "Frameworks/Sparkle.framework");
    std::filesystem::create_directory_symlink(session::frameworkPath(),
                                              contents / "Frameworks/Sparkle.framework");
  }

  bool load() {
    return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                            host::folderItem(contents / "Frameworks/Sparkle.framework"))
        .as<bool>();
  }

  void on(const char* event, host::Handler handler) { host::handle("MyUpdater", event, handler); }

  void makeUpdater() {
    ASSERT_TRUE(load());
    mUpdater = host::construct("MyUpdater", "Constructor");
  }

  bool inProgress() { return host::get<bool>(mUpdater, "updateInProgress as boolean"); }
  void finish() {
    ASSERT_TRUE(host::runUntil([&] { return !inProgress(); }, 60));
    site.started(); // a program that was started is done
  }
  void check(const char* member) {
    host::call(mUpdater, member);
    finish();
  }

  // Turns the run loop until a fetch of this address has ended: as long as a check would take.
  void turnFor(const std::string& url) {
    host::Object feed = host::construct("SUAppcastKVZ", "Constructor");
    host::call(feed, "fetchAppcastFromURL(url as string)", url);
    ASSERT_TRUE(host::runUntil(
        [&] {
          auto items = host::get<host::Object>(feed, "items as SUAppcastItemKVZ()");
          return host::upperBound(items) >= 0;
        },
        60));
  }

  // Which framework the next one to be loaded is like. 1.5b6 if none is named.
  void framework(const char* version) { setenv("SPARKLE_VERSION", version, 1); }

  // The feed has this version only.
  void offer(const std::string& version) {
    site.item.version = version;
    site.feed(testbed::appcast_xml({site.item}));
  }

  // The names of the events that were raised.
  std::vector<std::string> raised() {
    std::vector<std::string> names;
    for (const host::EventRecord& event : host::events())
      names.push_back(event.declaration.substr(0, event.declaration.find_first_of(" (")));
    return names;
  }

  void noteReports() {
    on("didFinishLoadingAppcast", [](host::Event&) {});
    on("didFindValidUpdate", [](host::Event&) {});
    on("updaterDidNotFindUpdate", [](host::Event&) {});
    on("willInstallUpdate", [](host::Event&) {});
    on("updaterWillRelaunchApplication", [](host::Event&) {});
  }

  void msgBox(const std::string& message) { messages.push_back(message); }

  // Every row of the table in docs/threads.md, in runs in which every event comes. The relaunch is
  // not postponed.
  void seeThreads(int column) {
    std::map<std::string, std::string> table;
    std::string threads = document("threads.md");
    ASSERT_THAT(threads, HasSubstr("| event | comes on | seen with 1.5b6 on | seen with 1.6 on |"));
    std::regex row(R"(\n\| `(\w+)` \| ([^|]+) \| ([^|]+) \| ([^|]+) \|)");
    for (std::sregex_iterator each(threads.begin(), threads.end(), row), end; each != end; ++each) {
      std::string on = (*each)[column];
      table[(*each)[1]] = on.substr(0, on.find(", or where"));
    }

    noteReports();
    on("updaterShouldPromptForPermissionToCheckForUpdates", [](host::Event&) { return false; });
    on("feedParametersForUpdater", [&](host::Event&) { return nullptr; });
    on("bestValidUpdateInAppcast", [](host::Event& event) {
      return listed(host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()"))[0];
    });
    on("versionComparatorForUpdater", [&](host::Event&) { return mComparison; });
    host::handle("MyComparison", "compareVersion",
                 [](host::Event& event) { return event.text(0) == event.text(1) ? 0 : -1; });
    on("shouldPostponeRelaunchForUpdate", [](host::Event&) { return false; });
    on("pathToRelaunchForUpdater", [&](host::Event&) { return site.bundle; });
    makeUpdater();
    mComparison = host::construct("MyComparison", "Constructor");
    finishLaunching();
    offer("2.0");
    check("checkForUpdateInformation");
    offer("3.0");
    check("checkForUpdates");

    std::map<std::string, std::set<std::string>> seen;
    for (const host::EventRecord& event : host::events()) {
      std::string name = event.declaration.substr(0, event.declaration.find_first_of(" ("));
      seen[name].insert(event.thread.main() ? "main" : "installer");
    }
    ASSERT_EQ(table.size(), 12u);
    for (const auto& [name, expected] : table) {
      std::string threads;
      for (const char* thread : {"main", "installer"})
        if (seen[name].contains(thread))
          threads += (threads.empty() ? "" : ", ") + std::string(thread);
      EXPECT_EQ(threads, expected) << name;
      seen.erase(name);
    }
    EXPECT_TRUE(seen.empty()) << seen.begin()->first << " has no row";
  }

  // What the host's application says when it is up.
  void finishLaunching() {
    [[NSNotificationCenter defaultCenter]
        postNotificationName:@"NSApplicationDidFinishLaunchingNotification"
                      object:nil];
  }

  // What the guide's commands make, in this folder.
  std::filesystem::path publishing = site.folder / "publish";
  std::string signature;

  // Example.app, version 2.0.0.3.0, with a public key that the guide's commands make; and 3.0.0.3.0
  // in the guide's feed, whose archive these commands sign. Answers the bundle.
  std::string publishByHand(const std::string& commands) {
    std::filesystem::create_directory(publishing);
    shell(publishing, block("shell: keys"));
    testbed::Application application = site.application;
    application.public_pem = testbed::read_file(publishing / "dsa_pub.pem");
    application.info = {{"SUFeedURL", site.feedURL()}, {"SUPublicDSAKeyFile", "dsa_pub.pem"}};
    application.folder = "Example.app";
    application.name = "Example";
    application.identifier = "org.example.example";
    application.version = "2.0.0.3.0";
    std::string bundle = testbed::write_application(application, site.folder.path());
    application.version = "3.0.0.3.0";
    std::string archive = testbed::make_archive(testbed::entries_of(application));
    testbed::write_file(publishing / "Example_3.0.zip", archive);
    signature = shell(publishing, block("shell: " + commands));
    signature.erase(std::remove(signature.begin(), signature.end(), '\n'), signature.end());

    std::string feed = block("feed");
    EXPECT_THAT(feed, HasSubstr("PUT THE SIGNATURE HERE"));
    feed = replaced(feed, "PUT THE SIGNATURE HERE", signature);
    feed = replaced(feed, "http://www.example.com/", site.server.url("/"));
    site.feed(feed);
    site.server.serve("/Example_3.0.zip", {archive});
    return bundle;
  }
};

INSTANTIATE_TEST_SUITE_P(Hosts, Guide, session::oneHost(), session::hostName);

// ---- A first check ----

TEST_P(Guide, FirstCheck) {
  install({});
  std::filesystem::path executableFile = contents / "MacOS/Demo";
  auto open = [&] {
    // | dim contents as FolderItem = App.ExecutableFile.Parent.Parent
    std::filesystem::path contents = executableFile.parent_path().parent_path();
    // | dim framework as FolderItem = contents.Child("Frameworks").Child("Sparkle.framework")
    host::Object framework = host::folderItem(contents / "Frameworks" / "Sparkle.framework");
    // | if not SUUpdaterKVZ.LoadFramework(framework) then
    if (!host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean", framework)
             .as<bool>()) {
      // | MsgBox "A part of this program is missing. Please install it again."
      msgBox("A part of this program is missing. Please install it again.");
      // | return
      return;
      // | end if
    }
    // | mUpdater = new SUUpdaterKVZ
    mUpdater = host::construct("SUUpdaterKVZ", "Constructor");
    // | mUpdater.feedURL = "http://www.example.com/appcast.xml"
    host::set(mUpdater, "feedURL as string", site.feedURL());
    // | mUpdater.checkForUpdatesInBackground
    host::call(mUpdater, "checkForUpdatesInBackground");
  };
  open();
  finish();
  EXPECT_THAT(messages, IsEmpty());
  EXPECT_EQ(site.installed(), "3.0");
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(Guide, AutomaticOnly) {
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "YES"}});
  offer("2.0");
  makeUpdater();
  // | mUpdater.resetUpdateCycle
  host::call(mUpdater, "resetUpdateCycle");
  ASSERT_TRUE(host::runUntil(
      [&] { return !site.server.requests("/appcast.xml").empty() && !inProgress(); }, 60));
}

TEST_P(Guide, OwnUpdater) {
  ASSERT_TRUE(load());
  on("didFindValidUpdate", [&](host::Event&) {});
  // | mUpdater = new MyUpdater
  mUpdater = host::construct("MyUpdater", "Constructor");
  // | mUpdater.checkForUpdatesInBackground
  host::call(mUpdater, "checkForUpdatesInBackground");
  finish();
  EXPECT_THAT(raised(), ElementsAre("didFindValidUpdate"));
  EXPECT_EQ(site.installed(), "3.0");
}

TEST_P(Guide, OwnConstructor) {
  ASSERT_TRUE(load());
  std::string mEdition;
  auto newMyUpdater = [&] {
    host::Object self = host::create("MyUpdater");
    // | Sub Constructor()
    {
      // | Super.Constructor
      host::call(self, "Constructor");
      // | mEdition = "Pro & Team"
      mEdition = "Pro & Team";
      // | End Sub
    }
    return self;
  };
  mUpdater = newMyUpdater();
  EXPECT_NE(host::get<int>(mUpdater, "Handle"), 0);
}

// ---- The eleven events ----

TEST_P(Guide, EmptyEventIsAnAnswer) {
  makeUpdater();
  noteReports();
  on("bestValidUpdateInAppcast", [](host::Event&) { return nullptr; });
  check("checkForUpdates");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "bestValidUpdateInAppcast",
                                    "updaterDidNotFindUpdate"));
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(Guide, EventFeedArrived) {
  makeUpdater();
  testbed::Item old = site.item, undated = site.item;
  old.title = "Version 1.0";
  old.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  undated.title = "Version 0.9";
  undated.date = "";
  site.item.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  site.feed(testbed::appcast_xml({undated, old, site.item}));
  std::vector<std::string> historyWindowList;
  // | Sub didFinishLoadingAppcast(update as SUAppcastKVZ)
  on("didFinishLoadingAppcast(update as SUAppcastKVZ)", [&](host::Event& event) {
    host::Object update = event[0];
    // | dim releases() as SUAppcastItemKVZ = update.items
    auto releases = host::get<host::Object>(update, "items as SUAppcastItemKVZ()");
    // | for each release as SUAppcastItemKVZ in releases
    for (const host::Object& release : listed(releases)) {
      // | HistoryWindow.List.AddRow release.title
      historyWindowList.push_back(text(release, "title as string"));
      // | next
    }
    // | End Sub
  });
  check("checkForUpdateInformation");
  EXPECT_THAT(historyWindowList, ElementsAre("Version 3.0", "Version 1.0", "Version 0.9"));
}

TEST_P(Guide, EventBestUpdate) {
  makeUpdater();
  site.item.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  testbed::Item beta = site.item;
  beta.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  beta.version = "4.0";
  beta.title = "Version 4.0 beta";
  site.feed(testbed::appcast_xml({beta, site.item}));
  // | Function bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ
  on("bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
     [&](host::Event& event) -> host::Object {
       host::Object appcast = event[0];
       // | dim releases() as SUAppcastItemKVZ = appcast.items
       auto releases = host::get<host::Object>(appcast, "items as SUAppcastItemKVZ()");
       // | for each release as SUAppcastItemKVZ in releases
       for (const host::Object& release : listed(releases)) {
         // | dim beta as boolean = InStr(release.title, "beta") > 0
         bool beta = contains(text(release, "title as string"), "beta");
         // | if mWantsBetas or not beta then return release
         if (mWantsBetas || !beta) return release;
         // | next
       }
       // | return nil
       return nullptr;
       // | End Function
     });
  std::vector<std::string> found;
  on("didFindValidUpdate",
     [&](host::Event& event) { found.push_back(text(event[0], "versionString as string")); });
  check("checkForUpdateInformation");
  mWantsBetas = true;
  check("checkForUpdateInformation");
  EXPECT_THAT(found, ElementsAre("3.0", "4.0"));
}

TEST_P(Guide, EventComparator) {
  makeUpdater();
  mComparison = host::construct("MyComparison", "Constructor");
  host::handle("MyComparison", "compareVersion",
               [&](host::Event&) { return constant("NSOrderedDescending"); });
  // | Function versionComparatorForUpdater() as SUVersionComparisonKVZ
  on("versionComparatorForUpdater as SUVersionComparisonKVZ", [&](host::Event&) {
    // | return mComparison
    return mComparison;
    // | End Function
  });
  check("checkForUpdates");
  EXPECT_THAT(raised(), ElementsAre("versionComparatorForUpdater", "compareVersion"));
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(Guide, EventUpdateFound) {
  makeUpdater();
  site.item.short_version = "3.0 for everybody";
  site.item.release_notes = "http://www.example.com/notes_3.0.html";
  offer("3.0");
  std::string statusWindowMessage, statusWindowNotes;
  // | Sub didFindValidUpdate(update as SUAppcastItemKVZ)
  on("didFindValidUpdate(update as SUAppcastItemKVZ)", [&](host::Event& event) {
    host::Object update = event[0];
    // | StatusWindow.Message.Text = "Version " + update.displayVersionString + " is here."
    statusWindowMessage = "Version " + text(update, "displayVersionString as string") + " is here.";
    // | StatusWindow.Notes.LoadURL update.releaseNotesURL
    statusWindowNotes = text(update, "releaseNotesURL as string");
    // | End Sub
  });
  check("checkForUpdateInformation");
  EXPECT_EQ(statusWindowMessage, "Version 3.0 for everybody is here.");
  EXPECT_EQ(statusWindowNotes, "http://www.example.com/notes_3.0.html");
}

TEST_P(Guide, EventNothingNewer) {
  makeUpdater();
  offer("2.0");
  // | Sub updaterDidNotFindUpdate()
  on("updaterDidNotFindUpdate", [&](host::Event&) {
    // | if mSomebodyWaits then MsgBox "You have the newest version."
    if (mSomebodyWaits) msgBox("You have the newest version.");
    // | mSomebodyWaits = false
    mSomebodyWaits = false;
    // | End Sub
  });
  mSomebodyWaits = true;
  check("checkForUpdateInformation");
  check("checkForUpdateInformation");
  EXPECT_THAT(messages, ElementsAre("You have the newest version."));
}

TEST_P(Guide, EventWillInstall) {
  makeUpdater();
  site.item.description = "Faster, and with fewer mistakes.";
  offer("3.0");
  std::map<std::string, std::string> preferences;
  std::string installedThen;
  // | Sub willInstallUpdate(update as SUAppcastItemKVZ)
  on("willInstallUpdate(update as SUAppcastItemKVZ)", [&](host::Event& event) {
    host::Object update = event[0];
    // | App.WritePreference "NewInThisVersion", update.itemDescription
    preferences["NewInThisVersion"] = text(update, "itemDescription as string");
    installedThen = site.installed();
    // | End Sub
  });
  check("checkForUpdates");
  EXPECT_EQ(preferences["NewInThisVersion"], "Faster, and with fewer mistakes.");
  EXPECT_EQ(installedThen, "2.0");
  EXPECT_EQ(site.installed(), "3.0");
}

TEST_P(Guide, EventPostpone) {
  makeUpdater();
  // | Function shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean
  on("shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
     [&](host::Event& event) {
       EXPECT_EQ(text(event[0], "versionString as string"), "3.0");
       // | mRelaunchWaits = true
       mRelaunchWaits = true;
       // | return true
       return true;
       // | End Function
     });
  host::call(mUpdater, "checkForUpdates");
  ASSERT_TRUE(host::runUntil([&] { return bool(mRelaunchWaits); }, 60));
  EXPECT_EQ(site.started(), "");
  EXPECT_TRUE(inProgress());
  host::call(mUpdater, "InvokeUpdate");
  finish();
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(Guide, EventWillRelaunch) {
  makeUpdater();
  bool positionsAreSaved = false;
  std::string startedThen = "?";
  // | Sub updaterWillRelaunchApplication()
  on("updaterWillRelaunchApplication", [&](host::Event&) {
    // | App.SaveWindowPositions
    positionsAreSaved = true;
    startedThen = site.started();
    // | End Sub
  });
  check("checkForUpdates");
  EXPECT_TRUE(positionsAreSaved);
  EXPECT_EQ(startedThen, "");
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(Guide, EventRelaunchPath) {
  makeUpdater();
  testbed::Application other = site.application;
  other.folder = "Example.app";
  other.version = "the other one";
  std::string path = testbed::write_application(other, site.folder.path());
  // | Function pathToRelaunchForUpdater() as string
  on("pathToRelaunchForUpdater as string", [&](host::Event&) {
    // | return "/Applications/Example.app"
    return path;
    // | End Function
  });
  check("checkForUpdates");
  EXPECT_EQ(site.installed(), "3.0");
  EXPECT_EQ(site.started(), "the other one");
}

TEST_P(Guide, EventPermission) {
  setenv("SPARKLE_PERMISSION", "yes", 1); // what a person would answer
  // | Function updaterShouldPromptForPermissionToCheckForUpdates() as boolean
  on("updaterShouldPromptForPermissionToCheckForUpdates as boolean", [&](host::Event&) {
    // | return false
    return false;
    // | End Function
  });
  makeUpdater();
  ASSERT_TRUE(host::runUntil([&] { return !raised().empty(); }, 60));
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("updaterShouldPromptForPermissionToCheckForUpdates"));
  EXPECT_FALSE(host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean"));
}

TEST_P(Guide, PrepareFeedParameters) {
  mFeedParameters = host::array(9);
  std::vector<host::Value> parameters;
  {
    // | dim edition as new Dictionary
    host::Object edition = host::dictionary();
    // | edition.Value("key") = "edition"
    host::put(edition, "key", "edition");
    // | edition.Value("value") = EncodeURLComponent("Pro & Team")
    host::put(edition, "value", encodeURLComponent("Pro & Team"));
    // | edition.Value("displayKey") = "Edition"
    host::put(edition, "displayKey", "Edition");
    // | edition.Value("displayValue") = "Pro & Team"
    host::put(edition, "displayValue", "Pro & Team");
    // | mFeedParameters.Append edition
    parameters.push_back(edition);
    mFeedParameters = host::array(9, parameters);
  }
  parameters.clear();
  makeUpdater();
  on("feedParametersForUpdater", [&](host::Event&) { return mFeedParameters; });
  check("checkForUpdateInformation");
  ASSERT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  testbed::Request request = site.server.requests("/appcast.xml")[0];
  EXPECT_EQ(request.query, "edition=Pro%2520%2526%2520Team");
  EXPECT_EQ(request.parameter("edition"), encodeURLComponent("Pro & Team"));
}

TEST_P(Guide, EventFeedParameters) {
  makeUpdater();
  mFeedParameters = host::array(9);
  std::atomic<bool> asked = false;
  // | Function feedParametersForUpdater(sendingProfile as boolean) as dictionary()
  on("feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
     [&](host::Event& event) {
       EXPECT_EQ(event.boolean(0), asked.exchange(true));
       // | return mFeedParameters
       return mFeedParameters;
       // | End Function
     });
  check("checkForUpdateInformation");
  host::set(mUpdater, "sendsSystemProfile as boolean", true);
  check("checkForUpdateInformation");
  auto requests = site.server.requests("/appcast.xml");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].query, "");
  EXPECT_EQ(requests[1].parameter("appVersion"), "2.0");
}

// ---- Your own order of versions ----

TEST_P(Guide, EventCompareVersion) {
  makeUpdater();
  mComparison = host::construct("MyComparison", "Constructor");
  on("versionComparatorForUpdater", [&](host::Event&) { return mComparison; });
  auto val = [](const std::string& text) { return std::atof(text.c_str()); };
  // | Function compareVersion(VersionA as string, VersionB as string) as integer
  host::handle("MyComparison", "compareVersion(VersionA as string, VersionB as string) as integer",
               [&](host::Event& event) {
                 std::string VersionA = event.text(0).value_or("");
                 std::string VersionB = event.text(1).value_or("");
                 // | if Val(VersionA) < Val(VersionB) then return NSOrderedAscending
                 if (val(VersionA) < val(VersionB)) return constant("NSOrderedAscending");
                 // | if Val(VersionA) > Val(VersionB) then return NSOrderedDescending
                 if (val(VersionA) > val(VersionB)) return constant("NSOrderedDescending");
                 // | return NSOrderedSame
                 return constant("NSOrderedSame");
                 // | End Function
               });
  noteReports();
  for (const char* version : {"3", "2", "1"}) {
    offer(version);
    check("checkForUpdateInformation");
  }
  std::vector<std::string> reports = raised();
  std::erase_if(reports, [](const std::string& name) { return !contains(name, "Find"); });
  EXPECT_THAT(reports, ElementsAre("didFindValidUpdate", "updaterDidNotFindUpdate",
                                   "updaterDidNotFindUpdate"));
}

TEST_P(Guide, KeepComparator) {
  makeUpdater();
  host::handle("MyComparison", "compareVersion", [](host::Event&) { return 0; });
  on("versionComparatorForUpdater", [&](host::Event&) { return mComparison; });
  // | mUpdater.mComparison = new MyComparison
  mComparison = host::construct("MyComparison", "Constructor");
  check("checkForUpdates");
  check("checkForUpdates");
  EXPECT_EQ(std::ranges::count(raised(), "compareVersion"), 2);
  EXPECT_EQ(site.installed(), "2.0");
}

// ---- Relaunch later ----

TEST_P(Guide, RelaunchNow) {
  makeUpdater();
  mHasUnsavedDocuments = true;
  on("shouldPostponeRelaunchForUpdate", [&](host::Event&) {
    mRelaunchWaits = true;
    return true;
  });
  std::vector<std::string> inside;
  bool invoking = false;
  for (const char* event : {"willInstallUpdate", "updaterWillRelaunchApplication"})
    on(event, [&, event](host::Event&) {
      if (invoking) inside.push_back(event);
    });
  auto saved = [&] {
    // | if mUpdater.mRelaunchWaits and not mUpdater.mHasUnsavedDocuments then
    if (mRelaunchWaits && !mHasUnsavedDocuments) {
      // | mUpdater.mRelaunchWaits = false
      mRelaunchWaits = false;
      invoking = true;
      // | mUpdater.InvokeUpdate
      host::call(mUpdater, "InvokeUpdate");
      // | end if
    }
  };
  saved();
  host::call(mUpdater, "checkForUpdates");
  ASSERT_TRUE(host::runUntil([&] { return bool(mRelaunchWaits); }, 60));
  EXPECT_EQ(site.installed(), "3.0");
  saved();
  EXPECT_TRUE(inProgress());
  EXPECT_EQ(site.started(), "");
  mHasUnsavedDocuments = false;
  saved();
  finish();
  EXPECT_EQ(site.started(), "3.0");
}

// ---- Let people decide ----

TEST_P(Guide, AutomaticChecksShow) {
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "YES"}});
  makeUpdater();
  bool meValue = false;
  // | me.Value = App.mUpdater.automaticallyChecksForUpdates
  meValue = host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean");
  EXPECT_TRUE(meValue);
}

TEST_P(Guide, AutomaticChecksSet) {
  makeUpdater();
  offer("2.0");
  bool meValue = true;
  // | App.mUpdater.automaticallyChecksForUpdates = me.Value
  host::set(mUpdater, "automaticallyChecksForUpdates as boolean", meValue);
  ASSERT_TRUE(host::runUntil(
      [&] { return !site.server.requests("/appcast.xml").empty() && !inProgress(); }, 60));
  // The choice is kept, and counts more than the Info.plist.
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "NO"}});
  mUpdater = host::construct("MyUpdater", "Constructor");
  EXPECT_TRUE(host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean"));
}

TEST_P(Guide, CheckInterval) {
  makeUpdater();
  EXPECT_EQ(host::get<double>(mUpdater, "updateCheckInterval as double"), 86400);
  install({{"SUScheduledCheckInterval", "7200"}});
  EXPECT_EQ(host::get<double>(mUpdater, "updateCheckInterval as double"), 7200);
  // | App.mUpdater.updateCheckInterval = 7 * 24 * 60 * 60
  host::set(mUpdater, "updateCheckInterval as double", 7.0 * 24 * 60 * 60);
  EXPECT_EQ(host::get<double>(mUpdater, "updateCheckInterval as double"), 604800);
}

TEST_P(Guide, LastCheck) {
  makeUpdater();
  std::string lastCheckText;
  auto show = [&] {
    // | dim last as Date = App.mUpdater.lastUpdateCheckDate
    auto last = host::get<host::Object>(mUpdater, "lastUpdateCheckDate as date");
    // | if last = nil then
    if (!last) {
      // | LastCheck.Text = "never"
      lastCheckText = "never";
      // | else
    } else {
      // | LastCheck.Text = last.ShortDate
      lastCheckText = std::to_string(host::dateFields(last).year);
      // | end if
    }
  };
  show();
  EXPECT_EQ(lastCheckText, "never");
  check("checkForUpdateInformation");
  show();
  EXPECT_GE(std::stoi(lastCheckText), 2024);
}

TEST_P(Guide, LookOnly) {
  makeUpdater();
  noteReports();
  // | App.mUpdater.mSomebodyWaits = true
  mSomebodyWaits = true;
  // | App.mUpdater.checkForUpdateInformation
  host::call(mUpdater, "checkForUpdateInformation");
  finish();
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "didFindValidUpdate"));
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(Guide, LookFailed) {
  makeUpdater();
  on("didFindValidUpdate", [&](host::Event&) { mSomebodyWaits = false; });
  on("updaterDidNotFindUpdate", [&](host::Event&) { mSomebodyWaits = false; });
  auto action = [&] {
    // | if mUpdater.mSomebodyWaits and not mUpdater.updateInProgress then
    if (mSomebodyWaits && !host::get<bool>(mUpdater, "updateInProgress as boolean")) {
      // | mUpdater.mSomebodyWaits = false
      mSomebodyWaits = false;
      // | MsgBox "The list of versions could not be fetched. Are you connected to the internet?"
      msgBox("The list of versions could not be fetched. Are you connected to the internet?");
      // | end if
    }
  };
  for (bool reachable : {true, false}) {
    if (!reachable)
      site.server.serve("/appcast.xml", {.trouble = testbed::Answer::Trouble::hang_up});
    mSomebodyWaits = true;
    host::call(mUpdater, "checkForUpdateInformation");
    ASSERT_TRUE(host::runUntil([&] { return action(), !mSomebodyWaits; }, 60));
    finish();
    EXPECT_EQ(messages.size(), reachable ? 0u : 1u);
  }
}

TEST_P(Guide, ReadFeed) {
  ASSERT_TRUE(load());
  // | mHistory = new SUAppcastKVZ
  mHistory = host::construct("SUAppcastKVZ", "Constructor");
  // | mHistory.UserAgentString = "Example/2.0"
  host::set(mHistory, "UserAgentString as string", "Example/2.0");
  // | mHistory.fetchAppcastFromURL "http://www.example.com/appcast.xml"
  host::call(mHistory, "fetchAppcastFromURL(url as string)", site.feedURL());
  ASSERT_TRUE(host::runUntil(
      [&] {
        return host::upperBound(host::get<host::Object>(mHistory, "items as SUAppcastItemKVZ()")) >=
               0;
      },
      60));
  ASSERT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  EXPECT_EQ(site.server.requests("/appcast.xml")[0].user_agent, "Example/2.0");
}

TEST_P(Guide, ReadFeedLater) {
  ASSERT_TRUE(load());
  site.item.description = "Faster, and with fewer mistakes.";
  offer("3.0");
  mHistory = host::construct("SUAppcastKVZ", "Constructor");
  bool running = true;
  std::vector<std::string> historyWindowList;
  auto action = [&] {
    // | dim releases() as SUAppcastItemKVZ = mHistory.items
    auto releases = host::get<host::Object>(mHistory, "items as SUAppcastItemKVZ()");
    // | if UBound(releases) < 0 then return
    if (host::upperBound(releases) < 0) return;
    // | me.Mode = Timer.ModeOff
    running = false;
    // | for each release as SUAppcastItemKVZ in releases
    for (const host::Object& release : listed(releases)) {
      // | HistoryWindow.List.AddRow release.versionString, release.itemDescription
      historyWindowList.push_back(text(release, "versionString as string") + "|" +
                                  text(release, "itemDescription as string"));
      // | next
    }
  };
  action();
  EXPECT_TRUE(running);
  host::call(mHistory, "fetchAppcastFromURL(url as string)", site.feedURL());
  ASSERT_TRUE(host::runUntil([&] { return action(), !running; }, 60));
  EXPECT_THAT(historyWindowList, ElementsAre("3.0|Faster, and with fewer mistakes."));
}

// ---- More than one feed, more than one bundle ----

TEST_P(Guide, TwoFeeds) {
  makeUpdater();
  auto choose = [&] {
    // | if App.mUpdater.mWantsBetas then
    if (mWantsBetas) {
      // | App.mUpdater.feedURL = "http://www.example.com/betas.xml"
      host::set(mUpdater, "feedURL as string", "http://www.example.com/betas.xml");
      // | else
    } else {
      // | App.mUpdater.feedURL = ""
      host::set(mUpdater, "feedURL as string", "");
      // | end if
    }
  };
  mWantsBetas = true;
  choose();
  EXPECT_EQ(text(mUpdater, "feedURL as string"), "http://www.example.com/betas.xml");
  EXPECT_THAT(testbed::read_file(session::folder() + "/org.example.demo.plist"),
              HasSubstr("http://www.example.com/betas.xml"));
  mWantsBetas = false;
  choose();
  EXPECT_EQ(text(mUpdater, "feedURL as string"), site.feedURL());
}

TEST_P(Guide, OtherBundle) {
  ASSERT_TRUE(load());
  testbed::Application application = site.application;
  application.folder = "Helper.app";
  application.name = "Helper";
  application.identifier = "org.example.helper";
  std::string bundle = testbed::write_application(application, site.folder.path());
  application.version = "3.0";
  testbed::publish(site.server, application, site.keys);
  host::Object mHelperUpdater;
  // | dim helper as FolderItem = SpecialFolder.Applications.Child("Helper.app")
  host::Object helper = host::folderItem(bundle);
  // | mHelperUpdater = new MyUpdater(helper)
  mHelperUpdater = host::construct("MyUpdater", "Constructor(Bundle as folderitem)", helper);
  // | mHelperUpdater.checkForUpdates
  host::call(mHelperUpdater, "checkForUpdates");
  mUpdater = mHelperUpdater;
  finish();
  EXPECT_EQ(testbed::installed_version(bundle), "3.0");
  EXPECT_EQ(site.installed(), "2.0");
  EXPECT_EQ(host::path(host::get<host::Object>(mUpdater, "hostBundle as folderitem")), bundle);
}

// ---- Publish a release ----

TEST_P(Guide, PublishedByHand) {
  // The Mac's own commands of those years are the same, but for the name of the method.
  EXPECT_EQ(replaced(block("shell: old-sign"), "-dss1", "-sha1"), block("shell: sign"));
  auto fromSecondLine = [](const std::string& text) {
    return text.substr(text.find("openssl gendsa"));
  };
  EXPECT_EQ(fromSecondLine(block("shell: old-keys")), fromSecondLine(block("shell: keys")));

  std::string bundle = publishByHand("sign");
  EXPECT_EQ(bitsOfQ(publishing / "dsa_priv.pem"), 160);
  ASSERT_THAT(signature, StartsWith("M"));
  ASSERT_TRUE(load());
  std::map<std::string, std::string> seen;
  host::DateFields date;
  on("didFindValidUpdate", [&](host::Event& event) {
    for (const char* member :
         {"title as string", "itemDescription as string", "releaseNotesURL as string",
          "minimumSystemVersion as string", "fileURL as string", "versionString as string",
          "displayVersionString as string", "DSASignature as string"})
      seen[std::string(member).substr(0, std::string(member).find(' '))] = text(event[0], member);
    date = host::dateFields(host::get<host::Object>(event[0], "date as date"));
  });
  mUpdater =
      host::construct("MyUpdater", "Constructor(Bundle as folderitem)", host::folderItem(bundle));
  check("checkForUpdates");
  EXPECT_EQ(testbed::installed_version(bundle), "3.0.0.3.0");
  const std::map<std::string, std::string> expected = {
      {"title", "Version 3.0"},
      {"itemDescription", "Faster, and with fewer mistakes."},
      {"releaseNotesURL", site.server.url("/notes_3.0.html")},
      {"minimumSystemVersion", "10.6"},
      {"fileURL", site.server.url("/Example_3.0.zip")},
      {"versionString", "3.0.0.3.0"},
      {"displayVersionString", "3.0"},
      {"DSASignature", signature},
  };
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(date.year, 2008); // hour and day are those of the machine's time zone
  EXPECT_EQ(date.month, 7);
}

// ---- Common mistakes ----

TEST_P(Guide, CatchExceptions) {
  install({});
  makeUpdater();
  session::takeLog();
  // | try
  {
    // | mUpdater.checkForUpdates
    host::call(mUpdater, "checkForUpdates");
    // | catch error as NSExceptionKVZ
    if (auto error = host::takeException(); error && error->className == "NSExceptionKVZ") {
      // | MsgBox "The check could not begin. " + error.Message
      msgBox("The check could not begin. " + error->message.value_or(""));
      // | end try
    }
  }
  EXPECT_THAT(messages, ElementsAre(HasSubstr("feed")));
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr(" A SUNoFeedURL: ")));
}

TEST_P(Guide, FrameworkThatIsNotThere) {
  session::takeLog();
  EXPECT_FALSE(host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                                host::folderItem(contents / "Sparkle.framework"))
                   .as<bool>());
  mUpdater = host::construct("MyUpdater", "Constructor");
  host::set(mUpdater, "feedURL as string", site.feedURL());
  EXPECT_EQ(text(mUpdater, "feedURL as string"), "");
  host::call(mUpdater, "checkForUpdates");
  EXPECT_FALSE(inProgress());
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Guide, UpdaterMadeTooEarly) {
  mUpdater = host::construct("MyUpdater", "Constructor");
  ASSERT_TRUE(load());
  EXPECT_TRUE(load());
  host::call(mUpdater, "checkForUpdates");
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(text(mUpdater, "feedURL as string"), "");
  mUpdater = host::construct("MyUpdater", "Constructor");
  EXPECT_EQ(text(mUpdater, "feedURL as string"), site.feedURL());
}

TEST_P(Guide, NoFeed) {
  install({});
  makeUpdater();
  for (const char* noURL : {"", "http://www.example.com/no address.xml"}) {
    host::set(mUpdater, "feedURL as string", noURL);
    EXPECT_EQ(text(mUpdater, "feedURL as string"), "");
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
  }
  session::takeLog();
  host::call(mUpdater, "checkForUpdateInformation");
  EXPECT_TRUE(host::takeException());
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr(" A SUNoFeedURL: ")));
  // Dead from now on.
  host::set(mUpdater, "feedURL as string", site.feedURL());
  for (const char* member :
       {"checkForUpdates", "checkForUpdatesInBackground", "checkForUpdateInformation"}) {
    host::call(mUpdater, member);
    EXPECT_FALSE(host::takeException());
    turnFor(site.server.url("/appcast.xml?turns"));
    EXPECT_TRUE(inProgress());
  }
  for (const testbed::Request& request : site.server.requests("/appcast.xml"))
    EXPECT_EQ(request.query, "turns");
}

TEST_P(Guide, NoFeedInBackground) {
  framework("1.6");
  install({});
  makeUpdater();
  host::call(mUpdater, "checkForUpdatesInBackground");
  EXPECT_FALSE(host::takeException());
  turnFor(site.feedURL());
  EXPECT_FALSE(inProgress());
  host::set(mUpdater, "feedURL as string", site.feedURL());
  on("didFindValidUpdate", [](host::Event&) {});
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFindValidUpdate"));
}

TEST_P(Guide, ConstructorCalledTwice) {
  makeUpdater();
  mComparison = host::construct("MyComparison", "Constructor");
  auto again = [](const host::Object& object) {
    int handle = host::get<int>(object, "Handle");
    host::call(object, "Constructor");
    auto raised = host::takeException();
    ASSERT_TRUE(raised) << host::className(object);
    EXPECT_EQ(raised->className, "UnsupportedOperationException");
    EXPECT_EQ(raised->message, "Constructor called too often. Object is already initialized.");
    EXPECT_EQ(host::get<int>(object, "Handle"), handle);
  };
  on("didFinishLoadingAppcast", [&](host::Event& event) {
    again(event[0]);
    auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
    for (const host::Object& item : listed(items)) again(item);
  });
  again(mUpdater);
  again(mComparison);
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast"));
}

TEST_P(Guide, InvokeUpdateWithNothingPostponed) {
  makeUpdater();
  auto refused = [&] {
    host::call(mUpdater, "InvokeUpdate");
    auto raised = host::takeException();
    return raised && raised->className == "NilObjectException" &&
           raised->message == "invocation is nil!";
  };
  EXPECT_TRUE(refused());
  on("shouldPostponeRelaunchForUpdate", [&](host::Event&) {
    mRelaunchWaits = true;
    return true;
  });
  host::call(mUpdater, "checkForUpdates");
  ASSERT_TRUE(host::runUntil([&] { return bool(mRelaunchWaits); }, 60));
  host::call(mUpdater, "InvokeUpdate");
  EXPECT_FALSE(host::takeException());
  EXPECT_TRUE(refused());
  finish();
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(Guide, TwoUpdaters) {
  makeUpdater();
  noteReports();
  host::Object other = host::construct("MyUpdater", "Constructor");
  EXPECT_EQ(host::get<int>(other, "Handle"), host::get<int>(mUpdater, "Handle"));
  host::Object told;
  on("didFindValidUpdate", [&](host::Event& event) { told = event.target; });
  check("checkForUpdateInformation");
  EXPECT_EQ(told, other);
  told.reset();
  host::clearEvents();
  other.reset();
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), IsEmpty());
}

TEST_P(Guide, UpdaterKeptInAVariable) {
  noteReports();
  on("shouldPostponeRelaunchForUpdate", [](host::Event&) { return true; });
  ASSERT_TRUE(load());
  {
    host::Pool pool; // as a turn of the event loop ends
    host::Object updater = host::construct("MyUpdater", "Constructor");
    host::call(updater, "checkForUpdatesInBackground");
  }
  // The framework's updater is still there, and goes on.
  ASSERT_TRUE(host::runUntil([&] { return site.started() == "3.0"; }, 60));
  EXPECT_EQ(site.installed(), "3.0");
  EXPECT_THAT(raised(), IsEmpty());
}

TEST_P(Guide, ComparatorThatIsNotKept) {
  makeUpdater();
  offer("2.0");
  host::handle("MyComparison", "compareVersion", [](host::Event&) { return 0; });
  on("versionComparatorForUpdater",
     [](host::Event&) { return host::construct("MyComparison", "Constructor"); });
  noteReports();
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "versionComparatorForUpdater",
                                    "didFindValidUpdate"));
}

TEST_P(Guide, ConstructorWithoutSuper) {
  ASSERT_TRUE(load());
  session::takeLog();
  mUpdater = host::create("MyUpdater");
  host::call(mUpdater, "checkForUpdates");
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(host::get<int>(mUpdater, "Handle"), 0);
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(Guide, WrongSignature) {
  makeUpdater();
  noteReports();
  for (const std::string& wrong :
       {testbed::sign(testbed::make_key_pair(), "something else"), std::string()}) {
    host::clearEvents();
    session::takeLog();
    site.item.signature = wrong;
    offer("3.0");
    check("checkForUpdates");
    EXPECT_EQ(site.installed(), "2.0");
    EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "didFindValidUpdate"));
    EXPECT_THAT(session::takeLog(), Contains(HasSubstr("improperly signed")));
  }
}

TEST_P(Guide, SignedTheFileItself) {
  std::string bundle = publishByHand("wrong-sign");
  // It is a signature of the file, and a good one.
  testbed::write_file(publishing / "signature", signature + "\n");
  EXPECT_THAT(shell(publishing, "openssl enc -base64 -d -in signature -out signature.bin\n"
                                "openssl dgst -sha1 -verify dsa_pub.pem -signature signature.bin "
                                "Example_3.0.zip"),
              StartsWith("Verified OK"));
  ASSERT_TRUE(load());
  noteReports();
  session::takeLog();
  mUpdater =
      host::construct("MyUpdater", "Constructor(Bundle as folderitem)", host::folderItem(bundle));
  check("checkForUpdates");
  EXPECT_EQ(testbed::installed_version(bundle), "2.0.0.3.0");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "didFindValidUpdate"));
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr("improperly signed")));
}

TEST_P(Guide, ParameterNotEscaped) {
  makeUpdater();
  on("feedParametersForUpdater", [&](host::Event&) {
    return host::array(9, {host::dictionary({{"key", "edition"}, {"value", "Pro & Team"}}),
                           host::dictionary({{"key", "signs"}, {"value", "=?+/ \u00e4%"}}),
                           host::dictionary({{"key", "none"}})});
  });
  check("checkForUpdateInformation");
  ASSERT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  testbed::Request request = site.server.requests("/appcast.xml")[0];
  EXPECT_EQ(request.query, "edition=Pro%20&%20Team&signs==?+/%20%C3%A4%25&none=%3Cnull%3E");
}

TEST_P(Guide, FeedThatIsNone) {
  makeUpdater();
  noteReports();
  for (const char* member : {"checkForUpdateInformation", "checkForUpdatesInBackground"}) {
    for (const testbed::Answer& answer :
         {testbed::Answer{.body = "no", .status = 404}, testbed::Answer{.body = "a letter"},
          testbed::Answer{.trouble = testbed::Answer::Trouble::hang_up}}) {
      session::takeLog();
      site.server.serve("/appcast.xml", answer);
      check(member);
      EXPECT_THAT(raised(), IsEmpty());
      EXPECT_EQ(session::takeLog().empty(), std::string(member) == "checkForUpdatesInBackground");
    }
  }
}

TEST_P(Guide, FeedThatIsAPage) {
  makeUpdater();
  noteReports();
  site.server.serve("/appcast.xml", {.body = "<html><body>Not Found</body></html>", .status = 404});
  on("bestValidUpdateInAppcast", [](host::Event&) { return nullptr; });
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "bestValidUpdateInAppcast",
                                    "updaterDidNotFindUpdate"));
}

TEST_P(Guide, DroppedRelease) {
  makeUpdater();
  testbed::Item noEnclosure = site.item, noURL = site.item, noVersion = site.item;
  noEnclosure.url = "";
  noURL.url = "";
  noURL.extra = "<enclosure sparkle:version=\"4.0\" length=\"1\"/>";
  noVersion.version = "";
  noVersion.url = site.server.url("/Demo.zip");
  noVersion.extra = "<sparkle:version>4.0</sparkle:version>"; // an element is not read
  testbed::Item named = site.item, part = site.item;
  named.version = "";
  part.url = "Demo%20_3.0.zip";
  site.feed(testbed::appcast_xml({noEnclosure, noURL, noVersion, named, part}));
  std::vector<std::string> versions, urls;
  on("didFinishLoadingAppcast", [&](host::Event& event) {
    auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
    for (const host::Object& item : listed(items)) {
      versions.push_back(text(item, "versionString as string"));
      urls.push_back(text(item, "fileURL as string"));
    }
  });
  session::takeLog();
  check("checkForUpdateInformation");
  EXPECT_THAT(versions, ElementsAre("3.0", "3.0"));
  EXPECT_THAT(urls, ElementsAre(named.url, "Demo%2520_3.0.zip"));
  EXPECT_GE(session::takeLog().size(), 3u);
}

TEST_P(Guide, MadeTooLateForAutomaticChecks) {
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "YES"}});
  offer("2.0");
  makeUpdater();
  turnFor(site.server.url("/appcast.xml?turns"));
  EXPECT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  host::call(mUpdater, "resetUpdateCycle");
  ASSERT_TRUE(host::runUntil(
      [&] { return site.server.requests("/appcast.xml").size() > 1 && !inProgress(); }, 60));
  // 0 switches them off.
  host::set(mUpdater, "updateCheckInterval as double", 0.0);
  EXPECT_FALSE(host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean"));
  host::set(mUpdater, "automaticallyChecksForUpdates as boolean", true);
  EXPECT_EQ(host::get<double>(mUpdater, "updateCheckInterval as double"), 86400);
}

TEST_P(Guide, SecondCheckIsIgnored) {
  makeUpdater();
  // The check cannot come to its end while nobody turns the run loop.
  noteReports();
  host::call(mUpdater, "checkForUpdateInformation");
  EXPECT_TRUE(inProgress());
  host::call(mUpdater, "checkForUpdates");
  finish();
  EXPECT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(Guide, FrameworkWaitsForTheHandler) {
  makeUpdater();
  bool waits = false;
  on("didFindValidUpdate",
     [&](host::Event&) { waits = inProgress() && site.server.requests("/Demo_3.0.zip").empty(); });
  check("checkForUpdates");
  EXPECT_TRUE(waits);
  EXPECT_EQ(site.server.requests("/Demo_3.0.zip").size(), 1u);
}

TEST_P(Guide, VersionsThatDoNotMatch) {
  testbed::Application same = site.application; // 2.0
  testbed::Item item = testbed::publish(site.server, same, site.keys);
  site.item = item;
  offer("3.0");
  makeUpdater();
  on("didFindValidUpdate", [](host::Event&) {});
  check("checkForUpdates");
  EXPECT_EQ(site.started(), "2.0");
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFindValidUpdate", "didFindValidUpdate"));
}

TEST_P(Guide, ThreadsAreAsTheTableSays) {
  framework("1.5b6");
  seeThreads(3);
}

TEST_P(Guide, ThreadsOf16) {
  framework("1.6");
  seeThreads(4);
}
