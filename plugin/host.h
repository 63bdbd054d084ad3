// The host, as the plug-in reaches it: its handles, and one callable per host operation.
//
// The host exports nothing to link against. It gives REALPluginMain a resolver from names to
// addresses; every operation below asks it by name on first use and keeps the address. An
// operation that the host lacks is skipped, answers the zero of its result, and is asked for again
// at the next use.
//
// Ownership: objects and strings are reference counted by the host. What an operation makes or
// reads out ("new" below) comes with one reference that belongs to the caller, who hands it on as
// a result or gives it back with REALUnlockObject or REALUnlockString. Everything else is lent.
//
// Threads: the slots are filled without locks; racing threads store the same address.
#pragma once

#include "cocoa/core_foundation.h"
#include "cocoa/message.h"

struct REALobjectStruct;
struct REALstringStruct;
struct REALfolderItemStruct;
struct REALarrayStruct;
struct REALmemoryBlockStruct;
struct _REALdate;
struct _REALdictionary;
struct REALclassDefinition;

// The host's boolean: one byte, zero or not.
using RBBoolean = unsigned char;

// Asks the host for the address of an operation; null when it has none of this name.
using Resolver = void* (*)(const char* name);
extern Resolver gResolver;

// The host's version, for example 2013.03; 0.0 when the host does not tell.
extern double rbversion;

// The plug-in interface version announced to the host: 9, 10, 11 or 12.
extern std::int32_t CurrentREALControlVersion;

// A string's bytes. data is followed by at least one zero byte; encoding is the one asked for.
// On entry to REALGetStringData, length announces for how many bytes there is to be room.
struct REALstringData {
  char* data;
  std::uint32_t length;
  std::uint32_t encoding;
};

inline constexpr std::uint32_t kAnyEncoding = 0xFFFF;

// Slot names the variable that keeps the address, Name is what the host calls the operation.
template <class Slot, Literal Name, class Signature> struct HostOperation;

template <class Slot, Literal Name, class Result, class... Arguments>
struct HostOperation<Slot, Name, Result(Arguments...)> {
  using Function = Result (*)(Arguments...);
  static inline Function slot = nullptr;

  // The operation's address, or null on a host without it.
  Function resolve() const {
    return found(slot, [] { return reinterpret_cast<Function>(gResolver(Name.text)); });
  }

  Result operator()(Arguments... arguments) const {
    if (Function function = resolve()) return function(arguments...);
    return Result();
  }
};

template <class Slot, Literal Name, class Signature>
inline constexpr HostOperation<Slot, Name, Signature> operation{};

// clang-format off

// Classes, instances and events.
inline constexpr auto& REALRegisterClass       = operation<struct pRegisterClass, "PluginRegisterClass", void(REALclassDefinition*)>;
inline constexpr auto& REALLockObject          = operation<struct pLockObject, "REALLockObject", void(REALobjectStruct*)>;
inline constexpr auto& REALUnlockObject        = operation<struct pUnlockObject, "REALUnlockObject", void(REALobjectStruct*)>;
inline constexpr auto& REALnewInstance         = operation<struct pNewInstance, "PluginNewInstance", REALobjectStruct*(const char* className)>; // new
inline constexpr auto& REALRaiseException      = operation<struct pRaiseException, "RuntimeRaiseException", void(REALobjectStruct*)>;
inline constexpr auto& REALGetEventInstance    = operation<struct pGetEventInstance, "GetEventInstance", void*(REALobjectStruct*, std::uint32_t* event)>;
inline constexpr auto& REALGetClassRef         = operation<struct pGetClassRef, "pluginObjectType", void*(const char* className)>;
inline constexpr auto& REALObjectIsA           = operation<struct pObjectIsA, "RuntimeObjectIsa", RBBoolean(REALobjectStruct*, void* classRef)>;

// Strings. "Original" in a name: as the host has it; the encoding, or a limit to the size, is the
// caller's. One operation has two slots: hosts from 2012.0 on are asked for a CFString as
// REALCopyStringCFString and, if that gives none, once more, on purpose, as older ones are asked.
inline constexpr auto& REALLockString          = operation<struct pLockString, "REALLockString", void(REALstringStruct*)>;
inline constexpr auto& REALUnlockString        = operation<struct pUnlockString, "REALUnlockString", void(REALstringStruct*)>;
inline constexpr auto& originalREALBuildString = operation<struct pBuildString, "REALBuildString", REALstringStruct*(const char* bytes, int count)>; // new
inline constexpr auto& REALSetStringEncoding   = operation<struct pSetStringEncoding, "REALSetStringEncoding", void(REALstringStruct*, std::uint32_t)>;
inline constexpr auto& REALGetStringEncoding   = operation<struct pGetStringEncoding, "REALGetStringEncoding", std::uint32_t(REALstringStruct*)>;
inline constexpr auto& REALConvertString       = operation<struct pConvertString, "REALConvertString", REALstringStruct*(REALstringStruct*, std::uint32_t)>; // new
inline constexpr auto& PluginGetStringData     = operation<struct pGetStringData, "PluginGetStringData", RBBoolean(REALstringStruct*, std::uint32_t, REALstringData*)>;
inline constexpr auto& REALDisposeStringData   = operation<struct pDisposeStringData, "PluginDisposeStringData", void(REALstringData*)>;
inline constexpr auto& StringGetCString        = operation<struct pCString, "StringGetCString", const char*(REALstringStruct*)>;
inline constexpr auto& REALGetStringCFString   = operation<struct pGetStringCFString, "REALGetStringCFString", CFStringRef(REALstringStruct*, int stripAmpersands)>; // new
inline constexpr auto& REALCopyStringCFString  = operation<struct pCopyStringCFString, "REALGetStringCFString", CFStringRef(REALstringStruct*, int stripAmpersands)>; // new

// Host-language methods by declaration. The host compares the text as written, spaces included.
inline constexpr auto& REALLoadGlobalMethod    = operation<struct pLoadGlobalMethod, "REALLoadGlobalMethod", void*(const char* declaration, void* module)>;
inline constexpr auto& REALLoadObjectMethod    = operation<struct pLoadObjectMethod, "REALLoadObjectMethod", void*(REALobjectStruct*, const char* declaration)>;

// Properties by name. The getters answer whether the property could be read.
inline constexpr auto& REALSetPropValueString  = operation<struct pSetPropValueString, "REALSetPropValueString", void(REALobjectStruct*, const char* name, REALstringStruct*)>;
inline constexpr auto& REALSetPropValueInt32   = operation<struct pSetPropValueInt32, "REALSetPropValueInt", void(REALobjectStruct*, const char* name, std::int32_t)>;
inline constexpr auto& REALGetPropValueInt32   = operation<struct pGetPropValueInt32, "REALGetPropValueInt", RBBoolean(REALobjectStruct*, const char* name, std::int32_t*)>;
inline constexpr auto& REALGetPropValueInt64   = operation<struct pGetPropValueInt64, "REALGetPropValueInt64", RBBoolean(REALobjectStruct*, const char* name, std::int64_t*)>;
inline constexpr auto& REALGetPropValueSingle  = operation<struct pGetPropValueSingle, "REALGetPropValueSingle", RBBoolean(REALobjectStruct*, const char* name, float*)>;
inline constexpr auto& REALGetPropValueDouble  = operation<struct pGetPropValueDouble, "REALGetPropValueDouble", RBBoolean(REALobjectStruct*, const char* name, double*)>;
inline constexpr auto& REALGetPropValueString  = operation<struct pGetPropValueString, "REALGetPropValueString", RBBoolean(REALobjectStruct*, const char* name, REALstringStruct**)>; // new
inline constexpr auto& REALGetPropValueObject  = operation<struct pGetPropValueObject, "REALGetPropValueObject", RBBoolean(REALobjectStruct*, const char* name, REALobjectStruct**)>; // new

// Variants: objects that box a value.
inline constexpr auto& REALNewVariantString    = operation<struct pNewVariantString, "StringToVariant", REALobjectStruct*(REALstringStruct*)>; // new
inline constexpr auto& REALNewVariantInteger   = operation<struct pNewVariantInteger, "Int32ToVariant", REALobjectStruct*(std::int32_t)>; // new
inline constexpr auto& REALNewVariantUInt32    = operation<struct pNewVariantUInt32, "UInt32ToVariant", REALobjectStruct*(std::uint32_t)>; // new
inline constexpr auto& REALNewVariantInt64     = operation<struct pNewVariantInt64, "Int64ToVariant", REALobjectStruct*(std::int64_t)>; // new
inline constexpr auto& REALNewVariantUInt64    = operation<struct pNewVariantUInt64, "UInt64ToVariant", REALobjectStruct*(std::uint64_t)>; // new
inline constexpr auto& REALNewVariantSingle    = operation<struct pNewVariantSingle, "SingleToVariant", REALobjectStruct*(float)>; // new
inline constexpr auto& REALNewVariantDouble    = operation<struct pNewVariantDouble, "DoubleToVariant", REALobjectStruct*(double)>; // new
inline constexpr auto& REALNewVariantBoolean   = operation<struct pNewVariantBoolean, "BooleanToVariant", REALobjectStruct*(RBBoolean)>; // new
inline constexpr auto& GetVariantString        = operation<struct pVariantString, "VariantToString", REALstringStruct*(REALobjectStruct*)>; // new
inline constexpr auto& GetVariantInt32         = operation<struct pVariantInt32, "VariantToInt32", std::int32_t(REALobjectStruct*)>;
inline constexpr auto& GetVariantInt64         = operation<struct pVariantInt64, "VariantToInt64", std::int64_t(REALobjectStruct*)>;
inline constexpr auto& GetVariantSingle        = operation<struct pVariantSingle, "VariantToSingle", float(REALobjectStruct*)>;
inline constexpr auto& GetVariantDouble        = operation<struct pVariantDouble, "VariantToDouble", double(REALobjectStruct*)>;

// Arrays. The last two answer, for one array, the function that inserts or reads an element.
inline constexpr auto& REALCreateArray         = operation<struct pCreateArray, "RuntimeArrayCreateSingleDimBoundedArray", REALarrayStruct*(int elementType, int upperBound)>; // new
inline constexpr auto& REALGetArrayUBound      = operation<struct pGetArrayUBound, "RuntimeUBound", int(REALarrayStruct*)>;
inline constexpr auto& ArrayInsertProc         = operation<struct pArrayInsertProc, "RuntimeArrayDirectGetInsertProc", void*(REALarrayStruct*)>;
inline constexpr auto& ArrayGetProc            = operation<struct pArrayGetProc, "RuntimeArrayDirectGetGetProc", void*(REALarrayStruct*)>;

// MemoryBlocks.
inline constexpr auto& REALNewMemoryBlockOriginal = operation<struct pNewMemoryBlock, "newMemoryBlock", REALmemoryBlockStruct*(int size)>; // new
inline constexpr auto& REALMemoryBlockGetPtr   = operation<struct pMemoryBlockGetPtr, "memoryBlockGetPtr", void*(REALmemoryBlockStruct*)>;
inline constexpr auto& REALMemoryBlockGetSize  = operation<struct pMemoryBlockGetSize, "memoryBlockGetSize", int(REALmemoryBlockStruct*)>;

// Files.
inline constexpr auto& REALFSRefFromFolderItem = operation<struct pFSRefFromFolderItem, "REALFSRefFromFolderItem", RBBoolean(REALfolderItemStruct*, FSRef*, HFSUniStr255*)>;
inline constexpr auto& REALFSSpecFromFolderItem = operation<struct pFSSpecFromFolderItem, "REALFSSpecFromFolderItem", RBBoolean(FSSpec*, REALfolderItemStruct*)>;
inline constexpr auto& REALFolderItemFromParentFSRef = operation<struct pFolderItemFromParentFSRef, "REALFolderItemFromParentFSRef", REALfolderItemStruct*(const FSRef*, const HFSUniStr255*)>; // new
inline constexpr auto& REALFolderItemFromFSSpec = operation<struct pFolderItemFromFSSpec, "FolderItemFromFSSpec", REALfolderItemStruct*(FSSpec*)>; // new

// clang-format on

// An array of objects (variants, instances) in the host's element codes.
inline constexpr int kArrayOfObjects = 4;

// Every handle is a host object, and every object serves as a variant.
template <class Handle> inline REALobjectStruct* asHostObject(Handle* handle) {
  return reinterpret_cast<REALobjectStruct*>(handle);
}

// Gives back a reference, if there is one. The variable is empty by then: the host may run a
// destructor, and that may throw.
template <class Handle> inline void unlock(Handle*& held) {
  Handle* object = held;
  held = nullptr;
  if (object) REALUnlockObject(asHostObject(object));
}
// A string runs no code of the program when it goes, and nobody gives it back again after a throw.
inline void unlock(REALstringStruct* string) {
  if (string) REALUnlockString(string);
}

// A global method of the host language, or null. It is called with the method's parameters.
void* REALLoadFrameworkMethod(const char* declaration);

// Puts an object into an array that holds objects; the array takes its own reference. Nothing
// happens on a host that offers no insertion.
void REALInsertArrayValueObject(REALarrayStruct* array, int index, REALobjectStruct* value);

// The element of an array of the given element type; objects and strings come new. Zero when the
// host offers no element access.
template <class Element> inline Element arrayElement(REALarrayStruct* array, int index) {
  using Get = Element (*)(REALarrayStruct*, int);
  Get get = reinterpret_cast<Get>(ArrayGetProc(array));
  return get ? get(array, index) : Element();
}
inline constexpr auto& REALGetArrayValueInt32 = arrayElement<std::int32_t>;
inline constexpr auto& REALGetArrayValueInt64 = arrayElement<std::int64_t>;
inline constexpr auto& REALGetArrayValueUInt8 = arrayElement<std::uint8_t>;
inline constexpr auto& REALGetArrayValueSingle = arrayElement<float>;
inline constexpr auto& REALGetArrayValueDouble = arrayElement<double>;
inline constexpr auto& REALGetArrayValueString = arrayElement<REALstringStruct*>;
inline constexpr auto& REALGetArrayValueObject = arrayElement<REALobjectStruct*>;

// Reads a string's bytes in an encoding, or as they are stored with kAnyEncoding. Answers false
// when the host offers no way. On success the caller gives the bytes back with
// disposeStringData.
//
// On hosts without PluginGetStringData the bytes are copied here. For kAnyEncoding the copy has
// room for the bytes that data->length announces on entry, or for the string's where it is longer.
bool REALGetStringData(REALstringStruct* string, std::uint32_t encoding, REALstringData* data);

// Gives back what REALGetStringData filled.
void disposeStringData(REALstringData* data);
