// At exit GNUstep takes down what its classes hold, while threads go on that use it and, without a
// lock, while they add to what is to be taken down. Nothing is known to be taken down on Mac OS X,
// and so it is here: what is kept for the life of the process is kept.

#import <Foundation/Foundation.h>
#import <GNUstepBase/NSObject+GNUstepBase.h>

namespace {

BOOL registerAtExit(id, SEL, SEL) { return NO; }
id leak(id, SEL, id object) { return [object retain]; }
id leakAt(id, SEL, id* place) { return [*place retain]; }

template <class F> void takeOver(SEL selector, F* by) {
  method_setImplementation(class_getClassMethod([NSObject class], selector),
                           reinterpret_cast<IMP>(by));
}

} // namespace

@interface TestbedExit : NSObject
@end
@implementation TestbedExit
+ (void)load {
  takeOver(@selector(registerAtExit:), registerAtExit);
  takeOver(@selector(leak:), leak);
  takeOver(@selector(leakAt:), leakAt);
}
@end
