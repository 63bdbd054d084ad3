// Values as lines of text, for comparisons: what a host value is, and what a Cocoa value becomes in
// the host.
#pragma once

#include "support.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace fuzz {

std::string hex(std::string_view bytes);
std::string real(double value);
// Nothing for units that are no text: lone surrogates.
std::optional<std::string> utf8(std::u16string_view units);
std::u16string unitsOf(NSString* string);

template <typename Range, typename Each>
std::string joined(const char* open, const char* close, const Range& range, Each each) {
  std::string text = open;
  for (auto& value : range) text += each(value) + ",";
  return text + close;
}
// Entries "key=value" in whatever order they came.
std::string sortedEntries(std::vector<std::string> entries);

// The wrapper classes that have a struct as their data, of floats or of whole numbers.
struct StructClass {
  const char* className;
  const char* cocoaType;
  size_t size;
  bool whole;
};
// Null for other classes.
const StructClass* structClass(std::string_view className);
// All that is no number is alike: on its way through a register it may change.
std::string structLine(const StructClass& type, const void* content);

// A variant and all that is in it, each boxed value with the operation that made it.
std::string hostLine(const host::Object& object);

// What the rules make of a string, and of a date while the time zone is that of Greenwich.
std::string textInHost(std::u16string_view units);
std::string dateInHost(int64_t secondsFrom1970);

} // namespace fuzz
