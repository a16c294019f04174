#pragma once

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "pnl/export.h"

/// Threads and locks.
namespace pnl_thread {

/// A worker thread around a callable. A transaction (pnl_job) that the callable leaves open is
/// rolled back when it ends; an exception that leaves it is logged (module "thread", level 3).
class PNL_API Handle {
 public:
  explicit Handle(std::function<void()> body);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle();  ///< joins a started thread

  /// Starts the thread. Throws pnl_err::Error("thread", "start") with errno and errmsg when the
  /// system refuses one, or when this one is not joined yet (EBUSY). After a refusal or a join the
  /// object may be started again.
  void Start();
  void join();  ///< waits for the end; nothing when it was never started or is joined already

 private:
  std::function<void()> body_;
  std::thread thread_;
};

/// A mutual-exclusion lock, not recursive.
class PNL_API SafeLock {
 public:
  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds a SafeLock while it lives.
class PNL_API SafeSection {
 public:
  explicit SafeSection(SafeLock& lock) : lock_(lock) { lock_.Lock(); }
  ~SafeSection() { lock_.Unlock(); }
  SafeSection(const SafeSection&) = delete;
  SafeSection& operator=(const SafeSection&) = delete;

 private:
  SafeLock& lock_;
};

/// Something that happens once. Any thread may use it; what waits in poll(2) sees it, too.
class PNL_API Event {
 public:
  Event();  ///< throws "file" when no descriptor is left
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  ~Event();

  void Raise() noexcept;  ///< a signal handler may call it, too
  bool Raised() const noexcept;
  int Fd() const { return fd_; }  ///< readable (POLLIN) from then on

 private:
  int fd_;
};

/// Readers-writer lock: std::shared_lock for readers, std::unique_lock for writers.
using RwLock = std::shared_mutex;

}  // namespace pnl_thread

/// The one object of class T in the process: made at first use (once, whatever thread comes first),
/// never destroyed, so that it may be used from destructors of other static objects. Visible, so
/// that all shared objects of the process mean the same one; T has to be exported for that.
template <class T>
class PNL_API Singleton {
 public:
  static T& Instance() {
    static T* const object = new T();
    return *object;
  }
};
