#pragma once

#include <cstdint>
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
#include "pnl/ssh.h"

/// Work on a host in one way, whether it is this host or a node behind an SSH session.
///
///     pnl_host::Host host(pnl_rpc::SSH({.host = "10.99.0.2", .key_file = key}));
///     if (const auto run = host.Run("sysctl -p"); run.code != 0) Tell(run.complaint);
///     host.Replace("/etc/motd", "Welcome\n", {.before = host.Read("/etc/motd")});
namespace pnl_host {

/// How a command ended.
struct PNL_API Outcome {
  int code = 0;        ///< exit code; 128 + n for death by signal n
  std::string output;  ///< all of its standard output
  /// The end of its standard error, trimmed, without passwords: the host's own reason for a
  /// failure.
  std::string complaint;
};

/// A running command with its streams. Use it from one thread at a time; a session runs one command
/// at a time. Throws what pnl_proc::Execute throws for this host ("proc"), and what pnl_rpc::SSH
/// throws for a node ("ssh_...").
class PNL_API Command {
 public:
  Command(Command&&) noexcept;
  Command& operator=(Command&&) noexcept;
  ~Command();  ///< ends it as the destructors of pnl_proc::Execute and pnl_rpc::SSH do

  std::ostream& In();   ///< its standard input, buffered; goes bad when the command reads no more
  void CloseIn();       ///< flushes and closes
  std::istream& Out();  ///< its standard output
  /// Closes the input, waits for the end, and returns all unread output, at most `limit` bytes.
  std::string Str(std::size_t limit = pnl_rpc::kMaxOutput);
  int Result();        ///< waits for the end; returns the exit code
  std::string Said();  ///< waits for the end; returns the unread output up to then
  /// Closes the streams without waiting. The command ends when it next uses them.
  void Abandon() noexcept;
  std::string Complaint() const;  ///< as in Outcome; complete after Str or Result

 private:
  friend class Host;
  class PNL_LOCAL Impl;
  explicit Command(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// The command that runs `script` with /bin/sh, for every login shell. Line ends of the script become
/// blanks. The script and the words must have no single quote, "!" or pair of backslashes, and the
/// words no line end: csh(1) and fish(1) change those even between single quotes. The words are $1,
/// $2, ..., and `name` is $0.
[[nodiscard]] PNL_API std::string PortableCommand(std::string_view script, const std::string& name,
                                                  const std::vector<std::string>& words = {});

/// `text` as one such word, which `printf %b` decodes: blanks, line ends, quotes, exclamation marks,
/// backslashes, and all that is not ASCII are written in octal. `text` must not contain a NUL.
[[nodiscard]] PNL_API std::string EncodedWord(std::string_view text);

enum class FileKind { kMissing, kFile, kDirectory, kOther };

/// The file at a path; links are followed.
struct PNL_API FileState {
  FileKind kind = FileKind::kMissing;
  std::string path;        ///< where the links lead
  std::uint64_t size = 0;  ///< bytes, of a regular file
  /// When the value differs from an earlier one, the file was replaced or changed. Only compare it.
  std::string version;
};

/// The earlier content of a file, for a change that must not overwrite somebody else's change.
using Content = std::optional<std::string>;  ///< null: there is no file

/// The options of Replace.
struct PNL_API ReplaceOptions {
  /// Replace only if the file still has this content; null: in any case.
  std::optional<Content> before = std::nullopt;
  unsigned new_mode = 0644;  ///< of a file that did not exist; on this host less the umask
};

// Types of errors of a Host.
inline constexpr const char* kReadFailed = "read";
inline constexpr const char* kReplaceFailed = "replace";
inline constexpr const char* kConflict = "conflict";  ///< somebody else has changed the file

/// Fills `block` with up to `size` bytes; returns how many, 0 at the end.
using Source = std::function<std::size_t(char* block, std::size_t size)>;

/// A host: this one, or a node. A value: copies for a node share its session; use all of them from
/// one thread at a time.
///
/// Paths are absolute and may have any bytes except NUL. Links are followed. The scripts for a node
/// run in /bin/sh there, whatever the login shell is; they are tested with dash, bash and busybox.
class PNL_API Host {
 public:
  Host();                               ///< this host
  explicit Host(pnl_rpc::SSH session);  ///< a node

  bool IsLocal() const { return !session_; }
  std::string Name() const;  ///< "localhost", or the node as the session names it
  /// The session of a node, for functions that take one; null for this host.
  const std::optional<pnl_rpc::SSH>& Session() const { return session_; }

  /// Starts `command` with the shell.
  Command Start(const std::string& command);
  /// Runs `command`, waits for the shell's end, and returns its exit code. Does not wait for a
  /// service that it started. An exit code other than 0 is logged (module "host", level 3).
  int Do(const std::string& command);
  /// Runs `command` with `input`, to the end of its output of at most `limit` bytes. An exit code
  /// other than 0 is logged in the same way, with the complaint.
  Outcome Run(const std::string& command, std::string_view input = {},
              std::size_t limit = pnl_rpc::kMaxOutput);
  /// The same for a command that may start daemons, which keep its output open. Waits for the end
  /// of the shell only; `output` is the output up to then, at most pnl_rpc::kMaxUnasked bytes.
  Outcome Act(const std::string& command);

  /// The state of the file at `path`. Throws "look" (object the host, value the path, parameter
  /// "reason").
  FileState Look(const std::string& path);
  /// The text of a regular file; null when there is no file. Throws "read" with the same parts,
  /// also for more than `limit` bytes; for a node these are "ssh_exec".
  Content Read(const std::string& path, std::size_t limit = kMaxText);
  /// Reads a file of any size and passes it to `take` block by block; on a node, any file that
  /// cat(1) can read. When `take` throws, the reading ends at once. A missing file is
  /// pnl_err::Missed("file", path).
  void Read(const std::string& path, const std::function<void(std::string_view block)>& take);

  /// Replaces a file, or makes it. The content goes to a temporary file beside it (".brefir-..."),
  /// which gets owner, group, mode, ACL, security label and other attributes of the old file. It is
  /// synced and takes the old file's place by an atomic rename; on a node one command does all of
  /// this. When anything fails or the connection breaks, the old file stays. The next Replace of
  /// the same file removes a temporary file that a killed one has left, and ends one that is still
  /// running.
  ///
  /// Hard links to the old file and file capabilities are not kept. ACL and security label are not
  /// kept where cp(1) has no --attributes-only (busybox). A change that an editor makes in the same
  /// millisecond may be overwritten.
  ///
  /// Throws "conflict" when the content is not `before`, and "replace" for every other failure,
  /// with object, value and "reason" as above. In both cases the old file stays. A session that
  /// ends ("ssh_...") leaves the old file or the whole new one. On this host it may also throw
  /// "file".
  void Replace(const std::string& path, std::string_view content,
               const ReplaceOptions& options = {});
  /// The same for `size` bytes from `give`. Fewer bytes are the error "replace"; when `give`
  /// throws, the old file stays. Progress is reported to pnl_progress under the path.
  void Replace(const std::string& path, std::uint64_t size, const Source& give,
               const ReplaceOptions& options = {});

  /// Removes a regular file (links are followed) if its content is still `before`. A missing file
  /// is a conflict too. Throws "conflict" and "replace" as Replace does; the file then stays.
  void Remove(const std::string& path, std::string_view before);

  /// The SHA-256 sum of a regular file in hexadecimal digits. Needs openssl(1) or sha256sum(1) on
  /// that host. Throws "read", as above.
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
