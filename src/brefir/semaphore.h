#pragma once

#include <semaphore.h>

#include <string>

#include "brefir/export.h"
#include "pnl/date.h"
#include "pnl/err.h"

/// Limits how many threads of this process work at once.
///
///     Thread::Semaphore slots(4);
///     ...
///     Thread::SemaphoreLock slot(slots);   // waits until one of four is free
namespace Thread {

/// A failed operation of a semaphore. Type "semaphore_err", parameters "func" (the operation),
/// "errno" (decimal, of the system call that failed just before) and "errmsg".
class BREFIR_API SemaphoreError : public pnl_err::Error {
 public:
  explicit SemaphoreError(const std::string& func);
  SemaphoreError(const SemaphoreError&) noexcept;
  SemaphoreError& operator=(const SemaphoreError&) noexcept;
  ~SemaphoreError() override;
};

/// Throws SemaphoreError(func) when `result`, of a system call just made, is -1.
BREFIR_API void AssertSema(int result, const std::string& func);

/// A number of slots, shared by any threads of the process (sem_overview(7), not between
/// processes). A wait that a signal handler interrupts throws (EINTR) and takes no slot.
class BREFIR_API Semaphore {
 public:
  explicit Semaphore(unsigned int init);  ///< that many free slots; "init"
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;
  ~Semaphore();

  static void Wait(Semaphore& semaphore);     ///< takes a slot, waiting for it; "wait"
  static void Post(Semaphore& semaphore);     ///< gives one back; "post"
  static int Value(Semaphore& semaphore);     ///< free slots at this moment; "get_value"
  static bool TryWait(Semaphore& semaphore);  ///< takes a slot if one is free; "trywait"
  /// Takes a slot; false when none has become free until `deadline` (wall clock); "timedwait".
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
