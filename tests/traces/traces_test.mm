// The recordings of the real framework, against what happens here.

#include "compare.h"
#include "differences.h"
#include "scenarios.h"

#include "session.h"

#include <filesystem>

namespace {

using Lines = std::vector<std::string>;

const std::string folder = RECORDINGS;

Lines scenarioNames() {
  Lines names;
  for (const auto& file : std::filesystem::directory_iterator(folder + "/1.5b6"))
    names.push_back(file.path().stem());
  std::sort(names.begin(), names.end());
  return names;
}

// The recording, with the reviewed differences in place of what they name.
Lines expectedLines(const std::string& version, const std::string& scenario) {
  Lines result;
  for (const std::string& line :
       traces::linesOf(folder + "/" + version + "/" + scenario + ".txt")) {
    const traces::Difference* difference = nullptr;
    for (const traces::Difference& row : traces::differences)
      if (scenario.starts_with(row.scenario) && (!*row.version || version == row.version) &&
          line.find(row.line) != std::string::npos)
        difference = &row;
    if (!difference) {
      result.push_back(line);
      continue;
    }
    result.insert(result.end(), difference->instead.begin(), difference->instead.end());
    if (difference->rest) break;
  }
  return result;
}

} // namespace

using Case = std::tuple<std::string, std::string, std::string>; // version, scenario, host

class Trace : public session::TestBase, public testing::WithParamInterface<Case> {};

TEST_P(Trace, IsAsRecorded) {
  const auto& [version, scenario, host] = GetParam();
  setenv("SPARKLE_VERSION", version.c_str(), 1);
  setenv("SPARKLE_PAUSE", "0", 1);
  Lines expected = expectedLines(version, scenario);
  ASSERT_FALSE(expected.empty());
  const std::string file = session::folder() + "/trace";
  auto play = [&, &scenario = scenario, &version = version, &host = host] {
    session::start(host);
    traces::play(scenario, version, file);
  };
  bool ends = expected.back() == traces::theEnd;
  if (ends)
    EXPECT_DEATH(play(), "the updater of .*Demo.app is used after its release");
  else
    play();
  Lines found = traces::linesOf(file);
  found.push_back(ends ? traces::theEnd : "exit 0");
  const std::string difference = traces::difference(expected, found);
  EXPECT_TRUE(difference.empty()) << "- recorded, + here\n" << difference;
}

static std::string caseName(const testing::TestParamInfo<Case>& info) {
  const auto& [version, scenario, host] = info.param;
  std::string name = version + "_" + scenario + "_" + host;
  for (char& letter : name)
    if (!std::isalnum(static_cast<unsigned char>(letter))) letter = '_';
  return name;
}

INSTANTIATE_TEST_SUITE_P(Recorded, Trace,
                         testing::Combine(testing::Values("1.5b6", "1.6"),
                                          testing::ValuesIn(scenarioNames()),
                                          testing::Values("2011.4", "2012.0", "2013.0", "2014.1")),
                         caseName);
