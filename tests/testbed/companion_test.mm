// The companion plug-in under the testbed's host: what it registers, what it adds to the Cocoa
// classes, who owns what, and each of its switches. One process serves one test.

#include "testbed/companion/appkit.h"
#include "testbed/companion/companion.h"
#include "testbed/host/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

@interface NSException (Companion)
+ (void*)NewNSExceptionKVZ:(NSException*)exception;
+ (void)PrepareNSExceptionKVZ;
+ (void*)GetInstancesDictionaryKVZ;
@end

@interface NSValue (Companion)
- (void*)QTTimeValueKVZ;
- (void*)QTTimeRangeValueKVZ;
- (void*)CMTimeValueKVZ;
- (void*)CMTimeRangeValueKVZ;
- (void*)CMTimeMappingValueKVZ;
+ (NSValue*)valueWithQTTimeKVZ:(void*)object;
+ (NSValue*)valueWithQTTimeRangeKVZ:(void*)object;
+ (NSValue*)valueWithCMTimeKVZ:(void*)object;
+ (NSValue*)valueWithCMTimeRangeKVZ:(void*)object;
+ (NSValue*)valueWithCMTimeMappingKVZ:(void*)object;
@end

@interface NSObject (Box)
+ (id)wrap:(void*)object;
- (void*)unwrap;
@end

extern "C" {
const void* CFDictionaryGetValue(const void* dictionary, const void* key);
void CFDictionarySetValue(void* dictionary, const void* key, const void* value);
}

// Counts its own deaths.
@interface Probe : NSObject
@end

static int deaths;

// NSException itself makes a reason up.
@interface Unexplained : NSException
@end

@implementation Unexplained
- (NSString*)reason {
  return nil;
}
@end

@implementation Probe
- (void)dealloc {
  ++deaths;
  [super dealloc];
}
@end

namespace {

using testing::ElementsAre;

std::vector<std::string> words(const char* text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

const char* objectWrappers =
    "NSPathComponentCellKVZ NSPathCellKVZ NSPathControlKVZ NSObjectKVZ NSPipeKVZ NSTaskKVZ "
    "NSFileHandleKVZ NSClipViewKVZ NSAnimationKVZ NSCoderKVZ NSTimeZoneKVZ NSDateComponentsKVZ "
    "NSAnimationContextKVZ NSTimerKVZ NSBoxKVZ NSComboBoxKVZ NSImageViewKVZ NSPopUpButtonKVZ "
    "NSTextFieldKVZ NSSearchFieldCellKVZ NSSecureTextFieldKVZ NSSecureTextFieldCellKVZ "
    "NSApplicationKVZ NSSearchFieldKVZ NSTabViewKVZ NSTabViewItemKVZ NSStepperKVZ NSURLRequestKVZ "
    "NSURLDownloadKVZ NSURLConnectionKVZ NSFontPanelKVZ NSFontManagerKVZ NSImageKVZ NSImageRepKVZ "
    "NSAffineTransformKVZ NSFontKVZ NSToolbarItemKVZ NSToolbarKVZ NSScreenKVZ NSCharacterSetKVZ "
    "NSTextStorageKVZ NSColorKVZ NSAttributedStringKVZ NSAssertionHandlerKVZ NSMenuKVZ "
    "NSFontDescriptorKVZ NSMenuItemKVZ NSErrorKVZ NSViewControllerKVZ NSWindowControllerKVZ "
    "NSHTTPCookieKVZ NSHTTPCookieStorageKVZ NSPasteboardKVZ NSBundleKVZ NSEnumeratorKVZ "
    "NSDirectoryEnumeratorKVZ NSRunningApplicationKVZ NSURLCacheKVZ NSCellKVZ NSFileManagerKVZ "
    "NSSoundKVZ NSBezierPathKVZ NSCursorKVZ NSEventKVZ NSIndexSetKVZ NSCalendarKVZ NSViewKVZ "
    "NSWindowKVZ NSColorListKVZ NSColorSpaceKVZ NSTableColumnKVZ NSUndoManagerKVZ NSScrollerKVZ "
    "NSResponderKVZ NSTextFieldCellKVZ NSTextKVZ NSTableHeaderViewKVZ NSOperationKVZ "
    "NSNotificationKVZ NSNotificationCenterKVZ NSDistributedNotificationCenterKVZ QuartzFilterKVZ "
    "NSUserDefaultsKVZ NSDockTileKVZ NSLocaleKVZ NSAppleEventDescriptorKVZ NSAppleScriptKVZ "
    "NSTableViewKVZ NSLayoutManagerKVZ NSTextContainerKVZ NSTextViewKVZ NSTextTabKVZ "
    "NSParagraphStyleKVZ NSDraggingImageComponentKVZ NSPasteboardItemKVZ NSRunLoopKVZ "
    "NSMetadataQueryKVZ NSMetadataItemKVZ NSPredicateKVZ NSCompoundPredicateKVZ "
    "NSSortDescriptorKVZ NSMetadataQueryResultGroupKVZ NSComparisonPredicateKVZ NSExpressionKVZ "
    "WebUIDelegateKVZ WebResourceLoadDelegateKVZ WebFrameLoadDelegateKVZ WebDownloadDelegateKVZ "
    "DRBurnKVZ PDFAnnotationKVZ PDFActionKVZ WebPolicyDelegateKVZ";
const char* taggedWrappers =
    "CFObjectKVZ CFURLKVZ CFDictionaryKVZ CFStringKVZ CFNumberKVZ CFArrayKVZ CFBooleanKVZ "
    "CFBinaryDataKVZ CFCharacterSetKVZ CFBundleKVZ CFSetKVZ CFBagKVZ CFUUIDKVZ CFTimeZoneKVZ "
    "CFDateKVZ CFAttributedStringKVZ CFErrorKVZ CGPSConverterKVZ CGContextKVZ CGColorSpaceKVZ "
    "CGColorKVZ CGLayerKVZ CGFontKVZ CGDataConsumerKVZ CGDataProviderKVZ CTFontKVZ "
    "CTFontCollectionKVZ CTFrameKVZ CTFramesetterKVZ CTGlyphInfoKVZ CTLineKVZ CTParagraphStyleKVZ "
    "CTRunKVZ CTRunDelegateKVZ CTTypesetterKVZ CGPathKVZ";
const char* structWrappers = "NSRectKVZ NSSizeKVZ NSRangeKVZ NSPointKVZ QTKitTimeKVZ "
                             "QTKitTimeRangeKVZ CMTimeKVZ CMTimeRangeKVZ CMTimeMappingKVZ";

constexpr uint32_t tag = 0x52424346;

struct CFFields {
  id object;
  uint32_t own;
  uint32_t tag;
};

class Companion : public testing::Test {
protected:
  Companion() { host::start("2013.03"); }
  ~Companion() override { [pool_ drain]; }

  void enter() { host::loadPlugin(COMPANION_PATH); }
  // Empties the pool, so that what was only autoreleased is gone.
  void drain() {
    [pool_ drain];
    pool_ = [NSAutoreleasePool new];
  }

  const companion_api* companion_ = companion_open(COMPANION_PATH);
  NSAutoreleasePool* pool_ = [NSAutoreleasePool new];
};
using CompanionDeathTest = Companion;

class EveryHost : public testing::TestWithParam<host::Profile> {};

std::string superclassOf(const char* name) {
  const host::Registered* known = host::registered(name);
  return known ? known->superName : "not registered";
}

bool answers(Class target, const char* selector) {
  return [target respondsToSelector:sel_registerName(selector)];
}

template <typename Struct> Struct structOf(const host::Object& object) {
  return *static_cast<Struct*>(host::data(object));
}

NSException* exception(NSString* reason) {
  return [NSException exceptionWithName:@"Trouble" reason:reason userInfo:nil];
}

// ---- Entry and registration

TEST_P(EveryHost, TakesEveryRecord) {
  host::start(GetParam().name);
  host::loadPlugin(COMPANION_PATH);
  const double version = GetParam().version;
  const uint32_t spoken = version >= 2013.03  ? 12
                          : version >= 2013.0 ? 11
                          : version >= 2012.0 ? 10
                                              : 9;
  EXPECT_EQ(host::announcedVersion(), spoken);

  std::vector<std::string> expected = {"NSExceptionKVZ", "CGImageKVZ"};
  for (const char* names : {objectWrappers, taggedWrappers, structWrappers})
    for (const std::string& name : words(names)) expected.push_back(name);
  EXPECT_THAT(host::registrationOrder(), testing::UnorderedElementsAreArray(expected));

  for (const std::string& name : expected) {
    const host::Registered& known = *host::registered(name);
    EXPECT_EQ(known.words[0], spoken) << name;
    EXPECT_EQ(known.words[3] % 16, 0u) << name;
    host::Object object = host::create(name);
    EXPECT_EQ(companion_open(COMPANION_PATH)->data(object.handle()), host::data(object)) << name;
  }
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST_P(EveryHost, ReadsMembersOfAnException) {
  host::start(GetParam().name);
  host::loadPlugin(COMPANION_PATH);
  @autoreleasepool {
    host::Object object = host::Object::adopt([NSException NewNSExceptionKVZ:exception(@"Grüße")]);
    ASSERT_TRUE(object);
    EXPECT_EQ(host::get<std::string>(object, "name as string"), "Trouble");
    EXPECT_EQ(host::get<std::string>(object, "reason as string"), "Grüße");
  }
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryHost, testing::ValuesIn(host::profiles()),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

TEST_F(Companion, AddsNothingBeforeItIsEntered) {
  EXPECT_FALSE(answers([NSException class], "NewNSExceptionKVZ:"));
  EXPECT_FALSE(answers([NSException class], "PrepareNSExceptionKVZ"));
  EXPECT_FALSE(answers([NSException class], "GetInstancesDictionaryKVZ"));
  EXPECT_FALSE([NSValue instancesRespondToSelector:@selector(QTTimeValueKVZ)]);
  EXPECT_EQ(objc_getClass("KVZREALobjectWrapper"), nil);
}

// ---- Parts that can be missing

struct Part {
  companion_part part;
  const char* classMethod;
};
void PrintTo(const Part& part, std::ostream* out) { *out << part.classMethod; }

class MissingPart : public testing::TestWithParam<Part> {};

TEST_P(MissingPart, LeavesTheOthers) {
  host::start("2013.03");
  companion_open(COMPANION_PATH)->provide(GetParam().part, 0);
  host::loadPlugin(COMPANION_PATH);
  for (const char* name :
       {"NewNSExceptionKVZ:", "PrepareNSExceptionKVZ", "GetInstancesDictionaryKVZ"})
    EXPECT_EQ(answers([NSException class], name), GetParam().classMethod != std::string(name))
        << name;
}

INSTANTIATE_TEST_SUITE_P(ClassMethods, MissingPart,
                         testing::Values(Part{COMPANION_NEW_EXCEPTION, "NewNSExceptionKVZ:"},
                                         Part{COMPANION_PREPARE, "PrepareNSExceptionKVZ"},
                                         Part{COMPANION_REGISTRY, "GetInstancesDictionaryKVZ"}),
                         [](const auto& info) {
                           std::string name = info.param.classMethod;
                           return name.substr(0, name.find(':'));
                         });

TEST_F(Companion, CanLackTheBoxClass) {
  companion_->provide(COMPANION_BOXES, 0);
  enter();
  EXPECT_EQ(objc_getClass("KVZREALobjectWrapper"), nil);
}

TEST_F(Companion, CanLackTheTimeMethods) {
  companion_->provide(COMPANION_TIMES, 0);
  enter();
  EXPECT_FALSE([NSValue instancesRespondToSelector:@selector(CMTimeValueKVZ)]);
  EXPECT_FALSE(answers([NSValue class], "valueWithCMTimeKVZ:"));
}

TEST_F(Companion, MakesNoExceptionWithoutItsClass) {
  companion_->provide(COMPANION_EXCEPTION_CLASS, 0);
  enter();
  EXPECT_EQ(host::registered("NSExceptionKVZ"), nullptr);
  EXPECT_EQ([NSException NewNSExceptionKVZ:exception(@"why")], nullptr);
}

// ---- Exceptions

TEST_F(Companion, WrapsAnException) {
  enter();
  NSException* cause = exception(@"No feed");
  const NSUInteger before = [cause retainCount];
  host::Object object = host::Object::adopt([NSException NewNSExceptionKVZ:cause]);
  ASSERT_TRUE(object);
  EXPECT_EQ(host::referenceCount(object), 1);
  EXPECT_EQ(host::className(object), "NSExceptionKVZ");
  EXPECT_TRUE(host::isA(object, "RuntimeException"));
  EXPECT_EQ(*static_cast<id*>(host::data(object, "NSExceptionKVZ")), cause);
  EXPECT_EQ([cause retainCount], before + 1);
  EXPECT_EQ(host::get<std::string>(object, "Message"), "No feed");
  EXPECT_EQ(host::get<std::string>(object, "reason as string"), "No feed");
  EXPECT_EQ(companion_->count(COMPANION_EXCEPTIONS), 1u);

  object.reset();
  EXPECT_EQ([cause retainCount], before);
  EXPECT_EQ(host::ledger(), host::Ledger{});
}

TEST_F(Companion, WrapsAnExceptionWithoutReason) {
  enter();
  host::Object object = host::Object::adopt([NSException
      NewNSExceptionKVZ:[[[Unexplained alloc] initWithName:@"Trouble" reason:nil
                                                  userInfo:nil] autorelease]]);
  EXPECT_EQ(host::get<std::optional<std::string>>(object, "Message"), std::nullopt);
  EXPECT_EQ(host::get<std::optional<std::string>>(object, "reason as string"), std::nullopt);
}

TEST_F(Companion, BringsMessageWhereTheHostHasNoBaseClass) {
  host::hideClass("RuntimeException");
  enter();
  EXPECT_EQ(superclassOf("NSExceptionKVZ"), "");
  host::Object object = host::Object::adopt([NSException NewNSExceptionKVZ:exception(@"why")]);
  EXPECT_EQ(host::get<std::string>(object, "Message as string"), "why");
}

TEST_F(Companion, AnswersNullWhenTheHostCannotMakeTheException) {
  enter();
  host::hideClass("NSExceptionKVZ");
  EXPECT_EQ([NSException NewNSExceptionKVZ:exception(@"why")], nullptr);
  EXPECT_EQ(companion_->count(COMPANION_EXCEPTIONS), 0u);
}

TEST_F(Companion, RefusesExceptionsOnDemand) {
  enter();
  companion_->refuse_exceptions(1);
  EXPECT_EQ([NSException NewNSExceptionKVZ:exception(@"why")], nullptr);
  companion_->refuse_exceptions(0);
  EXPECT_TRUE(host::Object::adopt([NSException NewNSExceptionKVZ:exception(@"why")]));
}

TEST_F(Companion, CountsPreparations) {
  enter();
  EXPECT_EQ(companion_->count(COMPANION_PREPARED), 0u);
  [NSException PrepareNSExceptionKVZ];
  [NSException PrepareNSExceptionKVZ];
  EXPECT_EQ(companion_->count(COMPANION_PREPARED), 2u);
}

// ---- The registry

TEST_F(Companion, KeepsOneRegistryThatRetainsNothing) {
  enter();
  void* registry = [NSException GetInstancesDictionaryKVZ];
  ASSERT_NE(registry, nullptr);
  EXPECT_EQ([NSException GetInstancesDictionaryKVZ], registry);

  // Equal strings at two addresses: keys are pointers.
  NSMutableString* key = [NSMutableString stringWithString:@"key"];
  NSMutableString* same = [NSMutableString stringWithString:@"key"];
  const NSUInteger before = [key retainCount];
  int value = 0;
  CFDictionarySetValue(registry, key, &value);
  EXPECT_EQ(CFDictionaryGetValue(registry, key), &value);
  EXPECT_EQ(CFDictionaryGetValue(registry, same), nullptr);
  EXPECT_EQ([key retainCount], before);
  EXPECT_EQ(companion_->count(COMPANION_REGISTERED), 1u);
}

TEST_F(Companion, ForgetsAWrapperThatGoes) {
  enter();
  void* registry = [NSException GetInstancesDictionaryKVZ];
  NSError* error = [NSError errorWithDomain:@"d" code:1 userInfo:nil];
  host::Object wrapper = host::create("NSErrorKVZ");
  *static_cast<id*>(host::data(wrapper)) = [error retain];
  CFDictionarySetValue(registry, error, wrapper.handle());
  EXPECT_EQ(companion_->count(COMPANION_REGISTERED), 1u);
  wrapper.reset();
  EXPECT_EQ(companion_->count(COMPANION_REGISTERED), 0u);
}

TEST_F(Companion, LeavesAnotherWrappersEntryAlone) {
  enter();
  void* registry = [NSException GetInstancesDictionaryKVZ];
  NSError* error = [NSError errorWithDomain:@"d" code:1 userInfo:nil];
  host::Object first = host::create("NSErrorKVZ");
  host::Object second = host::create("NSErrorKVZ");
  for (const host::Object& wrapper : {first, second})
    *static_cast<id*>(host::data(wrapper)) = [error retain];
  CFDictionarySetValue(registry, error, second.handle());
  first.reset();
  EXPECT_EQ(CFDictionaryGetValue(registry, error), second.handle());
}

// ---- Wrappers

TEST_F(Companion, ReleasesTheObjectOfEachObjectWrapper) {
  enter();
  for (const std::string& name : words(objectWrappers)) {
    deaths = 0;
    host::Object wrapper = host::create(name);
    EXPECT_EQ(companion_->count(COMPANION_LIVE_WRAPPERS), 1u) << name;
    *static_cast<id*>(host::data(wrapper)) = [Probe new];
    EXPECT_EQ(host::get<uint32_t>(wrapper, "Handle"), *static_cast<uint32_t*>(host::data(wrapper)));
    wrapper.reset();
    EXPECT_EQ(deaths, 1) << name;
    EXPECT_EQ(companion_->count(COMPANION_LIVE_WRAPPERS), 0u) << name;
  }
}

TEST_F(Companion, TagsCoreFoundationWrappers) {
  enter();
  for (const std::string& name : words(taggedWrappers)) {
    deaths = 0;
    host::Object wrapper = host::create(name);
    auto* fields = static_cast<CFFields*>(host::data(wrapper));
    EXPECT_EQ(fields->tag, tag) << name;
    fields->object = [Probe new];
    wrapper.reset();
    EXPECT_EQ(deaths, 1) << name;
    EXPECT_EQ(companion_->count(COMPANION_LIVE_WRAPPERS), 0u) << name;
  }
}

TEST_F(Companion, LeavesImagesUntagged) {
  enter();
  deaths = 0;
  host::Object image = host::create("CGImageKVZ");
  auto* fields = static_cast<CFFields*>(host::data(image));
  EXPECT_EQ(fields->tag, 0u);
  fields->object = [Probe new];
  image.reset();
  EXPECT_EQ(deaths, 1);
}

TEST_F(Companion, SpoilsTagsOnDemand) {
  companion_->spoil_tag("CFURLKVZ");   // has a base class
  companion_->spoil_tag("CGColorKVZ"); // has none
  enter();
  for (const char* name : {"CFURLKVZ", "CGColorKVZ"}) {
    host::Object wrapper = host::create(name);
    EXPECT_NE(static_cast<CFFields*>(host::data(wrapper))->tag, tag) << name;
    wrapper.reset();
    EXPECT_EQ(companion_->count(COMPANION_LIVE_WRAPPERS), 0u) << name;
  }
  EXPECT_EQ(static_cast<CFFields*>(host::data(host::create("CFStringKVZ")))->tag, tag);
}

TEST_F(Companion, LaysStructsOutAsCocoaDoes) {
  enter();
  host::Object rect = host::create("NSRectKVZ");
  host::set(rect, "X", 1.5f);
  host::set(rect, "Y", 2.5f);
  host::set(rect, "Width", 3.5f);
  host::set(rect, "Height", 4.5f);
  EXPECT_TRUE(NSEqualRects(structOf<NSRect>(rect), NSMakeRect(1.5, 2.5, 3.5, 4.5)));

  host::Object size = host::create("NSSizeKVZ");
  host::set(size, "Width", 3.5f);
  host::set(size, "Height", 4.5f);
  EXPECT_TRUE(NSEqualSizes(structOf<NSSize>(size), NSMakeSize(3.5, 4.5)));

  host::Object range = host::create("NSRangeKVZ");
  host::set(range, "Location", 7u);
  host::set(range, "Length", 0xFFFFFFFFu);
  EXPECT_EQ(structOf<NSRange>(range).location, 7u);
  EXPECT_EQ(structOf<NSRange>(range).length, 0xFFFFFFFFu);

  host::Object point = host::create("NSPointKVZ");
  host::set(point, "X", 1.5f);
  host::set(point, "Y", 2.5f);
  EXPECT_TRUE(NSEqualPoints(structOf<NSPoint>(point), NSMakePoint(1.5, 2.5)));
}

TEST_F(Companion, RelatesWrappersAsTheirClassesAre) {
  enter();
  EXPECT_EQ(superclassOf("NSTextViewKVZ"), "NSTextKVZ");
  EXPECT_EQ(superclassOf("NSTextKVZ"), "NSViewKVZ");
  EXPECT_EQ(superclassOf("NSViewKVZ"), "NSResponderKVZ");
  EXPECT_EQ(superclassOf("NSResponderKVZ"), "NSObjectKVZ");
  EXPECT_EQ(superclassOf("NSObjectKVZ"), "");
  EXPECT_EQ(superclassOf("CFURLKVZ"), "CFObjectKVZ");
  EXPECT_EQ(superclassOf("CGColorKVZ"), "");
  EXPECT_EQ(superclassOf("WebPolicyDelegateKVZ"), "");
  for (const std::string& name : words(objectWrappers))
    if (name != "WebPolicyDelegateKVZ")
      EXPECT_TRUE(host::isA(host::create(name), "NSObjectKVZ")) << name;
}

TEST_F(Companion, RegistersOnlyWhatIsAskedFor) {
  companion_->register_all(0);
  companion_->register_class("NSTextViewKVZ", 1);
  companion_->register_class("NSResponderKVZ", 1);
  enter();
  EXPECT_THAT(host::registrationOrder(),
              ElementsAre("NSExceptionKVZ", "NSResponderKVZ", "NSTextViewKVZ"));
  EXPECT_EQ(superclassOf("NSTextViewKVZ"), "NSResponderKVZ");
  EXPECT_EQ(superclassOf("NSResponderKVZ"), "");
}

TEST_F(Companion, FlattensTheRelationsOnDemand) {
  companion_->flatten(1);
  companion_->spoil_tag("CFURLKVZ");
  enter();
  for (const std::string& name : host::registrationOrder())
    if (name != "NSExceptionKVZ") EXPECT_EQ(superclassOf(name.c_str()), "") << name;
  deaths = 0;
  host::Object wrapper = host::create("NSTextViewKVZ");
  *static_cast<id*>(host::data(wrapper)) = [Probe new];
  wrapper.reset();
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(static_cast<CFFields*>(host::data(host::create("CFStringKVZ")))->tag, tag);
  EXPECT_NE(static_cast<CFFields*>(host::data(host::create("CFURLKVZ")))->tag, tag);
  EXPECT_EQ(companion_->count(COMPANION_LIVE_WRAPPERS), 0u);
}

TEST_F(Companion, AddsClassesOnDemand) {
  const std::string name = std::string(196, 'L') + "KVZ";
  companion_->add_class(name.c_str(), "NSViewKVZ", "NSObjectKVZ");
  companion_->add_class("OwnRangeKVZ", nullptr, "NSRangeKVZ");
  enter();
  EXPECT_EQ(superclassOf(name.c_str()), "NSViewKVZ");
  host::Object range = host::create("OwnRangeKVZ");
  host::set(range, "Length", 3u);
  EXPECT_EQ(structOf<NSRange>(range).length, 3u);
}

// ---- Times

struct QTTime {
  long long value;
  long scale, flags;
};
struct CMTime {
  int64_t value;
  int32_t timescale;
  uint32_t flags;
  int64_t epoch;
};

struct TimeCase {
  const char* className;
  const char* type;
  const char* read;
  const char* make;
  size_t size;
};

const TimeCase timeCases[] = {
    {"QTKitTimeKVZ", "{?=qll}", "QTTimeValueKVZ", "valueWithQTTimeKVZ:", sizeof(QTTime)},
    {"QTKitTimeRangeKVZ", "{?={?=qll}{?=qll}}", "QTTimeRangeValueKVZ",
     "valueWithQTTimeRangeKVZ:", 2 * sizeof(QTTime)},
    {"CMTimeKVZ", "{?=qiIq}", "CMTimeValueKVZ", "valueWithCMTimeKVZ:", sizeof(CMTime)},
    {"CMTimeRangeKVZ", "{?={?=qiIq}{?=qiIq}}", "CMTimeRangeValueKVZ",
     "valueWithCMTimeRangeKVZ:", 2 * sizeof(CMTime)},
    {"CMTimeMappingKVZ", "{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", "CMTimeMappingValueKVZ",
     "valueWithCMTimeMappingKVZ:", 4 * sizeof(CMTime)},
};

std::vector<uint8_t> pattern(size_t size) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
  return bytes;
}

TEST_F(Companion, CarriesTimesBothWays) {
  enter();
  for (const TimeCase& time : timeCases) {
    SCOPED_TRACE(time.className);
    const std::vector<uint8_t> bytes = pattern(time.size);
    NSValue* value = [NSValue valueWithBytes:bytes.data() objCType:time.type];
    const SEL read = sel_registerName(time.read);
    host::Object object = host::Object::adopt([value performSelector:read]);
    ASSERT_TRUE(object);
    EXPECT_EQ(host::className(object), time.className);
    EXPECT_EQ(host::referenceCount(object), 1);
    EXPECT_EQ(memcmp(host::data(object), bytes.data(), time.size), 0);

    NSValue* back = [[NSValue class] performSelector:sel_registerName(time.make)
                                          withObject:static_cast<id>(object.handle())];
    EXPECT_STREQ([back objCType], time.type);
    std::vector<uint8_t> read_back(time.size);
    [back getValue:read_back.data()];
    EXPECT_EQ(read_back, bytes);
  }
}

TEST_F(Companion, ReadsNoTimeFromAnotherStruct) {
  enter();
  for (const TimeCase& time : timeCases) {
    EXPECT_EQ(
        [[NSValue valueWithSize:NSMakeSize(1, 2)] performSelector:sel_registerName(time.read)],
        nil);
    EXPECT_EQ([[NSValue class] performSelector:sel_registerName(time.make) withObject:nil], nil);
  }
}

TEST_F(Companion, ReadsNoTimeWithoutTheHostClass) {
  companion_->register_class("CMTimeKVZ", 0);
  enter();
  const CMTime time = {};
  EXPECT_EQ([[NSValue valueWithBytes:&time objCType:@encode(CMTime)] CMTimeValueKVZ], nullptr);
}

TEST_F(Companion, ShowsTheFieldsOfATime) {
  enter();
  host::Object time = host::create("CMTimeKVZ");
  host::set(time, "Value", int64_t{1} << 40);
  host::set(time, "Timescale", -600);
  host::set(time, "Flags", 5u);
  host::set(time, "Epoch", int64_t{-2});
  const CMTime fields = structOf<CMTime>(time);
  EXPECT_EQ(fields.value, int64_t{1} << 40);
  EXPECT_EQ(fields.timescale, -600);
  EXPECT_EQ(fields.flags, 5u);
  EXPECT_EQ(fields.epoch, -2);
}

// ---- Boxes

TEST_F(Companion, BoxesAHostObject) {
  enter();
  Class boxClass = objc_getClass("KVZREALobjectWrapper");
  ASSERT_NE(boxClass, nil);
  host::Object object = host::create("Dictionary");
  id box = [boxClass wrap:object.handle()];
  EXPECT_TRUE([box isKindOfClass:boxClass]);
  EXPECT_EQ(host::referenceCount(object), 2);
  EXPECT_EQ(companion_->count(COMPANION_LIVE_BOXES), 1u);

  host::Object unwrapped = host::Object::adopt([box unwrap]);
  EXPECT_EQ(unwrapped, object);
  EXPECT_EQ(host::referenceCount(object), 3);

  drain();
  EXPECT_EQ(companion_->count(COMPANION_LIVE_BOXES), 0u);
  EXPECT_EQ(host::referenceCount(object), 2);
  EXPECT_EQ([boxClass wrap:nullptr], nil);
}

// ---- Mistakes in a set-up

TEST_F(CompanionDeathTest, EndsTheProcessOnAnUnknownName) {
  EXPECT_DEATH(companion_->register_class("NSNothingKVZ", 1),
               "no such wrapper class.*NSNothingKVZ");
  EXPECT_DEATH(companion_->spoil_tag("CGImageKVZ"), "not for this use: CGImageKVZ");
  EXPECT_DEATH(companion_->add_class("A", "NSNothingKVZ", "NSObjectKVZ"), "no such wrapper class");
}

TEST_F(CompanionDeathTest, EndsTheProcessOnALateSetUp) {
  enter();
  EXPECT_DEATH(companion_->provide(COMPANION_BOXES, 0), "too late.*provide");
}

// ---- Cocoa classes for tests

TEST(AppKit, RelatesItsClasses) {
  auto superclass = [](const char* name) {
    return std::string(class_getName(class_getSuperclass(objc_getClass(name))));
  };
  EXPECT_EQ(superclass("NSTextView"), "NSText");
  EXPECT_EQ(superclass("NSText"), "NSView");
  EXPECT_EQ(superclass("NSView"), "NSResponder");
  for (const char* name : {"NSResponder", "NSFont", "NSParagraphStyle", "NSRunningApplication"})
    EXPECT_EQ(superclass(name), "NSObject");
}

TEST(AppKit, MakesClassesWithLongNames) {
  for (unsigned length : {196u, 199u, 200u, 1000u}) {
    void* made = appkit_class_with_long_name(length);
    EXPECT_EQ(appkit_class_with_long_name(length), made);
    id object = [[static_cast<Class>(made) alloc] init];
    EXPECT_EQ(strlen(object_getClassName(object)), length);
    EXPECT_EQ(class_getSuperclass(static_cast<Class>(made)), objc_getClass("NSView"));
    [object release];
  }
}

} // namespace
