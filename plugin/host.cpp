#include "plugin/host.h"

#include <stdlib.h>
#include <string.h>

Resolver gResolver;
double rbversion;
std::int32_t CurrentREALControlVersion;

void* REALLoadFrameworkMethod(const char* declaration) {
  return REALLoadGlobalMethod(declaration, nullptr);
}

void REALInsertArrayValueObject(REALarrayStruct* array, int index, REALobjectStruct* value) {
  using Insert = void (*)(REALarrayStruct*, int, REALobjectStruct*);
  if (auto insert = reinterpret_cast<Insert>(ArrayInsertProc(array))) insert(array, index, value);
}

namespace {

using LenB = int (*)(REALstringStruct*);
LenB pLenB;

LenB lenB() {
  return found(pLenB, [] {
    return reinterpret_cast<LenB>(REALLoadFrameworkMethod("LenB( s as string ) as integer"));
  });
}

// A copy of the string's bytes with a 32-bit zero behind them, in a buffer with room for capacity
// bytes and the zero. The caller frees it.
char* copyBytes(REALstringStruct* string, std::uint32_t length, std::uint32_t capacity) {
  if (capacity < length) capacity = length;
  if (capacity > INT32_MAX - 4) return nullptr;
  const char* bytes = StringGetCString(string);
  if (!bytes && length) return nullptr;
  auto* buffer = static_cast<char*>(malloc(capacity + 4));
  if (!buffer) return nullptr;
  if (length) memcpy(buffer, bytes, length);
  memset(buffer + length, 0, 4);
  return buffer;
}

} // namespace

bool REALGetStringData(REALstringStruct* string, std::uint32_t encoding, REALstringData* data) {
  if (auto get = PluginGetStringData.resolve()) return get(string, encoding, data) != 0;
  if (!string || !StringGetCString.resolve()) return false;
  LenB countBytes = lenB();
  if (!countBytes) return false;

  REALstringStruct* converted = nullptr;
  if (encoding != kAnyEncoding && REALGetStringEncoding(string) != encoding) {
    converted = REALConvertString(string, encoding);
    if (!converted) return false;
    string = converted;
  }
  int count = countBytes(string);
  auto length = static_cast<std::uint32_t>(count < 0 ? 0 : count);
  char* buffer = copyBytes(string, length, encoding == kAnyEncoding ? data->length : 0);
  unlock(converted);
  if (!buffer) return false;
  *data = {buffer, length, encoding};
  return true;
}

void disposeStringData(REALstringData* data) {
  if (REALDisposeStringData.resolve()) {
    REALDisposeStringData(data);
  } else {
    free(data->data);
  }
}
