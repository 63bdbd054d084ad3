// What docs/guide.md shows, done by a program. A line "// | ..." is a line of the guide, in the
// host's language, and below it stands what it does; tests/docs/snippets_test.py compares the two.

#include "guide.h"

#include <algorithm>
#include <sstream>

using namespace guide;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

} // namespace

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
  install({});
  ASSERT_TRUE(load());
  on("didFindValidUpdate", [&](host::Event&) {});
  // | mUpdater = new MyUpdater
  mUpdater = host::construct("MyUpdater", "Constructor");
  // | mUpdater.feedURL = "http://www.example.com/appcast.xml"
  host::set(mUpdater, "feedURL as string", site.feedURL());
  // | mUpdater.checkForUpdatesInBackground
  host::call(mUpdater, "checkForUpdatesInBackground");
  finish();
  EXPECT_THAT(raised(), ElementsAre("didFindValidUpdate"));
  EXPECT_EQ(site.installed(), "3.0");
}

TEST_P(Guide, OwnConstructor) {
  ASSERT_TRUE(load());
  mWantsBetas = true;
  auto newMyUpdater = [&] {
    host::Object self = host::create("MyUpdater");
    // | Sub Constructor()
    {
      // | Super.Constructor
      host::call(self, "Constructor");
      // | mWantsBetas = false
      mWantsBetas = false;
      // | End Sub
    }
    return self;
  };
  mUpdater = newMyUpdater();
  EXPECT_NE(host::get<int>(mUpdater, "Handle"), 0);
  EXPECT_FALSE(mWantsBetas);
}

// ---- The eleven events ----

TEST_P(Guide, EventFeedArrived) {
  makeUpdater();
  testbed::Item old = item, undated = item;
  old.title = "Version 1.0";
  old.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  undated.title = "Version 0.9";
  undated.date = "";
  item.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  site.feed(testbed::appcast_xml({undated, old, item}));
  std::vector<std::string> debugLog;
  // | Sub didFinishLoadingAppcast(update as SUAppcastKVZ)
  on("didFinishLoadingAppcast(update as SUAppcastKVZ)", [&](host::Event& event) {
    host::Object update = event[0];
    // | dim releases() as SUAppcastItemKVZ = update.items
    auto releases = host::get<host::Object>(update, "items as SUAppcastItemKVZ()");
    // | for each release as SUAppcastItemKVZ in releases
    for (const host::Object& release : listed(releases)) {
      // | System.DebugLog release.title
      debugLog.push_back(text(release, "title as string"));
      // | next
    }
    // | End Sub
  });
  check("checkForUpdateInformation");
  EXPECT_THAT(debugLog, ElementsAre("Version 3.0", "Version 1.0", "Version 0.9"));
}

TEST_P(Guide, EventBestUpdate) {
  makeUpdater();
  item.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  testbed::Item beta = item;
  beta.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  beta.version = "4.0";
  beta.title = "Version 4.0 beta";
  site.feed(testbed::appcast_xml({beta, item}));
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
  item.short_version = "3.0 for everybody";
  item.release_notes = "http://www.example.com/notes_3.0.html";
  offer("3.0");
  // | Sub didFindValidUpdate(update as SUAppcastItemKVZ)
  on("didFindValidUpdate(update as SUAppcastItemKVZ)", [&](host::Event& event) {
    host::Object update = event[0];
    // | mFoundVersion = update.displayVersionString
    mFoundVersion = text(update, "displayVersionString as string");
    // | mFoundNotes = update.releaseNotesURL
    mFoundNotes = text(update, "releaseNotesURL as string");
    // | if mSomebodyWaits then MsgBox "Version " + mFoundVersion + " is here."
    if (mSomebodyWaits) msgBox("Version " + mFoundVersion + " is here.");
    // | mSomebodyWaits = false
    mSomebodyWaits = false;
    // | End Sub
  });
  mSomebodyWaits = true;
  check("checkForUpdateInformation");
  check("checkForUpdateInformation");
  EXPECT_THAT(messages, ElementsAre("Version 3.0 for everybody is here."));
  EXPECT_EQ(mFoundNotes, "http://www.example.com/notes_3.0.html");
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
  item.description = "Faster, and with fewer mistakes.";
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
       // | mRelaunchWaits = not App.mQuitting
       mRelaunchWaits = !mQuitting;
       // | return mRelaunchWaits
       return bool(mRelaunchWaits);
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
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "NO"}}); // asked all the same
  // | Function updaterShouldPromptForPermissionToCheckForUpdates() as boolean
  on("updaterShouldPromptForPermissionToCheckForUpdates as boolean", [&](host::Event&) {
    // | return false
    return false;
    // | End Function
  });
  makeUpdater();
  finishLaunching();
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
  auto split = [](const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '.');) parts.push_back(part);
    return parts;
  };
  // | Function compareVersion(VersionA as string, VersionB as string) as integer
  host::handle("MyComparison", "compareVersion(VersionA as string, VersionB as string) as integer",
               [&](host::Event& event) {
                 // | dim a() as String = Split(VersionA, ".")
                 std::vector<std::string> a = split(event.text(0).value_or(""));
                 // | dim b() as String = Split(VersionB, ".")
                 std::vector<std::string> b = split(event.text(1).value_or(""));
                 // | for i as Integer = 0 to Max(UBound(a), UBound(b))
                 for (size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
                   // | dim numberA as Double = 0
                   double numberA = 0;
                   // | dim numberB as Double = 0
                   double numberB = 0;
                   // | if i <= UBound(a) then numberA = Val(a(i))
                   if (i < a.size()) numberA = val(a[i]);
                   // | if i <= UBound(b) then numberB = Val(b(i))
                   if (i < b.size()) numberB = val(b[i]);
                   // | if numberA < numberB then return NSOrderedAscending
                   if (numberA < numberB) return constant("NSOrderedAscending");
                   // | if numberA > numberB then return NSOrderedDescending
                   if (numberA > numberB) return constant("NSOrderedDescending");
                   // | next
                 }
                 // | return NSOrderedSame
                 return constant("NSOrderedSame");
                 // | End Function
               });
  std::vector<std::string> found;
  on("didFindValidUpdate",
     [&](host::Event& event) { found.push_back(text(event[0], "versionString as string")); });
  // Older than, the same as and newer than 2.0, which is what runs.
  for (const char* version : {"1.10.0.3.0", "2", "2.0.0.0.0", "2.0.0.3.0", "2.10", "10"}) {
    offer(version);
    check("checkForUpdateInformation");
  }
  EXPECT_THAT(found, ElementsAre("2.0.0.3.0", "2.10", "10"));
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
  auto action = [&] {
    // | if App.mUpdater = nil then return
    if (!mUpdater) return;
    // | App.mQuitting = false
    mQuitting = false;
    // | if not App.mUpdater.mRelaunchWaits then return
    if (!mRelaunchWaits) return;
    // | if not App.mHasUnsavedDocuments then
    if (!mHasUnsavedDocuments) {
      // | App.mUpdater.mRelaunchWaits = false
      mRelaunchWaits = false;
      invoking = true;
      // | App.mUpdater.InvokeUpdate
      host::call(mUpdater, "InvokeUpdate");
      // | elseif not App.mUpdater.mToldToSave then
    } else if (!mToldToSave) {
      // | App.mUpdater.mToldToSave = true
      mToldToSave = true;
      // | MsgBox "The new version starts as soon as your documents are saved."
      msgBox("The new version starts as soon as your documents are saved.");
      // | end if
    }
  };
  action();
  makeUpdater();
  mQuitting = true; // and somebody did not let it
  action();
  EXPECT_FALSE(mQuitting);
  EXPECT_THAT(messages, IsEmpty());
  host::call(mUpdater, "checkForUpdates");
  ASSERT_TRUE(host::runUntil([&] { return bool(mRelaunchWaits); }, 60));
  EXPECT_EQ(site.installed(), "3.0");
  action();
  action();
  EXPECT_EQ(messages.size(), 1u);
  EXPECT_TRUE(inProgress());
  EXPECT_EQ(site.started(), "");
  mHasUnsavedDocuments = false;
  action();
  finish();
  EXPECT_EQ(site.started(), "3.0");
}

TEST_P(Guide, Quitting) {
  makeUpdater();
  on("shouldPostponeRelaunchForUpdate",
     [&](host::Event&) { return bool(mRelaunchWaits = !mQuitting); });
  // | Function CancelClose() as Boolean
  auto cancelClose = [&] {
    // | if mHasUnsavedDocuments then
    if (mHasUnsavedDocuments) {
      // | MsgBox "There are documents that are not saved. Please save them first."
      msgBox("There are documents that are not saved. Please save them first.");
      // | return true
      return true;
      // | end if
    }
    // | mQuitting = true
    mQuitting = true;
    // | return false
    return false;
    // | End Function
  };
  mHasUnsavedDocuments = true;
  EXPECT_TRUE(cancelClose());
  EXPECT_FALSE(mQuitting);
  EXPECT_EQ(messages.size(), 1u);
  mHasUnsavedDocuments = false;
  EXPECT_FALSE(cancelClose());
  EXPECT_EQ(messages.size(), 1u);
  check("checkForUpdates"); // nobody need call InvokeUpdate
  EXPECT_EQ(site.started(), "3.0");
}

// ---- Let people decide ----

TEST_P(Guide, AutomaticChecksShow) {
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "YES"}});
  bool meValue = false;
  auto open = [&] {
    // | if App.mUpdater = nil then return
    if (!mUpdater) return;
    // | me.Value = App.mUpdater.automaticallyChecksForUpdates
    meValue = host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean");
  };
  open();
  EXPECT_FALSE(meValue);
  makeUpdater();
  open();
  EXPECT_TRUE(meValue);
}

TEST_P(Guide, AutomaticChecksSet) {
  bool meValue = false;
  auto action = [&] {
    // | if App.mUpdater = nil then return
    if (!mUpdater) return;
    // | if me.Value = App.mUpdater.automaticallyChecksForUpdates then return
    if (meValue == host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean")) return;
    // | App.mUpdater.automaticallyChecksForUpdates = me.Value
    host::set(mUpdater, "automaticallyChecksForUpdates as boolean", meValue);
  };
  action();
  makeUpdater();
  offer("2.0");
  action(); // what is shown when nothing was decided yet decides nothing
  install({{"SUFeedURL", site.feedURL()}, {"SUEnableAutomaticChecks", "YES"}});
  EXPECT_TRUE(host::get<bool>(mUpdater, "automaticallyChecksForUpdates as boolean"));
  install({{"SUFeedURL", site.feedURL()}});
  meValue = true;
  action();
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
  auto look = [&] {
    // | if App.mUpdater = nil then return
    if (!mUpdater) return;
    // | if not App.mUpdater.updateInProgress then
    if (!host::get<bool>(mUpdater, "updateInProgress as boolean")) {
      // | App.mUpdater.mSomebodyWaits = true
      mSomebodyWaits = true;
      // | App.mUpdater.checkForUpdateInformation
      host::call(mUpdater, "checkForUpdateInformation");
      // | end if
    }
  };
  look();
  EXPECT_FALSE(mSomebodyWaits);
  makeUpdater();
  noteReports();
  look();
  EXPECT_TRUE(mSomebodyWaits);
  finish();
  EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "didFindValidUpdate"));
  EXPECT_EQ(site.installed(), "2.0");
}

TEST_P(Guide, LookFailed) {
  makeUpdater();
  on("didFindValidUpdate", [&](host::Event&) { mSomebodyWaits = false; });
  on("updaterDidNotFindUpdate", [&](host::Event&) { mSomebodyWaits = false; });
  auto action = [&] {
    // | if App.mUpdater = nil then return
    if (!mUpdater) return;
    // | if App.mUpdater.mSomebodyWaits and not App.mUpdater.updateInProgress then
    if (mSomebodyWaits && !host::get<bool>(mUpdater, "updateInProgress as boolean")) {
      // | App.mUpdater.mSomebodyWaits = false
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
  // | App.mHistory = new SUAppcastKVZ
  mHistory = host::construct("SUAppcastKVZ", "Constructor");
  // | App.mHistory.UserAgentString = "Example/2.0"
  host::set(mHistory, "UserAgentString as string", "Example/2.0");
  // | App.mHistory.fetchAppcastFromURL "http://www.example.com/appcast.xml"
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
  item.description = "Faster, and with fewer mistakes.";
  offer("3.0");
  mHistory = host::construct("SUAppcastKVZ", "Constructor");
  bool running = true;
  std::vector<std::string> historyWindowList;
  auto action = [&] {
    // | dim releases() as SUAppcastItemKVZ = App.mHistory.items
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

TEST_P(Guide, KeptFeed) {
  auto open = [&] {
    ASSERT_TRUE(load());
    mUpdater = host::construct("MyUpdater", "Constructor");
    // | mUpdater.mWantsBetas = (mUpdater.feedURL = "http://www.example.com/betas.xml")
    mWantsBetas = text(mUpdater, "feedURL as string") == "http://www.example.com/betas.xml";
  };
  open();
  EXPECT_FALSE(mWantsBetas);
  host::set(mUpdater, "feedURL as string", "http://www.example.com/betas.xml");
  open(); // as the next start does
  EXPECT_TRUE(mWantsBetas);
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

TEST_P(Guide, OwnConstructorForBundle) {
  ASSERT_TRUE(load());
  mWantsBetas = true;
  auto newMyUpdater = [&](const host::Object& Bundle) {
    host::Object self = host::create("MyUpdater");
    // | Sub Constructor(Bundle as FolderItem)
    {
      // | Super.Constructor(Bundle)
      host::call(self, "Constructor(Bundle as folderitem)", Bundle);
      // | mWantsBetas = false
      mWantsBetas = false;
      // | End Sub
    }
    return self;
  };
  mUpdater = newMyUpdater(host::folderItem(site.bundle));
  EXPECT_EQ(host::path(host::get<host::Object>(mUpdater, "hostBundle as folderitem")), site.bundle);
  EXPECT_FALSE(mWantsBetas);
}

// ---- Common mistakes ----

TEST_P(Guide, CatchExceptions) {
  install({});
  makeUpdater();
  session::takeLog();
  // | try
  {
    // | App.mUpdater.checkForUpdates
    host::call(mUpdater, "checkForUpdates");
    // | catch error as NSExceptionKVZ
    if (auto error = host::takeException(); error && error->className == "NSExceptionKVZ") {
      // | MsgBox "The check could not begin. " + error.Message
      msgBox("The check could not begin. " + error->message.value_or(""));
      // | end try
    }
  }
  EXPECT_THAT(messages, ElementsAre(HasSubstr("URL of the appcast")));
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr(" A SUNoFeedURL: ")));
}
