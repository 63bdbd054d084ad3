#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUDate.h"
#import "SUFetch.h"
#import <Foundation/NSXMLDocument.h>
#import <Foundation/NSXMLElement.h>
#import <Foundation/NSXMLNode.h>

static const long long kLargestFeed = 64 << 20;

static BOOL isElement(NSXMLNode* node) { return [node kind] == NSXMLElementKind; }

// An attribute's name leaves out the prefix when that is declared; its text has it.
static NSString* fullName(NSXMLNode* attribute) {
  if (![[attribute URI] length]) return [attribute name];
  NSString* string = [attribute XMLString];
  NSRange equals = [string rangeOfString:@"="];
  if (equals.location == NSNotFound) return [attribute name];
  return [[string substringToIndex:equals.location]
      stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
}

static NSMutableDictionary* attributesOf(NSXMLElement* element) {
  NSMutableDictionary* result = [NSMutableDictionary dictionary];
  for (NSXMLNode* attribute in [element attributes]) {
    NSString *name = fullName(attribute), *value = [attribute stringValue];
    if (name && value) [result setObject:value forKey:name];
  }
  return result;
}

static NSNumber* wholeNumber(NSString* text) {
  NSCharacterSet* others =
      [[NSCharacterSet characterSetWithCharactersInString:@"0123456789"] invertedSet];
  if (![text length] || [text length] > 18) return nil;
  if ([text rangeOfCharacterFromSet:others].location != NSNotFound) return nil;
  return [NSNumber numberWithLongLong:[text longLongValue]];
}

static NSDictionary* enclosureOf(NSXMLElement* element) {
  NSMutableDictionary* enclosure = attributesOf(element);
  NSNumber* length = wholeNumber([enclosure objectForKey:@"length"]);
  if (length) [enclosure setObject:length forKey:@"length"];
  return enclosure;
}

static id valueOfChild(NSXMLElement* child) {
  NSDictionary* attributes = attributesOf(child);
  if ([attributes count]) return attributes;
  NSString* text = [child stringValue];
  return [text length] ? text : [child name];
}

static id valueOf(NSXMLElement* element) {
  if ([[element name] isEqualToString:@"enclosure"]) return enclosureOf(element);
  NSMutableArray* inside = [NSMutableArray array];
  for (NSXMLNode* child in [element children])
    if (isElement(child)) [inside addObject:valueOfChild((NSXMLElement*)child)];
  if ([inside count]) return inside;
  NSString* text = [element stringValue];
  NSDate* date = [[element name] isEqualToString:@"pubDate"] ? SUDateFromFeed(text) : nil;
  return date ? (id)date : (id)text;
}

static NSDictionary* propertiesOf(NSXMLElement* item) {
  NSMutableDictionary* properties = [NSMutableDictionary dictionary];
  for (NSXMLNode* child in [item children]) {
    if (!isElement(child) || [properties objectForKey:[child name]]) continue;
    id value = valueOf((NSXMLElement*)child);
    if (value) [properties setObject:value forKey:[child name]];
  }
  return properties;
}

static NSMutableArray* itemsOf(NSXMLElement* root, NSURL* base) {
  NSMutableArray* result = [NSMutableArray array];
  for (NSXMLNode* channel in [root children]) {
    if (!isElement(channel) || ![[channel name] isEqualToString:@"channel"]) continue;
    for (NSXMLNode* node in [channel children]) {
      if (!isElement(node) || ![[node name] isEqualToString:@"item"]) continue;
      @autoreleasepool {
        NSDictionary* properties = propertiesOf((NSXMLElement*)node);
        SUAppcastItem* item = [[SUAppcastItem alloc] initWithDictionary:properties
                                                          relativeToURL:base];
        [result addObject:item];
        [item release];
      }
    }
  }
  return result;
}

// The items, retained; nil when `data` is no XML.
static NSArray* newItems(NSData* data, NSURL* base, NSString** reason) {
  // Nodes must be gone before their document: they are autoreleased in a pool of their own. One
  // document at a time, since the parser's error state is shared.
  @synchronized([SUAppcast class]) {
    NSXMLDocument* document = nil;
    NSArray* result = nil;
    NSString* why = nil;
    @autoreleasepool {
      @try {
        document = [[NSXMLDocument alloc] initWithData:data options:0 error:NULL];
        if ([document rootElement]) result = [itemsOf([document rootElement], base) retain];
      } @catch (NSException* exception) {
        // A reference to an entity, for one, is more than the nodes' class can stand.
        why = [[NSString alloc]
            initWithFormat:@"what it holds cannot be read (%@)", [exception reason]];
      }
      if (!result && !why)
        why = [[NSString alloc]
            initWithFormat:@"%lu bytes that are no well-formed XML", (unsigned long)[data length]];
    }
    [document release];
    *reason = [why autorelease];
    return result;
  }
}

@implementation SUAppcast

- (void)dealloc {
  [items release];
  [userAgentString release];
  [incrementalData release];
  [super dealloc];
}

- (void)setUserAgentString:(NSString*)userAgent {
  @synchronized(self) {
    if (userAgent == userAgentString) return;
    [userAgentString release];
    userAgentString = [userAgent copy];
  }
}

- (void)setDelegate:(id)newDelegate {
  @synchronized(self) {
    delegate = newDelegate;
  }
}

- (NSArray*)items {
  @synchronized(self) {
    return [[items retain] autorelease];
  }
}

// How key-value coding reads the bytes while a fetch on another thread replaces them.
- (NSData*)getIncrementalData {
  @synchronized(self) {
    return [[incrementalData retain] autorelease];
  }
}

- (BOOL)loadFromURL:(NSURL*)url problem:(SUProblem*)problem {
  *problem = (SUProblem){nil, nil};
  NSString* agent;
  @synchronized(self) {
    agent = [[userAgentString retain] autorelease];
  }
  if (![[url scheme] length]) {
    *problem = (SUProblem){
        SUFailureFetch,
        url ? [NSString stringWithFormat:@"the appcast cannot be fetched: \"%@\" is no URL", url]
            : @"the appcast cannot be fetched: there is no URL"};
    return NO;
  }
  NSData* data = SUFetchData(url, agent, kLargestFeed, problem);
  if (!data) {
    problem->reason = [NSString
        stringWithFormat:@"the appcast at %@ cannot be fetched: %@", url, problem->reason];
    return NO;
  }
  @synchronized(self) {
    [incrementalData release];
    incrementalData = [data retain];
  }
  NSString* reason = nil;
  NSArray* loaded = newItems(data, url, &reason);
  if (!loaded) {
    *problem = (SUProblem){
        SUFailureXML, [NSString stringWithFormat:@"the appcast at %@ is no XML: %@", url, reason]};
    return NO;
  }
  @synchronized(self) {
    [items release];
    items = loaded;
  }
  if ([loaded count] == 0) {
    *problem = (SUProblem){SUFailureItems,
                           [NSString stringWithFormat:@"the appcast at %@ has no items", url]};
    return NO;
  }
  return YES;
}

- (void)fetchOnThread:(NSURL*)url {
  @autoreleasepool {
    SUProblem problem = {nil, nil};
    @try {
      SUPostStep(self, SUStepFetching, nil, @"%@", url);
      BOOL loaded = [self loadFromURL:url problem:&problem];
      // An empty feed is a feed: only the updater finds fault with it.
      if ([problem.failure isEqualToString:SUFailureItems]) loaded = YES;
      id receiver;
      @synchronized(self) {
        receiver = [[delegate retain] autorelease];
      }
      if (loaded) {
        SUPostStep(self, SUStepLoaded, nil, @"%lu items from %@",
                   (unsigned long)[[self items] count], url);
        if ([receiver respondsToSelector:@selector(appcastDidFinishLoading:)])
          [receiver appcastDidFinishLoading:self];
        return;
      }
      NSLog(@"Sparkle: %@", problem.reason);
      SUPostStep(self, SUStepFailed,
                 [NSDictionary dictionaryWithObject:problem.failure forKey:@"failure"], @"%@",
                 problem.reason);
      if ([receiver respondsToSelector:@selector(appcast:failedToLoadWithError:)])
        [receiver appcast:self
            failedToLoadWithError:
                [NSError
                    errorWithDomain:@"SUSparkleErrorDomain"
                               code:1000
                           userInfo:[NSDictionary dictionaryWithObject:problem.reason
                                                                forKey:NSLocalizedDescriptionKey]]];
    } @catch (NSException* exception) {
      NSLog(@"Sparkle: the fetch of %@ ended with an exception: %@", url, exception);
    }
  }
}

- (void)fetchAppcastFromURL:(NSURL*)url {
  static int count;
  NSThread* thread = [[NSThread alloc] initWithTarget:self
                                             selector:@selector(fetchOnThread:)
                                               object:url];
  [thread setName:[NSString stringWithFormat:@"appcast fetch %d", __sync_add_and_fetch(&count, 1)]];
  [thread start];
  [thread release];
}

@end
