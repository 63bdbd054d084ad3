#import "sparkle_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <objc/runtime.h>
#include <sys/wait.h>

@implementation Recorder

- (BOOL)respondsToSelector:(SEL)selector {
  const std::string name = sel_getName(selector);
  const auto is = [&](const std::string& other) { return other == name; };
  if (std::any_of(kAllMethods.begin(), kAllMethods.end(), is))
    return std::any_of(methods.begin(), methods.end(), is);
  return [super respondsToSelector:selector];
}

- (void)called:(SEL)selector with:(const std::string&)what {
  ++([NSThread isMainThread] ? onMainThread : onOtherThreads);
  const std::string name = sel_getName(selector);
  journal.add(what.empty() ? name : name + " " + what);
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

Sparkle::Sparkle(const char* version) {
  application.public_pem = keys.public_pem;
  application.marker = folder / "marker";
  bundle_path = testbed::write_application(application, folder.path());
  testbed::write_file(folder / "defaults/keep", "");
  std::filesystem::create_directory(folder / "tmp");
  setenv("TMPDIR", (folder / "tmp").c_str(), 1);
  setenv("SPARKLE_HOST_BUNDLE", bundle_path.c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", (folder / "defaults").c_str(), 1);
  setenv("SPARKLE_PATIENCE", "1", 1);
  setenv("SPARKLE_PAUSE", "0", 1);
  setenv("SPARKLE_VERSION", version, 1);

  steps::watch([this](const steps::Step& step) {
    if (step.process) children.push_back(step.process);
    steps.add(step.name + ": " + step.detail + " [" + step.thread + "]");
    if (step.is("finished") || step.is("failed") || step.is("terminating")) {
      end = step.failure.empty() ? step.name : step.name + ": " + step.failure;
      ++ends;
    }
  });

  NSBundle* framework = [NSBundle bundleWithPath:nsstring(SPARKLE_FRAMEWORKS "/Sparkle.framework")];
  EXPECT_TRUE([framework load]);
  updater = [[framework classNamed:@"SUUpdater"] sharedUpdater];
  recorder = [[Recorder alloc] init];
  recorder->methods = kAllMethods;
  recorder->relaunchPath = nsstring(bundle_path);
  [recorder->relaunchPath retain];
  [updater setDelegate:recorder];
  [updater setFeedURL:[NSURL URLWithString:nsstring(server.url("/appcast.xml"))]];
}

Sparkle::~Sparkle() {
  [updater setDelegate:nil];
  [recorder->invocation release];
  [recorder->relaunchPath release];
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

void Sparkle::run_what_is_due() {
  int turns = 10;
  run_until([&] { return --turns == 0; });
}

void Sparkle::announce(NSString* notification) {
  [[NSNotificationCenter defaultCenter] postNotificationName:notification object:nil];
}

std::string Sparkle::wait_for_end() {
  const bool ended = run_until([this] { return ends > 0; });
  ends = 0;
  return ended ? end : "no end";
}

std::string Sparkle::check(NSString* method) {
  ends = 0;
  [updater performSelector:NSSelectorFromString(method) withObject:nil];
  return wait_for_end();
}

testbed::Item Sparkle::publish(const std::string& version) {
  testbed::Application release = application;
  release.version = version;
  return testbed::publish(server, release, keys);
}

void Sparkle::serve_feed(const std::string& xml) { server.serve("/appcast.xml", {xml}); }

void Sparkle::serve_item(const testbed::Item& item) { serve_feed(testbed::appcast_xml({item})); }

void Sparkle::install_again() { testbed::write_application(application, folder.path()); }

NSDictionary* Sparkle::kept() const {
  return [NSDictionary
      dictionaryWithContentsOfFile:nsstring(folder / "defaults/org.example.demo.plist")];
}

std::string Sparkle::step(const std::string& name) const {
  std::string result;
  for (const std::string& line : steps.lines())
    if (line.rfind(name + ": ", 0) == 0) result = line.substr(name.size() + 2);
  return result;
}
