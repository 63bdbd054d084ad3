// What the update framework makes of feeds, decent ones and hostile ones.
#import "sparkle_fixture.h"

using testbed::Answer;
using testbed::Item;

@interface AppcastListener : NSObject {
@public
  Journal journal;
}
@end

@implementation AppcastListener
- (void)appcastDidFinishLoading:(SUAppcast*)appcast {
  journal.add("finished " + std::to_string([[appcast items] count]));
}
- (void)appcast:(SUAppcast*)appcast failedToLoadWithError:(NSError*)error {
  (void)appcast;
  journal.add("failed " + text([[error userInfo] objectForKey:SUFailureKey]));
}
@end

namespace {

class SparkleFeed : public Sparkle {
protected:
  // Fetches the feed as a program does that made the appcast itself.
  NSArray* items_of(const std::string& xml) {
    serve_feed(xml);
    SUAppcast* appcast = [[[NSClassFromString(@"SUAppcast") alloc] init] autorelease];
    AppcastListener* listener = [[[AppcastListener alloc] init] autorelease];
    [appcast setDelegate:listener];
    [appcast fetchAppcastFromURL:[NSURL URLWithString:nsstring(server.url("/appcast.xml"))]];
    EXPECT_TRUE(run_until([&] { return !listener->journal.lines().empty(); }));
    last = listener->journal.lines().empty() ? "" : listener->journal.lines()[0];
    return [appcast items];
  }
  std::string last; // what the appcast's delegate was told

  SUAppcastItem* item_of(const Item& item) {
    NSArray* items = items_of(testbed::appcast_xml({item}));
    return [items count] == 1 ? [items objectAtIndex:0] : nil;
  }

  // With an enclosure that makes it an item.
  SUAppcastItem* item_of_xml(const std::string& inside) {
    Item item;
    item.url = "http://127.0.0.1:1/D_2.0.zip";
    item.extra = inside;
    return item_of(item);
  }
};

std::string channel(const std::string& inside) {
  return "<?xml version=\"1.0\"?>\n<rss "
         "xmlns:sparkle=\"http://example.org/xml/sparkle\"><channel>" +
         inside + "</channel></rss>";
}

std::string with_title(const std::string& title) {
  return channel("<item><title>" + title +
                 "</title><enclosure url=\"http://127.0.0.1:1/D_2.0.zip\" "
                 "sparkle:version=\"2.0\"/></item>");
}

} // namespace

TEST_F(SparkleFeed, ItemReadsEverything) {
  Item made;
  made.title = " Demo <2.0> & more\n ";
  made.description = "What is \"new\"";
  made.date = "Sat, 26 Jul 2008 15:20:11 +0200";
  made.release_notes = "http://example.org/notes/2.html";
  made.minimum_system = "10.6";
  made.version = "200";
  made.short_version = "2.0";
  made.url = "http://example.org/Dëmo 2%20.zip";
  made.length = "1623481";
  made.signature = "MC0CFQ==";
  made.extra = "<sparkle:tags> <sparkle:a>one</sparkle:a> two </sparkle:tags>"
               "<empty/><title>second</title><enclosure url=\"second\"/>";
  SUAppcastItem* item = item_of(made);
  EXPECT_EQ(text([item title]), "Demo <2.0> & more");
  EXPECT_EQ(text([item itemDescription]), "What is \"new\"");
  EXPECT_EQ([[item date] timeIntervalSince1970], 1217078411);
  EXPECT_EQ(text([[item releaseNotesURL] absoluteString]), "http://example.org/notes/2.html");
  EXPECT_EQ(text([item minimumSystemVersion]), "10.6");
  EXPECT_EQ(text([item versionString]), "200");
  EXPECT_EQ(text([item displayVersionString]), "2.0");
  EXPECT_EQ(text([[item fileURL] absoluteString]), "http://example.org/D%C3%ABmo%202%2520.zip");
  EXPECT_EQ(text([item DSASignature]), "MC0CFQ==");

  NSDictionary* all = [item propertiesDictionary];
  EXPECT_TRUE([[all objectForKey:@"pubDate"] isKindOfClass:[NSDate class]]);
  NSDictionary* enclosure = [all objectForKey:@"enclosure"];
  EXPECT_EQ(text([enclosure objectForKey:@"length"]), "1623481");
  EXPECT_EQ(text([enclosure objectForKey:@"sparkle:version"]), "200");
  EXPECT_EQ(text([all objectForKey:@"sparkle:tags"]), "one two");
  EXPECT_EQ(text([all objectForKey:@"empty"]), "");
}

TEST_F(SparkleFeed, VersionComesFromTheURLWhenTheEnclosureHasNone) {
  Item made;
  for (const auto& [url, version] : {std::pair{"Demo_1.2.3.zip", "1.2.3"},
                                     {"http://a_b.example/My_App_4.5b1.dmg", "4.5b1"},
                                     {"http://a_b.example/Demo.zip", "b.example/Demo"},
                                     {"Demo.zip", "(nil)"},
                                     {"Demo_.zip", "(nil)"},
                                     {"Demo_1", "(nil)"}}) {
    made.url = url;
    EXPECT_EQ(text([item_of(made) versionString]), version) << url;
    EXPECT_EQ(text([item_of(made) displayVersionString]), version) << url;
  }
}

TEST_F(SparkleFeed, ItemsThatOfferNothingAreLeftOutAndLogged) {
  const std::string feed =
      channel("<item><title>no enclosure</title></item>"
              "<item><enclosure sparkle:version=\"1\"/></item>"
              "<item><sparkle:version>3</sparkle:version><enclosure url=\"a.zip\"/></item>"
              "<item><title>good</title><enclosure url=\"a.zip\" sparkle:version=\"1\"/></item>");
  testing::internal::CaptureStderr();
  NSArray* items = items_of(feed);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_EQ([items count], 1u);
  EXPECT_EQ(text([[items objectAtIndex:0] title]), "good");
  for (const char* why : {"it has no enclosure", "has no url", "has no sparkle:version"})
    EXPECT_NE(log.find(why), std::string::npos) << why;
}

TEST_F(SparkleFeed, FeedWithoutUsableItemsHasNoneAndIsNoFailure) {
  for (const std::string& feed :
       {channel(""), channel("<item/>"), std::string("<html><p>An error page</p></html>"),
        std::string("<rss><item><enclosure url=\"a_1.zip\"/></item></rss>"),
        std::string("<channel><item><enclosure url=\"a_1.zip\"/></item></channel>")}) {
    EXPECT_EQ(items_of(feed), nil) << feed;
    EXPECT_EQ(last, "finished 0") << feed;
  }
}

TEST_F(SparkleFeed, ItemsAreSortedByDateTheNewestFirst) {
  const char* dates[] = {"", "Sat, 19 Jul 2008 15:20:11 +0000", "no date",
                         "Sat, 26 Jul 2008 15:20:11 +0000", "Sat, 26 Jul 2008 15:20:10 +0000"};
  std::vector<Item> made;
  for (const char* date : dates) {
    made.emplace_back();
    made.back().date = date;
    made.back().url = "a.zip";
    made.back().version = std::to_string(made.size());
  }
  std::string order;
  for (SUAppcastItem* item in items_of(testbed::appcast_xml(made)))
    order += text([item versionString]);
  EXPECT_TRUE(order == "45213" || order == "45231") << order;
}

TEST_F(SparkleFeed, TheLanguageOfThePersonIsTaken) {
  const std::string item = "<title>any</title><title xml:lang=\"de\">Deutsch</title>"
                           "<title xml:lang=\"fr-CA\">québécois</title>"
                           "<title xml:lang=\"fr\">français</title>"
                           "<title xml:lang=\"en\">English</title>"
                           "<description xml:lang=\"ja\">first</description>"
                           "<description xml:lang=\"ko\">second</description>";
  const struct {
    const char *languages, *title;
  } rows[] = {{"en", "English"},       {"de,en", "Deutsch"}, {"fr-CA", "québécois"},
              {"fr,de", "français"},   {"it", "any"},        {"it,de", "Deutsch"},
              {"fr-CH,en", "English"}, {"", "English"}};
  for (const auto& row : rows) {
    setenv("SPARKLE_LANGUAGES", row.languages, 1);
    SUAppcastItem* read = item_of_xml(item);
    EXPECT_EQ(text([read title]), row.title) << row.languages;
    EXPECT_EQ(text([read itemDescription]), "first");
  }
}

TEST_F(SparkleFeed, OfSeveralEnclosuresTheOneInThePersonsLanguageIsTaken) {
  setenv("SPARKLE_LANGUAGES", "de", 1);
  NSArray* items = items_of(channel("<item><enclosure url=\"a_1.zip\"/><enclosure xml:lang=\"de\" "
                                    "url=\"b_2.zip\"/><enclosure url=\"c_3.zip\"/></item>"));
  ASSERT_EQ([items count], 1u);
  EXPECT_EQ(text([[items objectAtIndex:0] versionString]), "2");
}

TEST_F(SparkleFeed, ReleaseNotesMayBeADescriptionThatIsAnAddress) {
  for (const auto& [description, url] :
       {std::pair{"http://example.org/notes.html", "http://example.org/notes.html"},
        {"https://example.org/notes.html", "(nil)"},
        {"See http://example.org", "(nil)"}}) {
    SUAppcastItem* item =
        item_of_xml("<description>" + std::string(description) + "</description>");
    EXPECT_EQ(text([[item releaseNotesURL] absoluteString]), url);
  }
}

TEST_F(SparkleFeed, RelativeURLsStayRelative) {
  Item made;
  made.url = "files/Demo_2.zip";
  made.release_notes = "notes.html";
  SUAppcastItem* item = item_of(made);
  EXPECT_EQ(text([[item fileURL] absoluteString]), "files/Demo_2.zip");
  EXPECT_EQ(text([[item releaseNotesURL] absoluteString]), "notes.html");
}

TEST_F(SparkleFeed, PlainInitGivesAnItemOfNothing) {
  SUAppcastItem* item = [[[NSClassFromString(@"SUAppcastItem") alloc] init] autorelease];
  for (NSString* key in @[
         @"title", @"versionString", @"displayVersionString", @"date", @"itemDescription",
         @"releaseNotesURL", @"fileURL", @"DSASignature", @"minimumSystemVersion",
         @"propertiesDictionary"
       ])
    EXPECT_EQ([item performSelector:NSSelectorFromString(key)], nil) << text(key);
}

TEST_F(SparkleFeed, DatesInTheUsualForms) {
  const struct {
    const char* text;
    double seconds; // -1: no date
  } rows[] = {
      {"Sat, 26 Jul 2008 15:20:11 +0000", 1217085611},
      {"26 Jul 2008 15:20:11 GMT", 1217085611},
      {"Sat, 26 Jul 08 15:20 Z", 1217085600},
      {"Sat, 26 July 2008 10:20:11 EST", 1217085611},
      {"Sat, 26 Jul 2008 20:50:11 +0530", 1217085611},
      {"26 Jul 2008", 1217030400},
      {"29 Feb 2008", 1204243200},
      {"1 Jan 1960 00:00:00 GMT", -315619200},
      {"29 Feb 2007", -1},
      {"32 Jul 2008", -1},
      {"26 Foo 2008", -1},
      {"26 Jul 2008 25:00:00 GMT", -1},
      {"26 Jul 20080", -1},
      {"26 Jul 2008 15:20:11 +99999999", -1},
      {"26 Jul 2008 15:20:11 NOZONE", -1},
      {"2008-07-26", -1},
      {"yesterday", -1},
      {"99999999999999999999", -1},
      {",,,,", -1},
  };
  std::vector<Item> made;
  for (const auto& row : rows) {
    made.emplace_back();
    made.back().date = row.text;
    made.back().url = "a.zip";
    made.back().version = std::to_string(made.size() - 1);
  }
  NSArray* items = items_of(testbed::appcast_xml(made));
  ASSERT_EQ([items count], std::size(rows));
  for (SUAppcastItem* item in items) {
    const int i = [[item versionString] intValue];
    if (rows[i].seconds == -1) {
      EXPECT_EQ([item date], nil) << rows[i].text;
      EXPECT_EQ([[item propertiesDictionary] objectForKey:@"pubDate"], nil) << rows[i].text;
    } else {
      ASSERT_NE([item date], nil) << rows[i].text;
      EXPECT_EQ([[item date] timeIntervalSince1970], rows[i].seconds) << rows[i].text;
    }
  }
}

TEST_F(SparkleFeed, URLsThatAreNoneAreNil) {
  for (const char* url : {"http://exa mple.org/a b", "http://[::1", "%zz%",
                          ":::", "\\\\host\\share", "   ", "http://%00/"}) {
    Item made;
    made.url = url;
    made.version = "1";
    made.release_notes = url;
    SUAppcastItem* item = item_of(made);
    ASSERT_NE(item, nil) << url;
    // Nil, or at least something that has an absolute form.
    for (NSURL* got in @[
           [item fileURL] ? [item fileURL] : [NSURL URLWithString:@"x:y"],
           [item releaseNotesURL] ? [item releaseNotesURL] : [NSURL URLWithString:@"x:y"]
         ])
      EXPECT_NE([got absoluteString], nil) << url;
  }
}

TEST_F(SparkleFeed, ElementsInsideAMemberAreItsText) {
  SUAppcastItem* item = item_of_xml("<title><b>x</b> y</title><pubDate><b>x</b></pubDate>"
                                    "<sparkle:minimumSystemVersion><b/>"
                                    "</sparkle:minimumSystemVersion>");
  ASSERT_NE(item, nil);
  EXPECT_EQ(text([item title]), "x y");
  EXPECT_EQ([item date], nil);
  EXPECT_EQ(text([item minimumSystemVersion]), "");
}

TEST_F(SparkleFeed, PrefixThatIsNotDeclaredStillCounts) {
  NSArray* items = items_of("<rss><channel><item><enclosure url=\"http://127.0.0.1:1/a.zip\" "
                            "sparkle:version=\"7\"/></item></channel></rss>");
  ASSERT_EQ([items count], 1u);
  EXPECT_EQ(text([[items objectAtIndex:0] versionString]), "7");
}

TEST_F(SparkleFeed, NamesAreComparedWithTheirPrefixAsWritten) {
  NSArray* items = items_of("<rss xmlns:other=\"http://example.org/xml/sparkle\"><channel><item>"
                            "<other:releaseNotesLink>http://a/</other:releaseNotesLink>"
                            "<enclosure url=\"a_1.zip\" other:version=\"7\"/>"
                            "</item></channel></rss>");
  ASSERT_EQ([items count], 1u);
  SUAppcastItem* item = [items objectAtIndex:0];
  EXPECT_EQ(text([item versionString]), "1");
  EXPECT_EQ([item releaseNotesURL], nil);
  EXPECT_EQ(
      text([[[item propertiesDictionary] objectForKey:@"enclosure"] objectForKey:@"other:version"]),
      "7");
}

TEST_F(SparkleFeed, UTF16IsRead) {
  const std::string feed = with_title("Größe");
  NSString* declared = [nsstring(feed) stringByReplacingOccurrencesOfString:@"version=\"1.0\""
                                                                 withString:@"version=\"1.0\" "
                                                                            @"encoding=\"UTF-16\""];
  NSData* bytes = [declared dataUsingEncoding:NSUnicodeStringEncoding];
  NSArray* items = items_of(std::string(static_cast<const char*>([bytes bytes]), [bytes length]));
  ASSERT_EQ([items count], 1u);
  EXPECT_EQ(text([[items objectAtIndex:0] title]), "Größe");
}

TEST_F(SparkleFeed, TenThousandItems) {
  std::vector<Item> made(10000);
  for (std::size_t i = 0; i < made.size(); ++i) {
    made[i].title = "Title " + std::to_string(i);
    made[i].version = std::to_string(i);
    made[i].url = server.url("/a.zip");
  }
  NSArray* items = items_of(testbed::appcast_xml(made));
  ASSERT_EQ([items count], 10000u);
  EXPECT_TRUE(text([[items objectAtIndex:9999] title]).starts_with("Title "));
}

TEST_F(SparkleFeed, TitleOfTenMegabytes) {
  const std::string title(10 << 20, 'x');
  NSArray* items = items_of(with_title(title));
  ASSERT_EQ([items count], 1u);
  EXPECT_EQ([[[items objectAtIndex:0] title] length], title.size());
}

TEST_F(SparkleFeed, HostileXMLIsRefusedOrHarmless) {
  const std::string good = with_title("x");
  testbed::write_file(folder / "secret", "SECRET");
  std::string laughs = "<!DOCTYPE rss [<!ENTITY a0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 10; ++i) {
    laughs += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) laughs += "&a" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  const std::string head = "<?xml version=\"1.0\"?>";
  const auto with_head = [&](const std::string& declarations, const std::string& feed) {
    return head + declarations + feed.substr(feed.find("<rss"));
  };
  std::string deep;
  for (int i = 0; i < 50000; ++i) deep += "<a>";
  const std::string feeds[] = {
      good.substr(0, good.size() - 9),
      with_title(std::string("a\0b", 3)),
      with_title("a\1\2\3b"),
      with_title("a&#1;b"),
      with_title("\xff\xfe\xfd"),
      std::string(1000, '\0'),
      deep,
      channel("<item>" + deep),
      with_head(laughs + "]>", with_title("&a9;")),
      with_head("<!DOCTYPE rss [<!ENTITY e SYSTEM \"file://" + (folder / "secret").string() +
                    "\">]>",
                with_title("a&e;b")),
      with_head("<!DOCTYPE rss SYSTEM \"" + server.url("/external.dtd") + "\">", good),
      with_head("<!DOCTYPE rss [<!ENTITY % p SYSTEM \"" + server.url("/external.dtd") + "\"> %p;]>",
                good),
      with_head("<!DOCTYPE rss [<!ENTITY e SYSTEM \"" + server.url("/external.xml") + "\">]>",
                with_title("&e;")),
  };
  for (const std::string& feed : feeds) {
    for (SUAppcastItem* item in items_of(feed)) {
      EXPECT_EQ(text([item title]).find("SECRET"), std::string::npos);
      EXPECT_LT([[item title] length], 1000000u);
    }
  }
  EXPECT_TRUE(server.requests("/external.dtd").empty());
  EXPECT_TRUE(server.requests("/external.xml").empty());
  EXPECT_EQ([items_of(good) count], 1u);
}

// Appcasts that a program makes itself.

TEST_F(SparkleFeed, AppcastWithoutURLTellsTheFailure) {
  SUAppcast* appcast = [[[NSClassFromString(@"SUAppcast") alloc] init] autorelease];
  AppcastListener* listener = [[[AppcastListener alloc] init] autorelease];
  [appcast setDelegate:listener];
  testing::internal::CaptureStderr();
  [appcast fetchAppcastFromURL:nil];
  EXPECT_TRUE(listener->journal.lines().empty());
  ASSERT_TRUE(run_until([&] { return listener->journal.has("failed "); }));
  EXPECT_EQ([appcast items], nil);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(SparkleFeed, FailureLeavesTheItemsAsTheyWere) {
  serve_feed(with_title("x"));
  SUAppcast* appcast = [[[NSClassFromString(@"SUAppcast") alloc] init] autorelease];
  AppcastListener* listener = [[[AppcastListener alloc] init] autorelease];
  [appcast setDelegate:listener];
  NSURL* url = [NSURL URLWithString:nsstring(server.url("/appcast.xml"))];
  [appcast fetchAppcastFromURL:url];
  ASSERT_TRUE(run_until([&] { return listener->journal.has("finished 1"); }));
  serve_feed("no feed");
  [appcast fetchAppcastFromURL:url];
  ASSERT_TRUE(run_until([&] { return listener->journal.has("failed "); }));
  EXPECT_EQ([[appcast items] count], 1u);
}
