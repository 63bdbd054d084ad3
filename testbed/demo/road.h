// Prints the road of an update as it happens: one line a step, who did what to whom, with which
// values, on which thread. In colour on a terminal, plain in a pipe. Any thread.
#pragma once

#include <string>

namespace road {

// Who does something.
enum class Actor { program, plugin, framework, server, nobody };

// Begins to listen: to the host for everything that crosses between the program and the plug-in,
// and to the framework for its steps.
void listen();

void line(Actor actor, const std::string& text);
// A heading between the stages of the demo.
void heading(const std::string& text);
// The last line, good or bad.
void verdict(bool good, const std::string& text);

// Why the last check failed, for people; empty while none has. kind is one of the framework's
// names: "fetch", "status", "xml", "items", ...
struct Failure {
  std::string kind;
  std::string reason;
};
Failure failure();
// Whether a check has come to its end, well or not.
bool ended();
// The process that the framework has started, 0 before.
int startedProcess();

} // namespace road
