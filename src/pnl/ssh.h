#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/err.h"
#include "pnl/export.h"
#include "pnl/proc.h"
#include "pnl/thread.h"

/// SSH sessions to managed nodes.
namespace pnl_rpc {

/// Whether to accept a node whose host key is not in known_hosts.
enum class HostKeys {
  kStrict,     ///< only known keys
  kAcceptNew,  ///< an unknown host's key is added to known_hosts; a changed one is refused
};

/// A host on the way to a node: its SSH server passes the connection on (ssh(1), -J).
struct SshJump {
  std::string host;
  std::string name = {};  ///< for errors; "": the host
  int port = 22;
  std::string user = "root";
  std::string key_file = {};     ///< "": the agent, then ~/.ssh/id_*
  std::string known_hosts = {};  ///< "": ~/.ssh/known_hosts
};

/// Where and how to log in. Numbers are seconds.
struct SshOptions {
  std::string host;       ///< name, IPv4 or IPv6 address (without brackets)
  std::string name = {};  ///< for errors and the log; "": the host
  int port = 22;          ///< 1 to 65535, else "ssh_connect"
  std::string user = "root";
  /// A private key. If it has a pass phrase, or if this is the file of a public key, the SSH agent
  /// ($SSH_AUTH_SOCK) must have the key. "": the keys of the agent, then ~/.ssh/id_*.
  std::string key_file;
  /// "": ~/.ssh/known_hosts. The format is that of sshd(8), with patterns, negated patterns, hashed
  /// names, ports and the marker \@revoked. Lines of certificate authorities are ignored.
  std::string known_hosts;
  HostKeys host_keys = HostKeys::kStrict;
  /// Covers the name lookup, connecting, key exchange and login together.
  int connect_timeout = 30;
  /// At this time the session is closed, whatever it does. Calls then throw "ssh_stopped".
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  /// The same happens when this event is raised; null: never.
  std::shared_ptr<const pnl_thread::Event> stop = {};

  /// The hosts on the way, in order; empty: none. ssh(1) connects through them, with the same
  /// `host_keys` and `connect_timeout`; it ends with the session. The last of them looks up the name
  /// of the node.
  std::vector<SshJump> jumps = {};

  /// Runs each command by sudo(8) as root, in /bin/sh and with the HOME of root.
  bool sudo = false;
  /// Called when sudo asks for the password of `user`; returns it. Called by the thread that uses
  /// the session, for each command; what it throws, Execute throws on. Null: such a command is
  /// "ssh_sudo". The password is sent to the standard input of sudo only.
  std::function<std::string()> sudo_password = {};
};

/// The most output of a command that is kept until the caller reads it; bytes. A node must not fill
/// this host's memory.
inline constexpr std::size_t kMaxOutput = pnl_proc::kMaxOutput;
/// The same while the caller waits in Result; it may never read that output. Bytes.
inline constexpr std::size_t kMaxUnasked = pnl_proc::kMaxUnasked;

// --- Types of errors

/// No connection: unreachable, refused, time-out, bad banner, key exchange.
inline constexpr const char* kSshConnect = "ssh_connect";
/// A parameter of that error. It is not empty if the server closed the connection before its banner,
/// as sshd does with too many logins at once (MaxStartups, sshd_config(5)).
inline constexpr const char* kHungUp = "hung_up";
/// The host key is unknown, changed or revoked, or known_hosts cannot be read or added to.
inline constexpr const char* kSshHostKey = "ssh_hostkey";
/// The login is refused, or the key file cannot be used.
inline constexpr const char* kSshAuth = "ssh_auth";
/// The node refuses to run a command, no command was started, or the output is too long.
inline constexpr const char* kSshExec = "ssh_exec";
/// No sign of life within the time-out; the connection is closed.
inline constexpr const char* kSshTimeout = "ssh_timeout";
/// The connection is lost, or was closed by an earlier time-out, or the node ended the command
/// without an exit code.
inline constexpr const char* kSshClosed = "ssh_closed";
/// The caller's deadline has passed, or its stop event was raised. The connection is closed.
inline constexpr const char* kSshStopped = "ssh_stopped";
/// sudo refuses to run the command, or asks for a password that nobody gives.
inline constexpr const char* kSshSudo = "ssh_sudo";
/// Whether the error has one of these types: the session failed, not the work in it.
[[nodiscard]] PNL_API bool SessionFailed(const pnl_err::Error& error);

/// Called with the pieces of a command's output as they come, by the thread that uses the session;
/// an empty function is not called. What a function throws, the call that waits throws on.
struct Sinks {
  std::function<void(std::string_view)> output = {};  ///< instead of Str and Out
  std::function<void(std::string_view)> errors = {};  ///< standard error, which is also logged
};

/// A session to a node. A small value; its copies share one connection.
///
///     pnl_rpc::SSH ssh({.host = "10.99.0.2", .key_file = key});
///     if (ssh.Execute("uname -m").Result() != 0) ...
///     const std::string text = ssh.Execute("cat /etc/hostname").Str();
///
/// Execute starts a command and returns a copy of the session that belongs to the command. Str,
/// Result, In, Out and CloseIn of that copy (and of its copies) work on that command. A connection
/// runs one command at a time: the next Execute first waits for the end of the command before it,
/// as Result does. The destructor of the last copy that belongs to a command waits in the same way.
/// An object without a command works on the command that runs over its connection. After that
/// command has ended and its last copy is destroyed, Result, Str, Said and Complaint of such an
/// object still return its results.
///
/// Standard input, output and error are moved together, block by block. Output that arrives while
/// the caller writes (up to kMaxOutput) or waits in Result (up to kMaxUnasked) is kept for Str and
/// Out. Above that limit all of it is dropped, and Str and Out throw "ssh_exec" and abandon the
/// command. The first mebibyte of the node's standard error goes to the log line by line (module
/// "ssh", level 4).
///
/// A lost connection, or a node that gives no sign of life, is always an exception, never an empty
/// answer: pnl_err::Error of the types above, object the host, value the command, with a parameter
/// "reason". Destructors never throw: their failures are logged.
///
/// Use one connection from one thread at a time. Different connections may be used by different
/// threads.
class PNL_API SSH {
 public:
  /// Connects and logs in. Reads no ssh configuration file and never prompts.
  explicit SSH(const SshOptions& options);
  SSH(const SSH&);
  SSH(SSH&&) noexcept;
  SSH& operator=(const SSH&);
  SSH& operator=(SSH&&) noexcept;
  ~SSH();

  /// Starts one shell command line.
  SSH Execute(const std::string& command);
  /// The same, with functions that are called with each piece of output.
  SSH Execute(const std::string& command, Sinks sinks);

  /// Closes the input, waits for the end of the shell, and returns the exit code; 128 + n for death
  /// by signal n. Does not wait for processes in the background; input that nobody has read by then
  /// is dropped. May be called again.
  int Result();
  /// Closes the input, reads standard output to its end, waits for the end of the shell, and
  /// returns the unread output. As with a shell's $(...), the output ends when every process that
  /// inherited it has closed it. More than `limit` bytes are the error "ssh_exec", and the command
  /// is abandoned.
  std::string Str(std::size_t limit);
  std::string Str();  ///< with the limit kMaxOutput

  /// Waits as Result does, and returns the unread standard output up to that moment. For a command
  /// that may start daemons: they keep its output open.
  std::string Said();

  /// For a caller that needs no more output: closes the input, waits for the end, and returns the
  /// exit code. Returns nothing, and abandons the command, when more output comes or when the
  /// command does not end within twice the time-out.
  std::optional<int> Finish();
  /// Abandons the command: closes its streams at once, without waiting. On the node the command
  /// ends when it next uses its streams. Until then it takes one of the sessions that the node
  /// allows (MaxSessions, sshd_config(5)). Later calls for this command throw "ssh_closed".
  void Abandon() noexcept;

  /// The end of the command's standard error so far, at most 4 KiB, in whole lines where possible.
  /// It may contain passwords. Complete after Str, Result and Finish; "" when there was none, or
  /// when there is no command.
  std::string Complaint() const;

  /// A buffered stream into the command's standard input. It goes bad when the command has ended or
  /// the connection is lost; the next call of this object then throws. Reading from Out() first
  /// sends the buffered data.
  std::ostream& In();
  void CloseIn();  ///< flushes and closes; may be called again
  /// A stream from the command's standard output, to be read in blocks. A lost connection throws
  /// from the stream's functions.
  std::istream& Out();

  /// Ends a command after `seconds` (default 60) without any sign of life from the node. A sign of
  /// life is data, or an answer to a keep-alive request; such requests are sent while no data
  /// comes. A long silent command on a live connection is not ended. Applies to the whole
  /// connection from now on.
  void SetTimeout(int seconds);

  /// From now on, the connection is closed at `deadline` instead of SshOptions::deadline, and no
  /// longer when the stop event is raised: for work that must not be ended in its middle.
  void Outlive(std::chrono::steady_clock::time_point deadline);

  const std::string& Host() const;  ///< the name that errors use

 private:
  class PNL_LOCAL Connection;
  class PNL_LOCAL Command;
  SSH(std::shared_ptr<Connection> connection, std::shared_ptr<Command> command);
  std::shared_ptr<Command> Latest() const;
  std::shared_ptr<Command> Running() const;
  void ThrowIfNoneEnded() const;
  std::string LastOutput(std::size_t limit);

  std::shared_ptr<Connection> connection_;
  std::shared_ptr<Command> command_;  // null: no command
};

/// The host key of an SSH server.
struct HostKey {
  std::string type = {};         ///< "ssh-ed25519"
  std::string fingerprint = {};  ///< "SHA256:...", as ssh-keygen(1) prints it
  std::string known_hosts = {};  ///< path of the file in which it was looked up
  std::string line = {};         ///< the line to add to that file
  enum class State {
    kKnown,
    kUnknown,  ///< the file has no line for the host
    kChanged,  ///< the file has only other keys for the host
    kRevoked,  ///< a line revokes the key
  };
  State state = State::kUnknown;
};

/// Connects, exchanges keys and disconnects, without a login. Throws "ssh_connect", "ssh_stopped",
/// and "ssh_hostkey" if known_hosts cannot be read.
[[nodiscard]] PNL_API HostKey FetchHostKey(const SshOptions& options);
/// Adds the key to the file `key.known_hosts`, which is made if it is missing. Throws "file".
PNL_API void NoteHostKey(const HostKey& key);

}  // namespace pnl_rpc
