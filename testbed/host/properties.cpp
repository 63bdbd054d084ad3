// Properties that the host reads and writes itself: one table for the built-in classes, those that
// every variant has, and the places in the data of plug-in classes.
#include "operations.h"

#include <cstring>
#include <set>

namespace host {

namespace {

// By the payload, so that it holds for subclasses too.
struct Row {
  const char* name;
  std::optional<Value> (*get)(Payload& payload);
  bool (*set)(Payload& payload, const Value& value); // null: cannot be assigned
};

template <typename T> T* as(Payload& payload) { return dynamic_cast<T*>(&payload); }

template <int32_t DateFields::*field> constexpr Row dateRow(const char* name) {
  return {name,
          [](Payload& payload) -> std::optional<Value> {
            auto* date = as<Date>(payload);
            return date ? std::optional<Value>(date->fields.*field) : std::nullopt;
          },
          [](Payload& payload, const Value& value) {
            auto* date = as<Date>(payload);
            if (date) date->fields.*field = value.as<int32_t>();
            return date != nullptr;
          }};
}

constexpr Row rows[] = {
    dateRow<&DateFields::year>("Year"),
    dateRow<&DateFields::month>("Month"),
    dateRow<&DateFields::day>("Day"),
    dateRow<&DateFields::hour>("Hour"),
    dateRow<&DateFields::minute>("Minute"),
    dateRow<&DateFields::second>("Second"),
    {"Count",
     [](Payload& payload) -> std::optional<Value> {
       auto* dictionary = as<Dictionary>(payload);
       if (!dictionary) return {};
       return dictionary->reportedCount.value_or(int32_t(dictionary->items.size()));
     },
     nullptr},
    {"Size",
     [](Payload& payload) -> std::optional<Value> {
       auto* block = as<MemoryBlock>(payload);
       if (!block) return {};
       return block->reportedSize.value_or(int32_t(block->bytes.size()));
     },
     nullptr},
    {"Message",
     [](Payload& payload) -> std::optional<Value> {
       auto* exception = as<ExceptionData>(payload);
       return exception ? std::optional<Value>(exception->message) : std::nullopt;
     },
     [](Payload& payload, const Value& value) {
       auto* exception = as<ExceptionData>(payload);
       if (exception) exception->message = value.as<String>();
       return exception != nullptr;
     }},
    {"ErrorNumber",
     [](Payload& payload) -> std::optional<Value> {
       auto* exception = as<ExceptionData>(payload);
       return exception ? std::optional<Value>(exception->number) : std::nullopt;
     },
     [](Payload& payload, const Value& value) {
       auto* exception = as<ExceptionData>(payload);
       if (exception) exception->number = value.as<int32_t>();
       return exception != nullptr;
     }},
};

// Any object is a variant, and has what a variant has.
namespace o = operations;
struct VariantRow {
  const char* name;
  std::optional<Value> (*get)(ObjectHandle* variant);
};
constexpr VariantRow variantRows[] = {
    {"Type", [](ObjectHandle* v) -> std::optional<Value> { return o::typeOfVariant(v); }},
    {"StringValue",
     [](ObjectHandle* v) -> std::optional<Value> { return String::adopt(o::variantToString(v)); }},
    {"SingleValue", [](ObjectHandle* v) -> std::optional<Value> { return o::variantToSingle(v); }},
    {"DoubleValue", [](ObjectHandle* v) -> std::optional<Value> { return o::variantToDouble(v); }},
    {"LongValue", [](ObjectHandle* v) -> std::optional<Value> { return o::variantToInt64(v); }},
    {"Int32Value", [](ObjectHandle* v) -> std::optional<Value> { return o::variantToInt32(v); }},
    {"DateValue",
     [](ObjectHandle* v) -> std::optional<Value> {
       if (o::typeOfVariant(v) != 7) return {};
       Value value = varValue(v);
       return std::holds_alternative<Object>(value.held()) ? value : Value(Object());
     }},
};

struct Failing {
  std::set<std::pair<std::string, std::string>> names; // class, property
};
Failing& failing() {
  static auto* instance = new Failing;
  return *instance;
}

bool fails(const Class* type, std::string_view property) {
  Guard guard(hostMutex());
  if (failing().names.empty()) return false;
  for (; type; type = type->super)
    if (failing().names.contains({type->name, std::string(property)})) return true;
  return false;
}

// The place of a property that a plug-in registered with getter (or setter) -1.
uint32_t* directPlace(Cell& cell, std::string_view name, uint32_t word, const Parameter*& type) {
  const Member* member = findMember(*cell.type, name, false);
  if (!member || member->sort != Member::property || member->entry[word] != 0xFFFFFFFF)
    return nullptr;
  type = &member->declaration.result;
  return reinterpret_cast<uint32_t*>(plainData(cell, *member->owner) + member->entry[6]);
}

// T as the operation of that type wants it: exactly that type.
template <typename T> bool read(ObjectHandle* object, const char* name, T* value) {
  if (!object || !name || !value) return false;
  auto found = readProperty(object, name);
  auto* exact = found ? std::get_if<T>(&found->held()) : nullptr;
  if (exact) *value = *exact;
  return exact != nullptr;
}
template <typename Reference, typename Handle>
bool readReference(ObjectHandle* object, const char* name, Handle** value) {
  Reference reference;
  if (!value || !read(object, name, &reference)) return false;
  *value = handleOf<Handle>(reference.release());
  return true;
}

} // namespace

void failProperty(std::string_view className, std::string_view property, bool fails) {
  std::pair name{needClass(className).name, std::string(property)};
  Guard guard(hostMutex());
  if (fails)
    failing().names.insert(name);
  else
    failing().names.erase(name);
}

void resetProperties() {
  Guard guard(hostMutex());
  failing().names.clear();
}

std::optional<Value> readProperty(const void* handle, std::string_view name) {
  Cell& cell = liveCell(handle, Form::object, "reading a property");
  if (fails(cell.type, name)) return {};
  if (cell.payload)
    for (const Row& row : rows)
      if (row.name == name)
        if (auto value = row.get(*cell.payload)) return value;
  const Parameter* type;
  if (uint32_t* place = directPlace(cell, name, 4, type))
    return fromWords(*type, place, Reference::lock, "a property");
  for (const VariantRow& row : variantRows)
    if (row.name == name) return row.get(static_cast<ObjectHandle*>(cell.handle()));
  return {};
}

bool writeProperty(const void* handle, std::string_view name, const Value& value) {
  Cell& cell = liveCell(handle, Form::object, "writing a property");
  if (fails(cell.type, name)) return false;
  if (cell.payload)
    for (const Row& row : rows)
      if (row.name == name && row.set && row.set(*cell.payload, value)) return true;
  const Parameter* type;
  uint32_t* place = directPlace(cell, name, 5, type);
  if (!place) return false;
  std::vector<uint32_t> words;
  std::vector<Object> temporaries;
  toWords(value, *type, words, temporaries);
  memcpy(place, words.data(), words.size() * 4);
  return true;
}

namespace operations {

bool getPropInt(ObjectHandle* object, const char* name, int32_t* value) {
  return read(object, name, value);
}
bool getPropInt64(ObjectHandle* object, const char* name, int64_t* value) {
  return read(object, name, value);
}
bool getPropSingle(ObjectHandle* object, const char* name, float* value) {
  return read(object, name, value);
}
bool getPropDouble(ObjectHandle* object, const char* name, double* value) {
  return read(object, name, value);
}
bool getPropString(ObjectHandle* object, const char* name, StringHandle** value) {
  return readReference<String>(object, name, value);
}
bool getPropObject(ObjectHandle* object, const char* name, ObjectHandle** value) {
  return readReference<Object>(object, name, value);
}

namespace {

// A property of another type counts as one that cannot be set.
bool assign(ObjectHandle* object, const char* name, const Value& value) {
  if (!object || !name) return false;
  try {
    return writeProperty(object, name, value);
  } catch (const Error&) {
    return false;
  }
}

} // namespace

bool setPropInt(ObjectHandle* object, const char* name, int32_t value) {
  return assign(object, name, value);
}
bool setPropString(ObjectHandle* object, const char* name, StringHandle* value) {
  if (value) liveCell(value, Form::string, "REALSetPropValueString");
  return assign(object, name, String::lock(value));
}

} // namespace operations

} // namespace host
