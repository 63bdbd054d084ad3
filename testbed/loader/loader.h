// Maps Mach-O bundles for 32-bit Intel Mac OS X into this process: parses, copies the segments,
// rebases, binds, protects. It reads what it understands and refuses the rest. Running what it
// hands out needs 16-byte aligned stacks at every call, which is what i386 Linux has as well.
//
// Lives here: everything about the file format. Does not: what the imports mean (testbed/cocoa)
// and who calls the entry point (testbed/host).
//
// Threads: every function may be called from any thread. No function of the bundle runs here.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace loader {

// Why a file was refused: file, load command, offset in the file, reason.
struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Answers the address of an import, given its C name (no underscore before it), or null.
using Resolver = std::function<void*(const char* name)>;

// `__wrap_NAME`, then `NAME`; each in libtestbed_cocoa.so, if the process can load it, then in the
// process.
void* resolveFromProcess(const char* name);

struct Options {
  Resolver resolver = resolveFromProcess;
  // Where the bundle is to lie, a multiple of 4096; 0 leaves it to the system. An address that is
  // taken throws std::system_error.
  std::uintptr_t address = 0;
};

struct Segment {
  std::string name;
  std::uint8_t* start;
  std::size_t size;
  bool writable, executable;
};

// One mapped bundle. Nothing may call into it once it is gone.
class Bundle {
public:
  Bundle(const Bundle&) = delete;
  ~Bundle();

  // The address of an exported symbol, given its C name, or null.
  void* symbol(const std::string& name) const;
  template <typename Function> Function* entry() const {
    return reinterpret_cast<Function*>(symbol("REALPluginMain"));
  }

  const std::string name; // the file's, without folders
  const std::vector<Segment> segments;
  const std::vector<std::string> libraries; // install names, in the order of the file

private:
  struct Contents;
  friend std::unique_ptr<Bundle> loadWithSymbols(std::span<const std::uint8_t>, const std::string&,
                                                 const Options&, const std::vector<std::uint8_t>&);
  friend std::string describe(const void*);
  explicit Bundle(std::unique_ptr<Contents> contents);
  const std::unique_ptr<Contents> contents_;
};

// Both throw Refusal. Missing weak imports become null; any other missing import is a reason to
// refuse. Of a fat file the i386 part is loaded. The bytes are not needed afterwards. If there is a
// file PATH.symbols with the same code, addresses get their names from it.
std::unique_ptr<Bundle> loadFile(const std::string& path, const Options& options = {});
std::unique_ptr<Bundle> load(std::span<const std::uint8_t> file, const std::string& name,
                             const Options& options = {});

// "SparkleKVZ.dylib: REALPluginMain + 12" for an address inside a mapped bundle, else empty.
std::string describe(const void* address);

} // namespace loader

// The same for a debugger's prompt and for stack traces that do not link against this library.
// Answers null outside of every bundle; the text stays good until this thread asks again.
extern "C" const char* loader_describe(const void* address);

// For programs that speak no C++: maps the bundle for the life of the process and answers the
// address of an exported symbol, given its C name. Answers null when the bundle is refused or has
// no such symbol; *why then says so, and stays good until this thread asks again.
extern "C" void* loader_load(const char* path, const char* symbol, const char** why);
