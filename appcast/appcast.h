// The host classes around an appcast and its items, as the updater's events hand them out.
//
// Both functions answer the host instance that stands for a framework object: the registered one,
// or a new one. It comes with one reference that belongs to the caller. Null for nil, and when the
// host makes no instance. They send messages: call them inside a frame.
#pragma once

#include "plugin/host.h"

REALobjectStruct* SUAppcastRB(id appcast);
REALobjectStruct* SUAppcastItemRB(id item);

// The framework's item in an instance of SUAppcastItemKVZ, borrowed; nil when it is empty.
id appcastItemOf(REALobjectStruct* instance);
