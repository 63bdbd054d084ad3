#import "SUUpdater.h"
#import "SUCheck.h"
#import "SUHost.h"
#import "SUUpdaterDelegate.h"
#import "SUVersion.h"
#import "SUWindow.h"
#include <objc/runtime.h>
#include <stdio.h>
#include <stdlib.h>

static const NSTimeInterval kDay = 24 * 60 * 60;
static const NSTimeInterval kWeek = 7 * 24 * 60 * 60;
static const NSTimeInterval kShortestInterval = 60 * 60;

static NSMutableDictionary* updaters; // by the path of the bundle

static NSString* const kFeedURL = @"SUFeedURL";
static NSString* const kAutomaticChecks = @"SUEnableAutomaticChecks";
static NSString* const kSendProfile = @"SUSendProfileInfo";
static NSString* const kLastProfile = @"SULastProfileSubmissionDate";
static NSString* const kAutomaticDownloads = @"SUAutomaticallyUpdate";
static NSString* const kAllowsAutomaticDownloads = @"SUAllowsAutomaticUpdates";
static NSString* const kInterval = @"SUScheduledCheckInterval";
static NSString* const kLastCheck = @"SULastCheckTime";
static NSString* const kLaunchedBefore = @"SUHasLaunchedBefore";

// Between a change of settings and what follows from it.
static NSTimeInterval pause(void) {
  const char* text = getenv("SPARKLE_PAUSE");
  return text ? atof(text) : 1;
}

// What an updater becomes when its last reference is gone. Its memory stays, so that whoever still
// uses it is told, where the real thing reads what has been freed.
@interface SUReleasedUpdater : NSObject {
  SUHost* host;
}
@end

@implementation SUReleasedUpdater

- (void)used:(SEL)selector {
  fprintf(stderr,
          "Sparkle: the updater of %s is used after its release (by %s). Make one updater for a "
          "bundle and keep it as long as the process lives.\n",
          [[host path] fileSystemRepresentation], sel_getName(selector));
  abort();
}

- (id)retain {
  [self used:_cmd];
  return nil;
}
- (oneway void)release {
  [self used:_cmd];
}
- (id)autorelease {
  [self used:_cmd];
  return nil;
}
- (BOOL)respondsToSelector:(SEL)selector {
  [self used:selector];
  return NO;
}
- (NSMethodSignature*)methodSignatureForSelector:(SEL)selector {
  [self used:selector];
  return nil;
}

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
      if (!SUThisVersion()->sparesAReference) [updater autorelease];
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
  if (SUThisVersion()->startsAtOnce)
    [self inTheNextTurn:@selector(startCycle) order:0];
  else
    [[NSNotificationCenter defaultCenter] addObserver:self
                                             selector:@selector(applicationDidFinishLaunching:)
                                                 name:@"NSApplicationDidFinishLaunchingNotification"
                                               object:nil];
  return self;
}

- (void)dealloc {
  [[NSNotificationCenter defaultCenter] removeObserver:self];
  [question close];
  [question release];
  [check release];
  object_setClass(self, [SUReleasedUpdater class]);
  return;
  [super dealloc]; // never: see SUReleasedUpdater
}

// Of the main run loop; first what has the lower order.
- (void)inTheNextTurn:(SEL)body order:(NSUInteger)order {
  [[NSRunLoop mainRunLoop] performSelector:body
                                    target:self
                                  argument:nil
                                     order:order
                                     modes:[NSArray arrayWithObject:NSDefaultRunLoopMode]];
}

- (NSBundle*)hostBundle {
  return [host bundle];
}

- (void)setDelegate:(id)newDelegate {
  delegate = newDelegate;
}

- (id)delegate {
  return delegate;
}

// Settings.

- (void)setFeedURL:(NSURL*)url {
  [host setDecision:[url absoluteString] forKey:kFeedURL];
}

- (NSURL*)feedURL {
  id text = [host objectForKey:kFeedURL];
  NSCharacterSet* quotes = [NSCharacterSet characterSetWithCharactersInString:@"\"'"];
  text =
      [text isKindOfClass:[NSString class]] ? [text stringByTrimmingCharactersInSet:quotes] : nil;
  if (![text length])
    [NSException raise:SUNoFeedURLException
                format:@"You must specify the URL of the appcast as the %s in either the "
                       @"Info.plist or the user defaults!",
                       SUThisVersion()->feedKey];
  @try {
    return [NSURL URLWithString:text];
  } @catch (NSException* exception) {
    return nil;
  }
}

static BOOL isYes(id value) {
  return [value respondsToSelector:@selector(boolValue)] && [value boolValue];
}

- (void)setFlag:(BOOL)flag forKey:(NSString*)key {
  [host setDecision:[NSNumber numberWithBool:flag] forKey:key];
}

- (BOOL)automaticallyChecksForUpdates {
  return [self updateCheckInterval] != 0 && isYes([host objectForKey:kAutomaticChecks]);
}

- (void)setAutomaticallyChecksForUpdates:(BOOL)flag {
  [self setFlag:flag forKey:kAutomaticChecks];
  if (flag && [self updateCheckInterval] == 0) [self setUpdateCheckInterval:kDay];
  [self resetCycleSoon];
}

- (BOOL)sendsSystemProfile {
  return isYes([host decisionForKey:kSendProfile]);
}
- (void)setSendsSystemProfile:(BOOL)flag {
  [self setFlag:flag forKey:kSendProfile];
}

- (BOOL)automaticallyDownloadsUpdates {
  id allowed = [host infoForKey:kAllowsAutomaticDownloads];
  return (!allowed || isYes(allowed)) && isYes([host decisionForKey:kAutomaticDownloads]);
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
  if (interval == 0) [self setFlag:NO forKey:kAutomaticChecks];
  [self resetCycleSoon];
}

- (NSDate*)lastUpdateCheckDate {
  id date = [host decisionForKey:kLastCheck];
  return [date isKindOfClass:[NSDate class]] ? date : nil;
}

- (NSString*)userAgentString {
  return [host userAgent];
}

// Checks.

- (BOOL)updateInProgress {
  return check && ![check isFinished];
}

- (void)check:(SUCheckKind)kind {
  if ([self updateInProgress]) {
    SUPostStep(check, SUStepIgnored, nil, @"a check is in progress");
    return;
  }
  [check release];
  check = [[SUCheck alloc] initWithUpdater:self host:host kind:kind];
  [host setDecision:[NSDate date] forKey:kLastCheck];
  if (SUThisVersion()->keepsALog) {
    NSLog(@"Sparkle: a new log");
    NSLog(@"Sparkle: of %@", [[host path] lastPathComponent]);
  }
  [self feedURL]; // raises when there is none, and leaves behind a check that never ends
  [check start];
}

- (void)checkForUpdates:(id)sender {
  (void)sender;
  [self check:SUCheckByThePerson];
}

- (void)checkInBackground {
  [self check:[self automaticallyDownloadsUpdates] ? SUCheckAutomatic : SUCheckInBackground];
}

// The real 1.6 goes by way of another thread, which nobody can see: that thread's turn is the run
// loop's next one here, so that whatever is checked meanwhile comes first each time.
- (void)checkForUpdatesInBackground {
  if (SUThisVersion()->checksInBackgroundLater)
    [self inTheNextTurn:@selector(checkInBackground) order:1];
  else
    [self checkInBackground];
}

- (void)checkForUpdateInformation {
  [self check:SUCheckForInformation];
}

// At most once a week, whatever is set.
- (BOOL)isProfileDue {
  NSDate* last = [host decisionForKey:kLastProfile];
  if (![self sendsSystemProfile] || (last && -[last timeIntervalSinceNow] < kWeek)) return NO;
  [host setDecision:[NSDate date] forKey:kLastProfile];
  return YES;
}

- (NSArray*)parametersWithProfile:(BOOL)profile {
  NSMutableArray* parameters = [NSMutableArray array];
  SEL selector = @selector(feedParametersForUpdater:sendingSystemProfile:);
  if ([delegate respondsToSelector:selector]) {
    SUPostStep(self, SUStepDelegate,
               [NSDictionary dictionaryWithObject:NSStringFromSelector(selector)
                                           forKey:@"selector"],
               @"%@", NSStringFromSelector(selector));
    NSArray* own = [delegate feedParametersForUpdater:self sendingSystemProfile:profile];
    if (own) [parameters addObjectsFromArray:own];
  }
  if (profile) [parameters addObjectsFromArray:[host profile]];
  return parameters;
}

// The whole URL is escaped once the parameters are in it, and so nothing of them that a URL may
// hold is.
- (NSURL*)parameterizedFeedURL {
  NSURL* url = [self feedURL];
  NSMutableArray* pairs = [NSMutableArray array];
  for (NSDictionary* parameter in [self parametersWithProfile:[self isProfileDue]])
    [pairs addObject:[NSString stringWithFormat:@"%@=%@", [parameter objectForKey:@"key"],
                                                [parameter objectForKey:@"value"]]];
  if (![pairs count]) return url;
  NSString* text = [url absoluteString];
  BOOL hasQuery = [text rangeOfString:@"?"].location != NSNotFound;
  text = [NSString stringWithFormat:@"%@%@%@", text, hasQuery ? @"&" : @"?",
                                    [pairs componentsJoinedByString:@"&"]];
  return
      [NSURL URLWithString:[text stringByAddingPercentEscapesUsingEncoding:NSUTF8StringEncoding]];
}

// The automatic cycle.

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
  (void)notification;
  if (SUThisVersion()->worksOnThreads)
    [NSThread detachNewThreadSelector:@selector(startCycle) toTarget:self withObject:nil];
  else
    [self startCycle];
}

- (BOOL)shouldAskForPermission {
  if ([host decisionForKey:kAutomaticChecks]) return NO;
  SEL selector = @selector(updaterShouldPromptForPermissionToCheckForUpdates:);
  if ([delegate respondsToSelector:selector]) {
    SUPostStep(self, SUStepDelegate,
               [NSDictionary dictionaryWithObject:NSStringFromSelector(selector)
                                           forKey:@"selector"],
               @"%@", NSStringFromSelector(selector));
    return [delegate updaterShouldPromptForPermissionToCheckForUpdates:self];
  }
  if ([host infoForKey:kAutomaticChecks]) return NO;
  // Nobody wants to be asked by a program on the day it is new.
  BOOL launchedBefore = isYes([host decisionForKey:kLaunchedBefore]);
  [self setFlag:YES forKey:kLaunchedBefore];
  return launchedBefore;
}

- (void)startCycle {
  @autoreleasepool {
    if (![self shouldAskForPermission]) return [self scheduleNextCheck];
    [self parametersWithProfile:YES]; // to show what would be sent
    [self performSelectorOnMainThread:@selector(askForPermission)
                           withObject:nil
                        waitUntilDone:[NSThread isMainThread]];
  }
}

- (void)askForPermission {
  question = [[SUWindow alloc]
      initWithTitle:SUWindowPermission
            buttons:[NSArray arrayWithObjects:SUButtonCheck, SUButtonDoNotCheck, nil]
              owner:self
           answered:@selector(permissionAnswered:)];
  [question announce:SUStepAsks];
}

- (void)permissionAnswered:(NSString*)button {
  [self setFlag:[button isEqualToString:SUButtonCheck] forKey:kAutomaticChecks];
  [self resetUpdateCycle];
}

- (void)resetCycleSoon {
  SEL reset = @selector(resetUpdateCycle);
  [NSObject cancelPreviousPerformRequestsWithTarget:self selector:reset object:nil];
  [self performSelector:reset withObject:nil afterDelay:pause()];
}

- (void)resetUpdateCycle {
  [self scheduleNextCheck];
}

- (void)timerFired:(NSTimer*)fired {
  (void)fired;
  timer = nil;
  [self checkForUpdatesInBackground];
}

- (void)scheduleNextCheck {
  if (![NSThread isMainThread]) {
    [self performSelectorOnMainThread:_cmd withObject:nil waitUntilDone:NO];
    return;
  }
  [timer invalidate];
  timer = nil;
  if (![self automaticallyChecksForUpdates]) {
    SUPostStep(self, SUStepScheduled, nil, @"automatic checks are off");
    return;
  }
  NSDate* last = [self lastUpdateCheckDate];
  NSTimeInterval interval = MAX([self updateCheckInterval], kShortestInterval);
  NSTimeInterval delay = last ? MAX(interval + [last timeIntervalSinceNow], 0) : 0;
  timer = [NSTimer scheduledTimerWithTimeInterval:delay
                                           target:self
                                         selector:@selector(timerFired:)
                                         userInfo:nil
                                          repeats:NO];
  SUPostStep(self, SUStepScheduled, nil, @"the next automatic check is in %.0f seconds", delay);
}

- (NSDate*)nextUpdateCheckDate {
  return [timer isValid] ? [timer fireDate] : nil;
}

@end
