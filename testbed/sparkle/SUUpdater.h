// The updater of one bundle: checks its feed, and downloads, verifies, installs and starts what is
// newer. The delegate steers each stage (SUUpdaterDelegate.h), and SUStep.h tells how to watch it.
// How versions differ stands in SUVersion.h.
//
// OWNERSHIP. There is one updater for a bundle, in a table. sharedUpdater and updaterForBundle:
// hand it out without retaining it for the caller; programs release what they were handed all the
// same, and so use up the references that it was made with: two in 1.5b6, one in 1.6. When they are
// gone the updater is, but the table still hands it out, and a check still works for it: whatever
// is sent to it from then on ends the process with a message that names it.
// The delegate is not retained.
//
// THREADS. The main thread, and a check works where it was asked for. See README.md.
//
// UNITS. Intervals are seconds.
//
// ERRORS. feedURL raises an NSException named SUNoFeedURL while no feed is set, and with it the
// ways to check; whoever checks without a feed has an updater of which updateInProgress stays YES.
// Whatever else goes wrong ends the check.
#import <Foundation/Foundation.h>

@class SUCheck, SUHost, SUWindow;

@interface SUUpdater : NSObject {
  SUHost* host; // the first one: see SUReleasedUpdater
  id delegate;
  SUCheck* check; // the last one, over or not
  NSTimer* timer;
  SUWindow* question;
}

+ (SUUpdater*)sharedUpdater;
// nil stands for the main bundle (see SUHost's bundleOrMain:).
+ (SUUpdater*)updaterForBundle:(NSBundle*)bundle;

- (NSBundle*)hostBundle;

- (void)setDelegate:(id)delegate;
- (id)delegate;

// SUFeedURL. Kept as its absolute string; nil goes back to what the Info.plist says.
- (void)setFeedURL:(NSURL*)url;
- (NSURL*)feedURL;

// SUEnableAutomaticChecks: NO until decided, and at an interval of 0. YES at that interval sets a
// day.
- (void)setAutomaticallyChecksForUpdates:(BOOL)flag;
- (BOOL)automaticallyChecksForUpdates;
// SUSendProfileInfo, SUAutomaticallyUpdate: the user defaults alone count. The second is NO where
// the Info.plist says NO under SUAllowsAutomaticUpdates.
- (void)setSendsSystemProfile:(BOOL)flag;
- (BOOL)sendsSystemProfile;
- (void)setAutomaticallyDownloadsUpdates:(BOOL)flag;
- (BOOL)automaticallyDownloadsUpdates;

// SUScheduledCheckInterval; a day by default. The timer takes it as at least an hour; 0 switches
// automatic checks off. What was set is answered unchanged.
- (void)setUpdateCheckInterval:(NSTimeInterval)interval;
- (NSTimeInterval)updateCheckInterval;

// When the last check began, nil before the first one.
- (NSDate*)lastUpdateCheckDate;

// From the beginning of a check to its end; a relaunch that was postponed or refused has none. A
// check while one is in progress is ignored.
- (BOOL)updateInProgress;

- (void)checkForUpdates:(id)sender;
- (void)checkForUpdatesInBackground;
- (void)checkForUpdateInformation; // ends after finding or not finding

// Arms the timer anew: due an interval after the last check, at once if that has passed.
- (void)resetUpdateCycle;

// Beyond the real thing, for tests: when the timer is due; nil: it is switched off.
- (NSDate*)nextUpdateCheckDate;

@end

// For the check.
@interface SUUpdater (Check)
- (NSURL*)parameterizedFeedURL; // asks the delegate
- (NSString*)userAgentString;
- (void)scheduleNextCheck;
@end

static NSString* const SUNoFeedURLException = @"SUNoFeedURL";
