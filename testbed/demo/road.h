// The road of an update as a list of what happened: who did what to whom, with which values, on
// which thread. It is printed as it grows, one line a step, in colour on a terminal and plain in a
// pipe; written as a table it can be drawn or compared. Any thread.
#pragma once

#include "testbed/host/host.h"

#include <string>
#include <vector>

namespace road {

// Who does something.
enum class Actor { program, plugin, framework, server, person, nobody };
const char* nameOf(Actor actor);

struct Line {
  Actor actor;
  std::string thread;
  std::string
      kind; // "start", "call MEMBER", "return MEMBER", "event NAME", "answer NAME", "step NAME"
            // with the window's title behind it, "heading"; empty for what only this demo says
  std::string text;
  unsigned depth = 0; // 1 for what the program does inside of an event
};

// Begins to listen: to the host for everything that crosses between the program and the plug-in,
// and to the framework for its steps. The person presses the first button of every window.
void listen();

void line(Actor actor, const std::string& text, const std::string& kind = "");
// From now on the object's name in the host is followed by what it is; several may be the same.
void introduce(const host::Object& object, const std::string& what);
// The handlers, which then introduce every appcast and every release that comes or goes.
host::Handlers introducing(const host::Handlers& handlers);
// From now on this folder is shown as "~".
void setHome(const std::string& folder);

constexpr const char* lastStage = "Afterwards";
// A heading between the stages of the demo.
void heading(const std::string& text);
// One row of the summary, the last line, good or bad, and what to do next. Not part of the road.
void fact(const std::string& name, const std::string& text);
void verdict(bool good, const std::string& text);
void hint(const std::string& text);

std::vector<Line> all();
// As a file: thread, actor, kind and text of each line, with tabs between them.
bool write(const std::string& file);

// Why the last check failed, for people; empty while none has. kind is one of the framework's
// names: "fetch", "xml", "signature", ...
struct Failure {
  std::string kind;
  std::string reason;
};
Failure failure();
// Whether a check has come to its end, well or not, or the application was told to quit.
bool ended();
// The process that the framework has started, 0 before.
int startedProcess();

} // namespace road
