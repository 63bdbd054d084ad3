#include "convert/cf_types.h"

// Type and wrapper class, in the order in which they are compared: the last one twice, which does
// no harm.
#define CF_TYPES(TYPE, IMAGE)                                                                      \
  TYPE(CFURL, "CFURLKVZ")                                                                          \
  TYPE(CFDictionary, "CFDictionaryKVZ")                                                            \
  TYPE(CFString, "CFStringKVZ")                                                                    \
  TYPE(CFNumber, "CFNumberKVZ")                                                                    \
  TYPE(CFArray, "CFArrayKVZ")                                                                      \
  TYPE(CFBoolean, "CFBooleanKVZ")                                                                  \
  TYPE(CFData, "CFBinaryDataKVZ")                                                                  \
  TYPE(CFCharacterSet, "CFCharacterSetKVZ")                                                        \
  TYPE(CFBundle, "CFBundleKVZ")                                                                    \
  TYPE(CFSet, "CFSetKVZ")                                                                          \
  TYPE(CFBag, "CFBagKVZ")                                                                          \
  TYPE(CFUUID, "CFUUIDKVZ")                                                                        \
  TYPE(CFTimeZone, "CFTimeZoneKVZ")                                                                \
  TYPE(CFDate, "CFDateKVZ")                                                                        \
  TYPE(CFAttributedString, "CFAttributedStringKVZ")                                                \
  TYPE(CFError, "CFErrorKVZ")                                                                      \
  TYPE(CGPSConverter, "CGPSConverterKVZ")                                                          \
  TYPE(CGContext, "CGContextKVZ")                                                                  \
  TYPE(CGColorSpace, "CGColorSpaceKVZ")                                                            \
  TYPE(CGColor, "CGColorKVZ")                                                                      \
  IMAGE(CGImage, "CGImageKVZ")                                                                     \
  TYPE(CGLayer, "CGLayerKVZ")                                                                      \
  TYPE(CGFont, "CGFontKVZ")                                                                        \
  TYPE(CGDataConsumer, "CGDataConsumerKVZ")                                                        \
  TYPE(CGDataProvider, "CGDataProviderKVZ")                                                        \
  TYPE(CTFont, "CTFontKVZ")                                                                        \
  TYPE(CTFontCollection, "CTFontCollectionKVZ")                                                    \
  TYPE(CTFrame, "CTFrameKVZ")                                                                      \
  TYPE(CTFramesetter, "CTFramesetterKVZ")                                                          \
  TYPE(CTGlyphInfo, "CTGlyphInfoKVZ")                                                              \
  TYPE(CTLine, "CTLineKVZ")                                                                        \
  TYPE(CTParagraphStyle, "CTParagraphStyleKVZ")                                                    \
  TYPE(CTRun, "CTRunKVZ")                                                                          \
  TYPE(CTRunDelegate, "CTRunDelegateKVZ")                                                          \
  TYPE(CTTypesetter, "CTTypesetterKVZ")                                                            \
  TYPE(CTTypesetter, "CTTypesetterKVZ")

// Weak: a system that lacks one of these must not keep the plug-in from loading.
#define DECLARE(type, wrapper) extern "C" [[gnu::weak]] CFTypeID type##GetTypeID();
CF_TYPES(DECLARE, DECLARE)

#define TYPE_ROW(type, wrapper) {type##GetTypeID, wrapper, false},
#define IMAGE_ROW(type, wrapper) {type##GetTypeID, wrapper, true},
static const CFTypeRule cfTypeRules[] = {CF_TYPES(TYPE_ROW, IMAGE_ROW)};

const CFTypeRule* cfTypeRule(CFTypeID type) {
  for (const CFTypeRule& rule : cfTypeRules) {
    if (rule.type && rule.type() == type) return &rule;
  }
  return nullptr;
}
