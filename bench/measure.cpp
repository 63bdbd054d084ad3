// Google Benchmark runs one benchmark after the other and can at most shuffle their repetitions. A
// ratio of two needs them in pairs, batch by batch: the machine's mood changes faster than a
// repetition takes. So the loop is our own, and only the barriers that keep results from being
// optimised away are the library's.
#include "bench/measure.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <time.h>
#include <unistd.h>

// Callgrind collects in this function alone and writes its counts each time it returns.
extern "C" __attribute__((noinline)) void bench_measured(const bench::Call* call, unsigned count,
                                                         uint64_t* results) {
  bench::perform(*call, count, results);
  benchmark::ClobberMemory();
}

namespace bench {
namespace {

constexpr unsigned pairs = 11;
constexpr double leastSeconds = 0.005; // for each side of a pair

// The thread's own time: what others do on the machine meanwhile does not count.
double now() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

using Perform = void (*)(const Call*, unsigned, uint64_t*);

void unmeasured(const Call* call, unsigned count, uint64_t* results) {
  perform(*call, count, results);
  benchmark::ClobberMemory();
}

// The seconds that one batch takes.
double batch(const Operation& operation, const Prepared& prepared, const Call& call,
             Perform performer = unmeasured) {
  if (prepared.before) prepared.before();
  std::vector<uint64_t> results(operation.calls);
  host::Pool pool;
  double start = now();
  performer(&call, operation.calls, results.data());
  double end = now();
  benchmark::DoNotOptimize(results.data());
  for (uint64_t result : results) drop(prepared.gives, result);
  return end - start;
}

double median(std::vector<double> values) {
  auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

Cost timeOf(const Operation& operation, const Prepared& prepared) {
  // Until everything is found and cached. The last of these tells how long a batch takes.
  double seconds = 0;
  for (int i = 0; i < 2; ++i) {
    batch(operation, prepared, prepared.plugin);
    seconds = batch(operation, prepared, prepared.floor);
  }
  auto batches = static_cast<unsigned>(std::clamp(leastSeconds / seconds, 1.0, 500.0));
  std::vector<double> plugin, floor, ratio;
  for (unsigned pair = 0; pair < pairs; ++pair) {
    double sides[2] = {};
    for (unsigned i = 0; i < 2 * batches; ++i) {
      // By turns, and each side first as often as the other.
      unsigned side = (i + i / 2 + pair) % 2;
      sides[side] += batch(operation, prepared, side ? prepared.floor : prepared.plugin);
    }
    double nanoseconds = 1e9 / (double(batches) * operation.calls);
    plugin.push_back(sides[0] * nanoseconds);
    floor.push_back(sides[1] * nanoseconds);
    ratio.push_back(sides[0] / sides[1]);
  }
  return {median(plugin), median(floor), median(ratio)};
}

uint64_t summaryOf(const std::filesystem::path& file) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("summary:")) return std::stoull(line.substr(sizeof "summary:"));
  fprintf(stderr, "bench: callgrind wrote no counts to %s; the log beside it says why\n",
          file.c_str());
  exit(1);
}

} // namespace

std::string fullName(const Operation& operation) {
  return operation.section + ": " + operation.name;
}

std::vector<const Operation*> chosen(const std::string& text) {
  constexpr unsigned few = 100;
  std::vector<const Operation*> result;
  for (const Operation& operation : operations()) {
    bool fits = text == "quick" ? operation.values <= few
                                : fullName(operation).find(text) != std::string::npos;
    if (fits) result.push_back(&operation);
  }
  return result;
}

void measureTimes(std::vector<Row>& rows) {
  bool terminal = isatty(STDERR_FILENO);
  for (Row& row : rows) {
    Prepared prepared = row.operation->prepare();
    row.time = timeOf(*row.operation, prepared);
    row.allocations = static_cast<int>(allocations(prepared));
    if (terminal)
      fprintf(stderr, "\r\033[K%s: %.2f", fullName(*row.operation).c_str(), row.time.ratio);
  }
  if (terminal) fprintf(stderr, "\r\033[K");
}

void countInstructions(const std::string& text) {
  // The first counts are of no call at all.
  bench_measured(new Call, 0, nullptr);
  for (const Operation* operation : chosen(text)) {
    Prepared prepared = operation->prepare();
    // The largest are known by their smaller kin.
    constexpr unsigned large = 10000;
    if (operation->values <= large)
      for (const Call* call : {&prepared.plugin, &prepared.floor})
        batch(*operation, prepared, *call);
    for (const Call* call : {&prepared.plugin, &prepared.floor})
      batch(*operation, prepared, *call, bench_measured);
  }
}

void measureInstructions(std::vector<Row>& rows, const std::string& program,
                         const std::string& text) {
  namespace files = std::filesystem;
  files::path folder = files::temp_directory_path() / ("bench-" + std::to_string(getpid()));
  files::create_directory(folder);
  std::string command = "valgrind --tool=callgrind --toggle-collect=bench_measured "
                        "--dump-after=bench_measured --callgrind-out-file='" +
                        (folder / "counts").string() + "' '" + program + "' --count '" + text +
                        "' > '" + (folder / "log").string() + "' 2>&1";
  if (int status = system(command.c_str())) {
    fprintf(stderr,
            "bench: counting instructions failed (%d); %s says why. Is valgrind installed?\n",
            status, (folder / "log").c_str());
    exit(1);
  }
  unsigned number = 0;
  auto next = [&] { return summaryOf(folder / ("counts." + std::to_string(++number))); };
  uint64_t nothing = next();
  for (Row& row : rows) {
    auto cost = [&] { return double(next() - nothing) / row.operation->calls; };
    row.instructions.plugin = cost();
    row.instructions.floor = cost();
    row.instructions.ratio = row.instructions.plugin / row.instructions.floor;
  }
  files::remove_all(folder);
}

} // namespace bench
