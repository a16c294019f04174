#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "pnl/file.h"

/// Starts processes; for the sources of this directory only.
///
/// Always uses posix_spawn(3): it is safe in programs with threads, and cheap in those with much
/// memory.
namespace pnl_spawn {

/// Moves `fd` above the standard descriptors 0 to 2. A process that was started without these gets
/// them as its next new descriptors, and a child's standard streams would overwrite them. Empty,
/// with errno set, when no descriptor is free.
[[nodiscard]] pnl_file::Fd AboveStd(pnl_file::Fd fd);

/// The settings that one child starts with. It gets an empty signal mask, the defaults of SIGPIPE
/// and SIGCHLD, and only the descriptors that Give passes to it. (With SIGCHLD ignored, a shell
/// would lose the exit codes of its commands.)
class Child {
 public:
  Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// `fd`, which must be above 2, becomes the child's descriptor `as`. Call it in rising order of
  /// `as`.
  void Give(int fd, int as);
  void GiveNull();                        ///< /dev/null becomes the child's standard input
  void EnterDir(const std::string& dir);  ///< "" means the caller's
  /// Sets "NAME=value" in the child's environment; replaces the caller's value of that name.
  void Set(const std::string& variable) { variables_.push_back(variable); }
  void OwnGroup();
  /// Also gives it a process group of its own. Without a terminal, an ssh(1) in it could still open
  /// a window to ask for a password: the child's environment forbids that.
  void OwnSession();

  /// Starts `program` with `args`; the first of them is argv[0]. Stores the child's pid in `pid`.
  /// Returns 0 or the error number.
  [[nodiscard]] int Start(const char* program, const std::vector<std::string>& args, pid_t& pid);

 private:
  void Note(int error);
  std::vector<char*> Environment() const;

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  short flags_;
  std::vector<std::string> variables_;
  int highest_ = 2;  ///< the highest descriptor that the child gets
  int error_ = 0;    ///< the first error; Start returns it
};

}  // namespace pnl_spawn
