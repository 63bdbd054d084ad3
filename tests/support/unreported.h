// For what is lost on purpose: the leak sanitizer, where there is one, reports nothing that this
// thread allocates while an Unreported lives. Say why beside it.
#pragma once

extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace session {

struct Unreported {
  Unreported() {
    if (__lsan_disable) __lsan_disable();
  }
  ~Unreported() {
    if (__lsan_enable) __lsan_enable();
  }
  Unreported(const Unreported&) = delete;
};

} // namespace session
