// Eight threads call one delegate at once, all the callbacks that several threads may make at a
// time. What goes on one thread alone does so here: postponing, since the invocation is kept
// without a lock, and the conversion of dictionaries.

#include "framework.h"
#include "program.h"

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace soak {

namespace {

constexpr unsigned threadCount = 8;

struct Sent {
  std::atomic<uint64_t> reports{0}, asked{0}, compared{0}, wrong{0};
};

void check(Sent& sent, bool good) {
  if (!good) ++sent.wrong;
}

void callOnce(id<Delegate> delegate, bool alone, Sent& sent) {
  @autoreleasepool {
    SoakAppcast* appcast = [SoakAppcast appcast];
    SoakItem* item = [appcast->items objectAtIndex:1];
    check(sent, [static_cast<id>(delegate) respondsToSelector:@selector(updater:
                                                                  didFindValidUpdate:)]);
    [delegate updater:nil didFinishLoadingAppcast:appcast];
    [delegate updater:nil didFindValidUpdate:item];
    [delegate updater:nil willInstallUpdate:item];
    [delegate updaterDidNotFindUpdate:nil];
    [delegate updaterWillRelaunchApplication:nil];
    sent.reports += 5;
    check(sent, [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]);
    check(sent, [[delegate pathToRelaunchForUpdater:nil] isEqual:@"/Applications/Demo.app"]);
    id<Comparator> comparator = [delegate versionComparatorForUpdater:nil];
    check(sent, [comparator compareVersion:@"1.0" toVersion:@"2.0"] == -1);
    check(sent, [comparator compareVersion:@"2.0" toVersion:@"1.0"] == 1);
    check(sent, [delegate bestValidUpdateInAppcast:appcast
                                        forUpdater:nil] == [appcast->items objectAtIndex:0]);
    check(sent, [[delegate feedParametersForUpdater:nil
                               sendingSystemProfile:alone] count] == (alone ? 2u : 0u));
    sent.asked += 5;
    sent.compared += 2;
    if (alone) {
      check(sent, [delegate updater:nil shouldPostponeRelaunchForUpdate:item untilInvoking:nil]);
      ++sent.asked;
    }
  }
}

} // namespace

int runStress(const Options& options) {
  startProgram(options, true);
  host::Object updater = host::construct("Updater", "Constructor");
  id<Delegate> delegate =
      reinterpret_cast<SoakUpdater*>(static_cast<uintptr_t>(host::get<uint32_t>(updater, "Handle")))
          ->delegate;
  Sent sent;
  std::atomic<bool> stop{false};
  std::atomic<unsigned> running{threadCount};
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < threadCount; ++number)
    threads.emplace_back([&, alone = number == 0] {
      host::Pool pool;
      while (!stop) callOnce(delegate, alone, sent);
      --running;
    });

  bool ended = true;
  unsigned silent = 0;
  for (unsigned long second = 1; second <= options.stress; ++second) {
    uint64_t before = sent.reports;
    host::runUntil([] { return false; }, 1);
    silent = sent.reports == before ? silent + 1 : 0;
    if (silent == patience) {
      printf("FAILED  no callback came back in the %.0f seconds before second %lu\n", patience,
             second);
      ended = false;
    }
    if (second % 10 == 0)
      printf("%lu of %lu seconds, %llu reports delivered\n", second, options.stress,
             static_cast<unsigned long long>(delivered.reports()));
    fflush(stdout);
  }
  stop = true;
  if (!host::runUntil([&] { return running == 0; }, patience)) {
    printf("FAILED  %u threads still wait for the main one\n", running.load());
    fflush(stdout);
    _exit(1);
  }
  for (std::thread& thread : threads) thread.join();

  updater.reset();
  bool good = ended && endProgram();
  auto expect = [&](const char* name, uint64_t actual, uint64_t expected) {
    if (actual == expected) return;
    printf("FAILED  %s: %llu instead of %llu\n", name, static_cast<unsigned long long>(actual),
           static_cast<unsigned long long>(expected));
    good = false;
  };
  expect("reports delivered", delivered.reports(), sent.reports);
  expect("questions delivered", delivered.asked, sent.asked);
  expect("comparisons delivered", delivered.compared, sent.compared);
  expect("wrong answers", sent.wrong, 0);
  printf("%u threads for %lu seconds: %llu reports and %llu questions delivered; %s\n", threadCount,
         options.stress, static_cast<unsigned long long>(delivered.reports()),
         static_cast<unsigned long long>(delivered.asked + delivered.compared),
         good ? "all well" : "FAILED");
  return good ? 0 : 1;
}

} // namespace soak
