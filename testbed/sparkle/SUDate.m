#import "SUDate.h"
#include <ctype.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

static const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

static const struct {
  const char* name;
  int hours;
} kZones[] = {{"GMT", 0},  {"UT", 0},   {"UTC", 0},  {"Z", 0},    {"EST", -5}, {"EDT", -4},
              {"CST", -6}, {"CDT", -5}, {"MST", -7}, {"MDT", -6}, {"PST", -8}, {"PDT", -7}};

// Days since 1 January 1970 in the Gregorian calendar.
static long long dayNumber(long long year, int month, int day) {
  year -= month <= 2;
  long long era = (year >= 0 ? year : year - 399) / 400;
  long long yearOfEra = year - era * 400;
  long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

static int monthNumber(const char* name) {
  for (int i = 0; i < 12; ++i)
    if (!strncasecmp(name, kMonths[i], 3)) return i + 1;
  return 0;
}

static int daysInMonth(int year, int month) {
  if (month == 2) return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 29 : 28;
  return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

// Minutes east of Greenwich; NO for text that is no zone.
static BOOL zoneMinutes(const char* zone, int* minutes) {
  *minutes = 0;
  if (!*zone) return YES;
  if (*zone == '+' || *zone == '-') {
    int hours, rest, used = 0;
    if (sscanf(zone + 1, "%2d%*1[:]%2d%n", &hours, &rest, &used) != 2 &&
        sscanf(zone + 1, "%2d%2d%n", &hours, &rest, &used) != 2)
      return NO;
    if (hours < 0 || rest < 0 || rest > 59 || zone[1 + used]) return NO;
    *minutes = (hours * 60 + rest) * (*zone == '-' ? -1 : 1);
    return YES;
  }
  for (size_t i = 0; i < sizeof kZones / sizeof *kZones; ++i)
    if (!strcasecmp(zone, kZones[i].name)) return *minutes = kZones[i].hours * 60, YES;
  return NO;
}

NSDate* SUDateFromFeed(NSString* text) {
  if ([text length] > 100) return nil;
  const char* at = [text UTF8String];
  if (!at) return nil;
  while (isspace((unsigned char)*at)) ++at;
  const char* comma = strchr(at, ',');
  if (comma) at = comma + 1;

  int day, year, hour = 0, minute = 0, second = 0, used = 0, digits = 0, zone;
  char name[16];
  if (sscanf(at, " %2d %15[A-Za-z] %n%4d%n", &day, name, &digits, &year, &used) != 3 || !used)
    return nil;
  digits = used - digits;
  at += used;
  int time = 0;
  if (sscanf(at, " %2d:%2d%n", &hour, &minute, &time) == 2 && time) {
    at += time;
    time = 0;
    if (sscanf(at, ":%2d%n", &second, &time) == 1) at += time;
  }
  char zoneName[8] = "", rest = 0;
  if (sscanf(at, " %7s %c", zoneName, &rest) == 2) return nil;

  if (digits == 2)
    year += year < 70 ? 2000 : 1900;
  else if (digits != 4 || year < 1)
    return nil;
  int month = monthNumber(name);
  if (!month || day < 1 || day > daysInMonth(year, month) || hour < 0 || hour > 23 || minute < 0 ||
      minute > 59 || second < 0 || second > 60 || !zoneMinutes(zoneName, &zone))
    return nil;
  long long seconds =
      dayNumber(year, month, day) * 86400 + hour * 3600 + (minute - zone) * 60 + second;
  return [NSDate dateWithTimeIntervalSince1970:(NSTimeInterval)seconds];
}
