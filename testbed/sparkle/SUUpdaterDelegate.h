// What a delegate of the updater may implement. Each is optional and looked for with
// respondsToSelector: right before the call. README.md says on which thread each comes.
#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUUpdater.h"
#import "SUVersionComparisonProtocol.h"

@interface NSObject (SUUpdaterDelegateInformalProtocol)

// May a person be asked whether to check automatically? When launching has finished, while the user
// defaults decide nothing.
- (BOOL)updaterShouldPromptForPermissionToCheckForUpdates:(SUUpdater*)updater;

// Dictionaries with "key", "value", "displayKey", "displayValue", for the feed URL's query, as they
// are: only what no URL may hold is escaped.
- (NSArray*)feedParametersForUpdater:(SUUpdater*)updater sendingSystemProfile:(BOOL)sendingProfile;

- (void)updater:(SUUpdater*)updater didFinishLoadingAppcast:(SUAppcast*)appcast;
- (SUAppcastItem*)bestValidUpdateInAppcast:(SUAppcast*)appcast forUpdater:(SUUpdater*)updater;
- (id<SUVersionComparison>)versionComparatorForUpdater:(SUUpdater*)updater;
- (void)updater:(SUUpdater*)updater didFindValidUpdate:(SUAppcastItem*)update;
- (void)updaterDidNotFindUpdate:(SUUpdater*)updater;
- (void)updater:(SUUpdater*)updater willInstallUpdate:(SUAppcastItem*)update;

// Asked once in a process; in 1.5b6 when the update is installed, in 1.6 before. After YES the
// relaunch waits until the invocation is invoked, and then happens inside that, on that thread.
- (BOOL)updater:(SUUpdater*)updater
    shouldPostponeRelaunchForUpdate:(SUAppcastItem*)update
                      untilInvoking:(NSInvocation*)invocation;

- (void)updaterWillRelaunchApplication:(SUUpdater*)updater;
- (NSString*)pathToRelaunchForUpdater:(SUUpdater*)updater; // nil: nothing is started

@end
