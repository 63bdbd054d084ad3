#import "SUAppcastItem.h"

static NSString* text(id value) {
  if (![value isKindOfClass:[NSString class]]) return nil;
  NSString* trimmed =
      [value stringByTrimmingCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]];
  return [trimmed length] ? trimmed : nil;
}

// A URL that can be asked for something: with a scheme, after it was put together with `base`.
static NSURL* urlFrom(id value, NSURL* base) {
  NSString* string = text(value);
  if (!string) return nil;
  @try {
    NSURL* url = [[NSURL URLWithString:string relativeToURL:base] absoluteURL];
    return [[url scheme] length] ? url : nil;
  } @catch (NSException* exception) {
    return nil;
  }
}

// The version in a file's name: "Program_1.2.zip" is 1.2.
static NSString* versionInName(NSString* path) {
  NSString* name = [[path lastPathComponent] stringByDeletingPathExtension];
  NSRange line = [name rangeOfString:@"_" options:NSBackwardsSearch];
  return line.location == NSNotFound ? nil : text([name substringFromIndex:NSMaxRange(line)]);
}

@implementation SUAppcastItem

- (id)initWithDictionary:(NSDictionary*)properties relativeToURL:(NSURL*)base {
  if (!(self = [super init])) return nil;
  propertiesDictionary = [properties copy];
  NSDictionary* enclosure = [self enclosure];
  releaseNotesURL = [urlFrom([properties objectForKey:@"sparkle:releaseNotesLink"], base) retain];
  if (!releaseNotesURL) {
    NSString* description = text([properties objectForKey:@"description"]);
    if ([description hasPrefix:@"http://"] || [description hasPrefix:@"https://"])
      releaseNotesURL = [urlFrom(description, nil) retain];
  }
  fileURL = [urlFrom([enclosure objectForKey:@"url"], base) retain];
  versionString = [text([enclosure objectForKey:@"sparkle:version"]) retain];
  if (!versionString) versionString = [versionInName([fileURL path]) retain];
  return self;
}

- (id)initWithDictionary:(NSDictionary*)properties {
  return [self initWithDictionary:properties relativeToURL:nil];
}

- (void)dealloc {
  [propertiesDictionary release];
  [releaseNotesURL release];
  [fileURL release];
  [versionString release];
  [super dealloc];
}

- (NSDictionary*)enclosure {
  id enclosure = [propertiesDictionary objectForKey:@"enclosure"];
  return [enclosure isKindOfClass:[NSDictionary class]] ? enclosure : nil;
}

- (NSString*)title {
  return text([propertiesDictionary objectForKey:@"title"]);
}

- (NSString*)versionString {
  return versionString;
}

- (NSString*)displayVersionString {
  NSString* display = text([[self enclosure] objectForKey:@"sparkle:shortVersionString"]);
  return display ? display : versionString;
}

- (NSDate*)date {
  id date = [propertiesDictionary objectForKey:@"pubDate"];
  return [date isKindOfClass:[NSDate class]] ? date : nil;
}

- (NSString*)itemDescription {
  return text([propertiesDictionary objectForKey:@"description"]);
}

- (NSURL*)releaseNotesURL {
  return releaseNotesURL;
}

- (NSURL*)fileURL {
  return fileURL;
}

- (NSString*)DSASignature {
  return text([[self enclosure] objectForKey:@"sparkle:dsaSignature"]);
}

- (NSString*)minimumSystemVersion {
  return text([propertiesDictionary objectForKey:@"sparkle:minimumSystemVersion"]);
}

- (NSDictionary*)propertiesDictionary {
  return propertiesDictionary;
}

- (NSString*)description {
  return [NSString stringWithFormat:@"<SUAppcastItem %@ \"%@\">", versionString, [self title]];
}

@end
