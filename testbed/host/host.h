// The host: what a compiled application in the host's language gives to its plug-ins, and what a
// test or the demo needs to play that application. Everything a user of testbed/host may touch is
// declared here.
//
//   #include "testbed/host/host.h"                       // link testbed_host
//
//   host::start("2013.03");                              // which host; before anything else
//   host::loadPlugin(path);                              // dlopen + REALPluginMain
//   host::subclass("MyUpdater", "SUUpdaterKVZ", {
//       {"didFindValidUpdate(update as SUAppcastItemKVZ)",
//        [](host::Event& event) { title = host::get<std::string>(event[0], "title as string"); }},
//       {"updaterShouldPromptForPermissionToCheckForUpdates as boolean",
//        [](host::Event&) { return true; }}});
//   host::Object updater = host::create("MyUpdater");    // the registered constructor slots only
//   host::call(updater, "Constructor");                  // the language-level constructor
//   host::set(updater, "feedURL as string", "http://…");
//   EXPECT_EQ(host::get<std::string>(updater, "feedURL as string"), "http://…");
//   EXPECT_FALSE(host::takeException());
//   updater.reset();
//   EXPECT_EQ(host::ledger(), host::Ledger{});           // prints what is still alive
//
// Ownership: Object and String own one reference each; they lock when copied and unlock when they
// go. Functions that take them only borrow. Raw handles (void *) own nothing.
//
// Threads: everything here may be called from any thread. Event handlers run on the thread on which
// the plug-in raised the event. start() and loadPlugin() belong on the main thread, before others.
//
// Errors: a test's own mistake (no such class, no such member, an argument of the wrong type)
// throws host::Error. A plug-in's mistake (a dead handle, one unlock too many, a wrong record, an
// event word that the host never handed out) ends the process with a message and the call stacks,
// so that it can be neither overlooked nor survived. An Objective-C object thrown out of plug-in
// code comes out of call/get/set/create/reset as a native Objective-C throw; see catching().
//
// One process serves one test: a plug-in keeps its globals for life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace host {

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---- Profiles and start ------------------------------------------------------------------------

struct Profile {
  const char* name;      // "2011.4" … "2014.1", "unversioned"
  double version;        // what REALGetRBVersion answers; 0 for "unversioned", which lacks it
  uint32_t dataOffset;   // bytes from an object's handle to the data of its root plug-in class
  bool textInRecord;     // the string record shows its text (hosts up to 2013.0)
  bool offersStringData; // PluginGetStringData; otherwise StringGetCString and the LenB method
};

// "unversioned", "2011.4", "2012.0", "2012.99", "2013.0", "2013.01", "2013.02", "2013.03",
// "2014.1". Usable with testing::ValuesIn; a Profile prints as its name.
const std::vector<Profile>& profiles();
std::ostream& operator<<(std::ostream&, const Profile&);

// Begins a fresh host: no classes but the built-in ones, no faults, empty logs, counts at zero.
// Handles of an earlier host in this process stay valid only if the profile is the same.
void start(std::string_view profileName);
const Profile& profile();

// Finds out what of this process may be read and run, which the registration of classes asks. Not
// needed; it spares those that are forked from here the time.
void lookAtMemory();

// Loads an ELF plug-in (RTLD_NOW | RTLD_LOCAL), never to unload it, and calls its REALPluginMain
// with the resolver. Throws Error when it cannot be loaded or has no such entry.
void loadPlugin(const std::string& path);
// The same for an entry that somebody else has mapped. NAME is for messages and the trace.
void startPlugin(void* entry, const std::string& name);
// The function handed to REALPluginMain. A test may ask it as a plug-in would.
void* resolve(const char* name);

// ---- Threads and the run loop ------------------------------------------------------------------

struct Thread {
  unsigned number = 0; // 0 is the main thread; others count from 1 in the order of their first use
  bool main() const { return number == 0; }
  std::string name() const; // "main", "worker 1", …
  friend bool operator==(const Thread&, const Thread&) = default;
};
Thread currentThread();
bool onMainThread();

// What plug-in code autoreleases lives until the innermost Pool of the thread goes. start() opens
// one for the main thread that stays; a worker thread needs one of its own.
class Pool {
public:
  Pool();
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

private:
  void* pool_;
};

// Turns the main run loop until DONE answers true; what is performed on the main thread is
// delivered here. Main thread only. False when SECONDS have passed first. Each turn has its own
// pool.
bool runUntil(const std::function<bool()>& done, double seconds);

// ---- References --------------------------------------------------------------------------------

struct ObjectKind {
  static void lock(void* handle);
  static void unlock(void* handle);        // an Objective-C throw may come out
  static void drop(void* handle) noexcept; // such a throw comes out of the next call on this thread
};
struct StringKind {
  static void lock(void* handle);
  static void unlock(void* handle);
  static void drop(void* handle) noexcept;
};

// One owned reference, or nil. The last unlock runs the plug-in's destructors. What they throw
// comes out of reset(); the C++ destructor leaves it to the next call into a plug-in, or to the end
// of catching(), on the same thread.
template <typename Kind> class Ref {
public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  static Ref adopt(void* handle) { return Ref(handle); } // takes over the caller's reference
  static Ref lock(void* handle) {                        // adds a reference
    if (handle) Kind::lock(handle);
    return Ref(handle);
  }
  Ref(const Ref& other) : handle_(other.handle_) {
    if (handle_) Kind::lock(handle_);
  }
  Ref(Ref&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Ref& operator=(Ref other) {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Ref() {
    if (handle_) Kind::drop(handle_);
  }
  void reset() {
    if (void* old = std::exchange(handle_, nullptr)) Kind::unlock(old);
  }
  void* release() { return std::exchange(handle_, nullptr); } // the caller now owns the reference
  void* handle() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }
  friend bool operator==(const Ref& a, const Ref& b) { return a.handle_ == b.handle_; }

private:
  explicit Ref(void* handle) : handle_(handle) {}
  void* handle_ = nullptr;
};

using Object = Ref<ObjectKind>;
using String = Ref<StringKind>;

int referenceCount(const Object&);
int referenceCount(const String&);
std::string className(const Object&);           // "nil" for nil
bool isA(const Object&, std::string_view name); // through the superclass chain
// The data of the object's root plug-in class, or of class NAME where a subclass adds its own.
// Words may be read and written as the plug-in would.
void* data(const Object&, std::string_view name = {});

// ---- Strings -----------------------------------------------------------------------------------
// Encodings are Core Foundation's numbers. A nil String and an empty one are different things.

constexpr uint32_t macRoman = 0, utf16 = 0x0100, latin1 = 0x0201, ascii = 0x0600, utf8 = 0x08000100,
                   unknownEncoding = 0xFFFF;

String string(std::string_view bytes, uint32_t encoding = utf8); // the bytes as they are
String string(std::u16string_view units);                        // UTF-16, host byte order
std::string bytes(const String&);
uint32_t encoding(const String&);
// The text in UTF-8, converted from whatever encoding; nothing for nil or what cannot be converted.
std::optional<std::string> text(const String&);

// ---- Values that cross -------------------------------------------------------------------------
// What a member takes or answers and an event carries. Text given as C++ text becomes a host string
// in UTF-8 that lives as long as the Value.

class Value {
public:
  using Held = std::variant<std::monostate, bool, int32_t, uint32_t, int64_t, uint64_t, float,
                            double, String, Object>;
  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool v) : held_(v) {}
  Value(int32_t v) : held_(v) {}
  Value(uint32_t v) : held_(v) {}
  Value(int64_t v) : held_(v) {}
  Value(uint64_t v) : held_(v) {}
  Value(float v) : held_(v) {}
  Value(double v) : held_(v) {}
  Value(String v) : held_(std::move(v)) {}
  Value(Object v) : held_(std::move(v)) {}
  Value(const char* text) : Value(std::string_view(text)) {}
  Value(const std::string& text) : Value(std::string_view(text)) {}
  Value(std::string_view text) : held_(string(text)) {}
  Value(const std::optional<std::string>& text) {
    if (text) held_ = string(*text);
  }

  const Held& held() const { return held_; }
  bool isNil() const; // nothing, a nil String or a nil Object

  // T: bool, any integer, float, double, String, Object, std::string (nil gives ""),
  // std::optional<std::string>. Numbers convert where no value is lost, integers of the same size
  // also bit by bit; otherwise Error.
  template <typename T> T as() const;

private:
  Held held_;
};
std::string print(const Value&); // nil, true, 5, 1.5, "text", SUAppcastItemKVZ#3
std::ostream& operator<<(std::ostream&, const Value&);

template <> bool Value::as<bool>() const;
template <> int32_t Value::as<int32_t>() const;
template <> uint32_t Value::as<uint32_t>() const;
template <> int64_t Value::as<int64_t>() const;
template <> uint64_t Value::as<uint64_t>() const;
template <> float Value::as<float>() const;
template <> double Value::as<double>() const;
template <> String Value::as<String>() const;
template <> Object Value::as<Object>() const;
template <> std::string Value::as<std::string>() const;
template <> std::optional<std::string> Value::as<std::optional<std::string>>() const;
template <> Value Value::as<Value>() const;

// ---- Instances and members ---------------------------------------------------------------------
// A member is named by its declaration, "feedURL as string", or by its bare name where only one
// member has it. Only what a plug-in registered is called; arguments become stack words by the
// declared types (the unused bytes of a boolean's word are noise, as a real caller leaves them) and
// the answer is read by the declared type. An answered string or object is owned by the Value.

Object create(std::string_view className); // constructor slots, root class first; Error if unknown

Value invoke(const Object&, std::string_view declaration, std::vector<Value> arguments);
Value invokeShared(std::string_view className, std::string_view declaration,
                   std::vector<Value> arguments);
// An assignable method ("feedURL as string"), or a property ("Handle") that the host writes itself.
void set(const Object&, std::string_view declaration, const Value&);
Value getValue(const Object&, std::string_view declaration);

template <typename... A>
Value call(const Object& object, std::string_view declaration, A&&... arguments) {
  return invoke(object, declaration, {Value(std::forward<A>(arguments))...});
}
template <typename... A>
Value callShared(std::string_view className, std::string_view declaration, A&&... arguments) {
  return invokeShared(className, declaration, {Value(std::forward<A>(arguments))...});
}
template <typename T> T get(const Object& object, std::string_view declaration) {
  return getValue(object, declaration).template as<T>();
}
// create(), then the named "Constructor" with the arguments.
template <typename... A>
Object construct(std::string_view className, std::string_view constructor, A&&... arguments) {
  Object object = create(className);
  call(object, constructor, std::forward<A>(arguments)...);
  return object;
}

// The machine-code address of a registered member, for benchmarks; null when there is none.
void* memberAddress(std::string_view className, std::string_view declaration, bool setter = false);

// What came out of plug-in code as an Objective-C throw. The object is retained and autoreleased.
struct Thrown {
  void* object = nullptr; // id
  std::string className;
  std::string text; // its description
  explicit operator bool() const { return object != nullptr; }
};
Thrown catching(const std::function<void()>& body);

struct CallResult {
  Value value;
  Thrown thrown;
};
template <typename... A>
CallResult callCatching(const Object& object, std::string_view declaration, A&&... arguments) {
  CallResult result;
  result.thrown =
      catching([&] { result.value = call(object, declaration, std::forward<A>(arguments)...); });
  return result;
}

// ---- Exceptions raised by plug-ins -------------------------------------------------------------
// RuntimeRaiseException takes a reference of its own and leaves the exception pending.

struct Raised {
  std::string className;
  std::optional<std::string> message; // nothing when "Message" is nil
  int32_t errorNumber = 0;
  Object object;
  Thread thread;
  unsigned count = 1; // how many were raised since the last take; anything but 1 is a mistake
};
std::optional<Raised> takeException(); // the first of the pending ones; forgets all
std::vector<Raised> takeExceptions();  // all of them, oldest first
size_t pendingExceptions();

// ---- Subclasses and events ---------------------------------------------------------------------

// One event as its handler sees it. Arguments hold references of their own while the handler runs.
struct Event {
  Object target;
  std::string declaration;
  std::vector<Value> arguments;
  Thread thread;
  const Value& value(size_t index) const; // Error when there is no such argument
  Object operator[](size_t index) const { return value(index).as<Object>(); }
  std::optional<std::string> text(size_t index) const {
    return value(index).as<std::optional<std::string>>();
  }
  bool boolean(size_t index) const { return value(index).as<bool>(); }
};

// Anything callable with Event&: answers nothing, or something that makes a Value of the declared
// type (bool, int, text, Object – arrays are Objects –, nullptr). What it answers is locked once
// for the plug-in. An Objective-C throw passes into the plug-in; a C++ exception ends the process.
class Handler {
public:
  template <typename F>
  requires(std::is_invocable_v<F&, Event&> && !std::is_same_v<std::decay_t<F>, Handler>)
      Handler(F function) {
    if constexpr (std::is_void_v<std::invoke_result_t<F&, Event&>>)
      function_ = [f = std::move(function)](Event& event) mutable -> Value {
        f(event);
        return {};
      };
    else
      function_ = [f = std::move(function)](Event& event) mutable -> Value { return f(event); };
  }
  Value operator()(Event& event) const { return function_(event); }

private:
  std::function<Value(Event&)> function_;
};
using Handlers = std::vector<std::pair<std::string, Handler>>;

// A class of the host program below a registered (or any) class. Each declaration must be that of
// an event of the class or of one of its superclasses, as registered.
void subclass(std::string_view name, std::string_view superName, Handlers handlers = {});
// Sets or replaces one handler of an existing subclass; a null function pointer is not allowed.
void handle(std::string_view className, std::string_view declaration, Handler handler);

struct EventRecord {
  std::string className; // of the target
  std::string declaration;
  std::vector<std::string> arguments; // printed
  std::string answer;                 // printed; "" for none
  Thread thread;
};
std::vector<EventRecord> events(); // in the order in which they were raised; grows until cleared
void clearEvents();

// ---- Classes -----------------------------------------------------------------------------------

// A plug-in's class as it was registered.
struct Registered {
  enum Table { properties, methods, events, constants, sharedProperties, sharedMethods };
  std::string name;
  std::string superName;       // "" for none
  uint32_t version;            // interface version announced when it was registered
  const uint32_t* record;      // the plug-in's record itself, live
  std::vector<uint32_t> words; // copy of the record as handed over, before the host filled it in
  struct Entries {
    const uint32_t* first; // null when count is 0
    uint32_t count;
    uint32_t stride; // words of one entry in this layout
    const uint32_t* operator[](uint32_t index) const { return first + index * stride; }
  };
  Entries table(Table) const;
  std::vector<std::string> declarations(Table) const; // names, for properties
};
const Registered* registered(std::string_view name); // null when there is none; lives for ever
std::vector<std::string> registrationOrder();
uint32_t announcedVersion(); // of the last RegisterPluginVersion; 0 before

// A class of the host program without handlers, with DATASIZE bytes of data laid out like a plug-in
// class's (so that a wrapper class can be had without a plug-in).
void defineClass(std::string_view name, std::string_view superName = {}, uint32_t dataSize = 0);
// Makes a class unknown to PluginNewInstance and pluginObjectType, and known again.
void hideClass(std::string_view name);
void showClass(std::string_view name);

// ---- Variants ----------------------------------------------------------------------------------
// nil is the nil variant; any object is a variant of itself; scalars are boxed.

// Boxes by the C++ type, with the code of the matching maker; objects and nil are answered as they
// are.
Object variant(const Value&);
// A boxed variant that claims CODE, known or not, over VALUE.
Object variantOfCode(int32_t code, const Value& value);
struct VariantView {
  int32_t code = 0;  // what VarType answers
  std::string maker; // "Int32ToVariant", …; "" when no operation made it
  Value value;       // exactly what the maker was given; the object itself for unboxed objects
};
VariantView inspect(const Object& variant);
// A whole tree as one line, for comparisons: nil, Int32 5, "text", Boolean true, Date 2021-03-07
// 09:05:30, [ … ], { key: value, … } in the order of insertion, MemoryBlock "bytes", FolderItem
// "path", other objects as their class names.
std::string describe(const Object& variant);

// ---- Arrays ------------------------------------------------------------------------------------
// CODE is the VarType code of the elements: 2 int32, 3 int64, 4 single, 5 double, 6 currency, 7
// date, 8 string, 9 object (variants), 11 boolean; any other number is taken and answered as it is.

Object array(int32_t code, const std::vector<Value>& elements = {});
std::vector<Value> elements(const Object& array);
int32_t upperBound(const Object& array);
void setReportedBound(const Object& array, std::optional<int32_t> bound); // RuntimeUBound lies
unsigned outOfBounds(); // accesses beyond an array's bounds since start(); each gives zero

// ---- Dictionaries ------------------------------------------------------------------------------

Object dictionary(const std::vector<std::pair<Value, Value>>& entries = {});
void put(const Object& dictionary, const Value& key, const Value& value); // boxes both
Object at(const Object& dictionary, const Value& key);                    // nil when missing
std::vector<std::pair<Object, Object>> entries(const Object& dictionary);
void clear(const Object& dictionary);
void setReportedCount(const Object& dictionary, std::optional<int32_t> count);
// Called on every Key and Value read before it is answered; may change the dictionary.
void onRead(const Object& dictionary, std::function<void()> hook);
// Makes one object answer null for one declaration in REALLoadObjectMethod.
void lackMethod(const Object& object, std::string_view declaration);

// ---- Dates, memory blocks, folder items --------------------------------------------------------

struct DateFields {
  int32_t year = 1904, month = 1, day = 1, hour = 0, minute = 0, second = 0;
  friend bool operator==(const DateFields&, const DateFields&) = default;
};
std::ostream& operator<<(std::ostream&, const DateFields&);
Object date(const DateFields&); // taken as they are, sensible or not
DateFields dateFields(const Object&);

Object memoryBlock(std::string_view bytes);
std::string memoryBlockBytes(const Object&);
void setReportedSize(const Object& memoryBlock, std::optional<int32_t> size);
void limitMemoryBlocks(std::optional<int64_t> bytes); // newMemoryBlock fails above this size

Object folderItem(const std::string& path); // absolute; the file need not exist
std::string path(const Object& folderItem);
// What REALFSRefFromFolderItem answers as leaf name instead of the path's.
void setLeafName(const Object& folderItem, std::optional<std::u16string> name);

// REALGetPropValue…/REALSetPropValue… of this property of this class fail.
void failProperty(std::string_view className, std::string_view property, bool fails = true);

// ---- Operations: absence, faults, counts, the log ----------------------------------------------
// Whatever a plug-in can call has one name here: an operation its own ("REALLockObject"), a global
// method its declaration ("LenB( s as string ) as integer"), a method of an object the class and
// the declaration ("Dictionary.Key(index As Integer) As Variant"), an array's functions
// "array.insert Object" and "array.get " with the type of its elements. An unknown name throws
// Error.

std::vector<std::string> operationNames();
bool fallible(std::string_view name); // has a result, or may be skipped without breaking references

// The resolver (or load method) answers null. A plug-in that already holds the address sees every
// call fail.
void makeAbsent(std::string_view name);
void makePresent(std::string_view name);
// The NTH call from now on, and the COUNT - 1 after it, do nothing and answer zero.
void failCall(std::string_view name, unsigned nth = 1, unsigned count = 1);
void failAlways(std::string_view name);
// The next call does nothing and throws OBJECT, as code that the host runs below it may; one
// reference to the object is given away.
void throwFromCall(std::string_view name, void* object);
// The N-th call from now on of any fallible operation fails; 0 switches it off.
void failNthOperation(uint64_t n);
bool faultFired();  // whether a call has failed by one of the above since they were set
void clearFaults(); // absences stay

uint64_t calls(std::string_view name);   // since start() or resetCounts()
uint64_t lookups(std::string_view name); // how often plug-ins asked for its address, found or not;
                                         // any name may be asked here
uint64_t operationsPerformed();          // all calls
uint64_t fallibleOperationsPerformed();  // calls that failNthOperation would count
void resetCounts();
// Off: no counts, log, faults, operation trace or record of events; an operation costs one test of
// a flag. On by default. Also switches the recording of call stacks, like setStacks().
void setWatching(bool on);

struct LogEntry {
  std::string name;
  std::vector<std::string> arguments; // printed; handles as Class#n, numbered as the log meets them
  std::string result;                 // printed; "" for none
  bool failed = false;                // by a fault or absence
  Thread thread;
  std::string text() const; // REALBuildString("abc", 3) -> String#1
  friend bool operator==(const LogEntry&, const LogEntry&) = default;
};
std::ostream& operator<<(std::ostream&, const LogEntry&);
void startLog(); // empties it
std::vector<LogEntry> stopLog();
std::vector<LogEntry> currentLog(size_t from = 0); // without the first ones

// ---- The ledger --------------------------------------------------------------------------------

// What is alive, by class ("String" for strings, "Variant" for boxed values). Equal when the
// numbers are; printing names each class with its number.
struct Ledger {
  std::map<std::string, int> alive;
  friend bool operator==(const Ledger&, const Ledger&) = default;
};
std::ostream& operator<<(std::ostream&, const Ledger&);
Ledger ledger();
// One paragraph for each live handle: class, number of references, stack of its allocation.
std::string leakReport();
// Stacks of allocation and death cost some microseconds each. On by default.
void setStacks(bool on);

// ---- The trace ---------------------------------------------------------------------------------
// One call for each step, on the thread of the step; the hook may be called on several threads at
// once and must not call back into plug-ins.

struct Step {
  enum Kind {
    pluginLoaded,    // name: the plug-in
    classRegistered, // className
    memberCalled,    // className, member, values: the arguments
    memberReturned,  // className, member, values: the answer or nothing
    eventRaised,     // className of the target, member, values
    eventAnswered,   // className of the target, member, values: the answer or nothing
    exceptionRaised, // className, values: message, error number
    operation,       // member: the operation, values; only after traceOperations(true)
  };
  Kind kind;
  std::string className;
  std::string member;
  std::vector<std::string> values; // printed
  const void* object = nullptr;    // handle concerned, null for shared members
  Thread thread;
};
void trace(std::function<void(const Step&)> hook); // an empty function switches it off
void traceOperations(bool on);

} // namespace host
