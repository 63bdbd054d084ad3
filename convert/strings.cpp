#include "convert/strings.h"

#include "cocoa/exceptions.h"

#include <stdlib.h>
#include <string.h>

namespace {

// A host string's stored bytes, and how they were had.
struct StoredBytes {
  REALstringStruct* string;
  const char* bytes; // null when there are none to be had
  std::uint32_t length;
  bool locked;
  bool mustDispose;
  REALstringData data;
};

// Hosts up to this version show a string as a record of 32-bit words, whose text starts one byte
// behind the address in the second and whose length is the fourth.
constexpr double kLastVersionWithStringRecord = 2013.0;

StoredBytes openBytes(REALstringStruct* string) {
  StoredBytes stored{string, nullptr, 0, false, false, {}};
  if (rbversion <= kLastVersionWithStringRecord) {
    if (auto lock = REALLockString.resolve()) {
      lock(string);
      stored.locked = true;
    }
    auto* words = reinterpret_cast<const std::uint32_t*>(string);
    if (words[1]) stored.bytes = reinterpret_cast<const char*>(words[1] + 1);
    stored.length = words[3];
  } else {
    stored.mustDispose = REALGetStringData(string, kAnyEncoding, &stored.data);
    if (stored.mustDispose) {
      stored.bytes = stored.data.data;
      stored.length = stored.data.length;
    }
  }
  return stored;
}

void closeBytes(StoredBytes& stored) {
  if (stored.locked) REALUnlockString(stored.string);
  if (stored.mustDispose) disposeStringData(&stored.data);
}

CFStringRef createFromBytes(const StoredBytes& stored, CFStringEncoding encoding) {
  if (!stored.bytes) return nullptr;
  if (encoding == kCFStringEncodingUnicode) {
    return CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar*>(stored.bytes),
                                        static_cast<CFIndex>(stored.length / 2));
  }
  return CFStringCreateWithCString(nullptr, stored.bytes, encoding);
}

CFStringRef createFromStoredBytes(REALstringStruct* string) {
  std::uint32_t encoding = REALGetStringEncoding(string);
  if (encoding == kAnyEncoding) encoding = kCFStringEncodingMacRoman;
  StoredBytes stored = openBytes(string);
  CFStringRef result = nullptr;
  id thrown = attempt([&] { result = createFromBytes(stored, encoding); });
  closeBytes(stored);
  if (thrown) objc_exception_throw(thrown);
  return result;
}

// UTF-8 takes at most this many bytes a UTF-16 unit.
constexpr CFIndex kBytesPerUnit = 6;
constexpr CFIndex kUnitsOnStack = 99;

REALstringStruct* buildUTF8(CFStringRef string, char* buffer, CFIndex size) {
  if (!CFStringGetCString(string, buffer, size, kCFStringEncodingUTF8) || !*buffer) return nullptr;
  REALstringStruct* result = originalREALBuildString(buffer, static_cast<int>(strlen(buffer)));
  if (result) REALSetStringEncoding(result, kCFStringEncodingUTF8);
  return result;
}

} // namespace

CFStringRef RBString2CFString(REALstringStruct* string) {
  if (!string) return nullptr;
  if (rbversion >= 2012.0) {
    if (CFStringRef result = REALCopyStringCFString(string, 0)) return result;
  }
  if (CFStringRef result = REALGetStringCFString(string, 0)) return result;
  return createFromStoredBytes(string);
}

REALstringStruct* CFString2RBString(CFStringRef string) {
  if (!string) return nullptr;
  CFIndex units = CFStringGetLength(string);
  if (units <= 0) return nullptr;
  if (units <= kUnitsOnStack) {
    char buffer[(kUnitsOnStack + 1) * kBytesPerUnit + 1];
    return buildUTF8(string, buffer, sizeof buffer - 1);
  }
  if (units > INT32_MAX / kBytesPerUnit) return nullptr;
  auto* buffer = static_cast<char*>(malloc(static_cast<std::size_t>(units * kBytesPerUnit)));
  if (!buffer) return nullptr;
  REALstringStruct* result = nullptr;
  id thrown = attempt([&] { result = buildUTF8(string, buffer, units * kBytesPerUnit); });
  free(buffer);
  if (thrown) objc_exception_throw(thrown);
  return result;
}

id autoreleasedString(REALstringStruct* string) {
  return send<id>(asObject(RBString2CFString(string)), "autorelease"_sel);
}

id autoreleasedURL(REALstringStruct* string) {
  CFStringRef text = RBString2CFString(string);
  if (!text) return nullptr;
  CFURLRef url = CFURLCreateWithString(nullptr, text, nullptr);
  CFRelease(text);
  return send<id>(asObject(url), "autorelease"_sel);
}
