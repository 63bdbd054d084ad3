// What docs/guide.md says of the plug-in and the framework, seen: what differs by version, and the
// mistakes that it describes, made.

#include "guide.h"

#include <algorithm>
#include <mutex>
#include <regex>
#include <set>

using namespace guide;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class GuideClaims : public Guide {
protected:
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
    on("bestValidUpdateInAppcast", [](host::Event& event) { return items(event[0])[0]; });
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

  // An updater's whole life, in turns of the event loop.
  void makeCheckAndLetGo() {
    {
      host::Pool pool;
      mUpdater = host::construct("MyUpdater", "Constructor");
    }
    check("checkForUpdateInformation");
    mUpdater.reset();
  }

  // The road of a postponed relaunch, what is installed while it waits, and what is left of the
  // updater when the program does not quit.
  void seeRelaunch(const char* installedThen, const std::vector<std::string>& road) {
    std::mutex mutex;
    std::vector<std::string> gone;
    auto note = [&](const std::string& name) {
      std::lock_guard lock(mutex);
      gone.push_back(name);
    };
    for (const char* event : {"willInstallUpdate", "updaterWillRelaunchApplication"})
      on(event, [note, event](host::Event&) { note(event); });
    on("shouldPostponeRelaunchForUpdate", [&](host::Event&) {
      note("shouldPostponeRelaunchForUpdate");
      return mRelaunchWaits = true;
    });
    on("pathToRelaunchForUpdater", [&](host::Event&) {
      note("pathToRelaunchForUpdater");
      return site.bundle;
    });
    makeUpdater();
    host::call(mUpdater, "checkForUpdates");
    ASSERT_TRUE(host::runUntil([&] { return bool(mRelaunchWaits); }, 60));
    EXPECT_EQ(site.installed(), installedThen);
    note("InvokeUpdate");
    host::call(mUpdater, "InvokeUpdate");
    EXPECT_TRUE(toldToQuit);
    note("returns");
    EXPECT_EQ(gone, road);
    EXPECT_TRUE(inProgress());
    size_t asked = site.server.requests("/appcast.xml").size();
    host::call(mUpdater, "checkForUpdateInformation");
    turnFor(site.server.url("/appcast.xml?turns"));
    EXPECT_EQ(site.server.requests("/appcast.xml").size(), asked + 1);
    EXPECT_TRUE(inProgress());
  }
};

INSTANTIATE_TEST_SUITE_P(Hosts, GuideClaims, session::oneHost(), session::hostName);

// ---- A first check ----

TEST_P(GuideClaims, WindowsOfEachCheck) {
  makeUpdater();
  noteReports();
  steps::answer("A new version is available!", "Remind Me Later");
  testbed::Answer feed{testbed::appcast_xml({item})}, older = feed, none = {.body = "a letter"};
  item.version = "1.0";
  older.body = testbed::appcast_xml({item});
  struct Row {
    const char* member;
    std::vector<std::string> found, notFound, failed; // the windows
    bool tells;                                       // that nothing is newer
  };
  const Row rows[] = {
      {"checkForUpdates",
       {"Checking for updates…", "A new version is available!"},
       {"Checking for updates…", "You're up to date!"},
       {"Checking for updates…", "Update Error!"},
       true},
      {"checkForUpdatesInBackground", {"A new version is available!"}, {}, {}, false},
      {"checkForUpdateInformation", {}, {}, {}, true},
  };
  for (const Row& row : rows) {
    auto seen = [&](const testbed::Answer& answer) {
      windows.clear();
      host::clearEvents();
      site.server.serve("/appcast.xml", answer);
      check(row.member);
      return windows;
    };
    EXPECT_EQ(seen(feed), row.found) << row.member;
    EXPECT_THAT(raised(), Contains("didFindValidUpdate")) << row.member;
    EXPECT_EQ(seen(older), row.notFound) << row.member;
    EXPECT_EQ(std::ranges::count(raised(), "updaterDidNotFindUpdate"), row.tells) << row.member;
    EXPECT_EQ(seen(none), row.failed) << row.member;
  }
}

TEST_P(GuideClaims, SkippedVersion) {
  makeUpdater();
  noteReports();
  std::vector<std::string> compared;
  mComparison = host::construct("MyComparison", "Constructor");
  on("versionComparatorForUpdater", [&](host::Event&) { return mComparison; });
  host::handle("MyComparison", "compareVersion", [&](host::Event& event) {
    std::string a = event.text(0).value_or(""), b = event.text(1).value_or("");
    compared.push_back(a + "," + b);
    return a.compare(b);
  });
  offer("3.0");
  steps::answer("A new version is available!", "Skip This Version");
  check("checkForUpdatesInBackground");
  EXPECT_THAT(windows, ElementsAre("A new version is available!"));
  EXPECT_THAT(compared, ElementsAre("2.0,3.0"));
  check("checkForUpdatesInBackground");
  EXPECT_EQ(windows.size(), 1u);
  EXPECT_THAT(compared, ElementsAre("2.0,3.0", "2.0,3.0", "3.0,3.0"));
  EXPECT_EQ(std::ranges::count(raised(), "didFindValidUpdate"), 1);
  check("checkForUpdates");
  EXPECT_THAT(windows, Contains("A new version is available!").Times(2));
}

TEST_P(GuideClaims, AutomaticDownload) {
  makeUpdater();
  host::set(mUpdater, "automaticallyDownloadsUpdates as boolean", true);
  check("checkForUpdatesInBackground");
  EXPECT_THAT(windows, ElementsAre("A new version is ready"));
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(GuideClaims, SettingsThatAreNotRead) {
  install({{"SUAutomaticallyUpdate", "YES"}, {"SUSendProfileInfo", "YES"}});
  makeUpdater();
  EXPECT_FALSE(host::get<bool>(mUpdater, "automaticallyDownloadsUpdates as boolean"));
  EXPECT_FALSE(host::get<bool>(mUpdater, "sendsSystemProfile as boolean"));
  host::set(mUpdater, "automaticallyDownloadsUpdates as boolean", true);
  EXPECT_TRUE(host::get<bool>(mUpdater, "automaticallyDownloadsUpdates as boolean"));
  testbed::Application application = site.application;
  application.folder = "Helper.app";
  application.info = {{"SUAllowsAutomaticUpdates", "NO"}};
  std::string bundle = testbed::write_application(application, site.folder.path());
  host::Object helper =
      host::construct("MyUpdater", "Constructor(Bundle as folderitem)", host::folderItem(bundle));
  host::set(helper, "automaticallyDownloadsUpdates as boolean", true);
  EXPECT_FALSE(host::get<bool>(helper, "automaticallyDownloadsUpdates as boolean"));
}

// ---- The eleven events ----

TEST_P(GuideClaims, EmptyEventIsAnAnswer) {
  makeUpdater();
  noteReports();
  on("bestValidUpdateInAppcast", [](host::Event&) { return nullptr; });
  check("checkForUpdates");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "bestValidUpdateInAppcast",
                                    "updaterDidNotFindUpdate"));
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(GuideClaims, NothingNewerInBackground) {
  makeUpdater();
  offer("2.0");
  on("updaterDidNotFindUpdate", [](host::Event&) {});
  check("checkForUpdatesInBackground");
  EXPECT_THAT(raised(), IsEmpty());
  host::set(mUpdater, "automaticallyDownloadsUpdates as boolean", true);
  check("checkForUpdatesInBackground");
  EXPECT_THAT(raised(), ElementsAre("updaterDidNotFindUpdate"));
}

TEST_P(GuideClaims, NothingNewerInBackgroundOf16) {
  framework("1.6");
  makeUpdater();
  offer("2.0");
  on("updaterDidNotFindUpdate", [](host::Event&) {});
  host::call(mUpdater, "checkForUpdatesInBackground");
  EXPECT_FALSE(inProgress()); // begins a moment later
  ASSERT_TRUE(host::runUntil([&] { return !raised().empty() && !inProgress(); }, 60));
  EXPECT_THAT(raised(), ElementsAre("updaterDidNotFindUpdate"));
}

TEST_P(GuideClaims, NoPathToRelaunch) {
  makeUpdater();
  on("pathToRelaunchForUpdater as string", [](host::Event&) { return nullptr; });
  check("checkForUpdates");
  EXPECT_TRUE(toldToQuit);
  EXPECT_EQ(site.installed(), "3.0");
  EXPECT_EQ(site.started(), "");
}

TEST_P(GuideClaims, NoPathToRelaunchOf16) {
  framework("1.6");
  makeUpdater();
  on("pathToRelaunchForUpdater as string", [](host::Event&) { return nullptr; });
  check("checkForUpdates");
  EXPECT_TRUE(toldToQuit);
  EXPECT_EQ(site.installed(), "2.0");
  EXPECT_EQ(site.started(), "");
}

// ---- Relaunch later ----

TEST_P(GuideClaims, RelaunchBeforeAndInside) {
  framework("1.5b6");
  seeRelaunch("3.0", {"willInstallUpdate", "shouldPostponeRelaunchForUpdate", "InvokeUpdate",
                      "updaterWillRelaunchApplication", "pathToRelaunchForUpdater", "returns"});
}

TEST_P(GuideClaims, RelaunchBeforeAndInsideOf16) {
  framework("1.6");
  seeRelaunch("2.0", {"shouldPostponeRelaunchForUpdate", "InvokeUpdate", "willInstallUpdate",
                      "updaterWillRelaunchApplication", "pathToRelaunchForUpdater", "returns"});
}

// ---- Let people decide ----

TEST_P(GuideClaims, ReadFeedBytesOf16) {
  framework("1.6");
  ASSERT_TRUE(load());
  mHistory = host::construct("SUAppcastKVZ", "Constructor");
  EXPECT_FALSE(host::get<host::Object>(mHistory, "incrementalData as memoryblock"));
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->className, "NSExceptionKVZ");
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr("NSUnknownKeyException")));
}

// ---- Publish a release ----

TEST_P(GuideClaims, TextsOfTheFeed) {
  makeUpdater();
  item.title = "\n  Version 3.0 \t";
  item.release_notes = "";
  item.description = "http://www.example.com/notes.html";
  item.version = "5";
  testbed::Item secure = item, dated = item;
  secure.description = "https://www.example.com/notes.html";
  secure.version = "4";
  secure.date = "no date";
  dated.version = "3";
  dated.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  site.feed(replaced(testbed::appcast_xml({secure, item, dated}), "</rss>",
                     "<item><title>no</title></item></rss>"));
  std::vector<std::string> read;
  on("didFinishLoadingAppcast", [&](host::Event& event) {
    for (const host::Object& each : items(event[0])) {
      auto properties = host::get<host::Object>(each, "propertiesDictionary as dictionary");
      EXPECT_EQ(host::className(host::at(host::at(properties, "enclosure"), "length")), "Variant");
      read.push_back(text(each, "versionString as string") + "|" + text(each, "title as string") +
                     "|" + text(each, "releaseNotesURL as string"));
    }
  });
  check("checkForUpdateInformation");
  EXPECT_THAT(read,
              ElementsAre("5|Version 3.0|http://www.example.com/notes.html",
                          "3|Version 3.0|http://www.example.com/notes.html", "4|Version 3.0|"));
}

// ---- Common mistakes ----

TEST_P(GuideClaims, FrameworkThatIsNotThere) {
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

TEST_P(GuideClaims, UpdaterMadeTooEarly) {
  mUpdater = host::construct("MyUpdater", "Constructor");
  ASSERT_TRUE(load());
  EXPECT_TRUE(load());
  host::call(mUpdater, "checkForUpdates");
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(text(mUpdater, "feedURL as string"), "");
  mUpdater = host::construct("MyUpdater", "Constructor");
  EXPECT_EQ(text(mUpdater, "feedURL as string"), site.feedURL());
}

TEST_P(GuideClaims, NoFeed) {
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

TEST_P(GuideClaims, NoFeedInBackground) {
  framework("1.6");
  install({});
  makeUpdater();
  host::call(mUpdater, "checkForUpdatesInBackground");
  EXPECT_FALSE(host::takeException());
  EXPECT_FALSE(inProgress());
}

TEST_P(GuideClaims, ConstructorCalledTwice) {
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
    for (const host::Object& item : items(event[0])) again(item);
  });
  again(mUpdater);
  again(mComparison);
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast"));
}

TEST_P(GuideClaims, InvokeUpdateWithNothingPostponed) {
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

TEST_P(GuideClaims, UpdaterLetGo) {
  ASSERT_TRUE(load());
  for (int i = 0; i < 2; ++i) makeCheckAndLetGo();
  EXPECT_DEATH(makeCheckAndLetGo(), "used after its release");
}

TEST_P(GuideClaims, UpdaterLetGoOf16) {
  framework("1.6");
  ASSERT_TRUE(load());
  makeCheckAndLetGo();
  EXPECT_DEATH(makeCheckAndLetGo(), "used after its release");
}

TEST_P(GuideClaims, TwoUpdaters) {
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

TEST_P(GuideClaims, UpdaterKeptInAVariable) {
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

TEST_P(GuideClaims, ComparatorThatIsNotKept) {
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

TEST_P(GuideClaims, ConstructorWithoutSuper) {
  ASSERT_TRUE(load());
  session::takeLog();
  mUpdater = host::create("MyUpdater");
  host::call(mUpdater, "checkForUpdates");
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(host::get<int>(mUpdater, "Handle"), 0);
  EXPECT_THAT(session::takeLog(), IsEmpty());
}

TEST_P(GuideClaims, ParameterNotEscaped) {
  makeUpdater();
  on("feedParametersForUpdater", [&](host::Event&) {
    return host::array(9, {host::dictionary({{"key", "edition"}, {"value", "Pro & Team"}}),
                           host::dictionary({{"key", "signs"}, {"value", "=?+/ \u00e4%"}}),
                           host::dictionary({{"key", "none"}, {"value", nullptr}})});
  });
  check("checkForUpdateInformation");
  ASSERT_EQ(site.server.requests("/appcast.xml").size(), 1u);
  testbed::Request request = site.server.requests("/appcast.xml")[0];
  EXPECT_EQ(request.query, "edition=Pro%20&%20Team&signs==?+/%20%C3%A4%25&none=%3Cnull%3E");
}

TEST_P(GuideClaims, FeedThatIsNone) {
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

TEST_P(GuideClaims, FeedThatIsAPage) {
  makeUpdater();
  noteReports();
  site.server.serve("/appcast.xml", {.body = "<html><body>Not Found</body></html>", .status = 404});
  on("bestValidUpdateInAppcast", [](host::Event&) { return nullptr; });
  check("checkForUpdateInformation");
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "bestValidUpdateInAppcast",
                                    "updaterDidNotFindUpdate"));
}

TEST_P(GuideClaims, DroppedRelease) {
  makeUpdater();
  testbed::Item noEnclosure = item, noURL = item, noVersion = item;
  noEnclosure.url = "";
  noURL.url = "";
  noURL.extra = "<enclosure sparkle:version=\"4.0\" length=\"1\"/>";
  noVersion.version = "";
  noVersion.url = site.server.url("/Demo.zip");
  noVersion.extra = "<sparkle:version>4.0</sparkle:version>"; // an element is not read
  testbed::Item named = item, part = item;
  named.version = "";
  part.url = "Demo%20_3.0.zip";
  site.feed(testbed::appcast_xml({noEnclosure, noURL, noVersion, named, part}));
  std::vector<std::string> versions, urls;
  on("didFinishLoadingAppcast", [&](host::Event& event) {
    for (const host::Object& item : items(event[0])) {
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

TEST_P(GuideClaims, MadeTooLateForAutomaticChecks) {
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

TEST_P(GuideClaims, SecondCheckIsIgnored) {
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

TEST_P(GuideClaims, FrameworkWaitsForTheHandler) {
  makeUpdater();
  bool waits = false;
  on("didFindValidUpdate",
     [&](host::Event&) { waits = inProgress() && site.server.requests("/Demo_3.0.zip").empty(); });
  check("checkForUpdates");
  EXPECT_TRUE(waits);
  EXPECT_EQ(site.server.requests("/Demo_3.0.zip").size(), 1u);
}

TEST_P(GuideClaims, VersionsThatDoNotMatch) {
  testbed::Application same = site.application; // 2.0
  item = testbed::publish(site.server, same, site.keys);
  offer("3.0");
  makeUpdater();
  on("didFindValidUpdate", [](host::Event&) {});
  check("checkForUpdates");
  EXPECT_EQ(site.started(), "2.0");
  // The program that was started finds it again.
  std::filesystem::path again = site.folder / "Again.app";
  std::filesystem::copy(site.bundle, again, std::filesystem::copy_options::recursive);
  host::Object next =
      host::construct("MyUpdater", "Constructor(Bundle as folderitem)", host::folderItem(again));
  host::set(next, "feedURL as string", site.feedURL());
  host::call(next, "checkForUpdateInformation");
  ASSERT_TRUE(
      host::runUntil([&] { return !host::get<bool>(next, "updateInProgress as boolean"); }, 60));
  EXPECT_THAT(raised(), ElementsAre("didFindValidUpdate", "didFindValidUpdate"));
}

TEST_P(GuideClaims, ThreadsAreAsTheTableSays) {
  framework("1.5b6");
  seeThreads(3);
}

TEST_P(GuideClaims, ThreadsOf16) {
  framework("1.6");
  seeThreads(4);
}
