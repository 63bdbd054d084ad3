#include "session.h"

#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"
#include "testbed/server/release.h"

#import <Foundation/Foundation.h>

#include "runner.h"

#include <cstdlib>
#include <dlfcn.h>
#include <mutex>
#include <stdexcept>

namespace session {
namespace {

std::mutex logMutex;
std::vector<std::string> logLines;

void collectLog(NSString* line) {
  std::lock_guard lock(logMutex);
  logLines.emplace_back([line UTF8String] ?: "");
}

std::string pluginPath() {
  const char* kind = std::getenv("SPARKLEKVZ_PLUGIN");
  // No default: a test of the bundle that silently ran the other build would prove nothing.
  if (!kind)
    throw std::runtime_error("Set SPARKLEKVZ_PLUGIN to elf, to macho or to the path of a plug-in.");
  // Another build of the same, such as the one that counts what the tests reach.
  const char* otherElf = std::getenv("SPARKLEKVZ_ELF");
  if (std::string_view(kind) == "elf") return otherElf ? otherElf : ELF_PLUGIN_PATH;
  if (std::string_view(kind) == "macho") return MACHO_PLUGIN_PATH;
  return kind;
}

void* open(const std::string& library) {
  void* opened = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!opened) throw std::runtime_error(dlerror());
  return opened;
}

} // namespace

void* pluginEntry() {
  static void* entry = [] {
    std::string path = pluginPath();
    if (path.ends_with(".so")) return dlsym(open(path), "REALPluginMain");
    // Mapped for the life of the process, as the host does it.
    static auto bundle = loader::loadFile(path);
    return reinterpret_cast<void*>(bundle->entry<void()>());
  }();
  if (!entry) throw std::runtime_error(pluginPath() + " exports no REALPluginMain");
  return entry;
}

const std::string& folder() {
  static testbed::Folder folder;
  static std::string path = folder.path();
  return path;
}

void start(const std::string& profile, Options options) {
  runner::tell("on the host " + profile);
  host::start(profile);
  if (options.companion) {
    companion_open(COMPANION_PATH);
    host::loadPlugin(COMPANION_PATH);
  }
  host::startPlugin(pluginEntry(), "SparkleKVZ");
}

std::string frameworkPath(const std::string& variant) {
  return std::string(SPARKLE_FRAMEWORKS "/") + variant + ".framework";
}

bool loadFramework(const std::string& variant) {
  return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                          host::folderItem(frameworkPath(variant)))
      .as<bool>();
}

std::string program() { return TEST_PROGRAM; }

void spareUpdater() {
  [[objc_getClass("SUUpdater") performSelector:@selector(sharedUpdater)] retain];
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
  setenv("SPARKLE_HOST_BUNDLE", program().c_str(), 0);
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

// Neither library runs code of its own before its entry is called. GNUstep reads its own defaults
// once, under a lock in the home folder, for which a test would wait and say so in the log.
void runner::prepare() {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  [NSUserDefaults standardUserDefaults];
  [pool drain];
  session::pluginEntry();
  session::open(COMPANION_PATH);
  host::lookAtMemory();
}
