// What a delegate of the updater may implement. Each is optional and looked for with
// respondsToSelector: right before the call; each comes on the thread of the check, except the
// question for permission, which comes on the main thread.
#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUUpdater.h"
#import "SUVersionComparisonProtocol.h"

@interface NSObject (SUUpdaterDelegateInformalProtocol)

// May the program be asked whether to check by itself? At the start of the cycle, while nothing is
// decided. Nobody can be asked here: the answer is the environment's SPARKLE_PERMISSION, "yes" or
// "no"; without it the question stays open and automatic checks stay off.
- (BOOL)updaterShouldPromptForPermissionToCheckForUpdates:(SUUpdater*)updater;

// Dictionaries with "key", "value", "displayKey", "displayValue", for the feed URL's query.
- (NSArray*)feedParametersForUpdater:(SUUpdater*)updater sendingSystemProfile:(BOOL)sendingProfile;

- (void)updater:(SUUpdater*)updater didFinishLoadingAppcast:(SUAppcast*)appcast;
- (SUAppcastItem*)bestValidUpdateInAppcast:(SUAppcast*)appcast forUpdater:(SUUpdater*)updater;
- (id<SUVersionComparison>)versionComparatorForUpdater:(SUUpdater*)updater;
- (void)updater:(SUUpdater*)updater didFindValidUpdate:(SUAppcastItem*)update;
- (void)updaterDidNotFindUpdate:(SUUpdater*)updater;
- (void)updater:(SUUpdater*)updater willInstallUpdate:(SUAppcastItem*)update;

// Asked once in a process. After YES the relaunch waits until the invocation is invoked, on any
// thread, which returns at once; invoking it again does nothing. Giving the invocation up without
// invoking it ends the update.
- (BOOL)updater:(SUUpdater*)updater
    shouldPostponeRelaunchForUpdate:(SUAppcastItem*)update
                      untilInvoking:(NSInvocation*)invocation;

- (void)updaterWillRelaunchApplication:(SUUpdater*)updater;
- (NSString*)pathToRelaunchForUpdater:(SUUpdater*)updater; // a bundle or a program

@end
