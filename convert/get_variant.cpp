// Host to Cocoa: GetVariantAsNSObject.

#include "cocoa/exceptions.h"
#include "convert/dates.h"
#include "convert/dictionaries.h"
#include "convert/files.h"
#include "convert/strings.h"
#include "convert/structs.h"
#include "convert/variants.h"
#include "plugin/registration.h"

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

struct ObjectRule {
  const char* hostClass;
  id (*convert)(REALobjectStruct* object);
  void* known; // once found
};

// A Cocoa object or Core Foundation reference, which stays the wrapper's.
id firstField(REALobjectStruct* object) { return familyRecord<id>(object); }

template <class Struct, Literal Message> id structValue(REALobjectStruct* object) {
  return send<id>("NSValue"_class, operator""_sel<Message>(), familyRecord<Struct>(object));
}

// Another plug-in of the family adds the message to NSValue, and reads its own instance.
template <Literal Message> id fromCategory(REALobjectStruct* object) {
  return send<id>("NSValue"_class, operator""_sel<Message>(), object);
}

// Tested in this order. A class catches the subclasses of it that stand further down; that
// NSObjectKVZ stands fourth is meant.
ObjectRule objectRules[] = {
    {"NSPathComponentCellKVZ", firstField, nullptr},
    {"NSPathCellKVZ", firstField, nullptr},
    {"NSPathControlKVZ", firstField, nullptr},
    {"NSObjectKVZ", firstField, nullptr},
    {"NSPipeKVZ", firstField, nullptr},
    {"NSTaskKVZ", firstField, nullptr},
    {"NSFileHandleKVZ", firstField, nullptr},
    {"NSClipViewKVZ", firstField, nullptr},
    {"NSAnimationKVZ", firstField, nullptr},
    {"NSCoderKVZ", firstField, nullptr},
    {"NSTimeZoneKVZ", firstField, nullptr},
    {"NSDateComponentsKVZ", firstField, nullptr},
    {"NSAnimationContextKVZ", firstField, nullptr},
    {"NSTimerKVZ", firstField, nullptr},
    {"NSBoxKVZ", firstField, nullptr},
    {"NSComboBoxKVZ", firstField, nullptr},
    {"NSImageViewKVZ", firstField, nullptr},
    {"NSPopUpButtonKVZ", firstField, nullptr},
    {"NSTextFieldKVZ", firstField, nullptr},
    {"NSSearchFieldCellKVZ", firstField, nullptr},
    {"NSSecureTextFieldKVZ", firstField, nullptr},
    {"NSSecureTextFieldCellKVZ", firstField, nullptr},
    {"NSApplicationKVZ", firstField, nullptr},
    {"NSSearchFieldKVZ", firstField, nullptr},
    {"NSTabViewKVZ", firstField, nullptr},
    {"NSTabViewItemKVZ", firstField, nullptr},
    {"NSStepperKVZ", firstField, nullptr},
    {"NSURLRequestKVZ", firstField, nullptr},
    {"NSURLDownloadKVZ", firstField, nullptr},
    {"NSURLConnectionKVZ", firstField, nullptr},
    {"NSFontPanelKVZ", firstField, nullptr},
    {"NSFontManagerKVZ", firstField, nullptr},
    {"NSImageKVZ", firstField, nullptr},
    {"NSImageRepKVZ", firstField, nullptr},
    {"NSAffineTransformKVZ", firstField, nullptr},
    {"NSFontKVZ", firstField, nullptr},
    {"NSToolbarItemKVZ", firstField, nullptr},
    {"NSToolbarKVZ", firstField, nullptr},
    {"NSScreenKVZ", firstField, nullptr},
    {"NSCharacterSetKVZ", firstField, nullptr},
    {"NSTextStorageKVZ", firstField, nullptr},
    {"NSColorKVZ", firstField, nullptr},
    {"NSAttributedStringKVZ", firstField, nullptr},
    {"NSAssertionHandlerKVZ", firstField, nullptr},
    {"NSMenuKVZ", firstField, nullptr},
    {"NSFontDescriptorKVZ", firstField, nullptr},
    {"NSMenuItemKVZ", firstField, nullptr},
    {"NSErrorKVZ", firstField, nullptr},
    {"NSViewControllerKVZ", firstField, nullptr},
    {"NSWindowControllerKVZ", firstField, nullptr},
    {"NSHTTPCookieKVZ", firstField, nullptr},
    {"NSHTTPCookieStorageKVZ", firstField, nullptr},
    {"NSPasteboardKVZ", firstField, nullptr},
    {"NSBundleKVZ", firstField, nullptr},
    {"NSEnumeratorKVZ", firstField, nullptr},
    {"NSDirectoryEnumeratorKVZ", firstField, nullptr},
    {"NSRunningApplicationKVZ", firstField, nullptr},
    {"NSURLCacheKVZ", firstField, nullptr},
    {"NSCellKVZ", firstField, nullptr},
    {"NSFileManagerKVZ", firstField, nullptr},
    {"NSSoundKVZ", firstField, nullptr},
    {"NSBezierPathKVZ", firstField, nullptr},
    {"NSCursorKVZ", firstField, nullptr},
    {"NSEventKVZ", firstField, nullptr},
    {"NSIndexSetKVZ", firstField, nullptr},
    {"NSCalendarKVZ", firstField, nullptr},
    {"NSViewKVZ", firstField, nullptr},
    {"NSWindowKVZ", firstField, nullptr},
    {"NSColorListKVZ", firstField, nullptr},
    {"NSColorSpaceKVZ", firstField, nullptr},
    {"NSTableColumnKVZ", firstField, nullptr},
    {"NSUndoManagerKVZ", firstField, nullptr},
    {"NSScrollerKVZ", firstField, nullptr},
    {"NSResponderKVZ", firstField, nullptr},
    {"NSTextFieldCellKVZ", firstField, nullptr},
    {"NSTextKVZ", firstField, nullptr},
    {"NSTableHeaderViewKVZ", firstField, nullptr},
    {"NSOperationKVZ", firstField, nullptr},
    {"NSNotificationKVZ", firstField, nullptr},
    {"NSNotificationCenterKVZ", firstField, nullptr},
    {"NSDistributedNotificationCenterKVZ", firstField, nullptr},
    {"QuartzFilterKVZ", firstField, nullptr},
    {"NSUserDefaultsKVZ", firstField, nullptr},
    {"NSDockTileKVZ", firstField, nullptr},
    {"NSLocaleKVZ", firstField, nullptr},
    {"NSAppleEventDescriptorKVZ", firstField, nullptr},
    {"NSAppleScriptKVZ", firstField, nullptr},
    {"NSTableViewKVZ", firstField, nullptr},
    {"NSLayoutManagerKVZ", firstField, nullptr},
    {"NSTextContainerKVZ", firstField, nullptr},
    {"NSTextViewKVZ", firstField, nullptr},
    {"NSTextTabKVZ", firstField, nullptr},
    {"NSParagraphStyleKVZ", firstField, nullptr},
    {"NSDraggingImageComponentKVZ", firstField, nullptr},
    {"NSPasteboardItemKVZ", firstField, nullptr},
    {"NSRunLoopKVZ", firstField, nullptr},
    {"NSMetadataQueryKVZ", firstField, nullptr},
    {"NSMetadataItemKVZ", firstField, nullptr},
    {"NSPredicateKVZ", firstField, nullptr},
    {"NSCompoundPredicateKVZ", firstField, nullptr},
    {"NSSortDescriptorKVZ", firstField, nullptr},
    {"NSMetadataQueryResultGroupKVZ", firstField, nullptr},
    {"NSComparisonPredicateKVZ", firstField, nullptr},
    {"NSExpressionKVZ", firstField, nullptr},
    {"WebUIDelegateKVZ", firstField, nullptr},
    {"WebResourceLoadDelegateKVZ", firstField, nullptr},
    {"WebFrameLoadDelegateKVZ", firstField, nullptr},
    {"WebDownloadDelegateKVZ", firstField, nullptr},
    {"DRBurnKVZ", firstField, nullptr},
    {"PDFAnnotationKVZ", firstField, nullptr},
    {"PDFActionKVZ", firstField, nullptr},
    {"NSSizeKVZ", structValue<NSSize, "valueWithSize:">, nullptr},
    {"NSRectKVZ", structValue<NSRect, "valueWithRect:">, nullptr},
    {"NSRangeKVZ", structValue<NSRange, "valueWithRange:">, nullptr},
    {"NSPointKVZ", structValue<NSPoint, "valueWithPoint:">, nullptr},
    {"QTKitTimeKVZ", fromCategory<"valueWithQTTimeKVZ:">, nullptr},
    {"QTKitTimeRangeKVZ", fromCategory<"valueWithQTTimeRangeKVZ:">, nullptr},
    {"CMTimeMappingKVZ", fromCategory<"valueWithCMTimeMappingKVZ:">, nullptr},
    {"CMTimeRangeKVZ", fromCategory<"valueWithCMTimeRangeKVZ:">, nullptr},
    {"CMTimeKVZ", fromCategory<"valueWithCMTimeKVZ:">, nullptr},
    {"WebPolicyDelegateKVZ", firstField, nullptr},
    {"CFObjectKVZ", firstField, nullptr},
    {"CGColorKVZ", firstField, nullptr},
    {"CGFontKVZ", firstField, nullptr},
    {"CGImageKVZ", firstField, nullptr},
    {"CGColorSpaceKVZ", firstField, nullptr},
    {"CGPathKVZ", firstField, nullptr},
    {"CGContextKVZ", firstField, nullptr},
    {"CGLayerKVZ", firstField, nullptr},
};

const ObjectRule* ruleOf(REALobjectStruct* object) {
  for (ObjectRule& rule : objectRules) {
    if (isOfClass(object, rule.hostClass, rule.known)) return &rule;
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
