// See faults.h.

#import <Foundation/Foundation.h>

#include "testbed/cocoa/faults.h"
#include "testbed/cocoa/observe.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

@interface TestbedThrownObject : NSObject
@end
@implementation TestbedThrownObject
- (NSString*)description {
  return @"an object that is no NSException";
}
@end

// Present under the leak sanitizer.
extern "C" __attribute__((weak)) void __lsan_ignore_object(const void*);

namespace observe {
std::atomic<bool> watching;
}

namespace {

struct plan {
  unsigned long calls = 0;
  unsigned long failing = 0;
};

// The plug-in's calls wait for one another here only while somebody watches.
std::mutex lock;
faults_scope scope;
std::thread::id watched;
plan messages;
faults_thrown thrown;
plan all_calls;
std::map<std::string, plan> calls;
unsigned long fired;
faults_message_hook message_hook;
void* message_context;
faults_call_hook call_hook;
void* call_context;

bool takes_part() { return scope == FAULTS_ALL_THREADS || std::this_thread::get_id() == watched; }

bool count(plan& one) {
  bool fails = ++one.calls == one.failing;
  fired += fails;
  return fails;
}

} // namespace

namespace observe {

// A message that fails was the receiver's last owner, or, where it initialises, made it nobody's:
// the leak sanitizer is not to report it.
static void lost(id receiver, SEL selector) {
  const char* name = sel_getName(selector);
  bool owned = !strcmp(name, "release") || !strcmp(name, "autorelease") ||
               !strncmp(name, "init", strlen("init"));
  if (__lsan_ignore_object && owned) __lsan_ignore_object(receiver);
}

void send(id receiver, SEL selector) {
  faults_message_hook hook;
  void* context;
  faults_thrown what;
  unsigned long number;
  bool fails;
  {
    std::lock_guard guard(lock);
    if (!takes_part()) return;
    hook = message_hook;
    context = message_context;
    what = thrown;
    fails = count(messages);
    number = messages.calls;
  }
  if (hook) hook(context, receiver, selector);
  if (!fails) return;
  lost(receiver, selector);
  if (what == FAULTS_OTHER_OBJECT) @throw [[TestbedThrownObject new] autorelease];
  [NSException raise:@FAULTS_EXCEPTION_NAME
              format:@"message %lu: %c[%s %s]", number,
                     class_isMetaClass(object_getClass(receiver)) ? '+' : '-',
                     object_getClassName(receiver), sel_getName(selector)];
}

bool function_fails(const char* name) {
  faults_call_hook hook;
  void* context;
  bool fails;
  {
    std::lock_guard guard(lock);
    if (!takes_part()) return false;
    hook = call_hook;
    context = call_context;
    fails = count(all_calls);
    fails |= count(calls[name]);
  }
  if (hook) hook(context, name);
  return fails;
}

} // namespace observe

extern "C" {
#pragma GCC visibility push(default)

void faults_start(faults_scope wanted) {
  std::lock_guard guard(lock);
  scope = wanted;
  watched = std::this_thread::get_id();
  messages = all_calls = {};
  calls.clear();
  fired = 0;
  observe::watching = true;
}

void faults_stop(void) { observe::watching = false; }

unsigned long faults_messages(void) {
  std::lock_guard guard(lock);
  return messages.calls;
}

void faults_fail_message(unsigned long nth, faults_thrown what) {
  std::lock_guard guard(lock);
  messages.failing = nth;
  thrown = what;
}

unsigned long faults_calls(const char* name) {
  std::lock_guard guard(lock);
  if (!name) return all_calls.calls;
  auto found = calls.find(name);
  return found == calls.end() ? 0 : found->second.calls;
}

void faults_fail_call(const char* name, unsigned long nth) {
  std::lock_guard guard(lock);
  (name ? calls[name] : all_calls).failing = nth;
}

unsigned long faults_fired(void) {
  std::lock_guard guard(lock);
  return fired;
}

void faults_on_message(faults_message_hook hook, void* context) {
  std::lock_guard guard(lock);
  message_hook = hook;
  message_context = context;
}

void faults_on_call(faults_call_hook hook, void* context) {
  std::lock_guard guard(lock);
  call_hook = hook;
  call_context = context;
}

#pragma GCC visibility pop
} // extern "C"
