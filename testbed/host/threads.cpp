// Which thread is which.
#include "internal.h"

#include <unistd.h>

namespace host {

bool onMainThread() { return getpid() == gettid(); }

Thread currentThread() {
  static std::atomic<unsigned> last{0};
  thread_local unsigned number = onMainThread() ? 0 : ++last;
  return {number};
}

std::string Thread::name() const { return main() ? "main" : "worker " + std::to_string(number); }

} // namespace host
