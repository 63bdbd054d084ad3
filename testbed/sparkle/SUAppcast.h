// A feed of releases. fetchAppcastFromURL: works in the run loop of the thread that calls it, which
// keeps the appcast alive until it is done.
//
// There is deliberately no getter for the user agent: readers go through key-value coding, with the
// keys "userAgentString" and, in 1.5b6, "incrementalData" (the bytes of the last fetch that got
// any; nil before).
#import <Foundation/Foundation.h>

@class SUFetch;

@interface SUAppcast : NSObject {
  NSArray* items;
  NSString* userAgentString;
  NSData* received;
  id delegate; // not retained
}

// A fetch that fails (a nil URL too) leaves `items` as they were, and is told to the delegate only.
- (void)fetchAppcastFromURL:(NSURL*)url;

- (void)setUserAgentString:(NSString*)userAgent;
- (void)setDelegate:(id)delegate;

// SUAppcastItem objects, the newest first; nil before the first fetch, and when the feed has none
// that can be used.
- (NSArray*)items;

@end

// Both optional.
@interface NSObject (SUAppcastDelegate)
- (void)appcastDidFinishLoading:(SUAppcast*)appcast;
- (void)appcast:(SUAppcast*)appcast failedToLoadWithError:(NSError*)error;
@end

// Of an error above: its NSLocalizedFailureReasonErrorKey says why; its userInfo has one of
// SUFailureFetch and SUFailureXML for this key.
static NSString* const SUFailureKey = @"SUFailure";
