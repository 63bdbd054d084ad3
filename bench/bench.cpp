#include "bench/measure.h"
#include "bench/report.h"
#include <cstdio>
#include <cstdlib>
#include <string>
int main(int argc, char** argv) {
  using namespace bench;
  std::string mode = argc > 1 ? argv[1] : "", text = argc > 2 ? argv[2] : "";
  startHost();
  if (mode == "--count") { countInstructions(text); fflush(nullptr); _Exit(0); }
  int bad = 0;
  if (mode == "--steps") {
    for (auto* op : chosen(text)) {
      if (op->values > 100) continue;
      Prepared p = op->prepare();
      stepsOf(p, p.plugin); stepsOf(p, p.floor);
      auto a = stepsOf(p, p.plugin), b = stepsOf(p, p.floor);
      printf("%s %s: %zu %zu\n", a == b ? "same" : "DIFFERENT", fullName(*op).c_str(), a.size(), b.size());
      if (a != b) { ++bad; size_t i = 0; while (i < a.size() && i < b.size() && a[i] == b[i]) ++i;
        for (size_t j = i; j < i + 12; ++j) printf("   P %-60s | F %s\n", j < a.size() ? a[j].c_str() : "", j < b.size() ? b[j].c_str() : ""); }
    }
    printf("%d\n", bad);
    fflush(nullptr); _Exit(0);
  }
  std::vector<Row> rows;
  for (auto* op : chosen(text)) rows.push_back({op, {}, {}, 0});
  if (mode != "--instr") measureTimes(rows);
  if (mode != "--time") measureInstructions(rows, argv[0], text);
  for (auto& r : rows) printf("%-70s %.2f | %10.0f %10.0f %.3f | %12.1f %12.1f %.3f | %d %s\n", fullName(*r.operation).c_str(), r.operation->target, r.time.plugin, r.time.floor, r.time.ratio, r.instructions.plugin, r.instructions.floor, r.instructions.ratio, r.allocations,
     r.time.ratio > r.operation->target || r.instructions.ratio > r.operation->target ? "MISS" : "");
  fflush(nullptr); _Exit(0);
}
