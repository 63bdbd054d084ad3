#include "convert/dates.h"

#include "plugin/failure.h"

#include <stdio.h>
#include <string.h>

namespace {

// The host's fields, in its order.
constexpr int kFieldCount = 6;
constexpr const char* fieldNames[kFieldCount] = {"Year", "Month",  "Day",
                                                 "Hour", "Minute", "Second"};

constexpr std::int32_t kLargestMemoryBlock = 0x7FFFFFFE;

void raiseOutOfMemory(std::int32_t size) {
  char message[200];
  snprintf(message, sizeof message, "Failed to allocate a memoryblock with %lld bytes in size.",
           static_cast<long long>(size));
  RaiseException("OutOfMemoryException", message, 0);
}

} // namespace

bool readDateFields(_REALdate* date, DateFields* fields) {
  if (!date) return false;
  *fields = {};
  for (int i = 0; i < kFieldCount; ++i) {
    if (!REALGetPropValueInt32(asHostObject(date), fieldNames[i], &fields->values[i])) {
      return false;
    }
  }
  return true;
}

id NewNSDate(const DateFields& fields) {
  const auto& [year, month, day, hour, minute, second] = fields.values;
  id zone = send<id>("NSTimeZone"_class, "localTimeZone"_sel);
  return send<id>("NSCalendarDate"_class, "dateWithYear:month:day:hour:minute:second:timeZone:"_sel,
                  year, month, day, hour, minute, second, zone);
}

REALobjectStruct* NSDateRB(id date) {
  if (!date) return nullptr;
  // Before the new object: nothing would release that if this threw.
  auto seconds = send<double>(date, "timeIntervalSinceReferenceDate"_sel);
  id calendarDate = send<id>(send<id>("NSCalendarDate"_class, "alloc"_sel),
                             "initWithTimeIntervalSinceReferenceDate:"_sel, seconds);
  if (!send<id>(calendarDate, "autorelease"_sel)) return nullptr;
  auto field = [&](SEL message) { return send<std::int32_t>(calendarDate, message); };
  std::int32_t year = field("yearOfCommonEra"_sel);
  std::int32_t month = field("monthOfYear"_sel);
  std::int32_t day = field("dayOfMonth"_sel);
  std::int32_t second = field("secondOfMinute"_sel);
  std::int32_t minute = field("minuteOfHour"_sel);
  std::int32_t hour = field("hourOfDay"_sel);
  const std::int32_t values[kFieldCount] = {year, month, day, hour, minute, second};
  REALobjectStruct* result = REALnewInstance("Date");
  if (!result) return nullptr;
  for (int i = 0; i < kFieldCount; ++i) {
    REALSetPropValueInt32(result, fieldNames[i], values[i]);
  }
  return result;
}

REALobjectStruct* NSDataRB(id data, bool* raised) {
  if (!data) return nullptr;
  const void* bytes = send<const void*>(data, "bytes"_sel);
  auto length = send<std::int32_t>(data, "length"_sel);
  if (!bytes || length < 1) return nullptr;
  REALmemoryBlockStruct* block =
      length <= kLargestMemoryBlock ? REALNewMemoryBlockOriginal(length) : nullptr;
  if (!block) {
    raiseOutOfMemory(length);
    if (raised) *raised = true;
    return nullptr;
  }
  void* target = REALMemoryBlockGetPtr(block);
  if (!target) return nullptr;
  memcpy(target, bytes, static_cast<std::size_t>(length));
  return asHostObject(block);
}
