#include "repetition.h"

#include "losses.h"
#include "scenarios.h"

#include "testbed/cocoa/faults.h"
#include "testbed/companion/companion.h"

#include <algorithm>
#include <atomic>
#include <fnmatch.h>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

// GNUstep hides their declarations from programs without assertions, not the functions.
extern "C" {
BOOL GSDebugAllocationActive(BOOL active);
int GSDebugAllocationCount(Class type);
Class* GSDebugAllocationClassList(void);
extern BOOL NSZombieEnabled;
}

namespace torture {

namespace {

enum class Kind { member, callback, bare, mixed };

struct Run {
  const Scenario* scenario;
  Fault fault;
  std::string step; // in which the fault fell
  bool hasFallen = false;
  bool cutShort = false;
  Verdict verdict;
};
Run* current;

std::mutex logMutex;
std::vector<std::string> logLines;

// What the framework says of itself is not the plug-in's.
void collectLog(NSString* line) {
  if ([line rangeOfString:@"] Sparkle"].location != NSNotFound) return;
  std::lock_guard lock(logMutex);
  logLines.emplace_back([line UTF8String] ?: "");
}

std::vector<std::string> takeLog() {
  std::lock_guard lock(logMutex);
  return std::exchange(logLines, {});
}

bool matches(const char* pattern, const std::string& text) {
  return fnmatch(pattern, text.c_str(), FNM_EXTMATCH) == 0;
}

// The class of the object that the failing message is for.
std::string receiver() {
  const std::string& hit = current->fault.hit;
  size_t end = hit.find(' ');
  return end == std::string::npos ? "" : hit.substr(1, end - 1);
}

// Whether some row of the losses allows this; CLASSNAME is what was lost.
bool excused(Excuse excuse, const std::string& className = "") {
  for (size_t i = 0; i < lossCount; ++i) {
    const Loss& row = losses[i];
    if (!(row.excuses & excuse) || !matches(row.scenario, current->scenario->name)) continue;
    if (!(row.modes & current->fault.mode)) continue;
    if (!matches(row.hit, current->fault.hit) || !matches(row.step, current->step)) continue;
    if (!className.empty()) {
      std::istringstream names(row.classes);
      std::string pattern;
      bool named = false;
      while (names >> pattern)
        named |= matches((pattern == "%" ? receiver() : pattern).c_str(), className);
      if (!named) continue;
    }
    current->verdict.excused.push_back(static_cast<unsigned>(i));
    return true;
  }
  return false;
}

// Whether the fault has fallen since the last look.
bool fallenSince() {
  bool now = host::faultFired() || faults_fired() > 0;
  return now && !std::exchange(current->hasFallen, true);
}

std::string describe(const host::Raised& raised) {
  return raised.className + (raised.message ? " \"" + *raised.message + "\"" : "");
}

bool fits(const host::Raised& raised, Raises raises) {
  bool sameClass = raised.className == raises.className;
  bool sameMessage = !raises.message || raised.message == raises.message;
  if (!faulty()) return sameClass && sameMessage;
  // A host that has not got the class, or no text.
  return (sameClass || raised.className == "RuntimeException") && (sameMessage || !raised.message);
}

struct Step {
  std::string label;
  Kind kind;
  Raises raises;
  unsigned lines;
};

void judgeRaised(const Step& step, bool exception, bool reported) {
  std::vector<host::Raised> all = host::takeExceptions();
  bool mayRaise = step.kind == Kind::member || step.kind == Kind::mixed;
  if (all.size() > 1 || (all.size() == 1 && !mayRaise)) {
    std::string names;
    for (const host::Raised& raised : all) names += " " + describe(raised);
    fail(step.label + ": left pending in the host:" + names);
    return;
  }
  if (exception && reported && step.kind == Kind::member) {
    if (all.empty()) {
      if (!excused(isSwallowed)) fail(step.label + ": the exception was not raised in the host");
    } else if (all[0].className != "NSExceptionKVZ") {
      fail(step.label + ": raised " + describe(all[0]) + " instead of an NSExceptionKVZ");
    }
  } else if (step.kind == Kind::mixed) {
    if (!all.empty() && !exception && !(step.raises.className && fits(all[0], step.raises)))
      fail(step.label + ": raised " + describe(all[0]));
  } else if (!all.empty()) {
    if (!step.raises.className || !fits(all[0], step.raises))
      fail(step.label + ": raised " + describe(all[0]));
  } else if (step.raises.className && !faulty() &&
             (reported || std::string(step.raises.className) != "NSExceptionKVZ")) {
    fail(step.label + ": raised nothing instead of " + step.raises.className);
  }
}

void judgeLog(const Step& step, bool exception) {
  size_t raisedLines = 0, loggedLines = 0;
  for (const std::string& line : takeLog()) {
    if (line.find("deallocated instance") != std::string::npos) fail(step.label + ": " + line);
    bool raised = line.find("] A ") != std::string::npos || line.starts_with("A ");
    ++(raised ? raisedLines : loggedLines);
  }
  bool mayRaise = step.raises.className && std::string(step.raises.className) == "NSExceptionKVZ";
  if (step.kind == Kind::mixed) {
    size_t lines = raisedLines + loggedLines;
    if (lines != exception && !(mayRaise && lines == exception + 1u) && !excused(isSwallowed))
      fail(step.label + ": wrote " + std::to_string(raisedLines + loggedLines) + " log lines");
  } else if (step.kind == Kind::member) {
    if (loggedLines > step.lines) fail(step.label + ": logged an exception without raising it");
    if (exception && raisedLines != 1 && !excused(isSwallowed))
      fail(step.label + ": wrote " + std::to_string(raisedLines) + " log lines, not one");
    if (!exception && raisedLines > (mayRaise ? 1 : 0))
      fail(step.label + ": wrote a log line of a raised exception");
  } else {
    if (raisedLines && !(exception && raisedLines == 1 && excused(isRaised)))
      fail(step.label + ": reported an exception as raised in the host");
    bool must = exception && step.kind == Kind::callback;
    current->cutShort |= loggedLines > 0;
    if (loggedLines > step.lines + must)
      fail(step.label + ": wrote " + std::to_string(loggedLines) + " log lines");
    if (must && !loggedLines && !excused(isSwallowed))
      fail(step.label + ": the exception was not logged");
  }
}

void judge(Step step, id thrown) {
  bool fallen = fallenSince();
  if (fallen) current->step = step.label;
  bool exception = fallen && current->fault.mode == failMessage;
  bool object = fallen && current->fault.mode == throwObject;
  Reporting reporting = current->scenario->setup->reporting;
  bool pending = step.kind == Kind::callback && host::pendingExceptions() == 1;
  if (exception && pending && excused(isRaised)) step.kind = Kind::member;

  bool isException = [thrown isKindOfClass:[NSException class]];
  bool escapes = step.kind == Kind::member && reporting == Reporting::escapes &&
                 (exception || step.raises.className);
  if (thrown) {
    bool allowed =
        object ? !isException : isException && ((exception && step.kind == Kind::bare) || escapes);
    if (!allowed && !excused(comesOut))
      fail(step.label + ": came out: " + [[thrown description] UTF8String]);
    exception = false; // judged
  } else if (object && !excused(isSwallowed)) {
    fail(step.label + ": the thrown object did not come out");
  } else if (exception && step.kind == Kind::bare && !excused(isSwallowed)) {
    fail(step.label + ": the exception did not come out");
  }
  judgeRaised(step, exception, reporting == Reporting::raises);
  current->cutShort = thrown != nil;
  if (thrown || escapes)
    takeLog();
  else
    judgeLog(step, exception);
}

id catching(const std::function<void()>& body) {
  id object = nil;
  @try {
    object = static_cast<id>(host::catching(body).object);
  } @catch (id deferred) {
    object = deferred;
  }
  return object;
}

// What happens on its own between steps: values go, and with them instances. What their destructors
// throw comes out at the next occasion.
void between() {
  judge({"between steps", Kind::member, {}, 0}, catching([] {}));
}

void perform(const Step& step, const std::function<void()>& body) {
  between();
  judge(step, catching(body));
}

std::string join(const std::vector<std::string>& all) {
  std::string text;
  for (const std::string& each : all) text += (text.empty() ? "" : ", ") + each;
  return "[" + text + "]";
}

// ---- The ledgers

const companion_api* companion() { return companion_open(COMPANION_PATH); }

struct Alive {
  std::map<std::string, int> host, cocoa;
  uint32_t entered = 0;
};

Alive alive() {
  Alive result;
  result.host = host::ledger().alive;
  Class* classes = GSDebugAllocationClassList();
  for (Class* each = classes; *each; ++each)
    result.cocoa[class_getName(*each)] += GSDebugAllocationCount(*each);
  NSZoneFree(NSDefaultMallocZone(), classes);
  if (current->scenario->setup->hasCompanion)
    result.entered = companion()->count(COMPANION_REGISTERED);
  return result;
}

void compare(const char* where, std::map<std::string, int> before, std::map<std::string, int> after,
             Excuse excuse) {
  for (const auto& [name, count] : after) {
    int more = count - before[name];
    if (more == 0 || (more > 0 && excused(excuse, name))) continue;
    fail(std::to_string(std::abs(more)) + " " + name + (more > 0 ? " too many" : " too few") +
         " alive in " + where);
  }
}

void balance(const Alive& before, const Alive& after) {
  compare("the host", before.host, after.host, losesInHost);
  if (current->scenario->counting == Counting::cocoa)
    compare("Cocoa", before.cocoa, after.cocoa, losesInCocoa);
  if (after.entered > before.entered && !excused(staysEntered))
    fail(std::to_string(after.entered - before.entered) + " entries too many in the registry");
}

// ---- Notes of a run without a fault

struct Notes {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::set<std::string> reached;
  void add(std::string line) {
    std::lock_guard lock(mutex);
    lines.push_back(std::move(line));
  }
  // What namesToReach() or the registration names.
  void reach(const std::string& name) {
    std::lock_guard lock(mutex);
    reached.insert(name);
  }
};

// What the plug-in offers to Cocoa: the framework sends these.
void reachOwnMethods(Notes& notes) {
  for (const char* name : {"MySUUpdaterDelegateInformalProtocol", "MySUVersionComparison"}) {
    Class type = objc_lookUpClass(name);
    if (!type) continue;
    unsigned count = 0;
    Method* methods = class_copyMethodList(type, &count);
    for (unsigned i = 0; i < count; ++i)
      notes.reach(std::string("name ") + sel_getName(method_getName(methods[i])));
    free(methods);
  }
}

std::string unquoted(const std::string& text) {
  return text.size() > 1 && text[0] == '"' ? text.substr(1, text.size() - 2) : text;
}

void reachOperation(Notes& notes, const host::LogEntry& entry) {
  if (entry.name == "PluginNewInstance" || entry.name == "pluginObjectType")
    notes.reach("name " + unquoted(entry.arguments.at(0)));
  if (entry.name.starts_with("VarType(")) notes.reach("variant " + entry.result);
}

void noteMessage(void* context, id receiver, SEL selector) {
  auto& notes = *static_cast<Notes*>(context);
  bool meta = class_isMetaClass(object_getClass(receiver));
  std::string name = sel_getName(selector);
  notes.add(std::string("M ") + (meta ? '+' : '-') + object_getClassName(receiver) + " " + name);
  notes.reach("name " + name);
  if (name == "objCType") notes.reach(std::string("number ") + [receiver objCType]);
}

void noteFunction(void* notes, const char* name) {
  static_cast<Notes*>(notes)->add(std::string("F ") + name);
}

void startNotes(Notes& notes) {
  host::startLog();
  host::trace([&notes](const host::Step& step) {
    std::string name =
        step.className.starts_with("Own") ? step.className.substr(3) : step.className;
    if (step.kind == host::Step::memberCalled) {
      bool assigned = step.member.find('(') == std::string::npos && !step.values.empty();
      notes.reach("name " + name);
      notes.reach(name + ": " + step.member + (assigned ? " =" : ""));
    }
    if (step.kind == host::Step::eventRaised) notes.reach(name + ": " + step.member);
  });
  faults_on_message(noteMessage, &notes);
  faults_on_call(noteFunction, &notes);
}

void stopNotes(Notes& notes) {
  host::trace({});
  faults_on_message(nullptr, nullptr);
  faults_on_call(nullptr, nullptr);
  for (const host::LogEntry& entry : host::stopLog()) {
    if (host::fallible(entry.name)) notes.add("O " + entry.name);
    reachOperation(notes, entry);
  }
  for (const std::string& name : host::operationNames())
    if (host::calls(name) || host::lookups(name)) {
      notes.add("A " + name);
      notes.reach("operation " + name);
    }
  reachOwnMethods(notes);
  for (const std::string& name : notes.reached) notes.lines.push_back("T " + name);
}

void arm(const Fault& fault) {
  switch (fault.mode) {
  case failOperation:
    host::failNthOperation(fault.n);
    break;
  case absentOperation:
    host::makeAbsent(fault.hit);
    // A host that counts references to objects offers both halves or neither. What it could not
    // lock of its strings the plug-in does not unlock.
    if (fault.hit == "REALLockObject") host::makeAbsent("REALUnlockObject");
    break;
  case failMessage:
    faults_fail_message(fault.n, FAULTS_NSEXCEPTION);
    break;
  case throwObject:
    faults_fail_message(fault.n, FAULTS_OTHER_OBJECT);
    break;
  case failFunction:
    faults_fail_call(nullptr, fault.n);
    break;
  default:
    break;
  }
}

// Runs BODY on a thread of its own, which GNUstep forgets afterwards, while the main thread turns
// its run loop. Answers whether the thread ended.
// A thread that has something to do: what it still holds is not to be counted as the next
// repetition's. Neither on a busy machine, where it waits for a core.
bool works(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat(std::istreambuf_iterator<char>(file), {});
  return stat.find(") R ") != stat.npos;
}

bool onThread(const std::function<void()>& body) {
  std::atomic<bool> done{false};
  std::atomic<pid_t> process{0};
  std::thread thread([&] {
    process = gettid();
    GSRegisterCurrentThread();
    {
      host::Pool pool;
      body();
    }
    GSUnregisterCurrentThread();
    done = true;
  });
  constexpr double patience = 10;
  id thrown = nil;
  @try {
    host::runUntil([&] { return done.load(); }, patience);
  } @catch (id object) {
    // Out of the main thread's half; the other one need not have heard of it.
    thrown = [object retain];
    double waited = 0;
    do {
      host::runUntil([&] { return done.load(); }, 0.1);
      waited += 0.1;
    } while (!done && works(process) && waited < patience);
  }
  bool ended = done;
  ended ? thread.join() : thread.detach();
  if (thrown) @throw [thrown autorelease];
  return ended;
}

} // namespace

// ---- Steps

host::Object make(const char* className, Raises raises) {
  host::Object object;
  perform({std::string("make ") + className, Kind::member, raises, 0},
          [&] { object = host::create(className); });
  return object;
}

void destroy(host::Object& instance) {
  std::string label = "destroy " + host::className(instance);
  perform({label, Kind::member, {}, 0}, [&] { instance.reset(); });
}

host::Value member(const host::Object& instance, const char* declaration,
                   std::vector<host::Value> arguments, Raises raises) {
  if (!instance) return {};
  host::Value result;
  perform({declaration, Kind::member, raises, 0},
          [&] { result = host::invoke(instance, declaration, std::move(arguments)); });
  return result;
}

host::Value shared(const char* className, const char* declaration,
                   std::vector<host::Value> arguments, Raises raises) {
  host::Value result;
  perform({declaration, Kind::member, raises, 0},
          [&] { result = host::invokeShared(className, declaration, std::move(arguments)); });
  return result;
}

void assign(const host::Object& instance, const char* declaration, const host::Value& value,
            Raises raises) {
  if (!instance) return;
  perform({std::string(declaration) + " =", Kind::member, raises, 0},
          [&] { host::set(instance, declaration, value); });
}

void callback(const char* label, const std::function<void()>& body, unsigned lines) {
  perform({label, Kind::callback, {}, lines}, body);
}

void bareCallback(const char* label, const std::function<void()>& body) {
  perform({label, Kind::bare, {}, 0}, body);
}

void mixedStep(const char* label, const std::function<void()>& body, Raises raises) {
  perform({label, Kind::mixed, raises, 0}, body);
}

void workerCallback(const char* label, const std::function<void()>& body, unsigned lines) {
  id thrown = nil;
  perform({label, Kind::callback, {}, lines}, [&] {
    if (!onThread([&] { thrown = [catching(body) retain]; }))
      fail(std::string(label) + ": the thread still waits for the main one");
    if (thrown) @throw [thrown autorelease];
  });
}

// ---- Answers

std::string shown(const host::Value& value) {
  if (auto* object = std::get_if<host::Object>(&value.held())) return host::describe(*object);
  if (auto* string = std::get_if<host::String>(&value.held()))
    return host::text(*string).value_or("nil");
  return host::print(value);
}

std::string shown(id object) {
  auto text = [](NSString* string) { return std::string([string UTF8String] ?: "no UTF-8"); };
  if (!object || object == [NSNull null]) return "nil";
  if ([object isKindOfClass:[NSNumber class]]) {
    std::string code = [object objCType];
    bool real = code == "f" || code == "d";
    return code + ":" +
           (real ? text([NSString stringWithFormat:@"%.17g", [object doubleValue]])
                 : std::to_string([object longLongValue]));
  }
  if ([object isKindOfClass:[NSString class]]) return text(object);
  if ([object isKindOfClass:[NSDate class]])
    return text([object descriptionWithCalendarFormat:@"%Y-%m-%d %H:%M:%S"
                                             timeZone:nil
                                               locale:nil]);
  if ([object isKindOfClass:[NSData class]])
    return "data " + std::string(static_cast<const char*>([object bytes]), [object length]);
  if ([object isKindOfClass:[NSURL class]]) return text([object absoluteString]);
  if ([object isKindOfClass:[NSArray class]]) {
    std::vector<std::string> all;
    for (NSUInteger i = 0; i < [object count]; ++i) all.push_back(shown([object objectAtIndex:i]));
    return join(all);
  }
  if ([object isKindOfClass:[NSDictionary class]]) {
    std::vector<std::string> all;
    NSEnumerator* keys = [object keyEnumerator];
    while (id key = [keys nextObject])
      all.push_back(shown(key) + ": " + shown(static_cast<id>([object objectForKey:key])));
    std::sort(all.begin(), all.end());
    return "{" + join(all) + "}";
  }
  if ([object isKindOfClass:[NSValue class]]) return std::string("value ") + [object objCType];
  return object_getClassName(object);
}

void expect(const std::string& label, const std::string& actual, const std::string& expected,
            const std::vector<std::string>& otherwise) {
  if (actual == expected) return;
  if (faulty()) {
    for (const char* nothing : {"nil", "false", "0"})
      if (actual == nothing) return;
    if (std::count(otherwise.begin(), otherwise.end(), actual)) return;
    if (excused(goesOtherwise)) return;
  }
  fail(label + ": answered " + actual + " instead of " + expected);
}

void expect(const std::string& label, const host::Value& actual, const std::string& expected,
            const std::vector<std::string>& otherwise) {
  expect(label, shown(actual), expected, otherwise);
}

void expectElements(const std::string& label, const std::vector<std::string>& actual,
                    const std::vector<std::string>& expected) {
  if (actual == expected) return;
  bool fits = faulty() && actual.size() <= expected.size();
  size_t place = 0;
  for (const std::string& element : actual) {
    if (element == "nil") continue;
    while (place < expected.size() && expected[place] != element) ++place;
    if (place++ >= expected.size()) fits = false;
  }
  if (!fits && !(faulty() && excused(goesOtherwise)))
    fail(label + ": answered " + join(actual) + " instead of " + join(expected));
}

void fail(const std::string& problem) {
  auto& all = current->verdict.failures;
  if (std::find(all.begin(), all.end(), problem) == all.end()) all.push_back(problem);
}

bool wasCutShort() { return current->cutShort; }

bool faulty() { return current->fault.mode != nothing; }
const Fault& fault() { return current->fault; }

// ---- A whole run

void warmUp(const Scenario& scenario) {
  _NSLog_printf_handler = collectLog;
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  @try {
    [NSException raise:@"WarmUp" format:@"%@", @"for the runs to come"];
  } @catch (NSException* exception) {
    [exception callStackReturnAddresses];
    [exception description];
    NSLog(@"%@", exception);
  }
  NSCalendarDate* date = [NSCalendarDate dateWithYear:2021
                                                month:3
                                                  day:7
                                                 hour:9
                                               minute:5
                                               second:30
                                             timeZone:[NSTimeZone localTimeZone]];
  [date description];
  [date descriptionWithCalendarFormat:@"%Y-%m-%d %H:%M:%S" timeZone:nil locale:nil];
  [[[[NSCalendarDate alloc] initWithTimeIntervalSinceReferenceDate:1e6] autorelease]
      yearOfCommonEra];
  [NSTimeZone defaultTimeZone];
  [NSString stringWithFormat:@"%g", 1.5]; // the decimal point
  [[NSURL URLWithString:@"a/b?c"
          relativeToURL:[NSURL URLWithString:@"http://example.org/"]] absoluteString];
  [NSURL fileURLWithPath:@"/tmp/none"];
  [NSData data];
  [NSBundle bundleWithPath:@"/tmp"];
  [NSBundle bundleWithPath:@"/"];
  [pool performSelectorOnMainThread:@selector(class) withObject:nil waitUntilDone:YES];
  onThread([=] {
    [date performSelectorOnMainThread:@selector(description) withObject:nil waitUntilDone:YES];
  });
  // Pools that are drained stay with their thread, as many as were open at once.
  for (int depth = 0; depth < 8; ++depth) (void)[NSAutoreleasePool new];
  if (scenario.warmUp) scenario.warmUp();
  [pool release];
  takeLog();
}

Verdict run(const Scenario& scenario, const Fault& fault, std::string* notes) {
  Run self{&scenario, fault, {}, false, false, {}};
  current = &self;
  // The memory of a dead object is kept, so that a message to it is told from others.
  NSZombieEnabled = YES;
  GSDebugAllocationActive(YES);
  Notes noted;
  NSAutoreleasePool* outer = [NSAutoreleasePool new];
  Alive before = alive();

  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  host::resetCounts();
  if (notes) startNotes(noted);
  faults_start(FAULTS_ALL_THREADS);
  arm(fault);
  try {
    scenario.run();
  } catch (const host::Error& error) {
    fail(std::string("the scenario cannot go on: ") + error.what());
  }
  between();
  bareCallback("the pool", [&] { [pool drain]; });
  // What is behind an object that could not be released.
  if (current->cutShort) catching([&] { [pool drain]; });
  faults_stop();
  host::clearFaults();
  if (notes) stopNotes(noted);

  balance(before, alive());
  [outer drain];
  if (notes)
    for (const std::string& line : noted.lines) *notes += line + "\n";
  current = nullptr;
  return self.verdict;
}

} // namespace torture
