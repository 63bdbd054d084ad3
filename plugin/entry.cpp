// The one function that the host finds by name.

#include "plugin/registration.h"

namespace {

struct Threshold {
  double hostVersion;
  std::int32_t interfaceVersion;
};

// The interface version is that of the first row that the host's version reaches.
constexpr Threshold thresholds[] = {{2013.03, 12}, {2013.0, 11}, {2012.0, 10}};
constexpr std::int32_t oldestInterface = 9;

CocoaClass* const cocoaClasses[] = {
    &MySUVersionComparison,
    &MySUUpdaterDelegateInformalProtocol,
};

// In the order of registration.
REALclassDefinition* const classes[] = {
    &SUVersionComparisonDefinition,
    &SUAppcastItemDefinition,
    &SUUpdaterDefinition,
    &SUAppcastDefinition,
};

std::int32_t interfaceVersion(double hostVersion) {
  for (const Threshold& threshold : thresholds) {
    if (hostVersion >= threshold.hostVersion) return threshold.interfaceVersion;
  }
  return oldestInterface;
}

} // namespace

extern "C" [[gnu::visibility("default")]] void REALPluginMain(Resolver resolver) {
  gResolver = resolver;
  auto registerVersion =
      reinterpret_cast<void (*)(std::int32_t)>(resolver("RegisterPluginVersion"));
  if (auto hostVersion = reinterpret_cast<double (*)()>(resolver("REALGetRBVersion"))) {
    rbversion = hostVersion();
  }
  CurrentREALControlVersion = interfaceVersion(rbversion);
  if (registerVersion) registerVersion(CurrentREALControlVersion);

  for (CocoaClass* type : cocoaClasses) makeCocoaClass(*type);
  for (REALclassDefinition* type : classes) MyREALRegisterClass(type);
}
