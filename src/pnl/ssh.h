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

#include "pnl/err.h"
#include "pnl/export.h"
#include "pnl/proc.h"
#include "pnl/thread.h"

/// SSH sessions to managed nodes.
namespace pnl_rpc {

/// Whether a node whose key is not in known_hosts is let through.
enum class HostKeys {
  kStrict,     ///< only known keys
  kAcceptNew,  ///< an unknown host's key is added to known_hosts; a changed one is refused
};

/// Where and how to log in. Numbers are seconds.
struct SshOptions {
  std::string host;       ///< name, IPv4 or IPv6 address (without brackets)
  std::string name = {};  ///< what errors and the log call the node; "": its host
  int port = 22;          ///< 1 to 65535, else "ssh_connect"
  std::string user = "root";
  std::string key_file;  ///< private key without a pass phrase; "": the agent, then ~/.ssh/id_*
  /// "": ~/.ssh/known_hosts. As sshd(8) has it, with patterns, negated ones, hashed names, ports
  /// and the mark \@revoked; certificate authorities are passed over.
  std::string known_hosts;
  HostKeys host_keys = HostKeys::kStrict;
  /// For the whole of finding the address, connecting, key exchange and login.
  int connect_timeout = 30;
  /// From then on the session is closed, whatever goes on: "ssh_stopped".
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  /// The same when this is raised; null: nobody does.
  std::shared_ptr<const pnl_thread::Event> stop = {};
};

/// What is kept of a command's output that the caller has not read yet; bytes. A node that says
/// more than anybody can want must not fill this host's memory.
inline constexpr std::size_t kMaxOutput = pnl_proc::kMaxOutput;
/// The same while the caller waits in Result, which nobody may ever ask for.
inline constexpr std::size_t kMaxUnasked = pnl_proc::kMaxUnasked;

// --- Types of errors

/// No connection: unreachable, refused, time-out, bad banner, key exchange.
inline constexpr const char* kSshConnect = "ssh_connect";
/// A parameter of it, not empty where the server has closed the connection without a word, as it
/// does with too many logins at once (MaxStartups, sshd_config(5)).
inline constexpr const char* kHungUp = "hung_up";
/// The host key is unknown, changed or revoked, or known_hosts cannot be read or added to.
inline constexpr const char* kSshHostKey = "ssh_hostkey";
/// The login is refused, or the key file cannot be used.
inline constexpr const char* kSshAuth = "ssh_auth";
/// The node refuses to run a command, or there is none; or it says too much.
inline constexpr const char* kSshExec = "ssh_exec";
/// No sign of life within the time-out; the connection is closed.
inline constexpr const char* kSshTimeout = "ssh_timeout";
/// The connection is lost, or was closed by an earlier time-out, or the node ended the command
/// without an exit code.
inline constexpr const char* kSshClosed = "ssh_closed";
/// The caller's deadline has passed, or its stop event is raised; the connection is closed.
inline constexpr const char* kSshStopped = "ssh_stopped";
/// Whether the error is one of these: about the session, not about what was done in it.
[[nodiscard]] PNL_API bool SessionFailed(const pnl_err::Error& error);

/// A session to a node; a small value whose copies share one connection.
///
///     pnl_rpc::SSH ssh({.host = "10.99.0.2", .key_file = key});
///     if (ssh.Execute("uname -m").Result() != 0) ...
///     const std::string text = ssh.Execute("cat /etc/hostname").Str();
///
/// Execute starts a command and returns a copy that stands for it; Str, Result, In, Out, CloseIn
/// and SetTimeout of that copy (and of its copies) are the command's. One connection runs one
/// command at a time: the next Execute first ends the command before it as Result does, and so does
/// the release of the last copy that stands for it. An object that stands for no command speaks for
/// the one that runs over its connection; when that has ended and is released, Result, Str, Said
/// and Complaint still give what is left of it.
///
/// Standard input, output and error are pumped together and never held whole, except that output
/// which arrives while the caller writes (kMaxOutput) or waits in Result (kMaxUnasked) is kept for
/// Str and Out. Beyond, all of it is dropped, and Str and Out throw "ssh_exec" and give the command
/// up. The node's standard error goes to the log line by line (module "ssh", level 4), as far as
/// its first mebibyte.
///
/// A connection that is lost, or a node that gives no sign of life, is an exception and never an
/// empty answer: pnl_err::Error of the types above, object the host, value the command, with a
/// parameter "reason". Releasing a copy never throws: what goes wrong then is logged.
///
/// One connection is used by one thread at a time; different connections by different threads.
class PNL_API SSH {
 public:
  /// Connects and logs in; reads no ssh configuration file, asks nothing.
  explicit SSH(const SshOptions& options);
  SSH(const SSH&);
  SSH(SSH&&) noexcept;
  SSH& operator=(const SSH&);
  SSH& operator=(SSH&&) noexcept;
  ~SSH();

  /// Starts one shell command line.
  SSH Execute(const std::string& command);
  /// The same; `complaints` is given what comes on standard error, as it comes, while this object
  /// is used. What it throws is thrown by the next call.
  SSH Execute(const std::string& command, std::function<void(std::string_view)> complaints);

  /// Closes the input, drains output and error, and waits for the end of the shell, not for that of
  /// processes it left in the background: input that nobody has taken by then is dropped. The exit
  /// code; 128 + n for death by signal n. May be called again.
  int Result();
  /// Closes the input and returns all standard output not yet read, to its end, and waits for the
  /// shell's. As with a shell's $(...), the end comes when every process that inherited the output
  /// has closed it. More than `limit` bytes are "ssh_exec", and the command is given up.
  std::string Str(std::size_t limit);
  std::string Str();  ///< of kMaxOutput

  /// Waits as Result does, and returns the standard output not yet read that had come by then: for
  /// a command that may start daemons, which keep its output open.
  std::string Said();

  /// For who has read all that he wants: closes the input and waits for the end. The exit code;
  /// none when there is more output, or no end within twice the time-out: the command is given up
  /// then.
  std::optional<int> Finish();
  /// Gives the command up: its streams are closed at once, and nothing more of it is waited for or
  /// kept. What runs on the node ends when it next uses them, and until then takes one of the
  /// sessions that the node allows (MaxSessions, sshd_config(5)). Later questions are "ssh_closed".
  void Abandon() noexcept;

  /// The node's own words of failure: the end of what the command has said on standard error so
  /// far, at most 4 KiB, of whole lines where they fit, credentials in it included. Complete after
  /// Str, Result and Finish; "" when it said nothing, or when there is no command.
  std::string Complaint() const;

  /// A stream into the command's standard input, buffered; its state goes bad when the command has
  /// ended or the connection is lost, which the next call of this object then tells. Reading sends
  /// what it still holds.
  std::ostream& In();
  void CloseIn();  ///< flushes and closes; may be called again
  /// A stream over the command's standard output, to be read in blocks. A lost connection is thrown
  /// through it.
  std::istream& Out();

  /// Ends a command after `seconds` (default 60) without any sign of life of the node: no data and
  /// no answer to a keep-alive request, which is sent while nothing else comes. A long silent
  /// command on a live connection goes on. Holds for the connection from now on.
  void SetTimeout(int seconds);

  const std::string& Host() const;  ///< as errors call it: its name, else its host

 private:
  class PNL_LOCAL Connection;
  class PNL_LOCAL Command;
  SSH(std::shared_ptr<Connection> connection, std::shared_ptr<Command> command);
  std::shared_ptr<Command> Latest() const;
  std::shared_ptr<Command> Running() const;
  void ThrowIfNoneEnded() const;
  std::string LastOutput(std::size_t limit);

  std::shared_ptr<Connection> connection_;
  std::shared_ptr<Command> command_;  // null: stands for no command
};

/// The key by which a host proves who it is.
struct HostKey {
  std::string type = {};         ///< "ssh-ed25519"
  std::string fingerprint = {};  ///< "SHA256:...", as ssh-keygen(1) tells it
  std::string known_hosts = {};  ///< the path of the file in which it was looked up
  std::string line = {};         ///< for that file
  enum class State {
    kKnown,
    kUnknown,  ///< known_hosts says nothing about the host
    kChanged,  ///< it says that the host has another key
    kRevoked,  ///< it says that this key must not be trusted
  };
  State state = State::kUnknown;
};

/// Connects, exchanges keys and hangs up, without a login. Throws "ssh_connect", "ssh_stopped", and
/// "ssh_hostkey" when known_hosts cannot be read.
[[nodiscard]] PNL_API HostKey FetchHostKey(const SshOptions& options);
/// Adds it to its known_hosts, and makes that where it is missing. Throws "file".
PNL_API void NoteHostKey(const HostKey& key);

}  // namespace pnl_rpc
