// Variants: boxed scalars, and any object as a variant of itself.
#include "operations.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace host {

namespace {

enum Code {
  nilCode = 0,
  int32Code = 2,
  int64Code = 3,
  singleCode = 4,
  doubleCode = 5,
  dateCode = 7,
  stringCode = 8,
  objectCode = 9,
  booleanCode = 11,
  arrayCode = 4096
};

Object makeBoxed(int32_t code, const char* maker, Value value) {
  auto boxed = std::make_unique<Boxed>();
  boxed->code = code;
  boxed->maker = maker;
  boxed->value = std::move(value);
  return makeObject(builtInClass(Kind::boxed), std::move(boxed));
}

template <typename T> ObjectHandle* made(int32_t code, const char* maker, T value) {
  return handleOf(makeBoxed(code, maker, Value(value)));
}

// The code and the maker that a C++ type goes with.
struct Sort {
  int32_t code;
  const char* maker;
};
Sort sortOf(const Value& value) {
  constexpr Sort sorts[] = {{nilCode, ""},
                            {booleanCode, "BooleanToVariant"},
                            {int32Code, "Int32ToVariant"},
                            {int64Code, "UInt32ToVariant"},
                            {int64Code, "Int64ToVariant"},
                            {int64Code, "UInt64ToVariant"},
                            {singleCode, "SingleToVariant"},
                            {doubleCode, "DoubleToVariant"},
                            {stringCode, "StringToVariant"},
                            {objectCode, ""}};
  static_assert(std::size(sorts) == std::variant_size_v<Value::Held>);
  return sorts[value.held().index()];
}

// What a reader makes of a scalar: numbers are cut, texts are read, the rest is 0.
template <typename T> T numberOf(const Value& value) {
  return std::visit(
      [](const auto& held) -> T {
        using H = std::decay_t<decltype(held)>;
        if constexpr (std::is_floating_point_v<H> && std::is_integral_v<T>) {
          constexpr double limit = sizeof(T) == 4 ? 0x1p31 : 0x1p63;
          return held >= -limit && held < limit ? T(held) : T(0);
        } else if constexpr (std::is_arithmetic_v<H>) {
          return T(held);
        } else if constexpr (std::is_same_v<H, String>) {
          std::string digits = bytes(held);
          if constexpr (std::is_integral_v<T>)
            return T(strtoll(digits.c_str(), nullptr, 10));
          else
            return T(strtod(digits.c_str(), nullptr));
        } else {
          return T(0);
        }
      },
      value.held());
}

std::string dateText(const DateFields& f) {
  char text[80];
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", f.year, f.month, f.day, f.hour,
           f.minute, f.second);
  return text;
}

std::string describeValue(const Value& value) {
  constexpr const char* names[] = {"",        "Boolean ", "Int32 ",  "UInt32 ", "Int64 ",
                                   "UInt64 ", "Single ",  "Double ", "",        ""};
  static_assert(std::size(names) == std::variant_size_v<Value::Held>);
  if (auto* object = std::get_if<Object>(&value.held())) return describe(*object);
  return names[value.held().index()] + print(value);
}

} // namespace

std::ostream& operator<<(std::ostream& out, const DateFields& fields) {
  return out << dateText(fields);
}

int32_t varType(const void* handle) {
  if (!handle) return nilCode;
  Payload* payload = liveCell(handle, Form::object, "VarType").payload;
  if (auto* boxed = dynamic_cast<Boxed*>(payload)) return boxed->code;
  if (auto* array = dynamic_cast<Array*>(payload)) return arrayCode + array->code;
  return dynamic_cast<Date*>(payload) ? dateCode : objectCode;
}

Value varValue(const void* handle) {
  if (!handle) return {};
  Cell& cell = liveCell(handle, Form::object, "a variant");
  if (auto* boxed = dynamic_cast<Boxed*>(cell.payload)) return boxed->value;
  return Object::lock(cell.handle());
}

Object box(const Value& value) {
  if (auto* object = std::get_if<Object>(&value.held())) return *object;
  if (std::holds_alternative<std::monostate>(value.held())) return {};
  Sort sort = sortOf(value);
  return makeBoxed(sort.code, sort.maker, value);
}

// ---- host.h

Object variant(const Value& value) { return box(value); }

Object variantOfCode(int32_t code, const Value& value) { return makeBoxed(code, "", value); }

VariantView inspect(const Object& variant) {
  VariantView view;
  view.code = varType(variant.handle());
  view.value = varValue(variant.handle());
  if (auto* boxed = payloadOf<Boxed>(variant.handle())) view.maker = boxed->maker;
  return view;
}

std::string describe(const Object& variant) {
  if (!variant) return "nil";
  void* handle = variant.handle();
  if (auto* boxed = payloadOf<Boxed>(handle)) {
    std::string value = describeValue(boxed->value);
    if (boxed->code == sortOf(boxed->value).code) return value;
    return "variant of code " + std::to_string(boxed->code) + ": " + value;
  }
  if (auto* array = payloadOf<Array>(handle)) {
    std::string text = "[";
    for (const Value& element : array->elements)
      text += (text.size() > 1 ? ", " : "") + describeValue(element);
    return text + "]";
  }
  if (auto* dictionary = payloadOf<Dictionary>(handle)) {
    std::string text = "{";
    for (auto& [key, value] : dictionary->items)
      text += (text.size() > 1 ? ", " : "") + describe(key) + ": " + describe(value);
    return text + "}";
  }
  if (auto* date = payloadOf<Date>(handle)) return "Date " + dateText(date->fields);
  if (auto* block = payloadOf<MemoryBlock>(handle))
    return "MemoryBlock " +
           quoted({reinterpret_cast<const char*>(block->bytes.data()), block->bytes.size()});
  if (auto* item = payloadOf<FolderItem>(handle)) return "FolderItem " + quoted(item->path);
  return className(variant);
}

// ---- Operations

namespace operations {

ObjectHandle* stringToVariant(StringHandle* value) {
  if (value) liveCell(value, Form::string, "StringToVariant");
  return made(stringCode, "StringToVariant", String::lock(value));
}
ObjectHandle* int32ToVariant(int32_t value) { return made(int32Code, "Int32ToVariant", value); }
ObjectHandle* uint32ToVariant(uint32_t value) { return made(int64Code, "UInt32ToVariant", value); }
ObjectHandle* int64ToVariant(int64_t value) { return made(int64Code, "Int64ToVariant", value); }
ObjectHandle* uint64ToVariant(uint64_t value) { return made(int64Code, "UInt64ToVariant", value); }
ObjectHandle* singleToVariant(float value) { return made(singleCode, "SingleToVariant", value); }
ObjectHandle* doubleToVariant(double value) { return made(doubleCode, "DoubleToVariant", value); }
ObjectHandle* booleanToVariant(HostBoolean value) {
  return made(booleanCode, "BooleanToVariant", value != 0);
}

StringHandle* variantToString(ObjectHandle* variant) {
  Value value = varValue(variant);
  if (auto* string = std::get_if<String>(&value.held()))
    return handleOf<StringHandle>(String(*string).release());
  if (auto* date = payloadOf<Date>(variant))
    return handleOf<StringHandle>(newString(dateText(date->fields), utf8));
  if (value.isNil() || std::holds_alternative<Object>(value.held())) return nullptr;
  return handleOf<StringHandle>(newString(print(value), utf8));
}
int32_t variantToInt32(ObjectHandle* variant) { return numberOf<int32_t>(varValue(variant)); }
int64_t variantToInt64(ObjectHandle* variant) { return numberOf<int64_t>(varValue(variant)); }
float variantToSingle(ObjectHandle* variant) { return numberOf<float>(varValue(variant)); }
double variantToDouble(ObjectHandle* variant) { return numberOf<double>(varValue(variant)); }

int32_t typeOfVariant(ObjectHandle* variant) { return varType(variant); }

} // namespace operations

} // namespace host
