// The entry, on hosts that are as wrong as a host may be, and the use of what it registered.
//
// The input: what the host says of its version; the names that it answers late or never; the
// classes that it does not take; what there is of the companion and of the framework; calls.
//
// Each execution starts another host, puts the plug-in's globals back to what they were when the
// library was mapped, and calls its entry once, as a host does.
#include "fakes.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <vector>

extern "C" void* CFDictionaryCreateMutable(const void*, long, const void*, const void*);
extern "C" long CFDictionaryGetCount(const void*);

// ---- A companion of any age: each method there or not

namespace {

enum CompanionPart : unsigned { newException = 1, prepare = 2, registry = 4, exceptionClass = 8 };
unsigned companion;
void* instances;

void requirePart(CompanionPart part, Class self, SEL selector) {
  if (!(companion & part)) [self doesNotRecognizeSelector:selector];
}

} // namespace

@interface NSException (PlayedCompanion)
@end
@implementation NSException (PlayedCompanion)
+ (BOOL)respondsToSelector:(SEL)selector {
  if (sel_isEqual(selector, @selector(PrepareNSExceptionKVZ))) return (companion & prepare) != 0;
  if (sel_isEqual(selector, @selector(GetInstancesDictionaryKVZ)))
    return (companion & registry) != 0;
  return [super respondsToSelector:selector];
}
+ (void*)NewNSExceptionKVZ:(NSException*)exception {
  requirePart(newException, self, _cmd);
  if (!(companion & exceptionClass)) return nullptr;
  host::Object raised = host::create("NSExceptionKVZ");
  (void)exception;
  return raised.release();
}
+ (void)PrepareNSExceptionKVZ {
  requirePart(prepare, self, _cmd);
}
+ (void*)GetInstancesDictionaryKVZ {
  requirePart(registry, self, _cmd);
  return instances;
}
@end

// ---- Frameworks that lack something

@interface BareObject : NSObject
@end
@implementation BareObject
@end

// Makes nothing when it is asked to.
@interface NothingMade : NSObject
@end
@implementation NothingMade
+ (id)sharedUpdater {
  return nil;
}
+ (id)updaterForBundle:(id)bundle {
  (void)bundle;
  return nil;
}
- (id)init {
  [self release];
  return nil;
}
@end

// Throws when it is asked for something.
@interface Throwing : NSObject
@end
@implementation Throwing
+ (id)sharedUpdater {
  [NSException raise:@"Throwing" format:@"no updater"];
  return nil;
}
+ (id)updaterForBundle:(id)bundle {
  (void)bundle;
  @throw [[BareObject new] autorelease];
}
+ (id)alloc {
  [NSException raise:@"Throwing" format:@"no object"];
  return nil;
}
@end

// An updater that takes no delegate.
@interface DeafUpdater : NSObject
@end
@implementation DeafUpdater
+ (id)sharedUpdater {
  static DeafUpdater* updater;
  if (!updater) updater = [DeafUpdater new];
  return [updater retain];
}
+ (id)updaterForBundle:(id)bundle {
  (void)bundle;
  return [self sharedUpdater];
}
@end

@interface FullAppcast : NSObject {
  NSString* userAgentString;
}
@end
@implementation FullAppcast
- (void)setUserAgentString:(NSString*)given {
  [userAgentString autorelease];
  userAgentString = [given copy];
}
- (NSArray*)items {
  return [NSArray arrayWithObject:[[BareObject new] autorelease]];
}
- (NSData*)incrementalData {
  return [NSData dataWithBytes:"data" length:4];
}
- (void)fetchAppcastFromURL:(NSURL*)url {
  (void)url;
}
- (void)dealloc {
  [userAgentString release];
  [super dealloc];
}
@end

@interface FullItem : NSObject
@end
@implementation FullItem
- (NSString*)title {
  return @"title";
}
- (NSString*)versionString {
  return @"1.0";
}
- (NSDate*)date {
  return [NSDate dateWithTimeIntervalSinceReferenceDate:0];
}
- (NSURL*)fileURL {
  return [NSURL URLWithString:@"http://example.org/file"];
}
- (NSDictionary*)propertiesDictionary {
  return [NSDictionary dictionaryWithObject:@"value" forKey:@"key"];
}
@end

namespace {

using fuzz::require;

const Class& updaterClass(unsigned which) {
  static const Class classes[] = {[FakeUpdater class], nil,
                                  [BareObject class],  [NothingMade class],
                                  [Throwing class],    [DeafUpdater class]};
  return classes[which % std::size(classes)];
}

const Class& appcastClass(unsigned which) {
  static const Class classes[] = {
      [FullAppcast class], nil, [BareObject class], [NothingMade class], [Throwing class]};
  return classes[which % std::size(classes)];
}

const Class& itemClass(unsigned which) {
  static const Class classes[] = {
      [FullItem class], nil, [BareObject class], [NothingMade class], [Throwing class]};
  return classes[which % std::size(classes)];
}

// ---- Records

constexpr unsigned recordWords = 25; // all that version 9 has; what comes behind is 0

struct Table {
  unsigned array, count, oldWords, newWords;
};
constexpr Table tables[] = {{7, 8, 10, 12}, {9, 10, 4, 6},    {11, 12, 2, 4},
                            {18, 19, 3, 5}, {21, 22, 10, 12}, {23, 24, 4, 6}};

using Words = std::vector<uint32_t>;

const uint32_t* pointer(uint32_t word) { return reinterpret_cast<const uint32_t*>(word); }

// A record as the plug-in hands it to a host of the newest interface.
struct Known {
  uint32_t* record;
  Words words;
  Words entries[std::size(tables)];
};
std::vector<Known> known;

void learn(uint32_t* record) {
  Known one{record, Words(record, record + 29), {}};
  for (size_t i = 0; i < std::size(tables); ++i) {
    const uint32_t* first = pointer(record[tables[i].array]);
    if (first) one.entries[i].assign(first, first + record[tables[i].count] * tables[i].newWords);
  }
  known.push_back(one);
}

const char* nameOf(const Known& one) { return reinterpret_cast<const char*>(one.words[1]); }

[[noreturn]] void failAt(const Known& one, unsigned word, const char* what) {
  fuzz::fail(std::string(nameOf(one)) + ", word " + std::to_string(word) + " " + what);
}

bool isArray(unsigned word) {
  for (const Table& table : tables)
    if (table.array == word) return true;
  return false;
}

// The same but for the version, and for the shorter entries of version 9 in new arrays.
void checkRecord(const Known& expected, const uint32_t* record, uint32_t version) {
  if (record[0] != version) failAt(expected, 0, "is not the version");
  for (unsigned i = 1; i < recordWords; ++i)
    if (record[i] != expected.words[i] && !(version == 9 && isArray(i)))
      failAt(expected, i, "changed");
  for (size_t t = 0; t < std::size(tables); ++t) {
    const Table& table = tables[t];
    unsigned stride = version == 9 ? table.oldWords : table.newWords, count = record[table.count];
    const uint32_t* first = pointer(record[table.array]);
    if (!first != !count) failAt(expected, table.array, "does not fit its count");
    if (version == 9 && first && record[table.array] == expected.words[table.array])
      failAt(expected, table.array, "is no copy");
    const uint32_t* entry = expected.entries[t].data();
    for (unsigned i = 0; i < count; ++i, first += stride, entry += table.newWords)
      if (memcmp(first, entry, stride * 4)) failAt(expected, table.array, "has other entries");
  }
}

// The copies are for ever, which here is one execution.
void freeCopies() {
  for (const Known& one : known) {
    if (one.record[0] != 9) continue;
    for (const Table& table : tables)
      if (uint32_t array = one.record[table.array]; array != one.words[table.array])
        free(const_cast<uint32_t*>(pointer(array)));
  }
}

// ---- The host that the plug-in meets

constexpr const char* startup[] = {"RegisterPluginVersion", "REALGetRBVersion",
                                   "PluginRegisterClass"};
constexpr uint8_t forEver = 255;

struct Host {
  double told = 0;
  bool tells = true;
  std::map<std::string, uint8_t, std::less<>> refusals; // how many times a name is not answered
  unsigned taken = 15;                                  // classes, one bit each
  bool complete = true;                                 // lacks nothing that was not its year's
  std::vector<std::string> asked;
  unsigned offered = 0; // classes
  int announcements = 0;
};
Host* theHost;

uint32_t expectedVersion() {
  double told = theHost->told;
  return told >= 2013.03 ? 12 : told >= 2013.0 ? 11 : told >= 2012.0 ? 10 : 9;
}

// A host is one of the newest year that it says to have reached: what its strings look like hangs
// on that.
const host::Profile& profileFor(double told) {
  const host::Profile* result = &host::profiles().front();
  for (const host::Profile& each : host::profiles())
    if (told >= each.version || (told > 2013.0 && each.version <= 2013.01)) result = &each;
  return *result;
}

void* original(const char* name) { return host::resolve(name); }

double tellVersion() { return theHost->told; }

void announce(int32_t version) {
  reinterpret_cast<void (*)(int32_t)>(original("RegisterPluginVersion"))(version);
}

void takeAnnouncement(int32_t version) {
  require(uint32_t(version) == expectedVersion(), "another interface version was announced");
  require(theHost->offered == 0, "a class came before the version");
  ++theHost->announcements;
  announce(version);
}

void takeClass(uint32_t* record) {
  Host& host = *theHost;
  require(host.offered < known.size(), "more classes than there are");
  // Some were offered while nobody took them.
  while (known[host.offered].record != record)
    require(++host.offered < known.size(), "this class is unknown, or came out of order");
  const Known& expected = known[host.offered];
  checkRecord(expected, record, expectedVersion());
  if (!host.announcements++) announce(int32_t(expectedVersion()));
  if (host.taken & 1u << host.offered)
    reinterpret_cast<void (*)(uint32_t*)>(original("PluginRegisterClass"))(record);
  ++host.offered;
}

void* answer(const char* name) {
  Host& host = *theHost;
  host.asked.push_back(name);
  if (auto refusal = host.refusals.find(name); refusal != host.refusals.end() && refusal->second) {
    if (refusal->second != forEver) --refusal->second;
    return nullptr;
  }
  std::string_view wanted = name;
  if (wanted == "REALGetRBVersion")
    return host.tells ? reinterpret_cast<void*>(tellVersion) : nullptr;
  if (wanted == "RegisterPluginVersion") return reinterpret_cast<void*>(takeAnnouncement);
  if (wanted == "PluginRegisterClass") return reinterpret_cast<void*>(takeClass);
  return original(name);
}

// Without these a host loses what it lends: references have to go both ways, and a block whose
// bytes it does not show is not given back.
bool mayBeAbsent(const std::string& name) {
  constexpr const char* needed[] = {
      "REALLockObject",          "REALUnlockObject",    "REALLockString",   "REALUnlockString",
      "PluginDisposeStringData", "PluginGetStringData", "memoryBlockGetPtr"};
  return std::find(std::begin(needed), std::end(needed), name) == std::end(needed);
}

// Of all names: those that the resolver is asked for, and those of methods.
const std::vector<std::string>& names() {
  static const auto* all = [] {
    auto* list = new std::vector<std::string>;
    for (const std::string& name : host::operationNames())
      if (mayBeAbsent(name)) list->push_back(name);
    return list;
  }();
  return *all;
}

void readHost(fuzz::Input& input, Host& host) {
  constexpr double edges[] = {0,
                              -2013.03,
                              5.5,
                              2011.4,
                              2012.0,
                              2012.2,
                              2012.99,
                              2013.0,
                              2013.005,
                              2013.01,
                              2013.02,
                              2013.025,
                              2013.03,
                              2014.1,
                              1e300,
                              std::numeric_limits<double>::infinity(),
                              std::numeric_limits<double>::quiet_NaN()};
  unsigned sort = input.byte();
  if (sort == 255) {
    host.tells = false;
  } else if (sort >= 192) {
    host.told = input.number<double>();
  } else {
    host.told = edges[sort % std::size(edges)];
    if (sort >= 128) host.told = std::nextafter(host.told, 0);
  }
  host.taken = ~input.byte() & 15;
  for (unsigned count = input.byte() % 8; count > 0; --count) {
    unsigned which = input.byte();
    uint8_t times = input.byte();
    host.refusals[which < std::size(startup) ? startup[which] : names()[which % names().size()]] =
        times;
  }
  if (host.refusals.contains("REALGetRBVersion") && host.refusals["REALGetRBVersion"])
    host.told = 0;
  host.complete = host.refusals.empty() && host.taken == 15;
}

void enter(fuzz::Input& input, Host& host, void* entry) {
  theHost = &host;
  readHost(input, host);
  fuzz::startHost(profileFor(host.told).name);
  // Bytes of the plug-in's own are nothing that a host takes back.
  if (input.byte() == 1)
    for (const char* name : {"PluginGetStringData", "PluginDisposeStringData"})
      host.refusals[name] = forEver, host.complete = false;
  for (auto& [name, times] : host.refusals)
    if (times == forEver) host::makeAbsent(name);
  // The plug-in is told by the functions above, which need these themselves.
  for (const char* name : startup) host::makePresent(name);

  uint8_t unheard = host.refusals.contains(startup[2]) ? host.refusals[startup[2]] : 0;
  fuzz::enter(entry, answer);

  const std::vector<std::string>& asked = host.asked;
  require(asked.size() >= 3 && asked[0] == startup[0] && asked[1] == startup[1],
          "the entry asked for other names");
  for (size_t i = 2; i < asked.size(); ++i)
    require(asked[i] == startup[2], "the entry asked for " + asked[i]);
  require(host.offered == (unheard >= known.size() ? 0 : known.size()), "a class did not come");
  // A record that nobody took is as far converted as one that was taken.
  for (const Known& one : known)
    if (!host::registered(nameOf(one))) checkRecord(one, one.record, expectedVersion());
}

// ---- Use

// Answers whether something was thrown in BODY: out of it, into the host, or into the log.
bool guarded(const std::function<void()>& body) {
  int lines = fuzz::logLines();
  bool failed = bool(host::catching(body));
  for (const host::Raised& raised : host::takeExceptions()) {
    constexpr const char* kinds[] = {"NSExceptionKVZ", "UnsupportedOperationException",
                                     "NilObjectException", "OutOfMemoryException",
                                     "RuntimeException"};
    require(std::find(std::begin(kinds), std::end(kinds), raised.className) != std::end(kinds),
            "a " + raised.className + " was raised");
    require(raised.className != "RuntimeException" || !theHost->refusals.empty(),
            "the host knows the class that was asked for");
    failed = true;
  }
  return failed || fuzz::logLines() > lines;
}

// The one event that the program implements.
struct Event {
  const char* className; // registered
  std::string declaration;
};
int handled;

std::vector<Event> allEvents() {
  std::vector<Event> events;
  for (const Known& one : known)
    if (const host::Registered* type = host::registered(nameOf(one)))
      for (const std::string& declaration : type->declarations(host::Registered::events))
        events.push_back({nameOf(one), declaration});
  return events;
}

// A handler that answers the zero of the event's result.
host::Handler silent(const std::string& declaration) {
  return [declaration](host::Event&) {
    ++handled;
    return declaration.ends_with("as boolean")   ? host::Value(false)
           : declaration.ends_with("as integer") ? host::Value(0)
                                                 : host::Value(nullptr);
  };
}

// What the framework does in each event's turn, in the order of the updater's events.
using Raise = void (*)(id<Delegate> delegate, id object);
constexpr Raise raises[] = {
    [](id<Delegate> d, id) { [d pathToRelaunchForUpdater:nil]; },
    [](id<Delegate> d, id) { [d versionComparatorForUpdater:nil]; },
    [](id<Delegate> d, id) { [d updaterWillRelaunchApplication:nil]; },
    [](id<Delegate> d, id) { [d updaterDidNotFindUpdate:nil]; },
    [](id<Delegate> d, id) { [d updaterShouldPromptForPermissionToCheckForUpdates:nil]; },
    [](id<Delegate> d, id object) { [d updater:nil didFindValidUpdate:object]; },
    [](id<Delegate> d, id object) { [d updater:nil willInstallUpdate:object]; },
    [](id<Delegate> d, id object) { [d updater:nil didFinishLoadingAppcast:object]; },
    [](id<Delegate> d, id object) { [d bestValidUpdateInAppcast:object forUpdater:nil]; },
    [](id<Delegate> d, id) { [d feedParametersForUpdater:nil sendingSystemProfile:YES]; },
    [](id<Delegate> d, id object) {
      [d updater:nil shouldPostponeRelaunchForUpdate:object untilInvoking:nil];
    },
};

class Program {
public:
  Program(fuzz::Input& input, Host& host) : input_(input), host_(host) {
    std::vector<Event> events = allEvents();
    unsigned chosen = input.byte();
    for (const Known& one : known) {
      if (!host::registered(nameOf(one))) continue;
      host::Handlers handlers;
      if (!events.empty() && chosen % 16 < events.size()) {
        event_ = events[chosen % 16];
        if (!strcmp(event_.className, nameOf(one)))
          handlers.push_back({event_.declaration, silent(event_.declaration)});
      }
      host::subclass(std::string("My") + nameOf(one), nameOf(one), handlers);
    }
    companion = input.byte();
    if (companion & exceptionClass) host::defineClass("NSExceptionKVZ", "RuntimeException");
    if (companion != 15) host_.complete = false;
    loadFramework();
  }

  void act() {
    size_t which = input_.below(4);
    if (!host::registered(nameOf(known[which]))) return;
    host::Object& instance = instances_[which];
    switch (input_.below(4)) {
    case 0:
      return make(which);
    case 1:
      return raise(which);
    default:
      if (instance) call(which);
    }
  }

  void end() {
    for (host::Object& instance : instances_) drop(instance);
  }

private:
  void drop(host::Object& instance) {
    // A destructor that is ended by an exception goes no further.
    if (guarded([&] { instance.reset(); })) fuzz::expectCocoaLosses();
  }

  void loadFramework() {
    unsigned which = input_.byte();
    updater_ = updaterClass(input_.byte());
    appcast_ = appcastClass(input_.byte());
    item_ = itemClass(input_.byte());
    bool played = which % 8 == 0 || which % 8 > 3;
    if (!played) host_.complete = false;
    if (!host::registered("SUUpdaterKVZ")) return;
    bool loaded = false;
    bool failed = guarded([&] {
      switch (which % 8) {
      case 1:
        loaded = fuzz::loadFrameworkFolder("Broken");
        break;
      case 2:
        loaded = fuzz::loadFrameworkFolder("NotThere");
        break;
      case 3:
        loaded = host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                                  nullptr)
                     .as<bool>();
        break;
      default:
        loaded = fuzz::loadFramework(updater_, appcast_, item_);
      }
    });
    require(!loaded || played, "what is not there was loaded");
    require(!loaded || (updater_ && appcast_ && item_), "a class of the framework is missing");
    bool isLoaded = host::callShared("SUUpdaterKVZ", "IsFrameworkLoaded as boolean").as<bool>();
    require(!isLoaded || (played && updater_), "the framework is not loaded");
    if (played && host_.refusals.empty()) {
      require(!failed, "the framework threw");
      require(loaded == (updater_ && appcast_ && item_), "the framework was not loaded");
      require(isLoaded == (updater_ != nil), "the framework's updater was lost");
    }
    isLoaded_ = isLoaded;
  }

  void make(size_t which) {
    drop(instances_[which]);
    host::Object& made = instances_[which];
    guarded([&] { made = host::create(std::string("My") + nameOf(known[which])); });
    require(bool(made), "a registered class has no instances");
    require(host::get<int32_t>(made, "Handle") == 0, "a new instance is not empty");
    if (which == 0) destroyed_ = false;
    bool failed = construct(which);
    // The comparison needs no framework.
    require(which != 0 || failed || host::get<int32_t>(made, "Handle"), "a comparison is empty");
    if (!host_.complete || !isLoaded_) return;
    Class classes[] = {nil, item_, updater_, appcast_};
    bool whole = which == 0 || classes[which] == [FakeUpdater class] ||
                 classes[which] == [FullItem class] || classes[which] == [FullAppcast class];
    require(!whole || (!failed && host::get<int32_t>(made, "Handle")), "an instance stays empty");
    if (which == 1 && item_ == [FullItem class])
      require(host::get<std::string>(made, "title as string") == "title", "a title was lost");
  }

  // Answers whether something was thrown, or raised.
  bool construct(size_t which) {
    host::Object& instance = instances_[which];
    bool twice = host::get<int32_t>(instance, "Handle") != 0;
    bool failed = guarded([&] { host::call(instance, "Constructor"); });
    require(failed || !twice || !host_.complete, "a second constructor call was let through");
    if (which == 2) isHalfBound();
    return failed;
  }

  // An updater that got none from the framework has a delegate all the same, and gets another when
  // it is bound anew.
  void isHalfBound() {
    if (!host::get<int32_t>(instances_[2], "Handle")) fuzz::expectCocoaLosses();
  }

  void call(size_t which) {
    const host::Registered* type = host::registered(nameOf(known[which]));
    bool shared = which == 2 && input_.byte() == 1;
    auto table = shared ? host::Registered::sharedMethods : host::Registered::methods;
    std::vector<std::string> declarations = type->declarations(table);
    size_t index = input_.byte() % declarations.size();
    const std::string& declaration = declarations[index];
    if (declaration == "Constructor") return void(construct(which));
    if (which == 0 && declaration == "Destructor") destroyed_ = true;
    bool assigned = type->table(table)[uint32_t(index)][1] && (input_.byte() & 1);
    host::Object& instance = instances_[which];
    guarded([&] {
      if (assigned)
        host::set(instance, declaration, argument(declaration));
      else if (declaration.find('(') < declaration.find(" as "))
        shared ? host::callShared(type->name, declaration, argument(declaration))
               : host::call(instance, declaration, argument(declaration));
      else
        shared ? host::callShared(type->name, declaration) : host::call(instance, declaration);
    });
    if (which == 2) isHalfBound();
  }

  // For the one argument, or for the property.
  host::Value argument(const std::string& declaration) {
    std::string type = declaration.substr(declaration.find(" as ") + 4);
    type = type.substr(0, type.find(')'));
    if (type == "boolean") return bool(input_.byte() & 1);
    if (type == "double") return input_.number<double>();
    if (type == "folderitem") return input_.byte() & 1 ? host::folderItem("/tmp") : host::Object();
    require(type == "string", "no argument of type " + type + " is known");
    return host::string(input_.bytes(input_.below(40)),
                        input_.byte() & 1 ? host::utf8 : host::utf16);
  }

  void raise(size_t which) {
    host::Object& instance = instances_[which];
    if (!instance) return;
    id object = host::get<int32_t>(instance, "Handle") ? fuzz::handleOf(instance) : nil;
    std::string raised;
    handled = 0;
    if (which == 0) {
      if (!object) return;
      raised = "compareVersion(";
      guarded([&] { [static_cast<id<Comparator>>(object) compareVersion:@"1" toVersion:@"2"]; });
    } else if (which == 2) {
      if (![object isKindOfClass:[FakeUpdater class]] || ![object delegate]) return;
      size_t place = input_.byte() % std::size(raises);
      raised = host::registered("SUUpdaterKVZ")->declarations(host::Registered::events)[place];
      id argument = input_.byte() & 1 ? nil : [[BareObject new] autorelease];
      guarded([&] { raises[place]([object delegate], argument); });
    } else {
      return;
    }
    bool implemented = event_.declaration.starts_with(raised);
    require(handled <= (implemented ? 1 : 0), "the wrong handler was called: " + raised);
    if (host_.complete && isLoaded_)
      require(handled == (implemented && !(which == 0 && destroyed_) ? 1 : 0),
              "a handler was not called: " + raised);
  }

  fuzz::Input& input_;
  Host& host_;
  Event event_{"", ""};
  Class updater_ = nil, appcast_ = nil, item_ = nil;
  bool isLoaded_ = false;
  bool destroyed_ = false;
  host::Object instances_[4];
};

void* entry;

void run(fuzz::Input& input) {
  Host host;
  companion = 0;
  enter(input, host, entry);
  {
    Program program(input, host);
    for (int turn = 0; turn < 24 && input.left(); ++turn) program.act();
    program.end();
  }
  require(CFDictionaryGetCount(instances) == 0, "an entry stays in the registry");
  freeCopies();
  theHost = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  entry = fuzz::open("2014.1");
  fuzz::remember();
  instances = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
  // What there is to register, as a host of the newest interface is given it.
  fuzz::enter(entry, [](const char* name) -> void* {
    static const auto version = []() { return 2014.1; };
    if (!strcmp(name, "REALGetRBVersion")) return reinterpret_cast<void*>(+version);
    if (!strcmp(name, "PluginRegisterClass")) return reinterpret_cast<void*>(learn);
    return nullptr;
  });
  require(known.size() == 4, "there are not four classes");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::execute(data, size, run);
}
