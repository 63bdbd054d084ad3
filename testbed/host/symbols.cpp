// Names of code addresses. dladdr knows exported functions only; plug-ins export one, so the file's
// own symbol table is read too.
#include "internal.h"

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

// A file in memory for as long as it is looked at.
class Mapping {
public:
  explicit Mapping(const char* path) {
    int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    struct stat info;
    if (fstat(file, &info) == 0 && info.st_size > 0) {
      size_ = size_t(info.st_size);
      void* start = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
      if (start != MAP_FAILED) start_ = static_cast<const uint8_t*>(start);
    }
    close(file);
  }
  ~Mapping() {
    if (start_) munmap(const_cast<uint8_t*>(start_), size_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  // COUNT of T at OFFSET, or null where the file is too short.
  template <typename T> const T* at(size_t offset, size_t count = 1) const {
    bool inside = start_ && offset <= size_ && count <= (size_ - offset) / sizeof(T);
    return inside ? reinterpret_cast<const T*>(start_ + offset) : nullptr;
  }

private:
  const uint8_t* start_ = nullptr;
  size_t size_ = 0;
};

struct Symbol {
  std::string name; // empty when none was found
  uintptr_t offset = 0;
};

Symbol inTable(const char* path, uintptr_t address) {
  Mapping file(path);
  auto* header = file.at<Elf32_Ehdr>(0);
  if (!header || header->e_ident[EI_CLASS] != ELFCLASS32) return {};
  auto* sections = file.at<Elf32_Shdr>(header->e_shoff, header->e_shnum);
  for (int i = 0; sections && i < header->e_shnum; ++i) {
    const Elf32_Shdr& section = sections[i];
    if (section.sh_type != SHT_SYMTAB || section.sh_link >= header->e_shnum) continue;
    const Elf32_Shdr& texts = sections[section.sh_link];
    size_t count = section.sh_size / sizeof(Elf32_Sym);
    auto* symbols = file.at<Elf32_Sym>(section.sh_offset, count);
    auto* names = file.at<char>(texts.sh_offset, texts.sh_size);
    for (size_t n = 0; symbols && names && n < count; ++n) {
      const Elf32_Sym& symbol = symbols[n];
      if (ELF32_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_name >= texts.sh_size) continue;
      if (address >= symbol.st_value && address - symbol.st_value < symbol.st_size)
        return {names + symbol.st_name, address - symbol.st_value};
    }
  }
  return {};
}

std::string readable(const std::string& name) {
  int status = 0;
  char* text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  std::string result = text ? text : name;
  free(text);
  return result;
}

} // namespace

std::string codeName(void* address) {
  char number[32];
  Dl_info info{};
  if (!dladdr(address, &info) || !info.dli_fname) {
    // What no dynamic linker has mapped may be a bundle, if this process has a loader of those.
    using Describe = const char* (*)(const void*);
    static auto describe = reinterpret_cast<Describe>(dlsym(RTLD_DEFAULT, "loader_describe"));
    if (const char* text = describe ? describe(address) : nullptr) return text;
    snprintf(number, sizeof number, "%p (no symbol)", address);
    return number;
  }
  auto place = reinterpret_cast<uintptr_t>(address);
  uintptr_t inFile = place - reinterpret_cast<uintptr_t>(info.dli_fbase);
  Symbol symbol{"", inFile};
  if (info.dli_sname)
    symbol = {info.dli_sname, place - reinterpret_cast<uintptr_t>(info.dli_saddr)};
  else if (Symbol found = inTable(info.dli_fname, inFile); !found.name.empty())
    symbol = found;
  std::string file = info.dli_fname;
  file.erase(0, file.rfind('/') + 1);
  snprintf(number, sizeof number, "+0x%lx", static_cast<unsigned long>(symbol.offset));
  return readable(symbol.name) + number + " in " + file;
}

} // namespace host
