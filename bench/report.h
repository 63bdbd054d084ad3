// The table as people read it.
#pragma once

#include "bench/measure.h"

#include <string>

namespace bench {

struct Findings {
  std::vector<Row> rows;
  LookUps toHost, toCocoa;
};

// Markdown.
std::string report(const Findings& findings);

} // namespace bench
