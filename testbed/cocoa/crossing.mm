// The stack of marks, the plug-in's exception functions and the thunks. See crossing.h.

#import <Foundation/Foundation.h>
#import <objc/objc-exception.h>

#include "testbed/cocoa/crossing.h"
#include "testbed/cocoa/marks.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace marks {

constinit thread_local mark* top = nullptr;

void die(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("testbed/cocoa: ", stderr);
  vfprintf(stderr, format, arguments);
  fputc('\n', stderr);
  va_end(arguments);
  abort();
}

namespace {

// The plug-in's exception frame: a jump buffer, then four words that the runtime may use.
struct exception_frame {
  int buffer[18];
  id thrown;
  mark link;
  void* unused;
};
static_assert(sizeof(exception_frame) == 18 * sizeof(int) + 4 * sizeof(void*));
// What glibc's _setjmp writes: six registers and one flag. The rest of a jmp_buf it leaves alone.
static_assert(7 * sizeof(int) <= sizeof(exception_frame::buffer));

template <class Outer> Outer* holder_of(mark* link) {
  return reinterpret_cast<Outer*>(reinterpret_cast<char*>(link) - offsetof(Outer, link));
}

const char* name_of(uint32_t kind) {
  switch (kind) {
  case frame:
    return "an exception frame of the plug-in";
  case native:
    return "a call out of the plug-in";
  case bundle:
    return "a call into the plug-in";
  default:
    return "memory that is no mark any more";
  }
}

// Taken off in the order put on, or something left its frame without telling.
void pop(mark* expected, const char* function) {
  if (top != expected)
    die("%s: expected to find its own mark on top, found %s (%p, expected %p). A function of the "
        "plug-in returned without objc_exception_try_exit, or called it twice.",
        function, top ? name_of(top->kind) : "no mark at all", static_cast<void*>(top),
        static_cast<void*>(expected));
  top = expected->previous;
}

// Goes on in the plug-in, at the mark on top.
[[noreturn]] void jump_to_top(id thrown) {
  mark* target = top;
  top = target->previous;
  if (target->kind == frame) {
    auto* outer = holder_of<exception_frame>(target);
    outer->thrown = thrown;
    _longjmp(*reinterpret_cast<jmp_buf*>(outer->buffer), 1);
  }
  auto* outer = holder_of<bundle_mark>(target);
  outer->thrown = thrown;
  _longjmp(outer->environment, 1);
}

} // namespace

void throw_to_caller(id thrown) {
  if (top && top->kind != native) jump_to_top(thrown);
  @throw thrown;
}

} // namespace marks

using marks::bundle_mark;
using marks::die;
using marks::exception_frame;
using marks::mark;
using marks::top;

extern "C" {

// For crossing_i386.cpp.

__attribute__((visibility("hidden"))) void* crossing_thunk_targets[1024];
extern const char crossing_thunk_slots[] __attribute__((visibility("hidden")));

__attribute__((visibility("hidden"))) void crossing_bundle_push(bundle_mark* entered) {
  entered->link = {top, marks::bundle};
  top = &entered->link;
}

__attribute__((visibility("hidden"))) void crossing_bundle_pop(bundle_mark* entered) {
  marks::pop(&entered->link, "crossing_enter");
}

__attribute__((visibility("hidden"))) void crossing_bundle_rethrow(bundle_mark* entered) {
  @throw entered->thrown;
}

#pragma GCC visibility push(default)

void crossing_leave(void (*body)(void*), void* context) {
  marks::leave([&] { body(context); });
}

void* crossing_thunk(void* function) {
  constexpr unsigned room = sizeof crossing_thunk_targets / sizeof *crossing_thunk_targets;
  constexpr unsigned slot_bytes = 16;
  static std::mutex lock;
  static unsigned used = 0;
  std::lock_guard guard(lock);
  unsigned slot = 0;
  while (slot < used && crossing_thunk_targets[slot] != function) ++slot;
  if (slot == room) die("crossing_thunk: all %u thunks are in use", room);
  if (slot == used) crossing_thunk_targets[used++] = function;
  return const_cast<char*>(crossing_thunk_slots) + slot * slot_bytes;
}

// Apple's exception functions.

void objc_exception_try_enter(exception_frame* entered) {
  entered->thrown = nil;
  entered->link = {top, marks::frame};
  top = &entered->link;
}

void objc_exception_try_exit(exception_frame* left) {
  marks::pop(&left->link, "objc_exception_try_exit");
}

id objc_exception_extract(exception_frame* caught) { return caught->thrown; }

int objc_exception_match(Class wanted, id thrown) {
  for (Class each = thrown ? object_getClass(thrown) : Nil; each; each = class_getSuperclass(each))
    if (each == wanted) return 1;
  return 0;
}

[[noreturn]] void __wrap_objc_exception_throw(id thrown) {
  if (!top)
    die("objc_exception_throw: an object of class %s was thrown by code that crossing_enter did "
        "not call and that has no exception frame open; there is nowhere to go.",
        object_getClassName(thrown));
  marks::throw_to_caller(thrown);
}

#pragma GCC visibility pop

} // extern "C"
