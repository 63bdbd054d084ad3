// NSLog for the plug-in; number codes and threads as on Mac OS X.

#import <Foundation/Foundation.h>
#import <objc/message.h>

#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/numbers.h"

#include <cctype>
#include <cstdarg>
#include <cstring>
#include <pthread.h>

namespace {
void take_over_threads();
}
static void take_over_numbers();
static NSNumber* number_of_gnustep(long long bits, bool is_unsigned);

// A number of a type that GNUstep's own would widen or narrow.
@interface TestbedNumber : NSNumber {
@public
  long long bits; // of a 'Q' the same 64 bits
  char code[2];
}
@end

@implementation TestbedNumber
+ (void)load {
  take_over_numbers();
  take_over_threads();
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

NSNumber* number_of(char code, long long bits) {
  TestbedNumber* made = [TestbedNumber alloc];
  made->bits = bits;
  made->code[0] = code;
  return [made autorelease];
}

// One for each constructor that GNUstep answers with another type than Mac OS X, which keeps the
// unsigned ones in the next larger signed type that there is. Subclasses of NSNumber keep GNUstep's
// constructor.
template <class Value, char Code> struct constructor {
  static inline id (*original)(Class, SEL, Value);

  static id make(Class self, SEL selector, Value value) {
    if (self != [NSNumber class]) return original(self, selector, value);
    auto bits = static_cast<long long>(value);
    return number_of(Code == 'Q' && bits >= 0 ? 'q' : Code, bits);
  }

  static void install(SEL selector) {
    Method method = class_getClassMethod([NSNumber class], selector);
    original = reinterpret_cast<decltype(original)>(
        method_setImplementation(method, reinterpret_cast<IMP>(make)));
  }
};

// The stack of all threads but the main one, whoever makes them. Instrumented code takes several
// times as much. GNUstep's HTTP keeps a buffer of 512 KiB on the stack of the thread that fetches;
// Cocoa's does not, so its threads get the room for that as well.
#if !__has_feature(address_sanitizer)
constexpr size_t stack_of_mac_os_x = 512 << 10, buffer_of_gnustep = 512 << 10;

void (*start_thread)(NSThread*, SEL);

void start_thread_with_room(NSThread* self, SEL selector) {
  if (![self stackSize]) [self setStackSize:stack_of_mac_os_x + buffer_of_gnustep];
  start_thread(self, selector);
}

void take_over_threads() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_of_mac_os_x);
  if (pthread_setattr_default_np(&attributes)) marks::die("no stack of 512 KiB for threads");
  pthread_attr_destroy(&attributes);
  Method start = class_getInstanceMethod([NSThread class], @selector(start));
  start_thread = reinterpret_cast<decltype(start_thread)>(
      method_setImplementation(start, reinterpret_cast<IMP>(start_thread_with_room)));
}
#else
void take_over_threads() {}
#endif

// What GNUstep calls "C" is "c" on Mac OS X.
const char* boolean_code(id, SEL) { return "c"; }

} // namespace

static void take_over_numbers() {
  constructor<signed char, 'c'>::install(@selector(numberWithChar:));
  constructor<unsigned char, 's'>::install(@selector(numberWithUnsignedChar:));
  constructor<short, 's'>::install(@selector(numberWithShort:));
  constructor<unsigned short, 'i'>::install(@selector(numberWithUnsignedShort:));
  constructor<unsigned int, 'q'>::install(@selector(numberWithUnsignedInt:));
  constructor<NSUInteger, 'q'>::install(@selector(numberWithUnsignedInteger:));
  constructor<long, 'l'>::install(@selector(numberWithLong:));
  constructor<unsigned long, 'q'>::install(@selector(numberWithUnsignedLong:));
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

id numbers_coded(char code, long long bits) {
  if (!code || !strchr("cCsSiIlLqQ", code)) marks::die("numbers_coded: no code '%c'", code);
  int spare = 64 - 8 * objc_sizeof_type(&code);
  auto top = static_cast<unsigned long long>(bits) << spare;
  return number_of(code, isupper(code) ? static_cast<long long>(top >> spare)
                                       : static_cast<long long>(top) >> spare);
}

// GNUstep's own, but what a description throws goes on in the plug-in.
void __wrap_NSLog(NSString* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  marks::leave([&] { NSLogv(format, arguments); });
  va_end(arguments);
}

#pragma GCC visibility pop
} // extern "C"
