#import "SUCycle.h"
#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUFetch.h"
#import "SUHost.h"
#import "SUInstaller.h"
#import "SUSignature.h"
#import "SUStandardVersionComparator.h"
#import "SUUnpacker.h"
#import "SUUpdaterDelegate.h"
#include <stdlib.h>

static const long long kLargestArchive = 2LL << 30;

// The system that the testbed stands for, when the environment's SPARKLE_SYSTEM_VERSION names no
// other.
static NSString* systemVersion(void) {
  const char* version = getenv("SPARKLE_SYSTEM_VERSION");
  return version && *version ? [NSString stringWithUTF8String:version] : @"10.6.8";
}

static NSString* escaped(id value) {
  if ([value isKindOfClass:[NSNumber class]]) value = [value stringValue];
  const char* bytes = [value isKindOfClass:[NSString class]] ? [value UTF8String] : NULL;
  if (!bytes) return nil;
  NSMutableString* result = [NSMutableString string];
  for (; *bytes; ++bytes) {
    unsigned char c = (unsigned char)*bytes;
    BOOL plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '_' || c == '.' || c == '~';
    [result appendFormat:plain ? @"%c" : @"%%%02X", c];
  }
  return result;
}

// The feed's URL with key=value pairs added to its query.
static NSURL* withParameters(NSURL* url, NSArray* parameters) {
  if (!url || ![parameters count]) return url;
  NSString* text = [url absoluteString];
  NSString* fragment = @"";
  NSRange hash = [text rangeOfString:@"#"];
  if (hash.location != NSNotFound) {
    fragment = [text substringFromIndex:hash.location];
    text = [text substringToIndex:hash.location];
  }
  NSMutableString* result = [NSMutableString stringWithString:text];
  NSString* separator = [text rangeOfString:@"?"].location == NSNotFound ? @"?" : @"&";
  for (NSDictionary* parameter in parameters) {
    if (![parameter isKindOfClass:[NSDictionary class]]) continue;
    NSString* key = escaped([parameter objectForKey:@"key"]);
    NSString* value = escaped([parameter objectForKey:@"value"]);
    if (![key length] || !value) continue;
    [result appendFormat:@"%@%@=%@", separator, key, value];
    separator = @"&";
  }
  [result appendString:fragment];
  return [NSURL URLWithString:result];
}

static NSDictionary* parameter(NSString* key, id value) {
  return value ? [NSDictionary dictionaryWithObjectsAndKeys:key, @"key", value, @"value", nil]
               : nil;
}

@implementation SUCycle

- (id)initWithUpdater:(SUUpdater*)anUpdater
                 host:(SUHost*)aHost
              feedURL:(NSURL*)aURL
      informationOnly:(BOOL)only {
  if (!(self = [super init])) return nil;
  updater = [anUpdater retain];
  host = [aHost retain];
  feedURL = [aURL retain];
  informationOnly = only;
  return self;
}

- (void)dealloc {
  if (!ended) {
    // A postponed relaunch that was given up: the invocation is gone and was never invoked.
    [self failWith:SUFailureRelaunch reason:@"the postponed relaunch was given up"];
    [self announce];
  }
  [updater release];
  [host release];
  [feedURL release];
  [update release];
  [workFolder release];
  [outcome release];
  [super dealloc];
}

- (void)startThread:(SEL)selector name:(NSString*)name {
  NSThread* thread = [[NSThread alloc] initWithTarget:self selector:selector object:nil];
  [thread setName:name];
  [thread start];
  [thread release];
}

- (void)start {
  static int count;
  [self
      startThread:@selector(checkOnThread)
             name:[NSString stringWithFormat:@"update check %d", __sync_add_and_fetch(&count, 1)]];
}

// The ends of a cycle. They are announced when everything that the thread held has been let go.

- (void)finish:(NSString*)result {
  outcome = [result copy];
  endingThread = [NSThread currentThread];
}

- (BOOL)failWith:(NSString*)name reason:(NSString*)reason {
  outcomeFailure = name;
  [self finish:reason];
  return NO;
}

- (void)announce {
  ended = YES;
  endingThread = nil;
  if (workFolder) [[NSFileManager defaultManager] removeItemAtPath:workFolder error:NULL];
  [update release];
  update = nil;
  if (outcomeFailure && !getenv("SPARKLE_QUIET"))
    NSLog(@"Sparkle: the update of %@ failed: %@", [host name], outcome);
  [updater cycleEnded];
  if (outcomeFailure)
    SUPostStep(updater, SUStepFailed,
               [NSDictionary dictionaryWithObject:outcomeFailure forKey:@"failure"], @"%@",
               outcome);
  else
    SUPostStep(updater, SUStepFinished, nil, @"%@", outcome);
}

- (void)failAfterException:(NSString*)what {
  if (!outcome) [self failWith:SUFailureException reason:what];
}

// Everything on a thread of the cycle's runs in here.
- (void)guard:(SEL)body {
  @autoreleasepool {
    @try {
      [self performSelector:body];
    } @catch (NSException* exception) {
      [self failAfterException:[NSString stringWithFormat:@"%@: %@", [exception name],
                                                          [exception reason]]];
    } @catch (id thrown) {
      [self failAfterException:[NSString stringWithFormat:@"an object of class %@ was thrown",
                                                          [thrown class]]];
    }
  }
  @autoreleasepool {
    if (endingThread == [NSThread currentThread]) [self announce];
  }
}

- (void)checkOnThread {
  [self guard:@selector(check)];
}

- (void)relaunchOnThread {
  [self guard:@selector(relaunch)];
}

// The delegate, if it has the method; the step says that it is about to be called.
- (id)ask:(SEL)selector about:(id)detail {
  id delegate = [updater delegateFor:selector];
  if (!delegate) return nil;
  NSString* name = NSStringFromSelector(selector);
  NSDictionary* more = [NSDictionary dictionaryWithObject:name forKey:@"selector"];
  if (detail)
    SUPostStep(updater, SUStepDelegate, more, @"%@ %@", name, detail);
  else
    SUPostStep(updater, SUStepDelegate, more, @"%@", name);
  return delegate;
}

// The stages, in their order. Each answers NO when the cycle has ended.

- (NSURL*)parameterizedURL {
  BOOL profile = [updater sendsSystemProfile];
  NSMutableArray* parameters = [NSMutableArray array];
  if (profile) {
    NSDictionary* own[] = {parameter(@"osVersion", systemVersion()),
                           parameter(@"appName", [host name]),
                           parameter(@"appVersion", [host version])};
    for (unsigned i = 0; i < sizeof own / sizeof *own; ++i)
      if (own[i]) [parameters addObject:own[i]];
  }
  id answer = [[self ask:@selector(feedParametersForUpdater:sendingSystemProfile:)
                   about:profile ? @"with system profile" : @"without system profile"]
      feedParametersForUpdater:updater
          sendingSystemProfile:profile];
  if ([answer isKindOfClass:[NSArray class]]) [parameters addObjectsFromArray:answer];
  return withParameters(feedURL, parameters);
}

- (SUAppcast*)loadAppcast {
  NSURL* url = [self parameterizedURL];
  SUAppcast* appcast = [[[SUAppcast alloc] init] autorelease];
  [appcast setUserAgentString:[NSString stringWithFormat:@"%@/%@ Sparkle/1.5", [host name],
                                                         [host version] ? [host version] : @"0"]];
  SUPostStep(updater, SUStepFetching, nil, @"%@", url);
  SUProblem problem;
  BOOL loaded = [appcast loadFromURL:url problem:&problem];
  if (!loaded && ![problem.failure isEqualToString:SUFailureItems]) {
    [self failWith:problem.failure reason:problem.reason];
    return nil;
  }
  SUPostStep(updater, SUStepLoaded, nil, @"%lu items from %@",
             (unsigned long)[[appcast items] count], url);
  [[self ask:@selector(updater:didFinishLoadingAppcast:) about:nil] updater:updater
                                                    didFinishLoadingAppcast:appcast];
  if (loaded) return appcast;
  [[self ask:@selector(updaterDidNotFindUpdate:) about:nil] updaterDidNotFindUpdate:updater];
  [self failWith:problem.failure reason:problem.reason];
  return nil;
}

- (SUAppcastItem*)firstFittingItem:(SUAppcast*)appcast {
  for (SUAppcastItem* item in [appcast items]) {
    if (![item versionString] || ![item fileURL]) continue;
    NSString* minimum = [item minimumSystemVersion];
    if (!minimum || [[SUStandardVersionComparator defaultComparator]
                        compareVersion:systemVersion()
                             toVersion:minimum] != NSOrderedAscending)
      return item;
  }
  return nil;
}

- (SUAppcastItem*)bestItem:(SUAppcast*)appcast {
  id delegate = [self ask:@selector(bestValidUpdateInAppcast:forUpdater:) about:nil];
  if (!delegate) return [self firstFittingItem:appcast];
  id item = [delegate bestValidUpdateInAppcast:appcast forUpdater:updater];
  return [item isKindOfClass:[SUAppcastItem class]] ? item : nil;
}

- (BOOL)isNewer:(SUAppcastItem*)item {
  if (![item versionString]) return NO;
  id comparator = [[self ask:@selector(versionComparatorForUpdater:)
                       about:nil] versionComparatorForUpdater:updater];
  if (![comparator respondsToSelector:@selector(compareVersion:toVersion:)])
    comparator = [SUStandardVersionComparator defaultComparator];
  SUPostStep(updater, SUStepComparing, nil, @"%@ with %@", [host version], [item versionString]);
  return [comparator compareVersion:[host version]
                          toVersion:[item versionString]] == NSOrderedAscending;
}

- (BOOL)download:(NSString*)path {
  NSURL* url = [update fileURL];
  if (!url) return [self failWith:SUFailureDownload reason:@"the update has no URL to download"];
  SUPostStep(updater, SUStepDownloading, nil, @"%@", url);
  SUProblem problem = {nil, nil};
  NSString* agent = [NSString stringWithFormat:@"%@/%@ Sparkle/1.5", [host name], [host version]];
  long long size = SUFetchFile(url, agent, path, kLargestArchive, &problem);
  if (size < 0)
    return [self
        failWith:SUFailureDownload
          reason:[NSString stringWithFormat:@"%@ cannot be downloaded: %@", url, problem.reason]];
  SUPostStep(updater, SUStepDownloaded, nil, @"%lld bytes", size);
  return YES;
}

- (BOOL)verify:(NSString*)archive {
  NSString* problem = SUSignatureProblem(archive, [update DSASignature], [host publicKey]);
  if (problem)
    return [self failWith:SUFailureSignature
                   reason:[NSString stringWithFormat:@"the archive of %@ is refused: %@",
                                                     [update versionString], problem]];
  SUPostStep(updater, SUStepSignature, nil, @"valid");
  return YES;
}

- (BOOL)unpack:(NSString*)archive into:(NSString*)folder {
  NSString* reason = nil;
  [[NSFileManager defaultManager] createDirectoryAtPath:folder
                            withIntermediateDirectories:YES
                                             attributes:nil
                                                  error:NULL];
  int entries = SUUnpack(archive, folder, &reason);
  if (entries == 0) {
    entries = -1;
    reason = @"it is empty";
  }
  if (entries < 0)
    return [self failWith:SUFailureUnpack
                   reason:[NSString stringWithFormat:@"the archive of %@ cannot be unpacked: %@",
                                                     [update versionString], reason]];
  SUPostStep(updater, SUStepUnpacked, nil, @"%d entries", entries);
  return YES;
}

- (BOOL)install:(NSString*)unpacked {
  NSString* reason = nil;
  NSString* name = [[host path] lastPathComponent];
  NSString* bundle = SUFindBundle(unpacked, name);
  NSString* version = [host version];
  if (!bundle)
    return [self failWith:SUFailureInstall
                   reason:[NSString stringWithFormat:@"the archive holds no folder %@", name]];
  SUPostStep(updater, SUStepInstalling, nil, @"%@", [host path]);
  if (!SUReplace([host path], bundle, &reason))
    return [self failWith:SUFailureInstall reason:reason];
  SUPostStep(updater, SUStepInstalled, nil, @"%@ instead of %@", [host version], version);
  return YES;
}

- (void)check {
  SUPostStep(updater, SUStepChecking, nil, @"%@%@", [host name],
             informationOnly ? @", for information only" : @"");
  SUAppcast* appcast = [self loadAppcast];
  if (!appcast) return;
  if (![host version]) {
    [self failWith:SUFailureHost
            reason:[NSString stringWithFormat:@"%@ has no Info.plist with a CFBundleVersion",
                                              [host path]]];
    return;
  }
  SUAppcastItem* item = [self bestItem:appcast];
  if (![self isNewer:item]) {
    SUPostStep(updater, SUStepNotFound, nil, @"nothing newer than %@", [host version]);
    [[self ask:@selector(updaterDidNotFindUpdate:) about:nil] updaterDidNotFindUpdate:updater];
    [self finish:@"nothing newer"];
    return;
  }
  update = [item retain];
  SUPostStep(updater, SUStepFound, nil, @"%@", [update versionString]);
  [[self ask:@selector(updater:didFindValidUpdate:) about:[update versionString]] updater:updater
                                                                       didFindValidUpdate:update];
  if (informationOnly) {
    [self finish:[NSString stringWithFormat:@"%@ is available", [update versionString]]];
    return;
  }
  [self update];
}

- (void)update {
  NSString* reason = nil;
  workFolder = [SUWorkFolder([host path], &reason) retain];
  if (!workFolder) {
    [self failWith:SUFailureInstall reason:reason];
    return;
  }
  NSString* archive = [workFolder stringByAppendingPathComponent:@"archive"];
  NSString* unpacked = [workFolder stringByAppendingPathComponent:@"unpacked"];
  if (![self download:archive] || ![self verify:archive] || ![self unpack:archive into:unpacked])
    return;
  [[self ask:@selector(updater:willInstallUpdate:) about:[update versionString]] updater:updater
                                                                       willInstallUpdate:update];
  if (![self install:unpacked]) return;
  if (![self postponed] && [self takeRelaunch]) [self relaunch];
}

// The relaunch happens once, however many come to continue it.
- (BOOL)takeRelaunch {
  @synchronized(self) {
    BOOL taken = continued;
    continued = YES;
    return !taken;
  }
}

// What the invocation invokes. The rest runs on a thread of its own: who invokes may be in the
// middle of anything.
- (void)continueRelaunch {
  static int count;
  if (![self takeRelaunch]) return;
  SUPostStep(updater, SUStepContinued, nil, @"%@", [update versionString]);
  [self startThread:@selector(relaunchOnThread)
               name:[NSString stringWithFormat:@"relaunch %d", __sync_add_and_fetch(&count, 1)]];
}

// YES: somebody else continues.
- (BOOL)postponed {
  static BOOL asked;
  @synchronized([SUCycle class]) {
    if (asked) return NO;
    asked = YES;
  }
  id delegate = [self ask:@selector(updater:shouldPostponeRelaunchForUpdate:untilInvoking:)
                    about:[update versionString]];
  if (!delegate) return NO;
  NSInvocation* invocation = [NSInvocation
      invocationWithMethodSignature:[self methodSignatureForSelector:@selector(continueRelaunch)]];
  [invocation setTarget:self];
  [invocation setSelector:@selector(continueRelaunch)];
  [invocation retainArguments];
  if (![delegate updater:updater shouldPostponeRelaunchForUpdate:update untilInvoking:invocation])
    return NO;
  SUPostStep(updater, SUStepPostponed, nil, @"%@", [update versionString]);
  return YES;
}

- (void)relaunch {
  [[self ask:@selector(updaterWillRelaunchApplication:)
       about:nil] updaterWillRelaunchApplication:updater];
  NSString* path = [[self ask:@selector(pathToRelaunchForUpdater:)
                        about:nil] pathToRelaunchForUpdater:updater];
  if (![path isKindOfClass:[NSString class]] || ![path length]) path = [host path];
  NSString* reason = nil;
  int pid = SULaunch(path, &reason);
  if (pid < 0) {
    [self failWith:SUFailureRelaunch reason:reason];
    return;
  }
  SUPostStep(updater, SUStepRelaunching,
             [NSDictionary dictionaryWithObject:[NSNumber numberWithInt:pid] forKey:@"pid"],
             @"%@ as process %d", path, pid);
  [self finish:[NSString
                   stringWithFormat:@"%@ is installed and was started", [update versionString]]];
}

@end
