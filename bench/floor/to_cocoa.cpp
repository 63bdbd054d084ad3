// Beside the updater's delegate: the reporting callbacks, and the feed parameters with host values
// on their way to Cocoa.

#include "bench/floor/kit.h"

namespace floors {

namespace {

// --- Reporting callbacks. ---

void notFound(id self, SEL, id updater) {
  FRAME(send<void>(self, sel.performOnMain, sel.notFoundHalf, updater, YES););
}

void found(id self, SEL, id, id item) {
  FRAME(send<void>(self, sel.performOnMain, sel.foundHalf, item, YES););
}

void notFoundOnMain(id, SEL, id) {
  using Handler = void (*)(void*);
  FRAME(reinterpret_cast<Handler>(host.getEventInstance(facts->target, facts->notFoundEvent))(
            facts->target););
}

void foundOnMain(id, SEL, id item) {
  using Handler = void (*)(void*, Object*);
  FRAME(auto handler =
            reinterpret_cast<Handler>(host.getEventInstance(facts->target, facts->foundEvent));
        Object* argument = wrapItem(item); handler(facts->target, argument);
        host.unlockObject(argument););
}

// --- Scalars. ---

inline id text(Object* variant) {
  String* string = host.variantString(variant);
  CFStringRef result = host.stringCFString(string, 0);
  host.unlockString(string);
  return send<id>(asObject(result), sel.autorelease);
}

id fromString(Object* variant) {
  host.varType(variant);
  return text(variant);
}

template <class Value, SEL Selectors::*Message, auto Host::*Read> id fromNumber(Object* variant) {
  host.varType(variant);
  return send<id>(cls.NSNumber, sel.*Message, static_cast<Value>((host.*Read)(variant)));
}

inline id date(Object* value) {
  std::int32_t year, month, day, hour, minute, second;
  host.getInt32(value, "Year", &year);
  host.getInt32(value, "Month", &month);
  host.getInt32(value, "Day", &day);
  host.getInt32(value, "Hour", &hour);
  host.getInt32(value, "Minute", &minute);
  host.getInt32(value, "Second", &second);
  host.unlockObject(value);
  id zone = send<id>(cls.NSTimeZone, sel.localTimeZone);
  return send<id>(cls.NSCalendarDate, sel.dateWith, year, month, day, hour, minute, second, zone);
}

id fromDate(Object* variant) {
  host.varType(variant);
  Object* value = nullptr;
  host.getObject(variant, "DateValue", &value);
  return date(value);
}

// --- Arrays: what an element is read as, and what becomes of it. ---

using Convert = id (*)(Object*);

template <class Element> inline Element element(Object* array, int index) {
  using Get = Element (*)(Object*, int);
  return reinterpret_cast<Get>(host.getProc(array))(array, index);
}

template <Convert Value> id fromVariant(Object* array, int index) {
  auto* variant = element<Object*>(array, index);
  id result = Value(variant);
  host.unlockObject(variant);
  return result;
}

template <class Read, class Value, SEL Selectors::*Message>
id fromElement(Object* array, int index) {
  return send<id>(cls.NSNumber, sel.*Message, static_cast<Value>(element<Read>(array, index)));
}

id fromTextElement(Object* array, int index) {
  auto* string = element<String*>(array, index);
  CFStringRef result = host.stringCFString(string, 0);
  host.unlockString(string);
  return send<id>(asObject(result), sel.autorelease);
}

id fromDateElement(Object* array, int index) { return date(element<Object*>(array, index)); }

template <id (*Element)(Object*, int)> id fromArray(Object* array) {
  host.varType(array);
  id result = send<id>(cls.NSMutableArray, sel.array);
  int last = host.upperBound(array);
  for (int i = 0; i <= last; ++i) send<void>(result, sel.addObject, Element(array, i));
  return result;
}

// --- Objects. ---

inline void askObject(Object* object) {
  host.varType(object);
  host.isA(object, facts->classReferences[0]);
  if (classTests == 1) return;
  host.loadObjectMethod(object, "TrueItem(Index as integer) as Folderitem");
  for (unsigned i = 1; i < classTests; ++i) host.isA(object, facts->classReferences[i]);
}

id fromMemoryBlock(Object* object) {
  askObject(object);
  const void* bytes = host.memoryBlockPointer(object);
  auto size = static_cast<std::uint32_t>(host.memoryBlockSize(object));
  return send<id>(cls.NSData, sel.dataWithBytes, bytes, size);
}

id fromFolderItem(Object* object) {
  host.varType(object);
  host.isA(object, facts->classReferences[0]);
  host.loadObjectMethod(object, "TrueItem(Index as integer) as Folderitem");
  FSRef ref;
  host.refFromItem(object, &ref, nullptr);
  return send<id>(asObject(CFURLCreateFromFSRef(nullptr, &ref)), sel.autorelease);
}

id fromWrapper(Object* object) {
  askObject(object);
  return record<id>(object);
}

template <class Struct, SEL Selectors::*Message> id fromStruct(Object* object) {
  askObject(object);
  return send<id>(cls.NSValue, sel.*Message, record<Struct>(object));
}

template <SEL Selectors::*Message> id fromTime(Object* object) {
  askObject(object);
  return send<id>(cls.NSValue, sel.*Message, object);
}

id fromOther(Object* object) {
  askObject(object);
  return send<id>(cls.KVZREALobjectWrapper, sel.wrap, object);
}

template <Convert Value> inline id dictionary(Object* source) {
  using Getter = Object* (*)(Object*, Object*);
  using KeyGetter = Object* (*)(Object*, std::int32_t);
  std::int32_t count = 0;
  host.getInt32(source, "Count", &count);
  id result = send<id>(cls.NSMutableDictionary, sel.dictionaryWithCapacity, count);
  host.loadObjectMethod(source, "Value(key As Variant, Assigns _value As Variant)");
  auto get =
      reinterpret_cast<Getter>(host.loadObjectMethod(source, "Value(key As Variant) As Variant"));
  auto getKey = reinterpret_cast<KeyGetter>(
      host.loadObjectMethod(source, "Key(index As Integer) As Variant"));
  for (std::int32_t i = 0; i < count; ++i) {
    Object* key = getKey(source, i);
    Object* value = get(source, key);
    id cocoaKey = fromString(key);
    id cocoaValue = Value(value);
    send<void>(result, sel.setObject, cocoaValue, cocoaKey);
    host.unlockObject(key);
    host.unlockObject(value);
  }
  return result;
}

id fromDictionary(Object* object) {
  askObject(object);
  return dictionary<fromString>(object);
}

// --- The callback. ---

template <Convert Value> id feedParameters(id, SEL, id, BOOL sending) {
  using Handler = Object* (*)(void*, Boolean1);
  id result = nullptr;
  FRAME(auto handler =
            reinterpret_cast<Handler>(host.getEventInstance(facts->target, facts->feedEvent));
        Object* array = handler(facts->target, static_cast<Boolean1>(sending));
        int last = host.upperBound(array);
        result = send<id>(cls.NSMutableArray, sel.arrayWithCapacity, last + 1);
        for (int i = 0; i <= last; ++i) {
          auto* entry = element<Object*>(array, i);
          send<void>(result, sel.addObject, dictionary<Value>(entry));
          host.unlockObject(entry);
        } host.unlockObject(array););
  return result;
}

} // namespace

#define VALUES(name, ...)                                                                          \
  FLOOR("feed: " name, (feedParameters<fromArray<fromVariant<__VA_ARGS__>>>))
#define ELEMENTS(name, ...) FLOOR("feed: " name, (feedParameters<fromArray<__VA_ARGS__>>))

const Function toCocoaFunctions[] = {
    FLOOR("not found", notFound),
    FLOOR("found", found),
    FLOOR("feed", feedParameters<fromString>),
    VALUES("string", fromString),
    VALUES("int32", fromNumber<long, &Selectors::numberWithLong, &Host::variantInt32>),
    VALUES("int64", fromNumber<long long, &Selectors::numberWithLongLong, &Host::variantInt64>),
    VALUES("single", fromNumber<float, &Selectors::numberWithFloat, &Host::variantSingle>),
    VALUES("double", fromNumber<double, &Selectors::numberWithDouble, &Host::variantDouble>),
    VALUES("boolean", fromNumber<BOOL, &Selectors::numberWithBool, &Host::variantInt32>),
    VALUES("date", fromDate),
    VALUES("array of strings", fromArray<fromVariant<fromString>>),
    ELEMENTS("int32 elements", fromElement<std::int32_t, long, &Selectors::numberWithLong>),
    ELEMENTS("int64 elements",
             fromElement<std::int64_t, long long, &Selectors::numberWithLongLong>),
    ELEMENTS("single elements", fromElement<float, float, &Selectors::numberWithFloat>),
    ELEMENTS("double elements", fromElement<double, double, &Selectors::numberWithDouble>),
    ELEMENTS("boolean elements", fromElement<Boolean1, BOOL, &Selectors::numberWithBool>),
    ELEMENTS("string elements", fromTextElement),
    ELEMENTS("date elements", fromDateElement),
    VALUES("memory block", fromMemoryBlock),
    VALUES("folder item", fromFolderItem),
    VALUES("dictionary", fromDictionary),
    VALUES("wrapper", fromWrapper),
    VALUES("size", fromStruct<NSSize, &Selectors::valueWithSize>),
    VALUES("rect", fromStruct<NSRect, &Selectors::valueWithRect>),
    VALUES("range", fromStruct<NSRange, &Selectors::valueWithRange>),
    VALUES("point", fromStruct<NSPoint, &Selectors::valueWithPoint>),
    VALUES("QTTime", fromTime<&Selectors::valueWithTime>),
    VALUES("QTTimeRange", fromTime<&Selectors::valueWithTimeRange>),
    VALUES("CMTime", fromTime<&Selectors::valueWithMediaTime>),
    VALUES("CMTimeRange", fromTime<&Selectors::valueWithMediaTimeRange>),
    VALUES("CMTimeMapping", fromTime<&Selectors::valueWithMediaTimeMapping>),
    VALUES("other object", fromOther),
    {},
};

} // namespace floors

extern "C" [[gnu::visibility("default")]] void* floorDelegate() {
  using namespace floors;
  static Class type;
  if (!type) {
    type = objc_allocateClassPair(objc_getClass("NSObject"), "BenchFloorDelegate", 0);
    class_addMethod(type, sel.notFoundHalf, reinterpret_cast<IMP>(notFoundOnMain), "v12@0:4@8");
    class_addMethod(type, sel.foundHalf, reinterpret_cast<IMP>(foundOnMain), "v12@0:4@8");
    objc_registerClassPair(type);
  }
  return send<id>(send<id>(asObject(type), sel.alloc), sel.init);
}
