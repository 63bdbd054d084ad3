#include "cocoa/cocoa_class.h"

#include <stdio.h>

void makeCocoaClass(CocoaClass& definition) {
  if (definition.type) return;
  char name[80];
  snprintf(name, sizeof name, "%s", definition.name);
  for (unsigned number = 2; objc_getClass(name); ++number) {
    snprintf(name, sizeof name, "%s%u", definition.name, number);
  }
  constexpr std::uint8_t pointerAlignment = 2; // as a power of two
  Class type = objc_allocateClassPair(reinterpret_cast<Class>("NSObject"_class), name, 0);
  if (!type) return;
  for (std::size_t i = 0; i < definition.variableCount; ++i) {
    const CocoaVariable& variable = definition.variables[i];
    class_addIvar(type, variable.name, sizeof(void*), pointerAlignment, variable.encoding);
  }
  for (std::size_t i = 0; i < definition.methodCount; ++i) {
    const CocoaMethod& method = definition.methods[i];
    class_addMethod(type, sel_registerName(method.selector), method.function, method.encoding);
  }
  objc_registerClassPair(type);
  for (std::size_t i = 0; i < definition.variableCount; ++i) {
    CocoaVariable& variable = definition.variables[i];
    variable.offset = ivar_getOffset(class_getInstanceVariable(type, variable.name));
  }
  definition.type = type;
}

void adoptProtocol(CocoaClass& definition) {
  if (definition.adopted) return;
  definition.adopted = objc_getProtocol(definition.protocol);
  if (definition.adopted) class_addProtocol(definition.type, definition.adopted);
}

id retainInsteadOfCopy(id self, SEL, void*) { return send<id>(self, "retain"_sel); }
