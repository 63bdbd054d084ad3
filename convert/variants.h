// Any value between the host and Cocoa: a chain of rules in a fixed order, the first that fits
// wins. Wrapper classes of the plug-in family are found by name; where one is missing, its rule
// falls through or gives null.
//
// Neither function logs. Data that the host has no room for raises in the host (dates.h). Cocoa's
// exceptions pass through, and leave no host reference behind. Collections nested deeper than
// kDeepest (nesting.h), which includes those that hold themselves, give null. Call on a thread that
// may call the host.
#pragma once

#include "convert/nesting.h"
#include "plugin/host.h"

// A new Variant (any host object), owned by the caller; null for nil, NSNull and what no rule can
// carry. The object is borrowed.
REALobjectStruct* NewVariantFromNSObject(id object, Nesting nesting);

// A Cocoa object that the caller does not own (autoreleased, or held by the variant); nil for null
// and for what no rule can carry. The variant is borrowed.
id GetVariantAsNSObject(REALobjectStruct* variant, Nesting nesting);
