#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "pnl/err.h"
#include "pnl/export.h"
#include "pnl/ssh.h"

/// One way to work on a host, be it this one or a node behind an SSH session.
///
///     pnl_host::Host host(pnl_rpc::SSH({.host = "10.99.0.2", .key_file = key}));
///     if (const auto run = host.Run("sysctl -p"); run.code != 0) Tell(run.complaint);
///     host.Replace("/etc/motd", "Welcome\n", {.before = host.Read("/etc/motd")});
namespace pnl_host {

/// How a command ended.
struct PNL_API Outcome {
  int code = 0;        ///< exit code; 128 + n for death by signal n
  std::string output;  ///< all of its standard output
  /// The end of its standard error, trimmed, without credentials: the host's own words of a
  /// failure.
  std::string complaint;
};

/// A command under way, with streams in both directions. It is used by one thread at a time; a node
/// runs one command at a time over a session. Throws as pnl_proc::Execute does here ("proc") and as
/// pnl_rpc::SSH does on a node ("ssh_...").
class PNL_API Command {
 public:
  Command(Command&&) noexcept;
  Command& operator=(Command&&) noexcept;
  ~Command();  ///< ends it as the releases of pnl_proc::Execute and pnl_rpc::SSH do

  std::ostream& In();   ///< its standard input, buffered; its state goes bad when it takes no more
  void CloseIn();       ///< flushes and closes
  std::istream& Out();  ///< its standard output
  /// Closes the input, reads all output not yet read, at most `limit` bytes, and waits for the end.
  std::string Str(std::size_t limit = pnl_rpc::kMaxOutput);
  int Result();        ///< waits for the end; the exit code
  std::string Said();  ///< waits for the end; the output not yet read that had come by then
  /// Nothing more of it is wanted: it ends when it next uses its streams, and nobody waits.
  void Abandon() noexcept;
  std::string Complaint() const;  ///< as in Outcome; complete after Str or Result

 private:
  friend class Host;
  class PNL_LOCAL Impl;
  explicit Command(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

enum class FileKind { kMissing, kFile, kDirectory, kOther };

/// What stands at a path, at the end of all links.
struct PNL_API FileState {
  FileKind kind = FileKind::kMissing;
  std::string path;        ///< where the links lead
  std::uint64_t size = 0;  ///< bytes, of a regular file
  /// Another value means that it was replaced or changed meanwhile. Only to be compared.
  std::string version;
};

/// A file as it was, for a change that must not go over somebody else's.
using Content = std::optional<std::string>;  ///< null: there is no file

/// What Replace is told besides the content.
struct PNL_API ReplaceOptions {
  /// Only if the file is still like this; null: whatever it is.
  std::optional<Content> before = std::nullopt;
  unsigned new_mode = 0644;  ///< of a file that was not there; here less the umask
};

// Types of errors of a Host.
inline constexpr const char* kReadFailed = "read";
inline constexpr const char* kReplaceFailed = "replace";
inline constexpr const char* kConflict = "conflict";  ///< somebody else has changed the file

/// Fills a block of up to `size` bytes and tells how far; 0 at the end.
using Source = std::function<std::size_t(char* block, std::size_t size)>;

/// A host: this one, or a node. A value; copies of a node's share its session, and one thread at a
/// time uses them.
///
/// Paths are absolute, of any bytes but NUL, and lead to what links lead to. The scripts that are
/// sent to a node run there in /bin/sh, whatever the login shell is, and are tried with dash, bash,
/// busybox.
class PNL_API Host {
 public:
  Host();                               ///< this host
  explicit Host(pnl_rpc::SSH session);  ///< a node

  bool IsLocal() const { return !session_; }
  std::string Name() const;  ///< "localhost", or the node as the session names it
  /// Of a node, for what is given a session; null here.
  const std::optional<pnl_rpc::SSH>& Session() const { return session_; }

  /// Starts a shell command line.
  Command Start(const std::string& command);
  /// Runs it and waits for the shell's end, but not for a service that it has started. The exit
  /// code, which is logged (module "host", level 3) unless it is 0.
  int Do(const std::string& command);
  /// Runs it with that input, to the end of its output; at most `limit` bytes of that. A code other
  /// than 0 is logged in the same way, with the complaint.
  Outcome Run(const std::string& command, std::string_view input = {},
              std::size_t limit = pnl_rpc::kMaxOutput);
  /// The same for a command that may start daemons: they keep its output open, so that its own end
  /// is waited for, and `output` is what has come by then, at most pnl_rpc::kMaxUnasked bytes.
  Outcome Act(const std::string& command);

  /// One look. Throws "look" (object the host, value the path, parameter "reason").
  FileState Look(const std::string& path);
  /// The text of a regular file; null when there is no file. Throws "read", in the same way, and
  /// for more than `limit` bytes, which of a node are "ssh_exec".
  Content Read(const std::string& path, std::size_t limit = kMaxText);
  /// The same of any size, and on a node of whatever cat(1) can read, block by block as they come.
  /// What `take` throws ends the reading at once. A missing file is pnl_err::Missed("file", path).
  void Read(const std::string& path, const std::function<void(std::string_view block)>& take);

  /// Puts a new file in the place of an old one, or makes it. Nobody ever sees half of it: the
  /// content goes to a temporary beside it (".brefir-..."), which gets owner, group, mode, ACL,
  /// label and other attributes of the old file, is synced, and takes its place by one rename(2),
  /// on a node in one command. Whatever fails or is cut leaves the old file. What a killed one has
  /// left beside it is removed by the next; one that is still under way on the same file is ended
  /// by it.
  ///
  /// Not kept are hard links to the old file, file capabilities, and, where cp(1) knows no
  /// --attributes-only (busybox), ACL and label. An editor that replaces the file in the same
  /// millisecond may be overwritten.
  ///
  /// Throws "conflict" when the file is not as `before` says, "replace" for everything else, with
  /// object, value and "reason" as above: in both cases the old file is there. A session that ends
  /// ("ssh_...") leaves the old file or the whole new one. Here it throws "file", too.
  void Replace(const std::string& path, std::string_view content,
               const ReplaceOptions& options = {});
  /// The same for `size` bytes that `give` has. Fewer are "replace"; what `give` throws leaves the
  /// old file. Progress goes to pnl_progress under the path.
  void Replace(const std::string& path, std::uint64_t size, const Source& give,
               const ReplaceOptions& options = {});

  /// Removes a regular file, what links lead to, when it is still as `before` says; a missing one
  /// is a conflict too. Throws "conflict" and "replace", as Replace does; the file is there then.
  void Remove(const std::string& path, std::string_view before);

  /// The SHA-256 sum of a regular file in hexadecimal digits, by openssl(1) or sha256sum(1) there.
  /// Throws "read", as above.
  std::string Sha256(const std::string& path);

  static constexpr std::size_t kMaxText = std::size_t{64} << 20;

 private:
  int Log(const std::string& command, int code, const std::string& complaint) const;
  Outcome Logged(const std::string& command, Command& run, std::string output) const;
  pnl_err::Error Failed(const char* type, const std::string& path, std::string_view reason) const;
  void ReplaceHere(const std::string& path, std::uint64_t size, const Source& give,
                   const ReplaceOptions& options) const;
  void ReplaceThere(const std::string& path, std::uint64_t size, const std::string& sum,
                    const Source& give, const ReplaceOptions& options);

  void RequireDone(const std::string& path, const std::string& token, const std::string& answer,
                   const std::string& complaint) const;

  std::optional<pnl_rpc::SSH> session_;
};

}  // namespace pnl_host
