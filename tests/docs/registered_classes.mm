// Prints what the plug-in registers, a line a declaration: class, table, "assignable" or "-",
// declaration; tabs between. SPARKLEKVZ_PLUGIN names the plug-in, as for the tests.

#include "session.h"

#import <Foundation/Foundation.h>

#include <cstdio>

namespace {

struct Table {
  host::Registered::Table table;
  const char* name;
};
constexpr Table tables[] = {
    {host::Registered::properties, "property"},
    {host::Registered::methods, "method"},
    {host::Registered::events, "event"},
    {host::Registered::constants, "constant"},
    {host::Registered::sharedProperties, "shared property"},
    {host::Registered::sharedMethods, "shared method"},
};

const char* text(uint32_t word) { return reinterpret_cast<const char*>(uintptr_t(word)); }

} // namespace

int main() {
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  session::start("2013.03", {.companion = false});
  for (const std::string& name : host::registrationOrder()) {
    const host::Registered& type = *host::registered(name);
    for (const Table& each : tables) {
      std::vector<std::string> declarations = type.declarations(each.table);
      host::Registered::Entries entries = type.table(each.table);
      for (uint32_t i = 0; i < entries.count; ++i) {
        bool isProperty = each.table == host::Registered::properties ||
                          each.table == host::Registered::sharedProperties;
        bool isMethod = each.table == host::Registered::methods ||
                        each.table == host::Registered::sharedMethods;
        std::string declaration = declarations[i];
        if (isProperty) declaration += std::string(" as ") + text(entries[i][2]);
        printf("%s\t%s\t%s\t%s\n", name.c_str(), each.name,
               isMethod && entries[i][1] ? "assignable" : "-", declaration.c_str());
      }
    }
  }
  [pool drain];
  return 0;
}
