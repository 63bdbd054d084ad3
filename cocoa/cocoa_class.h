// Cocoa classes of the plug-in's own, made at run time: the plug-in holds no Objective-C.
#pragma once

#include "cocoa/message.h"

// Every variable is one pointer. The offset is filled in when the class is made.
struct CocoaVariable {
  const char* name;
  const char* encoding;
  std::ptrdiff_t offset;
};

struct CocoaMethod {
  const char* selector;
  IMP function;
  const char* encoding;
};

// A row of a method table; a macro, since only a cast in the table itself is a constant.
#define COCOA_METHOD(selector, function, encoding)                                                 \
  { selector, reinterpret_cast<IMP>(function), encoding }

// A subclass of NSObject.
struct CocoaClass {
  const char* name;
  CocoaVariable* variables;
  std::size_t variableCount;
  const CocoaMethod* methods;
  std::size_t methodCount;
  const char* protocol; // null when there is none
  Class type;           // nil until it is made
  Protocol* adopted;    // nil until it is known
};

// Makes and registers a class, unless that is done. Where its name is taken in this process, by
// another copy of the plug-in perhaps, it gets the first free one with a number behind it: nobody
// asks for these classes by name. On one thread, before any other can want the class.
void makeCocoaClass(CocoaClass& definition);

// Lets a class that is made, and all its objects, conform to its protocol if that is known by now.
// The protocol may be of a framework that is loaded later: ask again then.
void adoptProtocol(CocoaClass& definition);

template <class Value> inline Value& variableOf(id object, const CocoaVariable& variable) {
  return *reinterpret_cast<Value*>(reinterpret_cast<char*>(object) + variable.offset);
}

// What NSObject does with a message that a class of ours overrides.
template <class Result, class... Arguments>
inline Result sendToNSObject(id object, SEL selector, Arguments... arguments) {
  objc_super target{object, reinterpret_cast<Class>("NSObject"_class)};
  return sendSuper<Result>(target, selector, arguments...);
}

// copyWithZone: of a class whose objects are shared, never copied.
id retainInsteadOfCopy(id self, SEL, void* zone);
