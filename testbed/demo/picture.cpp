#include "picture.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace picture {
namespace {

// In units of the picture, which are pixels where it has its full width.
constexpr int width = 888, margin = 16, rowHeight = 18, headHeight = 56;
constexpr int threadLeft = margin;
constexpr int firstLane = 120, laneDistance = 68;
constexpr int textLeft = 432;
constexpr size_t longestText = 66; // letters between there and the margin

constexpr const char* laneNames[] = {"program", "plug-in", "framework", "server", "person"};
constexpr int laneCount = std::size(laneNames);

int laneAt(Lane lane) { return firstLane + laneDistance * static_cast<int>(lane); }

// Colours by thread in the order of their first step; the first is the main thread. One row each
// for light and dark surroundings.
struct Colours {
  const char *background, *text, *line;
  std::array<const char*, 4> threads;
};
constexpr Colours light = {
    "#ffffff", "#1f2328", "#d1d9e0", {"#0969da", "#bc4c00", "#8250df", "#1a7f37"}};
constexpr Colours dark = {
    "#0d1117", "#f0f6fc", "#3d444d", {"#58a6ff", "#f0883e", "#bc8cff", "#3fb950"}};

class Document {
public:
  __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
    char line[1000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
    text += '\n';
  }
  std::string text;
};

std::string escaped(const std::string& text) {
  std::string result;
  for (char letter : text) {
    switch (letter) {
    case '&':
      result += "&amp;";
      break;
    case '<':
      result += "&lt;";
      break;
    case '>':
      result += "&gt;";
      break;
    case '"':
      result += "&quot;";
      break;
    default:
      result += letter;
    }
  }
  return result;
}

bool begins(char byte) { return (byte & 0xC0) != 0x80; } // a letter, in UTF-8

std::string cut(const std::string& text) {
  size_t letters = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (begins(text[at]) && ++letters == longestText &&
        std::count_if(text.begin() + long(at), text.end(), begins) > 1)
      return text.substr(0, at) + "…";
  }
  return text;
}

void addColours(Document& svg, const Colours& colours) {
  svg.add("    .ground { fill: %s; }", colours.background);
  svg.add("    text { fill: %s; }", colours.text);
  svg.add("    .lane { stroke: %s; }", colours.line);
  for (size_t i = 0; i < colours.threads.size(); ++i) {
    svg.add("    .t%zu .stroke { stroke: %s; }", i, colours.threads[i]);
    svg.add("    .t%zu .fill { fill: %s; }", i, colours.threads[i]);
  }
}

// The head of an arrow whose tip is at x, y; direction is 1 to the right.
void addHead(Document& svg, int x, int y, int direction) {
  svg.add("    <path class=\"fill\" d=\"M%d %d l%d -4 v8 z\"/>", x, y, -7 * direction);
}

void addLine(Document& svg, const char* kind, int from, int to, int y) {
  svg.add("    <path class=\"stroke%s\" d=\"M%d %d H%d\"/>", kind, from, y, to);
}

void addArrow(Document& svg, const Arrow& arrow, int y) {
  int from = laneAt(arrow.from), to = laneAt(arrow.to);
  if (from == to) {
    svg.add("    <path class=\"stroke\" d=\"M%d %d h14 q5 0 5 4 q0 4 -5 4 h-8\"/>", from, y - 4);
    addHead(svg, from + 2, y + 4, -1);
    return;
  }
  int direction = to > from ? 1 : -1;
  svg.add("    <circle class=\"fill\" cx=\"%d\" cy=\"%d\" r=\"2.5\"/>", from, y);
  addLine(svg, arrow.answer ? " back" : "", from, to - 6 * direction, y);
  addHead(svg, to - direction, y, direction);
}

} // namespace

std::string draw(const std::string& title, const std::vector<Arrow>& arrows) {
  std::vector<std::string> threads;
  auto number = [&](const std::string& thread) {
    auto found = std::find(threads.begin(), threads.end(), thread);
    if (found == threads.end()) found = threads.insert(found, thread);
    return std::min<size_t>(size_t(found - threads.begin()), light.threads.size() - 1);
  };

  int bottom = headHeight + rowHeight * int(arrows.size());
  Document svg;
  svg.add("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" role=\"img\" "
          "aria-labelledby=\"title\">",
          width, bottom + margin);
  svg.add("  <title id=\"title\">%s</title>", escaped(title).c_str());
  svg.add("  <style>");
  svg.add("    text { font: 12px system-ui, \"Segoe UI\", Helvetica, Arial, sans-serif; }");
  svg.add("    .head { font-weight: 600; text-anchor: middle; }");
  svg.add("    .stroke { fill: none; stroke-width: 1.6; }");
  svg.add("    .back { stroke-dasharray: 4 3; }");
  svg.add("    .lane { stroke-width: 1.4; }");
  addColours(svg, light);
  svg.add("    @media (prefers-color-scheme: dark) {");
  addColours(svg, dark);
  svg.add("    }");
  svg.add("  </style>");
  svg.add("  <rect class=\"ground\" width=\"%d\" height=\"%d\"/>", width, bottom + margin);
  svg.add("  <text x=\"%d\" y=\"36\" font-weight=\"600\">thread</text>", threadLeft);
  for (int lane = 0; lane < laneCount; ++lane) {
    int x = laneAt(static_cast<Lane>(lane));
    svg.add("  <text class=\"head\" x=\"%d\" y=\"36\">%s</text>", x, laneNames[lane]);
    svg.add("  <path class=\"lane\" d=\"M%d 46 V%d\"/>", x, bottom);
  }
  svg.add("  <text x=\"%d\" y=\"36\">dashed: the answer</text>", textLeft);

  for (size_t row = 0; row < arrows.size(); ++row) {
    const Arrow& arrow = arrows[row];
    int top = headHeight + rowHeight * int(row), y = top + rowHeight / 2;
    svg.add("  <g class=\"t%zu\">", number(arrow.thread));
    bool changes = row == 0 || arrows[row - 1].thread != arrow.thread;
    if (changes)
      svg.add("    <text class=\"fill\" x=\"%d\" y=\"%d\">%s</text>", threadLeft + 10, y + 4,
              escaped(arrow.thread).c_str());
    svg.add("    <rect class=\"fill\" x=\"%d\" y=\"%d\" width=\"3\" height=\"%d\"/>", threadLeft,
            top + (changes ? 2 : 0), rowHeight - (changes ? 2 : 0));
    addArrow(svg, arrow, y);
    svg.add("    <text x=\"%d\" y=\"%d\">%s</text>", textLeft, y + 4,
            escaped(cut(arrow.text)).c_str());
    svg.add("  </g>");
    if (arrow.cause.empty()) continue;
    int from = laneAt(Lane::framework);
    svg.add("  <g class=\"t%zu\">", number(arrow.cause));
    svg.add("    <circle class=\"fill\" cx=\"%d\" cy=\"%d\" r=\"2.5\"/>", from, y);
    addLine(svg, "", from, laneAt(arrow.from), y);
    svg.add("  </g>");
  }
  svg.add("</svg>");
  return svg.text;
}

} // namespace picture
