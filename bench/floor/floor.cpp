#include "bench/floor/kit.h"

namespace floors {

Host host;
Selectors sel;
Classes cls;
id rules[kRuleClasses];
CFMutableDictionaryRef registry;
const FloorFacts* facts;
const char* const* wrapperNames;
unsigned classTests;

static void* in(const Function* table, const char* name) {
  for (; table->name; ++table) {
    if (strcmp(table->name, name) == 0) return table->address;
  }
  return nullptr;
}

} // namespace floors

using namespace floors;

extern "C" {
#pragma GCC visibility push(default)

void floorStart(const FloorFacts* given) {
  facts = given;
#define RESOLVE(field, name, result, arguments)                                                    \
  host.field = reinterpret_cast<decltype(host.field)>(facts->resolver(name));
  FLOOR_OPERATIONS(RESOLVE)
#undef RESOLVE
  host.varType = reinterpret_cast<decltype(host.varType)>(
      host.loadGlobalMethod("VarType(value As Variant) As Int32", nullptr));
#define RESOLVE(field, text) sel.field = sel_registerName(text);
  FLOOR_SELECTORS(RESOLVE)
#undef RESOLVE
#define RESOLVE(name) cls.name = asObject(objc_getClass(#name));
  FLOOR_CLASSES(RESOLVE)
#undef RESOLVE
  for (int i = 0; i < kRuleClasses; ++i) rules[i] = asObject(objc_getClass(ruleClasses[i]));
  registry = send<CFMutableDictionaryRef>(cls.NSException, sel.getRegistry);
}

void* floorFunction(const char* name) {
  if (void* address = in(memberFunctions, name)) return address;
  if (void* address = in(toHostFunctions, name)) return address;
  return in(toCocoaFunctions, name);
}

void floorExpect(const char* const* names, unsigned tests) {
  wrapperNames = names;
  classTests = tests;
}

#pragma GCC visibility pop
}
