// Cocoa's plain structs as 32-bit Mac OS X lays them out; also the records of their host wrappers.
#pragma once

#include <cstdint>

struct NSPoint {
  float x, y;
};

struct NSSize {
  float width, height;
};

struct NSRect {
  NSPoint origin;
  NSSize size;
};

struct NSRange {
  std::uint32_t location, length;
};
