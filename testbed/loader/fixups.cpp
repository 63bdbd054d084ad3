#include "fixups.h"

#include "macho.h"

#include <cstring>

namespace loader {

using namespace macho;

namespace {

constexpr std::uint8_t opcodeMask = 0xF0, immediateMask = 0x0F;
constexpr std::uint32_t wordSize = 4;

Cursor cursorOf(const Reader& reader, Range range) {
  return {reader, range.offset, std::uint64_t{range.offset} + range.size};
}

} // namespace

Fixups::Fixups(Reader& reader, const Image& image, Placement placement)
    : reader_(reader), image_(image), placement_(placement),
      set_(image.highest() - image.lowest()) {}

Fixups::Position Fixups::position(Cursor& cursor, unsigned segment) const {
  std::uint64_t at = cursor.at - 1;
  if (segment >= image_.segments.size())
    reader_.refuse(at, "segment " + std::to_string(segment) + " of " +
                           std::to_string(image_.segments.size()));
  Position position{&image_.segments[segment]};
  advance(cursor, position, cursor.uleb());
  return position;
}

void Fixups::advance(Cursor& cursor, Position& position, std::uint64_t bytes) const {
  if (!position.segment) reader_.refuse(cursor.at, "an address before any segment is set");
  position.offset += bytes; // word() looks whether it is inside
}

std::uint32_t* Fixups::word(std::uint64_t at, const Position& position) {
  if (!position.segment) reader_.refuse(at, "an address before any segment is set");
  const SegmentCommand& segment = *position.segment;
  if (!(segment.protection & mayWrite))
    reader_.refuse(at, "a word in " + segment.name + ", which is not writable");
  if (segment.size < wordSize || position.offset > segment.size - wordSize)
    reader_.refuse(at, "a word beyond " + segment.name + ": " + hex(position.offset) + " of " +
                           hex(segment.size));
  std::uint32_t offset =
      segment.address - image_.lowest() + static_cast<std::uint32_t>(position.offset);
  for (std::uint32_t i = 0; i < wordSize; ++i) {
    if (set_[offset + i]) reader_.refuse(at, "the word at " + hex(offset) + " is set twice");
    set_[offset + i] = true;
  }
  return reinterpret_cast<std::uint32_t*>(placement_.memory + offset);
}

void Fixups::rebase() {
  reader_.enter(image_.linkInformation + ", rebase table");
  Cursor cursor = cursorOf(reader_, image_.rebases);
  Position position;
  bool typed = false;
  auto times = [&](std::uint64_t at, std::uint32_t count, std::uint32_t skip) {
    if (!typed) reader_.refuse(at, "a rebase before its type");
    for (; count; --count) {
      std::uint32_t *target = word(at, position), value;
      memcpy(&value, target, sizeof value);
      value += placement_.slide;
      memcpy(target, &value, sizeof value);
      advance(cursor, position, std::uint64_t{wordSize} + skip);
    }
  };
  while (cursor.more()) {
    std::uint64_t at = cursor.at;
    std::uint8_t next = cursor.byte(), immediate = next & immediateMask;
    switch (next & opcodeMask) {
    case REBASE_DONE:
      return;
    case REBASE_SET_TYPE:
      if (immediate != typePointer) reader_.refuse(at, "rebase type " + hex(immediate));
      typed = true;
      break;
    case REBASE_SET_SEGMENT_AND_OFFSET:
      position = this->position(cursor, immediate);
      break;
    case REBASE_ADD_ADDRESS:
      advance(cursor, position, cursor.uleb());
      break;
    case REBASE_ADD_ADDRESS_SCALED:
      advance(cursor, position, immediate * wordSize);
      break;
    case REBASE_DO_TIMES:
      times(at, immediate, 0);
      break;
    case REBASE_DO_ULEB_TIMES:
      times(at, cursor.uleb(), 0);
      break;
    case REBASE_DO_ADD_ADDRESS:
      times(at, 1, cursor.uleb());
      break;
    case REBASE_DO_ULEB_TIMES_SKIPPING: {
      std::uint32_t count = cursor.uleb();
      times(at, count, cursor.uleb());
      break;
    }
    default:
      reader_.refuse(at, "unknown rebase opcode " + hex(next));
    }
  }
}

void Fixups::bind(const Resolver& resolver) {
  reader_.enter(image_.linkInformation + ", bind table");
  Cursor cursor = cursorOf(reader_, image_.binds);
  Position position;
  std::string symbol, missing;
  std::uint64_t firstMissing = 0;
  std::uint32_t library = 0, value = 0;
  std::int32_t addend = 0;
  bool typed = false, named = false;
  auto times = [&](std::uint64_t at, std::uint32_t count, std::uint32_t skip) {
    if (!named || !typed || !library)
      reader_.refuse(at, "a binding without symbol, type or library");
    for (; count; --count) {
      std::uint32_t *target = word(at, position), bound = value ? value + addend : 0;
      memcpy(target, &bound, sizeof bound);
      advance(cursor, position, std::uint64_t{wordSize} + skip);
    }
  };
  auto setLibrary = [&](std::uint64_t at, std::uint32_t ordinal) {
    if (ordinal == 0 || ordinal > image_.libraries.size())
      reader_.refuse(at, "library " + std::to_string(ordinal) + " of " +
                             std::to_string(image_.libraries.size()));
    library = ordinal;
  };
  auto setSymbol = [&](std::uint64_t at, std::uint8_t flags) {
    if (flags & ~symbolIsWeak) reader_.refuse(at, "symbol flags " + hex(flags));
    symbol = cursor.text();
    named = true;
    void* found = symbol.starts_with('_') ? resolver(symbol.c_str() + 1) : nullptr;
    value = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(found));
    if (found || flags & symbolIsWeak) return;
    if (missing.empty()) firstMissing = at;
    std::string origin = library ? " of " + image_.libraries[library - 1] : "";
    missing += (missing.empty() ? "" : ", ") + symbol + origin;
  };
  while (cursor.more()) {
    std::uint64_t at = cursor.at;
    std::uint8_t next = cursor.byte(), immediate = next & immediateMask;
    switch (next & opcodeMask) {
    case BIND_DONE:
      cursor.at = cursor.end;
      break;
    case BIND_SET_LIBRARY:
      setLibrary(at, immediate);
      break;
    case BIND_SET_LIBRARY_ULEB:
      setLibrary(at, cursor.uleb());
      break;
    case BIND_SET_SYMBOL:
      setSymbol(at, immediate);
      break;
    case BIND_SET_TYPE:
      if (immediate != typePointer) reader_.refuse(at, "binding type " + hex(immediate));
      typed = true;
      break;
    case BIND_SET_ADDEND:
      addend = cursor.sleb();
      break;
    case BIND_SET_SEGMENT_AND_OFFSET:
      position = this->position(cursor, immediate);
      break;
    case BIND_ADD_ADDRESS:
      advance(cursor, position, cursor.uleb());
      break;
    case BIND_DO:
      times(at, 1, 0);
      break;
    case BIND_DO_ADD_ADDRESS:
      times(at, 1, cursor.uleb());
      break;
    case BIND_DO_ADD_ADDRESS_SCALED:
      times(at, 1, immediate * wordSize);
      break;
    case BIND_DO_ULEB_TIMES_SKIPPING: {
      std::uint32_t count = cursor.uleb();
      times(at, count, cursor.uleb());
      break;
    }
    default:
      reader_.refuse(at, "unknown bind opcode " + hex(next));
    }
  }
  if (!missing.empty()) reader_.refuse(firstMissing, "nobody provides " + missing);
}

bool findExport(Reader& reader, const Image& image, std::string_view symbol,
                std::uint32_t& address) {
  reader.enter(image.linkInformation + ", export trie");
  Cursor cursor = cursorOf(reader, image.exports);
  if (!cursor.more()) return false;
  // Every step takes at least one character off the symbol, so the walk ends.
  while (true) {
    std::uint32_t infoSize = cursor.uleb();
    std::uint64_t info = cursor.at;
    if (infoSize > cursor.end - cursor.at) reader.refuse(info, "an entry beyond the trie");
    if (symbol.empty()) {
      if (!infoSize) return false;
      if (std::uint32_t flags = cursor.uleb()) reader.refuse(info, "export flags " + hex(flags));
      address = cursor.uleb() + image.segments.front().address;
      for (const SegmentCommand& segment : image.segments)
        if (address >= segment.address && address - segment.address < segment.size) return true;
      reader.refuse(info, "an export outside of every segment: " + hex(address));
    }
    cursor.at = info + infoSize;
    std::uint32_t next = 0;
    for (unsigned children = cursor.byte(); children && !next; --children) {
      std::string_view edge = cursor.text();
      std::uint32_t child = cursor.uleb();
      if (edge.empty() || child == 0 || child >= image.exports.size)
        reader.refuse(info, "a branch that leads nowhere");
      if (!symbol.starts_with(edge)) continue;
      symbol.remove_prefix(edge.size());
      next = child;
    }
    if (!next) return false;
    cursor.at = image.exports.offset + std::uint64_t{next};
  }
}

} // namespace loader
