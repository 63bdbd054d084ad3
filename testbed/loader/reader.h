// Checked reading of a file in memory. No read outside the range; every failure is a Refusal that
// says which load command was being read and where.
#pragma once

#include "loader.h"

#include <string_view>

namespace loader {

class Reader {
public:
  // `start` and `size` delimit the part of the file that is read: all of it, or one architecture.
  // The file must outlive the reader.
  Reader(std::span<const std::uint8_t> file, std::string name);
  Reader part(std::uint64_t start, std::uint64_t size) const;

  std::uint64_t size() const { return bytes_.size(); }
  std::uint8_t byte(std::uint64_t offset) const;
  std::uint32_t word(std::uint64_t offset) const;
  std::uint32_t bigEndianWord(std::uint64_t offset) const;
  std::span<const std::uint8_t> range(std::uint64_t offset, std::uint64_t size) const;
  // A name in a field of fixed size, which NULs fill up.
  std::string fixedText(std::uint64_t offset, std::uint64_t size) const;
  // A text with its NUL before `end`.
  std::string_view text(std::uint64_t offset, std::uint64_t end) const;

  // What the following reads belong to, for the message.
  void enter(std::string what) { what_ = std::move(what); }
  [[noreturn]] void refuse(std::uint64_t offset, const std::string& reason) const;

private:
  void require(std::uint64_t offset, std::uint64_t size) const;

  std::span<const std::uint8_t> bytes_;
  std::uint64_t start_ = 0; // of bytes_, in the file
  std::string name_, what_;
};

// Reads a stream of opcodes or a trie, from `at` up to `end`.
struct Cursor {
  const Reader& reader;
  std::uint64_t at, end;

  bool more() const { return at < end; }
  std::uint8_t byte();
  std::uint32_t uleb(); // refuses what does not fit in 32 bits
  std::int32_t sleb();
  std::string_view text();
};

std::string hex(std::uint64_t number);

} // namespace loader
