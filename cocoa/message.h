// Sending Cocoa messages from C++.
//
//   send<id>(updater, "feedURL"_sel)
//   send<void>(updater, "setUpdateCheckInterval:"_sel, 3600.0)
//
// send picks the runtime's entry from the result type. The argument types are those of the call,
// so they must be the method's own (a float where the method takes a float). A message to nil
// answers zero. Any thread. A message may throw, which is a longjmp to the innermost attempt()
// (exceptions.h): keep nothing with a destructor alive across it.
#pragma once

#include "cocoa/objc.h"

#include <type_traits>

// A string literal as a template argument.
template <std::size_t Size> struct Literal {
  char text[Size];
  consteval Literal(const char (&source)[Size]) {
    for (std::size_t i = 0; i < Size; ++i) text[i] = source[i];
  }
};

// What a name stands for is asked of its owner once and kept. Threads that race on an empty slot
// store the same value. A null answer is never stored, so it takes nothing from another thread, and
// is asked for again.
template <class Value, class Find> inline Value found(Value& slot, Find find) {
  Value value;
  __atomic_load(&slot, &value, __ATOMIC_RELAXED);
  if (!value) [[unlikely]] {
    value = find();
    if (value) __atomic_store(&slot, &value, __ATOMIC_RELAXED);
  }
  return value;
}

template <Literal Name> inline SEL operator""_sel() {
  static SEL selector;
  return found(selector, [] { return sel_registerName(Name.text); });
}

// The Cocoa class of this name, or nil while no such class is loaded.
template <Literal Name> inline id operator""_class() {
  static Class type;
  return asObject(found(type, [] { return objc_getClass(Name.text); }));
}

template <class Result, class Receiver, class... Arguments>
inline Result send(Receiver receiver, SEL selector, Arguments... arguments) {
  if constexpr (std::is_class_v<Result>) {
    if constexpr (sizeof(Result) > 8) {
      using Method = Result (*)(Receiver, SEL, Arguments...);
      return reinterpret_cast<Method>(objc_msgSend_stret)(receiver, selector, arguments...);
    } else {
      // Structs of 8 bytes come back in edx:eax, as a 64-bit integer does.
      static_assert(sizeof(Result) == 8);
      return __builtin_bit_cast(Result, send<std::uint64_t>(receiver, selector, arguments...));
    }
  } else {
    using Method = Result (*)(Receiver, SEL, Arguments...);
    auto entry = std::is_floating_point_v<Result> ? objc_msgSend_fpret : objc_msgSend;
    return reinterpret_cast<Method>(entry)(receiver, selector, arguments...);
  }
}

template <class Result, class... Arguments>
inline Result sendSuper(objc_super& target, SEL selector, Arguments... arguments) {
  static_assert(!std::is_floating_point_v<Result> && !std::is_class_v<Result>);
  using Method = Result (*)(objc_super*, SEL, Arguments...);
  return reinterpret_cast<Method>(objc_msgSendSuper)(&target, selector, arguments...);
}

inline bool responds(id object, SEL selector) {
  return send<BOOL>(object, "respondsToSelector:"_sel, selector) != NO;
}

inline bool isKindOf(id object, id type) {
  return send<BOOL>(object, "isKindOfClass:"_sel, type) != NO;
}
