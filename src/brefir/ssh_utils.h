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
/// processes, the panel's control utility, copies.
///
///     pnl_rpc::SSH ssh({.host = "10.99.0.2", .key_file = key});
///     ssh_utils::file::Write(ssh, "/etc/motd", "Welcome to " + ssh_utils::os_info::GetOs(ssh));
///     ssh_utils::CopyViaTar("etc lib", "/srv/image", ssh, "/", "z");
///
/// What a node may say is bounded: 64 KiB to a question and of the files that tell its system,
/// 64 MiB of its control utility, pnl_rpc::kMaxOutput of anything else that is returned whole. More
/// is "ssh_exec", at once.
///
/// Every call runs one or a few shell command lines on the node and keeps no state here. A command
/// that fails is an error where a function names one; elsewhere it is silent for the caller and
/// logged (module "host", level 3). A lost connection is always an error, of the types that
/// pnl_rpc::SSH names, and never an empty answer; only destructors log it instead.
///
/// A session is used by one thread at a time, and so are the objects that hold a copy of it.
namespace ssh_utils {

// --- Files

/// Files of a node. Paths are absolute paths on the node, of any bytes but NUL; they are quoted.
namespace file {

/// Runs `command`, takes its whole output into `*output` (unless null). A non-zero exit code throws
/// pnl_err::Error(error_type); command and output then go to the log only (level 9).
BREFIR_API void AssertExec(pnl_rpc::SSH& ssh, const std::string& command,
                           const std::string& error_type, std::string* output);

/// The whole file; "remote_read" when it is missing or cannot be read.
[[nodiscard]] BREFIR_API std::string Read(pnl_rpc::SSH& ssh, const std::string& path);
/// The same of a file that may have `limit` bytes.
[[nodiscard]] BREFIR_API std::string Read(pnl_rpc::SSH& ssh, const std::string& path,
                                          std::size_t limit);
/// The same for files of any size, block by block as they come. What `take` throws ends the reading
/// at once.
BREFIR_API void Read(pnl_rpc::SSH& ssh, const std::string& path,
                     const std::function<void(std::string_view block)>& take);
/// Overwrites or makes the file, in place: attributes stay, and a failure ("remote_write", or a
/// lost connection) leaves it short or empty. pnl_host::Host::Replace leaves the old file then.
BREFIR_API void Write(pnl_rpc::SSH& ssh, const std::string& path, const std::string& content);
/// The same for content of any size: `give` fills a block of up to `size` bytes and tells how far;
/// 0 at the end.
BREFIR_API void Write(pnl_rpc::SSH& ssh, const std::string& path,
                      const std::function<std::size_t(char* block, std::size_t size)>& give);
BREFIR_API void Touch(pnl_rpc::SSH& ssh, const std::string& path);  ///< "remote_touch"
/// Makes a directory and its parents; "remote_mkdir".
BREFIR_API void MkDir(pnl_rpc::SSH& ssh, const std::string& path);
/// Removes a file or tree; a missing one is fine. "remote_rm".
BREFIR_API void Remove(pnl_rpc::SSH& ssh, const std::string& path);
/// Makes the symbolic link `link` with the content `target`; "remote_ln".
BREFIR_API void MkLink(pnl_rpc::SSH& ssh, const std::string& target, const std::string& link);
/// `mode` as chmod(1) takes it ("0600", "u+x"), not quoted; "remote_chmod".
BREFIR_API void Chmod(pnl_rpc::SSH& ssh, const std::string& path, const std::string& mode);
/// Bytes; 0 when the file is missing. Of a symbolic link the length of the link itself:
/// pnl_host::Host::Look tells where it leads.
[[nodiscard]] BREFIR_API std::int64_t Size(pnl_rpc::SSH& ssh, const std::string& path);
/// Renames over `to`, or into it when it is a directory. Silent: who must know asks Exists.
BREFIR_API void Rename(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to);
/// Copies one file. Silent as Rename is.
BREFIR_API void Copy(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to);
/// test(1) by a letter: "f" regular file, "d" directory, "e" anything, "s" not empty, "p" named
/// pipe; links are followed. A `type` that is empty or has another letter means "e"; several of
/// these letters go to the node as they are.
[[nodiscard]] BREFIR_API bool Exists(pnl_rpc::SSH& ssh, const std::string& path, std::string type);

/// What GetInfo tells.
struct BREFIR_API FileInfo {
  std::string path;
  std::int64_t size = 0;  ///< bytes
  int type = 0;           ///< 0 regular file, 1 directory, 2 anything else
  bool exists = false;
  pnl_date::DateTime atime;
  pnl_date::DateTime mtime;
  pnl_date::DateTime ctime;
};

/// What the node tells about a path. Type and existence are those of what links lead to, size and
/// times those of a link itself. Of a missing one only `path` is set. The times stay at the epoch
/// when they cannot be read; so they do for a path that the shell changes: this one command has it
/// unquoted.
[[nodiscard]] BREFIR_API FileInfo GetInfo(pnl_rpc::SSH& ssh, const std::string& path);

/// Logs the progress of a copy (level 9) each time another multiple of 5 % is seen. The percentage
/// is that before the present block, so that it lags one block behind and never says 100.
class BREFIR_API DownloadWatcher {
 public:
  explicit DownloadWatcher(std::uint64_t total);  ///< bytes
  /// Counts a block; `data` is for those who derive.
  virtual void OnGetData(char* data, unsigned long size);
  virtual bool Finished();  ///< exactly the expected bytes have come
  virtual ~DownloadWatcher();

 private:
  std::uint64_t received_ = 0;
  std::uint64_t last_percentage_ = 0;
  std::uint64_t total_;
};

/// Copies one file from the node into `local_path`, which is truncated first. As many bytes are
/// copied as Size told at the start: what the file grew by is left out; one that shrank, is missing
/// or cannot be read, or a symbolic link, which is shorter than what it leads to, gives a short
/// copy, silently. Progress goes to pnl_progress under the remote
/// path; what its observer throws ends the copy. Throws "file" when the local file cannot be
/// written; what has come stays there. In both cases the rest is not waited for.
BREFIR_API void CopyFrom(pnl_rpc::SSH& ssh, const std::string& remote_path,
                         const std::string& local_path);
/// The other way round, with the same rules; the remote file is overwritten in place, so that a
/// full disk or a lost connection leaves it short (pnl_host::Host::Replace does not). Throws "file"
/// when the local file is missing, not a regular file, or cannot be read: in the first two cases
/// before anything happens on the node.
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
  operator const std::string&() const { return path_; }  // NOLINT: reads as its path

 private:
  std::string path_;
  pnl_rpc::SSH ssh_;
};

/// A local working copy (0600, below /tmp) of a file on the node, written back when the object
/// ends; failures are only logged then. What could not be written back whole is kept: the log
/// (level 3) names the local file.
///
/// A file that did not come whole, as through a symbolic link, or has more than 64 MiB, is
/// pnl_err::Error("remote_read", "file", path), and nothing is written back. When the node has no
/// such file there is no local one either: the caller may make it at Str(), and only what is there
/// at the end is written back.
class BREFIR_API RemoteFile {
 public:
  RemoteFile(pnl_rpc::SSH& ssh, const std::string& remote_path);
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;
  ~RemoteFile();

  const std::string& Str() const { return local_.Str(); }  ///< the local path
  operator const std::string&() const { return Str(); }    // NOLINT: reads as its path

  /// Writes back now, so that a failure is thrown: "remote_write" (object "file", value the remote
  /// path), or what the session throws, with the parameter "kept", the local file that stays. The
  /// object has no file any more.
  void WriteBack();

 private:
  pnl_rpc::SSH ssh_;
  std::string remote_path_;
  pnl_file::Tmp local_;
  bool done_ = false;
};

/// Removes a file or tree of the node so that it can be brought back: it is renamed to PATH.N, N
/// the seconds of the epoch or the next free number. Commit removes that; rollback removes what
/// stands at the path by then and renames back.
///
/// A path that cannot be renamed stays, silently; commit and rollback then leave it alone.
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

/// What a node runs. Where a file is read its failure is "remote_read".
namespace os_info {

/// 0x20000 Linux, 0x100 the Red Hat family, 0x200 the Debian family, the low byte the member.
enum OsType : std::int32_t {
  OsUnknown = 0x00000,
  OsGentoo = 0x20001,
  OsRedHat = 0x20101,  ///< another member of the family
  OsFedora = 0x20102,
  OsCentOS = 0x20103,  ///< also Scientific Linux
  OsCloudLinux = 0x20104,
  OsVirtuozzo = 0x20105,
  OsDebian = 0x20201,  ///< also its like, without the mark of Ubuntu
  OsUbuntu = 0x20202,
};

[[nodiscard]] BREFIR_API std::string Arch(pnl_rpc::SSH& ssh);  ///< as uname(1) -m: "x86_64"
/// When the node was started, by this host's wall clock; "remote_uptime".
[[nodiscard]] BREFIR_API pnl_date::DateTime BootDate(pnl_rpc::SSH& ssh);
/// An OsType.
[[nodiscard]] BREFIR_API int Type(pnl_rpc::SSH& ssh);
/// The distribution's version: "7.8", "6.5.el6.centos.11.1"; "" when unknown. For Ubuntu it is that
/// of the local host's /etc/lsb-release, as callers rely on.
[[nodiscard]] BREFIR_API std::string Version(pnl_rpc::SSH& ssh);
/// Name and version for people, "Debian 7.8"; "" for Gentoo, Fedora, others of the Red Hat family
/// and the unknown.
[[nodiscard]] BREFIR_API std::string GetOs(pnl_rpc::SSH& ssh);

/// What Type and Version make of a system's answers, for those who have them. Pure.
namespace release {

/// Where the answers come from.
struct BREFIR_API Answers {
  std::function<bool(const std::string& path)> exists;
  std::function<std::string(const std::string& path)> read;  ///< of one that exists
  std::function<std::string()> rpm_release;  ///< version and release of the system's package
};

[[nodiscard]] BREFIR_API OsType Type(const Answers& answers);
/// Of a system of that type, but not of Ubuntu.
[[nodiscard]] BREFIR_API std::string Version(OsType type, const Answers& answers);

/// The member of the Red Hat family, by the beginning of its /etc/redhat-release.
[[nodiscard]] BREFIR_API OsType RedHatType(std::string_view redhat_release);
/// The member of the Debian family, by its /etc/lsb-release.
[[nodiscard]] BREFIR_API OsType DebianType(std::string_view lsb_release);
/// "7.8" of "7.8\n", "8.0" of "8"; "" of a /etc/debian_version that names no number
/// ("jessie/sid"): then /etc/issue tells.
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
/// Ends a process by SIGTERM, and by SIGKILL when it is still there after `term_wait` seconds;
/// waits up to `kill_wait` seconds more. Looks once a second. True when the process is gone.
BREFIR_API bool Terminate(pnl_rpc::SSH ssh, int pid, int term_wait, int kill_wait);

/// The command line of PnlCtl.
[[nodiscard]] BREFIR_API std::string PnlCtlCommand(const std::string& install_dir,
                                                   const std::string& module,
                                                   const std::string& function,
                                                   const StringMap& params);
/// The XML reply of a function of the node's panel below `install_dir`. Nothing is quoted. An error
/// in the reply is thrown as the node's own: type, object and parameters. A reply that is not XML
/// is "xml".
BREFIR_API pnl_xml::Xml PnlCtl(pnl_rpc::SSH& ssh, const std::string& install_dir,
                               const std::string& module, const std::string& function,
                               const StringMap& params);

/// A command line for the local ssh client that runs `cmd` on `ip` with this key, without regard to
/// host keys. Nothing is quoted or escaped; `cmd` stands between double quotes.
[[nodiscard]] BREFIR_API std::string BuildSshCmd(const std::string& private_key,
                                                 const std::string& ip, const std::string& cmd);
/// Ends the last line of a local key file with a line feed if it has none, replacing the file; an
/// empty file stays. Throws "file".
BREFIR_API void FixPublicKey(const std::string& path);

// --- Many files

/// Copies entries of the local `src_dir` into the existing `dst_dir` of the node, as a tar stream
/// of any size. `names` are separated by blanks and, like everything here, not quoted; `flags` are
/// further letters for tar on both sides ("z"). "scp_failed" when tar fails on either side; what
/// was unpacked until then stays. Sets the session's time-out to 300 s. Progress goes to
/// pnl_progress under `dst_dir`, the total unknown.
BREFIR_API void CopyViaTar(const std::string& names, const std::string& src_dir, pnl_rpc::SSH& ssh,
                           const std::string& dst_dir, const std::string& flags);
BREFIR_API void CopyViaTar(const std::vector<std::string>& names, const std::string& src_dir,
                           pnl_rpc::SSH& ssh, const std::string& dst_dir, const std::string& flags);
/// What that runs, joined by "|": the first command here, the second one on the node.
[[nodiscard]] BREFIR_API std::string TarCommand(const std::vector<std::string>& names,
                                                const std::string& src_dir,
                                                const std::string& dst_dir,
                                                const std::string& flags);
/// Copies a whole directory; `dst_dir` is made when missing ("remote_mkdir"), and `src_dir` comes
/// below it under the path as given: "/srv/a" becomes DST/srv/a. Leaves the time-out as it is.
BREFIR_API void CopyViaTar(const std::string& src_dir, pnl_rpc::SSH& ssh,
                           const std::string& dst_dir, const std::string& flags);

/// Where the output of the last rsync to that node stands, below the working directory.
[[nodiscard]] BREFIR_API std::string RsyncLog(const std::string& node);

/// Pushes the files named in the local file `file_list`, one a line and relative to `src_dir` ("":
/// the working directory), by rsync(1) over an ssh connection of its own that cannot prompt. Its
/// output goes to RsyncLog(node). Only `file_list` is quoted. Returns rsync's exit code;
/// "proc" when it cannot be started.
BREFIR_API int CopyViaRsync(std::string src_dir, const std::string& file_list,
                            const std::string& node, const std::string& private_key,
                            const std::string& dst_dir, const std::string& known_hosts,
                            const std::string& options);
/// The same for files given by name. Throws "file" when the list cannot be written.
BREFIR_API int CopyViaRsync(std::string src_dir, const std::vector<std::string>& files,
                            const std::string& node, const std::string& private_key,
                            const std::string& dst_dir, const std::string& known_hosts,
                            const std::string& options);
/// CopyViaRsync on a port of its own (0: ssh's default), accepting any host key.
BREFIR_API int CopyViaRsyncBmx(std::string src_dir, const std::string& file_list,
                               const std::string& node, const std::string& private_key,
                               const std::string& dst_dir, const std::string& known_hosts,
                               const int& port);
BREFIR_API int CopyViaRsyncBmx(std::string src_dir, const std::vector<std::string>& files,
                               const std::string& node, const std::string& private_key,
                               const std::string& dst_dir, const std::string& known_hosts,
                               const int& port);

}  // namespace ssh_utils
