// The updater of one bundle: checks its feed, and downloads, verifies, installs and starts what is
// newer. The delegate steers each stage (SUUpdaterDelegate.h), and SUStep.h tells how to watch it.
//
// OWNERSHIP. There is one updater for a bundle, for as long as the process lives. sharedUpdater and
// updaterForBundle: hand it out without retaining it for the caller; even so, programs release what
// they were handed. The registry's own reference is therefore out of everybody's reach: retain and
// release only keep a balance (see referenceBalance), and no number of releases frees an updater.
// The delegate is not retained. While one of its methods runs it is kept alive. After
// setDelegate:nil the next call finds nobody; a call that is on its way then still arrives, at an
// object that lives.
//
// THREADS. Any thread may call. A check returns at once and runs on a thread of its own ("update
// check n"), and so does the rest of a postponed relaunch ("relaunch n"): delegate messages come
// from there. The timer of automatic checks and the question for permission run on the main
// thread's run loop and only while that runs.
//
// UNITS. Intervals are seconds.
//
// ERRORS. feedURL, and with it the three ways to check, raise an NSException named SUNoFeedURL
// while no feed is set. Whatever else goes wrong ends the check: one log line, one SUStepFailed
// notification, updateInProgress NO. Nothing is ever thrown out of a thread.
#import <Foundation/Foundation.h>

@class SUHost;

@interface SUUpdater : NSObject {
  SUHost* host;
  id delegate;
  BOOL updateInProgress;
  NSTimer* timer; // touched on the main thread only
  int balance;
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

// SUEnableAutomaticChecks, SUSendProfileInfo, SUAutomaticallyUpdate: NO until decided. Nobody is
// here to be asked, so that an update that was found is always downloaded and installed, whatever
// the last of them says, unless the check is for information only.
- (void)setAutomaticallyChecksForUpdates:(BOOL)flag;
- (BOOL)automaticallyChecksForUpdates;
- (void)setSendsSystemProfile:(BOOL)flag;
- (BOOL)sendsSystemProfile;
- (void)setAutomaticallyDownloadsUpdates:(BOOL)flag;
- (BOOL)automaticallyDownloadsUpdates;

// SUScheduledCheckInterval; a day by default. The timer takes it as at least an hour; 0 or less
// switches the timer off. What was set is answered unchanged.
- (void)setUpdateCheckInterval:(NSTimeInterval)interval;
- (NSTimeInterval)updateCheckInterval;

// When the last check began, nil before the first one.
- (NSDate*)lastUpdateCheckDate;

// From the beginning of a check to its end; a postponed relaunch is part of it. A check while one
// is in progress is ignored.
- (BOOL)updateInProgress;

- (void)checkForUpdates:(id)sender;
- (void)checkForUpdatesInBackground;
- (void)checkForUpdateInformation; // ends after finding or not finding

// Arms the timer anew: due an interval after the last check, at once if that has passed.
- (void)resetUpdateCycle;

// Beyond the real thing, for tests: when the timer is due (nil: switched off; ask on the main
// thread), and how many retains minus releases came from outside.
- (NSDate*)nextUpdateCheckDate;
- (int)referenceBalance;

@end

static NSString* const SUNoFeedURLException = @"SUNoFeedURL";
