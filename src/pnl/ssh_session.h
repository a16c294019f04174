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
#include "pnl/ssh_relay.h"

struct ssh_counter_struct;  // libssh's, which only sources may see
struct ssh_event_struct;
struct ssh_key_struct;
struct ssh_session_struct;

/// The connection below pnl_rpc::SSH; for the sources of this directory only.
namespace pnl_rpc {

using pnl_time::Deadline;

/// The socket that libssh uses. After some failures libssh closes it; after others, and when it
/// disconnects, libssh leaves it open. The destructor closes it only when the inode is still the
/// same: another thread may have the descriptor's number by then.
class Socket {
 public:
  explicit Socket(pnl_file::Fd fd);
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket();
  int Get() const { return fd_.Get(); }
  /// Makes the socket non-blocking again. libssh makes it blocking once it is connected; send(2)
  /// would then wait as long as the node does not read.
  void Unblock() const;

 private:
  ino_t Inode() const;

  pnl_file::Fd fd_;
  ino_t inode_;
};

/// The node as errors name it.
inline const std::string& NameOf(const SshOptions& options) {
  return options.name.empty() ? options.host : options.name;
}

/// A session that is logged in. libssh is used without blocking; this class does all waiting, so
/// that one clock decides how long. `command` is the value of errors.
class Session {
 public:
  explicit Session(const SshOptions& options);
  /// The key of a host that is not logged in to.
  static HostKey KeyOf(const SshOptions& options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  ssh_session_struct* Get() const { return session_.get(); }
  const SshOptions& Options() const { return options_; }
  const std::string& Host() const { return NameOf(options_); }
  void SetTimeout(int seconds);
  void Outlive(std::chrono::steady_clock::time_point deadline);
  std::chrono::milliseconds Timeout() const { return timeout_; }

  /// Lets libssh send and receive until `done`; throws ssh_closed or ssh_timeout.
  template <class Done>
  void Await(const std::string& command, Done done) {
    BeginWait();
    while (!done()) Step(command);
  }
  void BeginWait();
  /// Waits for one event, at most `limit` milliseconds.
  void Step(const std::string& command, int limit = INT_MAX);
  bool Lost() const;
  void ThrowIfLost(const std::string& command);
  bool Flushed() const;  ///< libssh has nothing left to send

  pnl_err::Error Failure(std::string_view type, std::string_view command,
                         std::string_view reason) const;
  std::string Reason() const;  ///< libssh's reason for its last failure

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
  int LogInBy(ssh_key_struct* key, bool by_agent);
  void AskForLife();
  void ForgetStop();
  std::string ReasonOfLoss();
  void Lose(std::string_view reason);

  SshOptions options_;            // Outlive changes the deadline and the stop event
  const Deadline login_;          // for connecting and login
  std::unique_ptr<Relay> relay_;  // with jump hosts; ends after the socket is closed
  Socket socket_;                 // must outlive the session, which may close it
  std::unique_ptr<ssh_counter_struct> received_;
  std::unique_ptr<ssh_session_struct, Freer> session_;
  std::unique_ptr<ssh_event_struct, Freer> event_;

  std::chrono::milliseconds timeout_;
  std::uint64_t seen_ = 0;   // bytes received at the last check
  Clock::time_point life_;   // last sign of life, or begin of the wait
  Clock::time_point asked_;  // last keep-alive request
  std::optional<std::string> lost_;
};

}  // namespace pnl_rpc
