#include "tests/macho/sample/sample.h"

#include <cstdint>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

struct Entry {
  int (*function)(int);
  const char* declaration;
  std::uint32_t flags;
  Entry* next;
};

int jumpTable(int value) {
  switch (value) {
  case 0:
    return 7;
  case 1:
    return static_cast<int>(strlen(weights[0] > 0 ? "seven!!" : ""));
  case 2:
    return sharedCounter();
  case 3:
    return 1000;
  case 4:
    return nextNumber(value);
  case 5:
    return viaWeakTable(1);
  case 6:
    return 123456789;
  case 9:
    return numbers[9];
  default:
    return -1;
  }
}

const char* names(int value) {
  switch (value) {
  case 0:
    return "zero";
  case 1:
    return "one";
  case 2:
    return "two";
  case 3:
    return "three";
  case 4:
    return "four";
  default:
    return "many";
  }
}

extern Entry entries[3];
Entry entries[3] = {{jumpTable, "jumpTable(value as integer) as integer", 4, &entries[2]},
                    {[](int value) { return value + 1; }, &"xxnext"[2], 6, nullptr},
                    {nextNumber, "nextNumber", 4, &entries[1]}};

struct Definition {
  std::uint32_t version;
  Entry* entries;
  int* middle;
  const char16_t* wide;
  std::size_t (*length)(const char*);
};
Definition definition = {12, entries, &numbers[100], u"\u00e4\u20ac", strlen};

alignas(16) float aligned[4] = {1, 2, 3, 4};
alignas(16) char alignedZeros[64];
std::uint8_t odd[3] = {1, 2, 3};

template <int Number> int cached() {
  static int value = numbers[Number] + Number;
  return value;
}

Report report;

template <class... Values> void say(const char* format, Values... values) {
  char line[256];
  snprintf(line, sizeof line, format, values...);
  report(line);
}

struct Big {
  int words[64];
};
Big copyOf(const Big& big) { return big; }

// What was stored before the jump must still be there after it.
__attribute__((noinline)) int guarded(void (*jump)(void*)) {
  jmp_buf buffer;
  volatile int steps = 1;
  if (_setjmp(buffer) == 0) {
    steps = 2;
    jump(&buffer);
    return -1;
  }
  return steps + 10;
}

} // namespace

extern "C" __attribute__((visibility("default"))) void REALPluginMain(Resolver resolve) {
  report = reinterpret_cast<Report>(resolve("report"));
  say("missing: %d", resolve("no such thing") == nullptr);

  fillNumbers();
  volatile int value; // which keeps the compiler from working it all out
  for (value = 0; value < 11; value = value + 1)
    say("jump table %d: %d %s", value, jumpTable(value), names(value));
  for (Entry* entry = definition.entries; entry; entry = entry->next)
    say("entry: %d %s %u", entry->function(4), entry->declaration, entry->flags);
  definition.version += 3;
  say("definition: %u %d %x %x %d", definition.version, *definition.middle, definition.wide[0],
      definition.wide[1], static_cast<int>(definition.length(names(3))));
  say("alignment: %d %d %d", static_cast<int>(reinterpret_cast<std::uintptr_t>(aligned) % 16),
      static_cast<int>(reinterpret_cast<std::uintptr_t>(alignedZeros) % 16),
      static_cast<int>(reinterpret_cast<std::uintptr_t>(&definition) % 4));

  scale(aligned);
  say("floats: %g %g %g %g", aligned[0], aligned[1], aligned[2], aligned[3]);
  double product = weights[2] * weights[1] + 1.0 / 3;
  say("doubles: %.17g %.17g", product, static_cast<double>(static_cast<std::uint64_t>(weights[1])));
  std::int64_t wide = static_cast<std::int64_t>(product) * 123457;
  say("integers: %lld %u", static_cast<long long>(wide), static_cast<unsigned>(wide >> 5));
  say("cached: %d %d %d", cached<3>(), cached<4000>(), cached<3>());
  for (value = 0; value < 2; value = value + 1)
    say("shape: %s %d", shapes[value]->name(), shapes[value]->sides());
  say("odd bytes: %d %d", odd[0] + odd[2], alignedZeros[63]);

  Big big = {};
  for (int& word : big.words) word = nextNumber(sharedCounter());
  Big copy = copyOf(big);
  say("copy: %d %d", copy.words[63], strcmp("abc", names(1)) < 0);

  // Through a volatile, so that the addresses of the imports themselves are loaded.
  void* (*volatile take)(std::size_t, std::size_t) = calloc;
  void (*volatile give)(void*) = free;
  char* block = static_cast<char*>(take(3, 100));
  memcpy(block, names(2), 4);
  say("heap: %s %d", block, block[299]);
  give(block);

  say("weak: %d %d %d", CGLayerGetTypeID ? static_cast<int>(CGLayerGetTypeID()) : -1,
      viaWeakTable(0), viaWeakTable(2));
  say("guarded: %d", guarded(reinterpret_cast<void (*)(void*)>(resolve("jump"))));
}
