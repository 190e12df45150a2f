// bench/ratios.h - what one benchmark needed beside another of the same run.
#pragma once
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace ptz_bench {

// What other programs take from this one can only make a repetition longer.
inline double best(const std::vector<double> &repetitions) { return std::ranges::min(repetitions); }

struct Aim {
  double at_most = 0, at_least = 0;
};

struct Comparison {
  const char *title;
  const char *slower, *faster;  // benchmarks; the ratio is how often the second fits into the first
  Aim aim = {};
};

// The console's table, and below it the ratios of processor times.
class RatioReporter : public benchmark::ConsoleReporter {
  std::span<const Comparison> comparisons_;
  std::map<std::string, double> times_;

  static const char *verdict(const Aim &aim, double ratio) {
    if (aim.at_most > 0) return ratio <= aim.at_most ? ", met" : ", MISSED";
    if (aim.at_least > 0) return ratio >= aim.at_least ? ", met" : ", MISSED";
    return "";
  }

 public:
  explicit RatioReporter(std::span<const Comparison> comparisons)
      : ConsoleReporter(OO_Tabular), comparisons_(comparisons) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "best") continue;
      times_[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
  }

  void Finalize() override {
    std::printf("\n");
    for (const auto &comparison : comparisons_) {
      const double slower = times_[comparison.slower], faster = times_[comparison.faster];
      if (slower <= 0 || faster <= 0) continue;  // not both of them were run
      std::printf("%s: %.2f times%s\n", comparison.title, slower / faster, verdict(comparison.aim, slower / faster));
    }
  }
};

// The whole of main().
inline int run_and_compare(int argc, char **argv, std::span<const Comparison> comparisons) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  RatioReporter reporter(comparisons);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace ptz_bench
