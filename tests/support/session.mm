#include "session.h"

#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"
#include "testbed/server/release.h"

#import <Foundation/Foundation.h>

#include <cstdlib>
#include <mutex>

namespace session {
namespace {

std::mutex logMutex;
std::vector<std::string> logLines;

void collectLog(NSString* line) {
  std::lock_guard lock(logMutex);
  logLines.emplace_back([line UTF8String] ?: "");
}

void loadThePlugin() {
  const char* kind = std::getenv("SPARKLEKVZ_PLUGIN");
  if (!kind) {
    // No default: a test of the bundle that silently ran the other build would prove nothing.
    fprintf(stderr, "Set SPARKLEKVZ_PLUGIN to elf, or to the path of a plug-in.\n");
    abort();
  }
  if (std::string_view(kind) == "elf") {
    host::loadPlugin(ELF_PLUGIN_PATH);
  } else if (std::string_view(kind).ends_with(".so")) {
    host::loadPlugin(kind);
  } else {
    // Mapped for the life of the process, as the host does it.
    static auto bundle = loader::loadFile(kind);
    host::startPlugin(reinterpret_cast<void*>(bundle->entry<void()>()), "SparkleKVZ");
  }
}

} // namespace

const std::string& folder() {
  static testbed::Folder folder;
  static std::string path = folder.path();
  return path;
}

void start(const std::string& profile, Options options) {
  host::start(profile);
  if (options.companion) {
    companion_open(COMPANION_PATH);
    host::loadPlugin(COMPANION_PATH);
  }
  loadThePlugin();
}

std::string frameworkPath(const std::string& variant) {
  return std::string(SPARKLE_FRAMEWORKS "/") + variant + ".framework";
}

bool loadFramework(const std::string& variant) {
  return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                          host::folderItem(frameworkPath(variant)))
      .as<bool>();
}

std::vector<std::string> takeLog() {
  std::lock_guard lock(logMutex);
  return std::exchange(logLines, {});
}

TestBase::TestBase() : pool_([NSAutoreleasePool new]) {}

TestBase::~TestBase() { [static_cast<NSAutoreleasePool*>(pool_) drain]; }

void TestBase::SetUp() {
  // Nothing of a test goes to the user's own defaults.
  setenv("HOME", folder().c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", folder().c_str(), 1);
  _NSLog_printf_handler = collectLog;
}

void TestBase::TearDown() {
  EXPECT_EQ(host::takeExceptions().size(), 0u) << "an exception is still pending in the host";
  EXPECT_EQ(host::ledger(), losses_) << host::leakReport();
}

void TestBase::expectLosses(const host::Ledger& losses, const char*) { losses_ = losses; }

namespace {
testing::internal::ParamGenerator<std::string> names(const std::vector<std::string>& names) {
  return testing::ValuesIn(names);
}
} // namespace

testing::internal::ParamGenerator<std::string> everyHost() {
  std::vector<std::string> all;
  for (const host::Profile& profile : host::profiles()) all.emplace_back(profile.name);
  return names(all);
}

testing::internal::ParamGenerator<std::string> oneHost() { return names({"2013.03"}); }

testing::internal::ParamGenerator<std::string> everyInterface() {
  return names({"2011.4", "2012.0", "2013.0", "2013.03"});
}

std::string hostName(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
}

} // namespace session
