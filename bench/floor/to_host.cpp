// Beside the item's propertiesDictionary: Cocoa values on their way to the host. Every function
// knows beforehand what it is given, and asks the object what it has to be asked all the same.

#include "bench/floor/kit.h"

namespace floors {

namespace {

// What comes before the rule: is it nothing, does it have an instance, is it of one of the first
// COUNT classes?
template <int Count> inline void ask(id object) {
  send<id>(cls.NSNull, sel.null);
  CFDictionaryGetValue(registry, object);
  for (int i = 0; i < Count; ++i) send<BOOL>(object, sel.isKindOf, rules[i]);
}

inline Object* variantOf(id text) {
  String* string = newString(text);
  Object* variant = host.stringVariant(string);
  host.unlockString(string);
  return variant;
}

Object* fromNull(id) {
  send<id>(cls.NSNull, sel.null);
  return nullptr;
}

Object* fromKnown(id object) {
  send<id>(cls.NSNull, sel.null);
  auto* known = static_cast<Object*>(const_cast<void*>(CFDictionaryGetValue(registry, object)));
  host.lockObject(known);
  return known;
}

Object* fromString(id object) {
  ask<3>(object);
  return variantOf(object);
}

Object* fromData(id object) {
  ask<4>(object);
  const void* bytes = send<const void*>(object, sel.bytes);
  auto length = send<std::uint32_t>(object, sel.length);
  Object* block = host.newMemoryBlock(static_cast<int>(length));
  memcpy(host.memoryBlockPointer(block), bytes, length);
  return block;
}

template <class Value, SEL Selectors::*Message, auto Host::*Make> Object* fromNumber(id object) {
  ask<5>(object);
  send<const char*>(object, sel.objCType);
  return (host.*Make)(send<Value>(object, sel.*Message));
}

Object* fromDate(id object) {
  ask<6>(object);
  auto seconds = send<double>(object, sel.sinceReferenceDate);
  id date = send<id>(send<id>(cls.NSCalendarDate, sel.alloc), sel.initDate, seconds);
  send<id>(date, sel.autorelease);
  auto year = send<std::int32_t>(date, sel.yearOfCommonEra);
  auto month = send<std::int32_t>(date, sel.monthOfYear);
  auto day = send<std::int32_t>(date, sel.dayOfMonth);
  auto second = send<std::int32_t>(date, sel.secondOfMinute);
  auto minute = send<std::int32_t>(date, sel.minuteOfHour);
  auto hour = send<std::int32_t>(date, sel.hourOfDay);
  Object* result = host.newInstance("Date");
  host.setInt32(result, "Year", year);
  host.setInt32(result, "Month", month);
  host.setInt32(result, "Day", day);
  host.setInt32(result, "Hour", hour);
  host.setInt32(result, "Minute", minute);
  host.setInt32(result, "Second", second);
  return result;
}

using Convert = Object* (*)(id);
using Setter = void (*)(Object*, Object*, Object*);

template <Convert Value> inline Object* dictionary(id source) {
  Object* result = host.newInstance("Dictionary");
  id keys = send<id>(source, sel.allKeys);
  auto count = send<std::uint32_t>(keys, sel.count);
  Setter set = nullptr;
  for (std::uint32_t i = 0; i < count; ++i) {
    id key = send<id>(keys, sel.objectAtIndex, i);
    id value = send<id>(source, sel.objectForKey, key);
    Object* keyVariant = fromString(key);
    Object* valueVariant = Value(value);
    if (!set) {
      set = reinterpret_cast<Setter>(
          host.loadObjectMethod(result, "Value(key As Variant, Assigns _value As Variant)"));
      host.loadObjectMethod(result, "Value(key As Variant) As Variant");
      host.loadObjectMethod(result, "Key(index As Integer) As Variant");
    }
    set(result, keyVariant, valueVariant);
    host.unlockObject(keyVariant);
    if (valueVariant) host.unlockObject(valueVariant);
  }
  return result;
}

Object* fromDictionary(id object) {
  ask<7>(object);
  return dictionary<fromString>(object);
}

template <Convert Element> inline Object* array(id elements) {
  Object* result = host.createArray(4, -1);
  id enumerator = send<id>(elements, sel.objectEnumerator);
  int index = 0;
  while (id element = send<id>(enumerator, sel.nextObject)) {
    Object* variant = Element(element);
    using Insert = void (*)(Object*, int, Object*);
    reinterpret_cast<Insert>(host.insertProc(result))(result, index++, variant);
    if (variant) host.unlockObject(variant);
  }
  return result;
}

template <Convert Element> Object* fromArray(id object) {
  ask<1>(object);
  return array<Element>(object);
}

Object* fromSet(id object) {
  ask<2>(object);
  return array<fromString>(send<id>(object, sel.allObjects));
}

// The wrapper classes of the object's class and its superclasses, until the host has one.
inline Object* newWrapper() {
  Object* instance = nullptr;
  for (const char* const* name = wrapperNames; *name && !instance; ++name) {
    instance = host.newInstance(*name);
  }
  return instance;
}

Object* fromAttributedString(id object) {
  ask<8>(object);
  send<id>(object, sel.retain);
  Object* instance = newWrapper();
  record<id>(instance) = object;
  return instance;
}

template <int Rule> Object* fromNamed(id object) {
  ask<Rule>(object);
  send<id>(object, sel.retain);
  Object* instance = newWrapper();
  record<id>(instance) = object;
  CFDictionarySetValue(registry, object, instance);
  return instance;
}

Object* fromFileURL(id object) {
  ask<19>(object);
  FSRef ref;
  FSRef parent;
  FSCatalogInfo info;
  HFSUniStr255 name;
  CFURLGetFSRef(asURL(object), &ref);
  FSGetCatalogInfo(&ref, kFSCatInfoNodeID, &info, nullptr, nullptr, &parent);
  FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, &name, nullptr, nullptr);
  FSGetCatalogInfo(&parent, kFSCatInfoNone, nullptr, nullptr, nullptr, nullptr);
  return host.itemFromParent(&parent, &name);
}

Object* fromOtherURL(id object) {
  ask<19>(object);
  FSRef ref;
  CFURLGetFSRef(asURL(object), &ref);
  CFURLRef folder = CFURLCreateCopyDeletingLastPathComponent(nullptr, asURL(object));
  CFURLGetFSRef(folder, &ref);
  CFRelease(folder);
  return variantOf(send<id>(object, sel.absoluteString));
}

Object* fromBox(id object) {
  ask<20>(object);
  return send<Object*>(object, sel.unwrap);
}

template <class Struct, SEL Selectors::*Message> Object* fromStruct(id object) {
  ask<21>(object);
  send<const char*>(object, sel.objCType);
  auto content = send<Struct>(object, sel.*Message);
  Object* instance = newWrapper();
  record<Struct>(instance) = content;
  return instance;
}

template <SEL Selectors::*Message> Object* fromTime(id object) {
  ask<21>(object);
  send<const char*>(object, sel.objCType);
  send<BOOL>(object, sel.respondsTo, sel.*Message);
  return send<Object*>(object, sel.*Message);
}

struct CFFields {
  CFTypeRef object;
  std::uint32_t unused;
  std::uint32_t tag;
};

// This rule has a frame of its own.
[[gnu::noinline]] Object* fromCF(id object) {
  ask<21>(object);
  Object* instance = nullptr;
  FRAME(send<BOOL>(object, sel.respondsTo, sel.cfTypeID); send<std::int32_t>(object, sel.cfTypeID);
        CFGetTypeID(object); CFRetain(object); instance = newWrapper();
        if (record<CFFields>(instance).tag == 0x52424346) record<CFFields>(instance).object =
            object;);
  return instance;
}

[[gnu::noinline]] Object* fromImage(id object) {
  ask<21>(object);
  Object* instance = nullptr;
  FRAME(send<BOOL>(object, sel.respondsTo, sel.cfTypeID); send<std::int32_t>(object, sel.cfTypeID);
        CFGetTypeID(object); CGImageRetain(object); instance = newWrapper();
        record<CFTypeRef>(instance) = object;);
  return instance;
}

[[gnu::noinline]] Object* fromOther(id object) {
  ask<21>(object);
  FRAME(send<BOOL>(object, sel.respondsTo, sel.cfTypeID);
        send<std::int32_t>(object, sel.cfTypeID););
  send<id>(object, sel.retain);
  Object* instance = newWrapper();
  record<id>(instance) = object;
  return instance;
}

// No class of the host's fits.
[[gnu::noinline]] Object* fromUnknown(id object) {
  ask<21>(object);
  FRAME(send<BOOL>(object, sel.respondsTo, sel.cfTypeID);
        send<std::int32_t>(object, sel.cfTypeID););
  send<id>(object, sel.retain);
  newWrapper();
  send<void>(object, sel.release);
  return nullptr;
}

template <Convert Value> Object* propertiesDictionary(Object* instance) {
  Object* result = nullptr;
  FRAME(result = dictionary<Value>(send<id>(record<id>(instance), sel.propertiesDictionary)););
  return result;
}

} // namespace

#define VALUES(name, ...) FLOOR("properties: " name, (propertiesDictionary<fromArray<__VA_ARGS__>>))
#define NUMBERS(code, type, message, make)                                                         \
  VALUES("number " code, fromNumber<type, &Selectors::message, &Host::make>)

const Function toHostFunctions[] = {
    FLOOR("properties", propertiesDictionary<fromString>),
    VALUES("null", fromNull),
    VALUES("known", fromKnown),
    VALUES("array", fromArray<fromString>),
    VALUES("set", fromSet),
    VALUES("string", fromString),
    VALUES("data", fromData),
    NUMBERS("c", Boolean1, boolValue, booleanVariant),
    NUMBERS("C", unsigned char, unsignedCharValue, int32Variant),
    NUMBERS("s", short, shortValue, int32Variant),
    NUMBERS("S", unsigned short, unsignedShortValue, int32Variant),
    NUMBERS("i", int, intValue, int32Variant),
    NUMBERS("I", unsigned, unsignedIntValue, uint32Variant),
    NUMBERS("l", long, longValue, int32Variant),
    NUMBERS("L", unsigned long, unsignedLongValue, uint32Variant),
    NUMBERS("q", long long, longLongValue, int64Variant),
    NUMBERS("Q", unsigned long, unsignedLongValue, uint64Variant),
    NUMBERS("f", float, floatValue, singleVariant),
    NUMBERS("d", double, doubleValue, doubleVariant),
    VALUES("date", fromDate),
    VALUES("dictionary", fromDictionary),
    VALUES("attributed string", fromAttributedString),
    VALUES("NSCalendar", fromNamed<9>),
    VALUES("NSError", fromNamed<10>),
    VALUES("NSRunningApplication", fromNamed<11>),
    VALUES("NSFont", fromNamed<12>),
    VALUES("NSFileHandle", fromNamed<13>),
    VALUES("NSCharacterSet", fromNamed<14>),
    VALUES("NSLocale", fromNamed<15>),
    VALUES("NSTimer", fromNamed<16>),
    VALUES("NSTimeZone", fromNamed<17>),
    VALUES("NSParagraphStyle", fromNamed<18>),
    VALUES("file URL", fromFileURL),
    VALUES("other URL", fromOtherURL),
    VALUES("box", fromBox),
    VALUES("rect", fromStruct<NSRect, &Selectors::rectValue>),
    VALUES("size", fromStruct<NSSize, &Selectors::sizeValue>),
    VALUES("range", fromStruct<NSRange, &Selectors::rangeValue>),
    VALUES("point", fromStruct<NSPoint, &Selectors::pointValue>),
    VALUES("QTTime", fromTime<&Selectors::timeValue>),
    VALUES("QTTimeRange", fromTime<&Selectors::timeRangeValue>),
    VALUES("CMTime", fromTime<&Selectors::mediaTimeValue>),
    VALUES("CMTimeRange", fromTime<&Selectors::mediaTimeRangeValue>),
    VALUES("CMTimeMapping", fromTime<&Selectors::mediaTimeMappingValue>),
    VALUES("CF object", fromCF),
    VALUES("image", fromImage),
    VALUES("other object", fromOther),
    VALUES("unknown object", fromUnknown),
    {},
};

} // namespace floors
