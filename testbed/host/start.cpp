// Profiles, the start of a host, and the loading of plug-ins.
#include "operations.h"

#include <dlfcn.h>
#include <ostream>

namespace host {

namespace {

std::atomic<const Profile*> current{nullptr};

} // namespace

const std::vector<Profile>& profiles() {
  // name, version, data offset, text in the record, offers string data
  static const auto* all = new std::vector<Profile>{
      {"unversioned", 0, 16, true, false},   {"2011.4", 2011.4, 24, true, false},
      {"2012.0", 2012.0, 32, true, true},    {"2012.99", 2012.99, 16, true, true},
      {"2013.0", 2013.0, 24, true, true},    {"2013.01", 2013.01, 32, false, true},
      {"2013.02", 2013.02, 16, false, true}, {"2013.03", 2013.03, 24, false, true},
      {"2014.1", 2014.1, 32, false, true},
  };
  return *all;
}

std::ostream& operator<<(std::ostream& out, const Profile& profile) { return out << profile.name; }

const Profile& profile() {
  const Profile* profile = current;
  if (!profile) throw Error("there is no host yet; call host::start() first");
  return *profile;
}

void start(std::string_view name) {
  const Profile* found = nullptr;
  std::string known;
  for (const Profile& each : profiles()) {
    if (each.name == name) found = &each;
    known += std::string(" ") + each.name;
  }
  if (!found) throw Error("there is no host \"" + std::string(name) + "\"; there are:" + known);
  prepareCocoa();
  resetExceptions();
  resetEvents();
  current = found;
  resetOperations(*found);
  resetClasses();
  resetRegistration();
  resetProperties();
  resetObjectMethods();
  resetStrings();
  resetArrays();
  resetMemoryBlocks();
  trace({});
}

void loadPlugin(const std::string& path) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw Error("cannot load the plug-in " + path + ": " + dlerror());
  void* entry = dlsym(library, "REALPluginMain");
  if (!entry) throw Error(path + " is no plug-in: it exports no REALPluginMain");
  startPlugin(entry, path.substr(path.rfind('/') + 1));
}

void startPlugin(void* entry, const std::string& name) {
  profile();
  if (tracing()) emit({Step::pluginLoaded, {}, name, {}, entry, currentThread()});
  auto* resolver = &resolve;
  uint32_t word = uint32_t(reinterpret_cast<uintptr_t>(resolver));
  rethrowEscaped();
  crossing_enter(entry, &word, 1);
}

} // namespace host
