// The delegate of the framework's updater: MySUUpdaterDelegateInformalProtocol, a Cocoa class that
// turns the framework's callbacks into events of one SUUpdaterKVZ instance.
//
// The instance owns its delegate, and the delegate holds no reference on the instance. Callbacks
// come on any thread. Those that report are carried to the main thread while the caller waits;
// those that answer run where they are called. Nothing is ever raised in the host from here.
#pragma once

#include "plugin/registration.h"

#include <cstdint>

// In the order in which the class definition lists them.
enum UpdaterEvent : std::uint8_t {
  kPathToRelaunch,
  kVersionComparator,
  kWillRelaunch,
  kDidNotFindUpdate,
  kShouldPrompt,
  kDidFindValidUpdate,
  kWillInstallUpdate,
  kDidFinishLoadingAppcast,
  kBestValidUpdate,
  kFeedParameters,
  kShouldPostponeRelaunch,
  kUpdaterEventCount,
};

extern REALevent updaterEvents[kUpdaterEventCount];

// A new delegate for the instance, owned by the caller. Sends messages.
id newDelegate(REALobjectStruct* target);

// The invocation that completes a postponed relaunch, of which the delegate owns one reference;
// nil when no relaunch is postponed. Written on the framework's thread, without a lock.
id& postponedInvocation(id delegate);
