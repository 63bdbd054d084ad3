#include "bench/report.h"

#include <cstdio>
#include <fstream>
#include <unistd.h>

namespace bench {
namespace {

std::string print(const char* format, double value) {
  char text[40];
  snprintf(text, sizeof text, format, value);
  return text;
}

// 1234567 as 1 234 567.
std::string grouped(double value) {
  std::string digits = print("%.0f", value);
  for (size_t place = digits.size(); place > 3; place -= 3) digits.insert(place - 3, "\u202F");
  return digits;
}

std::string duration(double nanoseconds) {
  if (nanoseconds < 1e4) return print("%.0f ns", nanoseconds);
  if (nanoseconds < 1e7) return print("%.1f µs", nanoseconds / 1e3);
  return print("%.1f ms", nanoseconds / 1e6);
}

std::string verdict(const Row& row) {
  double target = row.operation->target;
  bool time = row.time.ratio <= target, instructions = row.instructions.ratio <= target;
  if (time && instructions) return "reached";
  std::string text = time           ? "not reached in instructions"
                     : instructions ? "reached in instructions, not in time"
                                    : "not reached";
  return row.operation->reason.empty() ? text : text + ": " + row.operation->reason;
}

std::string line(const Row& row) {
  const Operation& operation = *row.operation;
  return "| " + operation.name + " | " + print("%.2f", operation.target) + " | " +
         duration(row.time.plugin) + " | " + duration(row.time.floor) + " | " +
         print("%.3f", row.time.ratio) + " | " + grouped(row.instructions.plugin) + " | " +
         grouped(row.instructions.floor) + " | " + print("%.3f", row.instructions.ratio) + " | " +
         std::to_string(row.allocations) + " | " + verdict(row) + " |\n";
}

// What kind of machine the times are of.
std::string machine() {
  std::ifstream in("/proc/cpuinfo");
  std::string model = "unknown processor";
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("model name")) model = line.substr(line.find(':') + 2);
  return model + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores";
}

constexpr const char* head =
    "| operation | target | plug-in | floor | ratio | instructions: plug-in | floor | ratio "
    "| heap | |\n|---|--:|--:|--:|--:|--:|--:|--:|--:|---|\n";

} // namespace

std::vector<Growth> growths(const std::vector<Row>& rows) {
  std::vector<Growth> result;
  for (const Row& large : rows)
    for (const Row& small : rows)
      if (small.operation->section == large.operation->section &&
          small.operation->name == large.operation->growsFrom)
        result.push_back({&small, &large});
  return result;
}

std::string report(const Findings& findings) {
  std::string text =
      "# What the plug-in costs\n\n"
      "Made by `make bench`. Each operation stands against its floor: the same calls of the host "
      "and the same Cocoa messages inside the same exception frame, written out by hand. Times "
      "are a thread's own, of one call, and the middle one of 11 pairs; a ratio is the middle one "
      "of the pairs' ratios. Instructions are callgrind's and depend on no machine. Both count "
      "everything below the call, host and Cocoa included. Heap is how often the plug-in itself "
      "allocates memory in one call. A conversion row is one call that converts 100 values.\n\n"
      "SparkleKVZ " VERSION " on " +
      machine() + ".\n";
  std::string section;
  unsigned reached = 0;
  for (const Row& row : findings.rows) {
    if (section != row.operation->section) {
      section = row.operation->section;
      text += "\n## " + section + "\n\n" + head;
    }
    text += line(row);
    reached += verdict(row) == "reached";
  }
  text += "\n" + std::to_string(reached) + " of " + std::to_string(findings.rows.size()) +
          " rows reach their target.\n";

  text += "\n## Growth\n\nA hundred times as many may cost at most 110 times as much.\n\n"
          "| operation | instructions | time | |\n|---|--:|--:|---|\n";
  for (const Growth& growth : growths(findings.rows)) {
    const char* kept = growth.instructions() > growthLimit ? "not reached"
                       : growth.time() > growthLimit       ? "reached in instructions, not in time"
                                                           : "reached";
    text += "| " + growth.large->operation->name + " | " + print("%.1f", growth.instructions()) +
            " | " + print("%.1f", growth.time()) + " | " + kept + " |\n";
  }

  auto lookUps = [](const char* name, const LookUps& found) {
    return std::string("| ") + name + " | " + std::to_string(found.classes) + " | " +
           std::to_string(found.methods) + " |\n";
  };
  text += "\n## Look-ups by name for an object that no wrapper class fits\n\nFor each such object "
          "after the first, where the host has none of the family's classes. What was found is "
          "remembered, what is missing is asked for again: it may come later. The object itself is "
          "asked for a method: that is how a file is known.\n\n"
          "| on its way | classes and operations | its own methods |\n|---|--:|--:|\n" +
          lookUps("to the host", findings.toHost) + lookUps("to Cocoa", findings.toCocoa);
  return text;
}

} // namespace bench
