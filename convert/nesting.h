// How deep a conversion is, and whether it has ended early: then all of it answers null (nil), with
// nothing leaked. A collection nested deeper than kDeepest ends it, since collections may hold
// themselves, and a stack ends; and so does a host exception, of which a call raises one at most.
#pragma once

// Feed parameters are converted on threads of the framework's, whose stack on Mac OS X is 512 KB. A
// level takes up to 384 bytes of it here; Cocoa's way through a tree that it lets go is taken for
// 500 a level. Both stay below half of the stack.
inline constexpr unsigned kDeepest = 512;

struct Nesting {
  unsigned depth;
  bool* ended; // shared by all levels of one conversion

  Nesting deeper() const {
    if (depth >= kDeepest) *ended = true;
    return {depth + 1, ended};
  }
};

// Runs convert(nesting) as the outermost level of a conversion.
template <class Convert> inline auto outermost(Convert convert) {
  bool ended = false;
  return convert(Nesting{0, &ended});
}
