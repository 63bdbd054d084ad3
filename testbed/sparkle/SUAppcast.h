// A feed of releases. fetchAppcastFromURL: works on a thread of its own, which keeps the appcast
// alive until it is done; the members may be read from any thread at any time.
//
// There is deliberately no getter for the user agent: readers go through key-value coding, with the
// keys "userAgentString" and "incrementalData" (the bytes of the last fetch that got any; nil
// before).
#import "SUStep.h"

@interface SUAppcast : NSObject {
  NSArray* items; // what the last successful fetch gave
  NSString* userAgentString;
  NSData* incrementalData;
  id delegate; // not retained
}

// Returns at once. A fetch that fails (a nil URL too) leaves `items` as they were, is logged in one
// line, and is told to the delegate.
- (void)fetchAppcastFromURL:(NSURL*)url;

// The same on the calling thread, which must not be the main thread; the delegate hears nothing. NO
// and `problem` on failure: SUFailureFetch, SUFailureStatus, SUFailureXML or SUFailureItems.
- (BOOL)loadFromURL:(NSURL*)url problem:(SUProblem*)problem;

- (void)setUserAgentString:(NSString*)userAgent;
- (void)setDelegate:(id)delegate;

// SUAppcastItem objects in the order of the feed; nil before the first fetch.
- (NSArray*)items;

@end

// Both optional, called on the thread of the fetch.
@interface NSObject (SUAppcastDelegate)
- (void)appcastDidFinishLoading:(SUAppcast*)appcast;
- (void)appcast:(SUAppcast*)appcast failedToLoadWithError:(NSError*)error;
@end
