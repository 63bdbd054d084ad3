// Runs for long, to see what only time shows: memory that grows, a wait that is lost.
//
//   soak --cycles=100000    update checks, one after another
//   soak --stress=60        eight threads that call the delegate at once, for so many seconds

#include "program.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

[[noreturn]] void refuse(const char* argument, const char* why = "is not understood") {
  fprintf(stderr,
          "soak: %s %s\n"
          "soak [--cycles=NUMBER | --stress=SECONDS] [--host=2013.03] [--plugin=elf|macho]\n",
          argument, why);
  exit(64);
}

unsigned long number(const char* argument, const char* text) {
  char* end;
  unsigned long value = strtoul(text, &end, 10);
  if (!*text || *end || !value) refuse(argument, "wants a number above 0");
  return value;
}

} // namespace

int main(int count, char** arguments) {
  soak::Options options;
  for (int i = 1; i < count; ++i) {
    const char* argument = arguments[i];
    const char* equals = strchr(argument, '=');
    if (!equals) refuse(argument);
    std::string name(argument, equals);
    if (name == "--cycles")
      options.cycles = number(argument, equals + 1);
    else if (name == "--stress")
      options.stress = number(argument, equals + 1);
    else if (name == "--host")
      options.host = equals + 1;
    else if (name == "--plugin" && (!strcmp(equals, "=elf") || !strcmp(equals, "=macho")))
      options.plugin = equals + 1;
    else
      refuse(argument);
  }
  try {
    return options.stress ? soak::runStress(options) : soak::runCycles(options);
  } catch (const host::Error& error) {
    fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
