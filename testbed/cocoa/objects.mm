// CFRetain, CFRelease, CGImageRetain, the type identifiers, and the objects of typeids.h.

#import <Foundation/Foundation.h>

#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"
#include "testbed/cocoa/typeids.h"

#include <atomic>
#include <cstring>
#include <string>

namespace {

enum row : unsigned long {
  no_row,
  plain_row, // CFType's own, which no function answers
#define ROW(name) name##_row,
  TYPEID_ROWS(ROW)
#undef ROW
      other_row
};

// GNUstep's classes and what their objects are on Mac OS X; the first that fits.
constexpr struct {
  const char* class_name;
  row type;
} bridged[] = {
    {"NSURL", CFURL_row},
    {"NSDictionary", CFDictionary_row},
    {"TestbedPointerDictionary", CFDictionary_row},
    {"NSString", CFString_row},
    {"NSBoolNumber", CFBoolean_row},
    {"NSNumber", CFNumber_row},
    {"NSArray", CFArray_row},
    {"NSData", CFData_row},
    {"NSCharacterSet", CFCharacterSet_row},
    {"NSSet", CFSet_row},
    {"NSTimeZone", CFTimeZone_row},
    {"NSDate", CFDate_row},
    {"NSAttributedString", CFAttributedString_row},
    {"NSError", CFError_row},
};

[[noreturn]] void throw_as(typeids_thrown what, const char* place) {
  if (what == TYPEIDS_OTHER_OBJECT) @throw [[NSObject new] autorelease];
  [NSException raise:@"TestbedTypeException" format:@"thrown on purpose by %s", place];
  __builtin_unreachable();
}

void needs(const void* object, const char* function) {
  if (!object) marks::die("%s: a null pointer, which crashes on Mac OS X", function);
}

row row_of(id object) {
  for (auto& each : bridged) {
    Class kind = objc_getClass(each.class_name);
    if (kind && [object isKindOfClass:kind]) return each.type;
  }
  return plain_row;
}

unsigned long type_of(id self, SEL) { return row_of(self); }
unsigned long zero(id, SEL) { return 0; }

void answer(Class type, unsigned long (*method)(id, SEL)) {
  class_replaceMethod(type, @selector(_cfTypeID), reinterpret_cast<IMP>(method), "L8@0:4");
}

} // namespace

@interface TestbedTypedObject : NSObject {
@public
  unsigned long type;
  char throwing_on[16];
  typeids_thrown thrown;
  std::atomic<unsigned>* counts;
}
@end

@implementation TestbedTypedObject
+ (void)load {
  const char* asked = getenv("TESTBED_CFTYPEID");
  if (!asked || strcmp(asked, "none") != 0) answer([NSObject class], type_of);
}
- (void)throwOn:(const char*)place {
  if (!strcmp(throwing_on, place)) throw_as(thrown, place);
}
- (unsigned long)_cfTypeID {
  [self throwOn:"_cfTypeID"];
  return type;
}
- (id)retain {
  [self throwOn:"retain"];
  ++counts[0];
  return [super retain];
}
- (oneway void)release {
  ++counts[1];
  [super release];
}
- (void)dealloc {
  delete[] counts;
  [super dealloc];
}
@end

extern "C" {
#pragma GCC visibility push(default)

unsigned long typeids_of(const char* name) {
  constexpr const char* names[] = {
#define ROW(name) #name "GetTypeID",
      TYPEID_ROWS(ROW)
#undef ROW
  };
  for (unsigned long n = 0; n < std::size(names); ++n)
    if (!strcmp(names[n], name)) return n + plain_row + 1;
  return 0;
}

unsigned long typeids_of_no_row(void) { return other_row; }

void typeids_deny(Class type) { answer(type, zero); }

id typeids_object(unsigned long type) {
  TestbedTypedObject* made = [TestbedTypedObject new];
  made->type = type;
  made->counts = new std::atomic<unsigned>[3]();
  return made;
}

void typeids_throw(id object, const char* on, typeids_thrown what) {
  auto* typed = static_cast<TestbedTypedObject*>(object);
  if (strlen(on) >= sizeof typed->throwing_on) marks::die("typeids_throw: no place \"%s\"", on);
  strcpy(typed->throwing_on, on);
  typed->thrown = what;
}

typeids_counts typeids_count(id object) {
  auto* counts = static_cast<TestbedTypedObject*>(object)->counts;
  return {counts[0], counts[1], counts[2]};
}

#define ROW(name)                                                                                  \
  unsigned long name##GetTypeID(void) { return name##_row; }
TYPEID_ROWS(ROW)
#undef ROW

unsigned long CFGetTypeID(id object) {
  needs(object, "CFGetTypeID");
  return marks::leave([&]() -> unsigned long {
    if ([object isKindOfClass:[TestbedTypedObject class]])
      [static_cast<TestbedTypedObject*>(object) throwOn:"CFGetTypeID"];
    if ([object respondsToSelector:@selector(_cfTypeID)]) return [object _cfTypeID];
    row type = row_of(object);
    return type == plain_row ? other_row : type;
  });
}

id CFRetain(id object) {
  needs(object, "CFRetain");
  return marks::leave([&] { return [object retain]; });
}

void CFRelease(id object) {
  needs(object, "CFRelease");
  marks::leave([&] { [object release]; });
}

id CGImageRetain(id image) {
  if (!image) return nil;
  return marks::leave([&] {
    id retained = [image retain];
    if ([image isKindOfClass:[TestbedTypedObject class]])
      ++static_cast<TestbedTypedObject*>(image)->counts[2];
    return retained;
  });
}

#pragma GCC visibility pop
} // extern "C"
