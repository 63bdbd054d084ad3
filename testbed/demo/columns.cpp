#include "columns.h"

namespace columns {
namespace {

bool continues(char byte) { return (byte & 0xC0) == 0x80; } // inside a letter, in UTF-8

// Where the letter after `letters` more letters begins.
std::size_t skip(const std::string& text, std::size_t at, std::size_t letters) {
  for (; at < text.size() && letters > 0; --letters) do
      ++at;
    while (at < text.size() && continues(text[at]));
  return at;
}

} // namespace

std::string wrapped(const std::string& text, std::size_t indent) {
  std::string result;
  for (std::size_t at = 0;;) {
    std::size_t end = skip(text, at, width - indent), next = end;
    if (end < text.size()) {
      std::size_t space = text.rfind(' ', end);
      if (space != std::string::npos && space > at) {
        end = space;
        next = space + 1;
      }
    }
    result += text.substr(at, end - at);
    if (next >= text.size()) return result;
    result += "\n" + std::string(indent, ' ');
    at = next;
  }
}

} // namespace columns
