#pragma once

#include <functional>
#include <vector>

namespace support {

/// System calls that fail, or kill the process, at a chosen point: the way to see what an operation
/// leaves behind whatever happens. A case loops over `nth` until the operation gets through:
///
///     for (int nth = 1; ; ++nth) {
///       const auto end = support::FailNth(nth, ENOSPC, {SYS_write}, [&] { Save(); });
///       ... look at what is there ...
///       if (end == support::End::kClean) break;
///     }
///
/// The calls are stopped by the kernel (seccomp_unotify(2)), so that it makes no difference which
/// library issues them. Where a sandbox forbids that, FaultsWork is false and a case has to skip.
bool FaultsWork();

enum class End {
  kClean,     ///< fewer than `nth` such calls were made: nothing failed
  kThrew,     ///< the call failed and `work` threw
  kSurvived,  ///< the call failed and `work` returned
};

/// Runs `work` on a thread of its own, whose `nth` call (from 1) of one of `calls` (SYS_ numbers)
/// is not carried out but fails with `error`.
End FailNth(int nth, int error, const std::vector<int>& calls, const std::function<void()>& work);

/// Runs `work` in a child process that is killed instead of making the `nth` such call. False when
/// it made fewer and ended by itself.
bool KillAtNth(int nth, const std::vector<int>& calls, const std::function<void()>& work);

}  // namespace support
