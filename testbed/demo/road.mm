#include "road.h"

#include "columns.h"
#include "testbed/sparkle/steps.h"

#import "testbed/sparkle/SUStep.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace {

std::mutex mutex;
bool terminal, colours;
bool unfinished; // the line is one of progress
thread_local unsigned depth;
thread_local bool unwatched; // what happens is not part of the road
std::vector<road::Line> lines;
road::Failure lastFailure;
std::atomic<bool> cycleEnded;
std::atomic<int> process;

struct Look {
  const char* name;
  const char* colour;
};
constexpr Look looks[] = {
    {"program", "\033[32m"}, {"plug-in", "\033[36m"}, {"framework", "\033[33m"},
    {"server", "\033[35m"},  {"person", "\033[34m"},  {"", ""},
};

const char* paint(const char* code) { return colours ? code : ""; }

std::string threadName() {
  if ([NSThread isMainThread]) return "main";
  NSString* name = [[NSThread currentThread] name];
  return [name length] ? [name UTF8String] : host::currentThread().name();
}

// "LoadFramework(path as folderitem) as boolean" is LoadFramework to a reader.
std::string memberName(const std::string& declaration) {
  return declaration.substr(0, declaration.find_first_of(" ("));
}

std::string listed(const std::vector<std::string>& values) {
  std::string text;
  for (const std::string& value : values) text += (text.empty() ? "" : ", ") + value;
  return text;
}

std::map<std::string, std::string> introduced; // by the object's name in the host
std::string home;
constexpr int columnsBefore = 28; // the text of a line

std::string shown(const std::string& text) {
  static const std::regex object(R"(\w+#\d+)");
  std::string result;
  auto rest = text.begin();
  for (std::sregex_iterator match(text.begin(), text.end(), object), none; match != none; ++match) {
    result.append(rest, (*match)[0].second);
    rest = (*match)[0].second;
    auto found = introduced.find(match->str());
    if (found != introduced.end()) result += " (" + found->second + ")";
  }
  result.append(rest, text.end());
  for (size_t at; !home.empty() && (at = result.find(home)) != std::string::npos;)
    result.replace(at, home.size(), "~");
  return result;
}

// Under the lock.
void add(road::Line line) {
  static int steps = 0;
  line.text = shown(line.text);
  lines.push_back(line);
  if (unfinished) printf("\r\033[K");
  unfinished = false;
  if (line.kind == "heading") {
    printf("\n%s%s%s\n", paint("\033[1m"), line.text.c_str(), paint("\033[0m"));
  } else {
    const Look& look = looks[static_cast<int>(line.actor)];
    printf("%s%4d  %-10s%s %s%-10s%s %s\n", paint("\033[2m"), ++steps, line.thread.c_str(),
           paint("\033[0m"), paint(look.colour), look.name, paint("\033[0m"),
           columns::wrapped(line.text, columnsBefore).c_str());
  }
  fflush(stdout);
}

// Calls and events that nothing has come after yet, on any thread: such a call and its answer make
// one line, and what an event carries is introduced first.
std::vector<road::Line> openLines;

void addOpenLines() {
  for (const road::Line& line : openLines) add(line);
  openLines.clear();
}

void openLine(road::Actor actor, const std::string& text, const std::string& kind) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  addOpenLines();
  openLines.push_back({actor, thread, kind, text, depth});
}

// Whether this thread's call was still open; then its line is complete.
bool closeCall(const std::string& values) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  if (openLines.empty() || openLines.back().thread != thread ||
      openLines.back().actor != road::Actor::program)
    return false;
  if (!values.empty()) openLines.back().text += ", is answered " + values;
  addOpenLines();
  return true;
}

void printStep(const host::Step& step) {
  using road::Actor;
  if (unwatched) return;
  std::string values = listed(step.values);
  std::string with = values.empty() ? "" : " with " + values;
  std::string member = memberName(step.member);
  switch (step.kind) {
  case host::Step::pluginLoaded:
    return road::line(Actor::program, "loads the plug-in " + step.member + step.className);
  case host::Step::classRegistered:
    return road::line(Actor::plugin, "registers the class " + step.className);
  case host::Step::memberCalled:
    if (values.empty() || step.member.find('(') != std::string::npos)
      return openLine(Actor::program, "calls " + step.className + "." + member + with,
                      "call " + member);
    return openLine(Actor::program, "sets " + step.className + "." + member + " to " + values,
                    "call " + member);
  case host::Step::memberReturned:
    if (!closeCall(values) && !values.empty())
      road::line(Actor::plugin, "answers " + member + with, "return " + member);
    return;
  case host::Step::eventRaised:
    openLine(Actor::plugin, "raises the event " + member + with, "event " + member);
    ++depth;
    return;
  case host::Step::eventAnswered:
    --depth;
    if (!values.empty()) road::line(Actor::program, "answers " + member + with, "answer " + member);
    return;
  case host::Step::exceptionRaised:
    return road::line(Actor::plugin, "raises the exception " + step.className + ": " + values);
  case host::Step::operation:
    return;
  }
}

// What the framework does, said of it. What a row leaves out is said elsewhere.
struct Deed {
  NSString* step;
  const char* does; // before the step's detail
};
const Deed deeds[] = {
    {SUStepChecking, "checks for updates of"},
    {SUStepIgnored, "ignores:"},
    {SUStepDelegate, "tells its delegate"},
    {SUStepShows, "shows:"},
    {SUStepAsks, "asks:"},
    {SUStepAnswered, "presses"},
    {SUStepFetching, "fetches"},
    {SUStepLoaded, "has loaded the feed:"},
    {SUStepComparing, "compares the versions"},
    {SUStepFound, "finds the update"},
    {SUStepNotFound, "finds nothing newer:"},
    {SUStepDownloading, "downloads"},
    {SUStepDownloaded, "has downloaded"},
    {SUStepSignature, "finds the signature"},
    {SUStepUnpacked, "has unpacked the update into"},
    {SUStepWaiting, "waits:"},
    {SUStepTrash, "puts the old version aside:"},
    {SUStepInstalled, "has installed"},
    {SUStepPostponed, "waits to be continued with"},
    {SUStepRelaunching, "relaunches:"},
    {SUStepTerminating, "tells the application to quit:"},
    {SUStepScheduled, "schedules:"},
    {SUStepFinished, "is done:"},
    {SUStepFailed, "has failed:"},
};

void addStep(const steps::Step& step) {
  if (step.is("downloading")) road::heading("The installation");
  std::string does = step.name + ":";
  for (const Deed& row : deeds)
    if (step.is([row.step UTF8String])) does = row.does;
  bool byPerson = step.is("answered");
  std::string window = step.title.empty() || step.is("shows") ? "" : " \"" + step.title + "\"";
  road::line(byPerson ? road::Actor::person : road::Actor::framework,
             does + (byPerson ? "" : window) + " " + step.detail,
             "step " + step.name + (step.title.empty() ? "" : " " + step.title));
  std::lock_guard lock(mutex);
  if (step.process) process = step.process;
  if (!step.failure.empty()) lastFailure = {step.failure, step.detail};
  if (step.is("finished") || step.is("failed") || step.is("terminating")) cycleEnded = true;
}

void addLogLine(NSString* line) {
  std::string text = [line UTF8String] ?: "";
  size_t head = text.find("] ");
  text = text.substr(head == std::string::npos ? 0 : head + 2);
  while (text.ends_with('\n')) text.pop_back();
  road::line(road::Actor::nobody, "(log) " + text, "log");
}

// Seen while it grows and not kept, on a terminal only.
void showProgress(double bytes, double expected) {
  std::lock_guard lock(mutex);
  if (!terminal) return;
  addOpenLines();
  unfinished = true;
  printf("\r\033[K%*s%.1f", columnsBefore, "", bytes / 1e6);
  if (expected > 0) {
    constexpr int widest = 40;
    int done = static_cast<int>(std::min(bytes / expected, 1.0) * widest);
    printf(" of %.1f MB  ", expected / 1e6);
    for (int i = 0; i < widest; ++i) fputs(i < done ? "█" : "░", stdout);
  } else {
    printf(" MB");
  }
  fflush(stdout);
}

} // namespace

namespace road {

void listen() {
  _NSLog_printf_handler = addLogLine;
  terminal = isatty(STDOUT_FILENO);
  colours = terminal && !getenv("NO_COLOR");
  host::trace(printStep);
  steps::watch(addStep);
  steps::watchProgress(showProgress);
}

const char* nameOf(Actor actor) { return looks[static_cast<int>(actor)].name; }

void line(Actor actor, const std::string& text, const std::string& kind) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  addOpenLines();
  add({actor, thread, kind, text, depth});
}

void introduce(const host::Object& object, const std::string& what) {
  std::ostringstream name;
  name << host::Value(object);
  std::lock_guard lock(mutex);
  introduced[name.str()] = what;
}

namespace {
void introduceValue(const host::Value& value) {
  auto* object = std::get_if<host::Object>(&value.held());
  if (!object || !*object) return;
  unwatched = true;
  if (host::isA(*object, "SUAppcastKVZ")) introduce(*object, "the feed");
  if (host::isA(*object, "SUAppcastItemKVZ"))
    introduce(*object, "release " + host::get<std::string>(*object, "versionString as string"));
  unwatched = false;
}
} // namespace

host::Handlers introducing(const host::Handlers& handlers) {
  host::Handlers result;
  for (const auto& [declaration, handler] : handlers)
    result.emplace_back(declaration, [handler = handler](host::Event& event) {
      for (const host::Value& argument : event.arguments) introduceValue(argument);
      host::Value answer = handler(event);
      introduceValue(answer);
      return answer;
    });
  return result;
}

void setHome(const std::string& folder) { home = folder; }

void fact(const std::string& name, const std::string& text) {
  constexpr size_t before = 18;
  std::lock_guard lock(mutex);
  printf("  %s%-15s%s %s\n", paint("\033[2m"), name.c_str(), paint("\033[0m"),
         columns::wrapped(shown(text), before).c_str());
}

void hint(const std::string& text) { printf("%s\n", columns::wrapped(text, 0).c_str()); }

void heading(const std::string& text) { line(Actor::nobody, text, "heading"); }

std::vector<Line> all() {
  std::lock_guard lock(mutex);
  return lines;
}

bool write(const std::string& file) {
  std::ofstream out(file);
  for (const Line& line : all())
    out << line.thread << '\t' << nameOf(line.actor) << '\t' << line.kind << '\t' << line.text
        << '\n';
  return bool(out.flush());
}

void verdict(bool good, const std::string& text) {
  std::lock_guard lock(mutex);
  printf("\n%s%s%s\n", paint(good ? "\033[1;32m" : "\033[1;31m"),
         columns::wrapped(shown(text), 0).c_str(), paint("\033[0m"));
  fflush(stdout);
}

Failure failure() {
  std::lock_guard lock(mutex);
  return lastFailure;
}

bool ended() { return cycleEnded; }

int startedProcess() { return process; }

} // namespace road
