#import "SUFetch.h"
#include <stdlib.h>

static const int kMostRedirections = 5;

NSTimeInterval SUPatience(void) {
  const char* text = getenv("SPARKLE_PATIENCE");
  double seconds = text ? atof(text) : 0;
  return seconds > 0 ? seconds : 30;
}

@interface SUFetch : NSObject {
@public
  NSMutableData* data; // one of the two takes the bytes
  NSFileHandle* file;
  long long limit;
  long long received;
  long long expected; // -1: the server did not say
  BOOL done;
  NSURL* redirection;
  NSURLResponse* response;
  NSDate* lastSign;
  SUProblem problem; // owned while the fetch lives
}
@end

@implementation SUFetch

- (void)dealloc {
  [data release];
  [file release];
  [redirection release];
  [response release];
  [lastSign release];
  [problem.reason release];
  [super dealloc];
}

- (void)alive {
  [lastSign release];
  lastSign = [[NSDate alloc] init];
}

- (void)failWith:(NSString*)failure reason:(NSString*)reason {
  done = YES;
  if (problem.reason) return;
  problem.failure = failure;
  problem.reason = [reason copy];
}

- (NSURLRequest*)connection:(NSURLConnection*)connection
            willSendRequest:(NSURLRequest*)request
           redirectResponse:(NSURLResponse*)redirect {
  if (!redirect) return request;
  // The connection leaves a relative Location as it is, so the request starts anew from here.
  NSString* location = [[(NSHTTPURLResponse*)redirect allHeaderFields] objectForKey:@"Location"];
  NSURL* base = [redirect URL];
  redirection = [[[NSURL URLWithString:location ? location : @""
                         relativeToURL:base] absoluteURL] retain];
  done = YES;
  [connection cancel];
  return nil;
}

- (void)connection:(NSURLConnection*)connection didReceiveResponse:(NSURLResponse*)answer {
  [self alive];
  [response release];
  response = [answer retain];
  expected = [answer expectedContentLength];
  if (![answer isKindOfClass:[NSHTTPURLResponse class]]) return;
  NSInteger status = [(NSHTTPURLResponse*)answer statusCode];
  if (status >= 200 && status <= 299) return;
  if (status == 0)
    [self failWith:SUFailureFetch reason:@"the answer is no HTTP"];
  else
    [self failWith:SUFailureStatus
            reason:[NSString stringWithFormat:@"the server answered HTTP status %d", (int)status]];
  [connection cancel];
}

- (void)connection:(NSURLConnection*)connection didReceiveData:(NSData*)bytes {
  if (done) return;
  [self alive];
  received += (long long)[bytes length];
  if (received > limit) {
    [connection cancel];
    [self failWith:SUFailureFetch
            reason:[NSString stringWithFormat:@"the answer is larger than %lld bytes", limit]];
    return;
  }
  [data appendData:bytes];
  [file writeData:bytes];
}

- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error {
  (void)connection;
  [self failWith:SUFailureFetch reason:[error localizedDescription]];
}

- (void)connectionDidFinishLoading:(NSURLConnection*)connection {
  (void)connection;
  done = YES;
}

- (void)requestURL:(NSURL*)url userAgent:(NSString*)userAgent {
  NSMutableURLRequest* request =
      [NSMutableURLRequest requestWithURL:url
                              cachePolicy:NSURLRequestReloadIgnoringLocalCacheData
                          timeoutInterval:SUPatience()];
  [request setHTTPShouldHandleCookies:NO];
  if ([userAgent length]) [request setValue:userAgent forHTTPHeaderField:@"User-Agent"];
  [self alive];
  NSURLConnection* connection = [[NSURLConnection alloc] initWithRequest:request delegate:self];
  if (!connection) [self failWith:SUFailureFetch reason:@"no request can be made for this URL"];
  while (!done) {
    @autoreleasepool {
      [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode
                               beforeDate:[NSDate dateWithTimeIntervalSinceNow:0.25]];
      if (!done && -[lastSign timeIntervalSinceNow] > SUPatience())
        [self
            failWith:SUFailureFetch
              reason:[NSString stringWithFormat:@"nothing arrived for %g seconds after %lld bytes",
                                                SUPatience(), received]];
    }
  }
  [connection cancel];
  [connection release];
}

- (BOOL)run:(NSURL*)url userAgent:(NSString*)userAgent problem:(SUProblem*)out {
  @try {
    for (int turn = 0; url && !problem.reason; ++turn) {
      if (turn > kMostRedirections) {
        [self failWith:SUFailureFetch reason:@"too many redirections"];
        break;
      }
      done = NO;
      expected = -1;
      [self requestURL:url userAgent:userAgent];
      url = [redirection autorelease];
      redirection = nil;
      NSString* scheme = [[url scheme] lowercaseString];
      if (url && ![scheme isEqualToString:@"http"] && ![scheme isEqualToString:@"https"])
        [self failWith:SUFailureFetch
                reason:[NSString stringWithFormat:@"redirected to %@, which is refused", url]];
    }
    if (!problem.reason && !response)
      [self failWith:SUFailureFetch reason:@"the connection ended without an answer"];
    if (!problem.reason && expected >= 0 && received < expected)
      [self failWith:SUFailureFetch
              reason:[NSString stringWithFormat:@"the answer ended after %lld of %lld bytes",
                                                received, expected]];
  } @catch (NSException* exception) {
    [self failWith:SUFailureFetch
            reason:[exception reason] ? [exception reason] : [exception name]];
  }
  out->failure = problem.failure;
  out->reason = [[problem.reason retain] autorelease];
  return !problem.reason;
}

@end

NSData* SUFetchData(NSURL* url, NSString* userAgent, long long limit, SUProblem* problem) {
  SUFetch* fetch = [[[SUFetch alloc] init] autorelease];
  fetch->data = [[NSMutableData alloc] init];
  fetch->limit = limit;
  if (![fetch run:url userAgent:userAgent problem:problem]) return nil;
  return [[fetch->data retain] autorelease];
}

long long SUFetchFile(NSURL* url, NSString* userAgent, NSString* path, long long limit,
                      SUProblem* problem) {
  SUFetch* fetch = [[[SUFetch alloc] init] autorelease];
  [[NSFileManager defaultManager] createFileAtPath:path contents:nil attributes:nil];
  fetch->file = [[NSFileHandle fileHandleForWritingAtPath:path] retain];
  fetch->limit = limit;
  if (!fetch->file) {
    *problem = (SUProblem){SUFailureFetch,
                           [NSString stringWithFormat:@"the file %@ cannot be written", path]};
    return -1;
  }
  BOOL fetched = [fetch run:url userAgent:userAgent problem:problem];
  [fetch->file closeFile];
  return fetched ? fetch->received : -1;
}
