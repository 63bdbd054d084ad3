// An updater that is bound to a played one, with handlers of the scenario's, and its delegate.
#pragma once

#include "played.h"
#include "repetition.h"

namespace torture {

struct Stage {
  explicit Stage(host::Handlers handlers);
  void end(); // a step: the updater goes

  PlayedUpdater* played;
  host::Object updater;
  id<Delegate> delegate; // nil when a fault kept the updater from being bound
};

// What the framework gets when the handler of the feed parameters answers this array of
// dictionaries. When an exception ends that callback, the array and the element that was being
// converted are lost by design; this gives them back, after a look that nothing else is lost.
// LINES: exceptions logged although nothing fails. ANSWER is that handler's answer.
NSArray* feedParameters(const char* label, id<Delegate> delegate, host::Object& answer,
                        const host::Object& array, unsigned lines = 0);

// The handler that answers ANSWER.
host::Handlers::value_type feedHandler(host::Object& answer);

} // namespace torture
