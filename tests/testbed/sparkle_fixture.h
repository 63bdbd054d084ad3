// What the tests of the update framework share: a released application, the framework loaded into
// this process, a delegate that records, and the steps that were posted.
#pragma once

#import "SUStep.h"
#import "SUUpdaterDelegate.h"
#include "release.h"
#include "server.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <objc/runtime.h>
#include <string>
#include <vector>

// Lines that several threads write.
class Journal {
public:
  void add(const std::string& line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(const std::string& part) const {
    for (const std::string& line : lines())
      if (line.find(part) != std::string::npos) return true;
    return false;
  }

private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A delegate that has the methods named in `methods` and writes each call into its journal.
@interface Recorder : NSObject {
@public
  Journal journal;
  std::vector<std::string> methods;
  std::atomic<int> onMainThread;
  BOOL postpone;
  NSInvocation* invocation;
  id comparator;
  NSArray* parameters;
  NSString* relaunchPath;
  BOOL raises; // every method raises, right after it was recorded
  id thrown;   // or throws this, if there is one
  BOOL prompt;
  int chosen; // index of the item that bestValidUpdate answers, -1: nil
  std::function<void(const std::string&)> onCall;
}
@end

inline std::string text(NSString* string) { return string ? [string UTF8String] : "(nil)"; }
inline NSString* nsstring(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}

inline const std::vector<std::string> kAllMethods = {
    "feedParametersForUpdater:sendingSystemProfile:",
    "updater:didFinishLoadingAppcast:",
    "bestValidUpdateInAppcast:forUpdater:",
    "versionComparatorForUpdater:",
    "updater:didFindValidUpdate:",
    "updaterDidNotFindUpdate:",
    "updater:willInstallUpdate:",
    "updater:shouldPostponeRelaunchForUpdate:untilInvoking:",
    "updaterWillRelaunchApplication:",
    "pathToRelaunchForUpdater:",
    "updaterShouldPromptForPermissionToCheckForUpdates:",
};

class Sparkle : public testing::Test {
protected:
  Sparkle();
  ~Sparkle() override;

  // Runs the main thread's run loop until `condition` holds; false after `seconds`.
  bool run_until(const std::function<bool()>& condition, double seconds = 20);
  // Starts a check of `updater` and waits for its end. Answers the last step's name and, after a
  // failure, ": " and the failure's name.
  std::string check(NSString* method = @"checkForUpdates:");
  // What check() answers, without starting anything.
  std::string wait_for_end();

  void publish(const std::string& version); // a signed release of the installed application
  void serve_feed(const std::string& xml);
  void serve_item(const testbed::Item& item);

  std::vector<std::string> calls() const { return recorder->journal.lines(); }
  std::string step(const std::string& name) const; // detail of the last step of that name
  std::string installed() const { return testbed::installed_version(bundle_path); }

  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  testbed::Folder folder;
  testbed::Server server;
  testbed::KeyPair keys = testbed::make_key_pair();
  testbed::Application application;
  std::filesystem::path bundle_path;
  Journal steps; // "step: detail"
  std::atomic<int> ends{0};
  std::string end;
  std::vector<int> children; // the programs that were relaunched
  SUUpdater* updater = nil;
  Recorder* recorder = nil;
};
