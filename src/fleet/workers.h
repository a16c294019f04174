#pragma once

#include <cstddef>
#include <functional>

/// For the sources of this directory only.
namespace fleet {

/// Calls `work`, which throws nothing, with 0 to `count` - 1, on up to `threads` threads, this one
/// among them, and waits for all.
void OnThreads(std::size_t count, std::size_t threads,
               const std::function<void(std::size_t index)>& work);

}  // namespace fleet
