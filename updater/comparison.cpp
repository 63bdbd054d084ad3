// SUVersionComparisonKVZ: a host program's say in which version is newer. Each instance owns one
// Cocoa object, the comparator, which raises the instance's event when the framework asks it.

#include "updater/comparison.h"

#include "convert/strings.h"
#include "framework/framework.h"
#include "framework/wrapping.h"
#include "plugin/failure.h"

id comparatorOf(REALobjectStruct* instance) {
  return wrappedObject(SUVersionComparisonDefinition, instance);
}

namespace {

constexpr std::int32_t NSOrderedAscending = -1;

REALevent events[] = {EVENT("compareVersion(VersionA as string, VersionB as string) as integer")};

// The instance whose event is raised. No reference: the instance owns the comparator, and its
// Destructor cuts this link before it goes. The framework may hold the comparator longer.
CocoaVariable variables[] = {{"target", "^{REALobjectStruct=}", 0}};

REALobjectStruct*& targetOf(id self) { return variableOf<REALobjectStruct*>(self, variables[0]); }

id initWithTarget(id self, SEL, REALobjectStruct* target) {
  self = sendToNSObject<id>(self, "init"_sel);
  if (self) targetOf(self) = target;
  return self;
}

void clearTarget(id self, SEL) { targetOf(self) = nullptr; }

void dealloc(id self, SEL) {
  targetOf(self) = nullptr;
  sendToNSObject<void>(self, "dealloc"_sel);
}

// On the framework's thread. The host's answer is passed on as it stands.
std::int32_t compareVersion(id self, SEL, id versionA, id versionB) {
  REALobjectStruct* target = targetOf(self);
  std::int32_t result = NSOrderedAscending;
  if (!target) return result;
  REALobjectStruct* locked = nullptr;
  REALstringStruct* first = nullptr;
  REALstringStruct* second = nullptr;
  auto ask = [&] {
    using Handler = std::int32_t (*)(REALobjectStruct*, REALstringStruct*, REALstringStruct*);
    auto handler = eventHandler<Handler>(target, events[0]);
    if (!handler) return;
    locked = target;
    REALLockObject(locked);
    first = CFString2RBString(asString(versionA));
    second = CFString2RBString(asString(versionB));
    result = handler(target, first, second);
  };
  logging(ask, first, second, locked);
  return result;
}

const CocoaMethod cocoaMethods[] = {
    COCOA_METHOD("copyWithZone:", retainInsteadOfCopy, "@12@0:4^{_NSZone=}8"),
    COCOA_METHOD("initWithTarget:", initWithTarget, "@12@0:4^{REALobjectStruct=}8"),
    COCOA_METHOD("clearTarget", clearTarget, "v8@0:4"),
    COCOA_METHOD("dealloc", dealloc, "v8@0:4"),
    COCOA_METHOD("compareVersion:toVersion:", compareVersion, "i16@0:4@8@12"),
};

void Constructor(REALobjectStruct* instance) {
  if (comparatorOf(instance)) return raiseAlreadyInitialized();
  raising([&] {
    adoptProtocol(MySUVersionComparison);
    id type = asObject(MySUVersionComparison.type);
    id comparator = send<id>(send<id>(type, "alloc"_sel), "initWithTarget:"_sel, instance);
    fill(SUVersionComparisonDefinition, instance, comparator);
  });
}

void Destructor(REALobjectStruct* instance) {
  raising([&] { send<void>(comparatorOf(instance), "clearTarget"_sel); });
}

void MySUVersionComparisonConstructor(REALobjectStruct*) {
  raising([] { CocoaInit(); });
}

void MySUVersionComparisonDestructor(REALobjectStruct* instance) {
  raising([&] {
    CocoaInit();
    empty(SUVersionComparisonDefinition, instance);
  });
}

REALproperty properties[] = {HANDLE_PROPERTY};

REALmethodDefinition methods[] = {
    MEMBER("Constructor", Constructor),
    MEMBER("Destructor", Destructor),
};

REALconstant constants[] = {
    CONSTANT("NSOrderedAscending = -1"),
    CONSTANT("NSOrderedSame = 0"),
    CONSTANT("NSOrderedDescending = 1"),
};

} // namespace

CocoaClass MySUVersionComparison = {
    .name = "MySUVersionComparison",
    .variables = variables,
    .variableCount = entries(variables),
    .methods = cocoaMethods,
    .methodCount = entries(cocoaMethods),
    .protocol = "SUVersionComparison",
};

REALclassDefinition SUVersionComparisonDefinition = {
    .version = kLayoutVersion,
    .name = "SUVersionComparisonKVZ",
    .dataSize = sizeof(id),
    .constructor = MySUVersionComparisonConstructor,
    .destructor = MySUVersionComparisonDestructor,
    .properties = properties,
    .propertyCount = entries(properties),
    .methods = methods,
    .methodCount = entries(methods),
    .events = events,
    .eventCount = entries(events),
    .constants = constants,
    .constantCount = entries(constants),
    .flags = kClassFlags,
};
