// What the fuzz targets of the plug-in stand on: a host, the companion, the plug-in, and for each
// input the plug-in's globals as they were after that.
//
//   void LLVMFuzzerInitialize: fuzz::start({}); fuzz::remember();
//   int LLVMFuzzerTestOneInput: return fuzz::execute(data, size, [](fuzz::Input& input) { ... });
//
// A plug-in keeps its globals for life, the addresses of host operations first of all. Executing an
// input puts the bytes of its writable segment back to what they were, so that an operation can be
// absent in one input and there in the next, and an input behaves alike wherever it stands in a
// run. The library is loaded once: what the runtime knows of it, classes above all, stays good.
//
// Everything runs on the main thread. Whatever is wrong ends the process with a message.
//
// From the environment: SPARKLEKVZ_HOST, the host's year, 2013.03 without it; FUZZ_LOG=1 shows what
// goes to the system log; FUZZ_STACKS=1 keeps call stacks for the message on lost host objects;
// FUZZ_PLUGIN, another build of the plug-in with the coverage that the fuzzer reads.
#pragma once

#include "testbed/host/host.h"

#import <Foundation/Foundation.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace fuzz {

// An input, read from its front. Where it ends, zeros follow.
class Input {
public:
  Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
  size_t left() const { return static_cast<size_t>(end_ - at_); }
  uint8_t byte() { return at_ == end_ ? 0 : *at_++; }
  unsigned below(unsigned limit) { return byte() % limit; }
  template <typename T> T number() {
    T value{};
    std::string_view taken = bytes(sizeof value);
    memcpy(&value, taken.data(), taken.size());
    return value;
  }
  std::string_view bytes(size_t most) {
    std::string_view taken(reinterpret_cast<const char*>(at_), most < left() ? most : left());
    at_ += taken.size();
    return taken;
  }
  std::string_view rest() { return bytes(left()); }

private:
  const uint8_t *at_, *end_;
};

struct Options {
  bool companion = true;
};

// The year of the host that was asked for.
const char* hostName();

// Starts the host, and loads the plug-ins into it. What they log is dropped.
void start(Options options);
// Starts the host of another year and opens the plug-in without calling its entry, which is
// answered.
void* open(const char* hostName);
// Another host, without any plug-in.
void startHost(const char* name);
// Calls the entry with whatever resolver.
void enter(void* entry, void* (*resolver)(const char* name));

void remember();
void recall();

[[noreturn]] void fail(const std::string& what);
inline void require(bool holds, const std::string& what) {
  if (!holds) fail(what);
}

// recall(), BODY in a pool of its own, then the accounts: no exception is pending in the host, no
// host object alive, nothing in the companion's registry, and Cocoa objects do not grow in number
// when the same input comes again and again.
int execute(const uint8_t* data, size_t size, void (*body)(Input&));

// This execution loses Cocoa objects, as it is meant to.
void expectCocoaLosses();

// How many lines went to the system log in this execution.
int logLines();

// An instance of the host class around OBJECT, with a reference of its own on it.
host::Object instanceOf(std::string_view className, id object);

// Makes the plug-in take these classes for the framework's; nil for one that is missing.
bool loadFramework(Class updater, Class appcast, Class item);
// The framework of this name in the testbed: Sparkle, or one of its broken ones.
bool loadFrameworkFolder(const std::string& name);

} // namespace fuzz

// A string of any UTF-16 units, lone surrogates too. Counted while it lives.
@interface AnyString : NSString {
  std::u16string* units;
}
+ (instancetype)stringWithUnits:(std::u16string)units;
+ (int)alive;
@end
