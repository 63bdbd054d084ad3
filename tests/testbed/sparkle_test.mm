// The update framework, driven as a program drives it: loaded from its folder, over HTTP on
// loopback.
#import "SUStandardVersionComparator.h"
#import "sparkle_fixture.h"

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>

using testbed::Answer;
using testbed::Entry;
using testbed::Item;

namespace {

NSBundle* framework(const std::string& name) {
  return [NSBundle bundleWithPath:nsstring(SPARKLE_FRAMEWORKS "/" + name + ".framework")];
}

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

Item plain_item(const std::string& version, const std::string& url) {
  Item item;
  item.title = "Demo " + version;
  item.version = version;
  item.url = url;
  return item;
}

} // namespace

// Loading. Each of these runs in a process that has not loaded anything.

TEST(SparkleFolder, OffersItsClassesAndTheProtocol) {
  @autoreleasepool {
    EXPECT_EQ(objc_getProtocol("SUVersionComparison"), nullptr);
    NSBundle* bundle = framework("Sparkle");
    ASSERT_TRUE([bundle load]);
    EXPECT_TRUE([bundle classNamed:@"SUUpdater"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcast"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcastItem"]);
    Protocol* protocol = objc_getProtocol("SUVersionComparison");
    ASSERT_NE(protocol, nullptr);
    SEL selector = @selector(compareVersion:toVersion:);
    EXPECT_STREQ(protocol_getMethodDescription(protocol, selector, YES, YES).types, "i16@0:4@8@12");
  }
}

TEST(SparkleFolder, WithoutTheItemClassStillOffersTheUpdater) {
  @autoreleasepool {
    NSBundle* bundle = framework("WithoutItem");
    ASSERT_TRUE([bundle load]);
    EXPECT_TRUE([bundle classNamed:@"SUUpdater"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcast"]);
    EXPECT_FALSE([bundle classNamed:@"SUAppcastItem"]);
  }
}

TEST(SparkleFolder, WithoutClassesLoads) {
  @autoreleasepool {
    NSBundle* bundle = framework("WithoutClasses");
    EXPECT_TRUE([bundle load]);
    EXPECT_FALSE([bundle classNamed:@"SUUpdater"]);
  }
}

TEST(SparkleFolder, RaisingRaisesOnce) {
  @autoreleasepool {
    NSString* name = nil;
    @try {
      [framework("Raising") load];
    } @catch (NSException* exception) {
      name = [exception name];
    }
    EXPECT_EQ(text(name), "SULoadFailed");
    EXPECT_TRUE([framework("Raising") load]);
    EXPECT_FALSE([framework("Raising") classNamed:@"SUUpdater"]);
    EXPECT_TRUE([framework("Sparkle") load]);
  }
}

TEST(SparkleFolder, BrokenDoesNotLoad) {
  @autoreleasepool {
    EXPECT_FALSE([framework("Broken") load]);
  }
}

// The whole road.

TEST_F(Sparkle, WholeUpdateInOrder) {
  publish("2.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(installed(), "2.0");
  ASSERT_TRUE(testbed::wait_for_file(application.marker));
  EXPECT_EQ(testbed::read_file(application.marker).substr(0, 4), "2.0\n");
  std::vector<std::string> expected = {
      "feedParametersForUpdater:sendingSystemProfile: NO",
      "updater:didFinishLoadingAppcast: 1",
      "bestValidUpdateInAppcast:forUpdater:",
      "versionComparatorForUpdater:",
      "updater:didFindValidUpdate: 2.0",
      "updater:willInstallUpdate: 2.0",
      "updater:shouldPostponeRelaunchForUpdate:untilInvoking: 2.0",
      "updaterWillRelaunchApplication:",
      "pathToRelaunchForUpdater:",
  };
  std::vector<std::string> got = calls();
  std::erase(got, "updaterShouldPromptForPermissionToCheckForUpdates:");
  EXPECT_EQ(got, expected);
  EXPECT_EQ(recorder->onMainThread, 1); // the question for permission
}

TEST_F(Sparkle, UpdatesWithoutAnyDelegate) {
  publish("2.0");
  [updater setDelegate:nil];
  EXPECT_EQ(check(@"checkForUpdatesInBackground"), "finished");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_TRUE(testbed::wait_for_file(application.marker));
  EXPECT_TRUE(calls().empty());
}

TEST_F(Sparkle, DelegateWithoutMethodsIsNotCalled) {
  publish("2.0");
  recorder->methods.clear();
  EXPECT_EQ(check(), "finished");
  EXPECT_TRUE(calls().empty());
}

TEST_F(Sparkle, InstallingLeavesNothingBehindAndFollowsNoLinks) {
  testbed::write_file(folder / "precious/file", "keep");
  std::filesystem::create_directory_symlink(folder / "precious", bundle_path / "link");
  publish("2.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_EQ(testbed::read_file(folder / "precious/file"), "keep");
  for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
    EXPECT_NE(entry.path().filename().string().rfind(".update-", 0), 0u) << entry.path();
}

TEST_F(Sparkle, RelaunchedProgramIsTheOneOfTheStep) {
  publish("2.0");
  EXPECT_EQ(check(), "finished");
  ASSERT_EQ(children.size(), 1u);
  const int pid = children[0];
  children.clear();
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(testbed::read_file(application.marker), "2.0\n" + std::to_string(pid) + "\n");
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

TEST_F(Sparkle, SurvivesMoreReleasesThanRetains) {
  EXPECT_EQ([updater referenceBalance], 0);
  for (int i = 0; i < 5; ++i) [updater release];
  EXPECT_EQ([updater referenceBalance], -5);
  EXPECT_EQ([[updater class] sharedUpdater], updater);
  publish("2.0");
  EXPECT_EQ(check(), "finished");
  [recorder->invocation release]; // holds the cycle, and that the updater
  recorder->invocation = nil;
  EXPECT_TRUE(run_until([this] { return [updater referenceBalance] == -5; }));
}

TEST_F(Sparkle, FeedURLRaisesWhileNoneIsSet) {
  [updater setFeedURL:nil];
  for (NSString* method in @[
         @"feedURL", @"checkForUpdates:", @"checkForUpdatesInBackground",
         @"checkForUpdateInformation"
       ]) {
    NSString* name = nil;
    @try {
      [updater performSelector:NSSelectorFromString(method) withObject:nil];
    } @catch (NSException* exception) {
      name = [exception name];
    }
    EXPECT_EQ(text(name), "SUNoFeedURL") << text(method);
    EXPECT_FALSE([updater updateInProgress]);
    EXPECT_EQ([updater lastUpdateCheckDate], nil);
  }
}

TEST_F(Sparkle, FeedURLIsKeptInTheDefaultsOfTheBundle) {
  [updater setFeedURL:[NSURL URLWithString:@"feed.xml"
                             relativeToURL:[NSURL URLWithString:@"http://example.org/a/"]]];
  EXPECT_EQ(text([[updater feedURL] absoluteString]), "http://example.org/a/feed.xml");
  NSDictionary* kept = [NSDictionary
      dictionaryWithContentsOfFile:nsstring(folder / "defaults/org.example.demo.plist")];
  EXPECT_EQ(text([kept objectForKey:@"SUFeedURL"]), "http://example.org/a/feed.xml");
  [updater setFeedURL:nil];
  kept = [NSDictionary
      dictionaryWithContentsOfFile:nsstring(folder / "defaults/org.example.demo.plist")];
  EXPECT_EQ([kept objectForKey:@"SUFeedURL"], nil);
}

TEST_F(Sparkle, FeedURLOfTheInfoPlistMayBeQuoted) {
  application.info["SUFeedURL"] = "\"http://example.org/quoted.xml\"";
  testbed::write_application(application, folder.path());
  [updater setFeedURL:nil];
  EXPECT_EQ(text([[updater feedURL] absoluteString]), "http://example.org/quoted.xml");
}

TEST_F(Sparkle, PropertiesAreKept) {
  EXPECT_FALSE([updater automaticallyChecksForUpdates]);
  EXPECT_FALSE([updater sendsSystemProfile]);
  EXPECT_FALSE([updater automaticallyDownloadsUpdates]);
  EXPECT_EQ([updater updateCheckInterval], 86400);
  [updater setAutomaticallyChecksForUpdates:YES];
  [updater setSendsSystemProfile:YES];
  [updater setAutomaticallyDownloadsUpdates:YES];
  [updater setUpdateCheckInterval:0.1];
  EXPECT_TRUE([updater automaticallyChecksForUpdates]);
  EXPECT_TRUE([updater sendsSystemProfile]);
  EXPECT_TRUE([updater automaticallyDownloadsUpdates]);
  EXPECT_EQ([updater updateCheckInterval], 0.1);
}

TEST_F(Sparkle, CheckRemembersItsTime) {
  EXPECT_EQ([updater lastUpdateCheckDate], nil);
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_LT(-[[updater lastUpdateCheckDate] timeIntervalSinceNow], 10);
}

TEST_F(Sparkle, SecondCheckInProgressIsIgnored) {
  Answer stalled{"<rss></rss>"};
  stalled.trouble = Answer::Trouble::stall;
  server.serve("/appcast.xml", stalled);
  [updater checkForUpdates:nil];
  EXPECT_TRUE([updater updateInProgress]);
  [updater checkForUpdateInformation];
  EXPECT_TRUE(steps.has("ignored: "));
  EXPECT_EQ(wait_for_end(), "failed: fetch");
  EXPECT_EQ(server.requests("/appcast.xml").size(), 1u);
}

// The request.

TEST_F(Sparkle, FeedParametersAreEscapedIntoTheQuery) {
  publish("1.0");
  recorder->parameters = @[
    @{@"key" : @"a b", @"value" : @"1&2=3", @"displayKey" : @"A", @"displayValue" : @"B"},
    @{@"key" : @"ü",
      @"value" : @(42)},
    @{@"key" : @"no value"},
    @{@"value" : @"no key"},
    @"no dictionary",
  ];
  EXPECT_EQ(check(), "finished");
  const testbed::Request request = server.requests("/appcast.xml").at(0);
  EXPECT_EQ(request.query, "a%20b=1%262%3D3&%C3%BC=42");
  EXPECT_EQ(request.parameter("a b"), "1&2=3");
  EXPECT_EQ(request.user_agent, "Demo/1.0 Sparkle/1.5");
}

TEST_F(Sparkle, FeedParametersJoinAQueryThatIsThere) {
  publish("1.0");
  [updater setFeedURL:[NSURL URLWithString:nsstring(server.url("/appcast.xml?channel=beta#end"))]];
  [updater setSendsSystemProfile:YES];
  recorder->parameters = @[ @{@"key" : @"k", @"value" : @"v"} ];
  EXPECT_EQ(check(), "finished");
  const testbed::Request request = server.requests("/appcast.xml").at(0);
  EXPECT_EQ(request.query, "channel=beta&osVersion=10.6.8&appName=Demo&appVersion=1.0&k=v");
  EXPECT_TRUE(recorder->journal.has("feedParametersForUpdater:sendingSystemProfile: YES"));
}

TEST_F(Sparkle, RedirectionsAreFollowed) {
  publish("1.0");
  server.serve("/old.xml", {"", "", 302, {{"Location", "/appcast.xml"}}});
  [updater setFeedURL:[NSURL URLWithString:nsstring(server.url("/old.xml"))]];
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(server.requests("/appcast.xml").size(), 1u);
}

TEST_F(Sparkle, RedirectionsInACircleEnd) {
  server.serve("/appcast.xml", {"", "", 302, {{"Location", "/appcast.xml"}}});
  EXPECT_EQ(check(), "failed: fetch");
  EXPECT_EQ(server.requests().size(), 6u);
}

TEST_F(Sparkle, RedirectionToAFileIsRefused) {
  server.serve("/appcast.xml", {"", "", 302, {{"Location", "file:///etc/passwd"}}});
  EXPECT_EQ(check(), "failed: fetch");
}

// The choice.

TEST_F(Sparkle, InformationCheckStopsAfterFinding) {
  publish("2.0");
  recorder->chosen = -1;
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:"); // the delegate chose none
  recorder->chosen = 0;
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 2.0");
  EXPECT_EQ(installed(), "1.0");
  EXPECT_TRUE(server.requests("/Demo_2.0.zip").empty());
}

TEST_F(Sparkle, NothingNewerIsToldAndNoFailure) {
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:");
  EXPECT_EQ(step("comparing").substr(0, 12), "1.0 with 1.0");
}

TEST_F(Sparkle, WithoutAChoiceTheFirstItemThatFitsTheSystemCounts) {
  Item future = plain_item("9.0", server.url("/9.zip"));
  future.minimum_system = "10.9";
  Item without_url = plain_item("8.0", "");
  Item fits = plain_item("3.0", server.url("/3.zip"));
  fits.minimum_system = "10.6.8";
  Item later = plain_item("4.0", server.url("/4.zip"));
  serve_feed(testbed::appcast_xml({future, without_url, fits, later}));
  std::erase(recorder->methods, "bestValidUpdateInAppcast:forUpdater:");
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 3.0");
  setenv("SPARKLE_SYSTEM_VERSION", "10.9.1", 1);
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 9.0");
}

@interface Backwards : NSObject
@end

@implementation Backwards
- (NSComparisonResult)compareVersion:(NSString*)a toVersion:(NSString*)b {
  return [b compare:a];
}
@end

TEST_F(Sparkle, ComparatorOfTheDelegateDecides) {
  publish("0.5");
  recorder->comparator = [[[Backwards alloc] init] autorelease];
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 0.5");
  recorder->comparator = @"no comparator";
  EXPECT_EQ(check(@"checkForUpdateInformation"), "finished");
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:");
}

TEST_F(Sparkle, StandardComparatorOrdersVersions) {
  id comparator = [NSClassFromString(@"SUStandardVersionComparator") defaultComparator];
  const struct {
    const char* lower;
    const char* higher;
  } rows[] = {{"1.0", "1.1"},
              {"1.9", "1.10"},
              {"1.0b1", "1.0"},
              {"1.0b1", "1.0b2"},
              {"1.0b9", "1.0b10"},
              {"1.0", "1.0.1"},
              {"1.0a1", "1.0b1"},
              {"0.9", "1"},
              {"1.0rc1", "1.0.1"},
              {"10.6.8", "10.10"},
              {"1", "99999999999999999999999999"}};
  for (const auto& row : rows) {
    NSString *lower = nsstring(row.lower), *higher = nsstring(row.higher);
    EXPECT_EQ([comparator compareVersion:lower toVersion:higher], NSOrderedAscending) << row.lower;
    EXPECT_EQ([comparator compareVersion:higher toVersion:lower], NSOrderedDescending) << row.lower;
  }
  for (const char* same : {"1.0", "1", "1.0.0", "01.00", "v"})
    EXPECT_EQ([comparator compareVersion:nsstring(same) toVersion:nsstring(same)], NSOrderedSame);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"1.0.0"], NSOrderedSame);
  EXPECT_EQ([comparator compareVersion:@"" toVersion:@""], NSOrderedSame);
}

// Failures: each ends the check, with one line in the log and one step.

struct FeedFailure {
  const char* name;
  Answer answer;
  const char* expected;
};

void PrintTo(const FeedFailure& failure, std::ostream* out) { *out << failure.name; }

class SparkleFeedFailure : public Sparkle, public testing::WithParamInterface<FeedFailure> {};

TEST_P(SparkleFeedFailure, EndsTheCheckInOneLine) {
  server.serve("/appcast.xml", GetParam().answer);
  testing::internal::CaptureStderr();
  EXPECT_EQ(check(), GetParam().expected);
  EXPECT_EQ(count_of(testing::internal::GetCapturedStderr(), "Sparkle: "), 1u);
  EXPECT_FALSE([updater updateInProgress]);
  // The next check is not held up by it.
  publish("1.0");
  EXPECT_EQ(check(), "finished");
}

namespace {
const std::string kFeed = testbed::appcast_xml({plain_item("2.0", "http://127.0.0.1:1/a.zip")});

Answer trouble(Answer::Trouble trouble, std::size_t after, const std::string& body = kFeed) {
  Answer answer{body};
  answer.trouble = trouble;
  answer.after = after;
  return answer;
}

const FeedFailure kFeedFailures[] = {
    {"NotFound", {kFeed, "text/xml", 404}, "failed: status"},
    {"ServerError", {kFeed, "text/xml", 500}, "failed: status"},
    {"Truncated", trouble(Answer::Trouble::truncate, 50), "failed: fetch"},
    {"Stalled", trouble(Answer::Trouble::stall, 50), "failed: fetch"},
    {"StalledAtOnce", trouble(Answer::Trouble::stall, 0), "failed: fetch"},
    {"Junk", trouble(Answer::Trouble::junk, 0, std::string("\0\1\2junk", 7)), "failed: fetch"},
    {"HungUp", trouble(Answer::Trouble::hang_up, 0), "failed: fetch"},
    {"Empty", {""}, "failed: xml"},
    {"NoXML", {"<html><p>Not found"}, "failed: xml"},
    {"HalfXML", {kFeed.substr(0, kFeed.size() / 2)}, "failed: xml"},
    {"OtherXML", {"<html><p>Hello</p></html>"}, "failed: items"},
    {"NoItems", {testbed::appcast_xml({})}, "failed: items"},
};
} // namespace

INSTANTIATE_TEST_SUITE_P(Feeds, SparkleFeedFailure, testing::ValuesIn(kFeedFailures),
                         [](const auto& info) { return info.param.name; });

TEST_F(Sparkle, NobodyListensEndsTheCheck) {
  [updater setFeedURL:[NSURL URLWithString:@"http://127.0.0.1:1/appcast.xml"]];
  EXPECT_EQ(check(), "failed: fetch");
}

TEST_F(Sparkle, FeedURLThatIsNoneEndsTheCheck) {
  [updater setFeedURL:nil];
  for (const char* url : {"not a url", "nothing", "http:", "gopher://127.0.0.1/x"}) {
    application.info["SUFeedURL"] = url;
    testbed::write_application(application, folder.path());
    EXPECT_EQ(check(), "failed: fetch") << url;
  }
}

TEST_F(Sparkle, NoItemsIsToldToTheDelegateToo) {
  serve_feed(testbed::appcast_xml({}));
  EXPECT_EQ(check(), "failed: items");
  EXPECT_TRUE(recorder->journal.has("updater:didFinishLoadingAppcast: 0"));
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:");
}

TEST_F(Sparkle, HostWithoutVersionEndsTheCheck) {
  publish("2.0");
  std::filesystem::remove(bundle_path / "Contents/Info.plist");
  EXPECT_EQ(check(), "failed: host");
}

TEST_F(Sparkle, DownloadFailuresEndTheCheck) {
  serve_item(plain_item("2.0", server.url("/missing.zip")));
  EXPECT_EQ(check(), "failed: download");
  server.serve("/half.zip", trouble(Answer::Trouble::truncate, 3));
  serve_item(plain_item("2.0", server.url("/half.zip")));
  EXPECT_EQ(check(), "failed: download");
  serve_item(plain_item("2.0", "no url at all"));
  EXPECT_EQ(check(), "failed: download");
  EXPECT_EQ(installed(), "1.0");
}

TEST_F(Sparkle, EveryKindOfBadSignatureIsRefused) {
  testbed::Application release = application;
  release.version = "2.0";
  const Item good = testbed::publish(server, release, keys);
  std::string flipped = good.signature;
  flipped[20] = flipped[20] == 'A' ? 'B' : 'A';
  for (const std::string& signature :
       {std::string(), std::string("===="), std::string("no base64 !"), std::string("AAAA"),
        flipped, testbed::sign(testbed::make_key_pair(), "other"), testbed::sign(keys, "other")}) {
    Item item = good;
    item.signature = signature;
    serve_item(item);
    EXPECT_EQ(check(), "failed: signature") << signature;
  }
  serve_item(good);
  std::filesystem::remove(bundle_path / "Contents/Resources/dsa_pub.pem");
  EXPECT_EQ(check(), "failed: signature");
  testbed::write_file(bundle_path / "Contents/Resources/dsa_pub.pem", "no key");
  EXPECT_EQ(check(), "failed: signature");
  EXPECT_EQ(installed(), "1.0");
  EXPECT_FALSE(recorder->journal.has("willInstallUpdate"));
}

TEST_F(Sparkle, PublicKeyMayHaveAnotherName) {
  application.info["SUPublicDSAKeyFile"] = "mine.pem";
  testbed::write_application(application, folder.path());
  std::filesystem::rename(bundle_path / "Contents/Resources/dsa_pub.pem",
                          bundle_path / "Contents/Resources/mine.pem");
  publish("2.0");
  std::erase(recorder->methods, "bestValidUpdateInAppcast:forUpdater:");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(installed(), "2.0");
}

struct ArchiveFailure {
  const char* name;
  std::string archive;
  const char* expected;
};

void PrintTo(const ArchiveFailure& failure, std::ostream* out) { *out << failure.name; }

class SparkleArchiveFailure : public Sparkle, public testing::WithParamInterface<ArchiveFailure> {};

TEST_P(SparkleArchiveFailure, LeavesTheInstalledVersionAlone) {
  testbed::write_file(folder / "outside", "untouched");
  Item item = plain_item("2.0", server.url("/a"));
  item.signature = testbed::sign(keys, GetParam().archive);
  server.serve("/a", {GetParam().archive, "application/octet-stream"});
  serve_item(item);
  EXPECT_EQ(check(), GetParam().expected);
  EXPECT_EQ(installed(), "1.0");
  EXPECT_EQ(testbed::read_file(folder / "outside"), "untouched");
  EXPECT_FALSE(std::filesystem::exists(folder / "planted"));
}

namespace {
std::string tar(std::vector<Entry> entries) {
  return testbed::make_archive(entries, testbed::ArchiveKind::tar_gz);
}

const ArchiveFailure kArchiveFailures[] = {
    {"NoArchive", "just text", "failed: unpack"},
    {"Empty", "", "failed: unpack"},
    {"HalfAnArchive",
     testbed::make_archive({{"Demo.app/x", std::string(100000, 'x')}}).substr(0, 60),
     "failed: unpack"},
    {"ClimbingPath", tar({{"../../planted", "x"}}), "failed: unpack"},
    {"ClimbingInside", tar({{"Demo.app/../../../planted", "x"}}), "failed: unpack"},
    {"AbsolutePath", tar({{"/tmp/planted", "x"}}), "failed: unpack"},
    {"LinkOutside", tar({{"Demo.app/l", "../../..", Entry::Kind::link}}), "failed: unpack"},
    {"AbsoluteLink", tar({{"Demo.app/l", "/etc", Entry::Kind::link}}), "failed: unpack"},
    {"DetourLink", tar({{"a", ".", Entry::Kind::link}, {"b", "a/a/../..", Entry::Kind::link}}),
     "failed: unpack"},
    {"ThroughALink",
     tar({{"d", "", Entry::Kind::folder, 0755}, {"l", "d", Entry::Kind::link}, {"l/x", "x"}}),
     "failed: unpack"},
    {"HardLinkOutside", tar({{"l", "../../outside", Entry::Kind::hard_link}}), "failed: unpack"},
    {"Fifo", tar({{"Demo.app/fifo", "", Entry::Kind::fifo}}), "failed: unpack"},
    {"OtherApplication", testbed::make_archive({{"Other.app/x", "x"}}), "failed: install"},
    {"FileInsteadOfAFolder", testbed::make_archive({{"Demo.app", "x"}}), "failed: install"},
};
} // namespace

INSTANTIATE_TEST_SUITE_P(Archives, SparkleArchiveFailure, testing::ValuesIn(kArchiveFailures),
                         [](const auto& info) { return info.param.name; });

TEST_F(Sparkle, UnpacksLinksThatStayInside) {
  testbed::Application release = application;
  release.version = "2.0";
  std::vector<Entry> entries = {{"Download", "", Entry::Kind::folder, 0755}};
  for (Entry entry : testbed::entries_of(release)) {
    entry.path = "Download/" + entry.path;
    entries.push_back(entry);
  }
  entries.push_back({"Download/Demo.app/Current", "Contents/MacOS", Entry::Kind::link});
  entries.push_back({"Download/Demo.app/Contents/up", "../Current", Entry::Kind::link});
  entries.push_back(
      {"Download/Demo.app/copy", "Download/Demo.app/Contents/Info.plist", Entry::Kind::hard_link});
  const std::string archive = tar(entries);
  Item item = plain_item("2.0", server.url("/a"));
  item.signature = testbed::sign(keys, archive);
  server.serve("/a", {archive});
  serve_item(item);
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_TRUE(std::filesystem::exists(bundle_path / "Contents/up/Demo"));
  EXPECT_TRUE(std::filesystem::exists(bundle_path / "copy"));
}

// The relaunch.

TEST_F(Sparkle, PostponedRelaunchWaitsForItsInvocation) {
  publish("2.0");
  recorder->postpone = YES;
  [updater checkForUpdates:nil];
  ASSERT_TRUE(run_until([this] { return steps.has("relaunch postponed: "); }));
  run_until([] { return false; }, 0.2);
  EXPECT_TRUE([updater updateInProgress]);
  EXPECT_EQ(installed(), "2.0");
  EXPECT_FALSE(recorder->journal.has("updaterWillRelaunchApplication:"));
  [recorder->invocation invoke];
  [recorder->invocation invoke];
  [recorder->invocation release];
  recorder->invocation = nil;
  EXPECT_EQ(wait_for_end(), "finished");
  EXPECT_TRUE(testbed::wait_for_file(application.marker));
  EXPECT_TRUE(recorder->journal.has("updaterWillRelaunchApplication:"));
}

TEST_F(Sparkle, PostponingIsAskedOnceInAProcess) {
  publish("2.0");
  EXPECT_EQ(check(), "finished");
  publish("3.0");
  recorder->postpone = YES;
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(installed(), "3.0");
  int asked = 0;
  for (const std::string& call : calls()) asked += call.find("shouldPostpone") != call.npos;
  EXPECT_EQ(asked, 1);
  // What was kept in spite of the NO does nothing.
  [recorder->invocation invoke];
  EXPECT_FALSE(steps.has("relaunch continued: "));
}

TEST_F(Sparkle, InvocationInvokedInsideTheQuestionRelaunchesOnce) {
  publish("2.0");
  recorder->postpone = YES;
  recorder->onCall = [this](const std::string& name) {
    if (name.find("shouldPostpone") != name.npos) [recorder->invocation invoke];
  };
  EXPECT_EQ(check(), "finished");
  run_until([] { return false; }, 0.2);
  int relaunches = 0;
  for (const std::string& line : steps.lines()) relaunches += line.rfind("relaunching: ", 0) == 0;
  EXPECT_EQ(relaunches, 1);
}

TEST_F(Sparkle, GivingUpTheInvocationEndsTheUpdate) {
  publish("2.0");
  recorder->postpone = YES;
  [updater checkForUpdates:nil];
  ASSERT_TRUE(run_until([this] { return steps.has("relaunch postponed: "); }));
  run_until([] { return false; }, 0.2);
  [recorder->invocation release];
  recorder->invocation = nil;
  EXPECT_EQ(wait_for_end(), "failed: relaunch");
}

TEST_F(Sparkle, RelaunchesWhatTheDelegateNames) {
  publish("2.0");
  testbed::write_file(folder / "other",
                      "#!/bin/sh\necho other > '" + (folder / "told").string() + "'\n", 0755);
  recorder->relaunchPath = [nsstring(folder / "other") retain];
  EXPECT_EQ(check(), "finished");
  EXPECT_TRUE(testbed::wait_for_file(folder / "told"));
  EXPECT_FALSE(std::filesystem::exists(application.marker));
  [recorder->relaunchPath release];
}

TEST_F(Sparkle, NothingToRelaunchEndsTheUpdate) {
  publish("2.0");
  recorder->relaunchPath = @"/nowhere/at/all";
  EXPECT_EQ(check(), "failed: relaunch");
  EXPECT_EQ(installed(), "2.0");
}

// Delegates that misbehave, or go.

TEST_F(Sparkle, ExceptionOfTheDelegateEndsTheCheckInOneLine) {
  for (const std::string& method : kAllMethods) {
    if (method.find("Permission") != method.npos) continue;
    publish(method == "updaterDidNotFindUpdate:" ? "1.0" : "2.0");
    testbed::write_application(application, folder.path());
    recorder->onCall = [&](const std::string& name) { recorder->raises = name == method; };
    testing::internal::CaptureStderr();
    const std::string result = check();
    EXPECT_EQ(count_of(testing::internal::GetCapturedStderr(), "Sparkle: "),
              result == "finished" ? 0u : 1u);
    // The question about the relaunch was asked by the first check that came so far.
    if (method.find("shouldPostpone") == method.npos)
      EXPECT_EQ(result, "failed: exception") << method;
  }
}

TEST_F(Sparkle, ThrownObjectThatIsNoExceptionEndsTheCheck) {
  publish("2.0");
  recorder->thrown = @"thrown";
  EXPECT_EQ(check(), "failed: exception");
  EXPECT_NE(step("failed").find("String was thrown"), std::string::npos);
}

TEST_F(Sparkle, DelegateSetToNilHearsNothingMore) {
  publish("2.0");
  recorder->onCall = [this](const std::string& name) {
    if (name.find("didFinishLoading") != name.npos) {
      [updater setDelegate:nil];
      [recorder release]; // as its owner does right afterwards
    }
  };
  [recorder retain];
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ(calls().back(), "updater:didFinishLoadingAppcast: 1");
  EXPECT_EQ(installed(), "2.0");
}

// By itself.

TEST_F(Sparkle, AutomaticChecksAreADayApartAndAtLeastAnHour) {
  publish("1.0");
  EXPECT_EQ(check(), "finished");
  EXPECT_EQ([updater nextUpdateCheckDate], nil);
  [updater setAutomaticallyChecksForUpdates:YES];
  EXPECT_NEAR([[updater nextUpdateCheckDate] timeIntervalSinceNow], 86400, 60);
  [updater setUpdateCheckInterval:1];
  EXPECT_NEAR([[updater nextUpdateCheckDate] timeIntervalSinceNow], 3600, 60);
  [updater setUpdateCheckInterval:0];
  EXPECT_EQ([updater nextUpdateCheckDate], nil);
  for (double interval : {-1.0, double(NAN), -double(INFINITY)}) {
    [updater setUpdateCheckInterval:interval];
    EXPECT_EQ([updater nextUpdateCheckDate], nil);
  }
  [updater setUpdateCheckInterval:1e300];
  EXPECT_NE([updater nextUpdateCheckDate], nil);
  [updater setAutomaticallyChecksForUpdates:NO];
  EXPECT_EQ([updater nextUpdateCheckDate], nil);
}

TEST_F(Sparkle, DueAutomaticCheckIsMadeOnceAndArmsTheTimerAgain) {
  publish("1.0");
  [updater setAutomaticallyChecksForUpdates:YES];
  EXPECT_EQ(wait_for_end(), "finished");
  EXPECT_EQ(server.requests("/appcast.xml").size(), 1u);
  EXPECT_TRUE(
      run_until([this] { return [[updater nextUpdateCheckDate] timeIntervalSinceNow] > 3000; }));
  [updater resetUpdateCycle];
  EXPECT_NEAR([[updater nextUpdateCheckDate] timeIntervalSinceNow], 86400, 60);
}

TEST_F(Sparkle, AutomaticCheckWithoutFeedIsLoggedAndTriedLater) {
  [updater setFeedURL:nil];
  testing::internal::CaptureStderr();
  [updater setAutomaticallyChecksForUpdates:YES];
  EXPECT_TRUE(
      run_until([this] { return [[updater nextUpdateCheckDate] timeIntervalSinceNow] > 3000; }));
  EXPECT_EQ(count_of(testing::internal::GetCapturedStderr(), "Sparkle: "), 1u);
  EXPECT_FALSE([updater updateInProgress]);
}

TEST_F(Sparkle, PermissionIsAskedThroughTheDelegateOnTheMainThread) {
  recorder->prompt = YES;
  setenv("SPARKLE_PERMISSION", "yes", 1);
  publish("1.0");
  EXPECT_EQ(wait_for_end(), "finished"); // given, and so a first check was due
  EXPECT_EQ(calls().front(), "updaterShouldPromptForPermissionToCheckForUpdates:");
  EXPECT_EQ(recorder->onMainThread, 1);
  EXPECT_TRUE([updater automaticallyChecksForUpdates]);
}

TEST_F(Sparkle, PermissionStaysOpenWhenNobodyIsAsked) {
  recorder->prompt = NO;
  setenv("SPARKLE_PERMISSION", "yes", 1);
  ASSERT_TRUE(run_until([this] { return !calls().empty(); }));
  run_until([] { return false; }, 0.1);
  EXPECT_FALSE(steps.has("permission: "));
  EXPECT_FALSE([updater automaticallyChecksForUpdates]);
}

TEST_F(Sparkle, PermissionIsNotAskedOfAnUndecidedProgramOnItsFirstDay) {
  recorder->methods.clear();
  setenv("SPARKLE_PERMISSION", "yes", 1);
  run_until([] { return false; }, 0.1);
  EXPECT_FALSE([updater automaticallyChecksForUpdates]);
  NSDictionary* kept = [NSDictionary
      dictionaryWithContentsOfFile:nsstring(folder / "defaults/org.example.demo.plist")];
  EXPECT_TRUE([[kept objectForKey:@"SUHasLaunchedBefore"] boolValue]);
}
