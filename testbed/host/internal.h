// Shared inside testbed/host only: handles and their memory, classes, payloads of the built-in
// classes, and the ways to end the process when a plug-in breaks a rule.
#pragma once

#include "testbed/host/host.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace host {

// One lock for classes, lists and logs. Recursive, because printing a value inside the log may ask
// for a class. Never held while plug-in code, a handler or a hook runs.
std::recursive_mutex& hostMutex();
using Guard = std::lock_guard<std::recursive_mutex>;

// ---- Call stacks and the end (die.cpp) ---------------------------------------------------------

struct Stack {
  void* frames[16];
  int count = 0;
};
void capture(Stack& stack); // empties it when stacks are switched off
std::string print(const Stack& stack);
std::string codeName(void* address); // symbols.cpp

// Message and present stack to standard error, then abort().
[[noreturn]] void die(const std::string& message);
// The same with the stack on which something happened to HANDLE earlier.
[[noreturn]] void die(const std::string& message, const char* earlier, const Stack& stack);

// ---- Handles (cells.cpp) -----------------------------------------------------------------------

struct Class;

// Native contents of an object of a built-in class, or of a string.
struct Payload {
  virtual ~Payload() = default;
};

enum class Form : uint32_t { object, string };
enum class State : uint32_t { live = 0x4C495645, dying = 0x4459494E, dead = 0x44454144 };

// Stands before every handle's visible body, in memory that is never given back, so that a dead
// handle is known as such: dead cells wait in line and are taken again only behind thousands of
// later ones.
struct alignas(16) Cell {
  std::atomic<State> state;
  Form form;
  Class* type;
  std::atomic<int> references;
  uint32_t number; // n-th of its class
  uint32_t bodySize;
  Cell* nextDead;
  Payload* payload; // owned
  Stack born, died;

  uint8_t* body() { return reinterpret_cast<uint8_t*>(this + 1); }
  void* handle() { return this + 1; }
};

Cell& allocateCell(Form form, Class& type, uint32_t bodySize); // one reference, body of zeros
void buryCell(Cell& cell); // deletes the payload, spoils the body; state is dead afterwards
void rememberDeath(Cell& cell);

// The cell of a handle that a caller wants to use. Ends the process, saying what WHO wanted, if it
// is no handle, dead, or of the other form. Nil is the caller's business.
Cell& liveCell(const void* handle, Form form, const char* who);
Cell* findCell(const void* handle); // null when it is no handle; may be dead
void forEachLiveCell(const std::function<void(Cell&)>& visit);
std::string label(const void* handle); // SUAppcastItemKVZ#3, nil, "dead …", or an address

// True when the cell died by this: the caller then has to destroy it.
bool dropReference(const void* handle, Form form, const char* who);

// ---- Classes (classes.cpp) ---------------------------------------------------------------------

enum class Kind {
  plain,
  string,
  boxed,
  array,
  date,
  dictionary,
  memoryBlock,
  folderItem,
  exception
};

struct Declaration;
struct Member;
struct EventType;

struct HandlerSlot {
  const EventType* event;
  std::shared_ptr<const Handler> handler;
  void* thunk; // what GetEventInstance answers
};

struct Class {
  std::string name;
  Class* super = nullptr;
  Kind kind = Kind::plain;
  uint32_t dataStart = 0; // from the root class's data
  uint32_t dataSize = 0;  // of this class alone
  bool builtIn = false;
  std::atomic<bool> hidden{false};
  std::atomic<uint32_t> made{0};
  std::atomic<int> alive{0};
  // Of a plug-in's class; 0 and empty otherwise.
  uint32_t constructor = 0, destructor = 0;
  std::unique_ptr<Registered> registered;
  std::vector<std::unique_ptr<Member>> members;
  std::vector<std::unique_ptr<EventType>> events;
  // Of the host program's subclasses.
  std::vector<HandlerSlot> handlers;
};

Class* findClass(std::string_view name); // hidden ones too; null when unknown
Class& needClass(std::string_view name); // throws Error
Class& builtInClass(Kind kind);          // its root class
Class& addClass(std::string_view name, Class* super, uint32_t dataSize); // throws Error
Class* findClassAnyCase(std::string_view name); // as declarations of the host's language name it
bool isClassReference(const void* reference);
bool derives(const Class* type, const Class* from);
void forEachClass(const std::function<void(Class&)>& visit);
void resetClasses();
void resetRegistration();

// ---- Declarations (declarations.cpp) -----------------------------------------------------------

enum class Type {
  none,
  boolean,
  int32,
  uint32,
  int64,
  uint64,
  single,
  real,
  string,
  object,
  variant
};

struct Parameter {
  std::string name;
  std::string typeName;
  Type type = Type::none;
  bool isArray = false;
};
struct Declaration {
  std::string text;
  std::string name;
  std::vector<Parameter> parameters;
  Parameter result; // type none when it answers nothing
};
// Nothing when TEXT is no declaration.
std::optional<Declaration> parseDeclaration(std::string_view text);
bool sameName(std::string_view a, std::string_view b); // without regard to case

struct Member {
  enum Sort { method, property, sharedMethod, sharedProperty };
  Sort sort;
  Declaration declaration;
  const uint32_t* entry; // the plug-in's, read anew at every use
  Class* owner;
};

struct EventType {
  Declaration declaration;
  uint32_t* entry;
  Class* owner;
  uint32_t word() const { return uint32_t(reinterpret_cast<uintptr_t>(this)); }
};

// ---- Objects (objects.cpp) ---------------------------------------------------------------------

Cell& newObject(Class& type);                            // one reference; constructor slots not run
void construct(Cell& cell);                              // runs them; their throws escape
Cell& objectCell(const Object& object, const char* who); // throws Error for nil
uint8_t* plainData(Cell& cell, const Class& type);
const Member* findMember(const Class& type, std::string_view declaration, bool shared);

template <typename T> T* payloadOf(const void* handle) {
  return handle ? dynamic_cast<T*>(liveCell(handle, Form::object, "A host operation").payload)
                : nullptr;
}
// For the typed functions of host.h: throws Error when the object is nil or another thing.
template <typename T> T& needPayload(const Object& object, const char* what) {
  T* payload = payloadOf<T>(object.handle());
  if (!payload) throw Error(className(object) + " is no " + what);
  return *payload;
}
template <typename T> Object makeObject(Class& type, std::unique_ptr<T> payload) {
  Cell& cell = newObject(type);
  delete std::exchange(cell.payload, payload.release());
  return Object::adopt(cell.handle());
}
std::unique_ptr<Payload> newPayload(Kind kind);

// Words with noise where a one-byte boolean leaves its word untouched.
inline uint32_t booleanWord(bool value) { return 0x5AC3E700u | uint32_t(value); }
// A value of a declared type as stack words, and back. Handles are borrowed by toWords; fromWords
// adds a reference or takes the caller's over. Both throw Error on a mismatch.
void toWords(const Value& value, const Parameter& parameter, std::vector<uint32_t>& words,
             std::vector<Object>& temporaries);
unsigned wordsOf(Type type);
enum class Reference { lock, adopt };
Value fromWords(const Parameter& parameter, const uint32_t* words, Reference reference,
                const char* who);

// ---- Payloads ----------------------------------------------------------------------------------

struct StringData : Payload {
  std::string recordText; // one byte of its own before the text, as the old record wants it
  uint32_t encoding = unknownEncoding;
  std::string_view bytes() const { return std::string_view(recordText).substr(1); }
};
StringData& stringData(const void* handle, const char* who);
void* newString(std::string_view bytes, uint32_t encoding); // one reference
std::optional<std::string> convertBytes(std::string_view bytes, uint32_t from, uint32_t to);
size_t lentStringData(); // buffers of PluginGetStringData not yet disposed of
void resetStrings();

struct Boxed : Payload {
  int32_t code = 0;
  const char* maker = "";
  Value value;
};
struct Array : Payload {
  int32_t code = 0;
  std::vector<Value> elements;
  std::optional<int32_t> reportedBound;
};
struct Dictionary : Payload {
  struct Item {
    Object key, value;
  };
  std::vector<Item> items;
  std::unordered_map<std::string, size_t> places; // by the key's value
  std::optional<int32_t> reportedCount;
  std::function<void()> onRead;
};
struct Date : Payload {
  DateFields fields;
};
struct MemoryBlock : Payload {
  std::vector<uint8_t> bytes;
  std::optional<int32_t> reportedSize;
};
struct FolderItem : Payload {
  std::string path;
  std::optional<std::u16string> leafName;
};
struct ExceptionData : Payload {
  String message;
  int32_t number = 0;
};

// What any handle is as a variant; VALUE of a scalar, else the object itself.
int32_t varType(const void* handle);
Value varValue(const void* handle);
Object box(const Value& value);

// Properties that the host itself reads: those of built-in classes, and those of plug-in classes
// that name a place in the data. Nothing when there is none, or it was told to fail.
std::optional<Value> readProperty(const void* handle, std::string_view name);
bool writeProperty(const void* handle, std::string_view name, const Value& value);
void resetProperties();

void resetArrays();
void resetMemoryBlocks();
bool objectLacks(const void* handle, std::string_view declaration);
void resetObjectMethods();

// ---- Exceptions, events, threads, trace --------------------------------------------------------

void resetExceptions();
void resetEvents();
void forgetHandlers(Class& type); // of a class that goes

bool tracing();
void emit(Step step);
std::vector<std::string> printAll(const std::vector<Value>& values);
std::string quoted(std::string_view text);

// ---- Throws out of plug-in code ----------------------------------------------------------------
// Where the host calls a plug-in while somebody else waits for the host (a destructor below an
// unlock, a constructor below a create), the throw is caught, the host finishes what it does, and
// then the throw goes on: into the plug-in whose operation this was, or out of the function of
// host.h that a test called.

// Calls the plug-in's FUNCTION with one handle; a throw becomes the thread's escaped one.
void callDeferring(uint32_t function, const void* handle);
void escape(void* thrown); // null: nothing; only the first goes on
bool hasEscaped();
void rethrowEscaped(); // natively; nothing when none has escaped

// Cocoa's side (cocoa.mm). Thrown objects are retained for whoever is told of them.
void* catchThrow(void (*body)(void*), void* context); // the object thrown, or null
[[noreturn]] void throwNatively(void* object);        // gives the reference up
void autorelease(void* object);
std::pair<std::string, std::string> describeCocoa(void* object); // class name, description
void* makeCocoaString(const uint16_t* units, size_t count);      // one reference
void prepareCocoa();

} // namespace host
