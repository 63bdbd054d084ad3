// Host strings: handles over bytes with an encoding, and the operations on them.
#include "operations.h"

#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <unordered_set>

namespace host {

namespace {

// What newer hosts show where older ones show the text.
const char decoy[] = " (the record of a newer host was read)";

struct Lent {
  std::unordered_set<void*> buffers;
};
Lent& lent() {
  static auto* instance = new Lent;
  return *instance;
}

const char* iconvName(uint32_t encoding) {
  switch (encoding) {
  case macRoman:
  case unknownEncoding:
    return "MACINTOSH";
  case utf16:
    return "UTF-16LE";
  case latin1:
    return "ISO-8859-1";
  case ascii:
    return "US-ASCII";
  case utf8:
    return "UTF-8";
  default:
    return nullptr;
  }
}

// Opening a converter costs much more than using it.
iconv_t converter(uint32_t from, uint32_t to) {
  thread_local struct Converters {
    std::map<std::pair<uint32_t, uint32_t>, iconv_t> open;
    ~Converters() {
      for (auto& [key, converter] : open) iconv_close(converter);
    }
  } converters;
  auto [place, isNew] = converters.open.try_emplace({from, to}, iconv_t(-1));
  if (isNew) {
    place->second = iconv_open(iconvName(to), iconvName(from));
    if (place->second == iconv_t(-1)) {
      converters.open.erase(place);
      die(std::string("iconv has no converter from ") + iconvName(from) + " to " + iconvName(to) +
          "; set GCONV_PATH to the gconv folder of the system root");
    }
  }
  iconv(place->second, nullptr, nullptr, nullptr, nullptr);
  return place->second;
}

void writeRecord(Cell& cell, StringData& data) {
  auto* words = reinterpret_cast<uint32_t*>(cell.body());
  bool shown = profile().textInRecord || absent("REALGetRBVersion");
  const char* text = shown ? data.recordText.data() : decoy;
  words[0] = 1;
  words[1] = uint32_t(reinterpret_cast<uintptr_t>(text));
  words[2] = data.encoding;
  words[3] = uint32_t(shown ? data.recordText.size() - 1 : sizeof decoy - 2);
}

} // namespace

StringData& stringData(const void* handle, const char* who) {
  return *static_cast<StringData*>(liveCell(handle, Form::string, who).payload);
}

void* newString(std::string_view bytes, uint32_t encoding) {
  auto data = std::make_unique<StringData>();
  data->recordText.reserve(bytes.size() + 1);
  data->recordText.push_back(char(bytes.size() > 255 ? 255 : bytes.size()));
  data->recordText.append(bytes);
  data->encoding = encoding;
  Cell& cell = allocateCell(Form::string, builtInClass(Kind::string), 16);
  writeRecord(cell, *data);
  cell.payload = data.release();
  return cell.handle();
}

std::optional<std::string> convertBytes(std::string_view bytes, uint32_t from, uint32_t to) {
  if (!iconvName(from) || !iconvName(to)) return {};
  iconv_t conversion = converter(from, to);
  std::string result(bytes.size() * 4 + 16, '\0');
  char* in = const_cast<char*>(bytes.data());
  char* out = result.data();
  size_t inLeft = bytes.size(), outLeft = result.size();
  if (iconv(conversion, &in, &inLeft, &out, &outLeft) == size_t(-1)) return {};
  result.resize(result.size() - outLeft);
  return result;
}

size_t lentStringData() {
  Guard guard(hostMutex());
  return lent().buffers.size();
}

void resetStrings() {
  Guard guard(hostMutex());
  lent().buffers.clear();
}

void StringKind::lock(void* handle) { ++liveCell(handle, Form::string, "lock").references; }
void StringKind::drop(void* handle) noexcept {
  if (dropReference(handle, Form::string, "unlock")) buryCell(*findCell(handle));
}
void StringKind::unlock(void* handle) { drop(handle); }

// ---- For tests

String string(std::string_view bytes, uint32_t encoding) {
  return String::adopt(newString(bytes, encoding));
}
String string(std::u16string_view units) {
  return string({reinterpret_cast<const char*>(units.data()), units.size() * 2}, utf16);
}
std::string bytes(const String& string) {
  return string ? std::string(stringData(string.handle(), "bytes").bytes()) : "";
}
uint32_t encoding(const String& string) {
  return string ? stringData(string.handle(), "encoding").encoding : 0;
}
std::optional<std::string> text(const String& string) {
  if (!string) return {};
  StringData& data = stringData(string.handle(), "text");
  return convertBytes(data.bytes(), data.encoding, utf8);
}
int referenceCount(const String& string) {
  return string ? liveCell(string.handle(), Form::string, "referenceCount").references.load() : 0;
}

// ---- Operations

namespace operations {

StringHandle* buildString(const Opaque* bytes, int32_t count) {
  if (count < 0 || (count > 0 && !bytes)) return nullptr;
  return handleOf<StringHandle>(
      newString({reinterpret_cast<const char*>(bytes), size_t(count)}, unknownEncoding));
}

void lockString(StringHandle* string) {
  if (string) ++liveCell(string, Form::string, "REALLockString").references;
}

void unlockString(StringHandle* string) {
  if (string && dropReference(string, Form::string, "REALUnlockString"))
    buryCell(*findCell(string));
}

bool setStringEncoding(StringHandle* string, uint32_t encoding) {
  if (!string) return false;
  Cell& cell = liveCell(string, Form::string, "REALSetStringEncoding");
  auto& data = *static_cast<StringData*>(cell.payload);
  data.encoding = encoding;
  writeRecord(cell, data);
  return true;
}

uint32_t getStringEncoding(StringHandle* string) {
  return string ? stringData(string, "REALGetStringEncoding").encoding : 0;
}

StringHandle* convertString(StringHandle* string, uint32_t encoding) {
  if (!string) return nullptr;
  StringData& data = stringData(string, "REALConvertString");
  if (encoding == data.encoding) return handleOf<StringHandle>(newString(data.bytes(), encoding));
  auto converted = convertBytes(data.bytes(), data.encoding, encoding);
  return converted ? handleOf<StringHandle>(newString(*converted, encoding)) : nullptr;
}

bool getStringData(StringHandle* string, uint32_t encoding, StringDataRecord* out) {
  if (!string || !out) return false;
  StringData& data = stringData(string, "PluginGetStringData");
  std::optional<std::string> converted;
  std::string_view bytes = data.bytes();
  if (encoding != unknownEncoding && encoding != data.encoding) {
    converted = convertBytes(bytes, data.encoding, encoding);
    if (!converted) return false;
    bytes = *converted;
  }
  // From malloc and followed by four zeros, since plug-ins free it themselves where
  // PluginDisposeStringData is missing.
  auto* buffer = static_cast<char*>(calloc(bytes.size() + 4, 1));
  if (!buffer) return false;
  memcpy(buffer, bytes.data(), bytes.size());
  if (!absent("PluginDisposeStringData")) {
    Guard guard(hostMutex());
    lent().buffers.insert(buffer);
  }
  *out = {buffer, uint32_t(bytes.size()), encoding};
  return true;
}

void disposeStringData(StringDataRecord* data) {
  if (!data || !data->bytes) return;
  {
    Guard guard(hostMutex());
    if (lent().buffers.erase(data->bytes) == 0)
      die("PluginDisposeStringData: this is no buffer that PluginGetStringData filled, or it was "
          "disposed of before");
  }
  free(data->bytes);
  *data = {};
}

const Opaque* getCString(StringHandle* string) {
  if (!string) return nullptr;
  return reinterpret_cast<const Opaque*>(stringData(string, "StringGetCString").bytes().data());
}

int32_t lenB(StringHandle* string) {
  return string ? int32_t(stringData(string, "LenB").bytes().size()) : 0;
}

Opaque* getStringCFString(StringHandle* string, uint32_t stripAmpersands) {
  if (!string) return nullptr;
  StringData& data = stringData(string, "REALGetStringCFString");
  std::string_view bytes = data.bytes();
  std::optional<std::string> converted;
  if (data.encoding != utf16) {
    converted = convertBytes(bytes, data.encoding, utf16);
    if (!converted) return nullptr;
    bytes = *converted;
  }
  std::u16string units(bytes.size() / 2, u'\0');
  memcpy(units.data(), bytes.data(), units.size() * 2);
  if (stripAmpersands) std::erase(units, u'&');
  return static_cast<Opaque*>(
      makeCocoaString(reinterpret_cast<const uint16_t*>(units.data()), units.size()));
}

} // namespace operations

} // namespace host
