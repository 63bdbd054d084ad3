// Which framework this one behaves like. One source serves them all; whatever differs between them
// is a member here, and nowhere else does a version decide.
//
// The environment's SPARKLE_VERSION names it when the framework is loaded: "1.5b6" (the default),
// "1.6" (1.6.1), or "workers": 1.5b6 with every callback on a thread that is not the main one.
#import <Foundation/Foundation.h>

typedef struct {
  const char* name;
  const char* number;             // in the user agent
  const char* feedKey;            // as the exception about a missing feed names it
  BOOL sparesAReference;          // the first request for an updater answers one more
  BOOL startsAtOnce;              // in the run loop's next turn, not when launching is announced
  BOOL checksInBackgroundLater;   // in the next turn, so that nothing is raised in the caller
  BOOL tellsNotFoundInBackground; // with automatic downloads off, too
  BOOL keepsIncrementalData;      // the key with the feed's bytes
  BOOL keepsALog;                 // of checks, and what becomes of them
  BOOL installsWithATool;         // after the relaunch was agreed to; all of it on the main thread
  BOOL worksOnThreads;            // a thread for each check
} SUVersion;

const SUVersion* SUThisVersion(void);
