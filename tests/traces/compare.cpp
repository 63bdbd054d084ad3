#include "compare.h"

#include <cctype>
#include <fstream>
#include <map>

namespace traces {

namespace {

// "SUAppcastItemKVZ#5" is the class's second if another one was named before.
std::string renumbered(const std::string& line, std::map<std::string, std::string>& names,
                       std::map<std::string, int>& counts) {
  std::string result;
  for (size_t i = 0; i < line.size();) {
    size_t word = i;
    while (word < line.size() && std::isalnum(static_cast<unsigned char>(line[word]))) ++word;
    size_t end = word + 1;
    while (end < line.size() && std::isdigit(static_cast<unsigned char>(line[end]))) ++end;
    if (word > i && word < line.size() && line[word] == '#' && end > word + 1) {
      std::string type = line.substr(i, word - i), object = line.substr(i, end - i);
      auto [known, isNew] = names.try_emplace(object);
      if (isNew) known->second = type + "#" + std::to_string(++counts[type]);
      result += known->second;
      i = end;
    } else {
      result += line.substr(i, word > i ? word - i : 1);
      i = word > i ? word : i + 1;
    }
  }
  return result;
}

// The place of what is the framework's own.
std::string placed(const std::string& line) {
  constexpr size_t threadWidth = 10;
  if (line.size() < threadWidth || line[0] == '#') return line;
  size_t begin = line.find_first_not_of(' ', threadWidth);
  if (begin == std::string::npos) return line;
  std::string text = line.substr(begin);
  if (text.starts_with("step: ")) return line.substr(0, begin) + "step";
  if (text.starts_with("LOG ") && !text.starts_with("LOG A ")) return line.substr(0, begin) + "LOG";
  return line;
}

} // namespace

std::vector<std::string> linesOf(const std::string& file) {
  std::vector<std::string> lines;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> comparable(const std::vector<std::string>& lines) {
  std::map<std::string, std::string> names;
  std::map<std::string, int> counts;
  std::vector<std::string> result;
  for (const std::string& line : lines) result.push_back(placed(renumbered(line, names, counts)));
  return result;
}

std::string difference(const std::vector<std::string>& expected,
                       const std::vector<std::string>& found) {
  const std::vector<std::string> left = comparable(expected), right = comparable(found);
  if (left == right) return "";
  // The longest common subsequence, from the ends.
  std::vector<std::vector<int>> length(left.size() + 1, std::vector<int>(right.size() + 1));
  for (size_t i = left.size(); i-- > 0;)
    for (size_t j = right.size(); j-- > 0;)
      length[i][j] = left[i] == right[j] ? length[i + 1][j + 1] + 1
                                         : std::max(length[i + 1][j], length[i][j + 1]);
  std::string text;
  size_t i = 0, j = 0;
  while (i < left.size() || j < right.size()) {
    bool both = i < left.size() && j < right.size() && left[i] == right[j];
    if (both)
      text += "  " + found[j] + "\n", ++i, ++j;
    else if (j == right.size() || (i < left.size() && length[i + 1][j] >= length[i][j + 1]))
      text += "- " + expected[i++] + "\n";
    else
      text += "+ " + found[j++] + "\n";
  }
  return text;
}

} // namespace traces
