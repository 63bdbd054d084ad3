#include "arrows.h"

#include <map>
#include <regex>

namespace {

using picture::Arrow;
using picture::Lane;

// By the beginning of a line's kind. Text instead of the line's own stands where that would differ
// from one run to the next.
struct Rule {
  const char* kind;
  Lane from, to;
  bool answer = false;
  const char* text = nullptr;
};
constexpr Rule rules[] = {
    {"start", Lane::program, Lane::plugin},
    {"call", Lane::program, Lane::plugin},
    {"return", Lane::plugin, Lane::program, true},
    {"event", Lane::plugin, Lane::program},
    {"answer", Lane::program, Lane::plugin, true},
    {"step fetching", Lane::framework, Lane::server},
    {"step loaded", Lane::server, Lane::framework, true, "sends the feed"},
    {"step shows", Lane::framework, Lane::person},
    {"step asks", Lane::framework, Lane::person},
    {"step answered", Lane::person, Lane::framework, true},
    {"step downloading", Lane::framework, Lane::server},
    {"step downloaded", Lane::server, Lane::framework, true, "sends the archive"},
    {"step unpacked", Lane::framework, Lane::framework, false, "has unpacked the archive"},
    {"step trash", Lane::framework, Lane::framework, false, "moves the old version to the trash"},
    {"step relaunching", Lane::framework, Lane::framework, false, "has the new version started"},
    {"step", Lane::framework, Lane::framework},
};

const Rule* ruleFor(const std::string& kind) {
  for (const Rule& rule : rules)
    if (kind.starts_with(rule.kind)) return &rule;
  return nullptr;
}

// The line's text as the picture has room for it, and the same in every run.
std::string brief(std::string text) {
  static const std::pair<std::regex, const char*> changes[] = {
      {std::regex(R"(\w+#\d+ \(([^)]*)\))"), "$1"}, // what an object is says more than its name
      {std::regex(R"(http://127\.0\.0\.1:\d+)"), "http://…"},
      {std::regex("~/"), "/…/"},
      {std::regex(", is answered "), ": "},
      {std::regex("^raises the event "), "raises "},
      {std::regex("^(loads .* classes).*"), "$1"},
      {std::regex("^(asks: \"[^\"]*\").*"), "$1"},
  };
  for (const auto& [from, to] : changes) text = std::regex_replace(text, from, to);
  return text;
}

} // namespace

std::vector<Arrow> arrowsOf(const std::vector<road::Line>& lines) {
  std::vector<Arrow> arrows;
  // What the framework does about an event: the plug-in raises it next, and both make one arrow.
  const road::Line* cause = nullptr;
  auto add = [&](const road::Line& line, const std::string& thread) {
    const Rule& rule = *ruleFor(line.kind);
    arrows.push_back({rule.from, rule.to, rule.answer, line.thread,
                      rule.text ? rule.text : brief(line.text), thread});
  };
  for (const road::Line& line : lines) {
    if (line.kind == "heading" && line.text == road::lastStage) break;
    if (line.depth > 0 || !ruleFor(line.kind)) continue;
    bool isEvent = line.kind.starts_with("event ");
    if (cause && !isEvent) add(*cause, "");
    std::string thread = cause && isEvent ? cause->thread : "";
    cause = line.kind == "step delegate" || line.kind == "step comparing" ? &line : nullptr;
    if (!cause) add(line, thread);
  }
  return arrows;
}
