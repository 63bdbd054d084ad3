// The trace hook, and how values are printed.
#include "operations.h"

#include <cmath>
#include <cstdio>
#include <ostream>
#include <shared_mutex>

namespace host {

namespace {

std::atomic<bool> hooked{false};

struct Hook {
  std::shared_mutex mutex;
  std::shared_ptr<const std::function<void(const Step&)>> function;
};
Hook& hook() {
  static auto* instance = new Hook;
  return *instance;
}

} // namespace

bool tracing() { return hooked.load(std::memory_order_relaxed); }

void trace(std::function<void(const Step&)> function) {
  std::unique_lock lock(hook().mutex);
  hooked = bool(function);
  hook().function = std::make_shared<const std::function<void(const Step&)>>(std::move(function));
}

void emit(Step step) {
  std::shared_ptr<const std::function<void(const Step&)>> function;
  {
    std::shared_lock lock(hook().mutex);
    function = hook().function;
  }
  if (function && *function) (*function)(step);
}

std::string quoted(std::string_view text) {
  constexpr size_t longest = 200;
  std::string result = "\"";
  for (char c : text.substr(0, longest)) {
    if (c == '"' || c == '\\') result += '\\';
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(c));
      result += escape;
    } else {
      result += c;
    }
  }
  result += '"';
  if (text.size() > longest) result += "… (" + std::to_string(text.size()) + " bytes)";
  return result;
}

std::string printNumber(double value) {
  char text[40];
  snprintf(text, sizeof text, "%.17g", value);
  char shorter[40];
  for (int digits = 1; digits < 17; ++digits) {
    snprintf(shorter, sizeof shorter, "%.*g", digits, value);
    if (std::isnan(value) || strtod(shorter, nullptr) == value) return shorter;
  }
  return text;
}

std::string print(const Value& value) {
  return std::visit(
      [](const auto& held) -> std::string {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::monostate>)
          return "nil";
        else if constexpr (std::is_same_v<T, bool>)
          return held ? "true" : "false";
        else if constexpr (std::is_same_v<T, String>) {
          if (!held) return "nil";
          if (auto readable = text(held)) return quoted(*readable);
          return quoted(bytes(held)) + " in encoding " + std::to_string(encoding(held));
        } else if constexpr (std::is_same_v<T, Object>)
          return label(held.handle());
        else if constexpr (std::is_same_v<T, float>)
          return printNumber(held);
        else if constexpr (std::is_same_v<T, double>)
          return printNumber(held);
        else
          return std::to_string(held);
      },
      value.held());
}

std::ostream& operator<<(std::ostream& out, const Value& value) { return out << print(value); }

std::vector<std::string> printAll(const std::vector<Value>& values) {
  std::vector<std::string> result;
  for (const Value& value : values) result.push_back(print(value));
  return result;
}

} // namespace host
