// Checks of the update framework: what recordings do not say, or would not fail in one place.
#import "sparkle_fixture.h"

#import "SUStandardVersionComparator.h"

#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/statvfs.h>
#include <unistd.h>

using testbed::Answer;
using testbed::Entry;
using testbed::Item;

namespace {

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
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

NSString* const kInBackground = @"checkForUpdatesInBackground";
NSString* const kForInformation = @"checkForUpdateInformation";

} // namespace

// The request.

TEST_F(Sparkle, FeedParametersAreNotEscapedWhereAURLMayHoldThem) {
  publish("1.0");
  recorder->parameters = @[
    @{@"key" : @"a b", @"value" : @"1&2=3?/+", @"displayKey" : @"A", @"displayValue" : @"B"},
    @{@"key" : @"ü",
      @"value" : @(42)},
    @{@"key" : @"nil", @"value" : [NSNull null]},
    @{@"key" : @"escaped", @"value" : @"%26"},
  ];
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(server.requests("/appcast.xml").at(0).query,
            "a%20b=1&2=3?/+&%C3%BC=42&nil=%3Cnull%3E&escaped=%2526");
}

TEST_F(Sparkle, FeedParametersJoinAQueryThatIsThere) {
  publish("1.0");
  [updater setFeedURL:[NSURL URLWithString:nsstring(server.url("/appcast.xml?channel=beta"))]];
  recorder->parameters = @[ @{@"key" : @"k", @"value" : @"v"} ];
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(server.requests("/appcast.xml").at(0).query, "channel=beta&k=v");
}

TEST_F(Sparkle, ProfileIsSentOnceAWeek) {
  publish("1.0");
  [updater setSendsSystemProfile:YES];
  for (const char* profile : {"YES", "NO"}) {
    EXPECT_EQ(check(kForInformation), "finished");
    EXPECT_EQ(calls().at(calls().size() - 5),
              std::string("feedParametersForUpdater:sendingSystemProfile: ") + profile);
  }
  EXPECT_EQ(server.requests().at(0).parameter("ramMB"), "2048");
  EXPECT_EQ(server.requests().at(1).query, "");
}

TEST_F(Sparkle, UserAgentIsASCII) {
  application.name = "Dëmo";
  install_again();
  publish("1.0");
  EXPECT_EQ(check(kForInformation), "finished");
  const std::string agent = server.requests("/appcast.xml").at(0).user_agent;
  EXPECT_TRUE(agent.ends_with("mo/1.0 Sparkle/1.5")) << agent;
  for (const char letter : agent) EXPECT_GT(letter, 0) << agent;
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

// A volume that cannot be written takes rights to make; so the one answer of the system that says
// it is changed. The framework finds this function before the library's (see CMakeLists.txt).
namespace {
bool read_only_volume;
}
extern "C" int statvfs(const char* path, struct statvfs* volume) {
  using Function = int (*)(const char*, struct statvfs*);
  static Function real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs"));
  int result = real(path, volume);
  if (read_only_volume) volume->f_flag |= ST_RDONLY;
  return result;
}

TEST_F(Sparkle, ApplicationOnAVolumeThatCannotBeWrittenIsNotUpdated) {
  publish("2.0");
  read_only_volume = true;
  EXPECT_EQ(check(), "failed: host");
  EXPECT_TRUE(steps.has("asks: Cancel Update"));
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(server.requests().empty());
}

// The choice.

TEST_F(Sparkle, ChoosesTheNewestItemThatFitsTheSystem) {
  Item future = plain_item("9.0", server.url("/9.zip"));
  future.minimum_system = "10.9";
  future.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  Item older = plain_item("4.0", server.url("/4.zip"));
  older.date = "Sat, 19 Jul 2008 15:20:11 +0000";
  Item newer = plain_item("3.0", server.url("/3.zip"));
  newer.minimum_system = "10.6.8";
  newer.date = "Sun, 20 Jul 2008 15:20:11 +0000";
  serve_feed(testbed::appcast_xml({older, future, newer}));
  std::erase(recorder->methods, "bestValidUpdateInAppcast:forUpdater:");
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 3.0");
  setenv("SPARKLE_SYSTEM_VERSION", "10.9.1", 1);
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(calls().back(), "updater:didFindValidUpdate: 9.0");
}

TEST_F(Sparkle, ChoiceOfTheDelegateMustFitTheSystemToo) {
  Item future = plain_item("9.0", server.url("/9.zip"));
  future.minimum_system = "10.9";
  serve_item(future);
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:");
  recorder->chosen = -1;
  setenv("SPARKLE_SYSTEM_VERSION", "10.9.1", 1);
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_EQ(calls().back(), "updaterDidNotFindUpdate:");
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
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(installed(), "0.5");
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

// What a person sees and answers.

TEST_F(Sparkle, SkippedVersionIsOfferedAgainOnlyToAPersonWhoAsks) {
  publish("2.0");
  steps::answer("A new version is available!", "Skip This Version");
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_EQ(steps.count("asks: Install Update"), 1u);
  steps::answer("A new version is available!", "Install Update");
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(steps.count("asks: Install Update"), 2u);
  EXPECT_EQ([kept() objectForKey:@"SUSkippedVersion"], nil);
}

TEST_F(Sparkle, ReminderIsGivenByTheNextCheck) {
  publish("2.0");
  steps::answer("A new version is available!", "Remind Me Later");
  for (size_t times : {1u, 2u}) {
    EXPECT_EQ(check(kInBackground), "finished");
    EXPECT_EQ(steps.count("asks: Install Update / Skip This Version / Remind Me Later"), times);
  }
  EXPECT_EQ(installed(), "1.0");
  EXPECT_TRUE(server.requests("/Demo_2.0.zip").empty());
}

TEST_F(Sparkle, WindowThatNobodyAnswersKeepsTheCheckGoing) {
  publish("2.0");
  steps::answer("A new version is available!", "");
  [updater checkForUpdatesInBackground];
  ASSERT_TRUE(run_until([this] { return steps.has("asks: "); }));
  run_what_is_due();
  EXPECT_TRUE([updater updateInProgress]);
  EXPECT_EQ(ends, 0);
}

TEST_F(Sparkle, CancelledCheckEndsBeforeTheFeedIsRead) {
  publish("2.0");
  steps::answer("Checking for updates…", "Cancel");
  EXPECT_EQ(check(), "finished");
  run_what_is_due();
  EXPECT_FALSE(told("updater:didFinishLoadingAppcast:"));
  EXPECT_FALSE([updater updateInProgress]);
}

TEST_F(Sparkle, CancelledDownloadInstallsNothing) {
  publish("2.0");
  steps::answer("Downloading update…", "Cancel");
  EXPECT_EQ(check(), "finished");
  run_what_is_due();
  EXPECT_EQ(installed(), "1.0");
  EXPECT_FALSE(told("updater:willInstallUpdate:"));
}

TEST_F(Sparkle, OnlyAPersonWhoAskedIsShownThatNothingIsNewer) {
  publish("1.0");
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_EQ(check(kForInformation), "finished");
  EXPECT_FALSE(steps.has("asks: "));
  EXPECT_FALSE(steps.has("shows: "));
  EXPECT_EQ(check(), "finished");
  EXPECT_TRUE(steps.has("shows: Checking for updates…"));
  EXPECT_TRUE(steps.has("asks: OK"));
}

TEST_F(Sparkle, NothingNewerIsToldOfABackgroundCheckWithAutomaticDownloadsOnly) {
  publish("1.0");
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_FALSE(told("updaterDidNotFindUpdate:"));
  [updater setAutomaticallyDownloadsUpdates:YES];
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_TRUE(told("updaterDidNotFindUpdate:"));
}

TEST_F(Sparkle, AutomaticUpdateMayWaitForTheEndOfTheApplication) {
  publish("2.0");
  [updater setAutomaticallyDownloadsUpdates:YES];
  steps::answer("A new version is ready", "Install on Quit");
  [updater checkForUpdatesInBackground];
  ASSERT_TRUE(run_until([this] { return steps.has("waiting: "); }));
  EXPECT_FALSE(steps.has("asks: Install Update"));
  EXPECT_EQ(installed(), "1.0");
  announce(@"NSApplicationWillTerminateNotification");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_EQ(calls().back(), "versionComparatorForUpdater:");
  EXPECT_EQ(recorder->onOtherThreads, 0);
  EXPECT_TRUE(children.empty());
}

TEST_F(Sparkle, AutomaticUpdateMayBeRefused) {
  publish("2.0");
  [updater setAutomaticallyDownloadsUpdates:YES];
  steps::answer("A new version is ready", "Don't Install");
  EXPECT_EQ(check(kInBackground), "finished");
  announce(@"NSApplicationWillTerminateNotification");
  EXPECT_EQ(installed(), "1.0");
}

TEST_F(Sparkle16, AutomaticUpdateWaitsForTheEndOfTheApplication) {
  publish("2.0");
  [updater setAutomaticallyDownloadsUpdates:YES];
  [updater checkForUpdatesInBackground];
  ASSERT_TRUE(run_until([this] { return steps.has("waiting: "); }));
  EXPECT_FALSE(steps.has("asks: "));
  announce(@"NSApplicationWillTerminateNotification");
  EXPECT_EQ(installed(), "2.0");
}

// Failures.

struct FeedFailure {
  const char* name;
  Answer answer;
  const char* expected;
};

void PrintTo(const FeedFailure& failure, std::ostream* out) { *out << failure.name; }

class SparkleFeedFailure : public Sparkle, public testing::WithParamInterface<FeedFailure> {};

// Whoever waits for it is told, in a window or in the log; of a check in the background nothing is
// said.
TEST_P(SparkleFeedFailure, EndsTheCheck) {
  server.serve("/appcast.xml", GetParam().answer);
  const bool fails = std::string(GetParam().expected) != "finished";
  const struct {
    NSString* method;
    size_t lines, windows;
  } rows[] = {{kInBackground, 0, 0}, {kForInformation, 2, 0}, {@"checkForUpdates:", 2, 1}};
  for (const auto& row : rows) {
    const size_t before = steps.count("asks: Cancel Update");
    testing::internal::CaptureStderr();
    EXPECT_EQ(check(row.method), GetParam().expected);
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(), "Sparkle Error"),
              fails ? row.lines : 0u);
    EXPECT_EQ(steps.count("asks: Cancel Update") - before, fails ? row.windows : 0u);
    EXPECT_FALSE([updater updateInProgress]);
  }
  EXPECT_EQ(told("updater:didFinishLoadingAppcast: 0"), !fails);
  EXPECT_EQ(told("updaterDidNotFindUpdate:"), !fails);
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
    {"NotFound", {"no", "text/plain", 404}, "failed: xml"},
    {"NotFoundAsAPage", {"<html><p>Not found</p></html>", "text/html", 404}, "finished"},
    {"Truncated", trouble(Answer::Trouble::truncate, 50), "failed: xml"},
    {"Stalled", trouble(Answer::Trouble::stall, 50), "failed: fetch"},
    {"StalledAtOnce", trouble(Answer::Trouble::stall, 0), "failed: fetch"},
    {"Junk", trouble(Answer::Trouble::junk, 0, std::string("\0\1\2junk", 7)), "failed: fetch"},
    {"HungUp", trouble(Answer::Trouble::hang_up, 0), "failed: xml"},
    {"Empty", {""}, "failed: xml"},
    {"NoXML", {"<html><p>Not found"}, "failed: xml"},
    {"HalfXML", {kFeed.substr(0, kFeed.size() / 2)}, "failed: xml"},
    {"OtherXML", {"<html><channel><item/></channel></html>"}, "finished"},
    {"NoItems", {testbed::appcast_xml({})}, "finished"},
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
    install_again();
    EXPECT_EQ(check(), "failed: fetch") << url;
  }
}

TEST_F(Sparkle, DownloadFailuresEndTheCheck) {
  for (const char* url : {"http://127.0.0.1:1/a.zip", "no url at all", "relative.zip"}) {
    serve_item(plain_item("2.0", url));
    EXPECT_EQ(check(kInBackground), "failed: download") << url;
    EXPECT_TRUE(steps.has("asks: Cancel Update")); // the update was shown, and so is this
  }
  EXPECT_EQ(installed(), "1.0");
}

namespace {
// A key as today's OpenSSL makes it: its q has 224 bits.
testbed::KeyPair key_of_today() {
  EVP_PKEY *parameters = nullptr, *key = nullptr;
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr);
  EVP_PKEY_paramgen_init(context);
  EVP_PKEY_CTX_ctrl_str(context, "dsa_paramgen_bits", "1024");
  EVP_PKEY_CTX_ctrl_str(context, "dsa_paramgen_q_bits", "224");
  EVP_PKEY_paramgen(context, &parameters);
  EVP_PKEY_CTX_free(context);
  context = EVP_PKEY_CTX_new(parameters, nullptr);
  EVP_PKEY_keygen_init(context);
  EVP_PKEY_keygen(context, &key);
  BIO *secret = BIO_new(BIO_s_mem()), *open = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(secret, key, nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_PUBKEY(open, key);
  char* bytes;
  testbed::KeyPair pair;
  long size = BIO_get_mem_data(secret, &bytes);
  pair.private_pem.assign(bytes, size_t(size));
  size = BIO_get_mem_data(open, &bytes);
  pair.public_pem.assign(bytes, size_t(size));
  BIO_free(secret);
  BIO_free(open);
  EVP_PKEY_free(key);
  EVP_PKEY_free(parameters);
  EVP_PKEY_CTX_free(context);
  return pair;
}
} // namespace

TEST_F(Sparkle, EveryKindOfBadSignatureIsRefused) {
  const Item good = publish("2.0");
  testbed::Application release = application;
  release.version = "2.0";
  const std::string archive = testbed::make_archive(testbed::entries_of(release));
  std::string flipped = good.signature;
  flipped[20] = flipped[20] == 'A' ? 'B' : 'A';
  for (const std::string& signature :
       {std::string(), std::string("===="), std::string("no base64 !"), std::string("AAAA"),
        flipped, testbed::sign(testbed::make_key_pair(), archive), testbed::sign(keys, "other"),
        testbed::sign_once(keys, archive)}) {
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
  EXPECT_FALSE(told("willInstallUpdate"));
}

TEST_F(Sparkle, SignatureOfAKeyThatIsTooNewIsRefused) {
  keys = key_of_today();
  application.public_pem = keys.public_pem;
  install_again();
  publish("2.0");
  EXPECT_EQ(check(), "failed: signature");
  EXPECT_NE(step("failed").find("160 bits"), std::string::npos);
}

TEST_F(Sparkle16, BadSignatureIsRefusedBeforeTheRelaunchIsPostponed) {
  Item item = publish("2.0");
  item.signature = testbed::sign(keys, "other");
  serve_item(item);
  EXPECT_EQ(check(), "failed: signature");
  EXPECT_FALSE(told("shouldPostpone"));
  EXPECT_EQ(installed(), "1.0");
}

TEST_F(Sparkle, PublicKeyMayHaveAnotherName) {
  application.info["SUPublicDSAKeyFile"] = "mine.pem";
  install_again();
  std::filesystem::rename(bundle_path / "Contents/Resources/dsa_pub.pem",
                          bundle_path / "Contents/Resources/mine.pem");
  publish("2.0");
  EXPECT_EQ(check(), "terminating");
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

std::string archive_of(const std::string& version) {
  testbed::Application application;
  application.version = version;
  return testbed::make_archive(testbed::entries_of(application));
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
    {"OlderThanInstalled", archive_of("0.9"), "failed: install"},
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
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_TRUE(std::filesystem::exists(bundle_path / "Contents/up/Demo"));
  EXPECT_TRUE(std::filesystem::exists(bundle_path / "copy"));
}

TEST_F(Sparkle, InstallingFollowsNoLinksAndLeavesOneApplication) {
  testbed::write_file(folder / "precious/file", "keep");
  std::filesystem::create_directory_symlink(folder / "precious", bundle_path / "link");
  publish("2.0");
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_EQ(testbed::read_file(folder / "precious/file"), "keep");
  for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
    EXPECT_TRUE(entry.path().extension() != ".app" || entry.path() == bundle_path) << entry.path();
}

// The relaunch.

TEST_F(Sparkle, RefusedQuitLeavesTheCheckInProgress) {
  publish("2.0");
  EXPECT_EQ(check(), "terminating");
  EXPECT_TRUE([updater updateInProgress]);
  publish("3.0");
  [updater checkForUpdates:nil];
  EXPECT_TRUE(steps.has("ignored: "));
}

TEST_F(Sparkle, ContinuedRelaunchMayNeverReturn) {
  publish("2.0");
  recorder->postpone = YES;
  [updater checkForUpdatesInBackground];
  ASSERT_TRUE(run_until([this] { return steps.has("relaunch postponed: "); }));
  EXPECT_EXIT(
      {
        steps::watch([](const steps::Step& step) {
          if (step.is("terminating")) _exit(7);
        });
        [recorder->invocation invoke];
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(Sparkle, PostponingIsAskedOnceInAProcess) {
  publish("2.0");
  recorder->postpone = YES;
  [updater checkForUpdatesInBackground];
  ASSERT_TRUE(run_until([this] { return steps.has("relaunch postponed: "); }));
  EXPECT_EQ(ends, 0);
  EXPECT_FALSE(told("updaterWillRelaunchApplication:"));
  for (int times = 0; times < 2; ++times) {
    [recorder->invocation invoke];
    EXPECT_EQ(wait_for_end(), "terminating");
  }
  EXPECT_EQ(recorder->journal.count("shouldPostpone"), 1u);
  EXPECT_EQ(recorder->journal.count("updaterWillRelaunchApplication:"), 2u);
}

TEST_F(Sparkle, RelaunchesWhatTheDelegateNames) {
  publish("2.0");
  testbed::write_file(folder / "other",
                      "#!/bin/sh\necho other > '" + (folder / "told").string() + "'\n", 0755);
  [recorder->relaunchPath release];
  recorder->relaunchPath = [nsstring(folder / "other") retain];
  EXPECT_EQ(check(), "terminating");
  EXPECT_TRUE(testbed::wait_for_file(folder / "told"));
  EXPECT_FALSE(std::filesystem::exists(application.marker));
}

TEST_F(Sparkle, NothingToRelaunchIsNobodysFailure) {
  publish("2.0");
  [recorder->relaunchPath release];
  recorder->relaunchPath = @"/nowhere/at/all";
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_TRUE(children.empty());
}

// Threads.

class SparkleWorkers : public Sparkle {
protected:
  SparkleWorkers() : Sparkle("workers") {}
};

TEST_F(SparkleWorkers, CallTheDelegateFromThreadsOnly) {
  publish("2.0");
  announce(@"NSApplicationDidFinishLaunchingNotification");
  ASSERT_TRUE(run_until([this] { return !calls().empty(); }));
  EXPECT_EQ(check(), "terminating");
  EXPECT_EQ(installed(), "2.0");
  EXPECT_EQ(recorder->onMainThread, 0);
  EXPECT_EQ(recorder->onOtherThreads, 11); // all but "not found", and the comparator twice
}

TEST_F(SparkleWorkers, RaiseInTheCallerWithoutAFeed) {
  [updater setFeedURL:nil];
  NSString* name = nil;
  @try {
    [updater checkForUpdates:nil];
  } @catch (NSException* exception) {
    name = [exception name];
  }
  EXPECT_EQ(text(name), "SUNoFeedURL");
  EXPECT_TRUE([updater updateInProgress]);
  run_what_is_due();
  EXPECT_EQ(ends, 0);
}

TEST_F(SparkleWorkers, AreAnsweredFromTheMainThread) {
  publish("2.0");
  steps::answer("A new version is available!", "Remind Me Later");
  EXPECT_EQ(check(kInBackground), "finished");
  EXPECT_FALSE([updater updateInProgress]);
}
