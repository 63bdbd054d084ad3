// What a framework sends to the plug-in's own Cocoa objects.
#pragma once

#import <Foundation/Foundation.h>

@protocol Delegate
- (id)feedParametersForUpdater:(id)updater sendingSystemProfile:(BOOL)sending;
- (BOOL)updater:(id)updater shouldPostponeRelaunchForUpdate:(id)item untilInvoking:(id)invocation;
- (id)bestValidUpdateInAppcast:(id)appcast forUpdater:(id)updater;
- (void)updater:(id)updater didFinishLoadingAppcast:(id)appcast;
- (void)updater:(id)updater willInstallUpdate:(id)item;
- (void)updater:(id)updater didFindValidUpdate:(id)item;
- (BOOL)updaterShouldPromptForPermissionToCheckForUpdates:(id)updater;
- (void)updaterDidNotFindUpdate:(id)updater;
- (void)updaterWillRelaunchApplication:(id)updater;
- (id)versionComparatorForUpdater:(id)updater;
- (id)pathToRelaunchForUpdater:(id)updater;
@end

@protocol Comparator
- (int)compareVersion:(id)a toVersion:(id)b;
@end

// The framework's updater, which knows its delegate.
@protocol HasDelegate
- (id)delegate;
@end
