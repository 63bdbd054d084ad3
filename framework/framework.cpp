#include "framework/framework.h"

#include "convert/files.h"
#include "convert/registry.h"
#include "plugin/failure.h"
#include "plugin/registration.h"

id MySUUpdater;
id MySUAppcast;
id MySUAppcastItem;
CFMutableDictionaryRef instances;

namespace {

bool ExceptionsInitialized;

void loadBundle(REALfolderItemStruct* folder) {
  id path = autoreleasedPath(folder);
  if (!path) return;
  id bundle = send<id>("NSBundle"_class, "bundleWithPath:"_sel, path);
  if (!bundle || !send<BOOL>(bundle, "load"_sel)) return;
  MySUUpdater = send<id>(bundle, "classNamed:"_sel, "SUUpdater"_ns);
  MySUAppcast = send<id>(bundle, "classNamed:"_sel, "SUAppcast"_ns);
  MySUAppcastItem = send<id>(bundle, "classNamed:"_sel, "SUAppcastItem"_ns);
}

} // namespace

void CocoaInit() {
  id exceptions = "NSException"_class;
  if (!instances && responds(exceptions, "GetInstancesDictionaryKVZ"_sel)) {
    instances = send<CFMutableDictionaryRef>(exceptions, "GetInstancesDictionaryKVZ"_sel);
  }
  if (!ExceptionsInitialized && responds(exceptions, "PrepareNSExceptionKVZ"_sel)) {
    send<void>(exceptions, "PrepareNSExceptionKVZ"_sel);
    ExceptionsInitialized = true;
  }
}

RBBoolean LoadSparkleFramework(REALfolderItemStruct* folder) {
  bool loaded = false;
  raising([&] {
    CocoaInit();
    loaded = MySUUpdater != nullptr;
    if (!loaded) loadBundle(folder);
  });
  // Comparators may be older than the framework.
  adoptProtocol(MySUVersionComparison);
  // A framework that is loaded is not looked at again, complete or not.
  if (loaded) return true;
  return MySUUpdater && MySUAppcast && MySUAppcastItem;
}

RBBoolean IsFrameworkLoaded() {
  raising([] { CocoaInit(); });
  return MySUUpdater != nullptr;
}
