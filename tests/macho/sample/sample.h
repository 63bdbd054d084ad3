// A bundle of the constructs that a linker can get wrong: tables of pointers, jump tables, literal
// pools, zero-filled and aligned data, caches inside functions, imports as calls, as pointers and
// as weak references. It is built twice, as Mach-O and into the test as ELF, and the two must
// report the same lines.
#pragma once

#include <stddef.h>

extern "C" {
using Report = void (*)(const char* line);
using Resolver = void* (*)(const char* name);

// Listed as a weak import. Never called where nobody provides it.
__attribute__((weak)) unsigned long CGLayerGetTypeID();
}

inline int& sharedCounter() {
  static int counter = 40;
  return counter;
}

extern int (*nextNumber)(int);
extern const double weights[3];

struct Shape {
  virtual int sides() const = 0;
  virtual const char* name() const { return "shape"; }
};

extern const Shape* const shapes[2];
int viaWeakTable(int index);
void fillNumbers();
extern int numbers[5000];
void scale(float* values);
