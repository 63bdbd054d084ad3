// Dictionaries between the host and Cocoa, entry by entry with the rules of variants.h.
//
// Only data that the host has no room for raises in the host (dates.h). Cocoa's exceptions pass
// through, and leave no host reference behind. The looked-up methods of the dictionary at hand
// stand in process-wide variables without a lock: two conversions of dictionaries must not run at
// once.
#pragma once

#include "convert/nesting.h"
#include "plugin/host.h"

// A new host Dictionary, owned by the caller; null for nil and when the host makes none.
REALobjectStruct* NSDictionaryRB(id dictionary);
REALobjectStruct* NSDictionaryRB(id dictionary, Nesting nesting);

// An autoreleased dictionary, mutable unless it is empty; nil for null. An entry with a null key is
// left out; a key or value that cannot be carried becomes NSNull.
id NewNSDictionary(_REALdictionary* dictionary);
id NewNSDictionary(_REALdictionary* dictionary, Nesting nesting);
