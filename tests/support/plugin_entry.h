// The entry of the plug-in under test, for tests that are the host themselves, or that stand
// between the plug-in and its host. Everything else goes through session.h.
#pragma once

#include "session.h"

#include "testbed/cocoa/crossing.h"

namespace session {

using Resolver = void* (*)(const char* name);

// What a host does with a plug-in: hands the resolver to its entry.
inline void enterPlugin(Resolver resolver) {
  auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resolver));
  crossing_enter(pluginEntry(), &word, 1);
}

} // namespace session
