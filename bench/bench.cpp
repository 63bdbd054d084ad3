// bench                    prints the table
// bench --write FILE       and writes it there
// bench --only TEXT        the rows with TEXT in their name; "quick" for a sample of each kind
// bench --check WHAT       steps, allocations, look-ups or instructions: fails where they are not
//                          as they should be, and prints the rows. Times are never checked.
// bench --count TEXT       what runs under callgrind
// bench --look-ups         prints four numbers; for a process of its own
#include "bench/measure.h"
#include "bench/report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

using namespace bench;

namespace {

constexpr const char* usage =
    "bench [--only TEXT] [--write FILE]\n"
    "bench --check steps|allocations|look-ups|instructions [--only TEXT]\n";

// At once: the host's objects need no clearing up, and their classes may be gone.
[[noreturn]] void leave(int status) {
  fflush(nullptr);
  _Exit(status);
}

[[noreturn]] void refuse(const std::string& problem) {
  fprintf(stderr, "bench: %s\n%s", problem.c_str(), usage);
  leave(2);
}

std::vector<Row> rowsOf(const std::string& text) {
  std::vector<Row> rows;
  for (const Operation* operation : chosen(text)) rows.push_back({operation, {}, {}, 0});
  return rows;
}

// Family and no family do not go into one process.
void readLookUps(const std::string& program, Findings& findings) {
  FILE* pipe = popen(("'" + program + "' --look-ups").c_str(), "r");
  LookUps &host = findings.toHost, &cocoa = findings.toCocoa;
  int read = pipe ? fscanf(pipe, "%u %u %u %u", &host.classes, &host.methods, &cocoa.classes,
                           &cocoa.methods)
                  : 0;
  if (pipe) pclose(pipe);
  if (read == 4) return;
  fprintf(stderr, "bench: '%s --look-ups' printed no four numbers; run it by hand to see why\n",
          program.c_str());
  exit(1);
}

unsigned checkSteps(const std::string& text) {
  unsigned failed = 0;
  for (const Operation* operation : chosen(text)) {
    constexpr unsigned few = 100; // the longer ones do the same again and again
    if (operation->values > few) continue;
    Prepared prepared = operation->prepare();
    for (const Call* call : {&prepared.plugin, &prepared.floor}) callOnce(prepared, *call);
    std::vector<std::string> plugin = stepsOf(prepared, prepared.plugin);
    std::vector<std::string> floor = stepsOf(prepared, prepared.floor);
    if (plugin == floor) continue;
    ++failed;
    size_t place = 0;
    while (place < plugin.size() && place < floor.size() && plugin[place] == floor[place]) ++place;
    auto at = [&](const std::vector<std::string>& steps) {
      return place < steps.size() ? steps[place].c_str() : "nothing";
    };
    printf("%s: step %zu of the plug-in is %s, of the floor %s\n", fullName(*operation).c_str(),
           place + 1, at(plugin), at(floor));
  }
  return failed;
}

unsigned checkAllocations() {
  unsigned failed = 0;
  for (const Operation* operation : chosen("Strings")) {
    unsigned found = allocations(operation->prepare());
    constexpr unsigned onStack = 100; // fewer units than these need no memory
    bool wrong = operation->values < onStack && found > 0;
    failed += wrong;
    printf("%s: %u%s\n", fullName(*operation).c_str(), found, wrong ? ", should be none" : "");
  }
  return failed;
}

unsigned checkLookUps() {
  LookUps host = lookUpsToHost(), cocoa = lookUpsToCocoa();
  printf("%u %u %u %u\n", host.classes, host.methods, cocoa.classes, cocoa.methods);
  LookUps toHost = impliedLookUpsToHost(), toCocoa = impliedLookUpsToCocoa();
  if (host == toHost && cocoa == toCocoa) return 0;
  printf("but they should be\n%u %u %u %u\n", toHost.classes, toHost.methods, toCocoa.classes,
         toCocoa.methods);
  return 1;
}

unsigned checkInstructions(const std::string& program, const std::string& text) {
  std::vector<Row> rows = rowsOf(text);
  measureInstructions(rows, program, text);
  unsigned failed = 0;
  for (const Row& row : rows) {
    const Cost& cost = row.instructions;
    bool above = cost.ratio > row.operation->target;
    failed += above;
    printf("%-60s %12.1f %12.1f %6.3f  at most %.2f%s\n", fullName(*row.operation).c_str(),
           cost.plugin, cost.floor, cost.ratio, row.operation->target, above ? "  ABOVE" : "");
  }
  for (const Growth& growth : growths(rows)) {
    bool above = growth.instructions() > growthLimit;
    failed += above;
    printf("%-60s grows by %.1f, at most %.0f%s\n", fullName(*growth.large->operation).c_str(),
           growth.instructions(), growthLimit, above ? "  ABOVE" : "");
  }
  return failed;
}

} // namespace

int main(int argc, char** argv) {
  std::string program = argv[0], only, file, check;
  bool count = false, lookUps = false;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    auto value = [&] {
      if (i + 1 == argc) refuse(option + " wants a value");
      return argv[++i];
    };
    if (option == "--only")
      only = value();
    else if (option == "--write")
      file = value();
    else if (option == "--check")
      check = value();
    else if (option == "--count")
      count = true, only = value();
    else if (option == "--look-ups")
      lookUps = true;
    else
      refuse("there is no option " + option);
  }
  const std::string checks[] = {"", "steps", "allocations", "look-ups", "instructions"};
  if (std::ranges::find(checks, check) == std::end(checks)) refuse("there is no check " + check);
  if (lookUps || check == "look-ups") {
    startHost(Family::absent);
    leave(checkLookUps() && !lookUps ? 1 : 0);
  }
  startHost();
  if (chosen(only).empty()) refuse("no operation has \"" + only + "\" in its name");
  if (count) {
    countInstructions(only);
    leave(0);
  }
  if (!check.empty()) {
    unsigned failed = check == "steps"         ? checkSteps(only)
                      : check == "allocations" ? checkAllocations()
                                               : checkInstructions(program, only);
    if (failed)
      printf("bench: --check %s: %u rows are not as they should be; see above\n", check.c_str(),
             failed);
    leave(failed ? 1 : 0);
  }
  Findings findings{rowsOf(only)};
  measureInstructions(findings.rows, program, only);
  readLookUps(program, findings);
  measureTimes(findings.rows);
  std::string text = report(findings);
  fputs(text.c_str(), stdout);
  if (!file.empty() && !(std::ofstream(file) << text)) {
    fprintf(stderr, "bench: cannot write %s: %s\n", file.c_str(), strerror(errno));
    leave(1);
  }
  leave(0);
}
