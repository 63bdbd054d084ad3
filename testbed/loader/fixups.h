// The rebase and bind tables and the export trie of a bundle.
#pragma once

#include "image.h"

namespace loader {

// Where the segments lie: a byte of the bundle at address A is at memory + (A - image.lowest()).
struct Placement {
  std::uint8_t* memory;
  std::uint32_t slide; // what an address of the bundle grows by
};

// Both refuse a word outside of the writable segments and a word that is set twice.
class Fixups {
public:
  Fixups(Reader& reader, const Image& image, Placement placement);
  void rebase();
  void bind(const Resolver& resolver);

private:
  struct Position {
    const SegmentCommand* segment = nullptr;
    std::uint64_t offset = 0;
  };
  Position position(Cursor& cursor, unsigned segment) const;
  void advance(Cursor& cursor, Position& position, std::uint64_t bytes) const;
  std::uint32_t* word(std::uint64_t at, const Position& position);

  Reader& reader_;
  const Image& image_;
  const Placement placement_;
  std::vector<bool> set_; // one a byte of the image
};

// The address of an exported function or variable, before it is placed, by its symbol (with the
// underscore). Answers whether there is such a symbol.
bool findExport(Reader& reader, const Image& image, std::string_view symbol,
                std::uint32_t& address);

} // namespace loader
