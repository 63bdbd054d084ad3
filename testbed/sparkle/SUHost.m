#import "SUHost.h"
#import "SUVersion.h"
#include <stdlib.h>
#include <sys/statvfs.h>

static NSString* fromEnvironment(const char* name, NSString* otherwise) {
  const char* value = getenv(name);
  return value && *value ? [NSString stringWithUTF8String:value] : otherwise;
}

NSString* SUSystemVersion(void) { return fromEnvironment("SPARKLE_SYSTEM_VERSION", @"10.6.8"); }

NSArray* SULanguages(void) {
  return [fromEnvironment("SPARKLE_LANGUAGES", @"en") componentsSeparatedByString:@","];
}

// The first of the two layouts in which `relative` exists.
static NSString* existing(NSString* bundle, NSString* relative) {
  for (NSString *top in [NSArray arrayWithObjects:@"Contents", @"", nil]) {
    NSString* path =
        [[bundle stringByAppendingPathComponent:top] stringByAppendingPathComponent:relative];
    if ([[NSFileManager defaultManager] fileExistsAtPath:path]) return path;
  }
  return nil;
}

static BOOL isProgram(NSString* path) {
  BOOL folder = NO;
  NSFileManager* files = [NSFileManager defaultManager];
  return [files fileExistsAtPath:path isDirectory:&folder] && !folder &&
         [files isExecutableFileAtPath:path];
}

static NSString* stringOf(id value) {
  if ([value isKindOfClass:[NSNumber class]]) value = [value stringValue];
  return [value isKindOfClass:[NSString class]] && [value length] ? value : nil;
}

NSDictionary* SUBundleInfo(NSString* path) {
  NSString* plist = existing(path, @"Info.plist");
  if (!plist) plist = existing(path, @"Resources/Info-gnustep.plist");
  return plist ? [NSDictionary dictionaryWithContentsOfFile:plist] : nil;
}

NSString* SUBundleExecutable(NSString* path) {
  if (isProgram(path)) return path;
  NSDictionary* info = SUBundleInfo(path);
  NSString* name = stringOf([info objectForKey:@"CFBundleExecutable"]);
  if (!name) name = stringOf([info objectForKey:@"NSExecutable"]);
  if (!name) name = [[path lastPathComponent] stringByDeletingPathExtension];
  // A name with folders in it could lead out of the bundle.
  if (![name isEqualToString:[name lastPathComponent]] || [name isEqualToString:@".."]) return nil;
  NSString* program = existing(path, [@"MacOS" stringByAppendingPathComponent:name]);
  if (!program) program = existing(path, name);
  return isProgram(program) ? program : nil;
}

@implementation SUHost

+ (NSBundle*)bundleOrMain:(NSBundle*)bundle {
  if (bundle) return bundle;
  NSString* path = fromEnvironment("SPARKLE_HOST_BUNDLE", nil);
  NSBundle* chosen = path ? [NSBundle bundleWithPath:path] : nil;
  return chosen ? chosen : [NSBundle mainBundle];
}

- (id)initWithBundle:(NSBundle*)aBundle {
  if (!(self = [super init])) return nil;
  bundle = [aBundle retain];
  NSString* identifier = stringOf([self infoForKey:@"CFBundleIdentifier"]);
  if (!identifier)
    NSLog(@"Sparkle Error: %@ has no CFBundleIdentifier, so its settings are not kept.",
          [self path]);
  NSString* folder = fromEnvironment("SPARKLE_DEFAULTS_DIR", nil);
  if (identifier && folder)
    defaultsPath = [[[folder stringByAppendingPathComponent:identifier]
        stringByAppendingPathExtension:@"plist"] retain];
  NSDictionary* stored =
      defaultsPath ? [NSDictionary dictionaryWithContentsOfFile:defaultsPath] : nil;
  defaults = stored ? [stored mutableCopy] : [[NSMutableDictionary alloc] init];
  return self;
}

- (void)dealloc {
  [bundle release];
  [defaults release];
  [defaultsPath release];
  [super dealloc];
}

- (NSBundle*)bundle {
  return bundle;
}

- (NSString*)path {
  return [bundle bundlePath];
}

- (NSString*)name {
  NSString* name = stringOf([self infoForKey:@"CFBundleName"]);
  return name ? name : [[[self path] lastPathComponent] stringByDeletingPathExtension];
}

- (NSString*)version {
  NSString* version = stringOf([self infoForKey:@"CFBundleVersion"]);
  if (!version) version = stringOf([self infoForKey:@"CFBundleShortVersionString"]);
  return version ? version : @"0";
}

- (NSString*)userAgent {
  NSString* agent = [NSString
      stringWithFormat:@"%@/%@ Sparkle/%s", [self name], [self version], SUThisVersion() -> number];
  NSData* ascii = [agent dataUsingEncoding:NSASCIIStringEncoding allowLossyConversion:YES];
  return [[[NSString alloc] initWithData:ascii encoding:NSASCIIStringEncoding] autorelease];
}

- (BOOL)isOnReadOnlyVolume {
  struct statvfs volume;
  return !statvfs([[self path] fileSystemRepresentation], &volume) && (volume.f_flag & ST_RDONLY);
}

- (NSArray*)profile {
  NSString* rows[][2] = {{@"osVersion", SUSystemVersion()},
                         {@"cputype", @"7"},
                         {@"cpu64bit", @"1"},
                         {@"cpusubtype", @"4"},
                         {@"model", @"MacBook5,1"},
                         {@"ncpu", @"2"},
                         {@"lang", [SULanguages() objectAtIndex:0]},
                         {@"appName", [self name]},
                         {@"appVersion", [self version]},
                         {@"cpuFreqMHz", @"2400"},
                         {@"ramMB", @"2048"}};
  NSMutableArray* parameters = [NSMutableArray array];
  for (size_t i = 0; i < sizeof rows / sizeof *rows; ++i)
    [parameters addObject:[NSDictionary dictionaryWithObjectsAndKeys:rows[i][0], @"key", rows[i][1],
                                                                     @"value", nil]];
  return parameters;
}

- (NSString*)publicKey {
  NSString* name = stringOf([self infoForKey:@"SUPublicDSAKeyFile"]);
  if (!name) name = @"dsa_pub.pem";
  NSString* path =
      existing([self path], [@"Resources" stringByAppendingPathComponent:[name lastPathComponent]]);
  NSData* data = path ? [NSData dataWithContentsOfFile:path] : nil;
  return data ? [[[NSString alloc] initWithData:data encoding:NSASCIIStringEncoding] autorelease]
              : nil;
}

- (id)infoForKey:(NSString*)key {
  return [SUBundleInfo([self path]) objectForKey:key];
}

- (id)decisionForKey:(NSString*)key {
  @synchronized(self) {
    return [[[defaults objectForKey:key] retain] autorelease];
  }
}

- (id)objectForKey:(NSString*)key {
  id decision = [self decisionForKey:key];
  return decision ? decision : [self infoForKey:key];
}

- (void)setDecision:(id)value forKey:(NSString*)key {
  @synchronized(self) {
    if (value)
      [defaults setObject:value forKey:key];
    else
      [defaults removeObjectForKey:key];
    if (defaultsPath && ![defaults writeToFile:defaultsPath atomically:YES])
      NSLog(@"Sparkle: %@ cannot be written; what was decided now lasts until the program ends. "
            @"Is the folder there, and writable?",
            defaultsPath);
  }
}

@end
