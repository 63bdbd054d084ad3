#import "SUAppcast.h"
#import "SUAppcastItem.h"
#import "SUDate.h"
#import "SUFetch.h"
#import "SUHost.h"
#import "SUVersion.h"
#import <Foundation/NSXMLDocument.h>
#import <Foundation/NSXMLElement.h>
#import <Foundation/NSXMLNode.h>

static BOOL isElement(NSXMLNode* node, NSString* name) {
  return [node kind] == NSXMLElementKind && (!name || [[node name] isEqualToString:name]);
}

// An attribute's name leaves out the prefix when that is declared; its text has it.
static NSString* fullName(NSXMLNode* attribute) {
  if (![[attribute URI] length]) return [attribute name];
  NSString* string = [attribute XMLString];
  NSRange equals = [string rangeOfString:@"="];
  if (equals.location == NSNotFound) return [attribute name];
  return [[string substringToIndex:equals.location]
      stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
}

static NSDictionary* attributesOf(NSXMLElement* element) {
  NSMutableDictionary* result = [NSMutableDictionary dictionary];
  for (NSXMLNode* attribute in [element attributes]) {
    NSString *name = fullName(attribute), *value = [attribute stringValue];
    if (name && value) [result setObject:value forKey:name];
  }
  return result;
}

// How well the person reads what a node is written in: the lower the better. A node without a
// language comes after those that fit and before those that do not.
static NSUInteger rankOf(NSXMLElement* node) {
  NSArray* languages = SULanguages();
  NSDictionary* attributes = attributesOf(node);
  NSString* language = [attributes objectForKey:@"xml:lang"];
  if (!language) return 2 * [languages count];
  NSString* primary = [[language componentsSeparatedByString:@"-"] objectAtIndex:0];
  for (NSUInteger i = 0; i < [languages count]; ++i) {
    NSString* spoken = [languages objectAtIndex:i];
    if ([spoken caseInsensitiveCompare:language] == NSOrderedSame) return 2 * i;
    if ([spoken caseInsensitiveCompare:primary] == NSOrderedSame) return 2 * i + 1;
  }
  return 2 * [languages count] + 1;
}

// The children by their names; of several of one name, the one that the person reads best.
static NSDictionary* childrenOf(NSXMLElement* item) {
  NSMutableDictionary* best = [NSMutableDictionary dictionary];
  for (NSXMLNode* child in [item children]) {
    if (!isElement(child, nil)) continue;
    NSXMLElement* other = [best objectForKey:[child name]];
    if (!other || rankOf((NSXMLElement*)child) < rankOf(other))
      [best setObject:child forKey:[child name]];
  }
  return best;
}

static NSDictionary* propertiesOf(NSXMLElement* item) {
  NSMutableDictionary* properties = [NSMutableDictionary dictionary];
  NSDictionary* children = childrenOf(item);
  for (NSString* name in children) {
    NSXMLElement* child = [children objectForKey:name];
    id value = [[child stringValue]
        stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
    if ([name isEqualToString:@"enclosure"]) value = attributesOf(child);
    if ([name isEqualToString:@"pubDate"]) value = SUDateFromFeed(value);
    if (value) [properties setObject:value forKey:name];
  }
  return properties;
}

static NSInteger byDate(id a, id b, void* context) {
  (void)context;
  NSDate *first = [a date], *second = [b date];
  if (!first || !second) return first ? NSOrderedAscending : second ? NSOrderedDescending : 0;
  return [second compare:first];
}

// In the order of the feed.
static NSMutableArray* itemsOf(NSXMLElement* root) {
  NSMutableArray* result = [NSMutableArray array];
  if (!isElement(root, @"rss")) return result;
  for (NSXMLNode* channel in [root children]) {
    if (!isElement(channel, @"channel")) continue;
    for (NSXMLNode* node in [channel children]) {
      if (!isElement(node, @"item")) continue;
      @autoreleasepool {
        NSString* problem = nil;
        SUAppcastItem* item =
            [[SUAppcastItem alloc] initWithDictionary:propertiesOf((NSXMLElement*)node)
                                              problem:&problem];
        if (item)
          [result addObject:item];
        else
          NSLog(@"Sparkle: an item of the appcast is left out: %@", problem);
        [item release];
      }
    }
  }
  return result;
}

// The items, retained; nil with *reason set when `data` is no XML.
static NSArray* newItems(NSData* data, NSString** reason) {
  // Nodes must be gone before their document: they are autoreleased in a pool of their own. One
  // document at a time, since the parser's error state is shared.
  @synchronized([SUAppcast class]) {
    NSXMLDocument* document = nil;
    NSArray* result = nil;
    NSString* why = nil;
    @autoreleasepool {
      @try {
        document = [[NSXMLDocument alloc] initWithData:data options:0 error:NULL];
        if ([document rootElement])
          result = [[itemsOf([document rootElement]) sortedArrayUsingFunction:byDate
                                                                      context:NULL] retain];
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
  [received release];
  [super dealloc];
}

- (void)setUserAgentString:(NSString*)userAgent {
  [userAgentString autorelease];
  userAgentString = [userAgent copy];
}

- (void)setDelegate:(id)newDelegate {
  delegate = newDelegate;
}

- (NSArray*)items {
  return [[items retain] autorelease];
}

- (id)valueForUndefinedKey:(NSString*)key {
  if (SUThisVersion()->keepsIncrementalData && [key isEqualToString:@"incrementalData"])
    return [[received retain] autorelease];
  return [super valueForUndefinedKey:key];
}

- (void)fetchAppcastFromURL:(NSURL*)url {
  SUPostStep(self, SUStepFetching, nil, @"%@", url);
  [SUFetch fetch:url userAgent:userAgentString target:self done:@selector(fetched:)];
}

- (void)failWith:(NSString*)failure because:(NSString*)reason {
  if (![delegate respondsToSelector:@selector(appcast:failedToLoadWithError:)]) return;
  NSDictionary* info =
      [NSDictionary dictionaryWithObjectsAndKeys:failure, SUFailureKey, reason,
                                                 NSLocalizedFailureReasonErrorKey, nil];
  [delegate appcast:self
      failedToLoadWithError:[NSError errorWithDomain:@"SUSparkleErrorDomain"
                                                code:1000
                                            userInfo:info]];
}

- (void)fetched:(SUFetch*)fetch {
  if ([[fetch data] length]) {
    [received release];
    received = [[fetch data] copy];
  }
  NSString* reason = [fetch problem];
  if (reason) return [self failWith:SUFailureFetch because:reason];
  NSArray* loaded = newItems([fetch data], &reason);
  if (!loaded) return [self failWith:SUFailureXML because:reason];
  [items release];
  items = [loaded count] ? [loaded retain] : nil;
  [loaded release];
  SUPostStep(self, SUStepLoaded, nil, @"%lu items", (unsigned long)[items count]);
  if ([delegate respondsToSelector:@selector(appcastDidFinishLoading:)])
    [delegate appcastDidFinishLoading:self];
}

@end
