// What the program did in each recording.
#pragma once

#include <string>

namespace traces {

// Plays the scenario that a recording is named after. The host is started; the framework is not
// loaded yet. Its lines go to `file`.
void play(const std::string& scenario, const std::string& version, const std::string& file);

} // namespace traces
