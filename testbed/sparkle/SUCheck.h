// One check, from the feed to the relaunch. The updater makes it and holds it; from start to its
// end it also holds itself, since fetches, windows and a postponed relaunch come back to it. It
// does not hold the updater: whoever lets that go in the middle of a check finds out
// (SUReleasedUpdater).
//
// Threads: all of it happens where it was started, but for unpacking, and for installing in 1.5b6.
#import "SUUpdater.h"

@class SUAppcast, SUAppcastItem, SUFetch;

typedef enum {
  SUCheckByThePerson,
  SUCheckInBackground,
  SUCheckAutomatic, // in the background, and downloads without asking
  SUCheckForInformation,
} SUCheckKind;

@interface SUCheck : NSObject {
  SUUpdater* updater; // not retained
  SUHost* host;
  SUCheckKind kind;
  NSThread* thread; // where its fetches and windows live
  SUWindow* window; // the one that is open
  SUAppcast* appcast;
  SUAppcastItem* update;
  SUFetch* download;
  NSString* folder; // that the update is unpacked into
  BOOL alerts;      // a person has seen something of it, and so sees a failure
  BOOL leaves;      // the application was told to quit: a check that never ends
  BOOL finished;
  id comparator;  // for the installation
  NSString* what; // of a failure, until it was told
  NSString* reason;
  NSString* failure;
}

- (id)initWithUpdater:(SUUpdater*)updater host:(SUHost*)host kind:(SUCheckKind)kind;
- (void)start;
- (BOOL)isFinished;

@end
