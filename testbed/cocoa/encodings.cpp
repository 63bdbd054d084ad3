// See encodings.h.

#include "testbed/cocoa/encodings.h"

#include <cstring>

namespace encodings {

namespace {

// Units of the bytes from 0x80 on; 0 where the encoding defines none.
// clang-format off
constexpr char16_t mac_roman_units[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1,
    0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8,
    0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC,
    0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF,
    0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211,
    0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8,
    0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153,
    0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4,
    0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};
// The bytes from 0xA0 on are Latin 1.
constexpr char16_t windows_latin1_units[32] = {
    0x20AC, 0x0000, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x0000, 0x017D, 0x0000,
    0x0000, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x0000, 0x017E, 0x0178,
};
// clang-format on

// The unit of one byte in a single-byte encoding.
std::optional<char16_t> unit_of(unsigned char byte, uint32_t encoding) {
  if (byte < 0x80) return byte;
  char16_t unit = 0;
  if (encoding == mac_roman) unit = mac_roman_units[byte - 0x80];
  if (encoding == latin1) unit = byte;
  if (encoding == windows_latin1) unit = byte < 0xA0 ? windows_latin1_units[byte - 0x80] : byte;
  if (!unit) return {};
  return unit;
}

std::optional<unsigned char> byte_of(char16_t unit, uint32_t encoding) {
  if (unit < 0x80) return static_cast<unsigned char>(unit);
  for (int byte = 0x80; byte < 0x100; ++byte)
    if (unit_of(static_cast<unsigned char>(byte), encoding) == unit)
      return static_cast<unsigned char>(byte);
  return {};
}

void append(std::u16string& units, uint32_t point) {
  if (point < 0x10000) {
    units += static_cast<char16_t>(point);
    return;
  }
  units += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
  units += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
}

std::optional<std::u16string> decode_utf8(std::string_view bytes) {
  std::u16string units;
  units.reserve(bytes.size());
  for (size_t at = 0; at < bytes.size();) {
    auto first = static_cast<unsigned char>(bytes[at++]);
    if (first < 0x80) {
      units += first;
      continue;
    }
    int more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4) return {};
    uint32_t point = first & (0x3F >> more);
    for (; more > 0; --more) {
      if (at == bytes.size()) return {};
      auto next = static_cast<unsigned char>(bytes[at++]);
      if ((next & 0xC0) != 0x80) return {};
      point = point << 6 | (next & 0x3F);
    }
    uint32_t least = first >= 0xF0 ? 0x10000 : first >= 0xE0 ? 0x800 : 0x80;
    if (point < least || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000)) return {};
    append(units, point);
  }
  return units;
}

// Bytes of one character, which takes one unit or two.
size_t character(std::u16string_view units, uint32_t encoding, char (&bytes)[4], size_t& taken) {
  char16_t unit = units[0];
  taken = 1;
  if (encoding == utf16) {
    memcpy(bytes, &unit, 2);
    return 2;
  }
  if (encoding != utf8) {
    auto byte = byte_of(unit, encoding);
    if (!byte) return 0;
    bytes[0] = static_cast<char>(*byte);
    return 1;
  }
  taken = character_at(units, 0);
  if (!taken) return 0;
  uint32_t point = unit;
  if (taken == 2) point = 0x10000 + ((unit - 0xD800u) << 10) + (units[1] - 0xDC00u);
  size_t length = point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
  constexpr unsigned char leads[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (size_t at = length - 1; at > 0; --at, point >>= 6)
    bytes[at] = static_cast<char>(0x80 | (point & 0x3F));
  bytes[0] = static_cast<char>(leads[length] | point);
  return length;
}

} // namespace

bool is_lead(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool is_trail(char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

size_t character_at(std::u16string_view units, size_t at) {
  if (at >= units.size() || is_trail(units[at])) return 0;
  if (!is_lead(units[at])) return 1;
  return at + 1 < units.size() && is_trail(units[at + 1]) ? 2 : 0;
}

bool well_formed(std::u16string_view units) {
  size_t at = 0;
  while (size_t length = character_at(units, at)) at += length;
  return at == units.size();
}

bool known(uint32_t encoding) {
  return encoding == mac_roman || encoding == utf16 || encoding == latin1 ||
         encoding == windows_latin1 || encoding == ascii || encoding == utf8;
}

std::optional<std::u16string> decode(std::string_view bytes, uint32_t encoding) {
  if (!known(encoding)) return {};
  if (encoding == utf8) return decode_utf8(bytes);
  std::u16string units;
  if (encoding == utf16) {
    if (bytes.size() % 2) return {};
    units.resize(bytes.size() / 2);
    memcpy(units.data(), bytes.data(), bytes.size());
    return units;
  }
  units.reserve(bytes.size());
  for (char byte : bytes) {
    auto unit = unit_of(static_cast<unsigned char>(byte), encoding);
    if (!unit) return {};
    units += *unit;
  }
  return units;
}

bool encoder::put(std::u16string_view units, size_t& used) {
  for (used = 0; used < units.size();) {
    char16_t unit = units[used];
    if (unit < 0x80 && encoding != utf16) {
      if (written == room) return false;
      out[written++] = static_cast<char>(unit);
      ++used;
      continue;
    }
    char bytes[4];
    size_t taken;
    size_t length = character(units.substr(used), encoding, bytes, taken);
    if (!length || length > room - written) return false;
    memcpy(out + written, bytes, length);
    written += length;
    used += taken;
  }
  return true;
}

std::optional<std::string> encode(std::u16string_view units, uint32_t encoding) {
  if (!known(encoding)) return {};
  std::string bytes(units.size() * 4, '\0');
  encoder to = {bytes.data(), bytes.size(), encoding};
  size_t used;
  if (!to.put(units, used)) return {};
  bytes.resize(to.written);
  return bytes;
}

} // namespace encodings
