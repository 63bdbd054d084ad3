// What stands before a scenario begins.

#include "played.h"
#include "scenarios.h"

#include "testbed/companion/companion.h"
#include "testbed/loader/loader.h"

namespace torture {

std::string pluginPath = ELF_PLUGIN_PATH;

void loadPlugin() {
  if (pluginPath.ends_with(".so")) return host::loadPlugin(pluginPath);
  // Mapped for the life of the process, as the host does it.
  static auto bundle = loader::loadFile(pluginPath);
  host::startPlugin(reinterpret_cast<void*>(bundle->entry<void()>()), bundle->name);
}

namespace {

const companion_api* companion() { return companion_open(COMPANION_PATH); }

void loadCompanion() {
  companion();
  host::loadPlugin(COMPANION_PATH);
}

void prepareUnloaded() {
  loadCompanion();
  loadPlugin();
}

void prepareStandard() {
  prepareUnloaded();
  played::loadFramework();
}

void prepareAlone() {
  loadPlugin();
  played::loadFramework();
}

void prepareRefusing() {
  prepareStandard();
  companion()->refuse_exceptions(1);
}

void prepareFlat() {
  companion()->flatten(1);
  for (const char* name : {"CFURLKVZ", "CTLineKVZ", "CFObjectKVZ"}) companion()->spoil_tag(name);
  prepareStandard();
}

void prepareBare() {
  companion()->register_all(0);
  companion()->provide(COMPANION_BOXES, 0);
  companion()->provide(COMPANION_TIMES, 0);
  prepareStandard();
}

} // namespace

const Setup standard = {"standard", prepareStandard, Reporting::raises, true};
const Setup unloaded = {"unloaded", prepareUnloaded, Reporting::raises, true};
const Setup unregistered = {"unregistered", loadCompanion, Reporting::raises, true};
const Setup alone = {"alone", prepareAlone, Reporting::escapes, false};
const Setup refusing = {"refusing", prepareRefusing, Reporting::logs, true};
const Setup flat = {"flat", prepareFlat, Reporting::raises, true};
const Setup bare = {"bare", prepareBare, Reporting::raises, true};

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> joined;
    for (const auto* part : {&frameworkScenarios, &objectScenarios, &updaterScenarios,
                             &delegateScenarios, &toHostScenarios, &toCocoaScenarios})
      joined.insert(joined.end(), part->begin(), part->end());
    return joined;
  }();
  return all;
}

} // namespace torture
