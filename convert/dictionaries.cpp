#include "convert/dictionaries.h"

#include "cocoa/exceptions.h"
#include "convert/variants.h"

namespace {

using Setter = void (*)(REALobjectStruct* dictionary, REALobjectStruct* key,
                        REALobjectStruct* value);
using Getter = REALobjectStruct* (*)(REALobjectStruct* dictionary, REALobjectStruct* key);
using KeyGetter = REALobjectStruct* (*)(REALobjectStruct* dictionary, std::int32_t index);

// The methods of the dictionary that was walked last; null when none is being walked. A nested
// conversion replaces them, so every use asks for them anew and finds them mostly unchanged.
REALobjectStruct* LastDictionary;
Setter LastDictionarySetter;
Getter LastDictionaryGetter;
KeyGetter LastDictionaryKeyGetter;

void useMethodsOf(REALobjectStruct* dictionary) {
  if (LastDictionary == dictionary) return;
  LastDictionary = dictionary;
  LastDictionarySetter = reinterpret_cast<Setter>(
      REALLoadObjectMethod(dictionary, "Value(key As Variant, Assigns _value As Variant)"));
  LastDictionaryGetter = reinterpret_cast<Getter>(
      REALLoadObjectMethod(dictionary, "Value(key As Variant) As Variant"));
  LastDictionaryKeyGetter = reinterpret_cast<KeyGetter>(
      REALLoadObjectMethod(dictionary, "Key(index As Integer) As Variant"));
}

// The references that a conversion holds at the moment.
struct Entry {
  REALobjectStruct* key;
  REALobjectStruct* value;
};

void giveBack(Entry& entry) {
  unlock(entry.key);
  unlock(entry.value);
}

void fillHostDictionary(REALobjectStruct* target, id source, Entry& entry, Nesting nesting) {
  id keys = send<id>(source, "allKeys"_sel);
  auto count = send<std::uint32_t>(keys, "count"_sel);
  for (std::uint32_t i = 0; i < count; ++i) {
    id key = send<id>(keys, "objectAtIndex:"_sel, i);
    id value = send<id>(source, "objectForKey:"_sel, key);
    entry.key = NewVariantFromNSObject(key, nesting);
    if (!*nesting.ended) entry.value = NewVariantFromNSObject(value, nesting);
    if (*nesting.ended) return;
    useMethodsOf(target);
    if (LastDictionarySetter) LastDictionarySetter(target, entry.key, entry.value);
    giveBack(entry);
  }
}

id orNull(id object) { return object ? object : send<id>("NSNull"_class, "null"_sel); }

void fillCocoaDictionary(id target, REALobjectStruct* source, std::int32_t count, Entry& entry,
                         Nesting nesting) {
  for (std::int32_t i = 0; i < count && !*nesting.ended; ++i) {
    useMethodsOf(source);
    entry.key = LastDictionaryKeyGetter ? LastDictionaryKeyGetter(source, i) : nullptr;
    useMethodsOf(source); // the host may have run anything meanwhile
    entry.value = LastDictionaryGetter ? LastDictionaryGetter(source, entry.key) : nullptr;
    if (entry.key) {
      id key = orNull(GetVariantAsNSObject(entry.key, nesting));
      id value = orNull(GetVariantAsNSObject(entry.value, nesting));
      send<void>(target, "setObject:forKey:"_sel, value, key);
    }
    giveBack(entry);
  }
}

} // namespace

REALobjectStruct* NSDictionaryRB(id dictionary) {
  return outermost([&](Nesting nesting) { return NSDictionaryRB(dictionary, nesting); });
}

REALobjectStruct* NSDictionaryRB(id dictionary, Nesting nesting) {
  if (!dictionary) return nullptr;
  nesting = nesting.deeper();
  if (*nesting.ended) return nullptr;
  REALobjectStruct* result = REALnewInstance("Dictionary");
  if (!result) return nullptr;
  Entry entry{};
  id thrown = attempt([&] { fillHostDictionary(result, dictionary, entry, nesting); });
  LastDictionary = nullptr;
  if (!thrown && !*nesting.ended) return result;
  giveBack(entry);
  unlock(result);
  if (thrown) objc_exception_throw(thrown);
  return nullptr;
}

id NewNSDictionary(_REALdictionary* dictionary) {
  return outermost([&](Nesting nesting) { return NewNSDictionary(dictionary, nesting); });
}

id NewNSDictionary(_REALdictionary* dictionary, Nesting nesting) {
  if (!dictionary) return nullptr;
  nesting = nesting.deeper();
  if (*nesting.ended) return nullptr;
  REALobjectStruct* source = asHostObject(dictionary);
  std::int32_t count = 0;
  REALGetPropValueInt32(source, "Count", &count);
  if (count < 1) return send<id>("NSDictionary"_class, "dictionary"_sel);
  id result = send<id>("NSMutableDictionary"_class, "dictionaryWithCapacity:"_sel, count);
  if (!result) return nullptr;
  Entry entry{};
  id thrown = attempt([&] { fillCocoaDictionary(result, source, count, entry, nesting); });
  LastDictionary = nullptr;
  if (thrown) {
    giveBack(entry);
    objc_exception_throw(thrown);
  }
  return *nesting.ended ? nullptr : result;
}
