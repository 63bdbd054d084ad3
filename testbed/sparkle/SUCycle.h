// One check, from the feed to the relaunch, on a thread of its own. The updater makes it; while its
// thread runs or its invocation is in somebody's hands it keeps itself alive, and its end, however
// it comes about, is told to the updater by cycleEnded.
#import "SUUpdater.h"

@class SUAppcast, SUAppcastItem;

@interface SUCycle : NSObject {
  SUUpdater* updater;
  SUHost* host;
  NSURL* feedURL;
  BOOL informationOnly;
  SUAppcastItem* update;
  NSString* workFolder;
  BOOL continued; // the relaunch has begun or is under way
  BOOL ended;
  NSString* outcome;        // for people, once it is known
  NSString* outcomeFailure; // nil: it went well
  NSThread* endingThread;   // where the outcome came about, until it is announced; not retained
}

- (id)initWithUpdater:(SUUpdater*)updater
                 host:(SUHost*)host
              feedURL:(NSURL*)feedURL
      informationOnly:(BOOL)informationOnly;

// Returns at once.
- (void)start;

@end

// The updater's side, for the cycle.
@interface SUUpdater (Cycle)
// The delegate, kept alive until the caller's autorelease pool goes, if it has the method; else
// nil.
- (id)delegateFor:(SEL)selector;
- (void)cycleEnded;
@end
