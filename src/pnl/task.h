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
/// A task is named by its kind and its name; both are encoded into file names that stay in the
/// directory whatever bytes they hold. The files of one task: `ID.task` (what was started),
/// `ID.log` (its standard output and error), `ID.exit` (its exit code, present once it ended),
/// `ID.progress`, `ID.lock` (locked while it runs). Starting a task again replaces the state of its
/// last run. Parameters and output may be secret: state and log are for their owner only.
namespace pnl_task {

enum class State { kRunning, kFinished, kLost };
/// "running", "finished", or "lost": ended without leaving an exit code (its whole group was
/// killed, or the host went down).
PNL_API std::string ToStr(State state);

/// All that is known of a task.
struct Status {
  std::string id;    ///< the encoded kind and name: what the programs call the task
  std::string kind;  ///< "OST_INSTALL"
  std::string name;  ///< a template key
  std::string program;
  std::vector<std::string> params;
  pnl_date::DateTime started;
  /// Of the task's own session and process group: while it runs, kill(-pid, ...) ends it. 0 when
  /// that could not be noted.
  int pid = 0;
  State state = State::kLost;
  std::optional<int> exit_code;  ///< when finished; 128 + n for death by signal n
  std::string progress_what;     ///< what the task reports about itself; "" when nothing
  std::uint64_t progress_done = 0;
  std::uint64_t progress_total = 0;
};

inline constexpr int kDetached = 3;  ///< mode: own session, closed descriptors, output to its log

/// A program to be started as a task. For one thread.
class PNL_API LongTask {
 public:
  /// `program` is a path, absolute or relative to the working directory.
  LongTask(std::string program, std::string name, std::string kind);
  void SetParams(std::vector<std::string> params);
  /// Starts the program detached and returns at once. `mode` must be kDetached:
  /// pnl_err::Error("task", "mode", ...). Throws pnl_err::Error("task", "running", id) while the
  /// task runs already, ("task", "start", program) when the program is missing or cannot be
  /// started, or type "file" when its state cannot be written; a task that did not start leaves no
  /// state behind.
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

/// All tasks, by id. An unreadable state file is logged (module "task", level 4) and left out.
[[nodiscard]] PNL_API std::vector<Status> List();
/// One task; pnl_err::Missed("task", id) when there is none.
[[nodiscard]] PNL_API Status Get(const std::string& id);
/// The path of a task's log; pnl_err::Missed("task", id).
[[nodiscard]] PNL_API std::string LogPath(const std::string& id);

/// Called by the running task itself: publishes its progress for Get and List. Outside a task it
/// does nothing. Never throws: progress is not worth a failed task.
PNL_API void ReportProgress(std::string_view what, std::uint64_t done,
                            std::uint64_t total) noexcept;

}  // namespace pnl_task
