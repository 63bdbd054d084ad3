// Cocoa objects that play the framework's part in tests of the plug-in: they remember what they are
// sent, and answer what they are told to. One process serves one test, so everything is global.
//
//   FakeItem* item = [[FakeItem new] autorelease];
//   fakes::answer("title") = @"New";
//   host::Object instance = fakes::wrapping("SUAppcastItemKVZ", item);
//   EXPECT_EQ(host::get<std::string>(instance, "title as string"), "New");
//   EXPECT_THAT(fakes::received(), testing::ElementsAre("title"));
//
// Include it in one source of a program: the classes are defined here. Any thread may send.
#pragma once

#include "session.h"
#include "unreported.h"

#include "testbed/cocoa/faults.h"

#import <Foundation/Foundation.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" const void* CFDictionaryGetValue(id dictionary, const void* key);

@interface NSException (SharedWithThePlugins)
+ (id)GetInstancesDictionaryKVZ;
@end

namespace fakes {

struct State {
  std::mutex mutex;
  std::vector<std::string> received;
  std::map<std::string, std::function<void()>> hooks;
  std::map<std::string, id> answers;
  std::map<std::string, bool> flags;
  double interval = 0;
  id delegate = nil; // of FakeUpdater, not retained
  id registry = nil;
  unsigned initialisations = 0;
  std::atomic<unsigned> freed{0};
};
inline State& state() {
  static auto* state = new State;
  return *state;
}

// What a message with this selector is answered; not retained. Nil by default.
inline id& answer(const std::string& selector) { return state().answers[selector]; }
// The same for booleans.
inline bool& flag(const std::string& selector) { return state().flags[selector]; }
// Runs when a message with this selector has been noted, before it is carried out; may throw.
inline std::function<void()>& on(const std::string& selector) { return state().hooks[selector]; }

// "selector", or "selector: argument", of each message since the last call.
inline std::vector<std::string> received() {
  std::lock_guard guard(state().mutex);
  return std::exchange(state().received, {});
}
// How many fakes have been deallocated.
inline unsigned freed() { return state().freed; }

// Text as it is, the class of anything else.
inline std::string show(id object) {
  if (!object) return "nil";
  if ([object isKindOfClass:[NSURL class]]) object = [object absoluteString];
  if ([object isKindOfClass:[NSString class]]) return [object UTF8String];
  return object_getClassName(object);
}

inline void note(const std::string& selector, const std::string& argument = {}) {
  {
    std::lock_guard guard(state().mutex);
    state().received.push_back(selector + (argument.empty() ? "" : " " + argument));
  }
  auto hook = state().hooks.find(selector);
  if (hook != state().hooks.end() && hook->second) hook->second();
}
inline id answered(const std::string& selector) {
  note(selector);
  return answer(selector);
}

inline void raise(NSString* name = @"Refused", NSString* reason = @"by the test") {
  [NSException raise:name format:@"%@", reason];
}
// Throws what is no NSException; answers what it threw last.
inline id& thrownObject() {
  static id object;
  return object;
}
inline void throwOther() {
  thrownObject() = [[NSObject new] autorelease];
  @throw thrownObject();
}

// An instance whose Handle is the object, and which owns a reference on it, as host instances do.
inline host::Object wrapping(std::string_view className, id object) {
  host::Object instance = host::create(className);
  host::set(instance, "Handle",
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>([object retain])));
  return instance;
}
inline id wrapped(const host::Object& instance) {
  return reinterpret_cast<id>(static_cast<uintptr_t>(host::get<uint32_t>(instance, "Handle")));
}
// The instance that the registry maps the object to, borrowed.
inline const void* registered(id object) {
  return CFDictionaryGetValue([NSException GetInstancesDictionaryKVZ], object);
}

// The host instance that an event carries for the object: what the main thread's half of a report
// hands to its handler.
inline host::Object handedOver(const char* event, const char* half, id object) {
  static bool observing;
  if (!std::exchange(observing, true)) host::subclass("Observer", "SUUpdaterKVZ");
  host::Object seen, observer = host::construct("Observer", "Constructor");
  host::handle("Observer", event, [&](host::Event& raised) { seen = raised[0]; });
  id delegate = static_cast<id*>(host::data(observer, "SUUpdaterKVZ"))[1];
  [delegate performSelector:sel_registerName(half) withObject:object];
  return seen;
}

inline std::map<std::string, Class>& frameworkClasses() {
  static auto* classes = new std::map<std::string, Class>;
  return *classes;
}
inline id classNamed(id, SEL, NSString* name) { return frameworkClasses()[[name UTF8String]]; }

// Makes the plug-in load a framework that consists of these classes.
inline bool load(const std::map<std::string, Class>& classes) {
  frameworkClasses() = classes;
  Method method = class_getInstanceMethod([NSBundle class], @selector(classNamed:));
  IMP original = method_setImplementation(method, reinterpret_cast<IMP>(classNamed));
  bool loaded = session::loadFramework("WithoutClasses");
  method_setImplementation(method, original);
  return loaded;
}

// The messages that the plug-in sends while this stands, as -[Class selector].
class Spy {
public:
  Spy() {
    faults_on_message(
        [](void* context, id receiver, SEL selector) {
          auto* spy = static_cast<Spy*>(context);
          bool meta = class_isMetaClass(object_getClass(receiver));
          std::string line = std::string(meta ? "+[" : "-[") + object_getClassName(receiver) + " " +
                             sel_getName(selector) + "]";
          std::lock_guard guard(spy->mutex_);
          spy->messages_.push_back(line);
        },
        this);
    faults_start(FAULTS_ALL_THREADS);
  }
  ~Spy() {
    faults_stop();
    faults_on_message(nullptr, nullptr);
  }
  Spy(const Spy&) = delete;
  Spy& operator=(const Spy&) = delete;

  std::vector<std::string> messages() const {
    std::lock_guard guard(mutex_);
    return messages_;
  }
  int count(const std::string& message) const {
    std::lock_guard guard(mutex_);
    return static_cast<int>(std::count(messages_.begin(), messages_.end(), message));
  }

private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

// The pointers behind OBJECT's class when it hands its dealloc on, which BODY makes it do.
template <std::size_t Count>
std::array<void*, Count> variablesAtTheEnd(id object, const std::function<void()>& body) {
  struct Watch {
    id object;
    std::array<void*, Count> variables;
  } watch{object, {}};
  watch.variables.fill(object); // until they are seen
  faults_on_message(
      [](void* context, id receiver, SEL selector) {
        auto* watch = static_cast<Watch*>(context);
        if (receiver == watch->object && sel_isEqual(selector, @selector(dealloc)))
          memcpy(&watch->variables, reinterpret_cast<void**>(receiver) + 1, Count * sizeof(void*));
      },
      &watch);
  faults_start(FAULTS_THIS_THREAD);
  body();
  faults_stop();
  faults_on_message(nullptr, nullptr);
  return watch.variables;
}

// Runs BODY on a worker thread while the main thread turns its run loop. False when it did not end
// in time.
inline bool onWorker(const std::function<void()>& body) {
  auto* done = new std::atomic<bool>(false);
  std::thread worker([&body, done] {
    {
      host::Pool pool;
      body();
    }
    *done = true;
  });
  if (!host::runUntil([done] { return done->load(); }, 30)) {
    worker.detach();
    return false;
  }
  worker.join();
  delete done;
  return true;
}

// Calls BODY again and again, each time with a later message of the plug-in throwing, until one
// call comes through. Every throw must arrive as one NSExceptionKVZ and one log line; AFTER sees
// each failed call. Answers how many messages BODY sends.
inline unsigned failEachMessage(const std::function<void()>& prepare,
                                const std::function<void()>& body,
                                const std::function<void()>& after) {
  for (unsigned nth = 1;; ++nth) {
    SCOPED_TRACE("message " + std::to_string(nth));
    prepare();
    session::takeLog();
    faults_start(FAULTS_ALL_THREADS);
    faults_fail_message(nth, FAULTS_NSEXCEPTION);
    body();
    bool failed = faults_fired() != 0;
    faults_fail_message(0, FAULTS_NSEXCEPTION);
    faults_stop();
    if (!failed) return nth - 1;
    auto raised = host::takeException();
    EXPECT_TRUE(raised) << "nothing was raised";
    if (!raised || nth > 1000) return nth;
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->count, 1u);
    auto log = session::takeLog();
    EXPECT_EQ(log.size(), 1u);
    EXPECT_NE(log.empty() ? std::string::npos : log[0].find("A " FAULTS_EXCEPTION_NAME ": "),
              std::string::npos);
    after();
  }
}

} // namespace fakes

#define FAKE_ANSWER(selector)                                                                      \
  -(id)selector {                                                                                  \
    return fakes::answered(#selector);                                                             \
  }
#define FAKE_FLAG(selector)                                                                        \
  -(BOOL)selector {                                                                                \
    fakes::note(#selector);                                                                        \
    return fakes::flag(#selector);                                                                 \
  }
#define FAKE_SET_FLAG(selector)                                                                    \
  -(void)selector : (BOOL)yes {                                                                    \
    fakes::note(#selector ":", yes ? "YES" : "NO");                                                \
  }
#define FAKE_SET(selector)                                                                         \
  -(void)selector : (id)value {                                                                    \
    fakes::note(#selector ":", fakes::show(value));                                                \
  }
#define FAKE_ACTION(selector)                                                                      \
  -(void)selector {                                                                                \
    fakes::note(#selector);                                                                        \
  }

@interface FakeObject : NSObject
@end
@implementation FakeObject
- (void)dealloc {
  ++fakes::state().freed;
  [super dealloc];
}
@end

@interface FakeUpdater : FakeObject
@end
@implementation FakeUpdater
+ (id)sharedUpdater {
  return fakes::answered("sharedUpdater");
}
+ (id)updaterForBundle:(NSBundle*)bundle {
  fakes::note("updaterForBundle:", bundle ? [[bundle bundlePath] UTF8String] : "nil");
  return fakes::answer("updaterForBundle:");
}
- (void)setDelegate:(id)delegate {
  fakes::state().delegate = delegate;
  fakes::note("setDelegate:", fakes::show(delegate));
}
FAKE_ANSWER(feedURL)
FAKE_SET(setFeedURL)
FAKE_FLAG(automaticallyChecksForUpdates)
FAKE_SET_FLAG(setAutomaticallyChecksForUpdates)
FAKE_FLAG(sendsSystemProfile)
FAKE_SET_FLAG(setSendsSystemProfile)
FAKE_FLAG(automaticallyDownloadsUpdates)
FAKE_SET_FLAG(setAutomaticallyDownloadsUpdates)
FAKE_ACTION(checkForUpdatesInBackground)
FAKE_ACTION(checkForUpdateInformation)
FAKE_ACTION(resetUpdateCycle)
FAKE_FLAG(updateInProgress)
- (double)updateCheckInterval {
  fakes::note("updateCheckInterval");
  return fakes::state().interval;
}
- (void)setUpdateCheckInterval:(double)seconds {
  fakes::note("setUpdateCheckInterval:");
  fakes::state().interval = seconds;
}
FAKE_ANSWER(lastUpdateCheckDate)
FAKE_SET(checkForUpdates)
FAKE_ANSWER(hostBundle)
@end

@interface FakeAppcast : FakeObject
@end
@implementation FakeAppcast
- (id)init {
  if ((self = [super init])) fakes::note("init");
  return self;
}
- (id)valueForKey:(NSString*)key {
  std::string name = [key UTF8String];
  fakes::note("valueForKey:", name);
  return fakes::answer("valueForKey: " + name);
}
FAKE_SET(setUserAgentString)
FAKE_SET(fetchAppcastFromURL)
FAKE_ANSWER(items)
@end

@interface FakeItem : FakeObject
@end
@implementation FakeItem
- (id)init {
  if ((self = [super init])) fakes::note("init");
  return self;
}
FAKE_ANSWER(title)
FAKE_ANSWER(versionString)
FAKE_ANSWER(displayVersionString)
FAKE_ANSWER(date)
FAKE_ANSWER(itemDescription)
FAKE_ANSWER(releaseNotesURL)
FAKE_ANSWER(fileURL)
FAKE_ANSWER(DSASignature)
FAKE_ANSWER(minimumSystemVersion)
FAKE_ANSWER(propertiesDictionary)
@end

// An item that raises at its next release, and so lets an exception out of the destructor that
// releases it.
@interface ClingingItem : FakeItem {
@public
  bool clings;
}
@end
@implementation ClingingItem
// The reference that a destructor has not got to is lost.
+ (id)allocWithZone:(NSZone*)zone {
  session::Unreported lost;
  return [super allocWithZone:zone];
}
- (oneway void)release {
  if (std::exchange(clings, false)) fakes::raise(@"Clinging", @"to what holds it");
  [super release];
}
@end

// What stands between the plug-in and a value: a URL, or a bundle.
@interface FakeLink : FakeObject
@end
@implementation FakeLink
FAKE_ANSWER(absoluteString)
FAKE_ANSWER(bundlePath)
@end

@interface FakeInvocation : FakeObject
@end
@implementation FakeInvocation
FAKE_ACTION(invoke)
@end

// A registry that tells what it is asked, for a host without the companion: nothing is there until
// offerRegistry() is called. Of pointers, none of which it retains.
@interface TellingRegistry : NSMutableDictionary {
  NSMapTable* entries;
}
@end
@implementation TellingRegistry
- (id)init {
  entries =
      NSCreateMapTable(NSNonOwnedPointerMapKeyCallBacks, NSNonOwnedPointerMapValueCallBacks, 4);
  return self;
}
- (void)dealloc {
  NSFreeMapTable(entries);
  [super dealloc];
}
- (NSUInteger)count {
  return NSCountMapTable(entries);
}
- (NSEnumerator*)keyEnumerator {
  return nil;
}
- (id)objectForKey:(id)key {
  return static_cast<id>(NSMapGet(entries, key));
}
- (void)setObject:(id)object forKey:(id)key {
  fakes::note("registry: set", fakes::show(key));
  NSMapInsert(entries, key, object);
}
- (void)removeObjectForKey:(id)key {
  fakes::note("registry: remove", fakes::show(key));
  if (key) NSMapRemove(entries, key);
}
@end

namespace fakes {

inline id registry() { return state().registry; }

inline id answerRegistry(id, SEL) {
  ++state().initialisations;
  return registry();
}

inline void offerRegistry(id registry = [[TellingRegistry new] autorelease]) {
  state().registry = registry;
  class_addMethod(object_getClass([NSException class]),
                  sel_registerName("GetInstancesDictionaryKVZ"),
                  reinterpret_cast<IMP>(answerRegistry), "@8@0:4");
}

// How often BODY runs the shared initialisation, which asks for the registry until it gets one:
// call offerRegistry(nil) before.
inline unsigned initialisations(const std::function<void()>& body) {
  state().initialisations = 0;
  body();
  return state().initialisations;
}

} // namespace fakes
