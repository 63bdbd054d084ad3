// The road of a check, step by step, for whoever wants to watch: every step is one notification.
//
// Posted to the default notification center, on the thread on which the step happens, with the
// updater as its object (an appcast, for a fetch that a program started itself). An observer
// that raises is logged by the center and changes nothing.
//
// userInfo: "step" (one of the names below), "detail" (one line for people, never absent),
// "thread" (name of the thread: "main" or, for example, "update check 1"); "failure" in
// SUStepFailed, one of the SUFailure names; "pid" (NSNumber) in SUStepRelaunching; "selector" in
// SUStepDelegate.
#import <Foundation/Foundation.h>

static NSString* const SUUpdaterStepNotification = @"SUUpdaterStepNotification";

static NSString* const SUStepChecking = @"checking";       // a check begins
static NSString* const SUStepIgnored = @"ignored";         // a check while one is in progress
static NSString* const SUStepDelegate = @"delegate";       // about to call the delegate
static NSString* const SUStepFetching = @"fetching";       // the appcast
static NSString* const SUStepLoaded = @"loaded";           // n items
static NSString* const SUStepComparing = @"comparing";     // the host's version with an item's
static NSString* const SUStepFound = @"found";             // a newer version
static NSString* const SUStepNotFound = @"not found";      // nothing newer
static NSString* const SUStepDownloading = @"downloading"; // the archive
static NSString* const SUStepDownloaded = @"downloaded";
static NSString* const SUStepSignature = @"signature"; // valid
static NSString* const SUStepUnpacked = @"unpacked";
static NSString* const SUStepInstalling = @"installing";
static NSString* const SUStepInstalled = @"installed";
static NSString* const SUStepPostponed = @"relaunch postponed";
static NSString* const SUStepContinued = @"relaunch continued";
static NSString* const SUStepRelaunching = @"relaunching"; // the program was started, see "pid"
static NSString* const SUStepPermission = @"permission";   // may it check by itself?
static NSString* const SUStepScheduled = @"scheduled";     // the timer was armed or switched off
static NSString* const SUStepFinished = @"finished";       // the end of a check that went well
static NSString* const SUStepFailed = @"failed";           // the end of a check that did not

static NSString* const SUFailureFetch = @"fetch";         // nobody answers, or not to the end
static NSString* const SUFailureStatus = @"status";       // an HTTP status other than 2xx
static NSString* const SUFailureXML = @"xml";             // the appcast is no XML
static NSString* const SUFailureItems = @"items";         // the appcast has no items
static NSString* const SUFailureHost = @"host";           // the host bundle lacks what is needed
static NSString* const SUFailureDownload = @"download";   // the archive cannot be fetched
static NSString* const SUFailureSignature = @"signature"; // missing, malformed or wrong
static NSString* const SUFailureUnpack = @"unpack";
static NSString* const SUFailureInstall = @"install";
static NSString* const SUFailureRelaunch = @"relaunch";
static NSString* const SUFailureException = @"exception"; // something was thrown on the way

// What went wrong: a name of the list above and one line for people. `reason` nil: nothing did.
typedef struct {
  NSString* failure;
  NSString* reason; // autoreleased
} SUProblem;

// `more` adds to the userInfo; nil for nothing.
void SUPostStep(id object, NSString* step, NSDictionary* more, NSString* format, ...)
    NS_FORMAT_FUNCTION(4, 5);
