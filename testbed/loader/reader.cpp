#include "reader.h"

#include <cstring>

namespace loader {

std::string hex(std::uint64_t number) {
  char text[32];
  snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
  return text;
}

Reader::Reader(std::span<const std::uint8_t> file, std::string name)
    : bytes_(file), name_(std::move(name)), what_("Mach header") {}

Reader Reader::part(std::uint64_t start, std::uint64_t size) const {
  Reader part = *this;
  part.bytes_ = range(start, size);
  part.start_ = start_ + start;
  part.what_ = "Mach header";
  return part;
}

void Reader::refuse(std::uint64_t offset, const std::string& reason) const {
  throw Refusal(name_ + ": " + what_ + ": at offset " + hex(start_ + offset) + ": " + reason);
}

void Reader::require(std::uint64_t offset, std::uint64_t size) const {
  if (offset > bytes_.size() || size > bytes_.size() - offset)
    refuse(offset, std::to_string(size) + " bytes are wanted here, but the " +
                       (start_ ? "i386 part of the file" : "file") + " ends at " +
                       hex(start_ + bytes_.size()));
}

std::span<const std::uint8_t> Reader::range(std::uint64_t offset, std::uint64_t size) const {
  require(offset, size);
  return bytes_.subspan(offset, size);
}

std::uint8_t Reader::byte(std::uint64_t offset) const { return range(offset, 1)[0]; }

std::uint32_t Reader::word(std::uint64_t offset) const {
  std::uint32_t word;
  memcpy(&word, range(offset, sizeof word).data(), sizeof word);
  return word;
}

std::uint32_t Reader::bigEndianWord(std::uint64_t offset) const {
  return __builtin_bswap32(word(offset));
}

std::string Reader::fixedText(std::uint64_t offset, std::uint64_t size) const {
  auto bytes = range(offset, size);
  const char* start = reinterpret_cast<const char*>(bytes.data());
  return std::string(start, strnlen(start, bytes.size()));
}

std::string_view Reader::text(std::uint64_t offset, std::uint64_t end) const {
  if (offset >= end) refuse(offset, "a text begins behind its table, which ends at " + hex(end));
  auto bytes = range(offset, end - offset);
  const char* start = reinterpret_cast<const char*>(bytes.data());
  std::size_t length = strnlen(start, bytes.size());
  if (length == bytes.size()) refuse(offset, "a text without an end");
  return {start, length};
}

std::uint8_t Cursor::byte() {
  if (at >= end) reader.refuse(at, "the table ends in the middle of an entry");
  return reader.byte(at++);
}

std::uint32_t Cursor::uleb() {
  std::uint64_t start = at, value = 0;
  for (unsigned shift = 0;; shift += 7) {
    std::uint8_t next = byte();
    if (shift < 35) value |= static_cast<std::uint64_t>(next & 0x7F) << shift;
    if ((shift >= 35 && (next & 0x7F)) || value >> 32)
      reader.refuse(start, "a number that does not fit in 32 bits");
    if (!(next & 0x80)) return static_cast<std::uint32_t>(value);
  }
}

std::int32_t Cursor::sleb() {
  std::uint64_t start = at;
  std::int64_t value = 0;
  unsigned shift = 0;
  std::uint8_t next;
  do {
    if (shift > 28) reader.refuse(start, "a number that does not fit in 32 bits");
    next = byte();
    value |= static_cast<std::int64_t>(next & 0x7F) << shift;
    shift += 7;
  } while (next & 0x80);
  if (next & 0x40) value -= std::int64_t{1} << shift;
  if (value != static_cast<std::int32_t>(value))
    reader.refuse(start, "a number that does not fit in 32 bits");
  return static_cast<std::int32_t>(value);
}

std::string_view Cursor::text() {
  auto text = reader.text(at, end);
  at += text.size() + 1;
  return text;
}

} // namespace loader
