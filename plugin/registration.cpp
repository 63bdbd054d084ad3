#include "plugin/registration.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr std::size_t kWord = 4;

// Words of an entry in interface version 9; later versions append to them.
constexpr std::size_t kPropertyWords = 10;
constexpr std::size_t kMethodWords = 4;
constexpr std::size_t kEventWords = 2;
constexpr std::size_t kConstantWords = 3;

// A copy of the array with only the first words of each entry.
template <class Entry>
Entry* shortened(const Entry* array, std::uint32_t count, std::size_t words) {
  const std::uint64_t size = static_cast<std::uint64_t>(count) * words * kWord;
  if (!array || size == 0 || size > INT32_MAX) return nullptr;
  auto* copy = static_cast<char*>(calloc(1, static_cast<std::size_t>(size)));
  if (!copy) return nullptr;
  for (std::uint32_t i = 0; i < count; ++i) {
    memcpy(copy + i * words * kWord, &array[i], words * kWord);
  }
  return reinterpret_cast<Entry*>(copy);
}

// Events are known to the host by the entry it was given, which is the copy: each static entry
// remembers its own.
REALevent* shortenedEvents(REALevent* events, std::uint32_t count) {
  REALevent* copy = shortened(events, count, kEventWords);
  if (!copy) return nullptr;
  auto* words = reinterpret_cast<std::uint32_t*>(copy);
  for (std::uint32_t i = 0; i < count; ++i) events[i].forSystemUse = words + i * kEventWords;
  return copy;
}

void convertToVersion9(REALclassDefinition& type) {
  type.properties = FixProperties(type.properties, static_cast<int>(type.propertyCount));
  type.methods = shortened(type.methods, type.methodCount, kMethodWords);
  type.events = shortenedEvents(type.events, type.eventCount);
  type.bindDescriptions = nullptr;
  type.bindDescriptionCount = 0;
  type.constants = shortened(type.constants, type.constantCount, kConstantWords);
  type.sharedProperties =
      FixProperties(type.sharedProperties, static_cast<int>(type.sharedPropertyCount));
  type.sharedMethods = shortened(type.sharedMethods, type.sharedMethodCount, kMethodWords);
  // Hosts read as many entries as they are told, and a copy may have found no memory.
  const struct {
    const void* table;
    std::uint32_t& count;
  } copies[] = {
      {type.properties, type.propertyCount},
      {type.methods, type.methodCount},
      {type.events, type.eventCount},
      {type.constants, type.constantCount},
      {type.sharedProperties, type.sharedPropertyCount},
      {type.sharedMethods, type.sharedMethodCount},
  };
  for (const auto& copy : copies) {
    if (!copy.table) copy.count = 0;
  }
}

} // namespace

REALproperty* FixProperties(REALproperty* properties, int count) {
  return shortened(properties, static_cast<std::uint32_t>(count), kPropertyWords);
}

void MyREALRegisterClass(REALclassDefinition* definition) {
  while (definition->dataSize & 15) ++definition->dataSize;
  definition->version = static_cast<std::uint32_t>(CurrentREALControlVersion);
  if (CurrentREALControlVersion == 9) convertToVersion9(*definition);
  REALRegisterClass(definition);
}

std::uint32_t* registeredEvent(const REALevent& entry) {
  if (CurrentREALControlVersion != 9) return entry.forSystemUse;
  // Word 1 of the copy, which a failed registration may have left unmade.
  return entry.forSystemUse ? reinterpret_cast<std::uint32_t*>(entry.forSystemUse[1]) : nullptr;
}
