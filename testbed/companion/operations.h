// The host operations that the companion calls, each asked for by name once, at entry.
//
// An operation that the host lacks stays null; `call` then answers the zero of its result type.
// Ownership follows the host: what newInstance and buildString answer is locked once for the
// caller.
#pragma once

#include <cstdint>

namespace companion {

struct HostObject;
struct HostString;
using Resolver = void* (*)(const char* name);

struct Operations {
  void (*registerPluginVersion)(int32_t version);
  double (*hostVersion)();
  void (*registerClass)(uint32_t* record);
  void* (*classReference)(const char* className);
  HostObject* (*newInstance)(const char* className);
  void (*lockObject)(HostObject* object);
  void (*unlockObject)(HostObject* object);
  HostString* (*buildString)(const char* bytes, int32_t length);
  void (*setStringEncoding)(HostString* string, uint32_t encoding);
  void (*unlockString)(HostString* string);
  // Answers whether the object has the property.
  bool (*setStringProperty)(HostObject* object, const char* name, HostString* value);
};

extern Operations host;

void resolveOperations(Resolver resolver);

// The host's own types for the same words have other names, which is no error.
template <typename Result, typename... Parameters, typename... Arguments>
__attribute__((no_sanitize("function"))) Result call(Result (*operation)(Parameters...),
                                                     Arguments... arguments) {
  return operation ? operation(arguments...) : Result();
}

} // namespace companion
