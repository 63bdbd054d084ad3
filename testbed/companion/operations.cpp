#include "operations.h"

namespace companion {

Operations host;

void resolveOperations(Resolver resolver) {
  const auto find = [resolver]<typename Operation>(Operation& operation, const char* name) {
    operation = reinterpret_cast<Operation>(resolver(name));
  };
  find(host.registerPluginVersion, "RegisterPluginVersion");
  find(host.hostVersion, "REALGetRBVersion");
  find(host.registerClass, "PluginRegisterClass");
  find(host.classReference, "pluginObjectType");
  find(host.newInstance, "PluginNewInstance");
  find(host.lockObject, "REALLockObject");
  find(host.unlockObject, "REALUnlockObject");
  find(host.buildString, "REALBuildString");
  find(host.setStringEncoding, "REALSetStringEncoding");
  find(host.unlockString, "REALUnlockString");
  find(host.setStringProperty, "REALSetPropValueString");
}

} // namespace companion
