// Values of C++ and of the host, as words on the stack and back.
#include "internal.h"

#include <cmath>
#include <cstring>

namespace host {

bool Value::isNil() const {
  if (auto* string = std::get_if<String>(&held_)) return !*string;
  if (auto* object = std::get_if<Object>(&held_)) return !*object;
  return std::holds_alternative<std::monostate>(held_);
}

namespace {

[[noreturn]] void mismatch(const Value& value, const char* wanted) {
  throw Error(print(value) + " is no " + wanted);
}

// Any number or boolean as T, if T can hold it exactly.
template <typename T> T number(const Value& value, const char* wanted) {
  return std::visit(
      [&](const auto& held) -> T {
        using H = std::decay_t<decltype(held)>;
        if constexpr (std::is_arithmetic_v<H>) {
          if constexpr (std::is_floating_point_v<H>) {
            if constexpr (std::is_floating_point_v<T>) {
              if (std::isnan(held) || std::isinf(held)) return T(held);
              if (sizeof(T) < sizeof(H) && H(T(held)) != held) mismatch(value, wanted);
              return T(held);
            } else {
              if (!(held >= -0x1p63 && held < 0x1p63) || H(int64_t(held)) != held)
                mismatch(value, wanted);
              int64_t whole = int64_t(held);
              if (!std::in_range<T>(whole)) mismatch(value, wanted);
              return T(whole);
            }
          } else if constexpr (std::is_floating_point_v<T>) {
            return T(held);
          } else if constexpr (std::is_same_v<H, bool>) {
            return T(held);
          } else {
            // Words have no sign: 32 bits may be read either way.
            if (sizeof(T) != sizeof(H) && !std::in_range<T>(held)) mismatch(value, wanted);
            return T(held);
          }
        } else {
          mismatch(value, wanted);
        }
      },
      value.held());
}

uint32_t handleWord(void* handle) { return uint32_t(reinterpret_cast<uintptr_t>(handle)); }

} // namespace

template <> bool Value::as<bool>() const {
  if (auto* held = std::get_if<bool>(&held_)) return *held;
  mismatch(*this, "boolean");
}
template <> int32_t Value::as<int32_t>() const { return number<int32_t>(*this, "Int32"); }
template <> uint32_t Value::as<uint32_t>() const { return number<uint32_t>(*this, "UInt32"); }
template <> int64_t Value::as<int64_t>() const { return number<int64_t>(*this, "Int64"); }
template <> uint64_t Value::as<uint64_t>() const { return number<uint64_t>(*this, "UInt64"); }
template <> float Value::as<float>() const { return number<float>(*this, "Single"); }
template <> double Value::as<double>() const { return number<double>(*this, "Double"); }
template <> Value Value::as<Value>() const { return *this; }

template <> String Value::as<String>() const {
  if (auto* held = std::get_if<String>(&held_)) return *held;
  if (isNil()) return {};
  mismatch(*this, "string");
}
template <> Object Value::as<Object>() const {
  if (auto* held = std::get_if<Object>(&held_)) return *held;
  if (isNil()) return {};
  mismatch(*this, "object");
}
template <> std::optional<std::string> Value::as<std::optional<std::string>>() const {
  String held = as<String>();
  if (!held) return {};
  auto readable = text(held);
  if (!readable) mismatch(*this, "text in its encoding");
  return readable;
}
template <> std::string Value::as<std::string>() const {
  return as<std::optional<std::string>>().value_or("");
}

unsigned wordsOf(Type type) {
  switch (type) {
  case Type::none:
    return 0;
  case Type::int64:
  case Type::uint64:
  case Type::real:
    return 2;
  default:
    return 1;
  }
}

void toWords(const Value& value, const Parameter& parameter, std::vector<uint32_t>& words,
             std::vector<Object>& temporaries) {
  auto push = [&](auto scalar) {
    uint32_t pair[2] = {};
    memcpy(pair, &scalar, sizeof scalar);
    words.insert(words.end(), pair, pair + (sizeof scalar + 3) / 4);
  };
  switch (parameter.type) {
  case Type::none:
    break;
  case Type::boolean:
    push(booleanWord(value.as<bool>()));
    break;
  case Type::int32:
    push(value.as<int32_t>());
    break;
  case Type::uint32:
    push(value.as<uint32_t>());
    break;
  case Type::int64:
    push(value.as<int64_t>());
    break;
  case Type::uint64:
    push(value.as<uint64_t>());
    break;
  case Type::single:
    push(value.as<float>());
    break;
  case Type::real:
    push(value.as<double>());
    break;
  case Type::string:
    push(handleWord(value.as<String>().handle()));
    break;
  case Type::object:
    push(handleWord(value.as<Object>().handle()));
    break;
  case Type::variant:
    temporaries.push_back(box(value));
    push(handleWord(temporaries.back().handle()));
    break;
  }
}

Value fromWords(const Parameter& parameter, const uint32_t* words, Reference reference,
                const char* who) {
  auto read = [&]<typename T>(T scalar) {
    memcpy(&scalar, words, sizeof scalar);
    return Value(scalar);
  };
  auto* handle = reinterpret_cast<void*>(uintptr_t(wordsOf(parameter.type) ? words[0] : 0));
  switch (parameter.type) {
  case Type::none:
    return {};
  case Type::boolean:
    return Value((words[0] & 0xFF) != 0);
  case Type::int32:
    return read(int32_t());
  case Type::uint32:
    return read(uint32_t());
  case Type::int64:
    return read(int64_t());
  case Type::uint64:
    return read(uint64_t());
  case Type::single:
    return read(float());
  case Type::real:
    return read(double());
  case Type::string:
    if (!handle) return String();
    liveCell(handle, Form::string, who);
    return reference == Reference::lock ? String::lock(handle) : String::adopt(handle);
  case Type::object:
  case Type::variant:
    if (!handle) return Object();
    liveCell(handle, Form::object, who);
    return reference == Reference::lock ? Object::lock(handle) : Object::adopt(handle);
  }
  return {};
}

} // namespace host
