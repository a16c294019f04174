#pragma once

#include <string>

#include "pnl/thread.h"

/// Handling of interruptions (SIGINT, SIGTERM, SIGHUP) for work that must not stay half done. Only
/// one of these objects may exist at a time, on the main thread.
namespace console {

/// While this object lives, an interruption removes the file `path` and then ends the program.
class RemovedWhenInterrupted {
 public:
  explicit RemovedWhenInterrupted(const std::string& path);
  RemovedWhenInterrupted(const RemovedWhenInterrupted&) = delete;
  RemovedWhenInterrupted& operator=(const RemovedWhenInterrupted&) = delete;
  ~RemovedWhenInterrupted();
};

/// While this object lives, the first interruption raises the event, and the second ends the program.
class StoppedByInterruption {
 public:
  explicit StoppedByInterruption(pnl_thread::Event& stop);
  StoppedByInterruption(const StoppedByInterruption&) = delete;
  StoppedByInterruption& operator=(const StoppedByInterruption&) = delete;
  ~StoppedByInterruption();
};

/// Whether the work of the last of these objects was interrupted. For any thread.
[[nodiscard]] bool WasInterrupted();

/// Runs a local shell command without input; returns its exit code. While one of the objects that note
/// an interruption lives, the first one sends it SIGTERM, the second SIGKILL. Use it from one thread.
int RunCommand(const std::string& command);

/// While this object lives, an interruption sets a flag and ends the running command, but not the
/// program: the caller has something to undo first.
class NotedInterruption {
 public:
  NotedInterruption();
  NotedInterruption(const NotedInterruption&) = delete;
  NotedInterruption& operator=(const NotedInterruption&) = delete;
  ~NotedInterruption();

  bool Happened() const { return WasInterrupted(); }  ///< for any thread
};

}  // namespace console
