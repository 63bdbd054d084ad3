// What the load commands of a Mach-O bundle say, checked.
#pragma once

#include "reader.h"

namespace loader {

struct Range {
  std::uint32_t offset = 0, size = 0;
};

struct SegmentCommand {
  std::string name;
  std::uint32_t address, size, fileOffset, fileSize, protection;
};

struct Image {
  std::vector<SegmentCommand> segments; // of non-zero size, not overlapping
  std::vector<std::string> libraries;
  Range rebases, binds, exports;
  std::uint32_t symbolOffset = 0, symbolCount = 0;
  Range strings;
  std::string linkInformation, symbolTable; // their load commands, for messages

  std::uint32_t lowest() const, highest() const;
};

// A bundle may take this much memory.
inline constexpr std::uint32_t imageLimit = 16 << 20;

// The part of the file that is for i386: of a fat file one architecture, else all of it.
Reader i386Part(Reader file);

// The reader is that of the i386 part. Offsets in the image are from the start of that part.
Image parse(Reader& reader);

} // namespace loader
