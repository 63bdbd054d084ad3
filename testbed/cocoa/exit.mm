// GNUstep walks its list of what is to be told and released at exit without the lock under which
// entries are made. A thread whose classes come up at that moment loses an entry, or has one freed
// twice. So no entry is made any more once the process ends.

#import <Foundation/Foundation.h>
#import <GNUstepBase/NSObject+GNUstepBase.h>

#include <cstdlib>
#include <mutex>

namespace {

// Never destroyed: threads go on while the process ends. An entry may bring up a class that makes
// another one.
auto& lock = *new std::recursive_mutex;
bool ending;

void end() {
  std::lock_guard held(lock);
  ending = true;
}

BOOL (*registerAtExit)(id, SEL, SEL);
id (*leak)(id, SEL, id);
id (*leakAt)(id, SEL, id*);

// Asked for after GNUstep's own handler, so that it runs before it.
template <class Entry> auto unlessEnding(Entry make, decltype(make()) otherwise) {
  std::lock_guard held(lock);
  if (ending) return otherwise;
  otherwise = make();
  static int asked = std::atexit(end);
  (void)asked;
  return otherwise;
}

BOOL registerAtExitHere(id self, SEL command, SEL told) {
  return unlessEnding([&] { return registerAtExit(self, command, told); }, NO);
}
id leakHere(id self, SEL command, id object) {
  return unlessEnding([&] { return leak(self, command, object); }, object);
}
id leakAtHere(id self, SEL command, id* place) {
  return unlessEnding([&] { return leakAt(self, command, place); }, *place);
}

template <class F> void takeOver(SEL selector, F& theirs, F ours) {
  Method method = class_getClassMethod([NSObject class], selector);
  theirs = reinterpret_cast<F>(method_setImplementation(method, reinterpret_cast<IMP>(ours)));
}

} // namespace

@interface TestbedExit : NSObject
@end
@implementation TestbedExit
+ (void)load {
  takeOver(@selector(registerAtExit:), registerAtExit, registerAtExitHere);
  takeOver(@selector(leak:), leak, leakHere);
  takeOver(@selector(leakAt:), leakAt, leakAtHere);
}
@end
