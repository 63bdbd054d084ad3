// Core Foundation, CoreGraphics, CoreText and the Carbon File Manager of 32-bit Mac OS X 10.6, as
// far as the plug-in calls them. Declared from the documented signatures.
//
// Ownership follows Core Foundation's rule: functions with Create or Copy in their names hand out
// a reference that the caller gives back with CFRelease; all others lend.
#pragma once

#include "cocoa/message.h"

using CFTypeRef = const void*;
using CFTypeID = unsigned long;
using CFIndex = long;
using CFAllocatorRef = const struct __CFAllocator*;
using CFStringRef = const struct __CFString*;
using CFMutableStringRef = struct __CFString*;
using CFURLRef = const struct __CFURL*;
using CFMutableDictionaryRef = struct __CFDictionary*;
using CFStringEncoding = std::uint32_t;
using Boolean = unsigned char;
using UniChar = std::uint16_t;
using OSErr = std::int16_t;

inline constexpr CFStringEncoding kCFStringEncodingMacRoman = 0;
inline constexpr CFStringEncoding kCFStringEncodingUnicode = 0x0100;
inline constexpr CFStringEncoding kCFStringEncodingASCII = 0x0600;
inline constexpr CFStringEncoding kCFStringEncodingUTF8 = 0x08000100;
inline constexpr CFIndex kCFStringNormalizationFormD = 0;
inline constexpr CFIndex kCFURLPOSIXPathStyle = 0;

// Core Foundation's objects are Cocoa objects.
inline id asObject(CFTypeRef value) { return static_cast<id>(const_cast<void*>(value)); }
inline CFStringRef asString(id object) { return reinterpret_cast<CFStringRef>(object); }
inline CFURLRef asURL(id object) { return reinterpret_cast<CFURLRef>(object); }

struct CFRange {
  CFIndex location;
  CFIndex length;
};

struct FSRef {
  std::uint8_t hidden[80];
};

struct HFSUniStr255 {
  std::uint16_t length;
  UniChar unicode[255];
};

// Both records are packed to 2 bytes, as all of the File Manager's are.
#pragma pack(push, 2)
struct FSSpec {
  std::int16_t vRefNum;
  std::int32_t parID;
  std::uint8_t name[64];
};

struct FSCatalogInfo {
  std::uint16_t nodeFlags;
  std::int16_t volume;
  std::uint32_t parentDirID;
  std::uint32_t nodeID;
  std::uint8_t rest[132];
};
#pragma pack(pop)

static_assert(sizeof(FSRef) == 80);
static_assert(sizeof(HFSUniStr255) == 512);
static_assert(sizeof(FSSpec) == 70);
static_assert(sizeof(FSCatalogInfo) == 144);

using FSCatalogInfoBitmap = std::uint32_t;
inline constexpr FSCatalogInfoBitmap kFSCatInfoNone = 0;
inline constexpr FSCatalogInfoBitmap kFSCatInfoNodeID = 0x10;

extern "C" {
CFStringRef __CFStringMakeConstantString(const char* ascii);
CFIndex CFStringGetLength(CFStringRef string);
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size, CFStringEncoding);
void CFStringGetCharacters(CFStringRef string, CFRange range, UniChar* buffer);
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef, const UniChar* units, CFIndex count);
CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding);
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex limit, CFStringRef string);
void CFStringNormalize(CFMutableStringRef string, CFIndex form);

CFURLRef CFURLCreateWithString(CFAllocatorRef, CFStringRef text, CFURLRef base);
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFIndex style);
CFURLRef CFURLCreateFromFSRef(CFAllocatorRef, const FSRef* ref);
Boolean CFURLGetFSRef(CFURLRef url, FSRef* ref);
CFURLRef CFURLCreateCopyAppendingPathComponent(CFAllocatorRef, CFURLRef url, CFStringRef component,
                                               Boolean isDirectory);
CFURLRef CFURLCreateCopyDeletingLastPathComponent(CFAllocatorRef, CFURLRef url);
CFStringRef CFURLCopyLastPathComponent(CFURLRef url);

CFTypeRef CFRetain(CFTypeRef value);
void CFRelease(CFTypeRef value);
CFTypeID CFGetTypeID(CFTypeRef value);
const void* CFDictionaryGetValue(CFMutableDictionaryRef dictionary, const void* key);
void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value);
void CFDictionaryRemoveValue(CFMutableDictionaryRef dictionary, const void* key);

CFTypeRef CGImageRetain(CFTypeRef image);

OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap which, FSCatalogInfo* info,
                       HFSUniStr255* name, FSSpec* spec, FSRef* parent);
OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* ref);
}

// A constant string, never released.
template <Literal Text> inline id operator""_ns() {
  static CFStringRef string;
  return asObject(found(string, [] { return __CFStringMakeConstantString(Text.text); }));
}
