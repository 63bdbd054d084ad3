#include "framework.h"

namespace {
std::atomic<int> living{0};
}

namespace soak {

Answers answers;

int alive() { return living; }

Class classNamed(NSString* name) {
  if ([name isEqual:@"SUUpdater"]) return [SoakUpdater class];
  if ([name isEqual:@"SUAppcast"]) return [SoakAppcast class];
  if ([name isEqual:@"SUAppcastItem"]) return [SoakItem class];
  return nil;
}

} // namespace soak

#define COUNT_THE_LIVING                                                                           \
  -(id)init {                                                                                      \
    ++living;                                                                                      \
    return [super init];                                                                           \
  }

@implementation SoakItem
COUNT_THE_LIVING
- (void)dealloc {
  --living;
  [version release];
  [super dealloc];
}
+ (id)itemOfVersion:(NSString*)version {
  SoakItem* item = [[self new] autorelease];
  item->version = [version copy];
  return item;
}
- (NSString*)title {
  return [@"Version " stringByAppendingString:version];
}
- (NSString*)versionString {
  return version;
}
- (NSDate*)date {
  return [NSDate dateWithTimeIntervalSince1970:1615107930];
}
- (NSURL*)fileURL {
  return [NSURL URLWithString:@"http://example.org/Demo.zip"];
}
- (NSDictionary*)propertiesDictionary {
  return [NSDictionary
      dictionaryWithObjectsAndKeys:[self title], @"title", [self date], @"pubDate",
                                   [NSDictionary dictionaryWithObject:version
                                                               forKey:@"sparkle:version"],
                                   @"enclosure", nil];
}
@end

@implementation SoakAppcast
COUNT_THE_LIVING
- (void)dealloc {
  --living;
  [items release];
  [super dealloc];
}
+ (id)appcast {
  SoakAppcast* appcast = [[self new] autorelease];
  appcast->items = [[NSArray alloc]
      initWithObjects:[SoakItem itemOfVersion:@"3.0"], [SoakItem itemOfVersion:@"2.0"], nil];
  return appcast;
}
- (NSArray*)items {
  return items;
}
@end

@implementation SoakUpdater
COUNT_THE_LIVING
- (void)dealloc {
  --living;
  [feed release];
  [super dealloc];
}
+ (id)sharedUpdater {
  return [self new];
}
- (void)setDelegate:(id)given {
  delegate = given;
}
- (void)setFeedURL:(NSURL*)url {
  [feed autorelease];
  feed = [url retain];
}
- (NSURL*)feedURL {
  return feed;
}

- (id)asked:(SEL)selector {
  return [static_cast<id>(delegate) respondsToSelector:selector] ? static_cast<id>(delegate) : nil;
}

- (void)wake {
}

- (void)onThread:(SEL)body {
  NSThread* thread = [[NSThread alloc] initWithTarget:self selector:body object:nil];
  [thread start];
  [thread release];
}

- (void)checkForUpdates:(id)sender {
  (void)sender;
  ended = postponed = false;
  [self onThread:@selector(check)];
}

- (void)check {
  @autoreleasepool {
    soak::Answers& answers = soak::answers;
    if ([[self asked:@selector(updaterShouldPromptForPermissionToCheckForUpdates:)]
            updaterShouldPromptForPermissionToCheckForUpdates:self])
      ++answers.prompts;
    answers.parameters += [[[self asked:@selector(feedParametersForUpdater:sendingSystemProfile:)]
        feedParametersForUpdater:self
            sendingSystemProfile:YES] count];
    SoakAppcast* appcast = [SoakAppcast appcast];
    [[self asked:@selector(updater:didFinishLoadingAppcast:)] updater:self
                                              didFinishLoadingAppcast:appcast];
    ++answers.waits;
    SoakItem* best = [[self asked:@selector(bestValidUpdateInAppcast:forUpdater:)]
        bestValidUpdateInAppcast:appcast
                      forUpdater:self];
    if (best == [appcast->items objectAtIndex:0]) ++answers.best;
    id<Comparator> comparator =
        [[self asked:@selector(versionComparatorForUpdater:)] versionComparatorForUpdater:self];
    if ([comparator compareVersion:@"1.0" toVersion:@"3.0"] == -1) ++answers.compared;
    [[self asked:@selector(updaterDidNotFindUpdate:)] updaterDidNotFindUpdate:self];
    ++answers.waits;
    [[self asked:@selector(updater:didFindValidUpdate:)] updater:self didFindValidUpdate:best];
    ++answers.waits;
    [[self asked:@selector(updater:willInstallUpdate:)] updater:self willInstallUpdate:best];
    ++answers.waits;
    NSInvocation* invocation =
        [NSInvocation invocationWithMethodSignature:[self methodSignatureForSelector:@selector
                                                          (continueRelaunch)]];
    [invocation setTarget:self];
    [invocation setSelector:@selector(continueRelaunch)];
    if ([[self asked:@selector(updater:
                         shouldPostponeRelaunchForUpdate:untilInvoking:)] updater:self
                                                  shouldPostponeRelaunchForUpdate:best
                                                                    untilInvoking:invocation])
      ++answers.postponed;
  }
  postponed = true;
  [self performSelectorOnMainThread:@selector(wake) withObject:nil waitUntilDone:NO];
}

- (void)continueRelaunch {
  [self onThread:@selector(relaunch)];
}

- (void)relaunch {
  @autoreleasepool {
    [[self asked:@selector(updaterWillRelaunchApplication:)] updaterWillRelaunchApplication:self];
    ++soak::answers.waits;
    NSString* path =
        [[self asked:@selector(pathToRelaunchForUpdater:)] pathToRelaunchForUpdater:self];
    if ([path isEqual:@"/Applications/Demo.app"]) ++soak::answers.paths;
  }
  ended = true;
  [self performSelectorOnMainThread:@selector(wake) withObject:nil waitUntilDone:NO];
}
@end
