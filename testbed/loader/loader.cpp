#include "loader.h"

#include "fixups.h"
#include "macho.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

// A leak checker, if there is one, must look for pointers in the bundle's data too.
extern "C" [[gnu::weak]] void __lsan_register_root_region(const void* start, std::size_t size);
extern "C" [[gnu::weak]] void __lsan_unregister_root_region(const void* start, std::size_t size);

namespace loader {

using namespace macho;

namespace {

struct Mapping {
  std::uint8_t* memory = nullptr;
  std::size_t size = 0;

  Mapping(std::uintptr_t address, std::size_t size) : size(size) {
    int flags = MAP_PRIVATE | MAP_ANONYMOUS | (address ? MAP_FIXED_NOREPLACE : 0);
    void* memory =
        mmap(reinterpret_cast<void*>(address), size, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (memory == MAP_FAILED)
      throw std::system_error(errno, std::generic_category(),
                              "mapping " + std::to_string(size) + " bytes at " + hex(address));
    this->memory = static_cast<std::uint8_t*>(memory);
  }
  Mapping(const Mapping&) = delete;
  ~Mapping() { munmap(memory, size); }
};

struct Symbol {
  std::uint32_t address; // of the bundle, before it is placed
  std::string name;
};

std::string demangled(const std::string& symbol) {
  const char* name = symbol.c_str() + symbol.starts_with('_');
  int status;
  char* text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  std::string result = text ? text : name;
  free(text);
  return result;
}

using Bytes = std::vector<std::uint8_t>;

Bytes readFile(const std::string& path) {
  int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path);
  Bytes file;
  std::uint8_t block[65536];
  ssize_t count;
  while ((count = read(descriptor, block, sizeof block)) > 0)
    file.insert(file.end(), block, block + count);
  int error = count < 0 ? errno : 0;
  close(descriptor);
  if (error) throw std::system_error(error, std::generic_category(), path);
  return file;
}

std::vector<Symbol> readSymbols(Reader& reader, const Image& image) {
  reader.enter(image.symbolTable);
  std::vector<Symbol> symbols;
  for (std::uint32_t i = 0; i < image.symbolCount; ++i) {
    std::uint64_t entry = image.symbolOffset + std::uint64_t{12} * i;
    std::uint8_t kind = reader.byte(entry + 4);
    if (kind & symbolStab || (kind & symbolType) != symbolInSection) continue;
    std::uint64_t end = std::uint64_t{image.strings.offset} + image.strings.size;
    symbols.push_back(
        {reader.word(entry + 8),
         std::string(reader.text(image.strings.offset + std::uint64_t{reader.word(entry)}, end))});
  }
  std::stable_sort(symbols.begin(), symbols.end(),
                   [](auto& a, auto& b) { return a.address < b.address; });
  return symbols;
}

// The code of a bundle, which its copy with all symbols shares.
std::span<const std::uint8_t> codeOf(const Reader& reader, const Image& image) {
  std::uint32_t commandsEnd = reader.word(20) + 28;
  return reader.range(commandsEnd, image.segments.front().fileSize - commandsEnd);
}

// Every mapped bundle, for describe().
struct Registry {
  std::mutex mutex;
  std::vector<const Bundle*> bundles;
};
Registry& registry() {
  static Registry registry;
  return registry;
}

} // namespace

struct Bundle::Contents {
  std::string name;
  Bytes file; // the i386 part's own copy: exports are looked up later
  Image image;
  Mapping mapping;
  std::vector<Symbol> symbols;

  std::uint8_t* at(std::uint32_t address) const {
    return mapping.memory + (address - image.lowest());
  }
  std::vector<Segment> segments() const {
    std::vector<Segment> segments;
    for (const SegmentCommand& segment : image.segments)
      segments.push_back({segment.name, at(segment.address), segment.size,
                          (segment.protection & mayWrite) != 0,
                          (segment.protection & mayExecute) != 0});
    return segments;
  }
};

std::unique_ptr<Bundle> loadWithSymbols(std::span<const std::uint8_t> file, const std::string& name,
                                        const Options& options, const Bytes& fileWithSymbols) {
  Reader reader = i386Part(Reader(file, name));
  Image image = parse(reader);
  std::vector<Symbol> symbols = readSymbols(reader, image);
  if (!fileWithSymbols.empty()) {
    Reader richReader = i386Part(Reader(fileWithSymbols, name + ".symbols"));
    Image richImage = parse(richReader);
    if (std::ranges::equal(codeOf(reader, image), codeOf(richReader, richImage)))
      symbols = readSymbols(richReader, richImage);
  }
  auto bytes = reader.range(0, reader.size());
  auto contents = std::unique_ptr<Bundle::Contents>(
      new Bundle::Contents{name.substr(name.rfind('/') + 1),
                           {bytes.begin(), bytes.end()},
                           image,
                           Mapping(options.address, image.highest() - image.lowest()),
                           std::move(symbols)});

  for (const SegmentCommand& segment : image.segments)
    if (segment.fileSize)
      memcpy(contents->at(segment.address), &bytes[segment.fileOffset], segment.fileSize);

  std::uint8_t* memory = contents->mapping.memory;
  auto base = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(memory));
  Fixups fixups(reader, image, {memory, base - image.lowest()});
  fixups.rebase();
  fixups.bind(options.resolver);

  for (const SegmentCommand& segment : image.segments) {
    int protection = (segment.protection & mayRead ? PROT_READ : 0) |
                     (segment.protection & mayWrite ? PROT_WRITE : 0) |
                     (segment.protection & mayExecute ? PROT_EXEC : 0);
    if (mprotect(contents->at(segment.address), segment.size, protection))
      throw std::system_error(errno, std::generic_category(), "protecting " + segment.name);
  }
  return std::unique_ptr<Bundle>(new Bundle(std::move(contents)));
}

Bundle::Bundle(std::unique_ptr<Contents> contents)
    : name(contents->name), segments(contents->segments()), libraries(contents->image.libraries),
      contents_(std::move(contents)) {
  if (__lsan_register_root_region)
    for (const Segment& segment : segments)
      if (segment.writable) __lsan_register_root_region(segment.start, segment.size);
  std::lock_guard lock(registry().mutex);
  registry().bundles.push_back(this);
}

Bundle::~Bundle() {
  if (__lsan_unregister_root_region)
    for (const Segment& segment : segments)
      if (segment.writable) __lsan_unregister_root_region(segment.start, segment.size);
  std::lock_guard lock(registry().mutex);
  std::erase(registry().bundles, this);
}

void* Bundle::symbol(const std::string& symbol) const {
  Reader reader(contents_->file, name);
  std::uint32_t address;
  if (!findExport(reader, contents_->image, "_" + symbol, address)) return nullptr;
  return contents_->at(address);
}

std::unique_ptr<Bundle> load(std::span<const std::uint8_t> file, const std::string& name,
                             const Options& options) {
  return loadWithSymbols(file, name, options, {});
}

std::unique_ptr<Bundle> loadFile(const std::string& path, const Options& options) {
  std::string beside = path + ".symbols";
  return loadWithSymbols(readFile(path), path, options,
                         access(beside.c_str(), R_OK) ? Bytes() : readFile(beside));
}

void* resolveFromProcess(const char* name) {
  static void* cocoa = dlopen("libtestbed_cocoa.so", RTLD_NOW);
  std::string wrapped = std::string("__wrap_") + name;
  for (const char* symbol : {wrapped.c_str(), name})
    for (void* where : {cocoa, RTLD_DEFAULT})
      if (void* found = dlsym(where, symbol)) return found;
  return nullptr;
}

std::string describe(const void* address) {
  auto* byte = static_cast<const std::uint8_t*>(address);
  std::lock_guard lock(registry().mutex);
  for (const Bundle* bundle : registry().bundles) {
    const Bundle::Contents& contents = *bundle->contents_;
    std::uint8_t* start = contents.mapping.memory;
    if (byte < start || byte >= start + contents.mapping.size) continue;
    std::uint32_t inside = static_cast<std::uint32_t>(byte - start) + contents.image.lowest();
    auto next = std::upper_bound(
        contents.symbols.begin(), contents.symbols.end(), inside,
        [](std::uint32_t address, const Symbol& symbol) { return address < symbol.address; });
    if (next == contents.symbols.begin()) return bundle->name + ": " + hex(inside);
    const Symbol& symbol = *std::prev(next);
    return bundle->name + ": " + demangled(symbol.name) + " + " +
           std::to_string(inside - symbol.address);
  }
  return {};
}

} // namespace loader

extern "C" const char* loader_describe(const void* address) {
  static thread_local std::string text;
  text = loader::describe(address);
  return text.empty() ? nullptr : text.c_str();
}

extern "C" void* loader_load(const char* path, const char* symbol, const char** why) {
  static thread_local std::string reason;
  try {
    loader::Bundle* bundle = loader::loadFile(path).release();
    if (void* address = bundle->symbol(symbol)) return address;
    reason = std::string(path) + " exports no " + symbol;
  } catch (const std::exception& failure) {
    reason = failure.what();
  }
  *why = reason.c_str();
  return nullptr;
}
