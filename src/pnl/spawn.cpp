#include "pnl/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace pnl_spawn {

pnl_file::Fd AboveStd(pnl_file::Fd fd) {
  if (!fd || fd.Get() > STDERR_FILENO) return fd;
  return pnl_file::Fd(fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

Child::Child() : flags_(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK) {
  Note(posix_spawn_file_actions_init(&actions_));
  Note(posix_spawnattr_init(&attributes_));
  sigset_t signals;
  sigemptyset(&signals);
  Note(posix_spawnattr_setsigmask(&attributes_, &signals));
  sigaddset(&signals, SIGPIPE);
  sigaddset(&signals, SIGCHLD);
  Note(posix_spawnattr_setsigdefault(&attributes_, &signals));
}

Child::~Child() {
  posix_spawn_file_actions_destroy(&actions_);
  posix_spawnattr_destroy(&attributes_);
}

void Child::Give(int fd, int as) {
  Note(posix_spawn_file_actions_adddup2(&actions_, fd, as));
  highest_ = std::max(highest_, as);
}

void Child::GiveNull() {
  Note(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
}

void Child::EnterDir(const std::string& dir) {
  if (dir.empty()) return;
  if (dir.find('\0') != std::string::npos) Note(EINVAL);
  Note(posix_spawn_file_actions_addchdir_np(&actions_, dir.c_str()));
}

void Child::OwnGroup() {
  flags_ |= POSIX_SPAWN_SETPGROUP;
}

void Child::OwnSession() {
  flags_ |= POSIX_SPAWN_SETSID;
  Set("SSH_ASKPASS_REQUIRE=never");  // see ssh(1)
}

int Child::Start(const char* program, const std::vector<std::string>& args, pid_t& pid) {
  // Our descriptors are close-on-exec; this closes those of other libraries in the process.
  Note(posix_spawn_file_actions_addclosefrom_np(&actions_, highest_ + 1));
  Note(posix_spawnattr_setflags(&attributes_, flags_));
  if (error_ != 0) return error_;
  std::vector<char*> argv;
  for (const std::string& arg : args) {
    // A NUL would cut the argument short and so change what it says.
    if (arg.find('\0') != std::string::npos) return EINVAL;
    argv.push_back(const_cast<char*>(arg.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<char*> environment = Environment();
  return posix_spawn(&pid, program, &actions_, &attributes_, argv.data(), environment.data());
}

std::vector<char*> Child::Environment() const {
  std::vector<char*> variables;
  // When a variable occurs twice, some programs use the last one, others the first.
  const auto is_set = [this](std::string_view variable) {
    const std::string_view name = variable.substr(0, variable.find('=') + 1);
    return std::any_of(variables_.begin(), variables_.end(),
                       [&](const std::string& own) { return own.starts_with(name); });
  };
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!is_set(*variable)) variables.push_back(*variable);
  }
  for (const std::string& own : variables_) variables.push_back(const_cast<char*>(own.c_str()));
  variables.push_back(nullptr);
  return variables;
}

void Child::Note(int error) {
  if (error_ == 0) error_ = error;
}

}  // namespace pnl_spawn
