// The program that was recorded: an updater with all eleven events, a comparison, and the releases
// on its server. One in a process.
#pragma once

#include "published.h"

#include <atomic>
#include <set>

namespace traces {

struct Program {
  published::Release release;
  std::string version; // of the framework
  host::Object updater;

  // What its handlers answer.
  host::Object comparison;
  bool postpones = true, relaunches = true;

  // What it was told, and what the framework did. Worker threads write, too.
  host::Object found;
  std::atomic<bool> postponed = false, terminated = false, waits = false;
  std::atomic<int> loaded = 0, ended = 0, scheduled = 0, process = 0;
  std::string tool; // what the relauncher was called with

  Program(const std::string& version, const std::string& file);

  // Publishes 3.0 with this signature.
  void sign(const std::string& signature);

  // Declares its classes: MyUpdater, PlainUpdater without any event, Comparison.
  void declare();
  host::Object make(const char* className = "MyUpdater") const;
  bool inProgress() const;

  // Until CONDITION holds; then, until nothing more is due in the run loop.
  bool wait(const std::function<bool()>& condition);
  // Until `checks` have come to their ends since the start, or one to what nobody continues.
  void settle(int checks = 1);

  // Writing down what it finds.
  void tellProperties() const;
  void tellExceptions() const;
  void tellRequests() const;
  void tellInstalled();
  void end(); // lets go of everything, and tells what is still alive
};

std::string textOf(const host::Object& object, const char* member); // quoted, or nil

} // namespace traces
