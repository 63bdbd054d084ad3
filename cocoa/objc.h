// The Objective-C runtime of 32-bit Mac OS X 10.6 and Foundation's one C function, as far as the
// plug-in calls them. Declared from the documented signatures; nothing here is defined by the
// plug-in. Every pointer is borrowed unless a function's name says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

struct objc_object;
struct objc_class;
struct objc_selector;
struct objc_ivar;

using id = objc_object*;
using Class = objc_class*;
using SEL = const objc_selector*;
using Ivar = objc_ivar*;
using Protocol = objc_object;
using BOOL = signed char;
using IMP = void (*)();

inline constexpr BOOL YES = 1;
inline constexpr BOOL NO = 0;

// A class is an object too: it answers messages.
inline id asObject(Class type) { return reinterpret_cast<id>(type); }

struct objc_super {
  id receiver;
  Class superClass;
};

// The frame of the Cocoa runtime's own exception handling, as clang lays it out for an @try on
// i386: the jump buffer (18 ints) and four words for the runtime. One lives on the stack of whoever
// catches.
struct ExceptionFrame {
  int buffer[18];
  void* runtimeWords[4];
};
static_assert(sizeof(ExceptionFrame) == (18 + 4) * 4);

extern "C" {
Class objc_getClass(const char* name);
Protocol* objc_getProtocol(const char* name);
Class objc_allocateClassPair(Class superclass, const char* name, std::size_t extraBytes);
void objc_registerClassPair(Class type);
BOOL class_addIvar(Class type, const char* name, std::size_t size, std::uint8_t alignment,
                   const char* encoding);
BOOL class_addMethod(Class type, SEL selector, IMP function, const char* encoding);
BOOL class_addProtocol(Class type, Protocol* protocol);
Ivar class_getInstanceVariable(Class type, const char* name);
std::ptrdiff_t ivar_getOffset(Ivar variable);
Class class_getSuperclass(Class type);
const char* class_getName(Class type);
Class object_getClass(id object);
SEL sel_registerName(const char* name);
BOOL sel_isEqual(SEL left, SEL right);

// Never called as declared: message.h gives each call the type of its method.
void objc_msgSend();
void objc_msgSend_fpret();
void objc_msgSend_stret();
void objc_msgSendSuper();

void objc_exception_try_enter(ExceptionFrame* frame);
void objc_exception_try_exit(ExceptionFrame* frame);
id objc_exception_extract(ExceptionFrame* frame);
int objc_exception_match(Class type, id exception);
[[noreturn]] void objc_exception_throw(id exception);

void NSLog(id format, ...);
}
