#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/date.h"
#include "pnl/export.h"

/// Long-running programs that outlive their caller, with their state in `var/tasks/`.
///
/// A task has a kind and a name. Both are encoded in its id, which is always a plain file name,
/// whatever bytes they have. The files of a task are `ID.task` (its program and parameters),
/// `ID.log` (its standard output and error), `ID.exit` (its exit code, once it has ended),
/// `ID.progress`, and `ID.lock` (locked while it runs). Starting a task again replaces the files of
/// its last run. Parameters and output may be secret: only the owner can read the files.
namespace pnl_task {

enum class State { kRunning, kFinished, kLost };
/// "running", "finished" or "lost". A lost task has ended without an exit code: its whole process
/// group was killed, or the host went down.
PNL_API std::string ToStr(State state);

/// All that is known of a task.
struct Status {
  std::string id;    ///< the encoded kind and name; identifies the task
  std::string kind;  ///< "OST_INSTALL"
  std::string name;  ///< a template key
  std::string program;
  std::vector<std::string> params;
  pnl_date::DateTime started;
  /// The pid of the task's own session and process group: kill(-pid, ...) ends a running task. 0
  /// when the pid could not be stored.
  int pid = 0;
  State state = State::kLost;
  std::optional<int> exit_code;  ///< when finished; 128 + n for death by signal n
  std::string progress_what;     ///< what the task reported last; "" for nothing
  std::uint64_t progress_done = 0;
  std::uint64_t progress_total = 0;
};

inline constexpr int kDetached = 3;  ///< mode: own session, closed descriptors, output to its log

/// A program to be started as a task. Use it from one thread.
class PNL_API LongTask {
 public:
  /// `program` is a path, absolute or relative to the working directory.
  LongTask(std::string program, std::string name, std::string kind);
  void SetParams(std::vector<std::string> params);
  /// Starts the program detached and returns at once. Throws pnl_err::Error("task", "mode", ...)
  /// when `mode` is not kDetached, ("task", "running", id) while the task is already running,
  /// ("task", "start", program) when the program is missing or cannot be started, and type "file"
  /// when the state cannot be written. A task that did not start leaves no files.
  void Start(int mode);
  const std::string& Id() const { return id_; }
  std::string Command() const;  ///< program and parameters, as a shell takes them

 private:
  std::string program_;
  std::string name_;
  std::string kind_;
  std::string id_;
  std::vector<std::string> params_;
};

/// All tasks in the order of their ids. A task with an unreadable state file is logged (module
/// "task", level 4) and left out. Thread-safe, as are the functions below.
[[nodiscard]] PNL_API std::vector<Status> List();
/// One task; pnl_err::Missed("task", id) when there is none.
[[nodiscard]] PNL_API Status Get(const std::string& id);
/// The path of a task's log; pnl_err::Missed("task", id).
[[nodiscard]] PNL_API std::string LogPath(const std::string& id);

/// The running task calls this to publish its progress for Get and List. Does nothing outside of a
/// task. Never throws: a failure to report progress must not end the task.
PNL_API void ReportProgress(std::string_view what, std::uint64_t done,
                            std::uint64_t total) noexcept;

}  // namespace pnl_task
