#pragma once

#include <exception>

#include "pnl/log.h"

namespace utils {

/// Calls a watcher: who is told how work goes on must not change how it does. What it throws is
/// logged (level 3) behind `what`.
template <class Call>
void Guarded(pnl_log::Module& log, const char* what, const Call& call) noexcept {
  try {
    call();
  } catch (const std::exception& error) {
    PNL_LOG(log, 3, "%s: %s", what, error.what());
  } catch (...) {
    PNL_LOG(log, 3, "%s", what);
  }
}

}  // namespace utils
