#pragma once

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "pnl/export.h"

/// Threads and locks.
namespace pnl_thread {

/// A worker thread that runs a callable. When the callable ends, its open transaction (pnl_job) is
/// rolled back. An exception that leaves the callable is logged (module "thread", level 3).
class PNL_API Handle {
 public:
  explicit Handle(std::function<void()> body);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle();  ///< joins a started thread

  /// Starts the thread. Throws pnl_err::Error("thread", "start") with errno and errmsg when the
  /// system refuses a thread, or when this one is not joined yet (EBUSY). After a refusal or a
  /// join, Start may be called again.
  void Start();
  void join();  ///< waits for the end; does nothing when not started or already joined

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

/// An event that happens once. Thread-safe. Threads can wait for it with poll(2).
class PNL_API Event {
 public:
  Event();  ///< throws "file" if no descriptor is free
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  ~Event();

  void Raise() noexcept;  ///< also allowed in a signal handler
  bool Raised() const noexcept;
  int Fd() const { return fd_; }  ///< readable (POLLIN) once the event was raised

 private:
  int fd_;
};

/// Readers-writer lock: std::shared_lock for readers, std::unique_lock for writers.
using RwLock = std::shared_mutex;

}  // namespace pnl_thread

/// The one object of class T in the process. It is made at first use (thread-safe) and never
/// destroyed, so that destructors of other static objects may use it. T must be exported: then all
/// shared libraries of the process use the same object.
template <class T>
class PNL_API Singleton {
 public:
  static T& Instance() {
    static T* const object = new T();
    return *object;
  }
};
