// Runs every scenario once on every host, and then again with each operation, message and function
// call that it made going wrong, one a time. See README.md.

#include "losses.h"
#include "names.h"
#include "repetition.h"
#include "scenarios.h"

#include "testbed/server/release.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torture;

namespace {

struct Options {
  std::string program;
  std::string scenario = "*", host = "*";
  std::string plugin = "elf";
  unsigned long sample = 0; // 0: all
  unsigned long seed = 1;
  unsigned jobs = 2;
  Fault fault;
};

struct FaultRow {
  Mode mode;
  const char* option;
};
constexpr FaultRow faultRows[] = {
    {failOperation, "--fail-operation="}, {absentOperation, "--absent="},
    {failMessage, "--fail-message="},     {throwObject, "--throw-object="},
    {failFunction, "--fail-function="},
};

const char* optionOf(Mode mode) {
  for (const FaultRow& row : faultRows)
    if (row.mode == mode) return row.option;
  return "";
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void refuse(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("torture: ", stderr);
  vfprintf(stderr, format, arguments);
  fputs("\n", stderr);
  exit(64);
}

constexpr const char* usage =
    "torture [--scenario=PATTERN] [--host=PATTERN] [--plugin=elf|macho|PATH] [--jobs=2]\n"
    "        [--sample=NUMBER [--seed=NUMBER]]\n"
    "        [--fail-operation=N | --absent=OPERATION | --fail-message=N | --throw-object=N |\n"
    "         --fail-function=N]   one repetition; needs --scenario and --host\n"
    "        [--list]\n";

void list() {
  for (const Scenario& scenario : scenarios())
    printf("%-32s %s\n", scenario.name, scenario.setup->name);
}

Options readOptions(int count, char** arguments) {
  Options options;
  options.program = arguments[0];
  for (int i = 1; i < count; ++i) {
    std::string argument = arguments[i];
    auto value = [&](const char* name) -> std::optional<std::string> {
      if (!argument.starts_with(name)) return {};
      return argument.substr(strlen(name));
    };
    auto number = [&](const std::string& text) {
      char* end;
      unsigned long result = strtoul(text.c_str(), &end, 10);
      if (text.empty() || *end || !result) refuse("%s: not a number above 0", argument.c_str());
      return result;
    };
    if (auto text = value("--scenario=")) {
      options.scenario = *text;
    } else if (auto text = value("--host=")) {
      options.host = *text;
    } else if (auto text = value("--plugin=")) {
      options.plugin = *text;
    } else if (auto text = value("--sample=")) {
      options.sample = number(*text);
    } else if (auto text = value("--seed=")) {
      options.seed = number(*text);
    } else if (auto text = value("--jobs=")) {
      options.jobs = unsigned(number(*text));
    } else if (argument == "--list") {
      list();
      exit(0);
    } else if (argument == "--help") {
      fputs(usage, stdout);
      exit(0);
    } else {
      for (const FaultRow& row : faultRows) {
        auto text = value(row.option);
        if (!text) continue;
        options.fault.mode = row.mode;
        if (row.mode == absentOperation)
          options.fault.hit = *text;
        else
          options.fault.n = number(*text);
      }
      if (options.fault.mode == nothing) refuse("unknown option %s\n%s", argument.c_str(), usage);
    }
  }
  if (options.plugin == "macho")
    pluginPath = MACHO_PLUGIN_PATH;
  else if (options.plugin.find('/') != std::string::npos)
    pluginPath = options.plugin;
  else if (options.plugin != "elf")
    refuse("--plugin=%s: choose elf, macho or the path of a library", options.plugin.c_str());
  return options;
}

Options options;

// ---- What there is to do

// The scenarios of one setup on one host; they share a process, and run in forks of it.
struct Group {
  const Setup* setup;
  std::string host;
  std::vector<const Scenario*> scenarios;
  std::vector<std::vector<bool>> chosen; // of each scenario: which repetitions to run
};

// What a scenario did without a fault, and so what can go wrong in it.
struct Notes {
  std::vector<std::string> operations, absences, messages, functions, reached;

  size_t repetitions() const {
    return operations.size() + absences.size() + 2 * messages.size() + functions.size();
  }
  Fault repetition(size_t index) const {
    const struct {
      Mode mode;
      const std::vector<std::string>& hits;
    } rows[] = {{failOperation, operations},
                {absentOperation, absences},
                {failMessage, messages},
                {throwObject, messages},
                {failFunction, functions}};
    for (const auto& row : rows) {
      if (index < row.hits.size())
        return {row.mode, row.mode == absentOperation ? 0 : index + 1, row.hits[index]};
      index -= row.hits.size();
    }
    return {};
  }
};

std::vector<Group> groups() {
  std::vector<Group> all;
  for (const Setup* setup : {&standard, &flat, &alone, &bare, &unloaded, &unregistered, &refusing})
    for (const host::Profile& profile : host::profiles()) {
      if (fnmatch(options.host.c_str(), profile.name, 0)) continue;
      Group group{setup, profile.name, {}, {}};
      for (const Scenario& scenario : scenarios())
        if (scenario.setup == setup && !fnmatch(options.scenario.c_str(), scenario.name, 0))
          group.scenarios.push_back(&scenario);
      if (!group.scenarios.empty()) all.push_back(group);
    }
  if (all.empty())
    refuse("no scenario %s on a host %s; see --list", options.scenario.c_str(),
           options.host.c_str());
  return all;
}

std::string command(const std::string& scenario, const std::string& host, const Fault& fault) {
  std::string text = options.program + " --scenario=" + scenario + " --host=" + host;
  if (options.plugin != "elf") text += " --plugin=" + options.plugin;
  if (fault.mode == absentOperation)
    text += " '" + std::string(optionOf(fault.mode)) + fault.hit + "'";
  else if (fault.mode != nothing)
    text += " " + std::string(optionOf(fault.mode)) + std::to_string(fault.n);
  return text;
}

// ---- One repetition, in a fork

struct Ended {
  std::string notes;
  std::vector<std::string> failures;
  std::vector<unsigned> excused;
};

std::string readAll(int from) {
  std::string text;
  char buffer[4096];
  for (ssize_t size; (size = read(from, buffer, sizeof buffer)) > 0;) text.append(buffer, size);
  close(from);
  return text;
}

void writeAll(int to, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t size = write(to, text.data() + done, text.size() - done);
    if (size < 0) _exit(3);
    done += size_t(size);
  }
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> all;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    all.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return all;
}

constexpr unsigned patience = 60; // seconds; a repetition takes milliseconds

[[noreturn]] void runAndReport(const Scenario& scenario, const Fault& fault, bool wantsNotes,
                               int report) {
  alarm(patience);
  std::string notes;
  Verdict verdict = run(scenario, fault, wantsNotes ? &notes : nullptr);
  std::string text;
  for (const std::string& line : linesOf(notes)) text += "\1N" + line + "\n";
  for (std::string failure : verdict.failures) {
    std::replace(failure.begin(), failure.end(), '\n', ' ');
    text += "\1F" + failure + "\n";
  }
  for (unsigned row : verdict.excused) text += "\1E" + std::to_string(row) + "\n";
  writeAll(report, text + "\1D\n");
  _exit(0);
}

Ended runForked(const Scenario& scenario, const Fault& fault, bool wantsNotes) {
  int ends[2];
  if (pipe(ends)) refuse("no pipe: %s", strerror(errno));
  pid_t child = fork();
  if (child < 0) refuse("no process: %s", strerror(errno));
  if (child == 0) {
    close(ends[0]);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    runAndReport(scenario, fault, wantsNotes, ends[1]);
  }
  close(ends[1]);
  std::string output = readAll(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);

  Ended ended;
  bool complete = false;
  std::string noise;
  for (const std::string& line : linesOf(output)) {
    if (line.size() < 2 || line[0] != '\1') {
      noise += "\n    " + line;
      continue;
    }
    std::string text = line.substr(2);
    if (line[1] == 'N') ended.notes += text + "\n";
    if (line[1] == 'F') ended.failures.push_back(text);
    if (line[1] == 'E') ended.excused.push_back(unsigned(atoi(text.c_str())));
    if (line[1] == 'D') complete = true;
  }
  if (!complete || !WIFEXITED(status) || WEXITSTATUS(status)) {
    std::string how = WIFSIGNALED(status)
                          ? WTERMSIG(status) == SIGALRM
                                ? "did not end"
                                : std::string("crashed: ") + strsignal(WTERMSIG(status))
                          : "ended early";
    ended.failures.push_back(how + noise);
  }
  return ended;
}

Notes readNotes(const std::string& text) {
  Notes notes;
  for (const std::string& line : linesOf(text)) {
    auto& kind = line[0] == 'O'   ? notes.operations
                 : line[0] == 'A' ? notes.absences
                 : line[0] == 'M' ? notes.messages
                 : line[0] == 'F' ? notes.functions
                                  : notes.reached;
    kind.push_back(line.substr(2));
  }
  return notes;
}

// ---- One group, in a process of its own

void prepare(const Group& group) {
  host::start(group.host);
  host::setStacks(false);
  group.setup->prepare();
}

// Every member and event of the plug-in's classes and every name in it, as the notes name them.
std::vector<std::string> everything() {
  std::vector<std::string> all = namesToReach(pluginPath);
  for (const char* name :
       {"SUUpdaterKVZ", "SUAppcastKVZ", "SUAppcastItemKVZ", "SUVersionComparisonKVZ"}) {
    const host::Registered* type = host::registered(name);
    if (!type) continue;
    std::string prefix = std::string(name) + ": ";
    for (auto table :
         {host::Registered::methods, host::Registered::sharedMethods, host::Registered::events}) {
      std::vector<std::string> names = type->declarations(table);
      for (size_t i = 0; i < names.size(); ++i) {
        all.push_back(prefix + names[i]);
        bool assignable = table != host::Registered::events && type->table(table)[uint32_t(i)][1];
        if (assignable) all.push_back(prefix + names[i] + " =");
      }
    }
  }
  return all;
}

void sendLine(int to, char kind, const std::string& text) {
  writeAll(to, std::string(1, kind) + text + "\n");
}

void sendFailures(int to, const Group& group, const Scenario& scenario, const Fault& fault,
                  const std::vector<std::string>& failures) {
  if (failures.empty()) return;
  std::string text = command(scenario.name, group.host, fault);
  if (fault.mode != absentOperation && fault.mode != nothing) text += "\2    (" + fault.hit + ")";
  for (const std::string& failure : failures) text += "\2    " + failure;
  std::replace(text.begin(), text.end(), '\n', '\2');
  sendLine(to, 'F', text);
}

// Counts what there is to repeat: a line "C scenario number" for each scenario.
void countGroup(const Group& group, int to) {
  prepare(group);
  if (group.setup == &standard)
    for (const std::string& name : everything()) sendLine(to, 'L', name);
  for (const Scenario* scenario : group.scenarios) {
    warmUp(*scenario);
    Ended ended = runForked(*scenario, {}, true);
    sendFailures(to, group, *scenario, {}, ended.failures);
    Notes notes = readNotes(ended.notes);
    for (const std::string& name : notes.reached) sendLine(to, 'T', name);
    for (unsigned row : ended.excused) sendLine(to, 'E', std::to_string(row) + " 1");
    sendLine(to, 'C', std::to_string(notes.repetitions()));
  }
}

// Runs what was chosen: a line "P number" for each few repetitions done.
void runGroup(const Group& group, int to) {
  prepare(group);
  std::map<unsigned, unsigned> excused;
  unsigned done = 0;
  for (size_t i = 0; i < group.scenarios.size(); ++i) {
    const Scenario& scenario = *group.scenarios[i];
    const std::vector<bool>& chosen = group.chosen[i];
    if (std::find(chosen.begin(), chosen.end(), true) == chosen.end()) continue;
    warmUp(scenario);
    Notes notes = readNotes(runForked(scenario, {}, true).notes);
    if (notes.repetitions() != chosen.size())
      sendFailures(to, group, scenario, {},
                   {"does not always make the same calls: " + std::to_string(chosen.size()) +
                    " repetitions were counted, and now " + std::to_string(notes.repetitions())});
    for (size_t index = 0; index < chosen.size(); ++index) {
      if (!chosen[index]) continue;
      Fault fault = notes.repetition(index);
      Ended ended = runForked(scenario, fault, false);
      sendFailures(to, group, scenario, fault, ended.failures);
      for (unsigned row : std::set(ended.excused.begin(), ended.excused.end())) ++excused[row];
      if (++done % 50 == 0) sendLine(to, 'P', "50");
    }
  }
  sendLine(to, 'P', std::to_string(done % 50));
  for (auto [row, times] : excused)
    sendLine(to, 'E', std::to_string(row) + " " + std::to_string(times));
}

// ---- All groups, a few at a time

struct Progress {
  const char* what;
  size_t total;
  bool terminal = isatty(STDOUT_FILENO);
  size_t done = 0;
  unsigned shownTenth = 0;

  void add(size_t more) {
    done += more;
    if (!total) return;
    unsigned percent = unsigned(done * 100 / total);
    if (terminal) {
      printf("\r%s: %zu of %zu (%u %%) ", what, done, total, percent);
    } else if (percent / 10 > shownTenth) {
      shownTenth = percent / 10;
      printf("%s: %u %%\n", what, shownTenth * 10);
    }
    fflush(stdout);
  }
  void interrupt() const {
    if (terminal) printf("\r%*s\r", 60, "");
  }
};

struct Worker {
  size_t group;
  pid_t process;
  int from;
  std::string pending;
};

template <class Line>
void forEachGroup(const std::vector<Group>& all, void (*work)(const Group&, int), Line line) {
  std::vector<Worker> workers;
  size_t next = 0;
  while (next < all.size() || !workers.empty()) {
    while (next < all.size() && workers.size() < options.jobs) {
      int ends[2];
      if (pipe(ends)) refuse("no pipe: %s", strerror(errno));
      fflush(stdout);
      pid_t process = fork();
      if (process < 0) refuse("no process: %s", strerror(errno));
      if (process == 0) {
        close(ends[0]);
        for (const Worker& other : workers) close(other.from);
        try {
          work(all[next], ends[1]);
        } catch (const std::exception& error) {
          fprintf(stderr, "torture: %s on host %s: %s\n", all[next].setup->name,
                  all[next].host.c_str(), error.what());
          _exit(1);
        }
        _exit(0);
      }
      close(ends[1]);
      workers.push_back({next++, process, ends[0], {}});
    }
    std::vector<pollfd> ready;
    for (const Worker& worker : workers) ready.push_back({worker.from, POLLIN, 0});
    poll(ready.data(), ready.size(), -1);
    for (size_t i = workers.size(); i-- > 0;) {
      if (!ready[i].revents) continue;
      Worker& worker = workers[i];
      char buffer[4096];
      ssize_t size = read(worker.from, buffer, sizeof buffer);
      if (size > 0) {
        worker.pending.append(buffer, size_t(size));
        for (size_t end; (end = worker.pending.find('\n')) != std::string::npos;) {
          line(worker.group, worker.pending[0], worker.pending.substr(1, end - 1));
          worker.pending.erase(0, end + 1);
        }
        continue;
      }
      close(worker.from);
      int status;
      waitpid(worker.process, &status, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status))
        line(worker.group, 'F',
             "the process of setup " + std::string(all[worker.group].setup->name) + " on host " +
                 all[worker.group].host + " broke down");
      workers.erase(workers.begin() + long(i));
    }
  }
}

// The same choice for the same seed, on every machine.
struct Dice {
  uint64_t state;
  uint64_t next() {
    uint64_t z = state += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
  }
};

void choose(std::vector<Group>& all, size_t total) {
  if (!options.sample || options.sample >= total) {
    for (Group& group : all)
      for (auto& chosen : group.chosen) chosen.assign(chosen.size(), true);
    return;
  }
  Dice dice{options.seed};
  std::set<size_t> numbers;
  while (numbers.size() < options.sample) numbers.insert(size_t(dice.next() % total));
  size_t first = 0;
  for (Group& group : all)
    for (auto& chosen : group.chosen) {
      for (auto n = numbers.lower_bound(first); n != numbers.end() && *n < first + chosen.size();
           ++n)
        chosen[*n - first] = true;
      first += chosen.size();
    }
}

struct Summary {
  size_t failures = 0;
  std::map<unsigned, unsigned> excused;
  std::set<std::string> everything, touched;

  void failure(std::string text) {
    ++failures;
    std::replace(text.begin(), text.end(), '\2', '\n');
    printf("FAILED  %s\n", text.c_str());
    fflush(stdout);
  }
  bool common(char kind, const std::string& text, const Progress& progress) {
    unsigned row, times;
    if (kind == 'F') {
      progress.interrupt();
      failure(text);
    } else if (kind == 'E' && sscanf(text.c_str(), "%u %u", &row, &times) == 2) {
      excused[row] += times;
    } else {
      return false;
    }
    return true;
  }
};

bool everythingWasAsked() { return options.scenario == "*" && options.host == "*"; }

void checkCoverage(Summary& summary) {
  if (!everythingWasAsked()) return;
  for (const std::string& name : summary.everything)
    if (!summary.touched.contains(name)) summary.failure("no scenario reaches " + name);
}

// A row that nothing needs any more hides the next mistake.
void checkLosses(Summary& summary) {
  if (!everythingWasAsked() || options.sample) return;
  for (unsigned row = 0; row < lossCount; ++row)
    if (!summary.excused.contains(row))
      summary.failure("row " + std::to_string(row) +
                      " of losses.cpp is not needed: " + losses[row].reason);
}

int runAll() {
  auto began = std::chrono::steady_clock::now();
  std::vector<Group> all = groups();
  size_t scenarioCount = 0, total = 0;
  Summary summary;

  for (const Group& group : all) scenarioCount += group.scenarios.size();
  Progress counting{"counting", scenarioCount};
  forEachGroup(all, countGroup, [&](size_t group, char kind, const std::string& text) {
    if (summary.common(kind, text, counting)) return;
    if (kind == 'L') summary.everything.insert(text);
    if (kind == 'T') summary.touched.insert(text);
    if (kind != 'C') return;
    all[group].chosen.emplace_back(strtoul(text.c_str(), nullptr, 10));
    total += all[group].chosen.back().size();
    counting.add(1);
  });
  for (Group& group : all) group.chosen.resize(group.scenarios.size());
  checkCoverage(summary);
  choose(all, total);

  size_t repetitions = options.sample ? std::min<size_t>(options.sample, total) : total;
  counting.interrupt();
  Progress progress{"repeating", repetitions};
  forEachGroup(all, runGroup, [&](size_t, char kind, const std::string& text) {
    if (summary.common(kind, text, progress)) return;
    if (kind == 'P') progress.add(strtoul(text.c_str(), nullptr, 10));
  });
  progress.interrupt();
  checkLosses(summary);

  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  unsigned excused = 0;
  for (auto [row, times] : summary.excused) excused += times;
  std::set<const Scenario*> different;
  for (const Group& group : all) different.insert(group.scenarios.begin(), group.scenarios.end());
  printf("%zu scenarios, each on %zu hosts: %zu repetitions of %zu, %u of them with intended "
         "losses, %zu failures, %.0f seconds\n",
         different.size(), scenarioCount / different.size(), progress.done, total, excused,
         summary.failures, seconds);
  return summary.failures ? 1 : 0;
}

// One repetition in this very process, for a debugger.
int runOne() {
  std::vector<Group> all = groups();
  if (all.size() != 1 || all[0].scenarios.size() != 1)
    refuse("one repetition needs one --scenario and one --host; %zu match", all.size());
  prepare(all[0]);
  const Scenario& scenario = *all[0].scenarios[0];
  warmUp(scenario);
  Notes notes = readNotes(runForked(scenario, {}, true).notes);
  Fault fault = options.fault;
  const std::vector<std::string>& hits = fault.mode == failOperation  ? notes.operations
                                         : fault.mode == failFunction ? notes.functions
                                                                      : notes.messages;
  if (fault.mode != absentOperation) {
    if (fault.n > hits.size()) refuse("there are only %zu of them", hits.size());
    fault.hit = hits[fault.n - 1];
  }
  printf("what fails: %s\n", fault.hit.c_str());
  host::setStacks(true);
  Verdict verdict = run(scenario, fault);
  for (const std::string& failure : verdict.failures) printf("FAILED  %s\n", failure.c_str());
  for (unsigned row : std::set(verdict.excused.begin(), verdict.excused.end()))
    printf("intended: %s\n", losses[row].reason);
  if (!host::ledger().alive.empty()) printf("%s", host::leakReport().c_str());
  printf("%zu failures\n", verdict.failures.size());
  return verdict.failures.empty() ? 0 : 1;
}

} // namespace

int main(int count, char** arguments) {
  options = readOptions(count, arguments);
  rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  // Nothing goes to the user's own defaults, and dates do not depend on where this runs.
  testbed::Folder folder;
  setenv("HOME", folder.path().c_str(), 1);
  setenv("SPARKLE_DEFAULTS_DIR", folder.path().c_str(), 1);
  setenv("TZ", "UTC", 1);
  return options.fault.mode == nothing ? runAll() : runOne();
}
