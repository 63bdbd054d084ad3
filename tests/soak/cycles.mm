// Update checks one after another, each with an updater of its own.

#include "framework.h"
#include "program.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace soak {

namespace {

constexpr unsigned long settling = 1000; // cycles after which memory is first looked at, at most
// Of the process, whose pages come and go.
constexpr size_t mostGrowth = 1 << 20;
// Of what malloc has given out: for each check half of its smallest block. In a short run a thread
// that has not quite ended makes more of a difference.
constexpr size_t mostKeptByACheck = 8, mostKeptAtLeast = 4 << 10;

// The host keeps so many dead handles of a size to know them by; until then, memory grows.
void fillGraveyard() {
  constexpr int more = 17000;
  for (int i = 0; i < more; ++i) host::string("dead");
}

bool cycle() {
  host::Pool pool;
  host::Object updater = host::construct("Updater", "Constructor");
  SoakUpdater* played = reinterpret_cast<SoakUpdater*>(
      static_cast<uintptr_t>(host::get<uint32_t>(updater, "Handle")));
  [played retain]; // the threads' own reference
  host::set(updater, "feedURL as string", "http://example.org/appcast.xml");
  host::call(updater, "checkForUpdates");
  bool whole = host::runUntil([&] { return played->postponed.load(); }, patience);
  if (whole) {
    host::call(updater, "InvokeUpdate");
    whole = host::runUntil([&] { return played->ended.load(); }, patience);
  }
  if (!whole) return false; // its thread may still call the delegate
  updater.reset();
  [played release];
  return true;
}

struct Expected {
  const char* name;
  uint64_t actual, perCycle;
};

bool checkCounts(unsigned long cycles) {
  const Expected rows[] = {
      {"didFinishLoadingAppcast", delivered.appcasts, 1},
      {"didFindValidUpdate", delivered.found, 1},
      {"updaterDidNotFindUpdate", delivered.notFound, 1},
      {"willInstallUpdate", delivered.installing, 1},
      {"updaterWillRelaunchApplication", delivered.relaunching, 1},
      {"waits that came back", answers.waits, 5},
      {"events that answer", delivered.asked, 6},
      {"compareVersion", delivered.compared, 1},
      {"feed parameters", answers.parameters, 2},
      {"best updates", answers.best, 1},
      {"comparisons", answers.compared, 1},
      {"permissions", answers.prompts, 1},
      {"postponed relaunches", answers.postponed, 1},
      {"paths", answers.paths, 1},
  };
  bool good = true;
  for (const Expected& row : rows) {
    if (row.actual == row.perCycle * cycles) continue;
    printf("FAILED  %s: %llu instead of %llu\n", row.name,
           static_cast<unsigned long long>(row.actual),
           static_cast<unsigned long long>(row.perCycle * cycles));
    good = false;
  }
  return good;
}

double mebibytes(double bytes) { return bytes / (1 << 20); }

} // namespace

int runCycles(const Options& options) {
  startProgram(options, false);
  fillGraveyard();
  auto began = std::chrono::steady_clock::now();
  // Before memory is looked at, since it makes the buffer of what is printed.
  printf("%lu checks on the host %s\n", options.cycles, options.host.c_str());
  const unsigned long settled = std::max(1ul, std::min(settling, options.cycles / 2));
  size_t first = 0, firstAllocated = 0;
  for (unsigned long done = 1; done <= options.cycles; ++done) {
    if (!cycle()) {
      printf("FAILED  check %lu did not end: a thread waits for the main one, or never came\n",
             done);
      fflush(stdout);
      _exit(1);
    }
    if (done == settled || done == options.cycles)
      host::runUntil([] { return alive() == 0; }, patience); // the threads let go of the last check
    if (done == settled) {
      first = residentBytes();
      firstAllocated = allocatedBytes();
    }
    if (done == settled || done * 20 % options.cycles < 20)
      printf("%lu checks, %.2f MiB resident, %zu bytes allocated\n", done,
             mebibytes(double(residentBytes())), allocatedBytes());
    fflush(stdout);
  }
  size_t last = residentBytes(), lastAllocated = allocatedBytes();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();

  bool good = checkCounts(options.cycles);
  double growth = double(last) - double(first);
  if (growth > mostGrowth || -growth > mostGrowth) {
    printf("FAILED  memory went from %.2f to %.2f MiB since check %lu\n", mebibytes(double(first)),
           mebibytes(double(last)), settled);
    good = false;
  }
  double kept = double(lastAllocated) - double(firstAllocated);
  double mostKept =
      double(std::max<size_t>(mostKeptAtLeast, mostKeptByACheck * (options.cycles - settled)));
  if (kept > mostKept || -kept > mostKept) {
    printf("FAILED  what is allocated went from %zu to %zu bytes since check %lu\n", firstAllocated,
           lastAllocated, settled);
    good = false;
  }
  good &= endProgram();
  printf("%lu checks in %.0f seconds: %llu reports delivered, memory grew by %.2f MiB after the "
         "first %lu, of it allocated %.0f bytes; %s\n",
         options.cycles, seconds, static_cast<unsigned long long>(delivered.reports()),
         mebibytes(growth), settled, kept, good ? "all well" : "FAILED");
  return good ? 0 : 1;
}

} // namespace soak
