#import "sparkle_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <sys/wait.h>

// Receives the steps for a journal.
@interface StepObserver : NSObject {
@public
  std::function<void(NSDictionary*)> block;
}
@end

@implementation StepObserver
- (void)step:(NSNotification*)notification {
  block([notification userInfo]);
}
@end

namespace {
StepObserver* observer;
}

@implementation Recorder

- (BOOL)respondsToSelector:(SEL)selector {
  const std::string name = sel_getName(selector);
  const auto is = [&](const std::string& other) { return other == name; };
  if (std::any_of(kAllMethods.begin(), kAllMethods.end(), is))
    return std::any_of(methods.begin(), methods.end(), is);
  return [super respondsToSelector:selector];
}

- (void)called:(SEL)selector with:(const std::string&)what {
  if ([NSThread isMainThread]) ++onMainThread;
  const std::string name = sel_getName(selector);
  journal.add(what.empty() ? name : name + " " + what);
  if (onCall) onCall(name);
  if (thrown) @throw thrown;
  if (raises) [NSException raise:@"FromDelegate" format:@"%s", name.c_str()];
}

- (NSArray*)feedParametersForUpdater:(SUUpdater*)updater sendingSystemProfile:(BOOL)profile {
  (void)updater;
  [self called:_cmd with:profile ? "YES" : "NO"];
  return parameters;
}

- (void)updater:(SUUpdater*)updater didFinishLoadingAppcast:(SUAppcast*)appcast {
  (void)updater;
  [self called:_cmd with:std::to_string([[appcast items] count])];
}

- (SUAppcastItem*)bestValidUpdateInAppcast:(SUAppcast*)appcast forUpdater:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
  return chosen < 0 ? nil : [[appcast items] objectAtIndex:(NSUInteger)chosen];
}

- (id<SUVersionComparison>)versionComparatorForUpdater:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
  return comparator;
}

- (void)updater:(SUUpdater*)updater didFindValidUpdate:(SUAppcastItem*)update {
  (void)updater;
  [self called:_cmd with:text([update versionString])];
}

- (void)updaterDidNotFindUpdate:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
}

- (void)updater:(SUUpdater*)updater willInstallUpdate:(SUAppcastItem*)update {
  (void)updater;
  [self called:_cmd with:text([update versionString])];
}

- (BOOL)updater:(SUUpdater*)updater
    shouldPostponeRelaunchForUpdate:(SUAppcastItem*)update
                      untilInvoking:(NSInvocation*)anInvocation {
  (void)updater;
  [invocation release];
  invocation = [anInvocation retain];
  [self called:_cmd with:text([update versionString])];
  return postpone;
}

- (void)updaterWillRelaunchApplication:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
}

- (NSString*)pathToRelaunchForUpdater:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
  return relaunchPath;
}

- (BOOL)updaterShouldPromptForPermissionToCheckForUpdates:(SUUpdater*)updater {
  (void)updater;
  [self called:_cmd with:""];
  return prompt;
}

@end

Sparkle::Sparkle() {
  application.public_pem = keys.public_pem;
  application.marker = folder / "marker";
  bundle_path = testbed::write_application(application, folder.path());
  testbed::write_file(folder / "defaults/keep", "");
  setenv("SPARKLE_HOST_BUNDLE", bundle_path.c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", (folder / "defaults").c_str(), 1);
  setenv("SPARKLE_PATIENCE", "1", 1);

  observer = [[StepObserver alloc] init];
  observer->block = [this](NSDictionary* info) {
    const std::string name = text([info objectForKey:@"step"]);
    const std::string detail = text([info objectForKey:@"detail"]);
    if (NSNumber* pid = [info objectForKey:@"pid"]) children.push_back([pid intValue]);
    steps.add(name + ": " + detail + " [" + text([info objectForKey:@"thread"]) + "]");
    if (name == "finished" || name == "failed") {
      NSString* failure = [info objectForKey:@"failure"];
      end = failure ? name + ": " + text(failure) : name;
      ++ends;
    }
  };
  [[NSNotificationCenter defaultCenter] addObserver:observer
                                           selector:@selector(step:)
                                               name:SUUpdaterStepNotification
                                             object:nil];

  NSBundle* framework = [NSBundle bundleWithPath:nsstring(SPARKLE_FRAMEWORKS "/Sparkle.framework")];
  EXPECT_TRUE([framework load]);
  updater = [[framework classNamed:@"SUUpdater"] sharedUpdater];
  recorder = [[Recorder alloc] init];
  recorder->methods = kAllMethods;
  [updater setDelegate:recorder];
  [updater setFeedURL:[NSURL URLWithString:nsstring(server.url("/appcast.xml"))]];
}

Sparkle::~Sparkle() {
  [updater setDelegate:nil];
  [[NSNotificationCenter defaultCenter] removeObserver:observer];
  [observer release];
  [recorder->invocation release];
  [recorder release];
  [pool drain];
  // They write into the folder that is about to go.
  for (const int child : children) waitpid(child, nullptr, 0);
  if (HasFailure())
    for (const std::string& line : steps.lines()) printf("  %s\n", line.c_str());
}

bool Sparkle::run_until(const std::function<bool()>& condition, double seconds) {
  NSDate* last = [NSDate dateWithTimeIntervalSinceNow:seconds];
  while (!condition()) {
    if ([last timeIntervalSinceNow] < 0) return false;
    @autoreleasepool {
      [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode
                               beforeDate:[NSDate dateWithTimeIntervalSinceNow:0.02]];
      [NSThread sleepForTimeInterval:0.002];
    }
  }
  return true;
}

std::string Sparkle::wait_for_end() {
  const bool ended = run_until([this] { return ends > 0; });
  ends = 0;
  EXPECT_FALSE(ended && [updater updateInProgress]);
  return ended ? end : "no end";
}

std::string Sparkle::check(NSString* method) {
  [updater performSelector:NSSelectorFromString(method) withObject:nil];
  return wait_for_end();
}

void Sparkle::publish(const std::string& version) {
  testbed::Application release = application;
  release.version = version;
  testbed::publish(server, release, keys);
}

void Sparkle::serve_feed(const std::string& xml) { server.serve("/appcast.xml", {xml}); }

void Sparkle::serve_item(const testbed::Item& item) { serve_feed(testbed::appcast_xml({item})); }

std::string Sparkle::step(const std::string& name) const {
  std::string result;
  for (const std::string& line : steps.lines())
    if (line.rfind(name + ": ", 0) == 0) result = line.substr(name.size() + 2);
  return result;
}
