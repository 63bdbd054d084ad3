// One HTTP request, on the calling thread, which runs its run loop until the answer is there. So
// call it on a thread of the updater's own, never on the main thread.
//
// It follows at most five redirections (to http and https only), keeps no cookies and no cache, and
// gives up when nothing arrives for SUPatience() seconds or when the answer grows beyond `limit`
// bytes. `problem` is set on failure: SUFailureStatus for an HTTP status other than 2xx, else
// SUFailureFetch.
#import "SUStep.h"

// Seconds without a byte until a request is given up: the environment's SPARKLE_PATIENCE, else 30.
NSTimeInterval SUPatience(void);

// The answer's bytes, autoreleased; nil on failure. `userAgent` may be nil.
NSData* SUFetchData(NSURL* url, NSString* userAgent, long long limit, SUProblem* problem);

// Writes the answer to a new file at `path`. On failure the file may exist in part. Answers the
// number of bytes, -1 on failure.
long long SUFetchFile(NSURL* url, NSString* userAgent, NSString* path, long long limit,
                      SUProblem* problem);
