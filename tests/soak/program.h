// The host program of the soak: classes whose handlers do what programs do in them, and count.
#pragma once

#include "testbed/host/host.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

struct Options {
  std::string host = "2013.03";
  std::string plugin = "elf";
  unsigned long cycles = 100000;
  unsigned long stress = 0; // seconds; 0: cycles instead
};

// Calls of the handlers of each reporting event, and of all others together.
struct Delivered {
  std::atomic<uint64_t> appcasts{0}, found{0}, notFound{0}, installing{0}, relaunching{0};
  std::atomic<uint64_t> asked{0}, compared{0};
  std::atomic<uint64_t> offMain{0}; // reports that came on another thread
  uint64_t reports() const { return appcasts + found + notFound + installing + relaunching; }
};
extern Delivered delivered;

// Starts the host, loads the plug-ins and the framework, and defines the classes "Updater" and
// "Comparison". With CAREFUL, handlers convert no dictionaries but in answer to a feed-parameters
// callback that sends the profile, since only one thread may do so at a time.
void startProgram(const Options& options, bool careful);

// What the handler of the version comparator answers; the program's, until endProgram().
const host::Object& comparison();
// Whether all is as it should be at the end: nothing alive on either side, nothing pending. Says
// what is not.
bool endProgram();

size_t residentBytes();
// What malloc has given out and not got back, for all threads.
size_t allocatedBytes();

constexpr double patience = 30; // seconds, for what takes a millisecond

int runCycles(const Options& options);
int runStress(const Options& options);

} // namespace soak
