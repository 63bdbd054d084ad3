#include "updater/delegate.h"

#include "appcast/appcast.h"
#include "convert/dictionaries.h"
#include "convert/strings.h"
#include "plugin/failure.h"
#include "updater/comparison.h"

// Host programs bind to these texts, including the two parameter names that do not fit.
REALevent updaterEvents[kUpdaterEventCount] = {
    EVENT("pathToRelaunchForUpdater as string"),
    EVENT("versionComparatorForUpdater as SUVersionComparisonKVZ"),
    EVENT("updaterWillRelaunchApplication"),
    EVENT("updaterDidNotFindUpdate"),
    EVENT("updaterShouldPromptForPermissionToCheckForUpdates as boolean"),
    EVENT("didFindValidUpdate(update as SUAppcastItemKVZ)"),
    EVENT("willInstallUpdate(update as SUAppcastItemKVZ)"),
    EVENT("didFinishLoadingAppcast(update as SUAppcastKVZ)"),
    EVENT("bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ"),
    EVENT("feedParametersForUpdater(sendingProfile as boolean) as dictionary()"),
    EVENT("shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean"),
};

namespace {

CocoaVariable variables[] = {
    {"target", "^{REALobjectStruct=}", 0},
    {"invocation", "@", 0},
};

REALobjectStruct*& targetOf(id self) { return variableOf<REALobjectStruct*>(self, variables[0]); }

template <class Handler> Handler handlerOf(id self, UpdaterEvent event) {
  return eventHandler<Handler>(targetOf(self), updaterEvents[event]);
}

// Keeps an object alive for the framework while the host instance that holds it may go.
id forCaller(id object) { return send<id>(send<id>(object, "retain"_sel), "autorelease"_sel); }

// --- Reporting callbacks: what the framework calls, and its half on the main thread. ---

void onMainThread(id self, SEL half, id object) {
  logging([&] {
    send<void>(self, "performSelectorOnMainThread:withObject:waitUntilDone:"_sel, half, object,
               YES);
  });
}

template <Literal Half> void report(id self, SEL, id updater) {
  onMainThread(self, operator""_sel<Half>(), updater);
}

// The updater is not passed on: the handler knows it as its instance.
template <Literal Half> void reportObject(id self, SEL, id, id object) {
  onMainThread(self, operator""_sel<Half>(), object);
}

template <UpdaterEvent Event> void deliver(id self, SEL, id) {
  logging([&] {
    using Handler = void (*)(REALobjectStruct*);
    if (auto handler = handlerOf<Handler>(self, Event)) handler(targetOf(self));
  });
}

void deliverWrapped(id self, UpdaterEvent event, REALobjectStruct* (*wrapper)(id), id object) {
  REALobjectStruct* argument = nullptr;
  auto raise = [&] {
    using Handler = void (*)(REALobjectStruct*, REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, event);
    if (!handler) return;
    argument = wrapper(object);
    handler(targetOf(self), argument);
  };
  logging(raise, argument);
}

template <UpdaterEvent Event> void deliverItem(id self, SEL, id item) {
  deliverWrapped(self, Event, SUAppcastItemRB, item);
}

template <UpdaterEvent Event> void deliverAppcast(id self, SEL, id appcast) {
  deliverWrapped(self, Event, SUAppcastRB, appcast);
}

// --- Answering callbacks, on the thread of the framework. ---

BOOL shouldPromptForPermission(id self, SEL, id) {
  BOOL result = NO;
  logging([&] {
    using Handler = RBBoolean (*)(REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, kShouldPrompt);
    if (handler) result = static_cast<BOOL>(handler(targetOf(self)));
  });
  return result;
}

id pathToRelaunch(id self, SEL, id) {
  id result = nullptr;
  REALstringStruct* path = nullptr;
  auto ask = [&] {
    using Handler = REALstringStruct* (*)(REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, kPathToRelaunch);
    if (!handler) return;
    path = handler(targetOf(self));
    result = forCaller(autoreleasedString(path));
  };
  logging(ask, path);
  return result;
}

id versionComparator(id self, SEL, id) {
  id result = nullptr;
  REALobjectStruct* comparison = nullptr;
  auto ask = [&] {
    using Handler = REALobjectStruct* (*)(REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, kVersionComparator);
    if (!handler) return;
    comparison = handler(targetOf(self));
    if (comparison) result = forCaller(comparatorOf(comparison));
  };
  logging(ask, comparison);
  return result;
}

id bestValidUpdate(id self, SEL, id appcast, id) {
  id result = nullptr;
  REALobjectStruct* argument = nullptr;
  REALobjectStruct* answer = nullptr;
  auto ask = [&] {
    using Handler = REALobjectStruct* (*)(REALobjectStruct*, REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, kBestValidUpdate);
    if (!handler) return;
    argument = SUAppcastRB(appcast);
    answer = handler(targetOf(self), argument);
    if (answer) result = forCaller(appcastItemOf(answer));
  };
  logging(ask, answer, argument);
  return result;
}

// Whatever was converted before an exception is still answered. The element and the array held at
// that moment are not given back, on purpose: the handler may have answered an array with nil in
// it, or with objects that are no dictionaries, and such an answer is left alone.
id feedParameters(id self, SEL, id, BOOL sendingProfile) {
  id result = nullptr;
  logging([&] {
    using Handler = REALarrayStruct* (*)(REALobjectStruct*, RBBoolean);
    auto handler = handlerOf<Handler>(self, kFeedParameters);
    if (!handler) return;
    REALarrayStruct* array = handler(targetOf(self), static_cast<RBBoolean>(sendingProfile));
    if (!array) return;
    int last = REALGetArrayUBound(array);
    result = send<id>("NSMutableArray"_class, "arrayWithCapacity:"_sel, last + 1);
    for (int i = 0; i <= last; ++i) {
      REALobjectStruct* element = REALGetArrayValueObject(array, i);
      send<void>(result, "addObject:"_sel,
                 NewNSDictionary(reinterpret_cast<_REALdictionary*>(element)));
      unlock(element);
    }
    unlock(array);
  });
  return result;
}

// The invocation is kept even when there is no handler or its answer is no.
void keepInvocation(id self, id invocation) {
  id earlier = postponedInvocation(self);
  postponedInvocation(self) = nullptr;
  send<void>(earlier, "release"_sel);
  postponedInvocation(self) = send<id>(invocation, "retain"_sel);
}

BOOL shouldPostponeRelaunch(id self, SEL, id, id item, id invocation) {
  BOOL result = NO;
  REALobjectStruct* argument = nullptr;
  auto ask = [&] {
    keepInvocation(self, invocation);
    using Handler = RBBoolean (*)(REALobjectStruct*, REALobjectStruct*);
    auto handler = handlerOf<Handler>(self, kShouldPostponeRelaunch);
    if (!handler) return;
    argument = SUAppcastItemRB(item);
    result = static_cast<BOOL>(handler(targetOf(self), argument));
  };
  logging(ask, argument);
  return result;
}

// --- The object itself. ---

id initWithTarget(id self, SEL, REALobjectStruct* target) {
  self = sendToNSObject<id>(self, "init"_sel);
  if (self) targetOf(self) = target;
  return self;
}

void dealloc(id self, SEL) {
  send<void>(postponedInvocation(self), "release"_sel);
  postponedInvocation(self) = nullptr;
  targetOf(self) = nullptr;
  sendToNSObject<void>(self, "dealloc"_sel);
}

// Callbacks that are claimed only while the host program implements their event, so that the
// framework does as it would without us. The other two are always claimed: an invocation is kept
// whether or not there is a handler, and no parameters are what the framework does without.
struct Claim {
  SEL (*selector)();
  UpdaterEvent event;
};

constexpr Claim claims[] = {
    {operator""_sel<"pathToRelaunchForUpdater:">, kPathToRelaunch},
    {operator""_sel<"versionComparatorForUpdater:">, kVersionComparator},
    {operator""_sel<"updaterWillRelaunchApplication:">, kWillRelaunch},
    {operator""_sel<"updaterDidNotFindUpdate:">, kDidNotFindUpdate},
    {operator""_sel<"updaterShouldPromptForPermissionToCheckForUpdates:">, kShouldPrompt},
    {operator""_sel<"updater:didFindValidUpdate:">, kDidFindValidUpdate},
    {operator""_sel<"updater:willInstallUpdate:">, kWillInstallUpdate},
    {operator""_sel<"updater:didFinishLoadingAppcast:">, kDidFinishLoadingAppcast},
    {operator""_sel<"bestValidUpdateInAppcast:forUpdater:">, kBestValidUpdate},
};

BOOL respondsToSelector(id self, SEL, SEL selector) {
  if (targetOf(self)) {
    for (const Claim& claim : claims) {
      if (!sel_isEqual(selector, claim.selector())) continue;
      if (!handlerOf<void*>(self, claim.event)) return NO;
      break;
    }
  }
  return sendToNSObject<BOOL>(self, "respondsToSelector:"_sel, selector);
}

// "mail" for "main" is part of these selectors, by which the class is known; so it stays.
#define APPCAST_HALF "updater_didFinishLoadingAppcast_on_mail_thread:"
#define INSTALL_HALF "updater_willInstallUpdate_on_mail_thread:"
#define FOUND_HALF "updater_didFindValidUpdate_on_mail_thread:"
#define NOT_FOUND_HALF "updaterDidNotFindUpdate_on_mail_thread:"
#define RELAUNCH_HALF "updaterWillRelaunchApplication_on_mail_thread:"

// clang-format off
const CocoaMethod methods[] = {
    COCOA_METHOD("feedParametersForUpdater:sendingSystemProfile:", feedParameters, "@16@0:4@8c12"),
    COCOA_METHOD("updater:shouldPostponeRelaunchForUpdate:untilInvoking:", shouldPostponeRelaunch, "c20@0:4@8@12@16"),
    COCOA_METHOD("copyWithZone:", retainInsteadOfCopy, "@12@0:4^{_NSZone=}8"),
    COCOA_METHOD("initWithTarget:", initWithTarget, "@12@0:4^{REALobjectStruct=}8"),
    COCOA_METHOD("bestValidUpdateInAppcast:forUpdater:", bestValidUpdate, "@16@0:4@8@12"),
    COCOA_METHOD(APPCAST_HALF, deliverAppcast<kDidFinishLoadingAppcast>, "v12@0:4@8"),
    COCOA_METHOD("updater:didFinishLoadingAppcast:", reportObject<APPCAST_HALF>, "v16@0:4@8@12"),
    COCOA_METHOD(INSTALL_HALF, deliverItem<kWillInstallUpdate>, "v12@0:4@8"),
    COCOA_METHOD("updater:willInstallUpdate:", reportObject<INSTALL_HALF>, "v16@0:4@8@12"),
    COCOA_METHOD(FOUND_HALF, deliverItem<kDidFindValidUpdate>, "v12@0:4@8"),
    COCOA_METHOD("updater:didFindValidUpdate:", reportObject<FOUND_HALF>, "v16@0:4@8@12"),
    COCOA_METHOD("updaterShouldPromptForPermissionToCheckForUpdates:", shouldPromptForPermission, "c12@0:4@8"),
    COCOA_METHOD(NOT_FOUND_HALF, deliver<kDidNotFindUpdate>, "v12@0:4@8"),
    COCOA_METHOD("updaterDidNotFindUpdate:", report<NOT_FOUND_HALF>, "v12@0:4@8"),
    COCOA_METHOD(RELAUNCH_HALF, deliver<kWillRelaunch>, "v12@0:4@8"),
    COCOA_METHOD("updaterWillRelaunchApplication:", report<RELAUNCH_HALF>, "v12@0:4@8"),
    COCOA_METHOD("versionComparatorForUpdater:", versionComparator, "@12@0:4@8"),
    COCOA_METHOD("pathToRelaunchForUpdater:", pathToRelaunch, "@12@0:4@8"),
    COCOA_METHOD("dealloc", dealloc, "v8@0:4"),
    COCOA_METHOD("respondsToSelector:", respondsToSelector, "c12@0:4:8"),
};
// clang-format on

} // namespace

id& postponedInvocation(id delegate) { return variableOf<id>(delegate, variables[1]); }

id newDelegate(REALobjectStruct* target) {
  id type = asObject(MySUUpdaterDelegateInformalProtocol.type);
  return send<id>(send<id>(type, "alloc"_sel), "initWithTarget:"_sel, target);
}

CocoaClass MySUUpdaterDelegateInformalProtocol = {
    .name = "MySUUpdaterDelegateInformalProtocol",
    .variables = variables,
    .variableCount = entries(variables),
    .methods = methods,
    .methodCount = entries(methods),
};
