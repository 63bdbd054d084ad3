#include "values.h"

#include "wrappers.h"

#include <cstring>

using namespace companion;

namespace {

struct Time {
  const char* type; // as Objective-C encodes the struct
  const char* wrapper;
};
constexpr Time qtTime = {"{?=qll}", "QTKitTimeKVZ"};
constexpr Time qtTimeRange = {"{?={?=qll}{?=qll}}", "QTKitTimeRangeKVZ"};
constexpr Time cmTime = {"{?=qiIq}", "CMTimeKVZ"};
constexpr Time cmTimeRange = {"{?={?=qiIq}{?=qiIq}}", "CMTimeRangeKVZ"};
constexpr Time cmTimeMapping = {"{?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}", "CMTimeMappingKVZ"};

HostObject* wrap(NSValue* value, const Time& time) {
  if (strcmp([value objCType], time.type)) return nullptr;
  HostObject* object = newWrapper(time.wrapper);
  if (object) [value getValue:wrapperData(object)];
  return object;
}

NSValue* value(HostObject* object, const Time& time) {
  return object ? [NSValue valueWithBytes:wrapperData(object) objCType:time.type] : nil;
}

} // namespace

// clang-format off
@implementation CompanionValue
- (HostObject*)QTTimeValueKVZ        { return wrap(self, qtTime); }
- (HostObject*)QTTimeRangeValueKVZ   { return wrap(self, qtTimeRange); }
- (HostObject*)CMTimeValueKVZ        { return wrap(self, cmTime); }
- (HostObject*)CMTimeRangeValueKVZ   { return wrap(self, cmTimeRange); }
- (HostObject*)CMTimeMappingValueKVZ { return wrap(self, cmTimeMapping); }
+ (NSValue*)valueWithQTTimeKVZ:(HostObject*)object        { return value(object, qtTime); }
+ (NSValue*)valueWithQTTimeRangeKVZ:(HostObject*)object   { return value(object, qtTimeRange); }
+ (NSValue*)valueWithCMTimeKVZ:(HostObject*)object        { return value(object, cmTime); }
+ (NSValue*)valueWithCMTimeRangeKVZ:(HostObject*)object   { return value(object, cmTimeRange); }
+ (NSValue*)valueWithCMTimeMappingKVZ:(HostObject*)object { return value(object, cmTimeMapping); }
@end
// clang-format on
