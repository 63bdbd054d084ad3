// What is measured: each row is one operation of the plug-in with its floor beside it.
#pragma once

#include "testbed/host/host.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// One call, as the host (a member, by its registered address) or the framework (a callback of the
// delegate) makes it.
struct Call {
  enum class By { host, framework };
  By by = By::host;
  void* function = nullptr;
  std::vector<uint32_t> words; // of a callback: self, selector, two arguments
};

enum class Gives { nothing, string, object };

struct Prepared {
  Call plugin, floor;
  Gives gives = Gives::nothing;   // the caller's to unlock
  std::function<void()> before;   // each batch, unmeasured
  std::vector<host::Object> kept; // alive while it is measured
  host::String text;              // likewise
};

struct Operation {
  std::string section;
  std::string name;
  double target;  // the most that the plug-in's cost may be, in floors
  unsigned calls; // in one batch
  std::function<Prepared()> prepare;
  unsigned values = 1;     // that one call converts; for text, its UTF-16 units
  std::string growsFrom{}; // the row that converts a hundredth of them
  std::string reason{};    // why the target cannot be reached, where it cannot
};

// Starts the host with the companion and the plug-in. With no family there are no wrapper classes.
enum class Family { there, absent };
void startHost(Family family = Family::there);

// In the order in which they are to run: the last ones change the host.
const std::vector<Operation>& operations();

// How often one object that no wrapper class fits makes the plug-in look something up by name, once
// the plug-in has met its like. In a host without the family.
struct LookUps {
  unsigned classes; // of the host's, of Cocoa's, and operations of the host's
  unsigned methods; // of the object itself
  friend bool operator==(const LookUps&, const LookUps&) = default;
};
LookUps lookUpsToHost();
LookUps lookUpsToCocoa();

// What these must be where nothing that is missing is remembered, and everything that was found is:
// each superclass's wrapper and each class of a rule that is not loaded; each wrapper class, the
// class of boxes if it is not loaded, and the method of files.
LookUps impliedLookUpsToHost();
LookUps impliedLookUpsToCocoa();

// Until everything is found and cached.
void callOnce(const Prepared& prepared, const Call& call);

// How often the plug-in allocates memory during one call.
unsigned allocations(const Prepared& prepared);

// What the host and Cocoa are asked to do by one call, line by line: operations with their
// arguments, messages, and functions of Cocoa's that may fail.
std::vector<std::string> stepsOf(const Prepared& prepared, const Call& call);

// COUNT calls; what they answer goes to RESULTS.
void perform(const Call& call, unsigned count, uint64_t* results);

// Gives back what a call answered.
void drop(Gives gives, uint64_t result);

} // namespace bench
