#include "bench/report.h"
namespace bench { std::string report(const Findings&) { return ""; } }
