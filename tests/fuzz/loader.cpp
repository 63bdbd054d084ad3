// The loader, fed with damaged bundles: whatever the bytes are, it maps them or says why not, and
// reads nothing outside of them.
#include "testbed/loader/loader.h"

#include <cstdlib>
#include <cstring>

// The seed's weak imports from CoreText are missing, everything else is there.
static void* resolve(const char* name) {
  return strncmp(name, "CT", 2) ? reinterpret_cast<void*>(abort) : nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    auto bundle = loader::load({data, size}, "fuzz", {resolve});
    if (auto* entry = static_cast<char*>(bundle->symbol("REALPluginMain")))
      loader_describe(entry + 1);
    bundle->symbol("");
    for (const loader::Segment& segment : bundle->segments)
      loader_describe(segment.start + segment.size - 1);
  } catch (const loader::Refusal&) {
  }
  return 0;
}
