// What the tests of the update framework share: a released application, the framework loaded into
// this process, a delegate that records, the steps that were posted, and a person who presses the
// first button of every window unless the test says otherwise (steps::answer).
#pragma once

#import "SUStep.h"
#import "SUUpdaterDelegate.h"
#include "release.h"
#include "server.h"
#include "steps.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
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
  bool has(const std::string& part) const { return count(part) > 0; }
  size_t count(const std::string& part) const {
    size_t found = 0;
    for (const std::string& line : lines()) found += line.find(part) != std::string::npos;
    return found;
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
  std::atomic<int> onMainThread, onOtherThreads;
  BOOL postpone;
  NSInvocation* invocation;
  id comparator;
  NSArray* parameters;
  NSString* relaunchPath;
  BOOL prompt;
  int chosen; // index of the item that bestValidUpdate answers, -1: nil
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
  explicit Sparkle(const char* version = "1.5b6");
  ~Sparkle() override;

  // Runs the main thread's run loop until `condition` holds; false after `seconds`.
  bool run_until(const std::function<bool()>& condition, double seconds = 60);
  // Until nothing that is due now is left.
  void run_what_is_due();
  // Starts a check of `updater` and waits until it is over or the application is told to quit.
  // Answers the last step's name and, after a failure, ": " and the failure's name.
  std::string check(NSString* method = @"checkForUpdates:");
  // What check() answers, without starting anything.
  std::string wait_for_end();
  void announce(NSString* notification); // as the application does

  testbed::Item publish(const std::string& version); // signed, of the installed application
  void serve_feed(const std::string& xml);
  void serve_item(const testbed::Item& item);

  std::vector<std::string> calls() const { return recorder->journal.lines(); }
  bool told(const std::string& method) const { return recorder->journal.has(method); }
  std::string step(const std::string& name) const; // detail of the last step of that name
  std::string installed() const { return testbed::installed_version(bundle_path); }
  void install_again();       // the application as it is now, with all that its members say
  NSDictionary* kept() const; // the user defaults

  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  testbed::Folder folder;
  testbed::Server server;
  testbed::KeyPair keys = testbed::publisher();
  testbed::Application application;
  std::filesystem::path bundle_path;
  Journal steps; // "step: detail [thread]"
  std::atomic<int> ends{0};
  std::string end;
  std::vector<int> children; // the programs that were relaunched
  SUUpdater* updater = nil;
  Recorder* recorder = nil;
};

class Sparkle16 : public Sparkle {
protected:
  Sparkle16() : Sparkle("1.6") {}
};
