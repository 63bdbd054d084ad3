// What the other files of this folder tell faults.mm. Not for other folders; see faults.h.
#pragma once

#include <atomic>

#include <objc/objc.h>

namespace observe {

// All that a call costs while nobody watches.
extern std::atomic<bool> watching __attribute__((visibility("hidden")));

void send(id receiver, SEL selector); // may throw, natively
bool function_fails(const char* name);

// The plug-in sends a message.
inline void message(id receiver, SEL selector) {
  if (__builtin_expect(watching.load(std::memory_order_relaxed), 0)) send(receiver, selector);
}

// The plug-in calls a function that may fail; true when it has to.
inline bool fails(const char* name) {
  return __builtin_expect(watching.load(std::memory_order_relaxed), 0) && function_fails(name);
}

} // namespace observe
