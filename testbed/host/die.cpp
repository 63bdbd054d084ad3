// Ends the process with a message and call stacks. Also captures the stacks.
#include "internal.h"

#include <cstdlib>
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
  for (int i = 0; i < stack.count; ++i)
    if (stack.frames[i]) text += "    " + codeName(stack.frames[i]) + "\n";
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
