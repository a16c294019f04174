#include "pnl/ssh_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "pnl/deadline.h"
#include "pnl/proc.h"
#include "pnl/spawn.h"
#include "pnl/str.h"
#include "pnl/test.h"

namespace pnl_rpc {
namespace {

using namespace std::chrono_literals;

constexpr int kOwnEnd = 100;              // milliseconds for ssh(1) to end after its socket
constexpr int kTermGrace = 1000;          // and after SIGTERM
constexpr int kLastWords = 300;           // and to say why it ends
constexpr std::size_t kMaxErrors = 4096;  // bytes that are read of its errors

/// ssh_config(5) expands "%" in paths.
std::string Unexpanded(const std::string& path) {
  return str::Replace(path, "%", "%%");
}

/// A path as one word of ssh_config(5).
std::string ConfigWord(const std::string& path) {
  return "\"" + str::Replace(Unexpanded(path), "\"", "\\\"") + "\"";
}

std::string Address(const std::string& host, int port) {
  return (test::Ip6(host) ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

/// The options of one ssh(1) in the chain.
std::vector<std::string> Words(const SshJump& jump, const SshOptions& options) {
  std::vector<std::string> words = {"ssh", "-F", "/dev/null"};
  const auto set = [&](const std::string& option) { words.insert(words.end(), {"-o", option}); };
  set("BatchMode=yes");
  set("ControlPath=none");
  set("ConnectTimeout=" + std::to_string(std::max(options.connect_timeout, 1)));
  set("ServerAliveInterval=15");
  set("UpdateHostKeys=no");
  set("GlobalKnownHostsFile=/dev/null");
  if (!jump.known_hosts.empty()) set("UserKnownHostsFile=" + ConfigWord(jump.known_hosts));
  const bool accepts = options.host_keys == HostKeys::kAcceptNew;
  set(std::string("StrictHostKeyChecking=") + (accepts ? "accept-new" : "yes"));
  if (!jump.key_file.empty()) {
    set("IdentitiesOnly=yes");
    words.insert(words.end(), {"-i", Unexpanded(jump.key_file)});
  }
  words.insert(words.end(), {"-l", jump.user, "-p", std::to_string(jump.port)});
  return words;
}

std::string CommandOf(const std::vector<std::string>& words) {
  std::string command;
  for (const std::string& word : words) command = str::Append(command, pnl_proc::Escape(word), " ");
  return command;
}

std::string WayOf(const SshOptions& options) {
  std::string names;
  for (const SshJump& jump : options.jumps)
    names = str::Append(names, jump.name.empty() ? jump.host : jump.name, ", ");
  return (options.jumps.size() == 1 ? "through the jump host " : "through the jump hosts ") +
         names + ": ";
}

/// The command that connects to the node.
std::string RelayCommand(const SshOptions& options) {
  std::string way;
  for (std::size_t i = 0; i < options.jumps.size(); ++i) {
    const SshJump& jump = options.jumps[i];
    std::vector<std::string> words = Words(jump, options);
    if (!way.empty()) words.insert(words.end(), {"-o", "ProxyCommand=" + Unexpanded(way)});
    const bool last = i + 1 == options.jumps.size();
    const std::string next = last ? Address(options.host, options.port)
                                  : Address(options.jumps[i + 1].host, options.jumps[i + 1].port);
    words.insert(words.end(), {"-W", next, "--", jump.host});
    way = CommandOf(words);
  }
  return way;
}

constexpr int kLife = 3;

/// Runs the command, and ends its process group when the pipe kLife closes: this process has died. The
/// command alone would not notice that while the node is silent.
std::string Guarded(const std::string& command) {
  return "exec 4<&0 5>&1; " + command + " <&4 >&5 3<&- 4<&- 5>&- & s=$!; exec <&- >&- 4<&- 5>&-; " +
         "(exec 2>&-; read -r x <&3; kill 0) & exec 3<&-; wait $s";
}

/// What the ssh(1) in front of the failed one prints: it has only lost its connection. A server with
/// too many logins at once (MaxStartups) causes such lines alone.
bool IsConsequence(const std::string& line) {
  return line == "stdio forwarding failed" || line.starts_with("Connection closed by ") ||
         line.starts_with("Connection reset by ") || line.starts_with("Connection to UNKNOWN ") ||
         line.find("_exchange_identification: ") != std::string::npos;
}

/// The last two lines that say why, as one.
std::string LastLines(std::string_view text) {
  std::string before, last;
  while (!text.empty()) {
    std::string line = str::Trim(str::NextWord(text, '\n'));
    if (line.empty() || IsConsequence(line)) continue;
    before = std::move(last);
    last = std::move(line);
  }
  return str::Append(before, last, "; ");
}

}  // namespace

Relay::Relay(const SshOptions& options) : way_(WayOf(options)) {
  const auto failed = [&](int error) {
    return pnl_err::Error(kSshConnect, options.name.empty() ? options.host : options.name)
        .add_param("reason",
                   "ssh(1) for the jump host cannot be started: " + pnl_err::Message(error));
  };
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) throw failed(errno);
  socket_ = pnl_file::Fd(pair[0]);
  const pnl_file::Fd theirs = pnl_spawn::AboveStd(pnl_file::Fd(pair[1]));
  int errors[2];
  if (!theirs || pipe2(errors, O_CLOEXEC) != 0) throw failed(errno);
  errors_ = pnl_file::Fd(errors[0]);
  const pnl_file::Fd their_errors = pnl_spawn::AboveStd(pnl_file::Fd(errors[1]));
  int life[2];
  if (!their_errors || pipe2(life, O_CLOEXEC) != 0) throw failed(errno);
  life_ = pnl_file::Fd(life[1]);
  const pnl_file::Fd their_life = pnl_spawn::AboveStd(pnl_file::Fd(life[0]));
  if (!their_life) throw failed(errno);
  fcntl(socket_.Get(), F_SETFL, O_NONBLOCK);
  pnl_spawn::Child child;
  child.OwnSession();          // a group for all ssh(1) of the chain, and no terminal to prompt on
  child.Set("SHELL=/bin/sh");  // which starts a ProxyCommand
  child.Give(theirs.Get(), STDIN_FILENO);
  child.Give(theirs.Get(), STDOUT_FILENO);
  child.Give(their_errors.Get(), STDERR_FILENO);
  child.Give(their_life.Get(), kLife);
  if (const int error = child.Start("/bin/sh", {"sh", "-c", Guarded(RelayCommand(options))}, pid_);
      error != 0)
    throw failed(error);
}

Relay::~Relay() {
  if (pid_ < 0) return;
  socket_ = pnl_file::Fd();
  // All ssh(1) of the chain hold the pipe.
  ReadErrors(kOwnEnd);
  if (errors_) kill(-pid_, SIGTERM);
  if (errors_) ReadErrors(kTermGrace);
  kill(-pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// Reads until all processes have ended, at most for that time. At the end `errors_` is empty.
void Relay::ReadErrors(int milliseconds) {
  const pnl_time::Deadline deadline{std::chrono::milliseconds(milliseconds)};
  while (errors_ && !deadline.Passed()) {
    pollfd ready{errors_.Get(), POLLIN, 0};
    const int count = poll(&ready, 1, deadline.Left());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    char block[kMaxErrors];
    const ssize_t size = read(errors_.Get(), block, sizeof block);
    if (size <= 0) errors_ = pnl_file::Fd();
    if (size > 0) complaint_.append(block, static_cast<std::size_t>(size));
    // The end counts: there the reason is.
    if (complaint_.size() > kMaxErrors) complaint_.erase(0, complaint_.size() - kMaxErrors);
  }
}

std::string Relay::Reason(const std::string& reason) {
  ReadErrors(kLastWords);
  // If ssh(1) goes on, it has not failed; it may have printed a banner.
  const std::string told = errors_ ? "" : LastLines(complaint_);
  return way_ + (told.empty() ? reason : told);
}

pnl_err::Error Relay::Explained(const pnl_err::Error& error) {
  const std::string reason = Reason(error.param("reason"));
  const auto has = [&](std::string_view words) {
    return complaint_.find(words) != std::string::npos;
  };
  std::string_view type = error.type();
  if (has("Host key verification failed")) type = kSshHostKey;
  if (has("Permission denied (")) type = kSshAuth;
  pnl_err::Error explained(type, error.object(), error.value());
  explained.add_param("reason", reason);
  if (LastLines(complaint_).empty() && !error.param(kHungUp).empty())
    explained.add_param(kHungUp, "1");
  return explained;
}

}  // namespace pnl_rpc
