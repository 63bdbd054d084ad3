// Host to Cocoa: GetVariantAsNSObject.

#include "cocoa/exceptions.h"
#include "convert/dates.h"
#include "convert/dictionaries.h"
#include "convert/files.h"
#include "convert/strings.h"
#include "convert/structs.h"
#include "convert/variants.h"
#include "plugin/registration.h"

#include <string.h>

namespace {

// What a property of the variant's says, for hosts without the operation that reads it; zero when
// it cannot be read.
template <class Value, auto& Operation, auto& Property>
Value read(REALobjectStruct* variant, const char* property) {
  if (Operation.resolve()) return Operation(variant);
  Value value{};
  Property(variant, property, &value);
  return value;
}

std::int32_t int32Of(REALobjectStruct* variant) {
  return read<std::int32_t, GetVariantInt32, REALGetPropValueInt32>(variant, "Int32Value");
}

template <class Value> id makeNumber(SEL message, Value value) {
  return send<id>("NSNumber"_class, message, value);
}

id fromInt32(REALobjectStruct* variant) {
  return makeNumber("numberWithLong:"_sel, static_cast<long>(int32Of(variant)));
}

id fromInt64(REALobjectStruct* variant) {
  return makeNumber(
      "numberWithLongLong:"_sel,
      read<std::int64_t, GetVariantInt64, REALGetPropValueInt64>(variant, "LongValue"));
}

id fromSingle(REALobjectStruct* variant) {
  return makeNumber("numberWithFloat:"_sel,
                    read<float, GetVariantSingle, REALGetPropValueSingle>(variant, "SingleValue"));
}

id fromDouble(REALobjectStruct* variant) {
  return makeNumber("numberWithDouble:"_sel,
                    read<double, GetVariantDouble, REALGetPropValueDouble>(variant, "DoubleValue"));
}

id fromBoolean(REALobjectStruct* variant) {
  return makeNumber("numberWithBool:"_sel, static_cast<BOOL>(int32Of(variant) != 0));
}

// Takes over the host string.
id fromOwnedString(REALstringStruct* string) {
  CFStringRef text = RBString2CFString(string);
  unlock(string);
  return send<id>(asObject(text), "autorelease"_sel);
}

// Takes over the host date.
id fromOwnedDate(REALobjectStruct* date) {
  DateFields fields;
  bool complete = readDateFields(reinterpret_cast<_REALdate*>(date), &fields);
  unlock(date);
  return complete ? NewNSDate(fields) : nullptr;
}

id fromString(REALobjectStruct* variant) {
  return fromOwnedString(
      read<REALstringStruct*, GetVariantString, REALGetPropValueString>(variant, "StringValue"));
}

id fromDate(REALobjectStruct* variant) {
  REALobjectStruct* date = nullptr;
  REALGetPropValueObject(variant, "DateValue", &date);
  return fromOwnedDate(date);
}

struct ScalarRule {
  std::int32_t code;
  id (*convert)(REALobjectStruct* variant);
};

// By the host's type code. A code that stands in no table gives nil.
constexpr ScalarRule scalarRules[] = {
    {2, fromInt32},   {16, fromInt32},  {3, fromInt64},   {4, fromSingle},   {5, fromDouble},
    {6, fromDouble},  {7, fromDate},    {8, fromString},  {18, fromString},  {19, fromString},
    {20, fromString}, {21, fromString}, {23, fromString}, {11, fromBoolean},
};

// Arrays: the code of the element type on top of 4096.
struct ArrayRule {
  std::int32_t code;
  id (*element)(REALarrayStruct* array, int index, Nesting nesting);
};

id int32Element(REALarrayStruct* array, int index, Nesting) {
  return makeNumber("numberWithLong:"_sel, static_cast<long>(REALGetArrayValueInt32(array, index)));
}

id int64Element(REALarrayStruct* array, int index, Nesting) {
  return makeNumber("numberWithLongLong:"_sel, REALGetArrayValueInt64(array, index));
}

id singleElement(REALarrayStruct* array, int index, Nesting) {
  return makeNumber("numberWithFloat:"_sel, REALGetArrayValueSingle(array, index));
}

id doubleElement(REALarrayStruct* array, int index, Nesting) {
  return makeNumber("numberWithDouble:"_sel, REALGetArrayValueDouble(array, index));
}

id booleanElement(REALarrayStruct* array, int index, Nesting) {
  return makeNumber("numberWithBool:"_sel,
                    static_cast<BOOL>(REALGetArrayValueUInt8(array, index) != 0));
}

id dateElement(REALarrayStruct* array, int index, Nesting) {
  return fromOwnedDate(REALGetArrayValueObject(array, index));
}

id stringElement(REALarrayStruct* array, int index, Nesting) {
  return fromOwnedString(REALGetArrayValueString(array, index));
}

id objectElement(REALarrayStruct* array, int index, Nesting nesting) {
  REALobjectStruct* element = REALGetArrayValueObject(array, index);
  id result = nullptr;
  id thrown = attempt([&] { result = GetVariantAsNSObject(element, nesting); });
  unlock(element);
  if (thrown) objc_exception_throw(thrown);
  return result;
}

constexpr ArrayRule arrayRules[] = {
    {4098, int32Element}, {4099, int64Element},  {4100, singleElement}, {4101, doubleElement},
    {4103, dateElement},  {4104, stringElement}, {4105, objectElement}, {4107, booleanElement},
};

id fromArray(REALarrayStruct* array, const ArrayRule& rule, Nesting nesting) {
  nesting = nesting.deeper();
  id result = send<id>("NSMutableArray"_class, "array"_sel);
  int last = REALGetArrayUBound(array);
  for (int i = 0; i <= last; ++i) {
    id element = *nesting.ended ? nullptr : rule.element(array, i, nesting);
    if (*nesting.ended) return nullptr;
    // A nil element goes to addObject: as it is: Cocoa raises, and the host program learns of it.
    send<void>(result, "addObject:"_sel, element);
  }
  return result;
}

// Whether a host object is of the named class. A host's classes never go away, so a class is
// remembered once found; a miss is asked for again.
bool isOfClass(REALobjectStruct* object, const char* name, void*& known) {
  void* type = found(known, [&] { return REALGetClassRef(name); });
  return type && REALObjectIsA(object, type);
}

id fromMemoryBlock(REALobjectStruct* object) {
  auto* block = reinterpret_cast<REALmemoryBlockStruct*>(object);
  const void* bytes = REALMemoryBlockGetPtr(block);
  int size = REALMemoryBlockGetSize(block);
  // A negative size is one that the host does not know.
  if (size < 0 || (size > 0 && !bytes)) return nullptr;
  return send<id>("NSData"_class, "dataWithBytes:length:"_sel, bytes,
                  static_cast<std::uint32_t>(size));
}

id fromFolderItem(REALobjectStruct* object) {
  CFURLRef url = CreateCFURLfromFolderItem(reinterpret_cast<REALfolderItemStruct*>(object));
  return send<id>(asObject(url), "autorelease"_sel);
}

// A Cocoa object or Core Foundation reference, which stays the wrapper's.
id firstField(REALobjectStruct* object) { return familyRecord<id>(object); }

template <class Struct, Literal Message> id structValue(REALobjectStruct* object) {
  return send<id>("NSValue"_class, operator""_sel<Message>(), familyRecord<Struct>(object));
}

// Another plug-in of the family adds the message to NSValue, and reads its own instance.
template <Literal Message> id fromCategory(REALobjectStruct* object) {
  return send<id>("NSValue"_class, operator""_sel<Message>(), object);
}

// Host classes whose instances are converted alike, by name, and how. Tested in this order. A class
// catches the subclasses of it that stand further down; that NSObjectKVZ stands fourth is meant.
struct ObjectRule {
  const char* hostClasses; // each ends in a NUL; an empty one ends the list
  id (*convert)(REALobjectStruct* object);
};

constexpr ObjectRule objectRules[] = {
    {"NSPathComponentCellKVZ\0"
     "NSPathCellKVZ\0"
     "NSPathControlKVZ\0"
     "NSObjectKVZ\0"
     "NSPipeKVZ\0"
     "NSTaskKVZ\0"
     "NSFileHandleKVZ\0"
     "NSClipViewKVZ\0"
     "NSAnimationKVZ\0"
     "NSCoderKVZ\0"
     "NSTimeZoneKVZ\0"
     "NSDateComponentsKVZ\0"
     "NSAnimationContextKVZ\0"
     "NSTimerKVZ\0"
     "NSBoxKVZ\0"
     "NSComboBoxKVZ\0"
     "NSImageViewKVZ\0"
     "NSPopUpButtonKVZ\0"
     "NSTextFieldKVZ\0"
     "NSSearchFieldCellKVZ\0"
     "NSSecureTextFieldKVZ\0"
     "NSSecureTextFieldCellKVZ\0"
     "NSApplicationKVZ\0"
     "NSSearchFieldKVZ\0"
     "NSTabViewKVZ\0"
     "NSTabViewItemKVZ\0"
     "NSStepperKVZ\0"
     "NSURLRequestKVZ\0"
     "NSURLDownloadKVZ\0"
     "NSURLConnectionKVZ\0"
     "NSFontPanelKVZ\0"
     "NSFontManagerKVZ\0"
     "NSImageKVZ\0"
     "NSImageRepKVZ\0"
     "NSAffineTransformKVZ\0"
     "NSFontKVZ\0"
     "NSToolbarItemKVZ\0"
     "NSToolbarKVZ\0"
     "NSScreenKVZ\0"
     "NSCharacterSetKVZ\0"
     "NSTextStorageKVZ\0"
     "NSColorKVZ\0"
     "NSAttributedStringKVZ\0"
     "NSAssertionHandlerKVZ\0"
     "NSMenuKVZ\0"
     "NSFontDescriptorKVZ\0"
     "NSMenuItemKVZ\0"
     "NSErrorKVZ\0"
     "NSViewControllerKVZ\0"
     "NSWindowControllerKVZ\0"
     "NSHTTPCookieKVZ\0"
     "NSHTTPCookieStorageKVZ\0"
     "NSPasteboardKVZ\0"
     "NSBundleKVZ\0"
     "NSEnumeratorKVZ\0"
     "NSDirectoryEnumeratorKVZ\0"
     "NSRunningApplicationKVZ\0"
     "NSURLCacheKVZ\0"
     "NSCellKVZ\0"
     "NSFileManagerKVZ\0"
     "NSSoundKVZ\0"
     "NSBezierPathKVZ\0"
     "NSCursorKVZ\0"
     "NSEventKVZ\0"
     "NSIndexSetKVZ\0"
     "NSCalendarKVZ\0"
     "NSViewKVZ\0"
     "NSWindowKVZ\0"
     "NSColorListKVZ\0"
     "NSColorSpaceKVZ\0"
     "NSTableColumnKVZ\0"
     "NSUndoManagerKVZ\0"
     "NSScrollerKVZ\0"
     "NSResponderKVZ\0"
     "NSTextFieldCellKVZ\0"
     "NSTextKVZ\0"
     "NSTableHeaderViewKVZ\0"
     "NSOperationKVZ\0"
     "NSNotificationKVZ\0"
     "NSNotificationCenterKVZ\0"
     "NSDistributedNotificationCenterKVZ\0"
     "QuartzFilterKVZ\0"
     "NSUserDefaultsKVZ\0"
     "NSDockTileKVZ\0"
     "NSLocaleKVZ\0"
     "NSAppleEventDescriptorKVZ\0"
     "NSAppleScriptKVZ\0"
     "NSTableViewKVZ\0"
     "NSLayoutManagerKVZ\0"
     "NSTextContainerKVZ\0"
     "NSTextViewKVZ\0"
     "NSTextTabKVZ\0"
     "NSParagraphStyleKVZ\0"
     "NSDraggingImageComponentKVZ\0"
     "NSPasteboardItemKVZ\0"
     "NSRunLoopKVZ\0"
     "NSMetadataQueryKVZ\0"
     "NSMetadataItemKVZ\0"
     "NSPredicateKVZ\0"
     "NSCompoundPredicateKVZ\0"
     "NSSortDescriptorKVZ\0"
     "NSMetadataQueryResultGroupKVZ\0"
     "NSComparisonPredicateKVZ\0"
     "NSExpressionKVZ\0"
     "WebUIDelegateKVZ\0"
     "WebResourceLoadDelegateKVZ\0"
     "WebFrameLoadDelegateKVZ\0"
     "WebDownloadDelegateKVZ\0"
     "DRBurnKVZ\0"
     "PDFAnnotationKVZ\0"
     "PDFActionKVZ\0",
     firstField},
    {"NSSizeKVZ\0", structValue<NSSize, "valueWithSize:">},
    {"NSRectKVZ\0", structValue<NSRect, "valueWithRect:">},
    {"NSRangeKVZ\0", structValue<NSRange, "valueWithRange:">},
    {"NSPointKVZ\0", structValue<NSPoint, "valueWithPoint:">},
    {"QTKitTimeKVZ\0", fromCategory<"valueWithQTTimeKVZ:">},
    {"QTKitTimeRangeKVZ\0", fromCategory<"valueWithQTTimeRangeKVZ:">},
    {"CMTimeMappingKVZ\0", fromCategory<"valueWithCMTimeMappingKVZ:">},
    {"CMTimeRangeKVZ\0", fromCategory<"valueWithCMTimeRangeKVZ:">},
    {"CMTimeKVZ\0", fromCategory<"valueWithCMTimeKVZ:">},
    {"WebPolicyDelegateKVZ\0"
     "CFObjectKVZ\0"
     "CGColorKVZ\0"
     "CGFontKVZ\0"
     "CGImageKVZ\0"
     "CGColorSpaceKVZ\0"
     "CGPathKVZ\0"
     "CGContextKVZ\0"
     "CGLayerKVZ\0",
     firstField},
};

consteval std::size_t classCount() {
  std::size_t count = 0;
  for (const ObjectRule& rule : objectRules) {
    for (const char* name = rule.hostClasses; *name; ++name) {
      while (*name) ++name;
      ++count;
    }
  }
  return count;
}

const ObjectRule* ruleOf(REALobjectStruct* object) {
  static void* known[classCount()];
  void** place = known;
  for (const ObjectRule& rule : objectRules) {
    for (const char* name = rule.hostClasses; *name; name += strlen(name) + 1) {
      if (isOfClass(object, name, *place++)) return &rule;
    }
  }
  return nullptr;
}

id fromObject(REALobjectStruct* object, Nesting nesting) {
  static void* memoryBlock;
  static void* dictionary;
  if (isOfClass(object, "MemoryBlock", memoryBlock)) return fromMemoryBlock(object);
  if (REALLoadObjectMethod(object, "TrueItem(Index as integer) as Folderitem")) {
    return fromFolderItem(object);
  }
  if (isOfClass(object, "Dictionary", dictionary)) {
    return NewNSDictionary(reinterpret_cast<_REALdictionary*>(object), nesting);
  }
  if (const ObjectRule* rule = ruleOf(object)) return rule->convert(object);
  return send<id>("KVZREALobjectWrapper"_class, "wrap:"_sel, object);
}

constexpr std::int32_t kObjectCode = 9;

std::int32_t typeCode(REALobjectStruct* variant) {
  using VarType = std::int32_t (*)(REALobjectStruct*);
  static VarType pVarType;
  VarType varType = found(pVarType, [] {
    return reinterpret_cast<VarType>(REALLoadFrameworkMethod("VarType(value As Variant) As Int32"));
  });
  if (varType) return varType(variant);
  std::int32_t code = 0;
  REALGetPropValueInt32(variant, "Type", &code);
  return code;
}

} // namespace

id GetVariantAsNSObject(REALobjectStruct* variant, Nesting nesting) {
  if (!variant) return nullptr;
  std::int32_t code = typeCode(variant);
  if (code == kObjectCode) return fromObject(variant, nesting);
  for (const ScalarRule& rule : scalarRules) {
    if (code == rule.code) return rule.convert(variant);
  }
  for (const ArrayRule& rule : arrayRules) {
    if (code == rule.code) {
      return fromArray(reinterpret_cast<REALarrayStruct*>(variant), rule, nesting);
    }
  }
  return nullptr;
}
