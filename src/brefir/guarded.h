#pragma once

#include <exception>

#include "pnl/log.h"

namespace utils {

/// Calls an observer, which must not affect the work: what it throws is only logged (level 3), with
/// `what` before it.
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
