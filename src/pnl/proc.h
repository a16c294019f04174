#pragma once

#include <cstddef>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/export.h"

/// Shell commands of the local host.
namespace pnl_proc {

/// How a command is run; flags may be combined.
enum Flags : int {
  kMergeStderr = 1,  ///< standard error joins standard output instead of going to the log
  /// A session of its own, without controlling terminal: nothing in it can prompt (ssh, sudo).
  kOwnSession = 2,
  /// No standard input but /dev/null; In() is closed from the start.
  kNoInput = 4,
};

/// The most output of a command that is kept until the caller reads it; bytes.
inline constexpr std::size_t kMaxOutput = std::size_t{256} << 20;
/// The same while the caller waits in Result; it may never read that output. Bytes.
inline constexpr std::size_t kMaxUnasked = std::size_t{16} << 20;

inline constexpr const char* kError = "proc";  ///< the type of all errors

/// One run of `/bin/sh -c command`, started by the constructor.
///
///     if (pnl_proc::Execute cmd("tar xzf " + pnl_proc::Escape(archive)); cmd.Result() != 0) ...
///
/// The child has default SIGPIPE, an empty signal mask, and none of our descriptors except its
/// three standard ones. Standard input, output and error are moved together, so that no amount of
/// data in one direction blocks another. While the caller writes, output is kept. Standard error
/// goes to the log line by line (module "proc", level 4). When the child does not read its input,
/// the caller gets no SIGPIPE, and no signal handler is changed.
///
/// Output that nobody has read is kept in memory while the caller writes (up to kMaxOutput) or
/// waits for the end (up to kMaxUnasked). Above that limit all of it is dropped, and Str and Out()
/// throw "output". A caller that reads Out() gets the output block by block, and the child waits
/// for the reader. Only the first mebibyte of standard error goes to the log.
///
/// Not copyable; use it from one thread at a time. Throws pnl_err::Error of type kError with the
/// command as value. The object is "start" (it could not be started; parameters errno and errmsg),
/// "timeout" (see SetTimeout), "output" (more than could be kept), or "wait" (other code of this
/// process took the exit code, or SIGCHLD is ignored).
class PNL_API Execute {
 public:
  /// `flags` is a sum of Flags. `dir` is the child's working directory; "" means the caller's.
  explicit Execute(const std::string& command, int flags = 0, const std::string& dir = "");
  /// Also sets `variables` ("NAME=value" each) in the child's environment.
  Execute(const std::string& command, int flags, const std::string& dir,
          const std::vector<std::string>& variables);
  Execute(const Execute&) = delete;
  Execute& operator=(const Execute&) = delete;
  /// Closes the child's streams. When the child does not end at once, its whole process group gets
  /// SIGTERM, and SIGKILL after 5 s. Waits for the child's end.
  ~Execute();

  /// A buffered stream into the child's standard input. It goes bad when the child has closed its
  /// input, when the child has ended and no process that it started still reads, or when the time
  /// is up. CloseIn, Str, Said and Result close it.
  std::ostream& In();
  void CloseIn();  ///< flushes and closes; may be called again

  /// A stream from the child's standard output; end of file when the child has closed it. Reading
  /// first sends the data that is buffered in In().
  std::istream& Out();
  /// Closes the input, reads standard output to its end, waits for the child's end, and returns the
  /// output that was not yet read from Out(). As with a shell's $(...), the output ends when every
  /// process that inherited it has closed it: a daemon in the background must redirect its output.
  /// More than `limit` bytes are the error "output", and the child's streams are closed.
  std::string Str(std::size_t limit);
  std::string Str();  ///< with the limit kMaxOutput

  /// Closes the input, waits for the child's end, and returns the exit code; 128 + n for death by
  /// signal n. Output is kept for Str and Said. Does not wait for processes in the background;
  /// input that nobody has read by then is dropped. May be called again.
  int Result();
  /// Waits as Result does, and returns the unread standard output up to that moment. For a command
  /// that may start daemons: they keep its output open.
  std::string Said();

  /// The end of the child's standard error so far, at most 4 KiB, in whole lines where possible. It
  /// may contain passwords. Complete after Str and Result; "" when there was none, or with
  /// kMergeStderr. Throws no error of its own.
  std::string Complaint() const;

  /// The whole command must end within `seconds` of this call (monotonic clock; 0: no limit). When
  /// it does not, the function that is waiting ends the child's process group (SIGTERM, after 2 s
  /// SIGKILL) and throws "timeout". Every later call throws it too.
  void SetTimeout(int seconds);

  int Pid() const noexcept;

 private:
  class PNL_LOCAL Impl;
  std::unique_ptr<Impl> impl_;
};

/// `word` quoted as one word for /bin/sh, whatever bytes it has; a NUL throws
/// pnl_err::Error(kError, "escape"). A word of letters, digits and "@%+=:,./-_" stays as it is; ""
/// becomes ''.
[[nodiscard]] PNL_API std::string Escape(std::string_view word);
/// `text` in single quotes, for POSIX shells and zsh.
[[nodiscard]] PNL_API std::string Quoted(std::string_view text);

/// Sleeps on the monotonic clock, for the whole time even when signals arrive.
PNL_API void Sleep(int milliseconds);

}  // namespace pnl_proc
