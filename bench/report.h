// The table as people read it.
#pragma once

#include "bench/measure.h"

#include <string>
#include <vector>

namespace bench {

struct Findings {
  std::vector<Row> rows;
  LookUps toHost{}, toCocoa{};
};

// Markdown.
std::string report(const Findings& findings);

// What 100 times the values cost in times of the smaller row.
struct Growth {
  const Row* small;
  const Row* large;
  double instructions() const { return large->instructions.plugin / small->instructions.plugin; }
  double time() const { return large->time.plugin / small->time.plugin; }
};
constexpr double growthLimit = 110;
std::vector<Growth> growths(const std::vector<Row>& rows);

} // namespace bench
