// Text in columns of a fixed width. Letters are counted, not bytes.
#pragma once

#include <string>

namespace columns {

constexpr std::size_t width = 100; // of a line, on a terminal or in a pipe

// The text in lines that end before `width`. All but the first begin with `indent` spaces, which
// the first one has behind it already. A word that is too long for a line is parted.
std::string wrapped(const std::string& text, std::size_t indent);

} // namespace columns
