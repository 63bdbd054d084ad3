#include "updater/cocoa_class.h"

Class makeCocoaClass(const char* name, CocoaVariable* variables, std::size_t variableCount,
                     const CocoaMethod* methods, std::size_t methodCount) {
  constexpr std::uint8_t pointerAlignment = 2; // as a power of two
  Class type = objc_allocateClassPair(reinterpret_cast<Class>("NSObject"_class), name, 0);
  if (!type) return nullptr;
  for (std::size_t i = 0; i < variableCount; ++i) {
    class_addIvar(type, variables[i].name, sizeof(void*), pointerAlignment, variables[i].encoding);
  }
  for (std::size_t i = 0; i < methodCount; ++i) {
    class_addMethod(type, sel_registerName(methods[i].selector), methods[i].function,
                    methods[i].encoding);
  }
  objc_registerClassPair(type);
  for (std::size_t i = 0; i < variableCount; ++i) {
    variables[i].offset = ivar_getOffset(class_getInstanceVariable(type, variables[i].name));
  }
  return type;
}

id retainInsteadOfCopy(id self, SEL, void*) { return send<id>(self, "retain"_sel); }
