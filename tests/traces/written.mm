#include "written.h"

#import "testbed/sparkle/SUStep.h"

#include <cstdio>
#include <map>
#include <mutex>

namespace written {

namespace {

std::recursive_mutex mutex;
FILE* out;
std::vector<std::pair<std::string, std::string>> words;
std::map<std::string, int> depths;
thread_local int quiet;

void write(const std::string& text) {
  std::lock_guard lock(mutex);
  if (!out) return;
  fprintf(out, "%s\n", text.c_str());
  fflush(out);
}

std::string listed(const std::vector<std::string>& values) {
  constexpr size_t longest = 90;
  std::string text;
  for (const std::string& value : values) {
    std::string shown = normal(value);
    if (shown.size() > longest) shown = shown.substr(0, longest) + "...";
    text += (text.empty() ? "" : ", ") + shown;
  }
  return text;
}

void nest(int change) {
  std::lock_guard lock(mutex);
  depths[host::currentThread().name()] += change;
}

void logged(NSString* text) {
  std::string whole = [text UTF8String] ?: "";
  while (!whole.empty() && whole.back() == '\n') whole.pop_back();
  size_t head = whole.find("] ");
  line("LOG " + (head == std::string::npos ? whole : whole.substr(head + 2)));
}

// The steps that a recording has. The others are the testbed framework's own addition.
struct Recorded {
  NSString* step;
  NSString* title;     // of the window; nil: no window
  const char* version; // null: of both
};
const Recorded recorded[] = {
    {SUStepAsks, SUWindowUpdate, nullptr},
    {SUStepAnswered, SUWindowUpdate, nullptr},
    {SUStepAsks, SUWindowAutomatic, nullptr},
    {SUStepAnswered, SUWindowAutomatic, nullptr},
    {SUStepAsks, SUWindowReady, "1.6"},
    {SUStepAnswered, SUWindowReady, nullptr},
    {SUStepAsks, SUWindowError, nullptr},
    {SUStepFetching, nil, "1.6"},
    {SUStepDownloading, nil, nullptr},
    {SUStepTrash, nil, "1.5b6"},
    {SUStepTerminating, nil, nullptr},
    {SUStepFinished, nil, nullptr},
    {SUStepFailed, nil, nullptr},
};

} // namespace

void begin(const std::string& file) {
  std::lock_guard lock(mutex);
  out = fopen(file.c_str(), "w");
  _NSLog_printf_handler = logged;
}

void call(const std::string& text, const std::string& name) {
  std::lock_guard lock(mutex);
  words.emplace_back(text, name);
}

std::string normal(std::string text) {
  std::lock_guard lock(mutex);
  for (const auto& [word, name] : words)
    for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += name.size())
      text.replace(at, word.size(), name);
  // Addresses.
  for (size_t at = 0; (at = text.find("0x", at)) != std::string::npos; at += 2) {
    size_t end = text.find_first_not_of("0123456789abcdef", at + 2);
    if (end == std::string::npos) end = text.size();
    if (end > at + 2) text.replace(at, end - at, "0xXXXXXXXX");
  }
  return text;
}

void line(const std::string& text) {
  if (quiet) return;
  std::string thread = host::currentThread().name();
  std::lock_guard lock(mutex);
  if (thread.size() < 9) thread.resize(9, ' ');
  write(thread + " " + std::string(2 * depths[host::currentThread().name()], ' ') + normal(text));
}

void found(const std::string& text) { write("# " + normal(text)); }

void step(const host::Step& step) {
  std::string name = step.member.substr(0, step.member.find_first_of(" ("));
  std::string with = step.values.empty() ? "" : " " + listed(step.values);
  switch (step.kind) {
  case host::Step::memberCalled:
    line("call " + step.className + "." + name + with);
    return nest(1);
  case host::Step::memberReturned:
    nest(-1);
    return line("ret  " + name + with);
  case host::Step::eventRaised:
    line("EVENT " + name + with);
    return nest(1);
  case host::Step::eventAnswered:
    nest(-1);
    return line("answered " + name + with);
  case host::Step::exceptionRaised:
    return line("HOST EXCEPTION " + step.className + with);
  default:
    return;
  }
}

bool isRecorded(const std::string& version, const std::string& step, const std::string& title) {
  for (const Recorded& row : recorded)
    if (step == [row.step UTF8String] && title == (row.title ? [row.title UTF8String] : "") &&
        (!row.version || row.version == version))
      return true;
  return false;
}

void step(const std::string& version, const steps::Step& step) {
  if (isRecorded(version, step.name, step.title))
    line("step: " + step.name + ": " + (step.title.empty() ? "" : step.title + " ") + step.detail);
}

Quietly::Quietly() { ++quiet; }
Quietly::~Quietly() { --quiet; }

} // namespace written
