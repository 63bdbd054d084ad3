// Draws the road of an update as a picture: a lane each for program, plug-in, framework, server and
// person, and one arrow a step, from who does it to whom it is done. Pure functions; any thread.
#pragma once

#include <string>
#include <vector>

namespace picture {

enum class Lane { program, plugin, framework, server, person };

struct Arrow {
  Lane from, to;      // the same: what somebody does alone
  bool answer;        // on the way back
  std::string thread; // the name of the thread on which it happens
  std::string text;   // what is done; what is too long for a line of the picture is cut
  std::string cause;  // of an event: the framework's thread, where its way begins; or empty
};

// An SVG document for light and dark surroundings. The same arrows give the same bytes.
std::string draw(const std::string& title, const std::vector<Arrow>& arrows);

} // namespace picture
