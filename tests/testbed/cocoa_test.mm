// The border, the messages and Core Foundation as the plug-in sees them.

#import <Foundation/Foundation.h>
#import <GNUstepBase/NSObject+GNUstepBase.h>
#import <objc/objc-exception.h>

#include <gtest/gtest.h>

#include "cocoa_plugin.h"
#include "testbed/cocoa/crossing.h"
#include "testbed/cocoa/faults.h"
#include "testbed/cocoa/files.h"
#include "testbed/cocoa/numbers.h"
#include "testbed/cocoa/typeids.h"

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif

// Apple's names, declared as the plug-in would.
extern "C" {
uint64_t objc_msgSend(id, SEL, ...);
int objc_exception_match(Class, id);
id __CFStringMakeConstantString(const char*);
long CFStringGetLength(id);
unsigned char CFStringGetCString(id, char*, long, uint32_t);
void CFStringGetCharacters(id, long, long, unichar*);
id CFStringCreateWithCharacters(const void*, const unichar*, long);
id CFStringCreateWithCString(const void*, const char*, uint32_t);
id CFStringCreateMutableCopy(const void*, long, id);
void CFStringNormalize(id, long);
id CFURLCreateWithString(const void*, id, id);
id CFURLCopyFileSystemPath(id, long);
id CFURLCreateFromFSRef(const void*, const FSRef*);
unsigned char CFURLGetFSRef(id, FSRef*);
id CFURLCreateCopyAppendingPathComponent(const void*, id, id, unsigned char);
id CFURLCreateCopyDeletingLastPathComponent(const void*, id);
id CFURLCopyLastPathComponent(id);
id CFRetain(id);
void CFRelease(id);
unsigned long CFGetTypeID(id);
id CGImageRetain(id);
id CFDictionaryCreateMutable(const void*, long, const void*, const void*);
const void* CFDictionaryGetValue(id, const void*);
void CFDictionarySetValue(id, const void*, const void*);
void CFDictionaryRemoveValue(id, const void*);
long CFDictionaryGetCount(id);
#define ROW(name) unsigned long name##GetTypeID(void);
TYPEID_ROWS(ROW)
#undef ROW
}

@interface TestThrown : NSObject // thrown, and no NSException
@end
@implementation TestThrown
@end

struct odd {
  int a, b, c;
};
struct four {
  unsigned char bytes[4];
};
struct two {
  unsigned char bytes[2];
};

@protocol TestProtocol
- (int)answer;
@end

// GNUstep knows a protocol by name once a class adopts it.
@interface TestAdopter : NSObject <TestProtocol>
@end
@implementation TestAdopter
- (int)answer {
  return 0;
}
@end

// What the plug-in sends messages to.
@interface TestTarget : NSObject {
@public
  std::function<void()> body;
}
@end
@implementation TestTarget
+ (TestTarget*)doing:(std::function<void()>)wanted {
  TestTarget* made = [[TestTarget new] autorelease];
  made->body = wanted;
  return made;
}
- (id)perform {
  body();
  return self;
}
- (void)performNothing:(id)unused {
  (void)unused;
  body();
}
- (long long)big {
  return 0x0123456789ABCDEFLL;
}
- (float)single {
  return 1.25f;
}
- (double)real:(int)a with:(int)b {
  return a + b / 8.0;
}
- (NSRect)rect {
  return NSMakeRect(1, 2, 3, 4);
}
- (NSRange)range {
  return NSMakeRange(7, 9);
}
- (NSSize)size {
  return NSMakeSize(1.5, 2.5);
}
- (struct four)quad {
  return {{1, 2, 3, 4}};
}
- (struct two)couple {
  return {{5, 6}};
}
- (struct odd)triple {
  return {10, 20, 30};
}
- (unsigned)sum:(unsigned)a
              b:(unsigned)b
              c:(unsigned)c
              d:(unsigned)d
              e:(unsigned)e
              f:(unsigned)f
              g:(unsigned)g
              h:(unsigned)h
              i:(unsigned)i
              j:(unsigned)j {
  return a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + 7 * g + 8 * h + 9 * i + 10 * j;
}
- (void)raise {
  [NSException raise:@"TestException" format:@"raised %d", 1];
}
- (NSRect)raisingRect {
  [self raise];
  return NSZeroRect;
}
- (double)raisingReal {
  [self raise];
  return 0;
}
- (void)throwOther {
  @throw [[TestThrown new] autorelease];
}
- (unsigned)alignmentOf:(int)a and:(int)b {
  (void)a;
  (void)b;
  return (reinterpret_cast<unsigned>(__builtin_frame_address(0)) + 8) % 16;
}
@end

@interface TestSubTarget : TestTarget
@end
@implementation TestSubTarget
- (NSRange)range {
  return NSMakeRange(0, 0);
}
- (int)nothing {
  return 0;
}
@end

// Forwards everything that it does not know to a target.
@interface TestForwarder : NSObject {
@public
  id target;
}
@end
@implementation TestForwarder
- (NSMethodSignature*)methodSignatureForSelector:(SEL)selector {
  NSMethodSignature* own = [super methodSignatureForSelector:selector];
  return own ? own : [target methodSignatureForSelector:selector];
}
- (void)forwardInvocation:(NSInvocation*)invocation {
  [invocation invokeWithTarget:target];
}
@end

namespace {

uint32_t word(const void* pointer) { return reinterpret_cast<uint32_t>(pointer); }
uint32_t word(uint32_t value) { return value; }
uint32_t word(int value) { return static_cast<uint32_t>(value); }
template <class Result, class... Given> uint32_t word(Result (*function)(Given...)) {
  return reinterpret_cast<uint32_t>(function);
}

template <class Function, class... Given> uint64_t enter(Function* function, Given... given) {
  std::array<uint32_t, sizeof...(Given)> words = {word(given)...};
  return crossing_enter(reinterpret_cast<void*>(function), words.data(), words.size());
}

plugin_id plug(id object) { return reinterpret_cast<plugin_id>(object); }
id back(uint64_t answer) { return reinterpret_cast<id>(static_cast<uint32_t>(answer)); }

uint64_t send(id object, const char* selector, uint32_t a = 0, uint32_t b = 0, uint32_t c = 0) {
  return enter(plugin_send, plug(object), selector, a, b, c);
}

double send_fp(id object, const char* selector, uint32_t a = 0, uint32_t b = 0) {
  uint32_t words[] = {word(plug(object)), word(selector), a, b, 0};
  return crossing_enter_fp(reinterpret_cast<void*>(plugin_send_fp), words, 5);
}

using work = std::function<void()>;
void run_work(void* context) { (*static_cast<work*>(context))(); }

// Runs BODY as plug-in code inside an exception frame of the plug-in. BODY is native here, so it
// must itself leave for everything that can throw natively.
id guarded(work body) { return back(enter(plugin_guard, run_work, static_cast<void*>(&body))); }

// A message sent by the plug-in inside an exception frame.
struct guarded_send {
  plugin_id object;
  const char* selector;
};
void send_it(void* context) {
  auto* what = static_cast<guarded_send*>(context);
  plugin_send(what->object, what->selector, 0, 0, 0);
}
id send_guarded(id object, const char* selector) {
  guarded_send what = {plug(object), selector};
  return back(enter(plugin_guard, send_it, static_cast<void*>(&what)));
}

// What BODY throws natively, or nil.
id thrown_by(const work& body) {
  @try {
    body();
  } @catch (id thrown) {
    return thrown;
  }
  return nil;
}

std::string text(id string) {
  const char* bytes = [string UTF8String];
  return bytes ? bytes : "(none)";
}

NSString* ns(const char* text) { return [NSString stringWithUTF8String:text]; }

class Pool : public testing::Test {
protected:
  NSAutoreleasePool* pool = [NSAutoreleasePool new];
  ~Pool() override { [pool release]; }
};

using Messages = Pool;
using Exceptions = Pool;
using Thunks = Pool;
using Strings = Pool;
using Urls = Pool;
using Dictionaries = Pool;
using Types = Pool;
using Numbers = Pool;
using Logging = Pool;
using Files = Pool;
using Faults = Pool;

std::vector<unichar> units(id string) {
  std::vector<unichar> made(CFStringGetLength(string));
  CFStringGetCharacters(string, 0, made.size(), made.data());
  return made;
}

} // namespace

// Messages

TEST_F(Messages, AnswerWordsAndPairsOfWords) {
  TestTarget* target = [TestTarget doing:[] {}];
  EXPECT_EQ(uint32_t(send(target, "perform")), word(plug(target)));
  EXPECT_EQ(send(target, "big"), 0x0123456789ABCDEFull);
  EXPECT_EQ(uint32_t(send([TestTarget class], "class")), word(plug((id)[TestTarget class])));
}

TEST_F(Messages, ToNilAnswerZero) {
  EXPECT_EQ(send(nil, "big"), 0u);
  EXPECT_EQ(send_fp(nil, "doubleValue"), 0.0);
  plugin_rect rect = {1, 2, 3, 4};
  enter(plugin_send_rect, plug(nil), "rect", &rect);
  EXPECT_EQ(rect.x, 0);
  EXPECT_EQ(rect.height, 0);
  EXPECT_EQ(enter(plugin_send_super, plug(nil), "NSObject", "hash"), 0u);
}

TEST_F(Messages, ToNilZeroNoMoreThanTheStruct) {
  plugin_triple triple = {-1, -1, -1};
  enter(plugin_send_triple, plug(nil), "triple", &triple);
  EXPECT_EQ(triple.a, 0);
  EXPECT_EQ(triple.c, 0);
}

TEST_F(Messages, AnswerFloatsAndDoubles) {
  TestTarget* target = [TestTarget doing:[] {}];
  EXPECT_EQ(send_fp(target, "single"), 1.25);
  EXPECT_EQ(send_fp(target, "real:with:", 3, 2), 3.25);
}

TEST_F(Messages, AnswerLargeStructsThroughMemory) {
  TestTarget* target = [TestTarget doing:[] {}];
  plugin_rect rect = {};
  enter(plugin_send_rect, plug(target), "rect", &rect);
  EXPECT_EQ(rect.x, 1);
  EXPECT_EQ(rect.height, 4);
  plugin_triple triple = {};
  enter(plugin_send_triple, plug(target), "triple", &triple);
  EXPECT_EQ(triple.b, 20);
  EXPECT_EQ(triple.c, 30);
}

TEST_F(Messages, AnswerNoSmallStructsThroughMemory) {
  TestTarget* target = [TestTarget doing:[] {}];
  plugin_rect rect = {};
  EXPECT_DEATH(enter(plugin_send_rect, plug(target), "range", &rect), "registers on Mac OS X");
}

TEST_F(Messages, AnswerSmallStructsInRegisters) {
  TestTarget* target = [TestTarget doing:[] {}];
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(send(target, "range"), 9ull << 32 | 7);
    uint64_t raw = send(target, "size");
    NSSize size;
    memcpy(&size, &raw, sizeof size);
    EXPECT_EQ(size.width, 1.5);
    EXPECT_EQ(size.height, 2.5);
    EXPECT_EQ(uint32_t(send(target, "quad")), 0x04030201u);
    EXPECT_EQ(uint16_t(send(target, "couple")), 0x0605u);
  }
}

TEST_F(Messages, AnswerTheStructsOfNSValue) {
  EXPECT_EQ(send([NSValue valueWithRange:NSMakeRange(1, 2)], "rangeValue"), 2ull << 32 | 1);
  uint64_t raw = send([NSValue valueWithPoint:NSMakePoint(-1, 4)], "pointValue");
  NSPoint point;
  memcpy(&point, &raw, sizeof point);
  EXPECT_EQ(point.x, -1);
  EXPECT_EQ(point.y, 4);
}

TEST_F(Messages, ToSuperUseTheSuperclass) {
  TestSubTarget* target = [[TestSubTarget new] autorelease];
  EXPECT_EQ(send(target, "range"), 0u);
  EXPECT_EQ(enter(plugin_send_super, plug(target), "TestTarget", "range"), 9ull << 32 | 7);
  EXPECT_EQ(enter(plugin_send_super, plug(target), "TestTarget", "big"), 0x0123456789ABCDEFull);
}

TEST_F(Messages, CarryTenWords) {
  TestTarget* target = [TestTarget doing:[] {}];
  uint32_t ten[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ((uint32_t)enter(plugin_send_ten, plug(target), "sum:b:c:d:e:f:g:h:i:j:", ten), 385u);
}

TEST_F(Messages, KeepTheStackAligned) {
  TestTarget* target = [TestTarget doing:[] {}];
  EXPECT_EQ(uint32_t(send(target, "alignmentOf:and:", 1, 2)), 0u);
  EXPECT_EQ((uint32_t)enter(plugin_stack_alignment, 1, 2, 3), 0u);
}

TEST_F(Messages, UnknownToTheReceiverRaiseInvalidArgument) {
  id object = [[NSObject new] autorelease];
  id thrown = send_guarded(object, "noSuchMessage");
  EXPECT_EQ(text([thrown name]), "NSInvalidArgumentException");
  EXPECT_NE(text([thrown reason]).find("noSuchMessage"), std::string::npos);
  thrown = guarded([&] { plugin_send_fp(plug(object), "noSuchReal", 0, 0, 0); });
  EXPECT_EQ(text([thrown name]), "NSInvalidArgumentException");
  plugin_rect rect;
  thrown = guarded([&] { plugin_send_rect(plug(object), "noSuchRect", &rect); });
  EXPECT_EQ(text([thrown name]), "NSInvalidArgumentException");
}

TEST_F(Messages, ThatAreForwardedAnswerEveryKind) {
  TestForwarder* forwarder = [[TestForwarder new] autorelease];
  forwarder->target = [TestTarget doing:[] {}];
  EXPECT_EQ(send(forwarder, "big"), 0x0123456789ABCDEFull);
  EXPECT_EQ(send(forwarder, "range"), 9ull << 32 | 7);
  EXPECT_EQ(send_fp(forwarder, "real:with:", 3, 2), 3.25);
  plugin_rect rect = {};
  enter(plugin_send_rect, plug(forwarder), "rect", &rect);
  EXPECT_EQ(rect.width, 3);
}

TEST_F(Messages, ThatAreForwardedMayThrow) {
  TestForwarder* forwarder = [[TestForwarder new] autorelease];
  forwarder->target = [TestTarget doing:[] {}];
  EXPECT_EQ(text([send_guarded(forwarder, "raise") name]), "TestException");
}

// Exceptions

TEST_F(Exceptions, OfNativeCodeReachTheFrame) {
  TestTarget* target = [TestTarget doing:[] {}];
  id thrown = send_guarded(target, "raise");
  ASSERT_NE(thrown, nil);
  EXPECT_EQ(text([thrown reason]), "raised 1");
  EXPECT_TRUE(objc_exception_match([NSException class], thrown));
  EXPECT_FALSE(objc_exception_match([NSString class], thrown));
  EXPECT_TRUE(objc_exception_match([NSObject class], thrown));
  EXPECT_FALSE(objc_exception_match([NSException class], nil));
}

TEST_F(Exceptions, OfEveryKindOfMessageReachTheFrame) {
  TestTarget* target = [TestTarget doing:[] {}];
  EXPECT_NE(guarded([&] { plugin_send_fp(plug(target), "raisingReal", 0, 0, 0); }), nil);
  plugin_rect rect;
  EXPECT_NE(guarded([&] { plugin_send_rect(plug(target), "raisingRect", &rect); }), nil);
  EXPECT_NE(guarded([&] { plugin_send_super(plug(target), "TestTarget", "raise"); }), nil);
}

TEST_F(Exceptions, OfAClassNotAskedForGoOn) {
  TestTarget* target = [TestTarget doing:[] {}];
  guarded_send what = {plug(target), "throwOther"};
  id thrown = thrown_by([&] {
    enter(plugin_guard_class, send_it, static_cast<void*>(&what), plug((id)[NSException class]));
  });
  EXPECT_TRUE([thrown isKindOfClass:[TestThrown class]]);
  what.selector = "raise";
  thrown = back(
      enter(plugin_guard_class, send_it, static_cast<void*>(&what), plug((id)[NSException class])));
  EXPECT_EQ(text([thrown name]), "TestException");
}

TEST_F(Exceptions, ReachTheInnermostFrame) {
  work body = [] { plugin_throw(plug(@"inner")); };
  plugin_id what = nullptr;
  int reached = enter(plugin_nested_guards, run_work, (const void*)nullptr, (const void*)nullptr,
                      static_cast<void*>(&body), &what);
  EXPECT_EQ(reached, 1);
  EXPECT_EQ(text((id)what), "inner");
}

TEST_F(Exceptions, OfAHandlerReachTheOuterFrame) {
  int times = 0;
  work body = [&] { plugin_throw(plug(++times == 1 ? @"first" : @"second")); };
  plugin_id what = nullptr;
  int reached = enter(plugin_nested_guards, run_work, run_work, (const void*)nullptr,
                      static_cast<void*>(&body), &what);
  EXPECT_EQ(reached, 3);
  EXPECT_EQ(text((id)what), "second");
}

TEST_F(Exceptions, AfterAnInnerFrameWasLeftReachTheOuter) {
  int times = 0;
  work body = [&] {
    if (++times == 2) plugin_throw(plug(@"late"));
  };
  plugin_id what = nullptr;
  int reached = enter(plugin_nested_guards, run_work, (const void*)nullptr, run_work,
                      static_cast<void*>(&body), &what);
  EXPECT_EQ(reached, 2);
  EXPECT_EQ(text((id)what), "late");
}

TEST_F(Exceptions, AreSeenByNativeCatchBetweenTwoFrames) {
  id seen = nil;
  TestTarget* target = [TestTarget doing:[&] {
    @try {
      enter(plugin_throw, plug(@"between"));
    } @catch (id thrown) {
      seen = thrown;
    }
  }];
  EXPECT_EQ(send_guarded(target, "perform"), nil);
  EXPECT_EQ(text(seen), "between");
}

TEST_F(Exceptions, RunNativeFinallyBetweenTwoFrames) {
  bool ran = false;
  TestTarget* target = [TestTarget doing:[&] {
    @try {
      enter(plugin_throw, plug(@"through"));
    } @finally {
      ran = true;
    }
  }];
  EXPECT_EQ(text(send_guarded(target, "perform")), "through");
  EXPECT_TRUE(ran);
}

TEST_F(Exceptions, RethrownByNativeCodeReachTheOuterFrame) {
  TestTarget* inner = [TestTarget doing:[] {}];
  TestTarget* target = [TestTarget doing:[&] {
    @try {
      send(inner, "raise");
    } @catch (NSException* thrown) {
      @throw;
    }
  }];
  EXPECT_EQ(text([send_guarded(target, "perform") name]), "TestException");
}

TEST_F(Exceptions, RunDestructorsOfNativeCodeBetween) {
  struct leaving {
    bool& flag;
    ~leaving() { flag = true; }
  };
  bool destroyed = false;
  TestTarget* target = [TestTarget doing:[&] {
    leaving at_the_end = {destroyed};
    enter(plugin_throw, plug(@"through"));
  }];
  EXPECT_NE(send_guarded(target, "perform"), nil);
  EXPECT_TRUE(destroyed);
}

TEST_F(Exceptions, WithoutFrameLeaveThePluginNatively) {
  TestTarget* target = [TestTarget doing:[] {}];
  EXPECT_EQ(text([thrown_by([&] { send(target, "raise"); }) name]), "TestException");
  EXPECT_EQ(text(thrown_by([&] { enter(plugin_throw, plug(@"own")); })), "own");
}

TEST_F(Exceptions, LeaveNoMarkBehind) {
  TestTarget* target = [TestTarget doing:[] {}];
  for (int n = 0; n < 1000; ++n) {
    EXPECT_NE(send_guarded(target, "raise"), nil);
    EXPECT_NE(thrown_by([&] { send(target, "throwOther"); }), nil);
  }
}

TEST_F(Exceptions, PassThroughManyCrossings) {
  int depth = 0, finally_blocks = 0;
  TestTarget* target = nil;
  target = [TestTarget doing:[&] {
    if (++depth == 300) [NSException raise:@"Deep" format:@"down"];
    @try {
      send(target, "perform");
    } @finally {
      ++finally_blocks;
    }
  }];
  EXPECT_EQ(text([send_guarded(target, "perform") name]), "Deep");
  EXPECT_EQ(finally_blocks, 299);
}

TEST_F(Exceptions, StayWithTheirThread) {
  std::atomic<int> wrong = 0;
  auto body = [&](int id_of_thread) {
    NSAutoreleasePool* own = [NSAutoreleasePool new];
    for (int n = 0; n < 300; ++n) {
      NSString* name = [NSString stringWithFormat:@"%d/%d", id_of_thread, n];
      TestTarget* target = [TestTarget doing:[&] { @throw name; }];
      if (send_guarded(target, "perform") != name) ++wrong;
      std::this_thread::yield();
    }
    [own release];
  };
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n)
    threads.emplace_back([&body, n] {
      GSRegisterCurrentThread();
      body(n);
      GSUnregisterCurrentThread();
    });
  for (auto& each : threads) each.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Exceptions, OfAHandlerRunInsideLeaveReachTheFrame) {
  work raising = [] { [NSException raise:@"Handler" format:@"failed"]; };
  id thrown = guarded([&] { crossing_leave(run_work, &raising); });
  EXPECT_EQ(text([thrown name]), "Handler");
}

TEST_F(Exceptions, OfLeaveCalledByNativeCodePassNatively) {
  work raising = [] { [NSException raise:@"Handler" format:@"failed"]; };
  EXPECT_EQ(text([thrown_by([&] { crossing_leave(run_work, &raising); }) name]), "Handler");
  work nested = [&] { crossing_leave(run_work, &raising); };
  EXPECT_EQ(text([thrown_by([&] { crossing_leave(run_work, &nested); }) name]), "Handler");
}

TEST_F(Exceptions, OfCoreFoundationCalledByNativeCodeStayNative) {
  id seen = nil;
  bool ran = false;
  TestTarget* target = [TestTarget doing:[&] {
    unichar buffer[4];
    @try {
      @try {
        CFStringGetCharacters(@"ab", 1, 2, buffer);
      } @finally {
        ran = true;
      }
    } @catch (id thrown) {
      seen = thrown;
    }
  }];
  EXPECT_EQ(send_guarded(target, "perform"), nil);
  EXPECT_EQ(text([seen name]), "NSRangeException");
  EXPECT_TRUE(ran);
}

TEST_F(Exceptions, WithNowhereToGoEndTheProcess) {
  EXPECT_DEATH(plugin_throw(plug([TestTarget doing:[] {}])),
               "objc_exception_throw: an object of class TestTarget");
}

TEST_F(Exceptions, FramesLeftOpenEndTheProcess) {
  EXPECT_DEATH(enter(plugin_leave_frame_open), "crossing_enter: expected to find its own mark");
  EXPECT_DEATH(enter(plugin_exit_twice), "objc_exception_try_exit: expected to find its own mark");
}

// Crossings into the plug-in

TEST_F(Thunks, EnterCallsWithAnyNumberOfWords) {
  EXPECT_EQ(int(enter(plugin_add, 40, 2)), 42);
  EXPECT_EQ(enter(plugin_shift, 1u, 1u, 4), 0x10'0000'0010ull);
}

TEST_F(Thunks, EnterAnswersFloatingPoint) {
  double value = 5;
  uint32_t words[2];
  memcpy(words, &value, sizeof words);
  EXPECT_EQ(crossing_enter_fp(reinterpret_cast<void*>(plugin_half), words, 2), 2.5);
  float single = 3;
  memcpy(words, &single, 4);
  EXPECT_EQ(crossing_enter_fp(reinterpret_cast<void*>(plugin_half_float), words, 1), 1.5);
}

TEST_F(Thunks, AreCalledLikeTheFunction) {
  auto add = reinterpret_cast<int (*)(int, int)>(crossing_thunk((void*)plugin_add));
  auto half = reinterpret_cast<double (*)(double)>(crossing_thunk((void*)plugin_half));
  auto shift = reinterpret_cast<long long (*)(long long, int)>(crossing_thunk((void*)plugin_shift));
  EXPECT_EQ(add(1, 2), 3);
  EXPECT_EQ(half(7), 3.5);
  EXPECT_EQ(shift(0x1'0000'0001, 8), 0x100'0000'0100);
}

TEST_F(Thunks, OfOneFunctionAreOne) {
  EXPECT_EQ(crossing_thunk((void*)plugin_add), crossing_thunk((void*)plugin_add));
  EXPECT_NE(crossing_thunk((void*)plugin_add), crossing_thunk((void*)plugin_half));
}

TEST_F(Thunks, LetNativeCodeCatchWhatThePluginThrows) {
  auto thrower = reinterpret_cast<void (*)(id)>(crossing_thunk((void*)plugin_throw));
  EXPECT_EQ(text(thrown_by([&] { thrower(@"thrown"); })), "thrown");
}

class Classes : public Pool {
protected:
  Class make() { return (Class)back(enter(plugin_make_class, "MadeAtRunTime", "TestProtocol")); }
  Class made = objc_getClass("MadeAtRunTime") ? objc_getClass("MadeAtRunTime") : make();
};

TEST_F(Classes, OfThePluginAnswerNativeCode) {
  id object = [[[made alloc] init] autorelease];
  [object performSelector:@selector(setAnswer:) withObject:(id)42];
  EXPECT_EQ((int)[object performSelector:@selector(answer)], 42);
  EXPECT_TRUE([made conformsToProtocol:@protocol(TestProtocol)]);
  EXPECT_EQ(int(enter(plugin_ivar_offset, plug(object))), 4);
}

TEST_F(Classes, OfThePluginTakeAndAnswerDoubles) {
  id object = [[[made alloc] init] autorelease];
  NSInvocation* call = [NSInvocation
      invocationWithMethodSignature:[object methodSignatureForSelector:sel_registerName("half:")]];
  double value = 9;
  [call setSelector:sel_registerName("half:")];
  [call setArgument:&value atIndex:2];
  [call invokeWithTarget:object];
  [call getReturnValue:&value];
  EXPECT_EQ(value, 4.5);
}

TEST_F(Classes, OfThePluginTakeTenWords) {
  id object = [[[made alloc] init] autorelease];
  uint32_t ten[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ((uint32_t)enter(plugin_send_ten, plug(object), "sum:b:c:d:e:f:g:h:i:j:", ten), 385u);
}

TEST_F(Classes, OfThePluginReachTheirSuperclass) {
  id object = [[[made alloc] init] autorelease];
  EXPECT_TRUE([object isEqual:object]);
  EXPECT_FALSE([object isEqual:@"other"]);
}

TEST_F(Classes, OfThePluginThrowIntoPerformSelector) {
  id object = [[[made alloc] init] autorelease];
  id thrown =
      thrown_by([&] { [object performSelector:@selector(throwObject:) withObject:@"thrown"]; });
  EXPECT_EQ(text(thrown), "thrown");
  TestTarget* target = [TestTarget doing:[] { [NSException raise:@"Native" format:@"raised"]; }];
  thrown = thrown_by([&] { [object performSelector:@selector(perform:) withObject:target]; });
  EXPECT_EQ(text([thrown name]), "Native");
}

TEST_F(Classes, OfThePluginThrowThroughAnInvocation) {
  id object = [[[made alloc] init] autorelease];
  NSInvocation* call = [NSInvocation
      invocationWithMethodSignature:[object methodSignatureForSelector:@selector(throwObject:)]];
  id what = @"thrown";
  [call setSelector:@selector(throwObject:)];
  [call setArgument:&what atIndex:2];
  EXPECT_EQ(text(thrown_by([&] { [call invokeWithTarget:object]; })), "thrown");
}

TEST_F(Classes, OfThePluginThrowOnTheMainThread) {
  id object = [[[made alloc] init] autorelease];
  std::string seen = "nothing";
  TestTarget* watcher = [TestTarget doing:[&] {
    seen = text([thrown_by([&] {
      [object performSelector:@selector(perform:)
                   withObject:[TestTarget
                                  doing:[] { [NSException raise:@"OnMain" format:@"raised"]; }]];
    }) name]);
  }];
  std::atomic<bool> done = false;
  std::thread worker([&] {
    GSRegisterCurrentThread();
    NSAutoreleasePool* own = [NSAutoreleasePool new];
    // The plug-in itself asks for it, from a thread of its own.
    [watcher performSelectorOnMainThread:@selector(performNothing:)
                              withObject:nil
                           waitUntilDone:YES];
    done = true;
    [own release];
    GSUnregisterCurrentThread();
  });
  for (int n = 0; n < 500 && !done; ++n)
    [[NSRunLoop currentRunLoop] runUntilDate:[NSDate dateWithTimeIntervalSinceNow:0.01]];
  worker.join();
  EXPECT_EQ(seen, "OnMain");
}

TEST_F(Classes, OfThePluginThrowThroughTheMainThreadsRunLoop) {
  id object = [[[made alloc] init] autorelease];
  std::atomic<bool> done = false;
  std::thread worker([&] {
    GSRegisterCurrentThread();
    NSAutoreleasePool* own = [NSAutoreleasePool new];
    thrown_by([&] {
      [object performSelectorOnMainThread:@selector(throwObject:)
                               withObject:[NSException exceptionWithName:@"Loop"
                                                                  reason:@"thrown"
                                                                userInfo:nil]
                            waitUntilDone:YES];
    });
    done = true;
    [own release];
    GSUnregisterCurrentThread();
  });
  for (int n = 0; n < 500 && !done; ++n)
    thrown_by([] {
      [[NSRunLoop currentRunLoop] runUntilDate:[NSDate dateWithTimeIntervalSinceNow:0.01]];
    });
  EXPECT_TRUE(done);
  worker.join();
  EXPECT_EQ(send_guarded(object, "answer"), nil); // this thread's marks are in order
}

TEST_F(Classes, OfThePluginCannotAnswerStructs) {
  EXPECT_DEATH(enter(plugin_add_struct_method, plug((id)made)), "answers a struct");
}

// Strings

TEST_F(Strings, AreMadeFromBytesOfEachEncoding) {
  struct {
    uint32_t encoding;
    const char* bytes;
    const char* utf8;
  } rows[] = {
      {0, "a\x8E\xDB\xF0", "a\u00E9\u20AC\uF8FF"}, // Mac Roman
      {0x0201, "a\xE9\x80", "a\u00E9\u0080"},      // Latin 1
      {0x0500, "a\x80\xE9", "a\u20ACé"},           // Windows Latin 1
      {0x0600, "abc", "abc"},                      // ASCII
      {0x08000100, "\xF0\x9D\x85\x9E\xC3\xA9", "\U0001D15Eé"},
      {0x0100, "a\x01", "\u0161"}, // UTF-16, host order
  };
  for (auto& row : rows) {
    id string = CFStringCreateWithCString(nullptr, row.bytes, row.encoding);
    EXPECT_EQ(text(string), row.utf8) << std::hex << row.encoding;
    [string release];
  }
}

TEST_F(Strings, AreNotMadeFromWhatAnEncodingLacks) {
  struct {
    uint32_t encoding;
    const char* bytes;
  } rows[] = {
      {0x0600, "\x80"},
      {0x0500, "\x81"},
      {0x0100, "abc"}, // half a unit
      {0xFFFF, "abc"},
      {0x0202, "abc"},
      {0x08000100, "\x80"},
      {0x08000100, "\xC3"},
      {0x08000100, "\xC0\x80"},         // overlong
      {0x08000100, "\xE0\x80\x80"},     // overlong
      {0x08000100, "\xED\xA0\x80"},     // surrogate
      {0x08000100, "\xF4\x90\x80\x80"}, // beyond Unicode
      {0x08000100, "\xF8\x88\x80\x80\x80"},
      {0x08000100, "\xC3z"},
  };
  for (auto& row : rows)
    EXPECT_EQ(CFStringCreateWithCString(nullptr, row.bytes, row.encoding), nil)
        << row.bytes << " " << std::hex << row.encoding;
}

TEST_F(Strings, HoldAnyUnits) {
  std::vector<unichar> all = {0xD800, 'a', 0xDC00, 0, 0xFFFF};
  id string = CFStringCreateWithCharacters(nullptr, all.data(), all.size());
  EXPECT_EQ(units(string), all);
  id copy = CFStringCreateMutableCopy(nullptr, 0, string);
  ASSERT_NE(copy, nil);
  EXPECT_EQ(units(copy), all);
  EXPECT_EQ(CFStringGetLength(CFStringCreateWithCharacters(nullptr, nullptr, 0)), 0);
  CFRelease(copy);
  CFRelease(string);
}

TEST_F(Strings, GiveTheirBytesInEachEncoding) {
  struct {
    uint32_t encoding;
    const char* bytes;
  } rows[] = {{0, "a\x8E"}, {0x0201, "a\xE9"}, {0x0500, "a\xE9"}, {0x08000100, "aé"}};
  char buffer[16];
  for (auto& row : rows) {
    EXPECT_TRUE(CFStringGetCString(@"aé", buffer, sizeof buffer, row.encoding));
    EXPECT_STREQ(buffer, row.bytes);
  }
  EXPECT_FALSE(CFStringGetCString(@"aé", buffer, sizeof buffer, 0x0600));
  EXPECT_FALSE(CFStringGetCString(@"a", buffer, sizeof buffer, 0xFFFF));
}

TEST_F(Strings, GiveBytesOnlyToBuffersThatHoldThem) {
  char buffer[8];
  EXPECT_TRUE(CFStringGetCString(@"aé", buffer, 4, 0x08000100));
  EXPECT_FALSE(CFStringGetCString(@"aé", buffer, 3, 0x08000100));
  EXPECT_FALSE(CFStringGetCString(@"a", buffer, 1, 0x08000100));
  EXPECT_TRUE(CFStringGetCString(@"", buffer, 1, 0x08000100));
  EXPECT_FALSE(CFStringGetCString(@"", buffer, 0, 0x08000100));
  memset(buffer, 'x', sizeof buffer);
  EXPECT_FALSE(CFStringGetCString(@"abcdefgh", buffer, 4, 0x08000100));
  EXPECT_EQ(buffer[4], 'x');
}

TEST_F(Strings, WithLoneSurrogatesHaveNoBytes) {
  char buffer[16];
  for (std::vector<unichar> all :
       {std::vector<unichar>{0xD800}, {'a', 0xDC00}, {0xD800, 'a'}, {0xD800, 0xD800, 0xDC00}}) {
    id string = CFStringCreateWithCharacters(nullptr, all.data(), all.size());
    EXPECT_FALSE(CFStringGetCString(string, buffer, sizeof buffer, 0x08000100));
    CFRelease(string);
  }
}

TEST_F(Strings, OfAnyLengthKeepPairsWhole) {
  for (int before = 250; before < 260; ++before) {
    std::vector<unichar> all(before, 'a');
    std::string expected(before, 'a');
    for (int n = 0; n < 300; ++n) {
      all.insert(all.end(), {0xD834, 0xDD5E});
      expected += "\U0001D15E";
    }
    id string = CFStringCreateWithCharacters(nullptr, all.data(), all.size());
    std::vector<char> buffer(expected.size() + 1);
    EXPECT_TRUE(CFStringGetCString(string, buffer.data(), buffer.size(), 0x08000100));
    EXPECT_EQ(buffer.data(), expected);
    EXPECT_FALSE(CFStringGetCString(string, buffer.data(), buffer.size() - 1, 0x08000100));
    CFRelease(string);
  }
}

TEST_F(Strings, WithANulGiveItAsAByte) {
  unichar all[] = {'a', 0, 'b'};
  id string = CFStringCreateWithCharacters(nullptr, all, 3);
  char buffer[8] = "xxxxxxx";
  EXPECT_TRUE(CFStringGetCString(string, buffer, sizeof buffer, 0x08000100));
  EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
  CFRelease(string);
}

TEST_F(Strings, AreNormalised) {
  id string = CFStringCreateMutableCopy(nullptr, 0, @"\u00E9\uAC00\u212B");
  CFStringNormalize(string, 0);
  EXPECT_EQ(units(string), (std::vector<unichar>{'e', 0x301, 0x1100, 0x1161, 'A', 0x30A}));
  CFStringNormalize(string, 2);
  EXPECT_EQ(units(string), (std::vector<unichar>{0xE9, 0xAC00, 0xC5}));
  CFRelease(string);
}

TEST_F(Strings, WithLoneSurrogatesSurviveNormalisation) {
  std::vector<unichar> all = {0xD800, 0xE9, 0xDC00};
  id string = CFStringCreateWithCharacters(nullptr, all.data(), all.size());
  id copy = CFStringCreateMutableCopy(nullptr, 0, string);
  id thrown = guarded([&] { CFStringNormalize(copy, 0); });
  EXPECT_EQ(thrown, nil);
  EXPECT_EQ(units(copy), (std::vector<unichar>{0xD800, 'e', 0x301, 0xDC00}));
  CFRelease(copy);
  CFRelease(string);
}

TEST_F(Strings, ThatAreConstantAreOneAndNeverGoAway) {
  char other[] = "constant";
  id string = __CFStringMakeConstantString("constant");
  EXPECT_EQ(__CFStringMakeConstantString(other), string);
  EXPECT_NE(__CFStringMakeConstantString("constan"), string);
  EXPECT_TRUE([string isEqualToString:@"constant"]);
  for (int n = 0; n < 5; ++n) CFRelease(string);
  EXPECT_EQ(text(string), "constant");
}

TEST_F(Strings, RaiseIntoTheFrame) {
  unichar buffer[4];
  id thrown = guarded([&] { CFStringGetCharacters(@"ab", 1, 2, buffer); });
  EXPECT_EQ(text([thrown name]), "NSRangeException");
}

TEST_F(Strings, ThatAreNullEndTheProcess) {
  EXPECT_DEATH(CFStringGetLength(nil), "CFStringGetLength: a null pointer");
  EXPECT_DEATH(CFRelease(nil), "CFRelease: a null pointer");
}

// URLs

TEST_F(Urls, AreMadeOnlyFromUrls) {
  for (const char* good : {"http://example.invalid/a%20b?c=d&e#f", "file:///tmp/", "mailto:a@b",
                           "relative/path", "http://[::1]:80/", "https://u:p@h/;x=1"}) {
    id url = CFURLCreateWithString(nullptr, ns(good), nil);
    ASSERT_NE(url, nil) << good;
    EXPECT_EQ(text([url absoluteString]), good);
    CFRelease(url);
  }
  for (const char* bad : {"", " ", "http://a b", "http://a\nb", "http://é", "http://a/%", "a%2",
                          "a%2g", "<a>", "a\"b", "a\\b", "a^b", "a`b", "a{b}", "a|b", "a\x7F"})
    EXPECT_EQ(CFURLCreateWithString(nullptr, ns(bad), nil), nil) << bad;
  EXPECT_EQ(CFURLCreateWithString(nullptr, nil, nil), nil);
}

TEST_F(Urls, OfLoneSurrogatesAreRefused) {
  unichar lone[] = {'a', 0xD800};
  id string = CFStringCreateWithCharacters(nullptr, lone, 2);
  EXPECT_EQ(CFURLCreateWithString(nullptr, string, nil), nil);
  EXPECT_EQ(CFURLCreateCopyAppendingPathComponent(nullptr, [NSURL URLWithString:@"file:///"],
                                                  string, false),
            nil);
  CFRelease(string);
}

TEST_F(Urls, MayBeRelativeToABase) {
  id base = [NSURL URLWithString:@"http://h/a/b"];
  id url = CFURLCreateWithString(nullptr, @"c", base);
  EXPECT_EQ(text([url absoluteString]), "http://h/a/c");
  CFRelease(url);
}

TEST_F(Urls, GiveTheirPath) {
  struct {
    const char* url;
    const char* path;
  } rows[] = {{"file:///a%20b/c", "/a b/c"},
              {"file://localhost/a/", "/a"},
              {"file:///", "/"},
              {"http://h/x%C3%A9?q", "/xé"},
              {"file:///a%25b", "/a%b"}};
  for (auto& row : rows) {
    id path = CFURLCopyFileSystemPath([NSURL URLWithString:ns(row.url)], 0);
    EXPECT_EQ(text(path), row.path);
    [path release];
  }
  EXPECT_EQ(CFURLCopyFileSystemPath([NSURL URLWithString:@"mailto:a@b"], 0), nil);
  EXPECT_EQ(CFURLCopyFileSystemPath([NSURL URLWithString:@"file:///%FF"], 0), nil);
}

TEST_F(Urls, AreTakenApart) {
  struct {
    const char* url;
    const char* parent;
    const char* last;
  } rows[] = {{"file:///a/b", "file:///a/", "b"},
              {"file:///a/b/", "file:///a/", "b"},
              {"file:///a", "file:///", "a"},
              {"file:///", "file:///../", "/"},
              {"file:///a/b%20c%2Fd", "file:///a/", "b c/d"},
              {"http://h/a/b?q#f", "http://h/a/", "b"}};
  for (auto& row : rows) {
    id url = [NSURL URLWithString:ns(row.url)];
    id parent = CFURLCreateCopyDeletingLastPathComponent(nullptr, url);
    id last = CFURLCopyLastPathComponent(url);
    EXPECT_EQ(text([parent absoluteString]), row.parent) << row.url;
    EXPECT_EQ(text(last), row.last) << row.url;
    [parent release];
    [last release];
  }
  id mail = [NSURL URLWithString:@"mailto:a@b"];
  EXPECT_EQ(CFURLCreateCopyDeletingLastPathComponent(nullptr, mail), nil);
  EXPECT_EQ(CFURLCopyLastPathComponent(mail), nil);
}

TEST_F(Urls, AreExtended) {
  struct {
    const char* url;
    const char* component;
    bool directory;
    const char* made;
  } rows[] = {{"file:///a/", "b", false, "file:///a/b"},
              {"file:///a", "b", true, "file:///a/b/"},
              {"file:///", "x y;?#%é", false, "file:///x%20y%3B%3F%23%25%C3%A9"},
              {"http://h", "b", false, "http://h/b"},
              {"http://h/a?q", "b", false, "http://h/a/b?q"}};
  for (auto& row : rows) {
    id url = CFURLCreateCopyAppendingPathComponent(nullptr, [NSURL URLWithString:ns(row.url)],
                                                   ns(row.component), row.directory);
    EXPECT_EQ(text([url absoluteString]), row.made);
    [url release];
  }
  EXPECT_EQ(CFURLCreateCopyAppendingPathComponent(nullptr, [NSURL URLWithString:@"mailto:a@b"],
                                                  @"c", false),
            nil);
}

// Dictionaries of pointers

TEST_F(Dictionaries, MapPointersWithoutRetaining) {
  id dictionary = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
  id key = [[NSObject new] autorelease];
  EXPECT_EQ(CFDictionaryGetValue(dictionary, key), nullptr);
  CFDictionarySetValue(dictionary, key, &key);
  CFDictionarySetValue(dictionary, (void*)1, (void*)2);
  EXPECT_EQ([key retainCount], 1u);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, key), &key);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, (void*)1), (void*)2);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 2);
  CFDictionarySetValue(dictionary, key, nullptr);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, key), nullptr);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 2);
  CFDictionaryRemoveValue(dictionary, key);
  CFDictionaryRemoveValue(dictionary, key);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 1);
  CFRelease(dictionary);
}

TEST_F(Dictionaries, CompareKeysByAddress) {
  id dictionary = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
  id key = [NSMutableString stringWithString:@"k"], equal = [NSMutableString stringWithString:@"k"];
  CFDictionarySetValue(dictionary, key, key);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, equal), nullptr);
  CFRelease(dictionary);
}

TEST_F(Dictionaries, DoNotMindANullKey) {
  id dictionary = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, nullptr), nullptr);
  CFDictionaryRemoveValue(dictionary, nullptr);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 0);
  CFRelease(dictionary);
}

TEST_F(Dictionaries, ServeSeveralThreads) {
  id dictionary = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
  std::vector<std::thread> threads;
  std::atomic<int> waiting = 4, wrong = 0;
  for (uintptr_t n = 1; n <= 4; ++n)
    threads.emplace_back([&, n] {
      --waiting;
      while (waiting) std::this_thread::yield();
      for (uintptr_t key = n << 16; key < (n << 16) + 20000; ++key) {
        CFDictionarySetValue(dictionary, (void*)key, (void*)(key + 1));
        if (CFDictionaryGetValue(dictionary, (void*)key) != (void*)(key + 1)) ++wrong;
        if (key % 2) CFDictionaryRemoveValue(dictionary, (void*)key);
      }
    });
  for (auto& each : threads) each.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 40000);
  CFRelease(dictionary);
}

TEST_F(Dictionaries, OfCocoaAreAskedAsSuch) {
  id dictionary = [NSMutableDictionary dictionary];
  CFDictionarySetValue(dictionary, @"k", @"v");
  EXPECT_EQ(CFDictionaryGetValue(dictionary, ns("k")), @"v");
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 1);
  EXPECT_NE(guarded([&] { CFDictionarySetValue(dictionary, @"k", nullptr); }), nil);
  CFDictionaryRemoveValue(dictionary, @"k");
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 0);
}

// Type identifiers

TEST_F(Types, AreDistinctAndKnownByName) {
  struct {
    const char* name;
    unsigned long (*function)(void);
  } rows[] = {
#define ROW(name) {#name "GetTypeID", name##GetTypeID},
      TYPEID_ROWS(ROW)
#undef ROW
  };
  EXPECT_EQ(std::size(rows), 35u);
  std::vector<unsigned long> seen = {0, typeids_of_no_row()};
  for (auto& row : rows) {
    unsigned long type = row.function();
    EXPECT_EQ(typeids_of(row.name), type);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), type), 0) << row.name;
    seen.push_back(type);
    id object = typeids_object(type);
    EXPECT_EQ(CFGetTypeID(object), type);
    [object release];
  }
  EXPECT_EQ(typeids_of("CFNothingGetTypeID"), 0u);
}

// In two processes: as it is, and with TESTBED_CFTYPEID=none.
TEST_F(Types, AreAnsweredByEveryObjectUnlessToldOtherwise) {
  bool answered = !getenv("TESTBED_CFTYPEID");
  id plain = [[NSObject new] autorelease];
  std::pair<id, unsigned long> rows[] = {{@"", CFStringGetTypeID()},
                                         {[NSNumber numberWithBool:YES], CFBooleanGetTypeID()},
                                         {[NSNumber numberWithShort:1], CFNumberGetTypeID()},
                                         {plain, answered ? 1 : typeids_of_no_row()}};
  for (auto& [object, type] : rows) {
    EXPECT_EQ(CFGetTypeID(object), type);
    EXPECT_EQ([object respondsToSelector:sel_registerName("_cfTypeID")], answered);
    if (answered) EXPECT_EQ((uint32_t)send(object, "_cfTypeID"), type);
  }
}

TEST_F(Types, OneIsNoRowsAndGivenToPlainObjects) {
#define ROW(name) EXPECT_NE(name##GetTypeID(), 1u);
  TYPEID_ROWS(ROW)
#undef ROW
  EXPECT_NE(typeids_of_no_row(), 1u);
}

TEST_F(Types, AClassMayAnswerZero) {
  Class type = objc_allocateClassPair([NSObject class], "TypesDenied", 0);
  objc_registerClassPair(type);
  typeids_deny(type);
  id object = [[type new] autorelease];
  EXPECT_TRUE([object respondsToSelector:sel_registerName("_cfTypeID")]);
  EXPECT_EQ((uint32_t)send(object, "_cfTypeID"), 0u);
}

TEST_F(Types, MayBeZero) {
  id object = typeids_object(0);
  EXPECT_TRUE([object respondsToSelector:sel_registerName("_cfTypeID")]);
  EXPECT_EQ((uint32_t)send(object, "_cfTypeID"), 0u);
  [object release];
}

TEST_F(Types, MayThrowInEveryPlace) {
  struct {
    const char* place;
    work call;
  } rows[3];
  id object = typeids_object(CFBagGetTypeID());
  rows[0] = {"_cfTypeID", [&] { plugin_send(plug(object), "_cfTypeID", 0, 0, 0); }};
  rows[1] = {"CFGetTypeID", [&] { CFGetTypeID(object); }};
  rows[2] = {"retain", [&] { CFRetain(object); }};
  for (auto& row : rows) {
    typeids_throw(object, row.place, TYPEIDS_NSEXCEPTION);
    EXPECT_EQ(text([guarded(row.call) name]), "TestbedTypeException");
    typeids_throw(object, row.place, TYPEIDS_OTHER_OBJECT);
    id thrown = guarded(row.call);
    EXPECT_NE(thrown, nil);
    EXPECT_FALSE([thrown isKindOfClass:[NSException class]]);
  }
  typeids_throw(object, "CFGetTypeID", TYPEIDS_NSEXCEPTION);
  EXPECT_EQ((uint32_t)send(object, "_cfTypeID"), CFBagGetTypeID());
  [object release];
}

TEST_F(Types, CountWhatIsRetained) {
  id image = typeids_object(CGImageGetTypeID());
  EXPECT_EQ(CGImageRetain(image), image);
  EXPECT_EQ(CFRetain(image), image);
  typeids_counts counts = typeids_count(image);
  EXPECT_EQ(counts.retains, 2u);
  EXPECT_EQ(counts.image_retains, 1u);
  CFRelease(image);
  CFRelease(image);
  EXPECT_EQ(typeids_count(image).releases, 2u);
  EXPECT_EQ(CGImageRetain(nil), nil);
  [image release];
}

// Threads

size_t stack_of_this_thread() {
  pthread_attr_t attributes;
  void* start;
  size_t size = 0;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstack(&attributes, &start, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

// Instrumented code needs larger stacks.
#if !__has_feature(address_sanitizer)
TEST(Threads, HaveTheStackOfMacOSX) {
  size_t size = 0;
  std::thread([&] { size = stack_of_this_thread(); }).join();
  EXPECT_EQ(size, 512u << 10);
}

size_t stack_of_cocoas_thread;

// Also while GNUstep keeps its buffer of 512 KiB there.
TEST(Threads, OfCocoaHaveThatMuchFree) {
  Class type = objc_allocateClassPair([NSObject class], "ThreadsBody", 0);
  class_addMethod(type, sel_registerName("run:"), reinterpret_cast<IMP>(+[](id, SEL, id) {
                    stack_of_cocoas_thread = stack_of_this_thread();
                  }),
                  "v12@0:4@8");
  objc_registerClassPair(type);
  NSThread* thread = [[NSThread alloc] initWithTarget:[[type new] autorelease]
                                             selector:sel_registerName("run:")
                                               object:nil];
  [thread start];
  while (![thread isFinished]) usleep(1000);
  EXPECT_EQ(stack_of_cocoas_thread, 1024u << 10);
  [thread release];
}
#endif

// Numbers

TEST_F(Numbers, KeepTheTypesThatMacOSXKeeps) {
  struct {
    NSNumber* number;
    const char* code;
  } rows[] = {
      {[NSNumber numberWithBool:YES], "c"},
      {[NSNumber numberWithBool:NO], "c"},
      {[NSNumber numberWithChar:65], "c"},
      {[NSNumber numberWithUnsignedChar:65], "s"},
      {[NSNumber numberWithShort:65], "s"},
      {[NSNumber numberWithUnsignedShort:65], "i"},
      {[NSNumber numberWithInt:65], "i"},
      {[NSNumber numberWithInteger:65], "i"},
      {[NSNumber numberWithUnsignedInt:65], "q"},
      {[NSNumber numberWithUnsignedInteger:65], "q"},
      {[NSNumber numberWithLong:65], "l"},
      {[NSNumber numberWithUnsignedLong:65], "q"},
      {[NSNumber numberWithLongLong:65], "q"},
      {[NSNumber numberWithUnsignedLongLong:65], "q"},
      {[NSNumber numberWithUnsignedLongLong:LLONG_MAX], "q"},
      {[NSNumber numberWithUnsignedLongLong:LLONG_MAX + 1ull], "Q"},
      {[NSNumber numberWithFloat:65], "f"},
      {[NSNumber numberWithDouble:65], "d"},
      {[[[NSNumber alloc] initWithBool:YES] autorelease], "c"},
      {[[[NSNumber alloc] initWithChar:65] autorelease], "c"},
      {[[[NSNumber alloc] initWithUnsignedChar:65] autorelease], "s"},
      {[[[NSNumber alloc] initWithShort:65] autorelease], "s"},
      {[[[NSNumber alloc] initWithUnsignedShort:65] autorelease], "i"},
      {[[[NSNumber alloc] initWithInt:65] autorelease], "i"},
      {[[[NSNumber alloc] initWithUnsignedInt:65] autorelease], "q"},
      {[[[NSNumber alloc] initWithLong:65] autorelease], "l"},
      {[[[NSNumber alloc] initWithUnsignedLong:65] autorelease], "q"},
      {[[[NSNumber alloc] initWithLongLong:65] autorelease], "q"},
      {[[[NSNumber alloc] initWithUnsignedLongLong:65] autorelease], "q"},
  };
  for (size_t n = 0; n < std::size(rows); ++n)
    EXPECT_STREQ([rows[n].number objCType], rows[n].code) << "row " << n;
}

TEST_F(Numbers, AreMadeWithAnyCode) {
  for (char code : std::string("cCsSiIlLqQ")) {
    NSNumber* number = numbers_coded(code, 65);
    EXPECT_EQ([number objCType], std::string(1, code));
    EXPECT_EQ([number unsignedLongLongValue], 65u);
  }
  EXPECT_EQ([numbers_coded('C', -1) intValue], 255);
  EXPECT_EQ([numbers_coded('c', 200) intValue], -56);
  EXPECT_EQ([numbers_coded('s', 0x18000) intValue], -32768);
  EXPECT_EQ([numbers_coded('S', -1) intValue], 65535);
  EXPECT_EQ([numbers_coded('I', -1) longLongValue], 0xFFFFFFFFll);
  EXPECT_EQ([numbers_coded('L', -1) longLongValue], 0xFFFFFFFFll);
  EXPECT_EQ([numbers_coded('l', 0xFFFFFFFFll) longLongValue], -1);
  EXPECT_EQ([numbers_coded('Q', -1) doubleValue], 18446744073709551615.0);
  EXPECT_DEATH(numbers_coded('f', 1), "numbers_coded: no code 'f'");
}

TEST_F(Numbers, KeepTheirValue) {
  EXPECT_EQ([[NSNumber numberWithChar:-1] intValue], -1);
  EXPECT_EQ([[NSNumber numberWithUnsignedChar:255] intValue], 255);
  EXPECT_EQ([[NSNumber numberWithShort:-30000] shortValue], -30000);
  EXPECT_EQ([[NSNumber numberWithUnsignedShort:65535] unsignedShortValue], 65535);
  EXPECT_EQ([[NSNumber numberWithUnsignedInt:~0u] unsignedIntValue], ~0u);
  EXPECT_EQ([[NSNumber numberWithUnsignedInt:~0u] doubleValue], 4294967295.0);
  EXPECT_EQ([[NSNumber numberWithLong:-5] longValue], -5);
  EXPECT_EQ([[NSNumber numberWithLongLong:-1] longLongValue], -1);
  EXPECT_EQ([[NSNumber numberWithUnsignedLongLong:~0ull] unsignedLongLongValue], ~0ull);
  EXPECT_EQ([[NSNumber numberWithUnsignedLongLong:~0ull] doubleValue], 18446744073709551615.0);
  EXPECT_EQ([[NSNumber numberWithUnsignedLongLong:(1ull << 32) + 5] unsignedLongValue], 5u);
  EXPECT_TRUE([[NSNumber numberWithShort:256] boolValue]);
  EXPECT_EQ(text([[NSNumber numberWithShort:-7] description]), "-7");
  EXPECT_EQ(text([[NSNumber numberWithUnsignedLongLong:~0ull] stringValue]),
            "18446744073709551615");
  short raw = 0;
  [[NSNumber numberWithShort:-2] getValue:&raw];
  EXPECT_EQ(raw, -2);
}

TEST_F(Numbers, EqualGNUstepsOwn) {
  NSNumber* plain[] = {[NSNumber numberWithInt:65], [NSNumber numberWithDouble:65]};
  NSNumber* kept[] = {[NSNumber numberWithShort:65], [NSNumber numberWithUnsignedLongLong:65],
                      [NSNumber numberWithChar:65]};
  for (NSNumber* one : plain)
    for (NSNumber* other : kept) {
      EXPECT_TRUE([one isEqual:other] && [other isEqual:one]);
      EXPECT_EQ([one hash], [other hash]);
      EXPECT_EQ([one compare:other], NSOrderedSame);
      EXPECT_EQ([other compare:one], NSOrderedSame);
    }
  NSDictionary* dictionary = [NSDictionary dictionaryWithObject:@"v" forKey:plain[0]];
  EXPECT_EQ([dictionary objectForKey:kept[0]], @"v");
}

TEST_F(Numbers, AreOrdered) {
  NSNumber* rising[] = {
      [NSNumber numberWithLongLong:LLONG_MIN], [NSNumber numberWithShort:-1],
      [NSNumber numberWithFloat:0.5],          [NSNumber numberWithUnsignedInt:1],
      [NSNumber numberWithLongLong:LLONG_MAX], [NSNumber numberWithUnsignedLongLong:~0ull]};
  for (size_t low = 0; low < std::size(rising); ++low)
    for (size_t high = low + 1; high < std::size(rising); ++high) {
      EXPECT_EQ([rising[low] compare:rising[high]], NSOrderedAscending) << low << " " << high;
      EXPECT_EQ([rising[high] compare:rising[low]], NSOrderedDescending) << low << " " << high;
    }
}

TEST_F(Numbers, SurviveArchivesAndPropertyLists) {
  NSArray* all =
      [NSArray arrayWithObjects:[NSNumber numberWithShort:-3], [NSNumber numberWithUnsignedInt:~0u],
                                [NSNumber numberWithLong:7], nil];
  EXPECT_TRUE([[NSKeyedUnarchiver
      unarchiveObjectWithData:[NSKeyedArchiver archivedDataWithRootObject:all]] isEqual:all]);
  EXPECT_TRUE([[NSUnarchiver unarchiveObjectWithData:[NSArchiver archivedDataWithRootObject:all]]
      isEqual:all]);
  NSArray* plain =
      [NSArray arrayWithObjects:[NSNumber numberWithShort:-3], [NSNumber numberWithBool:YES],
                                [NSNumber numberWithChar:65], nil];
  NSData* data = [NSPropertyListSerialization dataFromPropertyList:plain
                                                            format:NSPropertyListXMLFormat_v1_0
                                                  errorDescription:nullptr];
  NSArray* again = [NSPropertyListSerialization propertyListFromData:data
                                                    mutabilityOption:NSPropertyListImmutable
                                                              format:nullptr
                                                    errorDescription:nullptr];
  EXPECT_TRUE([again isEqual:plain]) << text([again description]);
}

TEST_F(Numbers, OfSubclassesAreLeftAlone) {
  EXPECT_TRUE([[NSDecimalNumber numberWithShort:3] isKindOfClass:[NSDecimalNumber class]]);
}

// The log

namespace {
#if __has_feature(address_sanitizer)
using let_leak = __lsan::ScopedDisabler;
#else
struct let_leak {
  ~let_leak() {}
};
#endif

std::string logged;
void keep_log(NSString* message) { logged += text(message); }
} // namespace

TEST_F(Logging, GoesToGNUstepsLog) {
  NSLog_printf_handler* usual = _NSLog_printf_handler;
  _NSLog_printf_handler = keep_log;
  enter(plugin_log, plug(@"so %@"), plug(@"it is"));
  _NSLog_printf_handler = usual;
  EXPECT_NE(logged.find("so it is"), std::string::npos);
}

@interface TestUndescribed : NSObject
@end
@implementation TestUndescribed
- (NSString*)description {
  [NSException raise:@"NoDescription" format:@"none"];
  return nil;
}
@end

TEST_F(Logging, PassesOnWhatADescriptionThrows) {
  TestUndescribed* object = [[TestUndescribed new] autorelease];
  let_leak here; // GNUstep's log forgets its line when a description throws
  id thrown = guarded([&] { plugin_log(plug(@"%@"), plug(object)); });
  EXPECT_EQ(text([thrown name]), "NoDescription");
}

// Files

class FolderOfFiles : public Pool {
protected:
  std::string folder;

  FolderOfFiles() {
    char name[] = "/tmp/cocoa_test.XXXXXX";
    folder = mkdtemp(name);
  }
  ~FolderOfFiles() override { std::system(("rm -rf " + folder).c_str()); }

  std::string file(const std::string& name) {
    std::string path = folder + "/" + name;
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    return path;
  }
  FSRef ref(const std::string& path) {
    FSRef made = {};
    EXPECT_TRUE(files_ref_from_path(path, made)) << path;
    return made;
  }
  uint32_t node_id(const FSRef& item) {
    FSCatalogInfo info = {};
    EXPECT_EQ(FSGetCatalogInfo(&item, kFSCatInfoNodeID, &info, nullptr, nullptr, nullptr), noErr);
    return info.nodeID;
  }
};

TEST_F(FolderOfFiles, GivesReferencesToWhatExists) {
  FSRef item = ref(file("a"));
  EXPECT_EQ(files_path_from_ref(item), folder + "/a");
  FSRef missing;
  EXPECT_FALSE(files_ref_from_path(folder + "/b", missing));
  EXPECT_FALSE(files_ref_from_path(folder + "/b/c", missing));
  EXPECT_FALSE(files_ref_from_path("", missing));
  EXPECT_EQ(files_path_from_ref(FSRef{}), std::nullopt);
  EXPECT_EQ(files_path_from_ref(ref(folder + "//./a")), folder + "/a");
  EXPECT_EQ(files_path_from_ref(ref(folder + "/")), folder);
  EXPECT_EQ(files_path_from_ref(ref(folder + "/..")), "/tmp");
}

TEST_F(FolderOfFiles, GivesReferencesToLinksThemselves) {
  symlink("nowhere", (folder + "/link").c_str());
  EXPECT_EQ(files_path_from_ref(ref(folder + "/link")), folder + "/link");
}

TEST_F(FolderOfFiles, ConvertsBetweenUrlAndReference) {
  FSRef item = ref(file("a b#é%"));
  id url = CFURLCreateFromFSRef(nullptr, &item);
  EXPECT_EQ(text([url path]), folder + "/a b#é%");
  EXPECT_TRUE([url isFileURL]);
  FSRef again = {};
  EXPECT_TRUE(CFURLGetFSRef(url, &again));
  EXPECT_EQ(memcmp(&item, &again, sizeof item), 0);
  [url release];
  FSRef parent = ref(folder);
  url = CFURLCreateFromFSRef(nullptr, &parent);
  EXPECT_EQ(text([url absoluteString]), "file://" + folder + "/");
  [url release];
}

TEST_F(FolderOfFiles, TakesAUrlWithoutASchemeForAFile) {
  FSRef item = ref(file("a b")), again = {};
  EXPECT_TRUE(CFURLGetFSRef([NSURL URLWithString:ns((folder + "/a%20b").c_str())], &again));
  EXPECT_EQ(memcmp(&item, &again, sizeof item), 0);
  EXPECT_TRUE(CFURLGetFSRef([NSURL URLWithString:ns(("//localhost" + folder).c_str())], &again));
}

TEST_F(FolderOfFiles, HasNoReferenceForOtherUrls) {
  FSRef item;
  for (std::string bad :
       {"http://h/tmp", "file://elsewhere/tmp", "file:///no/such/file", "file:///tmp%00x", "tmp",
        ".", "//elsewhere/tmp", "file://localhostile/tmp", "files:///tmp", "/no/such/file"})
    EXPECT_FALSE(CFURLGetFSRef([NSURL URLWithString:ns(bad.c_str())], &item)) << bad;
  FSRef gone = ref(file("a"));
  unlink((folder + "/a").c_str());
  EXPECT_EQ(CFURLCreateFromFSRef(nullptr, &gone), nil);
  FSRef zero = {};
  EXPECT_EQ(CFURLCreateFromFSRef(nullptr, &zero), nil);
}

TEST_F(FolderOfFiles, TellsNameParentAndIdentity) {
  FSRef item = ref(file("a\u00E9")), parent;
  FSCatalogInfo info;
  memset(&info, 0xEE, sizeof info);
  HFSUniStr255 name;
  EXPECT_EQ(FSGetCatalogInfo(&item, kFSCatInfoNodeID, &info, &name, nullptr, &parent), noErr);
  EXPECT_GT(+info.nodeID, 15u);
  EXPECT_EQ(+info.parentDirID, 0xEEEEEEEEu); // not asked for
  EXPECT_EQ(+name.length, 2);
  EXPECT_EQ(+name.unicode[1], 0xE9);
  EXPECT_EQ(files_path_from_ref(parent), folder);
  EXPECT_EQ(FSGetCatalogInfo(&parent, kFSCatInfoNone, nullptr, nullptr, nullptr, nullptr), noErr);
  EXPECT_NE(node_id(item), node_id(parent));
}

TEST_F(FolderOfFiles, TellsWhyThereIsNoInformation) {
  FSRef zero = {};
  EXPECT_EQ(FSGetCatalogInfo(&zero, 0, nullptr, nullptr, nullptr, nullptr), errFSBadFSRef);
  FSRef item = ref(file("a"));
  FSCatalogInfo info;
  EXPECT_EQ(FSGetCatalogInfo(&item, 0x1, &info, nullptr, nullptr, nullptr), paramErr);
  EXPECT_EQ(FSGetCatalogInfo(&item, kFSCatInfoNodeID, nullptr, nullptr, nullptr, nullptr),
            paramErr);
  unlink((folder + "/a").c_str());
  EXPECT_EQ(FSGetCatalogInfo(&item, 0, nullptr, nullptr, nullptr, nullptr), fnfErr);
}

TEST_F(FolderOfFiles, CanBeAVolume) {
  FSRef root = ref("/"), parent, own = ref(folder), item = ref(file("a"));
  EXPECT_EQ(node_id(root), 2u);
  EXPECT_NE(node_id(own), 2u);
  EXPECT_TRUE(files_declare_volume(folder));
  EXPECT_FALSE(files_declare_volume(folder + "/a"));
  EXPECT_EQ(node_id(own), 2u);
  memset(&parent, 0xEE, sizeof parent);
  FSSpec spec;
  HFSUniStr255 name;
  EXPECT_EQ(FSGetCatalogInfo(&own, 0, nullptr, &name, &spec, &parent), noErr);
  EXPECT_EQ(files_path_from_ref(parent), std::nullopt);
  EXPECT_EQ(+name.length, folder.size() - 5);
  EXPECT_EQ(+spec.parID, fsRtParID);
  EXPECT_EQ(files_path_from_spec(spec), folder);
  EXPECT_EQ(FSGetCatalogInfo(&item, 0, nullptr, nullptr, &spec, &parent), noErr);
  EXPECT_EQ(+spec.parID, fsRtDirID);
  EXPECT_EQ(files_path_from_spec(spec), folder + "/a");
  EXPECT_EQ(files_path_from_ref(parent), folder);
}

TEST_F(FolderOfFiles, GivesSpecificationsToWhatMayBeMissing) {
  FSSpec spec;
  FSRef item;
  ASSERT_TRUE(files_spec_from_path(folder + "/x\u00E9", spec));
  EXPECT_EQ(std::string((char*)spec.name, 3), "\x02x\x8E");
  EXPECT_EQ(FSpMakeFSRef(&spec, &item), fnfErr);
  EXPECT_EQ(files_path_from_spec(spec), folder + "/x\u00E9");
  file("x\u00E9");
  EXPECT_EQ(FSpMakeFSRef(&spec, &item), noErr);
  EXPECT_EQ(files_path_from_ref(item), folder + "/x\u00E9");
  EXPECT_FALSE(files_spec_from_path(folder + "/no/x", spec));
}

TEST_F(FolderOfFiles, ShortensNamesThatASpecificationCannotHold) {
  for (std::string name :
       {std::string(200, 'n'), std::string("\u65E5\u672C"), std::string("a#1")}) {
    FSSpec spec;
    FSRef item;
    ASSERT_TRUE(files_spec_from_path(file(name), spec));
    EXPECT_LE(spec.name[0], 31);
    EXPECT_EQ(files_path_from_spec(spec), folder + "/" + name);
    EXPECT_EQ(FSpMakeFSRef(&spec, &item), noErr);
  }
}

TEST_F(FolderOfFiles, RefusesSpecificationsOfNothing) {
  FSSpec spec;
  FSRef item;
  ASSERT_TRUE(files_spec_from_path(file("a"), spec));
  FSSpec wrong = spec;
  wrong.vRefNum = 5;
  EXPECT_EQ(FSpMakeFSRef(&wrong, &item), nsvErr);
  wrong = spec;
  wrong.parID = 1 << 30;
  EXPECT_EQ(FSpMakeFSRef(&wrong, &item), dirNFErr);
  wrong = spec;
  wrong.name[0] = 0;
  EXPECT_EQ(FSpMakeFSRef(&wrong, &item), bdNamErr);
  wrong.name[0] = 1;
  wrong.name[1] = '/';
  EXPECT_EQ(FSpMakeFSRef(&wrong, &item), bdNamErr);
}

TEST_F(FolderOfFiles, JoinsFoldersAndNames) {
  HFSUniStr255 name;
  FSRef parent = ref(folder);
  ASSERT_TRUE(files_name_from_path(folder + "/x\U0001D15E", name));
  EXPECT_EQ(+name.length, 3);
  EXPECT_EQ(files_path_from_name(parent, name), folder + "/x\U0001D15E");
  name.length = 2; // half of a pair
  EXPECT_EQ(files_path_from_name(parent, name), std::nullopt);
  name.length = 0;
  EXPECT_EQ(files_path_from_name(parent, name), std::nullopt);
  name = {1, {'/'}};
  EXPECT_EQ(files_path_from_name(parent, name), std::nullopt);
  name.unicode[0] = 'a';
  EXPECT_EQ(files_path_from_name(FSRef{}, name), std::nullopt);
  EXPECT_EQ(files_path_from_name(ref("/"), name), "/a");
  EXPECT_TRUE(files_name_from_path("/" + std::string(255, 'a'), name));
  EXPECT_FALSE(files_name_from_path("/" + std::string(256, 'a'), name));
}

// Watching and disturbing

TEST_F(Faults, CountTheMessagesOfThePluginAlone) {
  TestTarget* target = [TestTarget doing:[] { [@"native" length]; }];
  faults_start(FAULTS_ALL_THREADS);
  send(target, "perform");
  send(target, "big");
  send(nil, "big");
  send_fp(target, "single");
  faults_stop();
  send(target, "big");
  EXPECT_EQ(faults_messages(), 3u);
  EXPECT_EQ(faults_fired(), 0u);
}

TEST_F(Faults, MakeTheNthMessageThrow) {
  TestTarget* target = [TestTarget doing:[] {}];
  for (auto what : {FAULTS_NSEXCEPTION, FAULTS_OTHER_OBJECT}) {
    faults_start(FAULTS_ALL_THREADS);
    faults_fail_message(2, what);
    EXPECT_EQ(send_guarded(target, "big"), nil);
    id thrown = send_guarded(target, "perform");
    EXPECT_EQ(send_guarded(target, "big"), nil);
    faults_stop();
    ASSERT_NE(thrown, nil);
    EXPECT_EQ([thrown isKindOfClass:[NSException class]], what == FAULTS_NSEXCEPTION);
    if (what == FAULTS_NSEXCEPTION) {
      EXPECT_EQ(text([thrown name]), FAULTS_EXCEPTION_NAME);
      EXPECT_EQ(text([thrown reason]), "message 2: -[TestTarget perform]");
    }
    EXPECT_EQ(faults_fired(), 1u);
    EXPECT_EQ(faults_messages(), 3u);
  }
}

TEST_F(Faults, DoNotDeliverTheMessageThatThrows) {
  bool delivered = false;
  TestTarget* target = [TestTarget doing:[&] { delivered = true; }];
  faults_start(FAULTS_ALL_THREADS);
  faults_fail_message(1, FAULTS_NSEXCEPTION);
  EXPECT_NE(send_guarded(target, "perform"), nil);
  faults_stop();
  EXPECT_FALSE(delivered);
}

TEST_F(Faults, MayBeConfinedToAThread) {
  TestTarget* target = [TestTarget doing:[] {}];
  faults_start(FAULTS_THIS_THREAD);
  std::thread([&] { send(target, "big"); }).join();
  send(target, "big");
  faults_stop();
  EXPECT_EQ(faults_messages(), 1u);
}

TEST_F(Faults, CountOnAllThreads) {
  TestTarget* target = [TestTarget doing:[] {}];
  faults_start(FAULTS_ALL_THREADS);
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n)
    threads.emplace_back([&] {
      for (int times = 0; times < 500; ++times) send(target, "big");
    });
  for (auto& each : threads) each.join();
  faults_stop();
  EXPECT_EQ(faults_messages(), 2000u);
}

TEST_F(Faults, MakeTheNthCallOfAFunctionFail) {
  faults_start(FAULTS_ALL_THREADS);
  faults_fail_call("CFStringCreateMutableCopy", 2);
  id first = CFStringCreateMutableCopy(nullptr, 0, @"a");
  EXPECT_NE(first, nil);
  EXPECT_EQ(CFStringCreateMutableCopy(nullptr, 0, @"a"), nil);
  EXPECT_EQ(faults_calls("CFStringCreateMutableCopy"), 2u);
  EXPECT_EQ(faults_calls("CFURLGetFSRef"), 0u);
  faults_fail_call(nullptr, 3);
  EXPECT_EQ(CFStringCreateWithCString(nullptr, "a", 0), nil);
  faults_stop();
  CFRelease(CFStringCreateWithCString(nullptr, "a", 0)); // not counted any more
  EXPECT_EQ(faults_calls(nullptr), 3u);
  EXPECT_EQ(faults_fired(), 2u);
  CFRelease(first);
}

TEST_F(Faults, ReachTheMemoryOfThePlugin) {
  faults_start(FAULTS_ALL_THREADS);
  faults_fail_call("calloc", 1);
  EXPECT_EQ((uint32_t)enter(plugin_calloc, 1, 8), 0u);
  auto memory = (uint32_t)enter(plugin_malloc, 8);
  faults_stop();
  EXPECT_NE(memory, 0u);
  free((void*)memory);
  EXPECT_EQ(faults_calls("malloc"), 1u);
}

TEST_F(Faults, TellAHook) {
  std::vector<std::string> seen;
  faults_on_message(
      [](void* context, id receiver, SEL selector) {
        static_cast<std::vector<std::string>*>(context)->push_back(
            std::string(object_getClassName(receiver)) + " " + sel_getName(selector));
      },
      &seen);
  faults_on_call(
      [](void* context, const char* name) {
        static_cast<std::vector<std::string>*>(context)->push_back(name);
      },
      &seen);
  faults_start(FAULTS_ALL_THREADS);
  send([TestTarget doing:[] {}], "big");
  CFURLCopyLastPathComponent([NSURL URLWithString:@"mailto:a@b"]);
  faults_stop();
  send([TestTarget doing:[] {}], "big");
  faults_on_message(nullptr, nullptr);
  faults_on_call(nullptr, nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"TestTarget big", "CFURLCopyLastPathComponent"}));
}

// The end of the process

void endWhileAWorkerStillRegisters(const std::vector<Class>& classes) {
  static const std::vector<Class>* registered;
  registered = &classes;
  std::atexit([] {
    std::thread([] {
      for (Class each : *registered) [each registerAtExit:@selector(atExit)];
    }).detach();
    usleep(100);
  });
  std::exit(0);
}

TEST(Exit, SurvivesAWorkerWhoseClassesComeUpMeanwhile) {
  std::vector<Class> classes;
  for (int i = 0; i < 500; ++i) {
    std::string name = "Exit" + std::to_string(i);
    Class made = objc_allocateClassPair([NSObject class], name.c_str(), 0);
    class_addMethod(object_getClass(made), @selector(atExit),
                    reinterpret_cast<IMP>(+[](id, SEL) {}), "v@:");
    objc_registerClassPair(made);
    classes.push_back(made);
  }
  [classes[0] registerAtExit:@selector(atExit)];
  for (int i = 0; i < 40 && !HasFailure(); ++i)
    EXPECT_EXIT(endWhileAWorkerStillRegisters(classes), testing::ExitedWithCode(0), "");
}

// The names

TEST(Names, ThatGNUstepUsesAreNotTakenOver) {
  void* runtime = dlopen("libobjc.so.4", RTLD_NOW | RTLD_NOLOAD);
  void* base = dlopen("libgnustep-base.so.1.28", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_TRUE(runtime && base);
  for (const char* name : {"objc_exception_throw", "class_addMethod", "objc_getClass",
                           "class_addIvar", "objc_msg_lookup", "sel_registerName"})
    EXPECT_EQ(dlsym(RTLD_DEFAULT, name), dlsym(runtime, name)) << name;
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "NSLog"), dlsym(base, "NSLog"));
}
