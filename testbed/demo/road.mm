#include "road.h"

#include "testbed/host/host.h"
#include "testbed/sparkle/SUStep.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <unistd.h>
#include <vector>

namespace {

std::mutex mutex;
bool colours;
int steps;
road::Failure lastFailure;
std::atomic<bool> cycleEnded;
std::atomic<int> process;

struct Look {
  const char* name;
  const char* colour;
};
constexpr Look looks[] = {
    {"program", "\033[32m"},
    {"plug-in", "\033[36m"},
    {"framework", "\033[33m"},
    {"server", "\033[35m"},
    {"", ""},
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

// Under the lock.
void print(road::Actor actor, const std::string& thread, const std::string& text) {
  const Look& look = looks[static_cast<int>(actor)];
  printf("%s%4d  %-15s%s %s%-10s%s %s\n", paint("\033[2m"), ++steps, thread.c_str(),
         paint("\033[0m"), paint(look.colour), look.name, paint("\033[0m"), text.c_str());
  fflush(stdout);
}

// Calls that nothing has come after yet, on any thread: such a call and its answer make one line.
struct Call {
  std::string thread, text;
};
std::vector<Call> openCalls;

void printOpenCalls() {
  for (const Call& call : openCalls) print(road::Actor::program, call.thread, call.text);
  openCalls.clear();
}

void openCall(const std::string& text) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  printOpenCalls();
  openCalls.push_back({thread, text});
}

// Whether this thread's call was still open; then its line is complete.
bool closeCall(const std::string& values) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  if (openCalls.empty() || openCalls.back().thread != thread) return false;
  if (!values.empty()) openCalls.back().text += ", is answered " + values;
  printOpenCalls();
  return true;
}

void printStep(const host::Step& step) {
  using road::Actor;
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
      return openCall("calls " + step.className + "." + member + with);
    return openCall("sets " + step.className + "." + member + " to " + values);
  case host::Step::memberReturned:
    if (!closeCall(values) && !values.empty())
      road::line(Actor::plugin, "answers " + member + with);
    return;
  case host::Step::eventRaised:
    return road::line(Actor::plugin, "raises the event " + member + with);
  case host::Step::eventAnswered:
    if (!values.empty()) road::line(Actor::program, "answers " + member + with);
    return;
  case host::Step::exceptionRaised:
    return road::line(Actor::plugin, "raises the exception " + step.className + ": " + values);
  case host::Step::operation:
    return;
  }
}

// What the framework does, said of it.
struct Deed {
  NSString* step;
  const char* does;
};
const Deed deeds[] = {
    {SUStepChecking, "checks for updates of"},
    {SUStepIgnored, "ignores"},
    {SUStepDelegate, "tells its delegate"},
    {SUStepFetching, "fetches"},
    {SUStepLoaded, "has loaded the feed:"},
    {SUStepComparing, "compares the versions"},
    {SUStepFound, "finds the update"},
    {SUStepNotFound, "finds nothing newer:"},
    {SUStepDownloading, "downloads"},
    {SUStepDownloaded, "has downloaded"},
    {SUStepSignature, "finds the signature"},
    {SUStepUnpacked, "has unpacked"},
    {SUStepInstalling, "installs into"},
    {SUStepInstalled, "has installed"},
    {SUStepPostponed, "postpones the relaunch into"},
    {SUStepContinued, "continues the relaunch into"},
    {SUStepRelaunching, "relaunches"},
    {SUStepPermission, "asks for permission to check by itself:"},
    {SUStepScheduled, "schedules:"},
    {SUStepFinished, "is done:"},
    {SUStepFailed, "has failed:"},
};

std::string deed(NSString* step, NSString* detail) {
  std::string does = std::string([step UTF8String]) + ":";
  for (const Deed& row : deeds)
    if ([row.step isEqual:step]) does = row.does;
  return does + " " + [detail UTF8String];
}

} // namespace

@interface RoadObserver : NSObject
- (void)step:(NSNotification*)notification;
@end

@implementation RoadObserver
- (void)step:(NSNotification*)notification {
  NSDictionary* info = [notification userInfo];
  NSString* step = [info objectForKey:@"step"];
  NSString* detail = [info objectForKey:@"detail"];
  if ([step isEqual:SUStepDownloading]) road::heading("The installation");
  if ([step isEqual:SUStepContinued]) road::heading("The relaunch");
  road::line(road::Actor::framework, deed(step, detail));
  if ([step isEqual:SUStepRelaunching]) process = [[info objectForKey:@"pid"] intValue];
  if ([step isEqual:SUStepFailed]) {
    std::lock_guard lock(mutex);
    lastFailure = {[[info objectForKey:@"failure"] UTF8String], [detail UTF8String]};
  }
  if ([step isEqual:SUStepFinished] || [step isEqual:SUStepFailed]) cycleEnded = true;
}
@end

namespace road {

void listen() {
  colours = isatty(STDOUT_FILENO) && !getenv("NO_COLOR");
  host::trace(printStep);
  [[NSNotificationCenter defaultCenter] addObserver:[RoadObserver new]
                                           selector:@selector(step:)
                                               name:SUUpdaterStepNotification
                                             object:nil];
}

void line(Actor actor, const std::string& text) {
  std::string thread = threadName();
  std::lock_guard lock(mutex);
  printOpenCalls();
  print(actor, thread, text);
}

void heading(const std::string& text) {
  std::lock_guard lock(mutex);
  printOpenCalls();
  printf("\n%s%s%s\n", paint("\033[1m"), text.c_str(), paint("\033[0m"));
  fflush(stdout);
}

void verdict(bool good, const std::string& text) {
  std::lock_guard lock(mutex);
  printf("\n%s%s%s\n", paint(good ? "\033[1;32m" : "\033[1;31m"), text.c_str(), paint("\033[0m"));
  fflush(stdout);
}

Failure failure() {
  std::lock_guard lock(mutex);
  return lastFailure;
}

bool ended() { return cycleEnded; }

int startedProcess() { return process; }

} // namespace road
