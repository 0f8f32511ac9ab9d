// How fast the end of content after DATA is looked for, in what one receive gives: bytes per second on one core. The
// peer is a search for a dot alone, which is the least that finds it.
//
//   bench_content_scan                      the exit status is 1 when a kind is slower than it has to be
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/dialogue/content_tracker.h"

namespace {

using namespace trabex;

constexpr std::size_t kReceived = 65536;

struct Kind {
  const char* name;
  std::string_view line;
  double least_gigabytes;  // per second
};

constexpr std::string_view kBase64 =
    "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZyBhZ2FpbiBhbmQg/w+/\r\n";
constexpr std::string_view kDots =
    "..he quick brown fox jumps over the lazy dog again and again until it sleeps\r\n";
constexpr std::string_view kText =
    "The quick brown fox (v. 2.5) jumps over the lazy dog of www.example.com.\r\n";

constexpr Kind kKinds[] = {
    {"base64 lines of 76", kBase64, 8},
    {"lines that begin with a dot", kDots, 4},
    {"text with dots", kText, 0},
    {"lines of dots", "............................................................................\r\n", 0},
    {"empty lines", "\r\n", 0},
};

std::string BytesOf(const Kind& kind) {
  std::string bytes;
  while (bytes.size() < kReceived) bytes += kind.line;
  return bytes;
}

void Scan(benchmark::State& state, const Kind& kind) {
  const std::string bytes = BytesOf(kind);
  ContentTracker tracker;
  tracker.BeginDot();
  for (auto _ : state) {
    const ContentTracker::Step step = tracker.Scan(bytes);
    if (step.bytes != bytes.size() || step.outcome != ContentTracker::Outcome::kGoesOn) {
      state.SkipWithError("an end was found where there is none");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void FindDots(benchmark::State& state, const Kind& kind) {
  const std::string bytes = BytesOf(kind);
  for (auto _ : state) {
    const char* at = bytes.data();
    const char* const end = at + bytes.size();
    while (const void* dot = std::memchr(at, '.', static_cast<std::size_t>(end - at))) {
      benchmark::DoNotOptimize(dot);
      at = static_cast<const char*>(dot) + 1;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

// Prints what the library prints, and keeps the best of a kind's repetitions: others on the machine make it slower,
// nobody makes it faster.
class Rates : public benchmark::ConsoleReporter {
 public:
  Rates() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      failed_ |= run.error_occurred;
      const auto rate = run.counters.find("bytes_per_second");
      if (rate == run.counters.end()) continue;
      double& best = best_[run.run_name.function_name];
      best = std::max(best, rate->second.value / 1e9);
    }
  }

  // Prints the table; returns whether every kind is fast enough.
  bool Judge() const {
    bool good = !failed_;
    std::printf("\n%-30s%12s%12s%10s%10s\n", "GB/s", "scan", "dots alone", "ratio", "wanted");
    for (const Kind& kind : kKinds) {
      const double scan = RateOf(std::string("scan/") + kind.name);
      const double dots = RateOf(std::string("dots/") + kind.name);
      good &= scan >= kind.least_gigabytes;
      std::printf("%-30s%12.2f%12.2f%10.2f%10.0f\n", kind.name, scan, dots, scan / dots,
                  kind.least_gigabytes);
    }
    return good;
  }

 private:
  double RateOf(const std::string& name) const {
    const auto found = best_.find(name);
    return found == best_.end() ? 0 : found->second;
  }

  std::map<std::string, double> best_;
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
  for (const Kind& kind : kKinds) {
    benchmark::RegisterBenchmark((std::string("scan/") + kind.name).c_str(), Scan, kind)
        ->MinTime(0.1)
        ->Repetitions(5);
    benchmark::RegisterBenchmark((std::string("dots/") + kind.name).c_str(), FindDots, kind)
        ->MinTime(0.1)
        ->Repetitions(5);
  }
  Rates rates;
  benchmark::RunSpecifiedBenchmarks(&rates);
  return rates.Judge() ? EXIT_SUCCESS : EXIT_FAILURE;
}
