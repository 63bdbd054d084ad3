// One-dimensional arrays, and the functions that read and fill them.
#include "operations.h"

namespace host {

namespace {

enum Code {
  int64Code = 3,
  singleCode = 4,
  doubleCode = 5,
  currencyCode = 6,
  dateCode = 7,
  stringCode = 8,
  objectCode = 9,
  booleanCode = 11
};
constexpr int32_t objectArray = 4; // the type that plug-ins name at creation
constexpr int32_t longest = 50'000'000;

std::atomic<unsigned> beyond{0};

Array& arrayOf(ObjectHandle* handle, const char* who) {
  auto* array = dynamic_cast<Array*>(liveCell(handle, Form::object, who).payload);
  if (!array) die(std::string(who) + ": " + label(handle) + " is no array");
  return *array;
}

// A copy, taken under the lock; T's zero for another type, a nil array or beyond the bounds.
template <typename T> T element(ObjectHandle* handle, int32_t index) {
  if (!handle) return T();
  Guard guard(hostMutex());
  Array& array = arrayOf(handle, "an array's getter");
  if (index < 0 || size_t(index) >= array.elements.size()) {
    ++beyond;
    return T();
  }
  try {
    return array.elements[size_t(index)].as<T>();
  } catch (const Error&) {
    return T();
  }
}

} // namespace

void resetArrays() { beyond = 0; }
unsigned outOfBounds() { return beyond; }

Object array(int32_t code, const std::vector<Value>& elements) {
  auto array = std::make_unique<Array>();
  array->code = code;
  // The elements of a variant array are variants.
  for (const Value& value : elements)
    array->elements.push_back(code == objectCode ? Value(box(value)) : value);
  return makeObject(builtInClass(Kind::array), std::move(array));
}

std::vector<Value> elements(const Object& array) {
  Guard guard(hostMutex());
  return needPayload<Array>(array, "array").elements;
}

int32_t upperBound(const Object& array) {
  return int32_t(needPayload<Array>(array, "array").elements.size()) - 1;
}

void setReportedBound(const Object& array, std::optional<int32_t> bound) {
  needPayload<Array>(array, "array").reportedBound = bound;
}

namespace operations {

ObjectHandle* createArray(int32_t type, int32_t upperBound) {
  if (type != objectArray || upperBound < -1 || upperBound >= longest) return nullptr;
  auto array = std::make_unique<Array>();
  array->code = objectCode;
  array->elements.resize(size_t(upperBound + 1), Value(Object()));
  return handleOf(makeObject(builtInClass(Kind::array), std::move(array)));
}

int32_t upperBoundOf(ObjectHandle* handle) {
  if (!handle) return -1;
  Guard guard(hostMutex());
  Array& array = arrayOf(handle, "RuntimeUBound");
  return array.reportedBound.value_or(int32_t(array.elements.size()) - 1);
}

void* insertProc(ObjectHandle* handle) {
  if (!handle) return nullptr;
  bool objects = arrayOf(handle, "RuntimeArrayDirectGetInsertProc").code == objectCode;
  return objects ? lookUp("array.insert Object") : nullptr;
}

void* getProc(ObjectHandle* handle) {
  if (!handle) return nullptr;
  switch (arrayOf(handle, "RuntimeArrayDirectGetGetProc").code) {
  case int64Code:
  case currencyCode:
    return lookUp("array.get Int64");
  case singleCode:
    return lookUp("array.get Single");
  case doubleCode:
    return lookUp("array.get Double");
  case booleanCode:
    return lookUp("array.get Boolean");
  case stringCode:
    return lookUp("array.get String");
  case dateCode:
  case objectCode:
    return lookUp("array.get Object");
  default:
    return lookUp("array.get Int32");
  }
}

void insertObject(ObjectHandle* handle, int32_t index, ObjectHandle* value) {
  if (!handle) return;
  if (value) liveCell(value, Form::object, "an array's insert function");
  Object element = Object::lock(value);
  Guard guard(hostMutex());
  Array& array = arrayOf(handle, "an array's insert function");
  if (index < 0 || size_t(index) > array.elements.size()) {
    ++beyond;
    return;
  }
  array.elements.insert(array.elements.begin() + index, Value(std::move(element)));
}

int32_t elementInt32(ObjectHandle* array, int32_t index) { return element<int32_t>(array, index); }
int64_t elementInt64(ObjectHandle* array, int32_t index) { return element<int64_t>(array, index); }
float elementSingle(ObjectHandle* array, int32_t index) { return element<float>(array, index); }
double elementDouble(ObjectHandle* array, int32_t index) { return element<double>(array, index); }
bool elementBoolean(ObjectHandle* array, int32_t index) { return element<bool>(array, index); }
StringHandle* elementString(ObjectHandle* array, int32_t index) {
  return handleOf<StringHandle>(element<String>(array, index).release());
}
ObjectHandle* elementObject(ObjectHandle* array, int32_t index) {
  return handleOf(element<Object>(array, index));
}

} // namespace operations

} // namespace host
