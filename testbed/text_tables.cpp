// Linked into a program, leads its text conversions to the system root's own tables, unless
// GCONV_PATH leads elsewhere. Without them those of GNUstep fall back, with a warning, when it is
// loaded: hence this runs before the constructors of all libraries, sanitizers included.

#include <iterator>
#include <unistd.h>

namespace {

__attribute__((no_sanitize("address", "undefined"))) void setTextTables(int, char** arguments,
                                                                        char** environment) {
  static char setting[] = "GCONV_PATH=" GCONV_FOLDER;
  static char* changed[4096] = {setting};
  for (unsigned i = 0; environment[i]; ++i) {
    unsigned same = 0;
    while (environment[i][same] == setting[same] && setting[same] != '=') ++same;
    if (setting[same] == environment[i][same] || i + 2 == std::size(changed)) return;
    changed[i + 1] = environment[i];
  }
  execve("/proc/self/exe", arguments, changed);
}
__attribute__((section(".preinit_array"),
               used)) void (*const beforeLibraries)(int, char**, char**) = setTextTables;

} // namespace
