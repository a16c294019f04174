#include "faults/table.h"

#include <cstdio>
#include <mutex>

namespace faults {
namespace {

std::mutex mutex;
int total = 0;
int violations = 0;

}  // namespace

Row::Row(std::string operation) : operation_(std::move(operation)) {}

Row::~Row() {
  const std::lock_guard lock(mutex);
  std::string states;
  for (const auto& [state, count] : states_) {
    states += (states.empty() ? "" : ", ") + state + " " + std::to_string(count);
  }
  std::printf("%-44s %7d  %s\n", operation_.c_str(), points_, states.c_str());
  std::fflush(stdout);
  total += points_;
}

void Row::Point(const std::string& state) {
  const std::lock_guard lock(mutex);
  ++points_;
  ++states_[state];
}

void Row::Violation(const std::string& what) {
  const std::lock_guard lock(mutex);
  ++violations;
  std::fprintf(stderr, "%s: %s\n", operation_.c_str(), what.c_str());
}

void PrintHead() {
  std::printf("%-44s %7s  %s\n", "operation", "points", "states");
  std::fflush(stdout);  // a copy of this process must not print it again
}

int Finish() {
  std::printf("%-44s %7d  %d not allowed\n", "total", total, violations);
  return violations == 0 && total > 0 ? 0 : 1;
}

}  // namespace faults
