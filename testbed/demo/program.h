// The program that updates itself: what an application in the host's language does with the
// plug-in. Main thread.
#pragma once

#include "testbed/host/host.h"

#include <string>

namespace program {

struct Choices {
  bool lookOnly = false;     // checkForUpdateInformation instead of a check
  bool lowerIsNewer = false; // its own comparator says so
  std::string relaunchPath;  // what to start once the update is installed
};

// Declares the program's two classes: DemoUpdater, below SUUpdaterKVZ, which implements all eleven
// events, and DemoComparison, below SUVersionComparisonKVZ.
void declareClasses(const Choices& choices);

// Loads the framework and makes a DemoUpdater for the application's bundle. Nil, with the reason
// printed, when either does not work.
host::Object makeUpdater(const std::string& framework, const std::string& bundle);

// Sets the feed and starts the check.
void check(const host::Object& updater, const std::string& feed);

// Lets go of what the program holds beside its updater.
void letGo();

// Whether the update is installed and its relaunch waits for the program.
bool relaunchIsPostponed();

// The version that the program was told of as the update to install; empty when there was none.
std::string offeredVersion();

} // namespace program
