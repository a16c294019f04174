#pragma once

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// Prints times as ratios to a floor (a bare implementation) measured in the same run: on a shared
/// machine only ratios are meaningful.
namespace bench {

/// Which time counts: processor time, which other work on the machine affects least; or real time,
/// when other processes do the work.
enum class Time { kProcessor, kClock };

/// A claim: what `subject` takes, divided by what `floor` takes (benchmark names), beside a limit.
struct Ratio {
  std::string subject;
  std::string floor;
  std::string limit;  ///< as text, for the reader
  Time time = Time::kProcessor;
};

/// Whether `value` is beyond "at most N", "at least N" or "below N"; other limits are none.
inline bool Missed(double value, const std::string& limit) {
  double bound = 0;
  if (std::sscanf(limit.c_str(), "at most %lf", &bound) == 1) return value > bound;
  if (std::sscanf(limit.c_str(), "at least %lf", &bound) == 1) return value < bound;
  return std::sscanf(limit.c_str(), "below %lf", &bound) == 1 && value >= bound;
}

/// scripts/bench makes a table of these lines.
inline void PrintRatio(const std::string& subject, const std::string& floor, double value,
                       const std::string& limit) {
  std::printf("%-28s / %-28s = %6.2f   (%s)%s\n", subject.c_str(), floor.c_str(), value,
              limit.c_str(), Missed(value, limit) ? "   MISSED" : "");
  std::fflush(stdout);
}

/// The same of two peaks of memory, in KiB.
inline void PrintPeaks(const std::string& subject, const std::string& floor, double ours,
                       double bare, const std::string& limit) {
  char sizes[64];
  std::snprintf(sizes, sizeof sizes, "; %.1f and %.1f MiB", ours / 1024, bare / 1024);
  PrintRatio(subject, floor, ours / bare, limit + sizes);
}

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
      PrintRatio(ratio.subject, ratio.floor,
                 subject->second.Of(ratio.time) / floor->second.Of(ratio.time), ratio.limit);
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

/// For work that waits for other processes: real time, `iterations` runs in each repetition.
inline void RegisterWaiting(const std::string& name,
                            const std::function<void(benchmark::State&)>& function, int repetitions,
                            int iterations = 1) {
  benchmark::RegisterBenchmark(name.c_str(), function)
      ->Unit(benchmark::kMillisecond)
      ->Iterations(iterations)
      ->Repetitions(repetitions)
      ->ReportAggregatesOnly()
      ->UseRealTime();
}

/// Interleaved, so that other work on the machine affects subject and floor equally.
inline int MainInterleaved(std::vector<char*> words, const std::vector<Ratio>& ratios) {
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  words.insert(words.begin() + 1, interleave.data());
  return Main(static_cast<int>(words.size()), words.data(), ratios);
}

/// The whole of a program: what `run` throws is told, and is its failure.
template <class Run>
int Program(const Run& run) try {
  return run();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
  return 1;
}

}  // namespace bench
