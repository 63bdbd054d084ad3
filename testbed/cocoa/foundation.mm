// NSLog for the plug-in, and number codes as on Mac OS X.

#import <Foundation/Foundation.h>
#import <objc/message.h>

#include "testbed/cocoa/marks.h"

#include <cstdarg>
#include <cstring>

static void take_over_numbers();
static NSNumber* number_of_gnustep(long long bits, bool is_unsigned);

// A number that keeps the type it was made with. GNUstep's own widen or narrow most integers.
@interface TestbedNumber : NSNumber {
@public
  long long bits; // of a 'Q' the same 64 bits
  char code[2];
}
@end

@implementation TestbedNumber
+ (void)load {
  take_over_numbers();
}
- (const char*)objCType {
  return code;
}
- (void)getValue:(void*)buffer {
  memcpy(buffer, &bits, objc_sizeof_type(code)); // little endian
}
#define VALUE(name, type)                                                                          \
  -(type)name {                                                                                    \
    return static_cast<type>(bits);                                                                \
  }
#define REAL(name, type)                                                                           \
  -(type)name {                                                                                    \
    return *code == 'Q' ? static_cast<type>(static_cast<unsigned long long>(bits))                 \
                        : static_cast<type>(bits);                                                 \
  }
VALUE(charValue, signed char)
VALUE(unsignedCharValue, unsigned char)
VALUE(shortValue, short)
VALUE(unsignedShortValue, unsigned short)
VALUE(intValue, int)
VALUE(unsignedIntValue, unsigned int)
VALUE(longValue, long)
VALUE(unsignedLongValue, unsigned long)
VALUE(longLongValue, long long)
VALUE(unsignedLongLongValue, unsigned long long)
VALUE(integerValue, NSInteger)
VALUE(unsignedIntegerValue, NSUInteger)
REAL(floatValue, float)
REAL(doubleValue, double)
#undef REAL
#undef VALUE
- (BOOL)boolValue {
  return bits != 0;
}
- (NSString*)descriptionWithLocale:(id)locale {
  (void)locale;
  return [NSString stringWithFormat:*code == 'Q' ? @"%llu" : @"%lld", bits];
}
- (NSComparisonResult)compare:(NSNumber*)other {
  if (!other) [NSException raise:NSInvalidArgumentException format:@"nil argument for compare:"];
  const char* type = [other objCType];
  if (*type == 'f' || *type == 'd') {
    double mine = [self doubleValue], its = [other doubleValue];
    return mine < its ? NSOrderedAscending : mine > its ? NSOrderedDescending : NSOrderedSame;
  }
  long long its = [other longLongValue];
  bool mine_above = *code == 'Q' && bits < 0, its_above = *type == 'Q' && its < 0;
  if (mine_above != its_above) return mine_above ? NSOrderedDescending : NSOrderedAscending;
  return bits < its ? NSOrderedAscending : bits > its ? NSOrderedDescending : NSOrderedSame;
}
// GNUstep reads some of the codes wrongly that it never writes.
- (id)replacementObjectForCoder:(NSCoder*)coder {
  (void)coder;
  return number_of_gnustep(bits, *code == 'Q');
}
@end

namespace {

// One for each constructor that GNUstep answers with another type. Subclasses of NSNumber keep
// GNUstep's constructor.
template <class Value, char Code> struct constructor {
  static inline id (*original)(Class, SEL, Value);

  static id make(Class self, SEL selector, Value value) {
    if (self != [NSNumber class]) return original(self, selector, value);
    TestbedNumber* made = [TestbedNumber alloc];
    made->bits = static_cast<long long>(value);
    made->code[0] = Code;
    return [made autorelease];
  }

  static void install(SEL selector) {
    Method method = class_getClassMethod([NSNumber class], selector);
    original = reinterpret_cast<decltype(original)>(
        method_setImplementation(method, reinterpret_cast<IMP>(make)));
  }
};

// What GNUstep calls "C" is "c" on Mac OS X.
const char* boolean_code(id, SEL) { return "c"; }

} // namespace

static void take_over_numbers() {
  constructor<signed char, 'c'>::install(@selector(numberWithChar:));
  constructor<unsigned char, 'C'>::install(@selector(numberWithUnsignedChar:));
  constructor<short, 's'>::install(@selector(numberWithShort:));
  constructor<unsigned short, 'S'>::install(@selector(numberWithUnsignedShort:));
  constructor<unsigned int, 'I'>::install(@selector(numberWithUnsignedInt:));
  constructor<NSUInteger, 'I'>::install(@selector(numberWithUnsignedInteger:));
  constructor<long, 'l'>::install(@selector(numberWithLong:));
  constructor<unsigned long, 'L'>::install(@selector(numberWithUnsignedLong:));
  constructor<long long, 'q'>::install(@selector(numberWithLongLong:));
  constructor<unsigned long long, 'Q'>::install(@selector(numberWithUnsignedLongLong:));
  Class booleans = objc_getClass("NSBoolNumber");
  if (!booleans) marks::die("this GNUstep has no NSBoolNumber");
  Method code = class_getInstanceMethod(booleans, @selector(objCType));
  class_replaceMethod(booleans, @selector(objCType), reinterpret_cast<IMP>(boolean_code),
                      method_getTypeEncoding(code));
}

static NSNumber* number_of_gnustep(long long bits, bool is_unsigned) {
  if (!is_unsigned)
    return constructor<long long, 'q'>::original([NSNumber class], @selector(numberWithLongLong:),
                                                 bits);
  return constructor<unsigned long long, 'Q'>::original([NSNumber class],
                                                        @selector(numberWithUnsignedLongLong:),
                                                        static_cast<unsigned long long>(bits));
}

extern "C" {
#pragma GCC visibility push(default)

// GNUstep's own, but what a description throws goes on in the plug-in.
void __wrap_NSLog(NSString* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  marks::leave([&] { NSLogv(format, arguments); });
  va_end(arguments);
}

#pragma GCC visibility pop
} // extern "C"
