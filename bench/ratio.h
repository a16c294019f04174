#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// Quotes times as ratios to a floor measured in the same run: on a shared machine only those mean
/// something.
namespace bench {

/// A claim: what `subject` takes, divided by what `floor` takes (benchmark names), beside a limit.
struct Ratio {
  std::string subject;
  std::string floor;
  std::string limit;  ///< as text, for the reader
};

/// Prints as usual, and keeps the median (else the only) processor time of every benchmark: other
/// work on the machine shows in it least.
class Reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const bool median = run.aggregate_name == "median";
      if (median || run.run_type == Run::RT_Iteration) {
        times_[run.run_name.function_name] = run.GetAdjustedCPUTime();
      }
    }
  }

  void Print(const std::vector<Ratio>& ratios) const {
    for (const Ratio& ratio : ratios) {
      const auto subject = times_.find(ratio.subject);
      const auto floor = times_.find(ratio.floor);
      if (subject == times_.end() || floor == times_.end()) continue;
      std::printf("%-28s / %-28s = %6.2f   (%s)\n", ratio.subject.c_str(), ratio.floor.c_str(),
                  subject->second / floor->second, ratio.limit.c_str());
    }
  }

 private:
  std::map<std::string, double> times_;
};

inline int Main(int argc, char** argv, const std::vector<Ratio>& ratios) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Print(ratios);
  return 0;
}

}  // namespace bench
