// Whole updates through the host: every step is the real one.

#include "published.h"

#include <gmock/gmock.h>

using published::Release;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The recordings of the real framework say more of it (tests/traces), but not in every host.
class Cycle : public session::Test {
protected:
  void update(const char* framework, const std::vector<std::string>& events) {
    setenv("SPARKLE_VERSION", framework, 1);
    Release release;
    start();
    ASSERT_TRUE(loadFramework());
    host::Object updater = release.updater();
    ASSERT_TRUE(release.check(updater));
    EXPECT_EQ(release.failure(), "");
    EXPECT_EQ(release.told().events, events);
    EXPECT_TRUE(release.told().reportsOnMain);
    EXPECT_EQ(release.told().items, 2);
    EXPECT_EQ(release.told().version, "3.0");
    EXPECT_EQ(release.installed(), "3.0");
    EXPECT_EQ(release.started(), "3.0");
  }
};

const std::vector<std::string> eventsOf15 = {"feedParametersForUpdater",
                                             "didFinishLoadingAppcast",
                                             "bestValidUpdateInAppcast",
                                             "versionComparatorForUpdater",
                                             "compareVersion",
                                             "didFindValidUpdate",
                                             "willInstallUpdate",
                                             "versionComparatorForUpdater",
                                             "compareVersion",
                                             "shouldPostponeRelaunchForUpdate",
                                             "updaterWillRelaunchApplication",
                                             "pathToRelaunchForUpdater"};

TEST_P(Cycle, FindsDownloadsVerifiesInstallsAndRelaunches) { update("1.5b6", eventsOf15); }

TEST_P(Cycle, GoesTheSameRoadWhenEveryCallbackComesFromAWorkerThread) {
  update("workers", eventsOf15);
}

TEST_P(Cycle, GoesTheRoadOfTheNextVersion) {
  update("1.6",
         {"feedParametersForUpdater", "updaterShouldPromptForPermissionToCheckForUpdates",
          "didFinishLoadingAppcast", "bestValidUpdateInAppcast", "versionComparatorForUpdater",
          "compareVersion", "didFindValidUpdate", "shouldPostponeRelaunchForUpdate",
          "willInstallUpdate", "updaterWillRelaunchApplication", "pathToRelaunchForUpdater"});
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

constexpr const char* usable = "<item><enclosure url=\"a_9.zip\"/></item>";

// With its byte order mark, the lower byte first.
static std::string utf16(const std::string& ascii) {
  std::string text = "\xFF\xFE";
  for (char letter : ascii) text += {letter, '\0'};
  size_t at = text.find(std::string("8\0\"", 3));
  return text.replace(at - 2, 4,
                      std::string("1\0"
                                  "6\0",
                                  4));
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
    {"HoldsNoItems", [](const Release&) { return rss(""); }, "", 0},
    {"IsAPageThatIsXML",
     [](const Release&) { return std::string("<html><p>Not found</p></html>"); }, "", 0},
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
     "", 0},
    {"HasAPrefixThatIsNotDeclared",
     [](const Release&) {
       return std::string("<rss><channel><item><enclosure url=\"http://127.0.0.1:1/a.zip\" "
                          "sparkle:version=\"9\"/></item></channel></rss>");
     },
     "", 1},
    {"HasSeveralEnclosures",
     [](const Release&) {
       return rss("<item><enclosure url=\"a_8.zip\"/><enclosure url=\"a_9.zip\"/></item>");
     },
     "", 1},
    {"HasEveryTextInManyLanguages",
     [](const Release&) {
       return rss("<item><title xml:lang=\"de\">eins</title><title xml:lang=\"en\">one</title>"
                  "<enclosure url=\"a_9.zip\"/></item>");
     },
     "", 1},
    {"HasEntitiesOfItsOwn",
     [](const Release&) {
       return std::string("<!DOCTYPE rss [<!ENTITY e \"entity\"><!ENTITY f SYSTEM "
                          "\"file:///etc/passwd\">]><rss><channel><item><title>&e;</title>"
                          "<description>&f;</description>"
                          "<enclosure url=\"a_9.zip\"/></item></channel></rss>");
     },
     "", 1},
    {"IsInUTF16", [](const Release&) { return utf16(rss(usable)); }, "", 1},
    {"HasURLsThatAreNone",
     [](const Release&) {
       return rss("<item><title>one</title>"
                  "<sparkle:releaseNotesLink>http:// not a url %%</sparkle:releaseNotesLink>"
                  "<enclosure url=\"::::\" sparkle:version=\"9\"/></item>");
     },
     "", 1},
    {"HasDatesThatAreNone",
     [](const Release&) {
       return rss("<item><pubDate>the 40th of Nonsense</pubDate>"
                  "<enclosure url=\"a_9.zip\"/></item>");
     },
     "", 1},
    {"HasTenThousandItems",
     [](const Release&) {
       std::string items;
       for (int i = 0; i < 10000; ++i)
         items +=
             "<item><title>" + std::to_string(i) + "</title><enclosure url=\"a_9.zip\"/></item>";
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
          std::vector<host::Value> all = host::elements(items);
          for (size_t i = 0; i < all.size(); i += 1 + all.size() / 200) {
            auto item = all[i].as<host::Object>();
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
    {"AnswersNotFound", {.body = "no", .status = 404}, "xml"},
    {"AnswersAnError", {.body = "no", .status = 500}, "xml"},
    {"HangsUp", {.trouble = testbed::Answer::Trouble::hang_up}, "xml"},
    {"TalksNonsense", {.body = "\1\2\3", .trouble = testbed::Answer::Trouble::junk}, "fetch"},
    {"BreaksOff",
     {.body = std::string(1000, 'x'), .trouble = testbed::Answer::Trouble::truncate, .after = 10},
     "xml"},
    {"FallsSilent",
     {.body = std::string(1000, 'x'), .trouble = testbed::Answer::Trouble::stall, .after = 10},
     "fetch"},
};

TEST_P(HostileServer, EndsTheCheckAndTellsTheProgramNothing) {
  bool silent = GetParam().answer.trouble == testbed::Answer::Trouble::stall;
  if (silent) setenv("SPARKLE_PATIENCE", "1", 1); // nobody waits half a minute for what never comes
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
