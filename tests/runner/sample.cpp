// Tests that end in every way a test can end; runner_test.py says what the runner makes of them.
#include "runner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <unistd.h>

static int touched;

// Passes only in a process in which no other test has run.
TEST(Alone, One) { EXPECT_EQ(touched++, 0); }
TEST(Alone, Two) { EXPECT_EQ(touched++, 0); }

TEST(Ends, Passed) { puts("said by a test that passes"); }
TEST(Ends, Skipped) { GTEST_SKIP(); }
TEST(Ends, Failed) {
  runner::tell("on the host 1.0");
  puts("said by a test that fails");
  FAIL();
}
TEST(Ends, Crashed) {
  runner::tell("on the host 2.0");
  abort();
}
TEST(Ends, LeftInTheMiddle) { exit(0); }
TEST(Ends, NeverWell) {
  atexit([] { _Exit(3); });
}
TEST(Ends, TooLate) {
  for (;;) pause();
}
// What it leaves running holds its output open, and goes with it.
TEST(Ends, Leaving) {
  if (fork() == 0)
    for (;;) pause();
}
TEST(Ends, DISABLED_Never) { FAIL(); }

TEST(Dies, InADeathTest) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(abort(), "");
}
TEST(Asks, Tables) { EXPECT_TRUE(getenv("GCONV_PATH")); }

void runner::prepare() {
  if (getenv("SAMPLE_THREAD")) std::thread([] { sleep(60); }).detach();
}
