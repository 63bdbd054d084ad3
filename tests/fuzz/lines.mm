#include "lines.h"

#include <cmath>
#include <iconv.h>

namespace fuzz {

std::string hex(std::string_view bytes) {
  std::string text;
  char digits[4];
  for (unsigned char byte : bytes) {
    snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

std::string real(double value) {
  char text[40];
  snprintf(text, sizeof text, std::isnan(value) ? "nan" : "%.17g", value);
  return text;
}

std::optional<std::string> utf8(std::u16string_view units) {
  static iconv_t converter = iconv_open("UTF-8", "UTF-16LE");
  require(converter != iconv_t(-1), "iconv lacks UTF-16; is GCONV_PATH set?");
  iconv(converter, nullptr, nullptr, nullptr, nullptr);
  std::string bytes(units.size() * 4 + 4, '\0');
  char *in = reinterpret_cast<char*>(const_cast<char16_t*>(units.data())), *out = bytes.data();
  size_t inLeft = units.size() * 2, outLeft = bytes.size();
  if (iconv(converter, &in, &inLeft, &out, &outLeft) == size_t(-1)) return {};
  bytes.resize(bytes.size() - outLeft);
  return bytes;
}

std::u16string unitsOf(NSString* string) {
  std::u16string units([string length], u'\0');
  [string getCharacters:reinterpret_cast<unichar*>(units.data())
                  range:NSMakeRange(0, units.size())];
  return units;
}

std::string sortedEntries(std::vector<std::string> entries) {
  std::sort(entries.begin(), entries.end());
  return joined("{", "}", entries, [](const std::string& entry) { return entry; });
}

const StructClass* structClass(std::string_view className) {
  static const StructClass all[] = {{"NSRectKVZ", @encode(NSRect), sizeof(NSRect), false},
                                    {"NSSizeKVZ", @encode(NSSize), sizeof(NSSize), false},
                                    {"NSPointKVZ", @encode(NSPoint), sizeof(NSPoint), false},
                                    {"NSRangeKVZ", @encode(NSRange), sizeof(NSRange), true}};
  for (const StructClass& each : all)
    if (className == each.className) return &each;
  return nullptr;
}

std::string structLine(const StructClass& type, const void* content) {
  std::string line;
  for (size_t at = 0; at < type.size; at += 4) {
    uint32_t whole;
    float number;
    memcpy(&whole, static_cast<const char*>(content) + at, 4);
    memcpy(&number, &whole, 4);
    line += " " + (type.whole ? std::to_string(whole) : real(number));
  }
  return line;
}

namespace {

std::string hostScalar(const host::Value& value) {
  if (std::holds_alternative<host::String>(value.held())) {
    auto text = value.as<host::String>();
    return text ? "text " + hex(host::bytes(text)) : "no text";
  }
  if (std::holds_alternative<float>(value.held())) return real(value.as<float>());
  if (std::holds_alternative<double>(value.held())) return real(value.as<double>());
  return host::print(value);
}

} // namespace

std::string hostLine(const host::Object& object) {
  if (!object) return "nil";
  std::string type = host::className(object);
  if (type == "Variant") {
    host::VariantView view = host::inspect(object);
    return view.maker + " " + hostScalar(view.value);
  }
  if (type == "Array")
    return joined("[", "]", host::elements(object),
                  [](const host::Value& element) { return hostLine(element.as<host::Object>()); });
  if (type == "Dictionary") {
    std::vector<std::string> entries;
    for (auto& [key, value] : host::entries(object))
      entries.push_back(hostLine(key) + "=" + hostLine(value));
    return sortedEntries(entries);
  }
  if (type == "Date") {
    host::DateFields f = host::dateFields(object);
    char text[90];
    snprintf(text, sizeof text, "Date %d-%d-%d %d:%d:%d", f.year, f.month, f.day, f.hour, f.minute,
             f.second);
    return text;
  }
  if (type == "MemoryBlock") return "bytes " + hex(host::memoryBlockBytes(object));
  if (const StructClass* known = structClass(type))
    return type + structLine(*known, host::data(object));
  return type;
}

std::string textInHost(std::u16string_view units) {
  std::string bytes = utf8(units).value_or("");
  bytes = bytes.substr(0, bytes.find('\0'));
  return bytes.empty() ? "StringToVariant no text" : "StringToVariant text " + hex(bytes);
}

// The C library's own function ends in 2038.
std::string dateInHost(int64_t seconds) {
  int64_t days = seconds / 86400, rest = seconds % 86400;
  if (rest < 0) rest += 86400, --days;
  // Years from 1 March of the year 0 on, in eras of 400.
  days += 719468;
  int64_t era = (days >= 0 ? days : days - 146096) / 146097, day = days - era * 146097;
  int64_t year = (day - day / 1460 + day / 36524 - day / 146096) / 365;
  day -= year * 365 + year / 4 - year / 100;
  int64_t month = (5 * day + 2) / 153;
  day -= (153 * month + 2) / 5;
  month += month < 10 ? 3 : -9;
  char line[90];
  snprintf(line, sizeof line, "Date %d-%d-%d %d:%d:%d", int(year + era * 400 + (month <= 2)),
           int(month), int(day) + 1, int(rest / 3600), int(rest / 60 % 60), int(rest % 60));
  return line;
}

} // namespace fuzz
