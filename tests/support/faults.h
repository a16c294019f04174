#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace support {

/// Failures (or other events) at a chosen system call, to test what an operation leaves behind. A
/// case loops over `nth` until the operation succeeds:
///
///     for (int nth = 1; ; ++nth) {
///       const auto end = support::FailNth(nth, ENOSPC, {SYS_write}, [&] { Save(); });
///       ... look at what is there ...
///       if (end == support::End::kClean) break;
///     }
///
/// The calls are stopped by the kernel (seccomp_unotify(2)), so that it makes no difference which
/// library issues them. Where a sandbox forbids that, FaultsWork is false and a case has to skip. A
/// close(2) that fails still closes its descriptor, as in the kernel.
bool FaultsWork();

/// A system call that is waiting for a decision.
struct Call {
  int number;             ///< SYS_...
  pid_t thread;           ///< the calling thread
  bool own;               ///< a thread of this process; else of one that `work` has started
  std::uint64_t args[6];  ///< as given to the kernel
  std::uint64_t from;     ///< the address of the instruction
};

/// The text at an address that the caller has given, such as a path. Its memory is read as a file:
/// a sanitizer cannot know that the caller waits.
std::string TextAt(const Call& call, std::uint64_t address);

/// Runs `work` on a thread of its own. Before each of `calls`, in that thread or in a process that
/// `work` has started, `decide` runs on the calling thread. When it returns an errno, the call
/// fails with that; with 0 it is carried out. Returns when the last such process has ended; false
/// when `work` threw.
bool Intercept(const std::vector<int>& calls, const std::function<int(const Call&)>& decide,
               const std::function<void()>& work);

enum class End {
  kClean,     ///< fewer than `nth` such calls were made
  kThrew,     ///< the call came and `work` threw
  kSurvived,  ///< the call came and `work` returned
};

/// Intercept, where only the `nth` call (from 1) is decided upon.
End AtNth(int nth, const std::vector<int>& calls, const std::function<int()>& event,
          const std::function<void()>& work);

/// The `nth` such call fails with `error`.
End FailNth(int nth, int error, const std::vector<int>& calls, const std::function<void()>& work);

}  // namespace support
