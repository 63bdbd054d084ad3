// Cocoa to host: NewVariantFromNSObject.

#include "cocoa/exceptions.h"
#include "convert/cf_types.h"
#include "convert/dates.h"
#include "convert/dictionaries.h"
#include "convert/files.h"
#include "convert/registry.h"
#include "convert/strings.h"
#include "convert/structs.h"
#include "convert/variants.h"
#include "plugin/registration.h"

#include <string.h>

namespace {

// The instance takes over a retain of the object; without an instance the retain is given back.
// Callers retain first: nothing may throw between making an instance and handing it out.
REALobjectStruct* holding(REALobjectStruct* instance, id retained) {
  if (instance) {
    familyRecord<id>(instance) = retained;
  } else {
    send<void>(retained, "release"_sel);
  }
  return instance;
}

// Longer class names have no wrapper class.
constexpr std::size_t kLongestClassName = 199;

// A wrapper of the object's class, or else of the nearest superclass for which the host has one.
REALobjectStruct* wrappedByClass(id object) {
  send<id>(object, "retain"_sel);
  REALobjectStruct* instance = nullptr;
  for (Class type = object_getClass(object); type && !instance; type = class_getSuperclass(type)) {
    const char* name = class_getName(type);
    std::size_t length = strlen(name);
    char wrapperName[kLongestClassName + sizeof "KVZ"];
    if (length + sizeof "KVZ" > sizeof wrapperName) continue;
    memcpy(wrapperName, name, length);
    memcpy(wrapperName + length, "KVZ", sizeof "KVZ");
    instance = REALnewInstance(wrapperName);
  }
  return holding(instance, object);
}

REALobjectStruct* variantFromText(id text) {
  REALstringStruct* string = CFString2RBString(asString(text));
  REALobjectStruct* variant = REALNewVariantString(string);
  unlock(string);
  return variant;
}

// One rule for what is of a Cocoa class. wrapperName serves the rules that wrap by a fixed name.
struct ClassRule {
  const char* cocoaClass;
  REALobjectStruct* (*convert)(id object, const ClassRule& rule, Nesting nesting);
  const char* wrapperName;
  Class known; // once found
};

REALobjectStruct* fromElements(id collection, const ClassRule&, Nesting nesting) {
  nesting = nesting.deeper();
  if (*nesting.ended) return nullptr;
  REALarrayStruct* array = REALCreateArray(kArrayOfObjects, -1);
  if (!array) return nullptr;
  REALobjectStruct* element = nullptr;
  id thrown = attempt([&] {
    id enumerator = send<id>(collection, "objectEnumerator"_sel);
    int index = 0;
    while (id object = send<id>(enumerator, "nextObject"_sel)) {
      element = NewVariantFromNSObject(object, nesting);
      if (*nesting.ended) return;
      REALInsertArrayValueObject(array, index++, element);
      unlock(element);
    }
  });
  if (!thrown && !*nesting.ended) return asHostObject(array);
  unlock(element);
  unlock(array);
  if (thrown) objc_exception_throw(thrown);
  return nullptr;
}

REALobjectStruct* fromSet(id set, const ClassRule& rule, Nesting nesting) {
  id elements = send<id>(set, "allObjects"_sel);
  return fromElements(elements, rule, nesting);
}

REALobjectStruct* fromString(id string, const ClassRule&, Nesting) {
  return variantFromText(string);
}

REALobjectStruct* fromData(id data, const ClassRule&, Nesting nesting) {
  return NSDataRB(data, nesting.ended);
}

REALobjectStruct* fromDate(id date, const ClassRule&, Nesting) { return NSDateRB(date); }

REALobjectStruct* fromDictionary(id dictionary, const ClassRule&, Nesting nesting) {
  return NSDictionaryRB(dictionary, nesting);
}

template <class Value, Literal Message, auto& Make> REALobjectStruct* number(id object) {
  return Make(send<Value>(object, operator""_sel<Message>()));
}

struct NumberRule {
  const char* objCType;
  REALobjectStruct* (*convert)(id number);
};

// The first code that fits; any other is read as a double.
constexpr NumberRule numberRules[] = {
    {"c", number<RBBoolean, "boolValue", REALNewVariantBoolean>},
    {"C", number<unsigned char, "unsignedCharValue", REALNewVariantInteger>},
    {"s", number<short, "shortValue", REALNewVariantInteger>},
    {"S", number<unsigned short, "unsignedShortValue", REALNewVariantInteger>},
    {"i", number<int, "intValue", REALNewVariantInteger>},
    {"I", number<unsigned int, "unsignedIntValue", REALNewVariantUInt32>},
    {"l", number<long, "longValue", REALNewVariantInteger>},
    {"L", number<unsigned long, "unsignedLongValue", REALNewVariantUInt32>},
    {"q", number<long long, "longLongValue", REALNewVariantInt64>},
    // 32 bits, on purpose: what does not fit them is cut off.
    {"Q", number<unsigned long, "unsignedLongValue", REALNewVariantUInt64>},
    {"f", number<float, "floatValue", REALNewVariantSingle>},
};

REALobjectStruct* fromNumber(id object, const ClassRule&, Nesting) {
  const char* type = send<const char*>(object, "objCType"_sel);
  for (const NumberRule& rule : numberRules) {
    if (strcmp(type, rule.objCType) == 0) return rule.convert(object);
  }
  return number<double, "doubleValue", REALNewVariantDouble>(object);
}

REALobjectStruct* byClass(id object, const ClassRule&, Nesting) { return wrappedByClass(object); }

// An object that already has an instance never comes here: the registry was asked before.
REALobjectStruct* byName(id object, const ClassRule& rule, Nesting) {
  send<id>(object, "retain"_sel);
  REALobjectStruct* instance = holding(REALnewInstance(rule.wrapperName), object);
  if (instance) enterInstance(object, instance);
  return instance;
}

REALobjectStruct* fromURL(id url, const ClassRule&, Nesting) {
  if (REALfolderItemStruct* item = CFURL2RBFile(asURL(url))) return asHostObject(item);
  return variantFromText(send<id>(url, "absoluteString"_sel));
}

REALobjectStruct* unwrapped(id wrapper, const ClassRule&, Nesting) {
  return send<REALobjectStruct*>(wrapper, "unwrap"_sel);
}

template <class Struct, Literal Message>
REALobjectStruct* structWrapper(id value, const char* wrapperName) {
  auto content = send<Struct>(value, operator""_sel<Message>());
  REALobjectStruct* instance = REALnewInstance(wrapperName);
  if (instance) familyRecord<Struct>(instance) = content;
  return instance;
}

// Another plug-in of the family adds the message to NSValue, and makes the whole host object.
template <Literal Message> REALobjectStruct* fromCategory(id value, const char*) {
  SEL message = operator""_sel<Message>();
  return responds(value, message) ? send<REALobjectStruct*>(value, message) : nullptr;
}

struct ValueRule {
  const char* objCType;
  REALobjectStruct* (*convert)(id value, const char* wrapperName);
  const char* wrapperName;
};

constexpr ValueRule valueRules[] = {
    {"{_NSRect={_NSPoint=ff}{_NSSize=ff}}", structWrapper<NSRect, "rectValue">, "NSRectKVZ"},
    {"{_NSSize=ff}", structWrapper<NSSize, "sizeValue">, "NSSizeKVZ"},
    {"{_NSRange=II}", structWrapper<NSRange, "rangeValue">, "NSRangeKVZ"},
    {"{_NSPoint=ff}", structWrapper<NSPoint, "pointValue">, "NSPointKVZ"},
    {"{?=qll}", fromCategory<"QTTimeValueKVZ">, nullptr},
    {"{?={?=qll}{?=qll}}", fromCategory<"QTTimeRangeValueKVZ">, nullptr},
    {"{?=qiIq}", fromCategory<"CMTimeValueKVZ">, nullptr},
    {"{?={?=qiIq}{?=qiIq}}", fromCategory<"CMTimeRangeValueKVZ">, nullptr},
    {"{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", fromCategory<"CMTimeMappingValueKVZ">,
     nullptr},
};

REALobjectStruct* fromValue(id value, const ClassRule&, Nesting) {
  const char* type = send<const char*>(value, "objCType"_sel);
  for (const ValueRule& rule : valueRules) {
    if (strcmp(type, rule.objCType) == 0) return rule.convert(value, rule.wrapperName);
  }
  return nullptr;
}

// The order is part of the design. A class that is not loaded matches nothing, and is asked for
// again.
ClassRule classRules[] = {
    {"NSArray", fromElements, nullptr, nullptr},
    {"NSSet", fromSet, nullptr, nullptr},
    {"NSString", fromString, nullptr, nullptr},
    {"NSData", fromData, nullptr, nullptr},
    {"NSNumber", fromNumber, nullptr, nullptr},
    {"NSDate", fromDate, nullptr, nullptr},
    {"NSDictionary", fromDictionary, nullptr, nullptr},
    {"NSAttributedString", byClass, nullptr, nullptr},
    {"NSCalendar", byName, "NSCalendarKVZ", nullptr},
    {"NSError", byName, "NSErrorKVZ", nullptr},
    {"NSRunningApplication", byName, "NSRunningApplicationKVZ", nullptr},
    {"NSFont", byName, "NSFontKVZ", nullptr},
    {"NSFileHandle", byName, "NSFileHandleKVZ", nullptr},
    {"NSCharacterSet", byName, "NSCharacterSetKVZ", nullptr},
    {"NSLocale", byName, "NSLocaleKVZ", nullptr},
    {"NSTimer", byName, "NSTimerKVZ", nullptr},
    {"NSTimeZone", byName, "NSTimeZoneKVZ", nullptr},
    {"NSParagraphStyle", byName, "NSParagraphStyleKVZ", nullptr},
    {"NSURL", fromURL, nullptr, nullptr},
    {"KVZREALobjectWrapper", unwrapped, nullptr, nullptr},
    {"NSValue", fromValue, nullptr, nullptr},
};

struct CFWrapper {
  CFTypeRef object;
  std::uint32_t unused;
  std::uint32_t tag;
};

constexpr std::uint32_t kCFWrapperTag = 0x52424346; // "RBCF"

REALobjectStruct* wrappedImage(CFTypeRef image, const char* wrapperName) {
  CGImageRetain(image);
  REALobjectStruct* instance = REALnewInstance(wrapperName);
  if (instance) {
    familyRecord<CFTypeRef>(instance) = image;
  } else {
    CFRelease(image);
  }
  return instance;
}

REALobjectStruct* wrappedCFObject(CFTypeRef object) {
  const CFTypeRule* rule = cfTypeRule(CFGetTypeID(object));
  if (rule && rule->isImage) return wrappedImage(object, rule->wrapperName);
  CFRetain(object);
  REALobjectStruct* instance = rule ? REALnewInstance(rule->wrapperName) : nullptr;
  if (!instance) instance = REALnewInstance("CFObjectKVZ");
  if (instance && familyRecord<CFWrapper>(instance).tag == kCFWrapperTag) {
    familyRecord<CFWrapper>(instance).object = object;
    return instance;
  }
  unlock(instance);
  CFRelease(object);
  return nullptr;
}

// False when the object is no Core Foundation object, or its rule ended in an NSException.
bool convertCFObject(id object, REALobjectStruct** result) {
  bool applies = false;
  id thrown = attempt([&] {
    if (!responds(object, "_cfTypeID"_sel)) return;
    if (send<std::int32_t>(object, "_cfTypeID"_sel) <= 0) return;
    *result = wrappedCFObject(object);
    applies = true;
  });
  if (thrown && !isNSException(thrown)) objc_exception_throw(thrown);
  return applies;
}

} // namespace

REALobjectStruct* NewVariantFromNSObject(id object, Nesting nesting) {
  if (!object || object == send<id>("NSNull"_class, "null"_sel)) return nullptr;
  if (REALobjectStruct* instance = registeredInstance(object)) {
    REALLockObject(instance);
    return instance;
  }
  for (ClassRule& rule : classRules) {
    Class type = found(rule.known, [&] { return objc_getClass(rule.cocoaClass); });
    if (type && isKindOf(object, asObject(type))) return rule.convert(object, rule, nesting);
  }
  REALobjectStruct* result = nullptr;
  if (convertCFObject(object, &result)) return result;
  return wrappedByClass(object);
}
