#import "SUUpdater.h"
#import "SUCycle.h"
#import "SUHost.h"
#import "SUStep.h"
#import "SUUpdaterDelegate.h"
#include <stdlib.h>
#include <string.h>

static const NSTimeInterval kDay = 24 * 60 * 60;
static const NSTimeInterval kShortestInterval = 60 * 60;
static const NSTimeInterval kLongestInterval = 100 * 365 * kDay;

static NSMutableDictionary* updaters; // by the path of the bundle; guarded by the class

static NSString* const kFeedURL = @"SUFeedURL";
static NSString* const kAutomaticChecks = @"SUEnableAutomaticChecks";
static NSString* const kSendProfile = @"SUSendProfileInfo";
static NSString* const kAutomaticDownloads = @"SUAutomaticallyUpdate";
static NSString* const kInterval = @"SUScheduledCheckInterval";
static NSString* const kLastCheck = @"SULastCheckTime";
static NSString* const kLaunchedBefore = @"SUHasLaunchedBefore";

@interface SUUpdater ()
- (id)initWithBundle:(NSBundle*)bundle;
- (void)startCycle;
- (void)scheduleAfterAtLeast:(NSTimeInterval)least;
- (NSString*)key;
@end

@implementation SUUpdater

+ (SUUpdater*)sharedUpdater {
  return [self updaterForBundle:nil];
}

+ (SUUpdater*)updaterForBundle:(NSBundle*)bundle {
  bundle = [SUHost bundleOrMain:bundle];
  NSString* path = [[bundle bundlePath] stringByStandardizingPath];
  if (!path) return nil;
  @synchronized([SUUpdater class]) {
    if (!updaters) updaters = [[NSMutableDictionary alloc] init];
    SUUpdater* updater = [updaters objectForKey:path];
    if (!updater) {
      updater = [[SUUpdater alloc] initWithBundle:bundle];
      [updaters setObject:updater forKey:path];
      [updater release];
      // Later, when the program has set its delegate and runs its run loop.
      [self performSelectorOnMainThread:@selector(startCycleSoon:)
                             withObject:path
                          waitUntilDone:NO];
    }
    return updater;
  }
}

// A plain alloc and init: the main bundle's one.
- (id)init {
  [super release];
  return [SUUpdater sharedUpdater];
}

- (id)initWithBundle:(NSBundle*)bundle {
  if (!(self = [super init])) return nil;
  host = [[SUHost alloc] initWithBundle:bundle];
  return self;
}

// Programs release what they were handed and never retained. The updater stays, for them and for
// the threads that work for it.
- (id)retain {
  __sync_add_and_fetch(&balance, 1);
  return self;
}

- (oneway void)release {
  __sync_sub_and_fetch(&balance, 1);
}

- (NSUInteger)retainCount {
  return balance > 0 ? (NSUInteger)balance + 1 : 1;
}

- (int)referenceBalance {
  return balance;
}

- (NSBundle*)hostBundle {
  return [host bundle];
}

- (void)setDelegate:(id)newDelegate {
  @synchronized(self) {
    delegate = newDelegate;
  }
}

- (id)delegate {
  @synchronized(self) {
    return [[delegate retain] autorelease];
  }
}

- (id)delegateFor:(SEL)selector {
  id receiver = [self delegate];
  return [receiver respondsToSelector:selector] ? receiver : nil;
}

- (void)setFeedURL:(NSURL*)url {
  [host setDecision:[url absoluteString] forKey:kFeedURL];
}

- (NSURL*)feedURL {
  id text = [host objectForKey:kFeedURL];
  if ([text isKindOfClass:[NSString class]])
    text =
        [text stringByTrimmingCharactersInSet:[NSCharacterSet
                                                  characterSetWithCharactersInString:@"\"' \n\t"]];
  else
    text = nil;
  if (![text length])
    [NSException
         raise:SUNoFeedURLException
        format:@"%@ has no feed: set one with setFeedURL:, or name it in the Info.plist under "
               @"SUFeedURL",
               [host name]];
  @try {
    return [NSURL URLWithString:text];
  } @catch (NSException* exception) {
    return nil; // a check then says that there is no URL
  }
}

- (BOOL)flag:(NSString*)key {
  id value = [host objectForKey:key];
  return [value respondsToSelector:@selector(boolValue)] && [value boolValue];
}

- (void)setFlag:(BOOL)flag forKey:(NSString*)key {
  [host setDecision:[NSNumber numberWithBool:flag] forKey:key];
}

- (BOOL)automaticallyChecksForUpdates {
  return [self flag:kAutomaticChecks];
}

- (void)setAutomaticallyChecksForUpdates:(BOOL)flag {
  [self setFlag:flag forKey:kAutomaticChecks];
  [self resetUpdateCycle];
}

- (BOOL)sendsSystemProfile {
  return [self flag:kSendProfile];
}
- (void)setSendsSystemProfile:(BOOL)flag {
  [self setFlag:flag forKey:kSendProfile];
}

- (BOOL)automaticallyDownloadsUpdates {
  return [self flag:kAutomaticDownloads];
}
- (void)setAutomaticallyDownloadsUpdates:(BOOL)flag {
  [self setFlag:flag forKey:kAutomaticDownloads];
}

- (NSTimeInterval)updateCheckInterval {
  id value = [host objectForKey:kInterval];
  return [value respondsToSelector:@selector(doubleValue)] ? [value doubleValue] : kDay;
}

- (void)setUpdateCheckInterval:(NSTimeInterval)interval {
  [host setDecision:[NSNumber numberWithDouble:interval] forKey:kInterval];
  [self resetUpdateCycle];
}

- (NSDate*)lastUpdateCheckDate {
  id date = [host decisionForKey:kLastCheck];
  return [date isKindOfClass:[NSDate class]] ? date : nil;
}

- (BOOL)updateInProgress {
  @synchronized(self) {
    return updateInProgress;
  }
}

- (void)cycleEnded {
  @synchronized(self) {
    updateInProgress = NO;
  }
}

- (void)checkForInformationOnly:(BOOL)informationOnly {
  NSURL* url = nil;
  BOOL busy;
  @synchronized(self) {
    busy = updateInProgress;
    if (!busy) url = [self feedURL];
    updateInProgress = YES;
  }
  if (busy) {
    SUPostStep(self, SUStepIgnored, nil, @"a check is in progress");
    return;
  }
  [host setDecision:[NSDate date] forKey:kLastCheck];
  SUCycle* cycle = [[SUCycle alloc] initWithUpdater:self
                                               host:host
                                            feedURL:url
                                    informationOnly:informationOnly];
  [cycle start];
  [cycle release];
}

- (void)checkForUpdates:(id)sender {
  (void)sender;
  [self checkForInformationOnly:NO];
}

- (void)checkForUpdatesInBackground {
  [self checkForInformationOnly:NO];
}

- (void)checkForUpdateInformation {
  [self checkForInformationOnly:YES];
}

// The automatic cycle, all of it on the main thread. The timer and the hops to that thread go by
// the bundle's path, so that they hold no reference to the updater.

+ (SUUpdater*)updaterOf:(NSString*)path {
  @synchronized([SUUpdater class]) {
    return [updaters objectForKey:path];
  }
}

+ (void)startCycleSoon:(NSString*)path {
  [self performSelector:@selector(startCycleOf:) withObject:path afterDelay:0];
}

+ (void)startCycleOf:(NSString*)path {
  [[self updaterOf:path] startCycle];
}

+ (void)scheduleOf:(NSString*)path {
  [[self updaterOf:path] scheduleAfterAtLeast:0];
}

+ (void)timerFired:(NSTimer*)fired {
  SUUpdater* updater = [self updaterOf:[fired userInfo]];
  @try {
    [updater checkForUpdatesInBackground];
  } @catch (NSException* exception) {
    NSLog(@"Sparkle: the automatic check failed: %@", [exception reason]);
  }
  [updater scheduleAfterAtLeast:kShortestInterval];
}

- (BOOL)shouldAskForPermission {
  if ([host objectForKey:kAutomaticChecks]) return NO;
  id receiver = [self delegateFor:@selector(updaterShouldPromptForPermissionToCheckForUpdates:)];
  if (receiver) {
    SUPostStep(self, SUStepDelegate,
               [NSDictionary
                   dictionaryWithObject:@"updaterShouldPromptForPermissionToCheckForUpdates:"
                                 forKey:@"selector"],
               @"updaterShouldPromptForPermissionToCheckForUpdates:");
    return [receiver updaterShouldPromptForPermissionToCheckForUpdates:self];
  }
  // Nobody wants to be asked by a program on the day it is new.
  BOOL launchedBefore = [self flag:kLaunchedBefore];
  [self setFlag:YES forKey:kLaunchedBefore];
  return launchedBefore;
}

- (void)startCycle {
  @try {
    if ([self shouldAskForPermission]) {
      const char* answer = getenv("SPARKLE_PERMISSION");
      BOOL yes = answer && !strcmp(answer, "yes"), no = answer && !strcmp(answer, "no");
      if (yes || no) [self setFlag:yes forKey:kAutomaticChecks];
      SUPostStep(self, SUStepPermission, nil, @"%@",
                 yes  ? @"given to check automatically"
                 : no ? @"refused to check automatically"
                      : @"nobody is here to give it; automatic checks stay off");
    }
  } @catch (NSException* exception) {
    NSLog(@"Sparkle: the question for permission failed: %@", exception);
  } @catch (id thrown) {
    NSLog(@"Sparkle: the question for permission failed: an object of class %@ was thrown",
          [thrown class]);
  }
  [self scheduleAfterAtLeast:0];
}

- (void)resetUpdateCycle {
  if ([NSThread isMainThread])
    [self scheduleAfterAtLeast:0];
  else
    [SUUpdater performSelectorOnMainThread:@selector(scheduleOf:)
                                withObject:[self key]
                             waitUntilDone:NO];
}

- (NSString*)key {
  return [[host path] stringByStandardizingPath];
}

- (void)scheduleAfterAtLeast:(NSTimeInterval)least {
  BOOL wasOn = timer != nil;
  [timer invalidate];
  [timer release];
  timer = nil;
  NSTimeInterval interval = [self updateCheckInterval];
  if (![self automaticallyChecksForUpdates] || !(interval > 0)) {
    if (wasOn) SUPostStep(self, SUStepScheduled, nil, @"automatic checks are off");
    return;
  }
  interval = MIN(MAX(interval, kShortestInterval), kLongestInterval);
  NSDate* last = [self lastUpdateCheckDate];
  NSTimeInterval delay = last ? interval + [last timeIntervalSinceNow] : 0;
  delay = MAX(MIN(delay, interval), least); // a clock that was set back must not postpone for years
  timer = [[NSTimer timerWithTimeInterval:delay
                                   target:[SUUpdater class]
                                 selector:@selector(timerFired:)
                                 userInfo:[self key]
                                  repeats:NO] retain];
  [[NSRunLoop mainRunLoop] addTimer:timer forMode:NSDefaultRunLoopMode];
  SUPostStep(self, SUStepScheduled, nil, @"the next automatic check is in %.0f seconds", delay);
}

- (NSDate*)nextUpdateCheckDate {
  return [timer isValid] ? [timer fireDate] : nil;
}

@end
