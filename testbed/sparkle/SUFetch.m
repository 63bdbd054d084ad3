#import "SUFetch.h"
#include <stdlib.h>

static const int kMostRedirections = 5;

static NSTimeInterval longestSilence(void) {
  const char* text = getenv("SPARKLE_PATIENCE");
  double seconds = text ? atof(text) : 0;
  return seconds > 0 ? seconds : 30;
}

@implementation SUFetch

+ (SUFetch*)fetch:(NSURL*)url userAgent:(NSString*)agent target:(id)target done:(SEL)done {
  SUFetch* fetch = [[[SUFetch alloc] init] autorelease];
  fetch->userAgent = [agent copy];
  fetch->target = [target retain];
  fetch->done = done;
  fetch->data = [[NSMutableData alloc] init];
  [fetch performSelector:@selector(request:) withObject:url afterDelay:0];
  return fetch;
}

- (void)dealloc {
  [userAgent release];
  [data release];
  [problem release];
  [super dealloc];
}

- (NSData*)data {
  return data;
}

- (NSString*)problem {
  return problem;
}

// A connection to a file tells all it has to tell before it is there.
- (void)request:(NSURL*)url {
  [self alive];
  NSURLConnection* made = nil;
  @try {
    NSMutableURLRequest* request =
        [NSMutableURLRequest requestWithURL:url
                                cachePolicy:NSURLRequestReloadIgnoringLocalCacheData
                            timeoutInterval:longestSilence()];
    [request setHTTPShouldHandleCookies:NO];
    if ([userAgent length]) [request setValue:userAgent forHTTPHeaderField:@"User-Agent"];
    if ([[url scheme] length])
      made = [[NSURLConnection alloc] initWithRequest:request delegate:self];
    if (!made) [self failWith:[NSString stringWithFormat:@"no request can be made for %@", url]];
  } @catch (NSException* exception) {
    [self failWith:[exception reason]];
  }
  if (target)
    connection = made;
  else
    [made release];
}

- (BOOL)isCurrent:(NSURLConnection*)aConnection {
  return target && (!connection || aConnection == connection);
}

// The timer holds this object, too.
- (void)alive {
  [patience invalidate];
  patience = [NSTimer scheduledTimerWithTimeInterval:longestSilence()
                                              target:self
                                            selector:@selector(giveUp:)
                                            userInfo:nil
                                             repeats:NO];
}

- (void)stop {
  [connection cancel];
  [connection autorelease];
  connection = nil;
  [patience invalidate];
  patience = nil;
}

- (void)cancel {
  [[self retain] autorelease];
  [self stop];
  [NSObject cancelPreviousPerformRequestsWithTarget:self];
  [target autorelease];
  target = nil;
}

- (void)end {
  [[self retain] autorelease];
  [self stop];
  id told = [target autorelease];
  target = nil;
  [told performSelector:done withObject:self];
}

- (void)failWith:(NSString*)why {
  if (!problem) problem = [why copy];
  [self end];
}

- (void)giveUp:(NSTimer*)timer {
  (void)timer;
  [self failWith:[NSString stringWithFormat:@"nothing arrived for %g seconds after %lu bytes",
                                            longestSilence(), (unsigned long)[data length]]];
}

- (NSURLRequest*)connection:(NSURLConnection*)aConnection
            willSendRequest:(NSURLRequest*)request
           redirectResponse:(NSURLResponse*)redirect {
  (void)aConnection;
  if (!redirect) return request;
  // The connection leaves a relative Location as it is, so the request starts anew from here.
  NSString* location = [[(NSHTTPURLResponse*)redirect allHeaderFields] objectForKey:@"Location"];
  NSURL* url = [[NSURL URLWithString:location ? location : @""
                       relativeToURL:[redirect URL]] absoluteURL];
  NSString* scheme = [[url scheme] lowercaseString];
  [[self retain] autorelease];
  [self stop];
  [data setLength:0];
  if (++redirections > kMostRedirections)
    [self failWith:@"too many redirections"];
  else if (![scheme isEqualToString:@"http"] && ![scheme isEqualToString:@"https"])
    [self failWith:[NSString stringWithFormat:@"redirected to %@, which is refused", url]];
  else
    [self request:url];
  return nil;
}

- (void)connection:(NSURLConnection*)aConnection didReceiveResponse:(NSURLResponse*)response {
  if ([self isCurrent:aConnection]) expected = MAX([response expectedContentLength], 0);
}

- (void)connection:(NSURLConnection*)aConnection didReceiveData:(NSData*)bytes {
  if (![self isCurrent:aConnection]) return;
  [self alive];
  [data appendData:bytes];
  NSDictionary* info = [NSDictionary
      dictionaryWithObjectsAndKeys:[NSNumber numberWithUnsignedLongLong:[data length]], @"bytes",
                                   [NSNumber numberWithUnsignedLongLong:expected], @"expected",
                                   nil];
  [[NSNotificationCenter defaultCenter] postNotificationName:SUUpdaterProgressNotification
                                                      object:self
                                                    userInfo:info];
}

- (void)connection:(NSURLConnection*)aConnection didFailWithError:(NSError*)error {
  if ([self isCurrent:aConnection]) [self failWith:[error localizedDescription]];
}

- (void)connectionDidFinishLoading:(NSURLConnection*)aConnection {
  if ([self isCurrent:aConnection]) [self end];
}

@end
