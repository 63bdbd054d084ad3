// Traces as they are compared.
#pragma once

#include <string>
#include <vector>

namespace traces {

std::vector<std::string> linesOf(const std::string& file);

// What of each line counts: numbers of objects by their first appearance, of the framework's own
// steps and log lines the place only.
std::vector<std::string> comparable(const std::vector<std::string>& lines);

// Empty when both say the same; else both, a line each: "  " in both, "- " expected, "+ " found.
std::string difference(const std::vector<std::string>& expected,
                       const std::vector<std::string>& found);

} // namespace traces
