#include "boxes.h"

#include <atomic>

#include <objc/runtime.h>

namespace companion {

namespace {
std::atomic<uint32_t> live;
}

// Under its own name the class would exist as soon as the library is mapped.
void registerBoxClass() {
  objc_registerClassPair(objc_allocateClassPair([CompanionBox class], "KVZREALobjectWrapper", 0));
}

uint32_t liveBoxes() { return live; }

} // namespace companion

using namespace companion;

@implementation CompanionBox

+ (id)wrap:(HostObject*)object {
  if (!object) return nil;
  CompanionBox* box = [[self alloc] init];
  call(host.lockObject, object);
  box->_object = object;
  ++live;
  return [box autorelease];
}

- (HostObject*)unwrap {
  call(host.lockObject, _object);
  return _object;
}

- (void)dealloc {
  if (_object) {
    call(host.unlockObject, _object);
    --live;
  }
  [super dealloc];
}

@end
