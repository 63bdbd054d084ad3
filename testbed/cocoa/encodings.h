// The byte encodings that this library knows, by Core Foundation's numbers, strict in both
// directions. Plain functions without state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace encodings {

enum : uint32_t {
  mac_roman = 0,
  utf16 = 0x0100, // host byte order
  latin1 = 0x0201,
  windows_latin1 = 0x0500,
  ascii = 0x0600,
  utf8 = 0x08000100,
};

// Nothing for an unknown encoding and for bytes that it does not define.
std::optional<std::u16string> decode(std::string_view bytes, uint32_t encoding);

// Appends what UNITS are in the encoding to a buffer. Stops at what does not fit or does not exist
// in the encoding, a lone surrogate among it; used says how many units are converted.
struct encoder {
  char* out;
  size_t room;
  uint32_t encoding;
  size_t written = 0;
  bool put(std::u16string_view units, size_t& used);
};

bool known(uint32_t encoding);
bool is_lead(char16_t unit);
bool is_trail(char16_t unit);

// Units of the character that begins there: 1 or 2, or 0 at a lone surrogate and at the end.
size_t character_at(std::u16string_view units, size_t at);
bool well_formed(std::u16string_view units); // no lone surrogate

// For short strings. Nothing when a unit cannot be converted.
std::optional<std::string> encode(std::u16string_view units, uint32_t encoding);

} // namespace encodings
