#pragma once

#include <semaphore.h>

#include <string>

#include "brefir/export.h"
#include "pnl/date.h"
#include "pnl/err.h"

/// Limits how many threads of this process work at the same time.
///
///     Thread::Semaphore slots(4);
///     ...
///     Thread::SemaphoreLock slot(slots);   // waits until one of four is free
namespace Thread {

/// An operation of a semaphore failed. Type "semaphore_err", parameters "func" (the operation),
/// "errno" (decimal, of the failed system call) and "errmsg".
class BREFIR_API SemaphoreError : public pnl_err::Error {
 public:
  explicit SemaphoreError(const std::string& func);
  SemaphoreError(const SemaphoreError&) noexcept;
  SemaphoreError& operator=(const SemaphoreError&) noexcept;
  ~SemaphoreError() override;
};

/// Throws SemaphoreError(func) when `result`, the result of the system call before, is -1.
BREFIR_API void AssertSema(int result, const std::string& func);

/// A number of slots that all threads of the process share (sem_overview(7)). When a signal handler
/// interrupts a wait, the wait throws (EINTR) and takes no slot. The comments below name the value
/// of "func".
class BREFIR_API Semaphore {
 public:
  explicit Semaphore(unsigned int init);  ///< number of free slots; "init"
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;
  ~Semaphore();

  static void Wait(Semaphore& semaphore);     ///< waits for a slot and takes it; "wait"
  static void Post(Semaphore& semaphore);     ///< returns a slot; "post"
  static int Value(Semaphore& semaphore);     ///< free slots at this moment; "get_value"
  static bool TryWait(Semaphore& semaphore);  ///< takes a slot if one is free; "trywait"
  /// Takes a slot; false when none becomes free before `deadline` (wall clock); "timedwait".
  static bool TimedWait(Semaphore& semaphore, pnl_date::DateTime deadline);

  unsigned int InitValue() const { return init_value_; }

 private:
  sem_t sem_;
  unsigned int init_value_;
};

/// Holds one slot while it lives; logs its waiting at level 9 (module "semaphore").
class BREFIR_API SemaphoreLock {
 public:
  explicit SemaphoreLock(Semaphore& semaphore);  ///< waits for the slot
  SemaphoreLock(const SemaphoreLock&) = delete;
  SemaphoreLock& operator=(const SemaphoreLock&) = delete;
  ~SemaphoreLock();

 private:
  Semaphore& semaphore_;
};

}  // namespace Thread
