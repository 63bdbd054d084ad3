// What a test of the plug-in stands on: a host of some year, the companion, the plug-in (what
// SPARKLEKVZ_PLUGIN names: elf, macho, or the path of another ELF library or bundle) and, where
// asked for, the update framework. One process serves one test.
//
//   class Updater : public session::Test {};
//   TEST_P(Updater, AnswersNothingBeforeItIsBound) {
//     start();                          // host of the test's profile, companion, plug-in
//     loadFramework();
//     ...
//   }
//   INSTANTIATE_TEST_SUITE_P(Hosts, Updater, session::everyHost(), session::hostName);
//
// When a test ends, no exception may be pending in the host and no host object alive; a test that
// expects otherwise takes them first (host::takeException) or says expectLosses().
#pragma once

#include "testbed/host/host.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace session {

struct Options {
  bool companion = true;
};

// Starts a host and loads the plug-ins into it.
void start(const std::string& profile, Options options = {});

// The entry of the plug-in under test; the same copy at every call, for the life of the process.
void* pluginEntry();

// The folder of the update framework, or of one of its broken variants, as a FolderItem.
std::string frameworkPath(const std::string& variant = "Sparkle");
bool loadFramework(const std::string& variant = "Sparkle");

// The bundle of the program that runs, as the framework sees it.
std::string program();
// An instance of the updater gives back a reference that it never took; for a test that makes one
// after the other this brings one more for the program's own updater.
void spareUpdater();

// The lines that went to the system log since the session began or since the last call.
std::vector<std::string> takeLog();

// A folder of this test's own, removed when the process ends.
const std::string& folder();

class TestBase : public testing::Test {
protected:
  TestBase();
  ~TestBase() override;
  void SetUp() override;
  void TearDown() override;

  bool loadFramework() { return session::loadFramework(); }
  // This test leaves host references behind, for the reason it gives.
  void expectLosses(const host::Ledger& losses, const char* reason);

private:
  void* pool_;
  host::Ledger losses_;
};

// The parameter is the host's profile.
class Test : public TestBase, public testing::WithParamInterface<std::string> {
protected:
  void start(Options options = {}) { session::start(GetParam(), options); }
};

// Names of profiles for INSTANTIATE_TEST_SUITE_P: all of them, or one where the host's year makes
// no difference.
testing::internal::ParamGenerator<std::string> everyHost();
testing::internal::ParamGenerator<std::string> oneHost();
// One of each interface version: 2011.4 (9), 2012.0 (10), 2013.0 (11), 2013.03 (12).
testing::internal::ParamGenerator<std::string> everyInterface();
std::string hostName(const testing::TestParamInfo<std::string>& info);

} // namespace session
