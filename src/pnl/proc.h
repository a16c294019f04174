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

/// What is kept of a command's output that the caller has not read yet; bytes.
inline constexpr std::size_t kMaxOutput = std::size_t{256} << 20;
/// The same while the caller waits in Result, which nobody may ever ask for.
inline constexpr std::size_t kMaxUnasked = std::size_t{16} << 20;

inline constexpr const char* kError = "proc";  ///< the type of all errors

/// One run of `/bin/sh -c command`, started by the constructor.
///
///     if (pnl_proc::Execute cmd("tar xzf " + pnl_proc::Escape(archive)); cmd.Result() != 0) ...
///
/// The child has default SIGPIPE, an empty signal mask, and no descriptor of ours but its three
/// standard ones. Standard input, output and error are pumped together, so that no amount of data
/// in any direction blocks: while the caller writes, output is kept; while it reads, standard error
/// goes to the log line by line (module "proc", level 4). A child that does not read its input
/// costs nothing but its exit code: no SIGPIPE, no changed signal handler.
///
/// Output that nobody has read is kept in memory while the caller writes (kMaxOutput) or waits for
/// the end (kMaxUnasked); beyond, all of it is dropped, and Str and Out() throw "output". A caller
/// that reads Out() gets it block by block, and the child waits for the reader. Of standard error
/// the first mebibyte goes to the log.
///
/// Not copyable; one thread at a time uses it. Throws pnl_err::Error of type kError, value the
/// command: object "start" (it could not be started; parameters errno and errmsg), "timeout"
/// (SetTimeout), "output" (more of it than could be kept), or "wait" (this process took the exit
/// code elsewhere, or ignores SIGCHLD).
class PNL_API Execute {
 public:
  /// `dir` is the child's working directory; "" for the caller's.
  explicit Execute(const std::string& command, int flags = 0, const std::string& dir = "");
  /// With the variables "NAME=value" in the child's environment, in the place of the caller's.
  Execute(const std::string& command, int flags, const std::string& dir,
          const std::vector<std::string>& variables);
  Execute(const Execute&) = delete;
  Execute& operator=(const Execute&) = delete;
  /// Closes the child's streams; a child that does not end by itself at once gets SIGTERM with its
  /// whole process group, after 5 s SIGKILL, and is waited for.
  ~Execute();

  /// A stream into the child's standard input, buffered; its state goes bad when the child has
  /// closed its input, or has ended and nobody that it left behind reads on, or the time is up.
  /// Closed by CloseIn, Str, Said and Result.
  std::ostream& In();
  void CloseIn();  ///< flushes and closes; may be called again

  /// A stream over the child's standard output; end of file when the child has closed it. Reading
  /// sends what In() still holds.
  std::istream& Out();
  /// Closes the input and returns all standard output not yet read from Out(), to its end, and
  /// waits for the child's end. As with a shell's $(...), the end comes when every process that
  /// inherited the output has closed it: a daemon in the background must redirect it. More than
  /// `limit` bytes are "output"; the child's streams are closed then.
  std::string Str(std::size_t limit);
  std::string Str();  ///< of kMaxOutput

  /// Closes the input, drains output (for Str and Said) and error, waits for the child's end, not
  /// for that of processes it left in the background: input that nobody has taken by then is
  /// dropped. The exit code; 128 + n for death by signal n. May be called again.
  int Result();
  /// Waits as Result does, and returns the standard output not yet read that had come by then: for
  /// a command that may start daemons, which keep its output open.
  std::string Said();

  /// The child's own words of failure: the end of what it has said on standard error so far, at
  /// most 4 KiB, of whole lines where they fit, credentials in it included. Complete after Str and
  /// Result; "" when it said nothing, or with kMergeStderr. Throws nothing of its own.
  std::string Complaint() const;

  /// The whole command must end within `seconds` of this call (monotonic clock; 0: no limit). When
  /// it does not, the call under way ends the child's process group (SIGTERM, after 2 s SIGKILL)
  /// and throws "timeout", as every later call does.
  void SetTimeout(int seconds);

  int Pid() const noexcept;

 private:
  class PNL_LOCAL Impl;
  std::unique_ptr<Impl> impl_;
};

/// `word` as one word for /bin/sh, for every byte but NUL (which throws pnl_err::Error(kError,
/// "escape")). A word of letters, digits and "@%+=:,./-_" stays as it is, "" becomes ''.
[[nodiscard]] PNL_API std::string Escape(std::string_view word);
/// `text` in single quotes: POSIX shells and zsh take everything inside as it is.
[[nodiscard]] PNL_API std::string Quoted(std::string_view text);

/// Sleeps on the monotonic clock, for the whole time also when signals arrive.
PNL_API void Sleep(int milliseconds);

}  // namespace pnl_proc
