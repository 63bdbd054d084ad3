// Releases that are published as docs/guide.md says, with its commands and its feed, and as it says
// that they must not be.

#include "guide.h"

#include <algorithm>
#include <regex>

using namespace guide;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

int bitsOfQ(const std::filesystem::path& key) {
  std::string text =
      shell(key.parent_path(), "openssl dsa -in " + key.filename().string() + " -noout -text");
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(R"(Q:\s*((?:[0-9a-f]{2}[:\s]+)+))"))) return 0;
  std::string digits = std::regex_replace(match.str(1), std::regex("[^0-9a-f]"), "");
  if (digits.starts_with("00")) digits.erase(0, 2);
  return int(digits.size()) * 4;
}

} // namespace

class GuidePublishing : public Guide {
protected:
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

INSTANTIATE_TEST_SUITE_P(Hosts, GuidePublishing, session::oneHost(), session::hostName);

TEST_P(GuidePublishing, PublishedByHand) {
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

TEST_P(GuidePublishing, WrongSignature) {
  makeUpdater();
  noteReports();
  for (const std::string& wrong :
       {testbed::sign(testbed::make_key_pair(), "something else"), std::string()}) {
    host::clearEvents();
    session::takeLog();
    item.signature = wrong;
    offer("3.0");
    check("checkForUpdates");
    EXPECT_EQ(site.installed(), "2.0");
    EXPECT_THAT(raised(), ElementsAre("didFinishLoadingAppcast", "didFindValidUpdate"));
    EXPECT_THAT(session::takeLog(), Contains(HasSubstr("signed")));
    EXPECT_THAT(windows, Contains("Update Error!"));
  }
}

TEST_P(GuidePublishing, SignedTheFileItself) {
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
  EXPECT_THAT(session::takeLog(), Contains(HasSubstr("signed")));
  EXPECT_THAT(windows, Contains("Update Error!"));
}
