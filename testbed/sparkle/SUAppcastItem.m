#import "SUAppcastItem.h"

static NSURL* urlFrom(NSString* string) {
  @try {
    return string ? [NSURL URLWithString:string] : nil;
  } @catch (NSException* exception) {
    return nil;
  }
}

// The version in a file's name: "Program_1.2.zip" is 1.2.
static NSString* versionInName(NSString* url) {
  NSRange line = [url rangeOfString:@"_" options:NSBackwardsSearch];
  NSRange dot = [url rangeOfString:@"." options:NSBackwardsSearch];
  if (line.location == NSNotFound || dot.location == NSNotFound) return nil;
  if (dot.location <= NSMaxRange(line)) return nil;
  return [url substringWithRange:NSMakeRange(NSMaxRange(line), dot.location - NSMaxRange(line))];
}

@implementation SUAppcastItem

- (id)initWithDictionary:(NSDictionary*)properties problem:(NSString**)problem {
  if (!(self = [super init])) return nil;
  propertiesDictionary = [properties copy];
  NSString* url = [[self enclosure] objectForKey:@"url"];
  versionString = [[[self enclosure] objectForKey:@"sparkle:version"] copy];
  if (!versionString) versionString = [versionInName(url) copy];
  *problem = ![self enclosure] ? @"it has no enclosure"
             : !url            ? @"its enclosure has no url"
             : !versionString  ? @"its enclosure has no sparkle:version, and its url none either"
                               : nil;
  if (*problem) {
    [self release];
    return nil;
  }
  fileURL = [urlFrom([url stringByAddingPercentEscapesUsingEncoding:NSUTF8StringEncoding]) retain];
  NSString *notes = [properties objectForKey:@"sparkle:releaseNotesLink"],
           *description = [self itemDescription];
  if (!notes && [description hasPrefix:@"http://"]) notes = description;
  releaseNotesURL = [urlFrom(notes) retain];
  return self;
}

- (void)dealloc {
  [propertiesDictionary release];
  [releaseNotesURL release];
  [fileURL release];
  [versionString release];
  [super dealloc];
}

- (NSDictionary*)enclosure {
  return [propertiesDictionary objectForKey:@"enclosure"];
}

- (NSString*)title {
  return [propertiesDictionary objectForKey:@"title"];
}

- (NSString*)versionString {
  return versionString;
}

- (NSString*)displayVersionString {
  NSString* display = [[self enclosure] objectForKey:@"sparkle:shortVersionString"];
  return display ? display : versionString;
}

- (NSDate*)date {
  return [propertiesDictionary objectForKey:@"pubDate"];
}

- (NSString*)itemDescription {
  return [propertiesDictionary objectForKey:@"description"];
}

- (NSURL*)releaseNotesURL {
  return releaseNotesURL;
}

- (NSURL*)fileURL {
  return fileURL;
}

- (NSString*)DSASignature {
  return [[self enclosure] objectForKey:@"sparkle:dsaSignature"];
}

- (NSString*)minimumSystemVersion {
  return [propertiesDictionary objectForKey:@"sparkle:minimumSystemVersion"];
}

- (NSDictionary*)propertiesDictionary {
  return propertiesDictionary;
}

@end
