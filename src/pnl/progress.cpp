#include "pnl/progress.h"

#include <utility>

namespace pnl_progress {
namespace {

thread_local const Observer* current = nullptr;

}  // namespace

Watch::Watch(Observer observer)
    : observer_(std::move(observer)), outer_(std::exchange(current, &observer_)) {}

Watch::~Watch() {
  current = outer_;
}

void Report(std::string_view what, std::uint64_t done, std::uint64_t total) {
  if (current != nullptr && *current) (*current)(what, done, total);
}

}  // namespace pnl_progress
