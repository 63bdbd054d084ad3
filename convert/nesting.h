// How deep a conversion is. Collections may hold themselves, and a stack ends: a collection nested
// deeper than kDeepest makes the whole conversion answer null (nil), with nothing leaked.
#pragma once

inline constexpr unsigned kDeepest = 1024;

struct Nesting {
  unsigned depth;
  bool* exceeded; // shared by all levels of one conversion

  Nesting deeper() const {
    if (depth >= kDeepest) *exceeded = true;
    return {depth + 1, exceeded};
  }
};

// Runs convert(nesting) as the outermost level of a conversion.
template <class Convert> inline auto outermost(Convert convert) {
  bool exceeded = false;
  return convert(Nesting{0, &exceeded});
}
