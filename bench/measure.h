// What a row of the table says, and how it is found out.
#pragma once

#include "bench/operations.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Of one call.
struct Cost {
  double plugin = 0, floor = 0;
  double ratio = 0;
  explicit operator bool() const { return ratio != 0; }
};

struct Row {
  const Operation* operation;
  Cost time;           // nanoseconds of the thread's own time, medians; the ratio's own median
  Cost instructions;   // as callgrind counts them
  int allocations = 0; // of the plug-in in one call
};

// The operations whose section and name, "Strings: getter, 10 units", have TEXT in them; for
// "quick" all that convert few values.
std::vector<const Operation*> chosen(const std::string& text);
std::string fullName(const Operation& operation);

// In this process, in which startHost() has been called.
void measureTimes(std::vector<Row>& rows);

// In a process of its own under callgrind: PROGRAM --count TEXT, which calls countInstructions.
// Ends this process with a message when callgrind cannot be run.
void measureInstructions(std::vector<Row>& rows, const std::string& program,
                         const std::string& text);
void countInstructions(const std::string& text);

} // namespace bench
