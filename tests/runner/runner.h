// Runs each test of a program in a process of its own, which is a fork of one that has loaded all
// libraries: a plug-in keeps its globals for life, and starting from nothing costs more than most
// tests do. Programs link it in the place of gtest_main. Those that test the plug-in want
// SPARKLEKVZ_PLUGIN=elf or =macho in the environment.
//
//   updater_test                                all tests, twice as many at once as there are cores
//   updater_test --gtest_filter='*Invoke*'      some; --gtest_list_tests, --gtest_repeat,
//                                               --gtest_shuffle and --gtest_fail_fast as always
//   updater_test --foreground --gtest_filter=…  one test in this very process, for a debugger
//   updater_test --isolate=exec                 a new program for each test, and no fork; also
//                                               with SPARKLEKVZ_ISOLATE=exec
//   updater_test --jobs=1 --timeout=120         how many at once; seconds for each
//
// A test has passed when its process says so and then ends with status 0: a crash, a time-out, an
// exit in the middle and what goes wrong behind the last line of a test (a leak) are its failures.
// What it prints is shown when it fails. What it starts and leaves running is killed.
//
// With SPARKLEKVZ_RESULTS=FILE each result is added to FILE: "PROGRAM\tTEST\tMILLISECONDS\tRESULT".
#pragma once

#include <string>

namespace runner {

int main(int count, char** arguments);

// For programs that have something to load before the tests fork; no thread may exist after it. It
// may throw: nothing runs then, and what it threw is printed.
__attribute__((weak)) void prepare();

// Adds to the report of the running test, even if it then crashes: "on the host 2013.03".
void tell(const std::string& circumstance);

} // namespace runner
