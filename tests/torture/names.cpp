#include "names.h"

#include "testbed/host/host.h"

#include <algorithm>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <iterator>
#include <set>

namespace torture {

namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(file), {}};
  if (content.empty()) throw host::Error(path + ": cannot be read");
  return content;
}

// The section of constants of an ELF library, whose other sections name things of no concern. A
// bundle is taken whole: it has no debug information.
std::string constantsIn(const std::string& path) {
  std::string file = contentOf(path);
  if (!file.starts_with(ELFMAG)) return file;
  auto* header = reinterpret_cast<const Elf32_Ehdr*>(file.data());
  auto* sections = reinterpret_cast<const Elf32_Shdr*>(file.data() + header->e_shoff);
  const char* names = file.data() + sections[header->e_shstrndx].sh_offset;
  std::string constants;
  for (int i = 0; i < header->e_shnum; ++i)
    if (std::string_view(names + sections[i].sh_name) == ".rodata")
      constants += file.substr(sections[i].sh_offset, sections[i].sh_size) + '\0';
  return constants;
}

bool isWord(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return isalnum(c) || c == '_' || c == ':'; });
}

// Those of VarType that become something, and those of objCType that are read in a way of their
// own.
constexpr int variantCodes[] = {2,  3,  4,  5,    6,    7,    8,    9,    11,   16,   18,  19,
                                20, 21, 23, 4098, 4099, 4100, 4101, 4103, 4104, 4105, 4107};
constexpr const char* numberCodes = "cCsSiIlLqQfd";

constexpr const char* outOfReach[] = {
    // For reading a string's bytes in another encoding than its own, which no rule asks for.
    "operation REALConvertString",
};

} // namespace

std::vector<std::string> namesToReach(const std::string& pluginPath) {
  std::vector<std::string> operations = host::operationNames();
  std::set<std::string> known(operations.begin(), operations.end()), names;
  std::string constants = constantsIn(pluginPath);
  for (size_t start = 0; start < constants.size();) {
    std::string text = constants.c_str() + start;
    start += text.size() + 1;
    if (known.contains(text)) names.insert("operation " + text);
    if (text.size() < 4 || !isalpha(static_cast<unsigned char>(text[0])) || !isWord(text)) continue;
    if (text.ends_with("KVZ") || text.ends_with(":")) names.insert("name " + text);
  }
  for (const char* name : outOfReach) names.erase(name);
  for (int code : variantCodes) names.insert("variant " + std::to_string(code));
  for (const char* code = numberCodes; *code; ++code) names.insert(std::string("number ") + *code);
  return {names.begin(), names.end()};
}

} // namespace torture
