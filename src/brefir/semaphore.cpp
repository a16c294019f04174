#include "brefir/semaphore.h"

#include <cerrno>

#include "pnl/log.h"

namespace Thread {

namespace {
pnl_log::Module log_module("semaphore");
}

// --- Errors

SemaphoreError::SemaphoreError(const std::string& func) : Error("semaphore_err") {
  const int error = errno;
  add_param("func", func);
  add_errno(error);
}

SemaphoreError::SemaphoreError(const SemaphoreError&) noexcept = default;
SemaphoreError& SemaphoreError::operator=(const SemaphoreError&) noexcept = default;
SemaphoreError::~SemaphoreError() = default;

void AssertSema(int result, const std::string& func) {
  if (result == -1) throw SemaphoreError(func);
}

// --- Slots

Semaphore::Semaphore(unsigned int init) : init_value_(init) {
  AssertSema(sem_init(&sem_, 0, init), "init");
}

Semaphore::~Semaphore() {
  sem_destroy(&sem_);
}

void Semaphore::Wait(Semaphore& semaphore) {
  AssertSema(sem_wait(&semaphore.sem_), "wait");
}

void Semaphore::Post(Semaphore& semaphore) {
  AssertSema(sem_post(&semaphore.sem_), "post");
}

int Semaphore::Value(Semaphore& semaphore) {
  int value = 0;
  AssertSema(sem_getvalue(&semaphore.sem_, &value), "get_value");
  return value;
}

bool Semaphore::TryWait(Semaphore& semaphore) {
  if (sem_trywait(&semaphore.sem_) == 0) return true;
  if (errno == EAGAIN) return false;
  throw SemaphoreError("trywait");
}

bool Semaphore::TimedWait(Semaphore& semaphore, pnl_date::DateTime deadline) {
  const timespec until = {deadline.Seconds(), 0};
  if (sem_timedwait(&semaphore.sem_, &until) == 0) return true;
  if (errno == ETIMEDOUT) return false;
  throw SemaphoreError("timedwait");
}

// --- The scoped lock

SemaphoreLock::SemaphoreLock(Semaphore& semaphore) : semaphore_(semaphore) {
  PNL_TRACE(log_module, "Begin to waitig free slots. (Init, Current): (%d, %d)",
            static_cast<int>(semaphore.InitValue()), Semaphore::Value(semaphore));
  Semaphore::Wait(semaphore);
  PNL_TRACE(log_module, "Slot locked");
}

SemaphoreLock::~SemaphoreLock() {
  try {
    Semaphore::Post(semaphore_);
  } catch (const SemaphoreError& error) {
    // Only a count beyond SEM_VALUE_MAX fails here.
    PNL_LOG(log_module, 3, "%s", error.what());
    return;
  }
  PNL_TRACE(log_module, "Slot unlocked");
}

}  // namespace Thread
