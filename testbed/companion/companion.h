// The companion's control interface, for tests and the demo.
//
// The companion is a plug-in: a test opens the library, adjusts what it will provide, and lets the
// host load it:
//
//     const struct companion_api* companion = companion_open(path);
//     companion->provide(COMPANION_REGISTRY, 0);
//     ... the host loads `path` and calls REALPluginMain ...
//
// Opening the library twice gives the same copy. What is marked "before entry" is settled when
// REALPluginMain runs. A call made too late, or with a name that no table has, says so on standard
// error and ends the process, because a test that goes on with another set-up than it asked for
// proves nothing.
//
// Host objects are void* here. Threads: the functions marked "before entry" and the registry belong
// to the thread that runs host code; switches and counters may be used from any thread.
#pragma once

#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

enum companion_part {
  COMPANION_EXCEPTION_CLASS, // the host class "NSExceptionKVZ"
  COMPANION_NEW_EXCEPTION,   // +[NSException NewNSExceptionKVZ:]
  COMPANION_PREPARE,         // +[NSException PrepareNSExceptionKVZ]
  COMPANION_REGISTRY,        // +[NSException GetInstancesDictionaryKVZ]
  COMPANION_BOXES,           // the Cocoa class KVZREALobjectWrapper
  COMPANION_TIMES,           // the methods of NSValue for QuickTime and Core Media times
  COMPANION_PART_COUNT
};

enum companion_counter {
  COMPANION_PREPARED,      // how often PrepareNSExceptionKVZ was sent
  COMPANION_EXCEPTIONS,    // NSExceptionKVZ objects handed out by NewNSExceptionKVZ:
  COMPANION_REGISTERED,    // entries of the registry
  COMPANION_LIVE_WRAPPERS, // instances of wrapper classes constructed and not yet destroyed
  COMPANION_LIVE_BOXES     // KVZREALobjectWrapper objects not yet deallocated
};

struct companion_api {
  // Before entry. Everything is provided and every wrapper class registered unless told otherwise.
  void (*provide)(enum companion_part part, int yes);
  void (*register_all)(int yes);
  void (*register_class)(const char* name, int yes);
  // A further wrapper class with the instance data of the class `like`. `superclass` may be null.
  // The names are copied.
  void (*add_class)(const char* name, const char* superclass, const char* like);
  // Registers every wrapper class without a superclass, so that no class answers for another in a
  // type test.
  void (*flatten)(int yes);
  // Makes the constructor of this Core Foundation wrapper class write a wrong tag.
  void (*spoil_tag)(const char* name);

  // Any time. While set, NewNSExceptionKVZ: answers null.
  void (*refuse_exceptions)(int yes);

  // After entry.
  uint32_t (*count)(enum companion_counter counter);
  // The instance data of a wrapper instance; it begins with the wrapped value.
  void* (*data)(void* instance);
};

typedef const struct companion_api* (*companion_api_function)(void);

// Opens the library and answers its control interface; never null. The library stays loaded.
static inline const struct companion_api* companion_open(const char* path) {
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  companion_api_function function =
      library ? (companion_api_function)dlsym(library, "companion_control") : NULL;
  if (!function) {
    fprintf(stderr, "companion: cannot open %s: %s\nBuild the target testbed_companion first.\n",
            path, dlerror());
    abort();
  }
  return function();
}

#ifdef __cplusplus
}
#endif
