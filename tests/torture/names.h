// What there is to reach besides members and events: the names that stand in the plug-in itself, so
// that no list here can fall behind, and the type codes, which are mere numbers in it.
//
// One thing a line:
//
// - operation RuntimeUBound: a host operation that the plug-in looks up
// - name NSErrorKVZ: a host class that it makes or tests for, or a message of the family's
// - name addObject: a message with arguments that it sends or offers
// - variant 4098: a type of variant or array that a rule is for
// - number q: a type of number that a rule is for
#pragma once

#include <string>
#include <vector>

namespace torture {

std::vector<std::string> namesToReach(const std::string& pluginPath);

} // namespace torture
