// A reporter that ends its run with one table: each benchmark "ours/<case>" against its peer "peer/<case>".
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace trabex::bench {

class RatioTable : public benchmark::ConsoleReporter {
 public:
  RatioTable() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const std::string name = run.run_name.function_name;
      const std::size_t slash = name.find('/');
      if (slash == std::string::npos) continue;
      Pair& pair = pairs_[name.substr(slash + 1)];
      (name.compare(0, slash, "ours") == 0 ? pair.ours_ns : pair.peer_ns) =
          run.real_accumulated_time / static_cast<double>(run.iterations) * 1e9;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-36s %14s %14s %12s\n", "case", "ours (ns)", "peer (ns)", "peer / ours");
    for (const auto& [name, pair] : pairs_) {
      if (pair.ours_ns <= 0 || pair.peer_ns <= 0) continue;
      std::printf("%-36s %14.0f %14.0f %12.1f\n", name.c_str(), pair.ours_ns, pair.peer_ns,
                  pair.peer_ns / pair.ours_ns);
    }
  }

 private:
  struct Pair {
    double ours_ns = 0;
    double peer_ns = 0;
  };
  std::map<std::string, Pair> pairs_;
};

}  // namespace trabex::bench
