// The demo goes the road that was recorded: the same events, windows and calls of the updater, in
// the same order on the same threads. What its program reads on the way is its own.

#include "compare.h"
#include "written.h"

#include "session.h"

#include <set>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;

bool ofTheUpdater(const std::string& member) {
  static const std::set<std::string> members = {"feedURL", "checkForUpdatesInBackground",
                                                "InvokeUpdate"};
  return members.count(member);
}

std::string threadOf(const std::string& name) { return name == "main" ? "main " : "worker "; }

// Up to where the program has continued the relaunch; what comes then is its own.
Lines recordedRoad(const std::string& version) {
  Lines road;
  std::string file =
      std::string(RECORDINGS "/") + version + "/check-checkForUpdatesInBackground.txt";
  for (const std::string& line : traces::linesOf(file)) {
    std::istringstream in(line);
    std::string thread, number, kind, name;
    in >> thread;
    if (thread == "worker") in >> number;
    in >> kind >> name;
    if (kind == "EVENT") road.push_back(threadOf(thread) + "event " + name);
    if (kind == "step:") road.push_back(threadOf(thread) + "step");
    if (kind == "call" && ofTheUpdater(name.substr(name.find('.') + 1)))
      road.push_back(threadOf(thread) + "call " + name.substr(name.find('.') + 1));
    if (kind == "ret" && name == "InvokeUpdate") break;
  }
  return road;
}

Lines roadOfTheDemo(const std::string& version, const std::string& file) {
  Lines road;
  for (const std::string& line : traces::linesOf(file)) {
    std::istringstream in(line);
    std::string thread, actor, kind, name, title;
    std::getline(in, thread, '\t');
    std::getline(in, actor, '\t');
    in >> kind;
    std::getline(in, name, '\t');
    if (!name.empty()) name.erase(0, 1);
    if (kind == "event") road.push_back(threadOf(thread) + "event " + name);
    if (kind == "call" && ofTheUpdater(name)) road.push_back(threadOf(thread) + "call " + name);
    if (kind != "step") continue;
    size_t words = name.find_first_of(" ");
    // Some steps have a name of two words, and none of these was recorded.
    if (words != std::string::npos) title = name.substr(words + 1);
    if (written::isRecorded(version, name.substr(0, words), title))
      road.push_back(threadOf(thread) + "step");
  }
  return road;
}

} // namespace

class Demo : public session::TestBase, public testing::WithParamInterface<const char*> {};

TEST_P(Demo, GoesTheRecordedRoad) {
  const std::string version = GetParam(), file = session::folder() + "/road";
  const std::string command = std::string(DEMO) + " --framework=" + version +
                              " --plugin=" + getenv("SPARKLEKVZ_PLUGIN") + " --road='" + file +
                              "' >'" + session::folder() + "/printed'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(roadOfTheDemo(version, file), recordedRoad(version));
}

INSTANTIATE_TEST_SUITE_P(Versions, Demo, testing::Values("1.5b6", "1.6"),
                         [](const auto& info) { return info.index ? "V1_6" : "V1_5b6"; });
