#include "tests/macho/sample/sample.h"

#include <string.h>

int numbers[5000];
const double weights[3] = {0.5, 1e10, -3.25};

static int twice(int value) { return value * 2; }
int (*nextNumber)(int) = twice;

namespace {
struct Triangle : Shape {
  int sides() const override { return 3; }
};
struct Square : Shape {
  int sides() const override { return 4; }
  const char* name() const override { return "square"; }
};
const Triangle triangle{};
const Square square{};
} // namespace

const Shape* const shapes[2] = {&triangle, &square};

__attribute__((noinline)) void fillNumbers() {
  for (int i = 0; i < 5000; ++i) numbers[i] = i * i;
  memset(numbers + 10, 0, 100 * sizeof(int));
  ++sharedCounter();
}

__attribute__((noinline)) void scale(float* values) {
  for (int i = 0; i < 4; ++i) values[i] = values[i] * 2.5f + 1.0f;
}

using TypeFunction = unsigned long (*)();
static const TypeFunction weakTable[] = {CGLayerGetTypeID, nullptr, CGLayerGetTypeID};

__attribute__((noinline)) int viaWeakTable(int index) {
  return weakTable[index] ? static_cast<int>(weakTable[index]()) : -1;
}
