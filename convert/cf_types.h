// The Core Foundation types that have host wrapper classes of their own.
#pragma once

#include "cocoa/core_foundation.h"

struct CFTypeRule {
  CFTypeID (*type)(); // null on a system without this type
  const char* wrapperName;
  bool isImage; // CGImage has a wrapper of an older kind
};

// The first rule for a type; null when there is none.
const CFTypeRule* cfTypeRule(CFTypeID type);
