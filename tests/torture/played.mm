#include "played.h"

#include "repetition.h"

#include <objc/runtime.h>

@implementation Played
+ (id)played {
  return [[self new] autorelease];
}
+ (id)playedSo:(Behaviour)behaviour {
  Played* made = [self played];
  made->behaviour = behaviour;
  return made;
}
- (id)answer:(id)usual {
  if (behaviour == PlayedRaises) [NSException raise:@"Refused" format:@"by the scenario"];
  return behaviour == PlayedAnswers ? usual : nil;
}
@end

#define ANSWER(selector, usual)                                                                    \
  -(id)selector {                                                                                  \
    return [self answer:usual];                                                                    \
  }

@implementation PlayedItem
ANSWER(title, @"Version 3.0")
ANSWER(versionString, @"3.0")
ANSWER(displayVersionString, @"3.0 \u00fcber alles")
ANSWER(date, played::date())
ANSWER(itemDescription, played::longString)
ANSWER(releaseNotesURL, [NSURL URLWithString:@"notes.html"
                               relativeToURL:[NSURL URLWithString:@"http://example.org/a/"]])
ANSWER(fileURL, [NSURL URLWithString:@"http://example.org/3.0.zip"])
ANSWER(DSASignature, @"MCwCFA==")
ANSWER(minimumSystemVersion, @"10.6")
ANSWER(propertiesDictionary, properties)
@end

@implementation PlayedAppcast
- (void)dealloc {
  [userAgent release];
  [items release];
  [fetched release];
  [super dealloc];
}
- (id)valueForKey:(NSString*)key {
  if ([key isEqual:@"userAgentString"]) return [self answer:userAgent];
  if ([key isEqual:@"incrementalData"])
    return [self answer:[NSData dataWithBytes:"<rss/>" length:6]];
  return [super valueForKey:key];
}
- (void)setUserAgentString:(NSString*)text {
  [self answer:nil];
  [userAgent autorelease];
  userAgent = [text copy];
}
- (void)fetchAppcastFromURL:(NSURL*)url {
  [self answer:nil];
  [fetched autorelease];
  fetched = [url retain];
}
ANSWER(items, items)
@end

@implementation PlayedUpdater
static PlayedUpdater* offered;
+ (void)offer:(PlayedUpdater*)updater {
  offered = updater;
}
+ (id)sharedUpdater {
  return [offered retain];
}
+ (id)updaterForBundle:(NSBundle*)bundle {
  (void)bundle;
  return [offered retain];
}
- (void)dealloc {
  [feed release];
  [super dealloc];
}
- (void)setDelegate:(id)given {
  delegate = given;
}
- (id)delegate {
  return delegate;
}
- (void)setFeedURL:(NSURL*)url {
  [self answer:nil];
  [feed autorelease];
  feed = [url retain];
}
ANSWER(feedURL, feed)
ANSWER(lastUpdateCheckDate, played::date())
ANSWER(hostBundle, [NSBundle bundleWithPath:@"/tmp"])
- (double)updateCheckInterval {
  [self answer:nil];
  return interval;
}
- (void)setUpdateCheckInterval:(double)seconds {
  [self answer:nil];
  interval = seconds;
}
#define FLAG(getter, setter, variable)                                                             \
  -(BOOL)getter {                                                                                  \
    [self answer:nil];                                                                             \
    return variable;                                                                               \
  }                                                                                                \
  -(void)setter : (BOOL)yes {                                                                      \
    [self answer:nil];                                                                             \
    variable = yes;                                                                                \
  }
FLAG(automaticallyChecksForUpdates, setAutomaticallyChecksForUpdates, checks)
FLAG(sendsSystemProfile, setSendsSystemProfile, profile)
FLAG(automaticallyDownloadsUpdates, setAutomaticallyDownloadsUpdates, downloads)
- (BOOL)updateInProgress {
  [self answer:nil];
  return actions != 0;
}
#define ACTION(selector)                                                                           \
  -(void)selector {                                                                                \
    [self answer:nil];                                                                             \
    ++actions;                                                                                     \
  }
ACTION(checkForUpdatesInBackground)
ACTION(checkForUpdateInformation)
ACTION(resetUpdateCycle)
- (void)checkForUpdates:(id)sender {
  [self answer:sender];
  ++actions;
}
@end

@implementation OneEntry
- (NSArray*)allKeys {
  return [NSArray arrayWithObject:@"value"];
}
- (id)objectForKey:(id)key {
  return [key isEqual:@"value"] ? value : nil;
}
@end

@implementation PlayedInvocation
- (void)invoke {
  ++invoked;
}
@end

namespace played {

// Longer than the 99 units that need no buffer from the heap.
const char* const longText = "What is new: one hundred and more units of text, so that the buffer "
                             "on the stack is too small for it, and then a few more.";
NSString* const longString = @"What is new: one hundred and more units of text, so that the buffer "
                              "on the stack is too small for it, and then a few more.";

NSDate* date() { return [NSDate dateWithTimeIntervalSince1970:1615107930.75]; }

namespace {

id classNamed(id, SEL, NSString* name) {
  static const struct {
    NSString* name;
    NSString* played;
  } classes[] = {{@"SUUpdater", @"PlayedUpdater"},
                 {@"SUAppcast", @"PlayedAppcast"},
                 {@"SUAppcastItem", @"PlayedItem"}};
  for (auto& row : classes)
    if ([name isEqual:row.name]) return NSClassFromString(row.played);
  return nil;
}

} // namespace

void loadFramework() {
  Method method = class_getInstanceMethod([NSBundle class], @selector(classNamed:));
  IMP original = method_setImplementation(method, reinterpret_cast<IMP>(classNamed));
  host::Object folder = host::folderItem(SPARKLE_FRAMEWORKS "/WithoutClasses.framework");
  bool loaded =
      host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean", folder)
          .as<bool>();
  method_setImplementation(method, original);
  if (!loaded) throw host::Error("the played framework cannot be loaded");
}

host::Object wrapping(const char* className, id object) {
  host::Object instance = torture::make(className);
  if (instance)
    host::set(instance, "Handle",
              static_cast<uint32_t>(reinterpret_cast<uintptr_t>([object retain])));
  return instance;
}

} // namespace played
