// Dictionaries: entries in the order of their insertion, found by the value of the key.
#include "operations.h"

#include <cmath>

namespace host {

namespace {

// Equal for keys that the host takes for the same: numbers by value whatever their width.
std::string keyText(const Object& key) {
  if (!key) return "nil";
  if (auto* date = payloadOf<Date>(key.handle())) return "date " + describe(key);
  Value value = varValue(key.handle());
  return std::visit(
      [&](const auto& held) -> std::string {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, Object>)
          return "object " + std::to_string(reinterpret_cast<uintptr_t>(held.handle()));
        else if constexpr (std::is_same_v<T, String>) {
          if (!held) return "text ";
          if (auto readable = text(held)) return "text " + *readable;
          return "bytes " + bytes(held);
        } else if constexpr (std::is_same_v<T, bool>)
          return held ? "true" : "false";
        else if constexpr (std::is_same_v<T, std::monostate>)
          return "nil";
        else if constexpr (std::is_floating_point_v<T>)
          return "number " + (std::trunc(held) == held && std::fabs(held) < 0x1p63
                                  ? std::to_string(int64_t(held))
                                  : printNumber(held));
        else
          return "number " + std::to_string(held);
      },
      value.held());
}

Dictionary& dictionaryOf(ObjectHandle* handle, const char* who) {
  auto* dictionary = dynamic_cast<Dictionary*>(liveCell(handle, Form::object, who).payload);
  if (!dictionary) die(std::string(who) + ": " + label(handle) + " is no dictionary");
  return *dictionary;
}

void store(Dictionary& dictionary, Object key, Object value) {
  std::string name = keyText(key);
  Object replaced; // unlocked after the mutex
  Guard guard(hostMutex());
  auto [place, added] = dictionary.places.try_emplace(std::move(name), dictionary.items.size());
  if (added) {
    dictionary.items.push_back({std::move(key), std::move(value)});
    return;
  }
  replaced = std::exchange(dictionary.items[place->second].value, std::move(value));
}

Object find(Dictionary& dictionary, const Object& key) {
  std::string name = keyText(key);
  Guard guard(hostMutex());
  auto place = dictionary.places.find(name);
  return place == dictionary.places.end() ? Object() : dictionary.items[place->second].value;
}

void reading(Dictionary& dictionary) {
  std::function<void()> hook;
  {
    Guard guard(hostMutex());
    hook = dictionary.onRead;
  }
  if (hook) hook();
}

// Handles come again after their objects' death; numbers do not.
struct Lack {
  const Cell* object;
  uint32_t number;
  std::string method;
  bool gone() const { return object->state != State::live || object->number != number; }
};
std::vector<Lack>& lacking() {
  static auto* instance = new std::vector<Lack>;
  return *instance;
}

} // namespace

bool objectLacks(const void* handle, std::string_view declaration) {
  Guard guard(hostMutex());
  for (const Lack& lack : lacking())
    if (lack.object == findCell(handle) && lack.method == declaration && !lack.gone()) return true;
  return false;
}
void resetObjectMethods() {
  Guard guard(hostMutex());
  lacking().clear();
}
void lackMethod(const Object& object, std::string_view declaration) {
  const Cell& cell = objectCell(object, "lackMethod");
  Guard guard(hostMutex());
  std::erase_if(lacking(), [](const Lack& lack) { return lack.gone(); });
  lacking().push_back({&cell, cell.number, std::string(declaration)});
}

Object dictionary(const std::vector<std::pair<Value, Value>>& entries) {
  Object object = Object::adopt(newObject(builtInClass(Kind::dictionary)).handle());
  for (auto& [key, value] : entries) put(object, key, value);
  return object;
}
void put(const Object& dictionary, const Value& key, const Value& value) {
  store(needPayload<Dictionary>(dictionary, "dictionary"), box(key), box(value));
}
Object at(const Object& dictionary, const Value& key) {
  return find(needPayload<Dictionary>(dictionary, "dictionary"), box(key));
}
std::vector<std::pair<Object, Object>> entries(const Object& dictionary) {
  Guard guard(hostMutex());
  std::vector<std::pair<Object, Object>> all;
  for (auto& item : needPayload<Dictionary>(dictionary, "dictionary").items)
    all.emplace_back(item.key, item.value);
  return all;
}
void clear(const Object& dictionary) {
  Dictionary& emptied = needPayload<Dictionary>(dictionary, "dictionary");
  std::vector<Dictionary::Item> items; // unlocked after the mutex
  Guard guard(hostMutex());
  items.swap(emptied.items);
  emptied.places.clear();
}
void setReportedCount(const Object& dictionary, std::optional<int32_t> count) {
  needPayload<Dictionary>(dictionary, "dictionary").reportedCount = count;
}
void onRead(const Object& dictionary, std::function<void()> hook) {
  Guard guard(hostMutex());
  needPayload<Dictionary>(dictionary, "dictionary").onRead = std::move(hook);
}

namespace operations {

void dictionarySet(ObjectHandle* handle, ObjectHandle* key, ObjectHandle* value) {
  if (!handle) return;
  for (ObjectHandle* each : {key, value})
    if (each) liveCell(each, Form::object, "Dictionary.Value");
  store(dictionaryOf(handle, "Dictionary.Value"), Object::lock(key), Object::lock(value));
}

ObjectHandle* dictionaryGet(ObjectHandle* handle, ObjectHandle* key) {
  if (!handle) return nullptr;
  if (key) liveCell(key, Form::object, "Dictionary.Value");
  Dictionary& dictionary = dictionaryOf(handle, "Dictionary.Value");
  reading(dictionary);
  return handleOf(find(dictionary, Object::lock(key)));
}

ObjectHandle* dictionaryKey(ObjectHandle* handle, int32_t index) {
  if (!handle) return nullptr;
  Dictionary& dictionary = dictionaryOf(handle, "Dictionary.Key");
  reading(dictionary);
  Guard guard(hostMutex());
  if (index < 0 || size_t(index) >= dictionary.items.size()) return nullptr;
  return handleOf(dictionary.items[size_t(index)].key);
}

} // namespace operations

} // namespace host
