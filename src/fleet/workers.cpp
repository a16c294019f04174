#include "fleet/workers.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <vector>

namespace fleet {

void OnThreads(std::size_t count, std::size_t threads,
               const std::function<void(std::size_t index)>& work) {
  std::atomic<std::size_t> next = 0;
  const auto go = [&] {
    for (std::size_t n = next++; n < count; n = next++) work(n);
  };
  std::vector<std::jthread> others;
  try {
    while (others.size() + 1 < std::min(threads, count)) others.emplace_back(go);
  } catch (const std::exception&) {  // fewer do it as well
  }
  go();
}

}  // namespace fleet
