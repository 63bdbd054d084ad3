#import "SUHost.h"
#include <stdlib.h>

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
  const char* folder = getenv("SPARKLE_HOST_BUNDLE");
  NSString* path = folder && *folder ? [NSString stringWithUTF8String:folder] : nil;
  NSBundle* chosen = path ? [NSBundle bundleWithPath:path] : nil;
  return chosen ? chosen : [NSBundle mainBundle];
}

- (id)initWithBundle:(NSBundle*)aBundle {
  if (!(self = [super init])) return nil;
  bundle = [aBundle retain];
  const char* folder = getenv("SPARKLE_DEFAULTS_DIR");
  if (folder && *folder) {
    NSString* identifier = stringOf([self infoForKey:@"CFBundleIdentifier"]);
    if (!identifier) identifier = [self name];
    identifier = [identifier stringByReplacingOccurrencesOfString:@"/" withString:@"_"];
    defaultsPath = [[[NSString stringWithUTF8String:folder]
        stringByAppendingPathComponent:[identifier stringByAppendingPathExtension:@"plist"]]
        retain];
  }
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
  return version ? version : stringOf([self infoForKey:@"CFBundleShortVersionString"]);
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
