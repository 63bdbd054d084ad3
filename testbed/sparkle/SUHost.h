// What the updater knows about the program that it updates: its bundle, and what was decided for
// it.
//
// Two layouts of a bundle are understood, "Contents/Info.plist, Contents/MacOS, Contents/Resources"
// and the same without "Contents" (then the executable may also stand at the top). The Info.plist
// is read from disk each time, so that the answers are those of the version that is installed now.
//
// Decisions ("the user defaults") are a property list, IDENTIFIER.plist, in the folder that the
// environment names in SPARKLE_DEFAULTS_DIR, written at each change. Without that variable they
// live in memory only: nothing is ever written to a person's home. Any thread may call.
#import <Foundation/Foundation.h>

@interface SUHost : NSObject {
  NSBundle* bundle;
  NSMutableDictionary* defaults;
  NSString* defaultsPath; // nil: memory only
}

// The bundle for nil: the folder that the environment names in SPARKLE_HOST_BUNDLE, since the main
// bundle of a test or a command-line program is no application; without it the main bundle.
+ (NSBundle*)bundleOrMain:(NSBundle*)bundle;

- (id)initWithBundle:(NSBundle*)bundle;
- (NSBundle*)bundle;
- (NSString*)path; // of the bundle's folder

- (NSString*)name;
- (NSString*)version; // CFBundleVersion, else CFBundleShortVersionString, else "0"
- (NSString*)userAgent;
- (BOOL)isOnReadOnlyVolume;
- (NSString*)publicKey; // the text of the file that SUPublicDSAKeyFile names in Resources
                        // ("dsa_pub.pem" if nothing is named); nil if there is none

// What the system profile says of the machine that the testbed stands for, as feed parameters.
- (NSArray*)profile;

// A decision, else the Info.plist's value under the same key, else nil.
- (id)objectForKey:(NSString*)key;
- (id)decisionForKey:(NSString*)key;
- (id)infoForKey:(NSString*)key;
- (void)setDecision:(id)value forKey:(NSString*)key; // nil removes it

@end

// The version of the system that the testbed stands for: the environment's SPARKLE_SYSTEM_VERSION,
// else 10.6.8.
NSString* SUSystemVersion(void);

// The languages that the person reads, the best first, as in xml:lang: the environment's
// SPARKLE_LANGUAGES ("de,en"), else English.
NSArray* SULanguages(void);

// The Info.plist of the bundle in the folder `path`; nil if there is none.
NSDictionary* SUBundleInfo(NSString* path);

// The program of the bundle in the folder `path`, or `path` itself if it is a program; nil if there
// is none that can be run.
NSString* SUBundleExecutable(NSString* path);
