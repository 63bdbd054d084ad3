#import "SUCheck.h"
#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUFetch.h"
#import "SUHost.h"
#import "SUInstaller.h"
#import "SUSignature.h"
#import "SUStandardVersionComparator.h"
#import "SUUnpacker.h"
#import "SUUpdaterDelegate.h"
#import "SUVersion.h"
#import "SUWindow.h"
#include <stdlib.h>
#include <unistd.h>

static NSString* const kSkippedVersion = @"SUSkippedVersion";

static NSString* temporaryFolder(void) {
  const char* folder = getenv("TMPDIR");
  return folder && *folder ? [NSString stringWithUTF8String:folder] : @"/tmp";
}

@implementation SUCheck

- (id)initWithUpdater:(SUUpdater*)anUpdater host:(SUHost*)aHost kind:(SUCheckKind)aKind {
  if (!(self = [super init])) return nil;
  updater = anUpdater;
  host = [aHost retain];
  kind = aKind;
  return self;
}

- (void)dealloc {
  [host release];
  [thread release];
  [window release];
  [appcast release];
  [update release];
  [folder release];
  [comparator release];
  [what release];
  [reason release];
  [super dealloc];
}

- (BOOL)isFinished {
  return finished;
}

// Threads.

- (NSThread*)detach:(SEL)body name:(NSString*)name {
  NSThread* made = [[[NSThread alloc] initWithTarget:self selector:body object:nil] autorelease];
  [made setName:name];
  [made start];
  return made;
}

- (void)hop:(SEL)body {
  [self performSelector:body onThread:thread withObject:nil waitUntilDone:NO];
}

- (void)start {
  [self retain];
  alerts = kind == SUCheckByThePerson;
  if (SUThisVersion()->worksOnThreads)
    [self detach:@selector(workOnThread) name:@"check"];
  else
    [self work];
}

- (void)workOnThread {
  @autoreleasepool {
    [[NSRunLoop currentRunLoop] addPort:[NSPort port] forMode:NSDefaultRunLoopMode];
    [self work];
    while (!leaves && !finished) {
      @autoreleasepool {
        [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode
                                 beforeDate:[NSDate dateWithTimeIntervalSinceNow:0.02]];
      }
    }
  }
}

// What a person sees.

- (void)window:(NSString*)title
       buttons:(NSArray*)buttons
      answered:(SEL)answered
          step:(NSString*)step {
  [self closeWindow];
  window = [[SUWindow alloc] initWithTitle:title buttons:buttons owner:self answered:answered];
  [[[window retain] autorelease] announce:step];
}

- (void)closeWindow {
  [window close];
  [window autorelease];
  window = nil;
}

- (void)show:(NSString*)title {
  [self window:title
       buttons:[NSArray arrayWithObject:SUButtonCancel]
      answered:@selector(cancelled:)
          step:SUStepShows];
}

- (void)ask:(NSString*)title buttons:(NSArray*)buttons answered:(SEL)answered {
  [self window:title buttons:buttons answered:answered step:SUStepAsks];
}

- (void)cancelled:(NSString*)button {
  (void)button;
  [download cancel];
  [appcast setDelegate:nil];
  [self finish];
}

// The delegate, if it has the method; the step says that it is about to be called.
- (id)tell:(SEL)selector {
  id delegate = [updater delegate];
  if (![delegate respondsToSelector:selector]) return nil;
  NSString* name = NSStringFromSelector(selector);
  SUPostStep(self, SUStepDelegate, [NSDictionary dictionaryWithObject:name forKey:@"selector"],
             @"%@", name);
  return delegate;
}

// The end.

- (void)end:(NSString*)step more:(NSDictionary*)more detail:(NSString*)detail {
  if (finished) return;
  finished = YES;
  [self closeWindow];
  if (folder) [[NSFileManager defaultManager] removeItemAtPath:folder error:NULL];
  SUPostStep(self, step, more, @"%@", detail);
  [updater scheduleNextCheck];
  [self autorelease];
}

- (void)finish {
  [self end:SUStepFinished more:nil detail:@"the check is over"];
}

- (void)failWith:(NSString*)name what:(NSString*)sentence because:(NSString*)why {
  failure = name;
  what = [sentence copy];
  reason = [why copy];
  [self hop:@selector(fail)];
}

- (void)fail {
  if (!alerts) return [self failureTold:nil];
  [self ask:SUWindowError
       buttons:[NSArray arrayWithObject:SUButtonCancelUpdate]
      answered:@selector(failureTold:)];
}

- (void)failureTold:(NSString*)button {
  (void)button;
  if (alerts || kind == SUCheckForInformation) {
    NSLog(@"Sparkle Error: %@", what);
    if (reason) NSLog(@"Sparkle Error (continued): %@", reason);
  }
  [self end:SUStepFailed
        more:[NSDictionary dictionaryWithObject:failure forKey:@"failure"]
      detail:reason ? [NSString stringWithFormat:@"%@ (%@)", what, reason] : what];
}

// The feed.

- (void)work {
  thread =
      [(SUThisVersion()->worksOnThreads ? [NSThread currentThread] : [NSThread mainThread]) retain];
  SUPostStep(self, SUStepChecking, nil, @"%@", [host name]);
  if ([host isOnReadOnlyVolume])
    return [self failWith:SUFailureHost
                     what:[NSString stringWithFormat:@"%@ is on a volume that cannot be written, "
                                                     @"and so cannot be updated.",
                                                     [host name]]
                  because:nil];
  NSURL* url = [updater parameterizedFeedURL];
  appcast = [[SUAppcast alloc] init];
  [appcast setDelegate:self];
  [appcast setUserAgentString:[updater userAgentString]];
  if (kind == SUCheckByThePerson) [self show:SUWindowChecking];
  if (!finished) [appcast fetchAppcastFromURL:url];
}

- (void)appcast:(SUAppcast*)failed failedToLoadWithError:(NSError*)error {
  (void)failed;
  NSDictionary* info = [error userInfo];
  [self failWith:[info objectForKey:SUFailureKey]
            what:@"The appcast cannot be had."
         because:[info objectForKey:NSLocalizedFailureReasonErrorKey]];
}

- (void)appcastDidFinishLoading:(SUAppcast*)loaded {
  [self closeWindow];
  [[self tell:@selector(updater:didFinishLoadingAppcast:)] updater:updater
                                           didFinishLoadingAppcast:loaded];
  SUAppcastItem* item = [self bestItem];
  if (item && [self isNewer:item] && [self fits:item] &&
      (kind == SUCheckByThePerson || ![self isSkipped:item]))
    [self found:item];
  else
    [self foundNothing];
}

// The choice.

- (BOOL)fits:(SUAppcastItem*)item {
  NSString* minimum = [item minimumSystemVersion];
  return ![minimum length] || [[SUStandardVersionComparator defaultComparator]
                                  compareVersion:SUSystemVersion()
                                       toVersion:minimum] != NSOrderedAscending;
}

- (SUAppcastItem*)bestItem {
  id delegate = [self tell:@selector(bestValidUpdateInAppcast:forUpdater:)];
  if (delegate) return [delegate bestValidUpdateInAppcast:appcast forUpdater:updater];
  for (SUAppcastItem* item in [appcast items])
    if ([self fits:item]) return item;
  return nil;
}

- (id<SUVersionComparison>)comparator {
  id own =
      [[self tell:@selector(versionComparatorForUpdater:)] versionComparatorForUpdater:updater];
  return own ? own : [SUStandardVersionComparator defaultComparator];
}

- (BOOL)isNewer:(SUAppcastItem*)item {
  id<SUVersionComparison> order = [self comparator];
  SUPostStep(self, SUStepComparing, nil, @"%@ with %@", [host version], [item versionString]);
  return [order compareVersion:[host version] toVersion:[item versionString]] == NSOrderedAscending;
}

- (BOOL)isSkipped:(SUAppcastItem*)item {
  NSString* skipped = [host decisionForKey:kSkippedVersion];
  return skipped && [[self comparator] compareVersion:[item versionString]
                                            toVersion:skipped] != NSOrderedDescending;
}

- (void)foundNothing {
  SUPostStep(self, SUStepNotFound, nil, @"nothing newer than %@", [host version]);
  if (kind != SUCheckInBackground || SUThisVersion()->tellsNotFoundInBackground)
    [[self tell:@selector(updaterDidNotFindUpdate:)] updaterDidNotFindUpdate:updater];
  if (kind != SUCheckByThePerson) return [self finish];
  [self ask:SUWindowUpToDate
       buttons:[NSArray arrayWithObject:SUButtonOK]
      answered:@selector(upToDate:)];
}

- (void)upToDate:(NSString*)button {
  (void)button;
  [self finish];
}

- (void)found:(SUAppcastItem*)item {
  update = [item retain];
  SUPostStep(self, SUStepFound, nil, @"%@", [update versionString]);
  [[self tell:@selector(updater:didFindValidUpdate:)] updater:updater didFindValidUpdate:update];
  if (kind == SUCheckForInformation) return [self finish];
  if (kind == SUCheckAutomatic) return [self download];
  alerts = YES;
  [self ask:SUWindowUpdate
       buttons:[NSArray arrayWithObjects:SUButtonInstall, SUButtonSkip, SUButtonLater, nil]
      answered:@selector(updateAnswered:)];
}

- (void)updateAnswered:(NSString*)button {
  if ([button isEqualToString:SUButtonSkip])
    [host setDecision:[update versionString] forKey:kSkippedVersion];
  if (![button isEqualToString:SUButtonInstall]) return [self finish];
  [host setDecision:nil forKey:kSkippedVersion];
  [self download];
}

// The archive.

- (void)download {
  if (kind != SUCheckAutomatic) [self show:SUWindowDownloading];
  if (finished) return;
  NSString* agent = SUThisVersion()->installsWithATool ? [updater userAgentString] : nil;
  SUPostStep(self, SUStepDownloading, nil, @"%@", [update fileURL]);
  download = [SUFetch fetch:[update fileURL]
                  userAgent:agent
                     target:self
                       done:@selector(downloaded:)];
}

- (NSString*)archive {
  return [folder stringByAppendingPathComponent:[[[update fileURL] path] lastPathComponent]];
}

- (void)downloaded:(SUFetch*)fetch {
  download = nil;
  if ([fetch problem])
    return [self failWith:SUFailureDownload
                     what:@"The update cannot be downloaded."
                  because:[fetch problem]];
  SUPostStep(self, SUStepDownloaded, nil, @"%lu bytes", (unsigned long)[[fetch data] length]);
  folder = [[NSString alloc] initWithFormat:@"%@/%@/.Sparkle/%@ %@", temporaryFolder(), [host name],
                                            [host name], [update versionString]];
  NSFileManager* files = [NSFileManager defaultManager];
  [files removeItemAtPath:folder error:NULL];
  NSError* error = nil;
  if (![files createDirectoryAtPath:folder
          withIntermediateDirectories:YES
                           attributes:nil
                                error:&error] ||
      ![[fetch data] writeToFile:[self archive] options:0 error:&error])
    return [self failWith:SUFailureDownload
                     what:@"The update cannot be kept."
                  because:[error localizedDescription]];
  if (SUThisVersion()->installsWithATool || [self verify])
    [self detach:@selector(unpackOnThread) name:@"unpacker"];
}

- (BOOL)verify {
  NSString* problem = SUSignatureProblem([NSData dataWithContentsOfFile:[self archive]],
                                         [update DSASignature], [host publicKey]);
  if (problem)
    [self
        failWith:SUFailureSignature
            what:[NSString stringWithFormat:@"The update is not signed as it must be: %@.", problem]
         because:nil];
  else
    SUPostStep(self, SUStepSignature, nil, @"valid");
  return !problem;
}

- (void)unpackOnThread {
  @autoreleasepool {
    NSString* problem = nil;
    if (SUThisVersion()->keepsALog) NSLog(@"Sparkle: unpacking %@", [self archive]);
    int entries = SUUnpack([self archive], folder, &problem);
    if (entries == 0) problem = @"it is empty";
    if (problem)
      [self failWith:SUFailureUnpack what:@"The update cannot be unpacked." because:problem];
    else
      [self hop:@selector(unpacked)];
  }
}

- (void)unpacked {
  SUPostStep(self, SUStepUnpacked, nil, @"%@", folder);
  if (kind != SUCheckAutomatic)
    return [self ask:SUWindowReady
             buttons:[NSArray arrayWithObject:SUButtonInstallNow]
            answered:@selector(readyAnswered:)];
  if (SUThisVersion()->installsWithATool) return [self installWhenTheApplicationEnds];
  [self ask:SUWindowAutomatic
       buttons:[NSArray arrayWithObjects:SUButtonInstallNow, SUButtonInstallAtQuit,
                                         SUButtonDoNotInstall, nil]
      answered:@selector(readyAnswered:)];
}

- (void)readyAnswered:(NSString*)button {
  [self closeWindow];
  if ([button isEqualToString:SUButtonDoNotInstall]) return [self finish];
  if ([button isEqualToString:SUButtonInstallAtQuit]) return [self installWhenTheApplicationEnds];
  [self installAndRelaunch];
}

- (void)installWhenTheApplicationEnds {
  SUPostStep(self, SUStepWaiting, nil, @"%@ is installed when the application ends",
             [update versionString]);
  [[NSNotificationCenter defaultCenter] addObserver:self
                                           selector:@selector(applicationWillTerminate:)
                                               name:@"NSApplicationWillTerminateNotification"
                                             object:nil];
}

- (void)applicationWillTerminate:(NSNotification*)notification {
  (void)notification;
  [[NSNotificationCenter defaultCenter] removeObserver:self];
  if (SUThisVersion()->installsWithATool && ![self verify]) return;
  [self tellOfInstallation];
  if ([self install]) [self finish];
}

// The installation.

- (void)tellOfInstallation {
  [[self tell:@selector(updater:willInstallUpdate:)] updater:updater willInstallUpdate:update];
  // The tool is another program, which knows nothing of the delegate.
  comparator =
      [(SUThisVersion()->installsWithATool ? [SUStandardVersionComparator defaultComparator]
                                           : (id)[self comparator]) retain];
}

- (void)installAndRelaunch {
  if (SUThisVersion()->installsWithATool) return [self relaunch];
  [self tellOfInstallation];
  [self detach:@selector(installOnThread) name:@"installer"];
}

- (void)installOnThread {
  @autoreleasepool {
    if ([self install]) [self relaunch];
  }
}

// On whichever thread. NO: the check has failed.
- (BOOL)install {
  NSString *problem = nil, *before = [host version];
  NSString* bundle = SUFindBundle(folder, [[host path] lastPathComponent], &problem);
  if (bundle) {
    NSString* version = [SUBundleInfo(bundle) objectForKey:@"CFBundleVersion"];
    SUPostStep(self, SUStepComparing, nil, @"%@ with %@", before, version);
    if ([comparator compareVersion:before toVersion:version] == NSOrderedDescending)
      problem = [NSString
          stringWithFormat:@"the archive holds %@, which is older than %@", version, before];
  }
  NSString* aside = [NSString
      stringWithFormat:@"%@ (%@).app", [[host path] stringByDeletingPathExtension], before];
  if (!problem) SUReplace([host path], bundle, aside, &problem);
  if (problem) {
    [self failWith:SUFailureInstall what:@"The update cannot be installed." because:problem];
    return NO;
  }
  SUPostStep(self, SUStepTrash, nil, @"%@ is moved to the trash", aside);
  [[NSFileManager defaultManager] removeItemAtPath:aside error:NULL];
  SUPostStep(self, SUStepInstalled, nil, @"%@ instead of %@", [host version], before);
  return YES;
}

// YES: the delegate continues, by an invocation of `continuation`. It is asked once in the life of
// a process.
- (BOOL)postponed {
  static BOOL asked;
  if (asked) return NO;
  id delegate = [self tell:@selector(updater:shouldPostponeRelaunchForUpdate:untilInvoking:)];
  if (!delegate) return NO;
  asked = YES;
  SEL continuation = @selector(relaunch);
  NSInvocation* invocation =
      [NSInvocation invocationWithMethodSignature:[self methodSignatureForSelector:continuation]];
  [invocation setTarget:self];
  [invocation setSelector:continuation];
  if (![delegate updater:updater shouldPostponeRelaunchForUpdate:update untilInvoking:invocation])
    return NO;
  SUPostStep(self, SUStepPostponed, nil, @"%@", [update versionString]);
  return YES;
}

// What comes after a postponement begins here once more, on the thread that invokes it.
- (void)relaunch {
  BOOL tool = SUThisVersion()->installsWithATool;
  if (tool && ![self verify]) return;
  if (tool) NSLog(@"Sparkle: the update is signed as it must be");
  if ([self postponed]) return;
  if (tool) [self tellOfInstallation];
  [[self tell:@selector(updaterWillRelaunchApplication:)] updaterWillRelaunchApplication:updater];
  NSString* path = [host path];
  id delegate = [self tell:@selector(pathToRelaunchForUpdater:)];
  if (delegate) path = [delegate pathToRelaunchForUpdater:updater];
  // A path that is nil ends the list.
  NSString* process = [NSString stringWithFormat:@"%d", getpid()];
  NSArray* arguments =
      tool ? [NSArray arrayWithObjects:[host path], path, process, folder, @"1", @"1", nil]
           : [NSArray arrayWithObjects:path, process, nil];
  NSDictionary* more = nil;
  if (path) {
    if (tool && ![self install]) return;
    int pid = SULaunch(path);
    if (pid > 0)
      more = [NSDictionary dictionaryWithObject:[NSNumber numberWithInt:pid] forKey:@"pid"];
  }
  SUPostStep(self, SUStepRelaunching, more, @"%s called with %lu arguments: %@",
             tool ? "finish_installation" : "relaunch", (unsigned long)[arguments count],
             [arguments componentsJoinedByString:@" "]);
  leaves = YES;
  SUPostStep(self, SUStepTerminating, nil, @"%@", [host name]);
}

@end
