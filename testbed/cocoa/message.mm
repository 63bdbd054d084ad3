// objc_msgSend and its kin, and class_addMethod.
//
// The plug-in calls these like the method itself, so they are declared here with the dozen argument
// words that are passed on whatever the method takes; what lies beyond the real arguments is the
// caller's own frame, read and handed on for nothing.

#import <Foundation/Foundation.h>
#import <objc/message.h>

#include "testbed/cocoa/crossing.h"
#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

using word = uint32_t;

#define WORDS                                                                                      \
  word a, word b, word c, word d, word e, word f, word g, word h, word i, word j, word k, word l
#define PASS_WORDS a, b, c, d, e, f, g, h, i, j, k, l
static_assert(CROSSING_WORDS == 12);

namespace {

template <class Answer> using method = Answer (*)(id, SEL, WORDS);

const char* without_qualifiers(const char* types) {
  while (*types && strchr("rnNoORV", *types)) ++types;
  return types;
}

bool is_struct(const char* types) { return *types == '{' || *types == '('; }

// Structs of 1, 2, 4 or 8 bytes come back in edx:eax on Mac OS X and through memory here.
bool answers_small_struct(const char* types) {
  if (!types) return false;
  types = without_qualifiers(types);
  if (!is_struct(types)) return false;
  int size = objc_sizeof_type(types);
  return size == 1 || size == 2 || size == 4 || size == 8;
}

// How a function answers is a matter of its machine code, so it is remembered by address: the last
// functions that were found to answer in registers, one word each, written without a lock.
constexpr size_t remembered = 1024;
std::atomic<IMP> register_methods[remembered];

std::atomic<IMP>& memory_of(IMP imp) {
  return register_methods[reinterpret_cast<uintptr_t>(imp) / 16 % remembered];
}

__attribute__((noinline)) bool find_out_small_struct(id receiver, Class start, SEL selector,
                                                     IMP imp) {
  if (Method found = class_getInstanceMethod(start, selector)) {
    if (answers_small_struct(method_getTypeEncoding(found))) return true;
    memory_of(imp).store(imp, std::memory_order_relaxed);
    return false;
  }
  // Forwarded: the receiver alone knows, and the address will serve another message later.
  return answers_small_struct([[receiver methodSignatureForSelector:selector] methodReturnType]);
}

inline bool small_struct(id receiver, Class start, SEL selector, IMP imp) {
  if (__builtin_expect(memory_of(imp).load(std::memory_order_relaxed) == imp, 1)) return false;
  return find_out_small_struct(receiver, start, selector, imp);
}

// IMP answers a struct of at most 8 bytes through memory; this answers it as edx:eax would hold it.
struct eight_bytes {
  uint64_t value;
};

// A nil receiver leaves the plug-in's struct zeroed. Its size is only known from the selector;
// among several the smallest is safe.
__attribute__((noinline)) void zero_struct(void* answer, SEL selector) {
  unsigned count = 0;
  SEL* typed = sel_copyTypedSelectorList(sel_getName(selector), &count);
  int smallest = 0;
  for (unsigned n = 0; n < count; ++n) {
    const char* types = sel_getTypeEncoding(typed[n]);
    if (!types || !is_struct(without_qualifiers(types))) continue;
    int size = objc_sizeof_type(without_qualifiers(types));
    if (!smallest || size < smallest) smallest = size;
  }
  free(typed);
  memset(answer, 0, static_cast<size_t>(smallest));
}

} // namespace

// Answered through a hidden pointer that the callee takes off the stack, like any struct that does
// not come back in registers. Its own size says nothing: it is never copied, the method writes
// where the plug-in asked.
struct memory {
  explicit memory(SEL selector) { zero_struct(this, selector); }
  word unused[4];
};

#pragma GCC visibility push(default)

memory cocoa_objc_msgSend_stret(id self, SEL selector, WORDS) asm("objc_msgSend_stret");
memory cocoa_objc_msgSend_stret(id self, SEL selector, WORDS) {
  if (!self) return memory(selector);
  return marks::leave([=] {
    observe::message(self, selector);
    IMP imp = objc_msg_lookup(self, selector);
    if (small_struct(self, object_getClass(self), selector, imp))
      marks::die("objc_msgSend_stret: what -[%s %s] answers comes back in registers on Mac OS X; "
                 "send it with objc_msgSend.",
                 object_getClassName(self), sel_getName(selector));
    return reinterpret_cast<method<memory>>(imp)(self, selector, PASS_WORDS);
  });
}

extern "C" {

uint64_t objc_msgSend(id self, SEL selector, WORDS) {
  if (!self) return 0;
  return marks::leave([=]() -> uint64_t {
    observe::message(self, selector);
    IMP imp = objc_msg_lookup(self, selector);
    if (__builtin_expect(small_struct(self, object_getClass(self), selector, imp), 0))
      return reinterpret_cast<method<eight_bytes>>(imp)(self, selector, PASS_WORDS).value;
    return reinterpret_cast<method<uint64_t>>(imp)(self, selector, PASS_WORDS);
  });
}

double objc_msgSend_fpret(id self, SEL selector, WORDS) {
  if (!self) return 0;
  return marks::leave([=] {
    observe::message(self, selector);
    return reinterpret_cast<method<double>>(objc_msg_lookup(self, selector))(self, selector,
                                                                             PASS_WORDS);
  });
}

uint64_t objc_msgSendSuper(objc_super* super, SEL selector, WORDS) {
  id self = super->self;
  if (!self) return 0;
  return marks::leave([=]() -> uint64_t {
    observe::message(self, selector);
    IMP imp = objc_msg_lookup_super(super, selector);
    if (__builtin_expect(small_struct(self, super->super_class, selector, imp), 0))
      return reinterpret_cast<method<eight_bytes>>(imp)(self, selector, PASS_WORDS).value;
    return reinterpret_cast<method<uint64_t>>(imp)(self, selector, PASS_WORDS);
  });
}

Class cocoa_object_getClass(id object) asm("object_getClass");
Class cocoa_object_getClass(id object) { return object ? object_getClass(object) : Nil; }

BOOL __wrap_class_addMethod(Class target, SEL selector, IMP method, const char* types) {
  if (is_struct(without_qualifiers(types)))
    marks::die("class_addMethod: -[%s %s] answers a struct (%s), which no thunk can hand over.",
               class_getName(target), sel_getName(selector), types);
  return class_addMethod(target, selector,
                         reinterpret_cast<IMP>(crossing_thunk(reinterpret_cast<void*>(method))),
                         types);
}

} // extern "C"

#pragma GCC visibility pop
