// What the tests of docs/guide.md stand on: a program with the framework inside, version 2.0, whose
// feed offers 3.0 and 1.0, and a person who presses the first button of every window.
//
// Such a test is called TEST_P(Guide, Name). tests/docs/snippets_test.py holds their names and
// quotations against the guide.
#pragma once

#include "published.h"

#include "testbed/sparkle/steps.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace guide {

// The text of a document in docs/.
std::string document(const char* name);
// The fenced block of the guide that follows the marker "<!-- MARKER -->".
std::string block(const std::string& marker);
// What commands of a Unix shell print in this folder; none may fail.
std::string shell(const std::filesystem::path& folder, const std::string& script);
std::string replaced(std::string text, const std::string& from, const std::string& to);

// The host language's function: all but letters, digits and -_.~ as %XX.
std::string encodeURLComponent(const std::string& text);
// A constant of SUVersionComparisonKVZ, from the text that was registered.
int constant(const std::string& name);

std::string text(const host::Object& object, const char* member);
// The elements of "items as SUAppcastItemKVZ()" and the like.
std::vector<host::Object> listed(const host::Object& array);
inline std::vector<host::Object> items(const host::Object& appcast) {
  return listed(host::get<host::Object>(appcast, "items as SUAppcastItemKVZ()"));
}

} // namespace guide

// Names that begin with m are the properties that the guide's programs have.
class Guide : public session::Test {
protected:
  published::Release site;
  testbed::Item item = site.item; // 3.0, as it stands in the feed
  std::filesystem::path contents = std::filesystem::path(site.bundle) / "Contents";
  std::vector<std::string> windows; // that a person has seen, by their titles
  std::atomic<bool> toldToQuit = false;
  std::vector<std::string> messages; // of MsgBox
  host::Object mUpdater, mComparison, mHistory, mFeedParameters;
  std::string mFoundVersion, mFoundNotes;
  std::atomic<bool> mSomebodyWaits = false, mHasUnsavedDocuments = false, mRelaunchWaits = false,
                    mToldToSave = false, mQuitting = false, mWantsBetas = false;

  void SetUp() override;
  void TearDown() override;

  // Version 2.0 with these lines in its Info.plist, and the framework inside.
  void install(std::map<std::string, std::string> info);
  // Which framework is loaded: like 1.5b6, if none is named.
  void framework(const char* version) { setenv("SPARKLE_VERSION", version, 1); }
  bool load();
  // Loads it and makes a MyUpdater, whose events are those of on().
  void makeUpdater();
  void on(const char* event, host::Handler handler) { host::handle("MyUpdater", event, handler); }
  // Handlers that do nothing, for the five events that tell something.
  void noteReports();
  // What the host's application says when it is up.
  void finishLaunching();

  bool inProgress() { return host::get<bool>(mUpdater, "updateInProgress as boolean"); }
  // To the end of the check, or to where a real program would be gone.
  void finish();
  void check(const char* member) {
    host::call(mUpdater, member);
    finish();
  }
  // Turns the run loop until a fetch of this feed has ended: as long as a check would take.
  void turnFor(const std::string& url);

  // The feed has this version only.
  void offer(const std::string& version) {
    item.version = version;
    site.feed(testbed::appcast_xml({item}));
  }

  // The names of the events that were raised.
  std::vector<std::string> raised();
  void msgBox(const std::string& message) { messages.push_back(message); }
};
