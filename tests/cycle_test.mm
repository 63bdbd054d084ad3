// Whole updates through the host: every step is the real one.

#include "published.h"

#include <gmock/gmock.h>

using published::Release;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Cycle : public session::Test {};

TEST_P(Cycle, FindsDownloadsVerifiesInstallsAndRelaunches) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater));
  EXPECT_EQ(release.failure(), "");
  // The question for permission comes from the main thread, beside the check.
  std::vector<std::string> events = release.told().events;
  EXPECT_EQ(std::erase(events, "updaterShouldPromptForPermissionToCheckForUpdates"), 1u);
  EXPECT_THAT(events, ElementsAre("feedParametersForUpdater", "didFinishLoadingAppcast",
                                  "bestValidUpdateInAppcast", "versionComparatorForUpdater",
                                  "compareVersion", "didFindValidUpdate", "willInstallUpdate",
                                  "shouldPostponeRelaunchForUpdate",
                                  "updaterWillRelaunchApplication", "pathToRelaunchForUpdater"));
  EXPECT_TRUE(release.told().reportsOnMain);
  EXPECT_EQ(release.told().items, 2);
  EXPECT_EQ(release.told().version, "3.0");
  EXPECT_EQ(release.installed(), "3.0");
  EXPECT_EQ(release.started(), "3.0");
}

TEST_P(Cycle, FeedParametersArriveInTheServersQuery) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater, "checkForUpdateInformation"));
  auto requests = release.server.requests("/appcast.xml");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].parameter("name"), "ä & b");
  EXPECT_EQ(requests[0].parameter("count"), "7");
}

TEST_P(Cycle, InformationIsFoundAndNothingInstalled) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater, "checkForUpdateInformation"));
  EXPECT_EQ(release.told().version, "3.0");
  EXPECT_THAT(release.told().events, Not(Contains("willInstallUpdate")));
  EXPECT_THAT(release.told().properties, HasSubstr("\"enclosure\": {"));
  EXPECT_EQ(release.installed(), "2.0");
}

TEST_P(Cycle, BackgroundCheckGoesTheSameRoad) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater, "checkForUpdatesInBackground"));
  EXPECT_EQ(release.installed(), "3.0");
  EXPECT_EQ(release.started(), "3.0");
}

TEST_P(Cycle, NothingNewerIsReportedOnceAndIsNoFailure) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  release.item.version = "2.0";
  release.feed(testbed::appcast_xml({release.item}));
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater));
  EXPECT_EQ(release.failure(), "");
  EXPECT_THAT(release.told().events, Contains("updaterDidNotFindUpdate").Times(1));
  EXPECT_EQ(release.installed(), "2.0");
}

TEST_P(Cycle, AProgramWithoutEventsUpdatesItselfToo) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)",
                                         host::folderItem(release.bundle));
  host::set(updater, "feedURL as string", release.feedURL());
  host::call(updater, "checkForUpdates");
  ASSERT_TRUE(
      host::runUntil([&] { return !host::get<bool>(updater, "updateInProgress as boolean"); }, 60));
  EXPECT_EQ(release.installed(), "3.0");
  EXPECT_EQ(release.started(), "3.0");
  EXPECT_THAT(host::events(), IsEmpty());
}

TEST_P(Cycle, AForgedArchiveIsNotInstalled) {
  Release release;
  start();
  ASSERT_TRUE(loadFramework());
  release.item.signature = testbed::sign(testbed::make_key_pair(), "something else");
  release.feed(testbed::appcast_xml({release.item}));
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater));
  EXPECT_EQ(release.failure(), "signature");
  EXPECT_EQ(release.installed(), "2.0");
  EXPECT_THAT(release.told().events, Not(Contains("willInstallUpdate")));
}

INSTANTIATE_TEST_SUITE_P(Hosts, Cycle, session::everyHost(), session::hostName);

// ---- Feeds that are wrong. They reach the host as values or not at all. ----

struct Feed {
  const char* name;
  std::string (*text)(const Release&);
  const char* failure; // how the framework's check ends; empty: well
  int items;           // that the program sees; -1: it is told of no appcast
};

class HostileFeed : public session::TestBase, public testing::WithParamInterface<Feed> {};

static std::string rss(const std::string& items) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<rss version=\"2.0\" "
         "xmlns:sparkle=\"http://example.org/xml/sparkle\"><channel>" +
         items + "</channel></rss>";
}

static std::string feedWith(const Release& release, void (*change)(testbed::Item&)) {
  testbed::Item item = release.item;
  change(item);
  return testbed::appcast_xml({item});
}

static const Feed feeds[] = {
    {"StopsHalfWay",
     [](const Release& release) {
       std::string whole = testbed::appcast_xml({release.item});
       return whole.substr(0, whole.size() / 2);
     },
     "xml", -1},
    {"IsNoXML", [](const Release&) { return std::string("This is a letter, not a feed."); }, "xml",
     -1},
    {"IsEmpty", [](const Release&) { return std::string(); }, "xml", -1},
    {"HoldsNoItems", [](const Release&) { return rss(""); }, "items", 0},
    {"HasATitleOfTenMegabytes",
     [](const Release& release) {
       return feedWith(release,
                       [](testbed::Item& item) { item.title = std::string(10 << 20, 'x'); });
     },
     "", 1},
    {"HasControlCharacters",
     [](const Release&) { return rss("<item><title>a\x01\x02\x1f b</title></item>"); }, "xml", -1},
    {"HasNULInText",
     [](const Release&) { return rss(std::string("<item><title>a\0b</title></item>", 32)); }, "xml",
     -1},
    {"HasAReferenceToNUL", [](const Release&) { return rss("<item><title>a&#0;b</title></item>"); },
     "xml", -1},
    {"HasItemsWithoutEnclosure",
     [](const Release&) {
       return rss("<item><title>one</title></item><item><title>two</title></item>");
     },
     "", 2},
    {"HasURLsThatAreNone",
     [](const Release&) {
       return rss("<item><title>one</title>"
                  "<sparkle:releaseNotesLink>http:// not a url %%</sparkle:releaseNotesLink>"
                  "<enclosure url=\"::::\" sparkle:version=\"9\"/></item>");
     },
     "", 1},
    {"HasDatesThatAreNone",
     [](const Release&) {
       return rss("<item><title>one</title><pubDate>the 40th of Nonsense</pubDate></item>");
     },
     "", 1},
    {"HasTenThousandItems",
     [](const Release&) {
       std::string items;
       for (int i = 0; i < 10000; ++i)
         items += "<item><title>" + std::to_string(i) + "</title></item>";
       return rss(items);
     },
     "", 10000},
};

// The road is gone once more for each: loading, events, conversion, and an end that is clean.
TEST_P(HostileFeed, ReachesTheHostAsValuesOrNotAtAll) {
  Release release;
  session::start("2013.03");
  ASSERT_TRUE(loadFramework());
  release.feed(GetParam().text(release));
  std::string longest;
  host::Object updater = release.updater(
      {{"didFinishLoadingAppcast(update as SUAppcastKVZ)", [&](host::Event& event) {
          auto items = host::get<host::Object>(event[0], "items as SUAppcastItemKVZ()");
          for (const host::Value& value : host::elements(items)) {
            auto item = value.as<host::Object>();
            for (const char* member :
                 {"title as string", "versionString as string", "displayVersionString as string",
                  "itemDescription as string", "releaseNotesURL as string", "fileURL as string",
                  "DSASignature as string", "minimumSystemVersion as string"}) {
              auto text = host::get<std::optional<std::string>>(item, member).value_or("");
              if (text.size() > longest.size()) longest = text;
            }
            host::get<host::Object>(item, "date as date");
            host::get<host::Object>(item, "propertiesDictionary as dictionary");
          }
          EXPECT_EQ(host::upperBound(items) + 1, GetParam().items);
        }}});
  ASSERT_TRUE(release.check(updater, "checkForUpdateInformation"));
  EXPECT_EQ(release.failure(), GetParam().failure);
  EXPECT_FALSE(host::get<bool>(updater, "updateInProgress as boolean"));
  size_t loaded = 0;
  for (const host::EventRecord& event : host::events())
    loaded += event.declaration.starts_with("didFinishLoadingAppcast");
  EXPECT_EQ(loaded, GetParam().items < 0 ? 0u : 1u);
  if (std::string(GetParam().name) == "HasATitleOfTenMegabytes")
    EXPECT_EQ(longest.size(), size_t{10 << 20});
}

INSTANTIATE_TEST_SUITE_P(Feeds, HostileFeed, testing::ValuesIn(feeds),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Servers that are wrong. ----

struct Trouble {
  const char* name;
  testbed::Answer answer;
  const char* failure;
};

class HostileServer : public session::TestBase, public testing::WithParamInterface<Trouble> {};

static const Trouble troubles[] = {
    {"AnswersNotFound", {.body = "no", .status = 404}, "status"},
    {"AnswersAnError", {.body = "no", .status = 500}, "status"},
    {"HangsUp", {.trouble = testbed::Answer::Trouble::hang_up}, "fetch"},
    {"TalksNonsense", {.body = "\1\2\3", .trouble = testbed::Answer::Trouble::junk}, "fetch"},
    {"BreaksOff",
     {.body = std::string(1000, 'x'), .trouble = testbed::Answer::Trouble::truncate, .after = 10},
     "fetch"},
};

TEST_P(HostileServer, EndsTheCheckAndTellsTheProgramNothing) {
  Release release;
  session::start("2013.03");
  ASSERT_TRUE(loadFramework());
  release.server.serve("/appcast.xml", GetParam().answer);
  host::Object updater = release.updater();
  ASSERT_TRUE(release.check(updater));
  EXPECT_EQ(release.failure(), GetParam().failure);
  EXPECT_THAT(release.told().events, Not(Contains("didFinishLoadingAppcast")));
  EXPECT_FALSE(host::get<bool>(updater, "updateInProgress as boolean"));
}

INSTANTIATE_TEST_SUITE_P(Servers, HostileServer, testing::ValuesIn(troubles),
                         [](const auto& info) { return std::string(info.param.name); });
