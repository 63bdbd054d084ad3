// The stack of marks of crossing.h, as the files of this folder share it. Not for other folders.
#pragma once

#include <csetjmp>
#include <cstdint>

#include <objc/objc.h>

namespace marks {

enum kind : uint32_t { frame = 0x4D524601, native = 0x4D524602, bundle = 0x4D524603 };

struct mark {
  mark* previous;
  uint32_t kind;
};

// One call into the plug-in. crossing_i386.cpp keeps it in its stack frame.
struct bundle_mark {
  mark link;
  id thrown;
  uint32_t padding;
  jmp_buf environment;
};

// Constant-initialised and in the initial TLS block: reading it is one instruction, which a message
// send pays twice.
extern constinit thread_local mark* top
    __attribute__((tls_model("initial-exec"), visibility("hidden")));

// A throw that is to go on in whatever called the native code of this library.
[[noreturn]] void throw_to_caller(id thrown);

[[noreturn]] __attribute__((format(printf, 1, 2))) void die(const char* format, ...);

// Runs BODY as native code called by the plug-in.
template <class Body> inline auto leave(Body&& body) -> decltype(body());

} // namespace marks

#ifdef __OBJC__
namespace marks {

struct take_off {
  mark* previous;
  ~take_off() { top = previous; }
};

// The answer is never copied: a struct is written where the caller wants it, whatever its size.
template <class Body> inline auto leave(Body&& body) -> decltype(body()) {
  mark here = {top, native};
  top = &here;
  id thrown;
  @try {
    take_off at_the_end = {here.previous};
    return body();
  } @catch (id object) {
    thrown = object;
  }
  throw_to_caller(thrown);
}

} // namespace marks
#endif
