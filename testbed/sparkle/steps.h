// For a program that runs the framework: its steps as C++, and the person in front of its windows.
// Main thread, but for the hooks, which run on the thread of the step.
#pragma once

#include <functional>
#include <string>

namespace steps {

// One SUUpdaterStepNotification; see SUStep.h. What the step does not have is empty.
struct Step {
  std::string name, detail, thread, title, failure, selector;
  int process = 0;
  bool is(const char* wanted) const { return name == wanted; }
};

// Calls `hook` for every step from now on; nothing ends it.
void watch(std::function<void(const Step&)> hook);

// Calls `hook` whenever more of what is fetched is there: bytes, of how many, which is 0 where the
// server did not say.
void watchProgress(std::function<void(double bytes, double expected)> hook);

// From the first call of watch() or answer() on, a person answers each window that asks, as soon as
// the hooks have seen it: with its first button, or as told here. An empty button leaves the window
// open. A window that only shows something is answered only when it is named here.
void answer(const std::string& title, const std::string& button);

} // namespace steps
