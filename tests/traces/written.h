// What crosses, one line a step, in the form of the recordings. Any thread may write.
#pragma once

#include "testbed/host/host.h"
#include "testbed/sparkle/steps.h"

#include <string>
#include <utility>
#include <vector>

namespace written {

// Begins to write into this file, line by line, so that nothing is lost when the process ends.
void begin(const std::string& file);
// This text of this run stands as NAME in every trace.
void call(const std::string& text, const std::string& name);

void line(const std::string& text);                             // of this thread, at its depth
void found(const std::string& text);                            // "# …"
std::string normal(std::string text);                           // with what call() was told of
void step(const host::Step& step);                              // for host::trace
void step(const std::string& version, const steps::Step& step); // for steps::watch
// Whether the recordings of this version have this step.
bool isRecorded(const std::string& version, const std::string& step, const std::string& title);

// While one of these lives, what the program does on this thread is not written.
struct Quietly {
  Quietly();
  ~Quietly();
};

} // namespace written
