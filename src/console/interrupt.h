#pragma once

#include <string>

/// What an interruption (SIGINT, SIGTERM, SIGHUP) does to work that must not stay half done. One of
/// these objects lives at a time, on the main thread.
namespace console {

/// While it lives, an interruption removes the file `path` before it ends the program.
class RemovedWhenInterrupted {
 public:
  explicit RemovedWhenInterrupted(const std::string& path);
  RemovedWhenInterrupted(const RemovedWhenInterrupted&) = delete;
  RemovedWhenInterrupted& operator=(const RemovedWhenInterrupted&) = delete;
  ~RemovedWhenInterrupted();
};

/// Whether the work of the last NotedInterruption was interrupted. For any thread.
[[nodiscard]] bool WasInterrupted();

/// While it lives, an interruption is only noted, and ends the command that runs: the caller has
/// something to undo first.
class NotedInterruption {
 public:
  NotedInterruption();
  NotedInterruption(const NotedInterruption&) = delete;
  NotedInterruption& operator=(const NotedInterruption&) = delete;
  ~NotedInterruption();

  /// Runs a local shell command without input; its exit code. A first interruption asks it to end,
  /// a second one kills it.
  int Run(const std::string& command) const;
  bool Happened() const { return WasInterrupted(); }  ///< by any thread
};

}  // namespace console
