// What plug-ins can call, and the one wrapper around all of it: counts, faults, the log and the
// trace are added here and nowhere else. The table itself is in operations.cpp.
#pragma once

#include "internal.h"

#include "testbed/cocoa/carbon.h"
#include "testbed/cocoa/crossing.h"

namespace host {

// The types of the plug-in interface, never complete: they tell the printer what a word is.
struct ObjectHandle;
struct StringHandle;
struct ClassReference;
struct Opaque;
using HostBoolean = uint8_t;

struct StringDataRecord {
  char* bytes;
  uint32_t length;
  uint32_t encoding;
};

template <typename Handle> Handle* handleOf(void* handle) { return static_cast<Handle*>(handle); }
inline ObjectHandle* handleOf(Object object) {
  return static_cast<ObjectHandle*>(object.release());
}

struct Operation {
  const char* name = "";
  void* address = nullptr; // what the resolver answers
  bool fallible = false;
  std::atomic<bool> absent{false};
  std::atomic<uint64_t> calls{0};
  // Under hostMutex().
  uint64_t untilFault = 0; // 1: the next call fails
  uint64_t faults = 0;     // so many in a row
  void* thrown = nullptr;  // by the call that fails; one reference
  uint64_t lookups = 0;
};

Operation* findOperation(std::string_view name);
bool absent(std::string_view name);
// For the resolver and the load methods: the address, or null; counts the lookup.
void* lookUp(std::string_view name);
void resetOperations(const Profile& profile);

extern std::atomic<bool> watching;

// A throw that escaped below this operation goes on in the plug-in that called it.
inline void finish() {
  if (hasEscaped()) [[unlikely]]
    crossing_leave([](void*) { rethrowEscaped(); }, nullptr);
}

// One watched call.
class CallNote {
public:
  explicit CallNote(Operation& operation);
  bool fails() const { return fails_; }
  bool wantsText() const { return logged_ || traced_; }
  void arguments(std::vector<std::string> printed);
  void result(std::string printed);
  std::string print(const void* handle) const; // a handle

private:
  Operation& operation_;
  bool fails_ = false, logged_ = false, traced_ = false;
  size_t entry_ = 0;
  uint64_t logNumber_ = 0;
};

std::string printNumber(double value);

template <typename T> std::string printArgument(const CallNote& note, T argument) {
  if constexpr (std::is_same_v<T, const char*>)
    return argument ? quoted(argument) : "nil";
  else if constexpr (std::is_same_v<T, ObjectHandle*> || std::is_same_v<T, StringHandle*>)
    return note.print(argument);
  else if constexpr (std::is_same_v<T, ClassReference*>)
    return isClassReference(argument) ? reinterpret_cast<Class*>(argument)->name : "no class";
  else if constexpr (std::is_pointer_v<T>)
    return argument ? "pointer" : "nil";
  else if constexpr (std::is_same_v<T, HostBoolean> || std::is_same_v<T, bool>)
    return argument ? "true" : "false";
  else if constexpr (std::is_floating_point_v<T>)
    return printNumber(argument);
  else
    return std::to_string(argument);
}

// A boolean is one byte; the rest of eax is whatever was there, and plug-ins must not look at it.
template <typename R> struct Answer {
  using Type = R;
  static R of(R result) { return result; }
};
template <> struct Answer<bool> {
  using Type = uint32_t;
  static uint32_t of(bool result) { return booleanWord(result); }
};

template <auto Function, typename = decltype(Function)> struct Watched;
template <auto Function, typename R, typename... A> struct Watched<Function, R (*)(A...)> {
  static Operation operation;

  static typename Answer<R>::Type call(A... arguments) {
    if (!watching.load(std::memory_order_relaxed)) {
      R result = Function(arguments...);
      finish();
      return Answer<R>::of(result);
    }
    CallNote note(operation);
    if (note.wantsText()) note.arguments({printArgument(note, arguments)...});
    R result{};
    if (!note.fails()) {
      result = Function(arguments...);
      if (note.wantsText()) note.result(printArgument(note, result));
    }
    finish();
    return Answer<R>::of(result);
  }
};
template <auto Function, typename... A> struct Watched<Function, void (*)(A...)> {
  static Operation operation;

  static void call(A... arguments) {
    if (!watching.load(std::memory_order_relaxed)) {
      Function(arguments...);
    } else {
      CallNote note(operation);
      if (note.wantsText()) note.arguments({printArgument(note, arguments)...});
      if (!note.fails()) Function(arguments...);
    }
    finish();
  }
};
template <auto Function, typename R, typename... A>
Operation Watched<Function, R (*)(A...)>::operation;
template <auto Function, typename... A> Operation Watched<Function, void (*)(A...)>::operation;

// Each in the file of its subject. Objects and strings that they answer are locked for the caller.
namespace operations {

// registration.cpp, events.cpp, objects.cpp, exceptions.cpp
double getRBVersion();
void registerPluginVersion(int32_t version);
void registerClass(uint32_t* record);
void* loadGlobalMethod(const char* declaration, Opaque* module);
void* loadObjectMethod(ObjectHandle* object, const char* declaration);
void* getEventInstance(ObjectHandle* object, uint32_t word);
ObjectHandle* newInstance(const char* className);
void lockObject(ObjectHandle* object);
void unlockObject(ObjectHandle* object);
void raiseException(ObjectHandle* exception);
ClassReference* objectType(const char* className);
bool objectIsA(ObjectHandle* object, ClassReference* type);

// properties.cpp
bool getPropInt(ObjectHandle* object, const char* name, int32_t* value);
bool getPropInt64(ObjectHandle* object, const char* name, int64_t* value);
bool getPropSingle(ObjectHandle* object, const char* name, float* value);
bool getPropDouble(ObjectHandle* object, const char* name, double* value);
bool getPropString(ObjectHandle* object, const char* name, StringHandle** value);
bool getPropObject(ObjectHandle* object, const char* name, ObjectHandle** value);
bool setPropInt(ObjectHandle* object, const char* name, int32_t value);
bool setPropString(ObjectHandle* object, const char* name, StringHandle* value);

// strings.cpp
StringHandle* buildString(const Opaque* bytes, int32_t count);
void lockString(StringHandle* string);
void unlockString(StringHandle* string);
bool setStringEncoding(StringHandle* string, uint32_t encoding);
uint32_t getStringEncoding(StringHandle* string);
StringHandle* convertString(StringHandle* string, uint32_t encoding);
bool getStringData(StringHandle* string, uint32_t encoding, StringDataRecord* out);
void disposeStringData(StringDataRecord* data);
const Opaque* getCString(StringHandle* string);
int32_t lenB(StringHandle* string);
Opaque* getStringCFString(StringHandle* string, uint32_t stripAmpersands);

// variants.cpp
ObjectHandle* stringToVariant(StringHandle* value);
ObjectHandle* int32ToVariant(int32_t value);
ObjectHandle* uint32ToVariant(uint32_t value);
ObjectHandle* int64ToVariant(int64_t value);
ObjectHandle* uint64ToVariant(uint64_t value);
ObjectHandle* singleToVariant(float value);
ObjectHandle* doubleToVariant(double value);
ObjectHandle* booleanToVariant(HostBoolean value);
StringHandle* variantToString(ObjectHandle* variant);
int32_t variantToInt32(ObjectHandle* variant);
int64_t variantToInt64(ObjectHandle* variant);
float variantToSingle(ObjectHandle* variant);
double variantToDouble(ObjectHandle* variant);
int32_t typeOfVariant(ObjectHandle* variant);

// arrays.cpp
ObjectHandle* createArray(int32_t type, int32_t upperBound);
int32_t upperBoundOf(ObjectHandle* array);
void* insertProc(ObjectHandle* array);
void* getProc(ObjectHandle* array);
void insertObject(ObjectHandle* array, int32_t index, ObjectHandle* value);
int32_t elementInt32(ObjectHandle* array, int32_t index);
int64_t elementInt64(ObjectHandle* array, int32_t index);
float elementSingle(ObjectHandle* array, int32_t index);
double elementDouble(ObjectHandle* array, int32_t index);
bool elementBoolean(ObjectHandle* array, int32_t index);
StringHandle* elementString(ObjectHandle* array, int32_t index);
ObjectHandle* elementObject(ObjectHandle* array, int32_t index);

// dictionary.cpp
void dictionarySet(ObjectHandle* dictionary, ObjectHandle* key, ObjectHandle* value);
ObjectHandle* dictionaryGet(ObjectHandle* dictionary, ObjectHandle* key);
ObjectHandle* dictionaryKey(ObjectHandle* dictionary, int32_t index);

// memoryblocks.cpp
ObjectHandle* newMemoryBlock(int32_t size);
Opaque* memoryBlockPointer(ObjectHandle* memoryBlock);
int32_t memoryBlockSize(ObjectHandle* memoryBlock);

// folderitems.cpp
bool refFromFolderItem(ObjectHandle* item, FSRef* ref, HFSUniStr255* name);
bool specFromFolderItem(FSSpec* spec, ObjectHandle* item);
ObjectHandle* folderItemFromParentRef(FSRef* parent, HFSUniStr255* name);
ObjectHandle* folderItemFromSpec(FSSpec* spec);
ObjectHandle* trueItem(ObjectHandle* item, int32_t index);

} // namespace operations

} // namespace host
