#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"
#include "pnl/date.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "pnl/str.h"
#include "pnl/xml.h"

/// Routine administration of a managed node over an open SSH session: files, operating system,
/// processes, the panel's control utility ("ctl"), copies.
///
///     pnl_rpc::SSH ssh({.host = "10.99.0.2", .key_file = key});
///     ssh_utils::file::Write(ssh, "/etc/motd", "Welcome to " + ssh_utils::os_info::GetOs(ssh));
///     ssh_utils::CopyViaTar("etc lib", "/srv/image", ssh, "/", "z");
///
/// The output of a node is limited: 64 KiB for short answers and for the files that identify its
/// system, 64 MiB for its control utility, pnl_rpc::kMaxOutput for all other output that is
/// returned whole. More is the error "ssh_exec" at once.
///
/// Every call runs one or a few shell command lines on the node and keeps no state here. A failed
/// command throws the error type that the function's comment names; when it names none, the failure
/// is only logged (module "host", level 3). A lost connection always throws one of the types of
/// pnl_rpc::SSH and never gives an empty answer; only destructors log it instead.
///
/// Use a session, and the objects that hold a copy of it, from one thread at a time.
namespace ssh_utils {

// --- Files

/// Files of a node. Paths are absolute paths on the node. They are quoted and may have any bytes
/// except NUL.
namespace file {

/// Runs `command` and stores its whole output in `*output` (unless null). A non-zero exit code
/// throws pnl_err::Error(error_type); command and output are then logged (level 9).
BREFIR_API void AssertExec(pnl_rpc::SSH& ssh, const std::string& command,
                           const std::string& error_type, std::string* output);

/// The whole file; "remote_read" when it is missing or cannot be read.
[[nodiscard]] BREFIR_API std::string Read(pnl_rpc::SSH& ssh, const std::string& path);
/// The same with a limit of `limit` bytes.
[[nodiscard]] BREFIR_API std::string Read(pnl_rpc::SSH& ssh, const std::string& path,
                                          std::size_t limit);
/// The same for files of any size: passes the content to `take` block by block. When `take` throws,
/// the reading ends at once.
BREFIR_API void Read(pnl_rpc::SSH& ssh, const std::string& path,
                     const std::function<void(std::string_view block)>& take);
/// Makes the file, or overwrites it in place: attributes stay, but a failure ("remote_write", or a
/// lost connection) leaves it short or empty. Use pnl_host::Host::Replace to keep the old file on a
/// failure.
BREFIR_API void Write(pnl_rpc::SSH& ssh, const std::string& path, const std::string& content);
/// The same for content of any size: `give` fills `block` with up to `size` bytes and returns how
/// many; 0 at the end.
BREFIR_API void Write(pnl_rpc::SSH& ssh, const std::string& path,
                      const std::function<std::size_t(char* block, std::size_t size)>& give);
BREFIR_API void Touch(pnl_rpc::SSH& ssh, const std::string& path);  ///< "remote_touch"
/// Makes a directory and its parents; "remote_mkdir".
BREFIR_API void MkDir(pnl_rpc::SSH& ssh, const std::string& path);
/// Removes a file or tree; does nothing when it is missing. "remote_rm".
BREFIR_API void Remove(pnl_rpc::SSH& ssh, const std::string& path);
/// Makes the symbolic link `link` that points to `target`; "remote_ln".
BREFIR_API void MkLink(pnl_rpc::SSH& ssh, const std::string& target, const std::string& link);
/// `mode` as chmod(1) takes it ("0600", "u+x"), not quoted; "remote_chmod".
BREFIR_API void Chmod(pnl_rpc::SSH& ssh, const std::string& path, const std::string& mode);
/// The size in bytes; 0 when the file is missing. For a symbolic link it is the length of the link
/// itself; use pnl_host::Host::Look for its target.
[[nodiscard]] BREFIR_API std::int64_t Size(pnl_rpc::SSH& ssh, const std::string& path);
/// Renames `from` to `to`, or into `to` when that is a directory. Failures are only logged: check
/// with Exists.
BREFIR_API void Rename(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to);
/// Copies one file. Failures are only logged.
BREFIR_API void Copy(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to);
/// Tests a path as test(1) does: "f" regular file, "d" directory, "e" anything, "s" not empty, "p"
/// named pipe. Links are followed. An empty `type`, or one with another letter, means "e". Several
/// of these letters are passed to the node unchanged.
[[nodiscard]] BREFIR_API bool Exists(pnl_rpc::SSH& ssh, const std::string& path, std::string type);

/// The result of GetInfo.
struct BREFIR_API FileInfo {
  std::string path;
  std::int64_t size = 0;  ///< bytes
  int type = 0;           ///< 0 regular file, 1 directory, 2 anything else
  bool exists = false;
  pnl_date::DateTime atime;
  pnl_date::DateTime mtime;
  pnl_date::DateTime ctime;
};

/// The state of a path. For a symbolic link, type and existence are those of its target, size and
/// times those of the link. For a missing file only `path` is set. The times are the epoch when
/// they cannot be read. This one command passes the path unquoted: for a path with special
/// characters of the shell, the times are the epoch too.
[[nodiscard]] BREFIR_API FileInfo GetInfo(pnl_rpc::SSH& ssh, const std::string& path);

/// Logs the progress of a copy (level 9) at each new multiple of 5 %. The percentage is computed
/// before the current block is added: it is one block late and never reaches 100.
class BREFIR_API DownloadWatcher {
 public:
  explicit DownloadWatcher(std::uint64_t total);  ///< bytes
  /// Counts a block; `data` is for derived classes.
  virtual void OnGetData(char* data, unsigned long size);
  virtual bool Finished();  ///< whether exactly `total` bytes have come
  virtual ~DownloadWatcher();

 private:
  std::uint64_t received_ = 0;
  std::uint64_t last_percentage_ = 0;
  std::uint64_t total_;
};

/// Copies one file from the node to `local_path`, which is truncated first. Exactly the number of
/// bytes that Size returned at the start is copied. A file that grows is cut at that size. A file
/// that shrinks, is missing or cannot be read gives a short copy without an error. So does a
/// symbolic link, because Size returns the length of the link. Progress is reported to pnl_progress
/// under the remote path; when its observer throws, the copy ends. Throws "file" when the local
/// file cannot be written; the part that was copied stays. In both cases the rest is not awaited.
BREFIR_API void CopyFrom(pnl_rpc::SSH& ssh, const std::string& remote_path,
                         const std::string& local_path);
/// Copies a local file to the node, with the same rules. The remote file is overwritten in place: a
/// full disk or a lost connection leaves it short. Use pnl_host::Host::Replace to avoid that.
/// Throws "file" when the local file is missing, is not a regular file, or cannot be read; in the
/// first two cases before anything happens on the node.
BREFIR_API void CopyTo(const std::string& local_path, pnl_rpc::SSH& ssh,
                       const std::string& remote_path);

/// A temporary file on the node, made by mktemp(1) in `dir` and removed with the object. "mktemp"
/// when it cannot be made.
class BREFIR_API TmpFile {
 public:
  TmpFile(pnl_rpc::SSH ssh, const std::string& dir, std::string prefix);
  TmpFile(const TmpFile&) = delete;
  TmpFile& operator=(const TmpFile&) = delete;
  ~TmpFile();

  const std::string& Str() const { return path_; }
  operator const std::string&() const { return path_; }  // NOLINT: converts to its path

 private:
  std::string path_;
  pnl_rpc::SSH ssh_;
};

/// A local working copy (0600, in /tmp) of a file on the node. The destructor writes it back and
/// only logs failures. A copy that could not be written back completely is kept: the log (level 3)
/// names the local file.
///
/// A file that was not fetched completely (as with a symbolic link), or is larger than 64 MiB, is
/// pnl_err::Error("remote_read", "file", path), and nothing is written back. When the node has no
/// such file, there is no local file either. The caller may make it at Str(); a local file is
/// written back only if it exists at the end.
class BREFIR_API RemoteFile {
 public:
  RemoteFile(pnl_rpc::SSH& ssh, const std::string& remote_path);
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;
  ~RemoteFile();

  const std::string& Str() const { return local_.Str(); }  ///< the local path
  operator const std::string&() const { return Str(); }    // NOLINT: converts to its path

  /// Writes the copy back now and throws failures: "remote_write" (object "file", value the remote
  /// path), or an error of the session. The parameter "kept" names the local file, which stays. The
  /// object has no file afterwards.
  void WriteBack();

 private:
  pnl_rpc::SSH ssh_;
  std::string remote_path_;
  pnl_file::Tmp local_;
  bool done_ = false;
};

/// Removes a file or tree of the node in a transaction. It is renamed to PATH.N, where N is the
/// time in seconds since the epoch or the next free number. Commit removes PATH.N. Rollback removes
/// a new file at the path and renames PATH.N back.
///
/// A path that cannot be renamed stays, and commit and rollback then do nothing.
class BREFIR_API RemoveFileJob : public pnl_job::SafeJob {
 public:
  RemoveFileJob(pnl_rpc::SSH& ssh, const std::string& path);
  ~RemoveFileJob() override;

 protected:
  void onCommit() override;
  void onRollback() override;

 private:
  pnl_rpc::SSH ssh_;
  std::string path_;
  std::string backup_;  // empty: the path could not be renamed
};

}  // namespace file

// --- Operating system

/// The operating system of a node. A file that cannot be read is "remote_read".
namespace os_info {

/// 0x20000 is Linux, 0x100 the Red Hat family, 0x200 the Debian family; the low byte is the member
/// of the family.
enum OsType : std::int32_t {
  OsUnknown = 0x00000,
  OsGentoo = 0x20001,
  OsRedHat = 0x20101,  ///< Red Hat, or another member of its family
  OsFedora = 0x20102,
  OsCentOS = 0x20103,  ///< also Scientific Linux
  OsCloudLinux = 0x20104,
  OsVirtuozzo = 0x20105,
  OsDebian = 0x20201,  ///< also its derivatives, except Ubuntu
  OsUbuntu = 0x20202,
};

[[nodiscard]] BREFIR_API std::string Arch(pnl_rpc::SSH& ssh);  ///< as uname(1) -m: "x86_64"
/// When the node was started, by this host's wall clock; "remote_uptime".
[[nodiscard]] BREFIR_API pnl_date::DateTime BootDate(pnl_rpc::SSH& ssh);
/// An OsType.
[[nodiscard]] BREFIR_API int Type(pnl_rpc::SSH& ssh);
/// The distribution's version: "7.8", "6.5.el6.centos.11.1"; "" when unknown. For Ubuntu it is
/// taken from /etc/lsb-release of this host, not of the node: callers rely on that.
[[nodiscard]] BREFIR_API std::string Version(pnl_rpc::SSH& ssh);
/// Name and version for people, "Debian 7.8"; "" for Gentoo, Fedora, other members of the Red Hat
/// family, and unknown systems.
[[nodiscard]] BREFIR_API std::string GetOs(pnl_rpc::SSH& ssh);

/// The parsing that Type and Version do, for callers that already have the texts. Pure functions.
namespace release {

/// The sources of the texts.
struct BREFIR_API Answers {
  std::function<bool(const std::string& path)> exists;
  std::function<std::string(const std::string& path)> read;  ///< the text of an existing file
  std::function<std::string()> rpm_release;  ///< version and release of the system's package
};

[[nodiscard]] BREFIR_API OsType Type(const Answers& answers);
/// The version of a system of that type, except Ubuntu.
[[nodiscard]] BREFIR_API std::string Version(OsType type, const Answers& answers);

/// What GetOs prints before the version ("Debian "); null for a type without a name.
[[nodiscard]] BREFIR_API const char* DisplayPrefix(int type);
/// The member of the Red Hat family, from the beginning of its /etc/redhat-release.
[[nodiscard]] BREFIR_API OsType RedHatType(std::string_view redhat_release);
/// The member of the Debian family, from its /etc/lsb-release.
[[nodiscard]] BREFIR_API OsType DebianType(std::string_view lsb_release);
/// "7.8" for "7.8\n", "8.0" for "8"; "" when /etc/debian_version has no number ("jessie/sid"). Use
/// IssueVersion then.
[[nodiscard]] BREFIR_API std::string DebianVersion(std::string debian_version);
/// The first word of /etc/issue that begins with a digit; "" when there is none.
[[nodiscard]] BREFIR_API std::string IssueVersion(std::string issue);
/// DISTRIB_RELEASE of /etc/lsb-release; "" when it has none.
[[nodiscard]] BREFIR_API std::string UbuntuVersion(std::string_view lsb_release);

}  // namespace release

}  // namespace os_info

// --- Processes and command lines

/// The exit code of kill(1) on the node; not 0: no such process, or not allowed.
BREFIR_API int Kill(pnl_rpc::SSH ssh, int pid, int signal);
[[nodiscard]] BREFIR_API bool ProcessExists(pnl_rpc::SSH ssh, int pid);
/// Sends SIGTERM to a process, and SIGKILL when it still exists after `term_wait` seconds. Then
/// waits up to `kill_wait` seconds more. Checks once a second. True when the process has ended.
BREFIR_API bool Terminate(pnl_rpc::SSH ssh, int pid, int term_wait, int kill_wait);

/// The command line of PnlCtl.
[[nodiscard]] BREFIR_API std::string PnlCtlCommand(const std::string& install_dir,
                                                   const std::string& module,
                                                   const std::string& function,
                                                   const StringMap& params);
/// Calls a function of the panel that is installed on the node below `install_dir`; returns the XML
/// reply. Nothing is quoted. An error in the reply is thrown with its own type, object and
/// parameters. A reply that is not XML is "xml".
BREFIR_API pnl_xml::Xml PnlCtl(pnl_rpc::SSH& ssh, const std::string& install_dir,
                               const std::string& module, const std::string& function,
                               const StringMap& params);

/// A command line for the local ssh client that runs `cmd` on `ip` with this key and accepts any
/// host key. Nothing is escaped; `cmd` is put in double quotes.
[[nodiscard]] BREFIR_API std::string BuildSshCmd(const std::string& private_key,
                                                 const std::string& ip, const std::string& cmd);
/// Adds a missing line feed at the end of a local key file, by replacing the file; an empty file
/// stays as it is. Throws "file".
BREFIR_API void FixPublicKey(const std::string& path);

// --- Many files

/// Copies entries of the local `src_dir` into the existing `dst_dir` of the node, as a tar stream
/// of any size. `names` are separated by blanks. Nothing here is quoted. `flags` are additional
/// letters for tar on both sides ("z"). Throws "scp_failed" when tar fails on either side; files
/// that were already unpacked stay. Sets the session's time-out to 300 s. Progress is reported to
/// pnl_progress under `dst_dir`, with an unknown total.
BREFIR_API void CopyViaTar(const std::string& names, const std::string& src_dir, pnl_rpc::SSH& ssh,
                           const std::string& dst_dir, const std::string& flags);
BREFIR_API void CopyViaTar(const std::vector<std::string>& names, const std::string& src_dir,
                           pnl_rpc::SSH& ssh, const std::string& dst_dir, const std::string& flags);
/// The command line of CopyViaTar: "A | B", where A runs on this host and B on the node.
[[nodiscard]] BREFIR_API std::string TarCommand(const std::vector<std::string>& names,
                                                const std::string& src_dir,
                                                const std::string& dst_dir,
                                                const std::string& flags);
/// Copies a whole directory; makes `dst_dir` when it is missing ("remote_mkdir"). The copy keeps
/// the path of `src_dir`: "/srv/a" becomes DST/srv/a. Does not change the time-out.
BREFIR_API void CopyViaTar(const std::string& src_dir, pnl_rpc::SSH& ssh,
                           const std::string& dst_dir, const std::string& flags);

/// The path of the log of the last rsync to that node, below the working directory.
[[nodiscard]] BREFIR_API std::string RsyncLog(const std::string& node);

/// Copies files to the node with rsync(1) over an ssh connection of its own, which never prompts.
/// The local file `file_list` names them, one a line, relative to `src_dir` ("": the working
/// directory). The output goes to RsyncLog(node). Only `file_list` is quoted. Returns rsync's exit
/// code; throws "proc" when it cannot be started.
BREFIR_API int CopyViaRsync(std::string src_dir, const std::string& file_list,
                            const std::string& node, const std::string& private_key,
                            const std::string& dst_dir, const std::string& known_hosts,
                            const std::string& options);
/// The same with the names of the files. Throws "file" when the list cannot be written.
BREFIR_API int CopyViaRsync(std::string src_dir, const std::vector<std::string>& files,
                            const std::string& node, const std::string& private_key,
                            const std::string& dst_dir, const std::string& known_hosts,
                            const std::string& options);
/// The same on a given port (0: ssh's default), accepting any host key.
BREFIR_API int CopyViaRsyncBmx(std::string src_dir, const std::string& file_list,
                               const std::string& node, const std::string& private_key,
                               const std::string& dst_dir, const std::string& known_hosts,
                               const int& port);
BREFIR_API int CopyViaRsyncBmx(std::string src_dir, const std::vector<std::string>& files,
                               const std::string& node, const std::string& private_key,
                               const std::string& dst_dir, const std::string& known_hosts,
                               const int& port);

}  // namespace ssh_utils
