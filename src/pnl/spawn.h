#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "pnl/file.h"

/// How processes are started here; for the sources of this directory only.
///
/// posix_spawn(3) and nothing else: it is safe in programs with threads, and cheap for those with
/// much memory.
namespace pnl_spawn {

/// `fd` moved above the standard descriptors, where a process that was started without them gets
/// its new ones: down there a child's own standard streams would overwrite it. Empty, with errno
/// set, when there is no descriptor left.
[[nodiscard]] pnl_file::Fd AboveStd(pnl_file::Fd fd);

/// What one child starts with. It gets an empty signal mask, SIGPIPE and SIGCHLD at their defaults
/// (an ignored SIGCHLD would take from a shell the exit codes of its commands), and of the
/// descriptors only those that were given to it.
class Child {
 public:
  Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// `fd`, which is above the standard ones, becomes the child's `as`; in rising order of `as`.
  void Give(int fd, int as);
  void GiveNull();                        ///< /dev/null becomes the child's standard input
  void EnterDir(const std::string& dir);  ///< "" for the caller's
  /// "NAME=value" in its environment, in the place of what the caller has of that name.
  void Set(const std::string& variable) { variables_.push_back(variable); }
  void OwnGroup();
  /// Which is a group of its own, too. Without a terminal an ssh(1) in it could still ask for a
  /// password in a window: the child's environment tells it not to.
  void OwnSession();

  /// Starts `program` with `args`, the first being the name as which it is run. The child's pid
  /// goes to `pid`; the result is 0 or the error number.
  [[nodiscard]] int Start(const char* program, const std::vector<std::string>& args, pid_t& pid);

 private:
  void Note(int error);
  std::vector<char*> Environment() const;

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  short flags_;
  std::vector<std::string> variables_;
  int highest_ = 2;  ///< descriptor that the child keeps
  int error_ = 0;    ///< the first one; told by Start
};

}  // namespace pnl_spawn
