#include "runner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  // Twice as many as cores: whatever has to do with a web server waits as long as it works.
  unsigned jobs = 2 * std::max(1u, std::thread::hardware_concurrency());
  unsigned timeout = 120; // seconds
  bool foreground = false;
  bool exec = getenv("SPARKLEKVZ_ISOLATE") && !strcmp(getenv("SPARKLEKVZ_ISOLATE"), "exec");
  int tellInto = -1; // of a program that was started for one test
};
Options options;

// Where this process tells its parent how its test goes, a line each: "passed", "skipped", or a
// circumstance.
int parent = -1;

[[noreturn]] void refuse(const std::string& problem) {
  fprintf(stderr, "%s: %s\n", program_invocation_short_name, problem.c_str());
  exit(64);
}

unsigned numberIn(const std::string& argument) {
  std::string text = argument.substr(argument.find('=') + 1);
  char* end;
  unsigned long number = strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end || !number || number > 100000)
    refuse(argument + ": a number above 0 is needed");
  return static_cast<unsigned>(number);
}

// After GoogleTest has taken its own.
void readOptions(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    std::string argument = arguments[i];
    if (argument == "--foreground") {
      options.foreground = true;
    } else if (argument == "--isolate=exec") {
      options.exec = true;
    } else if (argument.starts_with("--jobs=")) {
      options.jobs = numberIn(argument);
    } else if (argument.starts_with("--timeout=")) {
      options.timeout = numberIn(argument);
    } else if (argument.starts_with("--tell-into=")) {
      options.tellInto = static_cast<int>(numberIn(argument));
    } else {
      refuse(argument + " is not known; there are --foreground, --isolate=exec, --jobs=NUMBER, "
                        "--timeout=SECONDS and what --help tells of GoogleTest");
    }
  }
  if (!GTEST_FLAG_GET(output).empty())
    refuse("--gtest_output is not written here; set SPARKLEKVZ_RESULTS to a file instead");
}

std::string contentsOf(int file) {
  std::string text;
  char buffer[65536];
  off_t offset = 0;
  for (ssize_t got; (got = pread(file, buffer, sizeof buffer, offset)) > 0; offset += got)
    text.append(buffer, static_cast<size_t>(got));
  return text;
}

int memoryFile() {
  int file = memfd_create("output", MFD_CLOEXEC);
  if (file < 0) refuse(std::string("memfd_create: ") + strerror(errno));
  return file;
}

void sendOutputTo(int file) {
  fflush(nullptr);
  dup2(file, STDOUT_FILENO);
  dup2(file, STDERR_FILENO);
}

// The names that the filter selects. GoogleTest decides that when it runs, hence in a fork.
std::vector<std::string> selectedTests() {
  int file = memoryFile();
  fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    sendOutputTo(file);
    GTEST_FLAG_SET(list_tests, true);
    int status = RUN_ALL_TESTS();
    fflush(nullptr);
    _exit(status);
  }
  int status;
  waitpid(child, &status, 0);
  std::vector<std::string> names;
  std::string suite, text = contentsOf(file);
  close(file);
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    at = end + 1;
    std::string name = line.substr(0, line.find("  #"));
    if (!line.starts_with("  ")) {
      if (name.ends_with('.')) suite = name;
    } else {
      name = suite + name.substr(2);
      bool disabled = name.find("DISABLED_") != name.npos;
      if (!disabled || GTEST_FLAG_GET(also_run_disabled_tests)) names.push_back(name);
    }
  }
  return names;
}

// ---- The process of one test

int runThisTest() {
  int status = RUN_ALL_TESTS();
  fflush(nullptr);
  if (status == 0)
    runner::tell(testing::UnitTest::GetInstance()->skipped_test_count() ? "skipped" : "passed");
  return status;
}

[[noreturn]] void beTheTest(const std::string& name, int output, int tellInto) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  sendOutputTo(output);
  if (options.exec) {
    fcntl(tellInto, F_SETFD, 0);
    std::string filter = "--gtest_filter=" + name, fd = "--tell-into=" + std::to_string(tellInto);
    execl("/proc/self/exe", program_invocation_name, "--foreground", filter.c_str(), fd.c_str(),
          nullptr);
    refuse(std::string("cannot be started again: ") + strerror(errno));
  }
  parent = tellInto;
  GTEST_FLAG_SET(filter, name);
  GTEST_FLAG_SET(repeat, 1);
  GTEST_FLAG_SET(shuffle, false);
  // Whatever registered itself for the end of the program is part of the test.
  exit(runThisTest());
}

// ---- The parent of all tests

struct Running {
  std::string name;
  pid_t process;
  int output, told;
  Clock::time_point started;
  bool timedOut = false;
};

struct Totals {
  unsigned passed = 0, skipped = 0;
  std::vector<std::string> failed;
};

std::vector<Running> running;
Totals totals;
size_t planned;

// What decides what is tested.
std::string settings() {
  std::string text;
  for (const char* name : {"SPARKLEKVZ_PLUGIN", "TESTBED_CFTYPEID"})
    if (const char* value = getenv(name)) text += std::string(name) + "=" + value + " ";
  return text;
}

void start(const std::string& name) {
  int told[2];
  if (pipe2(told, O_CLOEXEC | O_NONBLOCK)) refuse(std::string("pipe2: ") + strerror(errno));
  Running test{name, 0, memoryFile(), told[0], Clock::now()};
  fflush(nullptr);
  test.process = fork();
  if (test.process < 0) refuse(std::string("fork: ") + strerror(errno));
  if (test.process == 0) beTheTest(name, test.output, told[1]);
  close(told[1]);
  running.push_back(test);
}

void note(const std::string& name, long milliseconds, const char* result) {
  const char* path = getenv("SPARKLEKVZ_RESULTS");
  if (!path) return;
  const char* label = getenv("SPARKLEKVZ_PROGRAM");
  std::string line = std::string(label ? label : program_invocation_short_name) + "\t" + name +
                     "\t" + std::to_string(milliseconds) + "\t" + result + "\n";
  int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0 || write(file, line.data(), line.size()) < 0)
    refuse(std::string(path) + ": " + strerror(errno));
  close(file);
}

std::string ending(const Running& test, int status) {
  if (test.timedOut) return "did not end within " + std::to_string(options.timeout) + " s";
  if (WIFSIGNALED(status)) return std::string("ended by: ") + strsignal(WTERMSIG(status));
  if (WEXITSTATUS(status)) return "ended with status " + std::to_string(WEXITSTATUS(status));
  return "ended with status 0 before the test was over";
}

void report(const Running& test, const std::string& why, const std::string& circumstances) {
  std::string gdb = settings() + "gdb --args " + program_invocation_name +
                    " --foreground --gtest_filter=" + test.name;
  printf("%s", contentsOf(test.output).c_str());
  printf("[  FAILED  ] %s %s%s\n  alone:     %s%s --gtest_filter=%s\n  debugger:  %s\n\n",
         test.name.c_str(), why.c_str(), circumstances.c_str(), settings().c_str(),
         program_invocation_name, test.name.c_str(), gdb.c_str());
}

void finish(const Running& test, int status) {
  // Programs that it started and did not wait for.
  kill(-test.process, SIGKILL);
  bool passed = false, skipped = false;
  std::string circumstances, told;
  char buffer[4096];
  for (ssize_t got; (got = read(test.told, buffer, sizeof buffer)) > 0;)
    told.append(buffer, static_cast<size_t>(got));
  for (size_t at = 0, end; (end = told.find('\n', at)) != told.npos; at = end + 1) {
    std::string line = told.substr(at, end - at);
    if (line == "passed")
      passed = true;
    else if (line == "skipped")
      skipped = true;
    else
      circumstances += ", " + line;
  }
  bool good = (passed || skipped) && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - test.started);
  long milliseconds = static_cast<long>(took.count());
  note(test.name, milliseconds, !good ? "failed" : skipped ? "skipped" : "passed");
  if (!good) {
    report(test, ending(test, status), circumstances);
    totals.failed.push_back(test.name);
  } else {
    ++(skipped ? totals.skipped : totals.passed);
    if (planned == 1)
      printf("%s", contentsOf(test.output).c_str());
    else if (planned <= 20)
      printf("[%s] %s (%ld ms)\n", skipped ? "  SKIPPED " : "       OK ", test.name.c_str(),
             milliseconds);
  }
  if (isatty(STDERR_FILENO) && planned > 20)
    fprintf(stderr, "\r[%zu/%zu] ", totals.passed + totals.skipped + totals.failed.size(), planned);
  fflush(stdout);
  close(test.output);
  close(test.told);
}

// Until at least one test has ended.
void wait() {
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGCHLD);
  for (size_t before = running.size(); running.size() == before;) {
    Clock::time_point due = Clock::time_point::max();
    for (Running& test : running) {
      auto limit = test.started + std::chrono::seconds(options.timeout);
      if (Clock::now() < limit) {
        due = std::min(due, limit);
      } else if (!test.timedOut) {
        test.timedOut = true;
        kill(-test.process, SIGKILL);
        kill(test.process, SIGKILL);
      }
    }
    for (size_t i = 0; i < running.size();) {
      int status;
      if (waitpid(running[i].process, &status, WNOHANG) == running[i].process) {
        Running test = running[i];
        running.erase(running.begin() + static_cast<ptrdiff_t>(i));
        finish(test, status);
      } else {
        ++i;
      }
    }
    if (running.size() != before) return;
    timespec patience{1, 0};
    if (due < Clock::now() + std::chrono::seconds(1)) patience = {0, 20'000'000};
    sigtimedwait(&awaited, nullptr, &patience);
  }
}

bool enough() { return GTEST_FLAG_GET(fail_fast) && !totals.failed.empty(); }

int summary(Clock::time_point started) {
  auto took = std::chrono::duration<double>(Clock::now() - started).count();
  if (isatty(STDERR_FILENO) && planned > 20) fputs("\r", stderr);
  for (const std::string& name : totals.failed) printf("[  FAILED  ] %s\n", name.c_str());
  printf("%zu tests: %u passed, %zu failed, %u skipped, in %.1f s\n",
         totals.passed + totals.failed.size() + totals.skipped, totals.passed, totals.failed.size(),
         totals.skipped, took);
  if (!planned) puts("No test has such a name; --gtest_list_tests names them all.");
  return totals.failed.empty() && planned ? 0 : 1;
}

void prepare() {
  if (!runner::prepare || options.exec) return;
  try {
    runner::prepare();
  } catch (const std::exception& error) {
    refuse(error.what());
  }
  auto threads = std::filesystem::directory_iterator("/proc/self/task");
  if (std::distance(begin(threads), end(threads)) != 1)
    refuse("a thread exists before the first test; a fork would be without it");
}

int runAll() {
  std::vector<std::string> selected = selectedTests();
  if (options.foreground) {
    if (selected.size() != 1)
      refuse("--foreground runs one test; --gtest_filter selects " +
             std::to_string(selected.size()));
    parent = options.tellInto;
    if (parent >= 0) fcntl(parent, F_SETFD, FD_CLOEXEC);
    return runThisTest();
  }
  prepare();
  auto started = Clock::now();
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGCHLD);
  sigprocmask(SIG_BLOCK, &held, nullptr);
  unsigned seed = static_cast<unsigned>(GTEST_FLAG_GET(random_seed));
  if (!seed) seed = std::random_device{}() % 99999 + 1;
  if (GTEST_FLAG_GET(shuffle)) printf("Shuffled with --gtest_random_seed=%u\n", seed);
  std::mt19937 random(seed);
  const int rounds = GTEST_FLAG_GET(repeat);
  planned = selected.size() * static_cast<size_t>(std::max(rounds, 1));
  for (int round = 0; round != rounds && !selected.empty() && !enough(); ++round) {
    if (GTEST_FLAG_GET(shuffle)) std::shuffle(selected.begin(), selected.end(), random);
    std::deque<std::string> left(selected.begin(), selected.end());
    while ((!left.empty() && !enough()) || !running.empty()) {
      while (!left.empty() && running.size() < options.jobs && !enough()) {
        start(left.front());
        left.pop_front();
      }
      wait();
    }
  }
  return summary(started);
}

} // namespace

namespace runner {

void tell(const std::string& circumstance) {
  std::string line = circumstance + "\n";
  if (parent >= 0 && write(parent, line.data(), line.size()) < 0) perror("runner: tell");
}

} // namespace runner

int runner::main(int count, char** arguments) {
  testing::InitGoogleMock(&count, arguments);
  // A death test's own process, and a list, are GoogleTest's business alone.
  if (testing::internal::InDeathTestChild() || GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
  readOptions(count, arguments);
  return runAll();
}
