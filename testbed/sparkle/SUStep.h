// The road of a check, step by step, for whoever wants to watch: every step is one notification.
//
// Posted to the default notification center, on the thread on which the step happens, with the
// updater's check as its object (an appcast, for a fetch that a program started itself). An
// observer that raises is logged by the center and changes nothing.
//
// userInfo: "step" (one of the names below), "detail" (one line for people, never absent),
// "thread" (name of the thread: "main" or, for example, "installer 1"); "failure" in SUStepFailed,
// one of the SUFailure names; "pid" (NSNumber) in SUStepRelaunching when something was started;
// "selector" in SUStepDelegate; "window" (SUWindow, which a person may answer) in SUStepShows and
// SUStepAsks, and its title as "title" there and in SUStepAnswered.
#import <Foundation/Foundation.h>

static NSString* const SUUpdaterStepNotification = @"SUUpdaterStepNotification";

// No step, but how far a request has come: "bytes" that are there (NSNumber), of "expected", which
// is 0 where the server did not say.
static NSString* const SUUpdaterProgressNotification = @"SUUpdaterProgressNotification";

static NSString* const SUStepChecking = @"checking";       // a check begins
static NSString* const SUStepIgnored = @"ignored";         // a check while one is in progress
static NSString* const SUStepDelegate = @"delegate";       // about to call the delegate
static NSString* const SUStepShows = @"shows";             // a window that the check does not await
static NSString* const SUStepAsks = @"asks";               // a window that it waits for
static NSString* const SUStepAnswered = @"answered";       // a button of either was pressed
static NSString* const SUStepFetching = @"fetching";       // the appcast
static NSString* const SUStepLoaded = @"loaded";           // n items
static NSString* const SUStepComparing = @"comparing";     // the host's version with an item's
static NSString* const SUStepFound = @"found";             // a newer version
static NSString* const SUStepNotFound = @"not found";      // nothing newer
static NSString* const SUStepDownloading = @"downloading"; // the archive
static NSString* const SUStepDownloaded = @"downloaded";
static NSString* const SUStepSignature = @"signature"; // valid
static NSString* const SUStepUnpacked = @"unpacked";
static NSString* const SUStepWaiting = @"waiting"; // to install when the application ends
static NSString* const SUStepTrash = @"trash";     // the old version was moved there
static NSString* const SUStepInstalled = @"installed";
static NSString* const SUStepPostponed = @"relaunch postponed";
static NSString* const SUStepRelaunching = @"relaunching"; // the tool for it, with its arguments
static NSString* const SUStepTerminating = @"terminating"; // the application is told to quit
static NSString* const SUStepScheduled = @"scheduled";     // the timer was armed or switched off
static NSString* const SUStepFinished = @"finished";       // the end of a check that went well
static NSString* const SUStepFailed = @"failed";           // the end of a check that did not

// The windows, by their titles, and their buttons. The first button is the default one.
static NSString* const SUWindowChecking = @"Checking for updates…";     // Cancel
static NSString* const SUWindowUpdate = @"A new version is available!"; // see below
static NSString* const SUWindowDownloading = @"Downloading update…";    // Cancel
static NSString* const SUWindowReady = @"Ready to Install";             // Install and Relaunch
static NSString* const SUWindowAutomatic = @"A new version is ready";   // see below
static NSString* const SUWindowUpToDate = @"You're up to date!";        // OK
static NSString* const SUWindowError = @"Update Error!";                // Cancel Update
static NSString* const SUWindowPermission = @"Check for updates automatically?"; // see below

static NSString* const SUButtonInstall = @"Install Update"; // SUWindowUpdate, with
static NSString* const SUButtonSkip = @"Skip This Version";
static NSString* const SUButtonLater = @"Remind Me Later";
static NSString* const SUButtonInstallNow = @"Install and Relaunch"; // SUWindowAutomatic, with
static NSString* const SUButtonInstallAtQuit = @"Install on Quit";
static NSString* const SUButtonDoNotInstall = @"Don't Install";
static NSString* const SUButtonCheck = @"Check Automatically"; // SUWindowPermission, with
static NSString* const SUButtonDoNotCheck = @"Don't Check";
static NSString* const SUButtonCancel = @"Cancel";
static NSString* const SUButtonOK = @"OK";
static NSString* const SUButtonCancelUpdate = @"Cancel Update";

static NSString* const SUFailureFetch = @"fetch";         // nobody answers, or not to the end
static NSString* const SUFailureXML = @"xml";             // the appcast is no XML
static NSString* const SUFailureHost = @"host";           // the program cannot be updated
static NSString* const SUFailureDownload = @"download";   // the archive cannot be fetched
static NSString* const SUFailureSignature = @"signature"; // missing, malformed or wrong
static NSString* const SUFailureUnpack = @"unpack";
static NSString* const SUFailureInstall = @"install";

// `more` adds to the userInfo; nil for nothing.
void SUPostStep(id object, NSString* step, NSDictionary* more, NSString* format, ...)
    NS_FORMAT_FUNCTION(4, 5);
