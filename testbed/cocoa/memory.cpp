// malloc and calloc for the plug-in: the C library's, but counted and able to fail (faults.h).

#include "testbed/cocoa/observe.h"

#include <cstdlib>

extern "C" {
#pragma GCC visibility push(default)

void* __wrap_malloc(size_t size) { return observe::fails("malloc") ? nullptr : malloc(size); }

void* __wrap_calloc(size_t count, size_t size) {
  return observe::fails("calloc") ? nullptr : calloc(count, size);
}

#pragma GCC visibility pop
}
