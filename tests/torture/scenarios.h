// The scenarios, and what stands before each begins.
#pragma once

#include "repetition.h"

namespace torture {

// What is there when a scenario begins. One process serves one setup on one host; the scenarios
// run in forks of it.
enum class Reporting {
  raises,  // a Cocoa exception becomes an NSExceptionKVZ
  logs,    // the companion makes none: it is logged
  escapes, // there is no companion, which the message that makes one fails on
};

struct Setup {
  const char* name;
  void (*prepare)();
  Reporting reporting;
  bool hasCompanion;
};

enum class Counting {
  cocoa,  // the objects of Cocoa that are alive
  nothing // not these: a real bundle is loaded, of which GNUstep and the framework keep objects
};

struct Scenario {
  const char* name;
  const Setup* setup;
  void (*run)();
  // Makes beforehand what Cocoa makes once and keeps, so that no run is charged for it.
  void (*warmUp)() = nullptr;
  Counting counting = Counting::cocoa;
};

// Where the plug-in is: the ELF library, or a bundle to be mapped. Set before any setup.
extern std::string pluginPath;
void loadPlugin();

// Companion, plug-in, and a framework of the classes of played.h.
extern const Setup standard;
// Companion and plug-in; no framework.
extern const Setup unloaded;
// The companion alone.
extern const Setup unregistered;
// Plug-in and framework, no companion.
extern const Setup alone;
// As standard, but the companion makes no exceptions.
extern const Setup refusing;
// As standard, but every wrapper class answers for itself alone, some with a wrong tag.
extern const Setup flat;
// As standard, but without wrapper classes, boxes and times.
extern const Setup bare;

const std::vector<Scenario>& scenarios();

// Of each file.
extern const std::vector<Scenario> frameworkScenarios, objectScenarios, updaterScenarios,
    delegateScenarios, toHostScenarios, toCocoaScenarios;

} // namespace torture
