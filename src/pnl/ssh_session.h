#pragma once

#include <sys/types.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/ssh.h"

struct ssh_counter_struct;  // libssh's, which only sources may see
struct ssh_event_struct;
struct ssh_session_struct;

/// The connection below pnl_rpc::SSH; for the sources of this directory only.
namespace pnl_rpc {

using pnl_time::Deadline;

/// The socket that libssh works on. libssh closes it in some of its failures and leaves it open in
/// the others and when it disconnects: what is left is found by the inode, for the number may be
/// another thread's by now.
class Socket {
 public:
  explicit Socket(pnl_file::Fd fd);
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket();
  int Get() const { return fd_.Get(); }
  /// Makes it non-blocking again. libssh makes it blocking once it is connected; send(2) would then
  /// wait for as long as the node reads nothing.
  void Unblock() const;

 private:
  ino_t Inode() const;

  pnl_file::Fd fd_;
  ino_t inode_;
};

/// What errors call a node.
inline const std::string& NameOf(const SshOptions& options) {
  return options.name.empty() ? options.host : options.name;
}

/// A session that is logged in. libssh is used without blocking: what waits is this class, so that
/// one clock decides how long. `command` names in errors what was going on.
class Session {
 public:
  explicit Session(const SshOptions& options);
  /// The key of a host that is not logged in to.
  static HostKey KeyOf(const SshOptions& options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  ssh_session_struct* Get() const { return session_.get(); }
  const std::string& Host() const { return NameOf(options_); }
  void SetTimeout(int seconds);
  std::chrono::milliseconds Timeout() const { return timeout_; }

  /// Lets libssh send and receive until `done`; throws ssh_closed or ssh_timeout.
  template <class Done>
  void Await(const std::string& command, Done done) {
    BeginWait();
    while (!done()) Step(command);
  }
  void BeginWait();
  /// One event, or `limit` milliseconds without any.
  void Step(const std::string& command, int limit = INT_MAX);
  bool Lost() const;
  void ThrowIfLost(const std::string& command);
  bool Flushed() const;  ///< libssh has nothing left to send

  pnl_err::Error Failure(std::string_view type, std::string_view command,
                         std::string_view reason) const;
  std::string Reason() const;  ///< libssh's, of its last failure

 private:
  using Clock = std::chrono::steady_clock;
  struct Freer {
    void operator()(ssh_session_struct* session) const;
    void operator()(ssh_event_struct* event) const;
  };

  struct OnlyKeys {};
  Session(const SshOptions& options, OnlyKeys);  ///< connects and exchanges keys
  void SetOption(int option, const void* value);
  void SetOptions();
  template <class Call>
  int Repeat(Call call);
  void Connect();
  HostKey FetchKey() const;
  std::string KnownHosts() const;
  std::string ReadKnownHosts(const std::string& path) const;
  void CheckHostKey() const;
  void LogIn();
  void AskForLife();
  void Lose(std::string_view reason);

  const SshOptions options_;
  const Deadline login_;  // until then it has to be logged in
  Socket socket_;         // outlives the session, which may close it
  std::unique_ptr<ssh_counter_struct> received_;
  std::unique_ptr<ssh_session_struct, Freer> session_;
  std::unique_ptr<ssh_event_struct, Freer> event_;

  std::chrono::milliseconds timeout_;
  std::uint64_t seen_ = 0;   // how much was received at the last look
  Clock::time_point life_;   // the last sign of it, or the begin of the wait
  Clock::time_point asked_;  // when a sign was asked for last
  std::optional<std::string> lost_;
};

}  // namespace pnl_rpc
