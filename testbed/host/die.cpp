// Ends the process with a message and call stacks. Also captures the stacks.
#include "internal.h"

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <unistd.h>
#include <unwind.h>

namespace host {

namespace {

std::atomic<bool> stacks{true};

struct Walk {
  Stack* stack;
  int skip;
};

_Unwind_Reason_Code step(_Unwind_Context* context, void* argument) {
  auto* walk = static_cast<Walk*>(argument);
  if (walk->skip-- > 0) return _URC_NO_REASON;
  Stack& stack = *walk->stack;
  if (stack.count == int(std::size(stack.frames))) return _URC_END_OF_STACK;
  stack.frames[stack.count++] = reinterpret_cast<void*>(_Unwind_GetIP(context));
  return _URC_NO_REASON;
}

void walk(Stack& stack, int skip) {
  stack.count = 0;
  Walk argument{&stack, skip};
  _Unwind_Backtrace(step, &argument);
}

std::string frameName(void* frame) {
  char line[64];
  Dl_info info{};
  if (!dladdr(frame, &info) || !info.dli_fname) {
    snprintf(line, sizeof line, "%p (no symbol)", frame);
    return line;
  }
  std::string_view file = info.dli_fname;
  if (size_t slash = file.rfind('/'); slash != file.npos) file.remove_prefix(slash + 1);
  std::string name;
  uintptr_t base = reinterpret_cast<uintptr_t>(info.dli_fbase);
  if (info.dli_sname) {
    base = reinterpret_cast<uintptr_t>(info.dli_saddr);
    int status = 0;
    char* readable = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
    name = readable ? readable : info.dli_sname;
    free(readable);
  }
  snprintf(line, sizeof line, "+0x%lx", (unsigned long)(reinterpret_cast<uintptr_t>(frame) - base));
  return name + line + " in " + std::string(file);
}

[[noreturn]] void end(const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t written = write(STDERR_FILENO, text.data() + done, text.size() - done);
    if (written <= 0) break;
    done += size_t(written);
  }
  abort();
}

} // namespace

void setStacks(bool on) { stacks = on; }

void capture(Stack& stack) {
  if (stacks.load(std::memory_order_relaxed))
    walk(stack, 2);
  else
    stack.count = 0;
}

std::string print(const Stack& stack) {
  if (stack.count == 0) return "    (not recorded: call stacks are switched off)\n";
  std::string text;
  for (int i = 0; i < stack.count; ++i) text += "    " + frameName(stack.frames[i]) + "\n";
  return text;
}

void die(const std::string& message) {
  Stack now;
  walk(now, 1);
  end("host: " + message + "\n  here (" + currentThread().name() + "):\n" + print(now));
}

void die(const std::string& message, const char* earlier, const Stack& stack) {
  Stack now;
  walk(now, 1);
  end("host: " + message + "\n  " + earlier + ":\n" + print(stack) + "  touched here (" +
      currentThread().name() + "):\n" + print(now));
}

} // namespace host
