// One HTTP request in the run loop of the thread that starts it. It follows at most five
// redirections (to http and https only), keeps no cookies and no cache, and gives up when nothing
// arrives for SPARKLE_PATIENCE seconds (30). The HTTP status is not looked at.
#import "SUStep.h"

@interface SUFetch : NSObject {
  NSURLConnection* connection;
  NSTimer* patience;
  NSString* userAgent;
  id target; // retained while the request goes on
  SEL done;
  int redirections;
  NSMutableData* data;
  unsigned long long expected;
  NSString* problem;
}

// Tells `target` `done` with this object at the end, however it comes about; never before this
// returns. The answer is autoreleased and lives until the end. `userAgent` may be nil: the
// system's.
+ (SUFetch*)fetch:(NSURL*)url userAgent:(NSString*)userAgent target:(id)target done:(SEL)done;
// The target hears nothing.
- (void)cancel;

- (NSData*)data;      // what arrived
- (NSString*)problem; // why not everything did, for people; nil: it did

@end
