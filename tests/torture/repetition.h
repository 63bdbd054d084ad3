// One run of a scenario with one thing going wrong, and the checks that hold whatever went wrong.
//
// A scenario plays a host program and the framework in steps:
//
//   host::Object item = make("SUAppcastItemKVZ");             // the host program calls the plug-in
//   expect("title", member(item, "title as string"), "Version 3.0");
//   callback("found", [&] { [delegate updater:… didFindValidUpdate:…]; });  // the framework does
//   destroy(item);
//
// Every step is judged on its own: what was raised in the host, thrown out, logged. In a step of
// the host program an NSException gives exactly one NSExceptionKVZ and one log line; in a callback
// one log line; any other object comes out of the step; a failing or absent operation of the host
// raises nothing that the step does not name. When the scenario has ended, nothing may be pending,
// alive in the host, alive in Cocoa, or entered in the registry, that was not there before. The
// exceptions to all this stand in losses.cpp.
//
// A step on a nil instance does nothing and answers nothing. Everything belongs on the main thread,
// but the bodies given to onWorker().
#pragma once

#include "losses.h"

#include "testbed/host/host.h"

#import <Foundation/Foundation.h>

#include <functional>
#include <string>
#include <vector>

namespace torture {

// ---- What goes wrong (losses.h has the modes)

struct Fault {
  Mode mode = nothing;
  unsigned long n = 0;
  std::string hit; // the operation, function or message ("-NSURL absoluteString") that it falls on
};

// ---- Steps

// What a step may leave pending: the class of the one exception, and its message, or null.
struct Raises {
  const char* className = nullptr;
  const char* message = nullptr;
};

host::Object make(const char* className, Raises raises = {});
// The instance's one reference, as far as the scenario knows, goes.
void destroy(host::Object& instance);
host::Value member(const host::Object& instance, const char* declaration,
                   std::vector<host::Value> arguments = {}, Raises raises = {});
host::Value shared(const char* className, const char* declaration,
                   std::vector<host::Value> arguments = {}, Raises raises = {});
void assign(const host::Object& instance, const char* declaration, const host::Value& value,
            Raises raises = {});

// The framework calls the plug-in. May log at most LINES exceptions of its own.
void callback(const char* label, const std::function<void()>& body, unsigned lines = 0);
// The same for the few methods that have no exception frame: what is thrown comes out.
void bareCallback(const char* label, const std::function<void()>& body);
// A callback on a thread of its own, while the main thread turns its run loop.
void workerCallback(const char* label, const std::function<void()>& body, unsigned lines = 0);

// The host program and the framework call the plug-in, one after the other or at once.
void mixedStep(const char* label, const std::function<void()>& body, Raises raises = {});

// Whether the last step logged an exception or was left by one.
bool wasCutShort();

// ---- Answers

// As one line: text as it is, objects described, nil, true, 5.
std::string shown(const host::Value& value);
std::string shown(id object);

// Without a fault ACTUAL is EXPECTED. With one it may also be nothing (nil, false, 0), or one of
// OTHERWISE.
void expect(const std::string& label, const std::string& actual, const std::string& expected,
            const std::vector<std::string>& otherwise = {});
void expect(const std::string& label, const host::Value& actual, const std::string& expected,
            const std::vector<std::string>& otherwise = {});
inline void expect(const std::string& label, const char* actual, const std::string& expected,
                   const std::vector<std::string>& otherwise = {}) {
  expect(label, std::string(actual), expected, otherwise);
}
// The same for the elements of an array or answers in a row: with a fault some may be missing, or
// be nil.
void expectElements(const std::string& label, const std::vector<std::string>& actual,
                    const std::vector<std::string>& expected);
void fail(const std::string& problem);

bool faulty(); // whether something goes wrong in this run at all
const Fault& fault();

// ---- A whole run

struct Scenario;

struct Verdict {
  std::vector<std::string> failures;
  std::vector<unsigned> excused; // rows of losses.cpp that were needed
};

// GNUstep makes some things once and keeps them. Here, so that no run is charged for them. Before
// any run, in the process that the runs are forks of.
void warmUp(const Scenario& scenario);

// Arms the fault, runs, checks. With NOTES, what the fault could fall on, and which members and
// events took part, is written there, a line each (see torture.mm).
Verdict run(const Scenario& scenario, const Fault& fault, std::string* notes = nullptr);

} // namespace torture
