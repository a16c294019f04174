#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// Quotes times as ratios to a floor measured in the same run: on a shared machine only those mean
/// something.
namespace bench {

/// Which time counts: the processor's, in which other work on the machine shows least, or the
/// clock's where the work is done by other processes and mostly waited for.
enum class Time { kProcessor, kClock };

/// A claim: what `subject` takes, divided by what `floor` takes (benchmark names), beside a limit.
struct Ratio {
  std::string subject;
  std::string floor;
  std::string limit;  ///< as text, for the reader
  Time time = Time::kProcessor;
};

/// Prints as usual, and keeps the median (else the only) times of every benchmark.
class Reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const bool median = run.aggregate_name == "median";
      if (median || run.run_type == Run::RT_Iteration) {
        times_[run.run_name.function_name] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
      }
    }
  }

  void Print(const std::vector<Ratio>& ratios) const {
    for (const Ratio& ratio : ratios) {
      const auto subject = times_.find(ratio.subject);
      const auto floor = times_.find(ratio.floor);
      if (subject == times_.end() || floor == times_.end()) continue;
      std::printf("%-28s / %-28s = %6.2f   (%s)\n", ratio.subject.c_str(), ratio.floor.c_str(),
                  subject->second.Of(ratio.time) / floor->second.Of(ratio.time),
                  ratio.limit.c_str());
    }
  }

 private:
  struct Times {
    double processor;
    double clock;
    double Of(Time time) const { return time == Time::kProcessor ? processor : clock; }
  };
  std::map<std::string, Times> times_;
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
