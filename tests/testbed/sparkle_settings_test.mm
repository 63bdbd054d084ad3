// Updaters, what they keep, and when they check by themselves.
#import "sparkle_fixture.h"

#include <cmath>

namespace {
NSString* const kLaunched = @"NSApplicationDidFinishLaunchingNotification";
}

// Updaters.

TEST_F(Sparkle, OneUpdaterForABundle) {
  Class updaters = [updater class];
  EXPECT_EQ([updaters sharedUpdater], updater);
  EXPECT_EQ([updaters updaterForBundle:nil], updater);
  EXPECT_EQ([updaters updaterForBundle:[NSBundle bundleWithPath:nsstring(bundle_path)]], updater);
  EXPECT_EQ(text([[updater hostBundle] bundlePath]), bundle_path.string());

  testbed::Application other = application;
  other.folder = "Other.app";
  NSBundle* bundle =
      [NSBundle bundleWithPath:nsstring(testbed::write_application(other, folder.path()))];
  SUUpdater* second = [updaters updaterForBundle:bundle];
  EXPECT_NE(second, updater);
  EXPECT_EQ([updaters updaterForBundle:bundle], second);
  EXPECT_EQ([second hostBundle], bundle);
}

TEST_F(Sparkle, AnyUseOfAnUpdaterThatIsGoneEndsTheProcess) {
  Class updaters = [updater class];
  [updater release];
  EXPECT_EQ([updaters sharedUpdater], updater);
  [updater release];
  for (NSString* use in @[
         @"retain", @"release", @"autorelease", @"feedURL", @"checkForUpdatesInBackground",
         @"delegate"
       ])
    EXPECT_DEATH([updater performSelector:NSSelectorFromString(use)],
                 "the updater of .*/Demo.app is used after its release \\(by ")
        << text(use);
  EXPECT_DEATH([[updaters sharedUpdater] setDelegate:nil], "used after its release");
  updater = nil;
}

// What is set, and where it is read.

TEST_F(Sparkle, FeedURLIsKeptInTheDefaultsOfTheBundle) {
  [updater setFeedURL:[NSURL URLWithString:@"feed.xml"
                             relativeToURL:[NSURL URLWithString:@"http://example.org/a/"]]];
  EXPECT_EQ(text([[updater feedURL] absoluteString]), "http://example.org/a/feed.xml");
  EXPECT_EQ(text([kept() objectForKey:@"SUFeedURL"]), "http://example.org/a/feed.xml");
  [updater setFeedURL:nil];
  EXPECT_EQ([kept() objectForKey:@"SUFeedURL"], nil);
}

TEST_F(Sparkle, FeedURLOfTheInfoPlistMayBeQuotedAndGivesWayToTheDefaults) {
  application.info["SUFeedURL"] = "\"http://example.org/quoted.xml\"";
  install_again();
  [updater setFeedURL:nil];
  EXPECT_EQ(text([[updater feedURL] absoluteString]), "http://example.org/quoted.xml");
  [updater setFeedURL:[NSURL URLWithString:@"http://example.org/set.xml"]];
  EXPECT_EQ(text([[updater feedURL] absoluteString]), "http://example.org/set.xml");
}

TEST_F(Sparkle, DownloadsAndTheProfileAreNotReadFromTheInfoPlist) {
  application.info = {{"SUEnableAutomaticChecks", "YES"},
                      {"SUScheduledCheckInterval", "7200"},
                      {"SUAutomaticallyUpdate", "YES"},
                      {"SUSendProfileInfo", "YES"}};
  install_again();
  EXPECT_TRUE([updater automaticallyChecksForUpdates]);
  EXPECT_EQ([updater updateCheckInterval], 7200);
  EXPECT_FALSE([updater automaticallyDownloadsUpdates]);
  EXPECT_FALSE([updater sendsSystemProfile]);
}

TEST_F(Sparkle, AutomaticDownloadsCanBeForbiddenByTheInfoPlist) {
  [updater setAutomaticallyDownloadsUpdates:YES];
  EXPECT_TRUE([updater automaticallyDownloadsUpdates]);
  application.info = {{"SUAllowsAutomaticUpdates", "NO"}};
  install_again();
  EXPECT_FALSE([updater automaticallyDownloadsUpdates]);
}

TEST_F(Sparkle, BundleWithoutIdentifierIsLoggedAndItsSettingsAreNotKept) {
  testbed::Application nameless = application;
  nameless.folder = "Nameless.app";
  nameless.identifier = "";
  NSBundle* bundle =
      [NSBundle bundleWithPath:nsstring(testbed::write_application(nameless, folder.path()))];
  testing::internal::CaptureStderr();
  SUUpdater* second = [[updater class] updaterForBundle:bundle];
  EXPECT_NE(testing::internal::GetCapturedStderr().find("has no CFBundleIdentifier"),
            std::string::npos);
  [second setUpdateCheckInterval:5000];
  size_t files = 0;
  for (const auto& file : std::filesystem::directory_iterator(folder / "defaults"))
    files += file.path().extension() == ".plist";
  EXPECT_EQ(files, 1u);
}

// The automatic cycle.

TEST_F(Sparkle, ChecksAreAnIntervalApartAndAtLeastAnHour) {
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ([updater nextUpdateCheckDate], nil);
  const struct {
    double interval, due; // 0: never
  } rows[] = {{86400, 86400}, {1, 3600}, {0, 0}, {-1, 3600}, {1e9, 1e9}};
  for (const auto& row : rows) {
    [updater setUpdateCheckInterval:row.interval];
    if (row.interval != 0) [updater setAutomaticallyChecksForUpdates:YES];
    run_what_is_due();
    NSDate* date = [updater nextUpdateCheckDate];
    if (row.due == 0)
      EXPECT_EQ(date, nil);
    else
      EXPECT_NEAR([date timeIntervalSinceNow], row.due, 60) << row.interval;
  }
}

TEST_F(Sparkle, SeveralChangesResetTheCycleOnce) {
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  const size_t before = steps.count("scheduled: ");
  [updater setAutomaticallyChecksForUpdates:YES];
  [updater setUpdateCheckInterval:4000];
  [updater setUpdateCheckInterval:5000];
  EXPECT_EQ(steps.count("scheduled: "), before);
  run_what_is_due();
  EXPECT_EQ(steps.count("scheduled: "), before + 1);
}

TEST_F(Sparkle, ResettingTheCycleDoesNotMoveTheNextCheck) {
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  [updater setAutomaticallyChecksForUpdates:YES];
  run_what_is_due();
  NSDate* due = [updater nextUpdateCheckDate];
  [updater resetUpdateCycle];
  EXPECT_NEAR([[updater nextUpdateCheckDate] timeIntervalSinceDate:due], 0, 1);
}

TEST_F(Sparkle, OverdueCheckIsMadeOnceAndTheNextOneIsScheduled) {
  publish("1.0");
  [updater setAutomaticallyChecksForUpdates:YES];
  EXPECT_EQ(wait_for_end(), "finished");
  run_what_is_due();
  EXPECT_EQ(server.requests("/appcast.xml").size(), 1u);
  EXPECT_NEAR([[updater nextUpdateCheckDate] timeIntervalSinceNow], 86400, 60);
}

// The question for permission.

class Permission : public Sparkle {
protected:
  void SetUp() override {
    publish("1.0");
    recorder->prompt = YES;
  }
  bool asked() const { return steps.has("asks: Check Automatically / Don't Check"); }
};

TEST_F(Permission, IsAskedWhenTheApplicationHasFinishedLaunching) {
  run_what_is_due();
  EXPECT_TRUE(calls().empty());
  announce(kLaunched);
  EXPECT_EQ(calls(),
            (std::vector<std::string>{"updaterShouldPromptForPermissionToCheckForUpdates:",
                                      "feedParametersForUpdater:sendingSystemProfile: YES"}));
  EXPECT_TRUE(asked());
  EXPECT_EQ(wait_for_end(), "finished"); // given, and so a first check was due
  EXPECT_TRUE([updater automaticallyChecksForUpdates]);
}

TEST_F(Permission, MayBeRefused) {
  steps::answer("Check for updates automatically?", "Don't Check");
  announce(kLaunched);
  run_what_is_due();
  EXPECT_TRUE(asked());
  EXPECT_FALSE([updater automaticallyChecksForUpdates]);
  EXPECT_TRUE([kept() objectForKey:@"SUEnableAutomaticChecks"]);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(Permission, IsNotAskedWhenTheDefaultsDecide) {
  [updater setAutomaticallyChecksForUpdates:NO];
  announce(kLaunched);
  EXPECT_TRUE(calls().empty());
}

TEST_F(Permission, IsTheDelegatesToDecideEvenWhenTheInfoPlistDoes) {
  application.info = {{"SUEnableAutomaticChecks", "NO"}};
  install_again();
  announce(kLaunched);
  EXPECT_TRUE(asked());
}

TEST_F(Permission, IsNotAskedWhenTheInfoPlistDecidesAndTheDelegateDoesNot) {
  application.info = {{"SUEnableAutomaticChecks", "NO"}};
  install_again();
  recorder->methods.clear();
  announce(kLaunched);
  announce(kLaunched);
  EXPECT_FALSE(asked());
}

TEST_F(Permission, IsAskedAtTheSecondLaunchWhenNothingDecides) {
  recorder->methods.clear();
  announce(kLaunched);
  EXPECT_FALSE(asked());
  EXPECT_TRUE([[kept() objectForKey:@"SUHasLaunchedBefore"] boolValue]);
  announce(kLaunched);
  EXPECT_TRUE(asked());
}

TEST_F(Sparkle16, PermissionIsAskedInTheNextTurnOfTheRunLoop) {
  EXPECT_TRUE(calls().empty());
  run_what_is_due();
  EXPECT_TRUE(told("updaterShouldPromptForPermissionToCheckForUpdates:"));
}
