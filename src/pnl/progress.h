#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "pnl/export.h"

/// Progress of long work (downloads, unpacking, copies). The library reports it; a program may show
/// it.
///
///     pnl_progress::Watch watch([&](std::string_view what, std::uint64_t done, std::uint64_t total) {
///       Show(what, done, total);
///     });
///     pnl_rpc::FetchFile(url, cache_file, 0);
namespace pnl_progress {

/// `what` names the work (a URL, a file); `done` and `total` are bytes, `total` 0 when unknown.
using Observer =
    std::function<void(std::string_view what, std::uint64_t done, std::uint64_t total)>;

/// Installs an observer for the calling thread while the object lives. An inner Watch hides the
/// outer one. Destroy it on the thread that made it, in reverse order of construction.
class PNL_API Watch {
 public:
  explicit Watch(Observer observer);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

 private:
  Observer observer_;
  const Observer* outer_;
};

/// Calls the calling thread's observer, if there is one. The caller gets what the observer throws.
PNL_API void Report(std::string_view what, std::uint64_t done, std::uint64_t total);

}  // namespace pnl_progress
