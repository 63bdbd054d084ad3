// The entry of the plug-in under test, for tests that are the host themselves, or that stand
// between the plug-in and its host. Everything else goes through session.h.
#pragma once

#include "session.h"

#include "testbed/cocoa/crossing.h"
#include "testbed/loader/loader.h"

#include <cstdlib>
#include <dlfcn.h>
#include <stdexcept>
#include <string_view>

namespace session {

using Resolver = void* (*)(const char* name);

// The same copy of the plug-in at every call; it stays for the life of the process.
inline void* pluginEntry() {
  const char* kind = std::getenv("SPARKLEKVZ_PLUGIN");
  if (kind && std::string_view(kind) != "elf") {
    static auto bundle = loader::loadFile(kind);
    return reinterpret_cast<void*>(bundle->entry<void()>());
  }
  void* library = dlopen("libSparkleKVZ.so", RTLD_NOW | RTLD_LOCAL);
  void* entry = library ? dlsym(library, "REALPluginMain") : nullptr;
  if (!entry) throw std::runtime_error(dlerror());
  return entry;
}

// What a host does with a plug-in: hands the resolver to its entry.
inline void enterPlugin(Resolver resolver) {
  auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resolver));
  crossing_enter(pluginEntry(), &word, 1);
}

} // namespace session
