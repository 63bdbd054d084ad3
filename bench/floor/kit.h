// Shared by the floors only: everything they use, ready by name.
#pragma once

#include "bench/floor/floor.h"

#include "cocoa/core_foundation.h"
#include "cocoa/message.h"
#include "cocoa/objc.h"
#include "convert/structs.h"

#include <setjmp.h>
#include <string.h>

namespace floors {

struct Object;
struct String;
using Boolean1 = unsigned char; // the host's

// clang-format off
#define FLOOR_OPERATIONS(OPERATION)                                                                \
  OPERATION(registerClass, "PluginRegisterClass", void, (void*))                                   \
  OPERATION(lockObject, "REALLockObject", void, (Object*))                                         \
  OPERATION(unlockObject, "REALUnlockObject", void, (Object*))                                     \
  OPERATION(newInstance, "PluginNewInstance", Object*, (const char*))                              \
  OPERATION(getEventInstance, "GetEventInstance", void*, (void*, std::uint32_t))                   \
  OPERATION(isA, "RuntimeObjectIsa", Boolean1, (Object*, void*))                                   \
  OPERATION(unlockString, "REALUnlockString", void, (String*))                                     \
  OPERATION(buildString, "REALBuildString", String*, (const char*, int))                           \
  OPERATION(setStringEncoding, "REALSetStringEncoding", void, (String*, std::uint32_t))            \
  OPERATION(stringCFString, "REALGetStringCFString", CFStringRef, (String*, int))                  \
  OPERATION(loadObjectMethod, "REALLoadObjectMethod", void*, (Object*, const char*))               \
  OPERATION(loadGlobalMethod, "REALLoadGlobalMethod", void*, (const char*, void*))                 \
  OPERATION(setInt32, "REALSetPropValueInt", void, (Object*, const char*, std::int32_t))           \
  OPERATION(getInt32, "REALGetPropValueInt", Boolean1, (Object*, const char*, std::int32_t*))      \
  OPERATION(getObject, "REALGetPropValueObject", Boolean1, (Object*, const char*, Object**))       \
  OPERATION(stringVariant, "StringToVariant", Object*, (String*))                                  \
  OPERATION(int32Variant, "Int32ToVariant", Object*, (std::int32_t))                               \
  OPERATION(uint32Variant, "UInt32ToVariant", Object*, (std::uint32_t))                            \
  OPERATION(int64Variant, "Int64ToVariant", Object*, (std::int64_t))                               \
  OPERATION(uint64Variant, "UInt64ToVariant", Object*, (std::uint64_t))                            \
  OPERATION(singleVariant, "SingleToVariant", Object*, (float))                                    \
  OPERATION(doubleVariant, "DoubleToVariant", Object*, (double))                                   \
  OPERATION(booleanVariant, "BooleanToVariant", Object*, (Boolean1))                               \
  OPERATION(variantString, "VariantToString", String*, (Object*))                                  \
  OPERATION(variantInt32, "VariantToInt32", std::int32_t, (Object*))                               \
  OPERATION(variantInt64, "VariantToInt64", std::int64_t, (Object*))                               \
  OPERATION(variantSingle, "VariantToSingle", float, (Object*))                                    \
  OPERATION(variantDouble, "VariantToDouble", double, (Object*))                                   \
  OPERATION(createArray, "RuntimeArrayCreateSingleDimBoundedArray", Object*, (int, int))           \
  OPERATION(upperBound, "RuntimeUBound", int, (Object*))                                           \
  OPERATION(insertProc, "RuntimeArrayDirectGetInsertProc", void*, (Object*))                       \
  OPERATION(getProc, "RuntimeArrayDirectGetGetProc", void*, (Object*))                             \
  OPERATION(newMemoryBlock, "newMemoryBlock", Object*, (int))                                      \
  OPERATION(memoryBlockPointer, "memoryBlockGetPtr", void*, (Object*))                             \
  OPERATION(memoryBlockSize, "memoryBlockGetSize", int, (Object*))                                 \
  OPERATION(refFromItem, "REALFSRefFromFolderItem", Boolean1, (Object*, FSRef*, HFSUniStr255*))    \
  OPERATION(itemFromParent, "REALFolderItemFromParentFSRef", Object*, (const FSRef*, const HFSUniStr255*))

#define FLOOR_SELECTORS(SELECTOR)                                                                  \
  SELECTOR(absoluteString, "absoluteString")                                                       \
  SELECTOR(addObject, "addObject:")                                                                \
  SELECTOR(allKeys, "allKeys")                                                                     \
  SELECTOR(allObjects, "allObjects")                                                               \
  SELECTOR(alloc, "alloc")                                                                         \
  SELECTOR(array, "array")                                                                         \
  SELECTOR(arrayWithCapacity, "arrayWithCapacity:")                                                \
  SELECTOR(autorelease, "autorelease")                                                             \
  SELECTOR(boolValue, "boolValue")                                                                 \
  SELECTOR(bytes, "bytes")                                                                         \
  SELECTOR(cfTypeID, "_cfTypeID")                                                                  \
  SELECTOR(count, "count")                                                                         \
  SELECTOR(dataWithBytes, "dataWithBytes:length:")                                                 \
  SELECTOR(dateWith, "dateWithYear:month:day:hour:minute:second:timeZone:")                        \
  SELECTOR(dayOfMonth, "dayOfMonth")                                                               \
  SELECTOR(dictionaryWithCapacity, "dictionaryWithCapacity:")                                      \
  SELECTOR(doubleValue, "doubleValue")                                                             \
  SELECTOR(feedURL, "feedURL")                                                                     \
  SELECTOR(flag, "automaticallyChecksForUpdates")                                                  \
  SELECTOR(floatValue, "floatValue")                                                               \
  SELECTOR(foundHalf, "updater_didFindValidUpdate_on_mail_thread:")                                \
  SELECTOR(getRegistry, "GetInstancesDictionaryKVZ")                                               \
  SELECTOR(hourOfDay, "hourOfDay")                                                                 \
  SELECTOR(init, "init")                                                                           \
  SELECTOR(initDate, "initWithTimeIntervalSinceReferenceDate:")                                    \
  SELECTOR(intValue, "intValue")                                                                   \
  SELECTOR(isKindOf, "isKindOfClass:")                                                             \
  SELECTOR(items, "items")                                                                         \
  SELECTOR(length, "length")                                                                       \
  SELECTOR(localTimeZone, "localTimeZone")                                                         \
  SELECTOR(longLongValue, "longLongValue")                                                         \
  SELECTOR(longValue, "longValue")                                                                 \
  SELECTOR(minuteOfHour, "minuteOfHour")                                                           \
  SELECTOR(monthOfYear, "monthOfYear")                                                             \
  SELECTOR(nextObject, "nextObject")                                                               \
  SELECTOR(notFoundHalf, "updaterDidNotFindUpdate_on_mail_thread:")                                \
  SELECTOR(null, "null")                                                                           \
  SELECTOR(numberWithBool, "numberWithBool:")                                                      \
  SELECTOR(numberWithDouble, "numberWithDouble:")                                                  \
  SELECTOR(numberWithFloat, "numberWithFloat:")                                                    \
  SELECTOR(numberWithLong, "numberWithLong:")                                                      \
  SELECTOR(numberWithLongLong, "numberWithLongLong:")                                              \
  SELECTOR(objCType, "objCType")                                                                   \
  SELECTOR(objectAtIndex, "objectAtIndex:")                                                        \
  SELECTOR(objectEnumerator, "objectEnumerator")                                                   \
  SELECTOR(objectForKey, "objectForKey:")                                                          \
  SELECTOR(performOnMain, "performSelectorOnMainThread:withObject:waitUntilDone:")                 \
  SELECTOR(pointValue, "pointValue")                                                               \
  SELECTOR(propertiesDictionary, "propertiesDictionary")                                           \
  SELECTOR(rangeValue, "rangeValue")                                                               \
  SELECTOR(rectValue, "rectValue")                                                                 \
  SELECTOR(release, "release")                                                                     \
  SELECTOR(respondsTo, "respondsToSelector:")                                                      \
  SELECTOR(retain, "retain")                                                                       \
  SELECTOR(secondOfMinute, "secondOfMinute")                                                       \
  SELECTOR(setFeedURL, "setFeedURL:")                                                              \
  SELECTOR(setFlag, "setAutomaticallyChecksForUpdates:")                                           \
  SELECTOR(setObject, "setObject:forKey:")                                                         \
  SELECTOR(setUserAgent, "setUserAgentString:")                                                    \
  SELECTOR(shortValue, "shortValue")                                                               \
  SELECTOR(sinceReferenceDate, "timeIntervalSinceReferenceDate")                                   \
  SELECTOR(sizeValue, "sizeValue")                                                                 \
  SELECTOR(timeValue, "QTTimeValueKVZ")                                                            \
  SELECTOR(timeRangeValue, "QTTimeRangeValueKVZ")                                                  \
  SELECTOR(mediaTimeValue, "CMTimeValueKVZ")                                                       \
  SELECTOR(mediaTimeRangeValue, "CMTimeRangeValueKVZ")                                             \
  SELECTOR(mediaTimeMappingValue, "CMTimeMappingValueKVZ")                                         \
  SELECTOR(title, "title")                                                                         \
  SELECTOR(unsignedCharValue, "unsignedCharValue")                                                 \
  SELECTOR(unsignedIntValue, "unsignedIntValue")                                                   \
  SELECTOR(unsignedLongValue, "unsignedLongValue")                                                 \
  SELECTOR(unsignedShortValue, "unsignedShortValue")                                               \
  SELECTOR(unwrap, "unwrap")                                                                       \
  SELECTOR(valueWithPoint, "valueWithPoint:")                                                      \
  SELECTOR(valueWithRange, "valueWithRange:")                                                      \
  SELECTOR(valueWithRect, "valueWithRect:")                                                        \
  SELECTOR(valueWithSize, "valueWithSize:")                                                        \
  SELECTOR(valueWithTime, "valueWithQTTimeKVZ:")                                                   \
  SELECTOR(valueWithTimeRange, "valueWithQTTimeRangeKVZ:")                                         \
  SELECTOR(valueWithMediaTime, "valueWithCMTimeKVZ:")                                              \
  SELECTOR(valueWithMediaTimeRange, "valueWithCMTimeRangeKVZ:")                                    \
  SELECTOR(valueWithMediaTimeMapping, "valueWithCMTimeMappingKVZ:")                                \
  SELECTOR(wrap, "wrap:")                                                                          \
  SELECTOR(yearOfCommonEra, "yearOfCommonEra")

#define FLOOR_CLASSES(CLASS)                                                                       \
  CLASS(NSCalendarDate) CLASS(NSData) CLASS(NSException) CLASS(NSMutableArray)                     \
  CLASS(NSMutableDictionary) CLASS(NSNull) CLASS(NSNumber) CLASS(NSTimeZone) CLASS(NSValue)        \
  CLASS(KVZREALobjectWrapper)
// clang-format on

struct Host {
#define FIELD(field, name, result, arguments) result(*field) arguments;
  FLOOR_OPERATIONS(FIELD)
#undef FIELD
  std::int32_t (*varType)(Object*);
};

struct Selectors {
#define FIELD(field, text) SEL field;
  FLOOR_SELECTORS(FIELD)
#undef FIELD
};

struct Classes {
#define FIELD(name) id name;
  FLOOR_CLASSES(FIELD)
#undef FIELD
};

extern Host host;
extern Selectors sel;
extern Classes cls;
extern id rules[kRuleClasses];
extern CFMutableDictionaryRef registry;
extern const FloorFacts* facts;
extern const char* const* wrapperNames;
extern unsigned classTests;

// The members' own frame. The body is an argument, so that it stands in the function itself.
#define FRAME(...)                                                                                 \
  do {                                                                                             \
    ExceptionFrame frame;                                                                          \
    objc_exception_try_enter(&frame);                                                              \
    if (_setjmp(*reinterpret_cast<jmp_buf*>(&frame.buffer)) == 0) {                                \
      __VA_ARGS__                                                                                  \
      objc_exception_try_exit(&frame);                                                             \
    }                                                                                              \
  } while (0)

template <class Record> inline Record& record(Object* instance) {
  return *reinterpret_cast<Record*>(reinterpret_cast<char*>(instance) + facts->recordOffset);
}

struct Function {
  const char* name;
  void* address;
};
#define FLOOR(name, function)                                                                      \
  { name, reinterpret_cast<void*>(function) }

extern const Function memberFunctions[];
extern const Function toHostFunctions[];
extern const Function toCocoaFunctions[];

// A new host string in UTF-8 with the Cocoa string's text.
String* newString(id text);

// The instance of the class that wraps the object: the registered one, or a new one.
Object* wrapItem(id object);

} // namespace floors
