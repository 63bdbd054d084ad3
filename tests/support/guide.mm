#include "guide.h"

#import <Foundation/Foundation.h>

#include <cstdlib>

namespace guide {

std::string text(const host::Object& object, const char* member) {
  return host::get<std::string>(object, member);
}

std::vector<host::Object> listed(const host::Object& array) {
  std::vector<host::Object> result;
  for (const host::Value& value : host::elements(array)) result.push_back(value.as<host::Object>());
  return result;
}

int constant(const std::string& name) {
  for (const std::string& declared :
       host::registered("SUVersionComparisonKVZ")->declarations(host::Registered::constants))
    if (declared.starts_with(name + " = ")) return std::stoi(declared.substr(name.size() + 3));
  throw host::Error("no constant " + name);
}

std::string encodeURLComponent(const std::string& text) {
  std::string result;
  for (unsigned char c : text) {
    char escaped[4];
    snprintf(escaped, sizeof escaped, "%%%02X", c);
    bool plain = isalnum(c) || std::string("-_.~").find(char(c)) != std::string::npos;
    result += plain ? std::string(1, char(c)) : escaped;
  }
  return result;
}

std::string document(const char* name) {
  std::filesystem::path file = std::filesystem::path(DOCS_FOLDER) / name;
  std::string text = testbed::read_file(file);
  EXPECT_NE(text, "") << file << " cannot be read";
  return text;
}

std::string block(const std::string& marker) {
  std::string guide = document("guide.md");
  size_t begin = guide.find("<!-- " + marker + " -->\n```");
  if (begin == std::string::npos) throw host::Error("the guide has no block " + marker);
  begin = guide.find('\n', guide.find("```", begin)) + 1;
  return guide.substr(begin, guide.find("```", begin) - begin);
}

std::string shell(const std::filesystem::path& folder, const std::string& script) {
  testbed::write_file(folder / "script.sh", "set -e\ncd '" + folder.string() + "'\n" + script);
  std::string output = (folder / "output").string();
  std::string command = "sh '" + (folder / "script.sh").string() + "' >'" + output + "' 2>'" +
                        output + ".errors' </dev/null";
  EXPECT_EQ(std::system(command.c_str()), 0) << testbed::read_file(output + ".errors");
  return testbed::read_file(output);
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

} // namespace guide

void Guide::SetUp() {
  Test::SetUp();
  steps::watch([this](const steps::Step& step) {
    if (step.is("shows") || step.is("asks")) windows.push_back(step.title);
    if (step.is("terminating")) toldToQuit = true;
  });
  install({{"SUFeedURL", site.feedURL()}});
  start();
  host::subclass("MyUpdater", "SUUpdaterKVZ");
  host::subclass("MyComparison", "SUVersionComparisonKVZ");
}

void Guide::TearDown() {
  mUpdater = mComparison = mHistory = mFeedParameters = nullptr;
  Test::TearDown();
}

void Guide::install(std::map<std::string, std::string> info) {
  site.application.info = std::move(info);
  testbed::write_application(site.application, site.folder.path());
  std::filesystem::create_directories(contents / "Frameworks");
  std::filesystem::remove(contents / "Frameworks/Sparkle.framework");
  std::filesystem::create_directory_symlink(session::frameworkPath(),
                                            contents / "Frameworks/Sparkle.framework");
}

bool Guide::load() {
  return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                          host::folderItem(contents / "Frameworks/Sparkle.framework"))
      .as<bool>();
}

void Guide::makeUpdater() {
  ASSERT_TRUE(load());
  mUpdater = host::construct("MyUpdater", "Constructor");
}

void Guide::noteReports() {
  on("didFinishLoadingAppcast", [](host::Event&) {});
  on("didFindValidUpdate", [](host::Event&) {});
  on("updaterDidNotFindUpdate", [](host::Event&) {});
  on("willInstallUpdate", [](host::Event&) {});
  on("updaterWillRelaunchApplication", [](host::Event&) {});
}

void Guide::finishLaunching() {
  [[NSNotificationCenter defaultCenter]
      postNotificationName:@"NSApplicationDidFinishLaunchingNotification"
                    object:nil];
}

void Guide::finish() {
  ASSERT_TRUE(host::runUntil([&] { return toldToQuit || !inProgress(); }, 60));
  site.started(); // a program that was started is done
}

void Guide::turnFor(const std::string& url) {
  host::Object feed = host::construct("SUAppcastKVZ", "Constructor");
  host::call(feed, "fetchAppcastFromURL(url as string)", url);
  ASSERT_TRUE(host::runUntil([&] { return !guide::items(feed).empty(); }, 60));
}

std::vector<std::string> Guide::raised() {
  std::vector<std::string> names;
  for (const host::EventRecord& event : host::events())
    names.push_back(event.declaration.substr(0, event.declaration.find_first_of(" (")));
  return names;
}
