// SUVersionComparisonKVZ, as the delegate hands it to the framework.
#pragma once

#include "plugin/host.h"

// The comparator in an instance of SUVersionComparisonKVZ, borrowed; nil before its Constructor.
id comparatorOf(REALobjectStruct* instance);
