#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/export.h"

/// Files of the local host.
///
/// Every function that replaces a file (Write, Tmp::Replace) does it by atomic rename. It makes a
/// temporary file beside the old one (0600, unpredictable name, O_EXCL), writes it, copies the
/// attributes of the old file, calls fsync, closes with a check, renames it over the old file, and
/// syncs the directory. The path is never absent and the file never half-written, whatever fails
/// and whenever the process dies. When the directory cannot be synced, the rename has already
/// happened: this is logged (module "file", level 3) and is no error.
///
/// Failures are pnl_err::Error of type "file" (pnl_err::System) unless a function says otherwise.
/// EINTR and short reads and writes are retried. Every descriptor is close-on-exec. Relative paths
/// are relative to the working directory. Functions are thread-safe; objects are not.
namespace pnl_file {

// --- Descriptors

/// Owns one file descriptor.
class PNL_API Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.Release()) {}
  Fd& operator=(Fd&& other) noexcept;
  ~Fd() { Reset(); }

  int Get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  int Release() noexcept;             ///< returns the open descriptor; the caller owns it
  void Reset() noexcept;              ///< closes, ignoring errors
  void Close(std::string_view path);  ///< closes; a failure is an error naming `path`

 private:
  int fd_ = -1;
};

/// open(2) with O_CLOEXEC; errors name `path`.
[[nodiscard]] PNL_API Fd Open(const std::string& path, int flags, mode_t mode = 0666);
/// Writes all of `data`; errors name `path`.
PNL_API void WriteAll(int fd, std::string_view data, std::string_view path);
/// At most `size` bytes; 0 at end of file. Errors name `path`.
PNL_API std::size_t ReadSome(int fd, char* buffer, std::size_t size, std::string_view path);
/// fsync(2); errors name `path`.
PNL_API void Sync(int fd, std::string_view path);

// --- Whole files

/// The whole file; "" when it does not exist. Every other failure throws. Opening never blocks: a
/// FIFO, device or socket is an error (operation "open", EINVAL).
[[nodiscard]] PNL_API std::string Read(const std::string& path);
/// The same, but a missing file throws too.
[[nodiscard]] PNL_API std::string ReadE(const std::string& path);

inline constexpr mode_t kDefaultMode = 0666;  ///< of a new file, less the umask
inline constexpr mode_t kSecretMode = 0600;   ///< for keys and values that may be secret

/// Replaces the file with `content` by atomic rename; owner, group, mode, ACL and security label
/// stay. A new file gets `new_mode` less the umask. A symbolic link is followed: its target is
/// replaced. On failure the old file is untouched and no temporary file is left. Only when the
/// rename itself fails, the temporary file with the new content stays, and the error's parameter
/// "tmp" names it.
PNL_API void Write(const std::string& path, std::string_view content,
                   mode_t new_mode = kDefaultMode);

// --- Names

[[nodiscard]] PNL_API std::string ConcatPath(std::string_view a,
                                             std::string_view b);  ///< joined by one "/"
[[nodiscard]] PNL_API std::string ConcatPath(std::string_view a, std::string_view b,
                                             std::string_view c);
[[nodiscard]] PNL_API std::string Name(std::string_view path);  ///< the part after the last "/"
[[nodiscard]] PNL_API std::string Folder(
    std::string_view path);  ///< the part before the last "/"; "." without one
/// The canonical absolute path (realpath(3)) of an existing file; "" when it does not exist.
[[nodiscard]] PNL_API std::string RealPath(const std::string& path);
/// The path that a write to `path` changes: symbolic links in its last component are followed. The
/// target need not exist. Throws "file" for a loop of links.
[[nodiscard]] PNL_API std::string LinkTarget(std::string path);
[[nodiscard]] PNL_API std::string GetCurrentDir();

// --- What is there

/// Owner, group, mode, and the extended attributes (POSIX ACL, security label, user attributes) of
/// a file.
class PNL_API Attrs {
 public:
  /// Sets these attributes on `path`: owner and group first (chown clears set-id bits), then
  /// extended attributes, then the mode. With `nofollow`, a symbolic link is refused (ELOOP).
  /// Throws when an attribute cannot be set; attributes that the target's file system does not
  /// support are left out.
  void SafeSet(const std::string& path, bool nofollow) const;
  void SafeSet(int fd, const std::string& path) const;  ///< on an open file; errors name `path`

  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;  ///< permission and set-id bits
  std::vector<std::pair<std::string, std::string>> xattrs;
};

/// The result of stat(2) for a path at the time of construction. ENOENT, ENOTDIR and ELOOP mean
/// "does not exist"; every other failure throws.
class PNL_API Info {
 public:
  /// With `nofollow`, describes a symbolic link itself; else its target.
  explicit Info(const std::string& path, bool nofollow = false);
  /// Describes an open file; errors name `path`.
  Info(const Fd& fd, const std::string& path);

  bool Exists() const { return exists_; }
  bool IsDir() const { return exists_ && S_ISDIR(stat_.st_mode); }
  bool IsFile() const { return exists_ && S_ISREG(stat_.st_mode); }  ///< regular file
  bool IsLink() const { return exists_ && S_ISLNK(stat_.st_mode); }  ///< only with nofollow
  std::uint64_t Size() const { return exists_ ? static_cast<std::uint64_t>(stat_.st_size) : 0; }
  pnl_date::DateTime MTime() const;
  const struct stat& Stat() const { return stat_; }
  Attrs GetAttrs() const;  ///< throws when the file does not exist

  /// True when the file did not change between the two objects: same file, size and change times
  /// (nanoseconds). Two absent files are the same.
  bool SameVersion(const Info& other) const;
  /// Whether SameVersion will notice every later change. File times come from a kernel clock that
  /// steps by up to 10 ms: two changes within one step look the same.
  bool Settled() const;

 private:
  std::string path_;
  bool nofollow_;
  bool exists_ = false;
  struct stat stat_ {};
};

/// A regular file that is open for reading.
struct OpenFile {
  Fd fd;
  Info info;
};
/// Opens a regular file; follows links and never blocks. A FIFO, device or socket is an error
/// (operation "open", EINVAL), and so is a directory (EISDIR).
[[nodiscard]] PNL_API OpenFile OpenRegular(const std::string& path);

[[nodiscard]] PNL_API bool Exists(const std::string& path);  ///< follows links
[[nodiscard]] PNL_API bool IsDir(const std::string& path);   ///< follows links

/// Lists the entries of one directory, in the kernel's order unless they are sorted. Names that
/// begin with a dot are included, "." and ".." are not.
///
///     for (pnl_file::Dir dir(path); dir.Read();) Use(dir.name());
class PNL_API Dir {
 public:
  explicit Dir(const std::string& path);
  Dir(const Dir&) = delete;
  Dir& operator=(const Dir&) = delete;
  ~Dir();

  bool Read();  ///< moves to the next entry; false at the end
  void Sort();  ///< the remaining entries come in the order of their names' bytes
  const std::string& name() const { return name_; }
  std::string FullName() const;  ///< directory + "/" + name
  pnl_file::Info Info() const;   ///< of the current entry; follows links
  /// Opens the current entry as pnl_file::OpenRegular does. Empty when the entry is not a regular
  /// file or has been removed. The entry is looked up in the directory that was opened, even when
  /// another directory now has its path.
  std::optional<OpenFile> OpenRegular() const;
  /// Whether the path now leads to another directory, or to none.
  bool Replaced() const;

 private:
  std::string path_;
  std::string name_;
  unsigned char type_ = 0;                                     // from readdir(3)
  void* stream_;                                               // DIR*
  std::vector<std::pair<std::string, unsigned char>> sorted_;  // name and type; the next one last
};

// --- Changes

/// Makes the directory and its missing parents (0777 less the umask). Does nothing when the
/// directory exists; anything else of that name is an error.
PNL_API void MkDir(const std::string& path);
/// Removes a file or link. Does nothing when it does not exist; a directory is an error.
PNL_API void RemoveFile(const std::string& path);
/// Removes a file, a link or a whole tree. Does nothing when it does not exist. Uses openat(2) and
/// unlinkat(2) and never follows a link, even when somebody replaces a directory with a link during
/// the removal. Uses few descriptors at any depth. A mount point is an error (EBUSY) and never
/// entered. Stops at the first error; files that were removed before it are not restored. Refuses
/// "", "/", a last component "." or "..", and a NUL: pnl_err::Access("file", path).
PNL_API void Remove(const std::string& path);
/// Renames `from` over `to` and syncs the directory of `to`. `from` must be complete and on the
/// same file system; its content is not synced here. On failure both stay as they were; the error's
/// value is `to`, its parameter "tmp" is `from`.
PNL_API void Move(const std::string& from, const std::string& to);
/// Puts the directory `from` in the place of `to`. An existing `to` is exchanged with it
/// (renameat2(2)), so that a directory is at `to` at every moment; the old one is at `from`
/// afterwards, and the caller removes it. The content of `from` is synced first. Then, right before
/// the exchange, `last` is called; it must sync what it changes. Both must be on one file system.
/// On failure they stay as they were.
///
/// On a file system that cannot exchange (FUSE, some network file systems) two renames do it: the
/// old directory is moved to FOLDER/.replaced/NAME for a moment. The process may be killed in
/// between. For that case, all callers for one folder hold the same lock and call RecoverTree
/// first.
PNL_API void PlaceTree(const std::string& from, const std::string& to,
                       const std::function<void()>& last = {});
/// Cleans up after a killed PlaceTree: the directory that it had moved away goes back to `to`, or
/// is removed when a new directory is there. Call it under the lock of PlaceTree.
PNL_API void RecoverTree(const std::string& to);

// --- Temporary files and directories

/// A temporary file. It is removed with the object unless it was moved or released. When the
/// process is killed, the file stays on disk. It is readable by its owner only, and its name is
/// never used again.
class PNL_API Tmp {
 public:
  /// Makes the file "<prefix>.XXXXXX", X random (0600, O_EXCL). To make it beside a file, pass that
  /// file's path as the prefix.
  explicit Tmp(const std::string& prefix);
  /// Takes over the file `path`, which somebody else writes and which need not exist yet.
  static Tmp Adopt(std::string path);
  Tmp(Tmp&& other) noexcept;
  Tmp& operator=(Tmp&& other) noexcept;
  ~Tmp();

  const std::string& Str() const { return path_; }
  operator const std::string&() const { return path_; }  // NOLINT: converts to its path

  /// Appends. The file is open from construction to Close. When another program is to write the
  /// file by its name, call Close first: that program may replace the file.
  void Write(std::string_view data);
  /// Copies the attributes of `path`, the file to be replaced. When that does not exist, sets
  /// `new_mode` less the umask. Only a regular file can be replaced: anything else is an error.
  void CopyAttrs(const std::string& path, mode_t new_mode = kDefaultMode);
  void Close();  ///< fsync and checked close; further calls do nothing
  /// Calls Close (an adopted file is synced too), then Move to `path`. If the rename fails, the
  /// file stays on disk and is no longer owned: the error's parameter "tmp" names it.
  void Replace(const std::string& path);
  std::string Release() noexcept;  ///< gives up ownership: the file stays; returns its path

 private:
  Tmp() = default;
  std::string path_;
  Fd fd_;
};

/// A temporary directory "<prefix>.brefir-XXXXXX" (0700), X random, removed with its content unless
/// released.
class PNL_API TmpDir {
 public:
  explicit TmpDir(const std::string& prefix);
  TmpDir(TmpDir&& other) noexcept : path_(other.Release()) {}
  TmpDir& operator=(TmpDir&& other) noexcept;
  ~TmpDir();

  const std::string& Str() const { return path_; }       ///< absolute
  operator const std::string&() const { return path_; }  // NOLINT: converts to its path
  std::string Release() noexcept;                        ///< the directory stays

  /// Removes the directories with this prefix that killed processes have left, except those whose
  /// name is in `keep`. It cannot tell such a directory from one that is in use: call it under a
  /// lock that every user of such directories holds.
  static void RemoveStale(const std::string& prefix, const std::set<std::string>& keep = {});

 private:
  std::string path_;
};

// --- Locks

inline constexpr const char* kLockError = "lock";  ///< a type of errors

/// A lock on a path, between processes and between objects of one process. It belongs to the
/// canonical path, not to the file: it still holds after its holder replaced the file. It makes no
/// file beside the target, and it ends with the process that holds it.
///
/// It is an open-file-description lock (fcntl(2)) on one byte of a lock file; a hash of the path
/// selects the byte. Which lock file is used depends only on who may replace the target, so that
/// all of them use the same file and nobody else can block them. It is /run/brefir.lock when only
/// root may replace the target. Otherwise it is in /run/lock (in /tmp when not everybody may write
/// to /run/lock). There it is brefir-UID.lock for the owner of the directory (in a sticky
/// directory: of the file) and root, brefir-UID-GID.lock when the group may write to the directory
/// too, and brefir-all.lock when everybody may. A user who may not replace the target uses a lock
/// file of his own. A lock file that another user has prepared is refused:
/// pnl_err::Error(kLockError, "foreign", lock file).
///
/// A process that forks keeps its locks; its child has none of them.
class PNL_API Lock {
 public:
  Lock() = default;
  /// Locks `path` exclusively. `timeout` in seconds, pauses of at most a second (see
  /// DoLockWithTimeout).
  Lock(const std::string& path, int timeout) { DoLockWithTimeout(path, true, timeout, 1); }
  Lock(Lock&&) noexcept = default;
  Lock& operator=(Lock&&) noexcept = default;
  ~Lock() = default;

  /// Locks `path`, which need not exist; its directory must. Waits up to `timeout` seconds
  /// (monotonic clock) and tries again after pauses of at most `interval` seconds. Throws
  /// pnl_err::Error(kLockError, "timeout", path) after that. `exclusive` false takes a shared lock.
  /// An object that already holds a lock releases it first.
  void DoLockWithTimeout(const std::string& path, bool exclusive, int timeout, int interval);
  /// The same, but a symbolic link at `path` is locked itself instead of its target. For callers
  /// that replace the link.
  void DoLockName(const std::string& path, bool exclusive, int timeout, int interval);
  void Unlock() noexcept { held_.reset(); }
  bool Locked() const noexcept { return held_ != nullptr; }

 private:
  class PNL_LOCAL Held;
  struct PNL_API Release {
    void operator()(Held* held) const noexcept;
  };
  std::unique_ptr<Held, Release> held_;
};

/// Whether `error` means that a lock was still held by somebody else at the end of the time-out.
[[nodiscard]] PNL_API bool IsTaken(const pnl_err::Error& error);

namespace safe {

/// Remembers the working directory; the destructor returns to it. All threads of a process share
/// one working directory.
class PNL_API Folder {
 public:
  Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder();

 private:
  Fd fd_;
};

}  // namespace safe

// --- Trees from outside

/// Makes an unpacked tree from outside safe to keep. Every entry gets the calling user (root or
/// not) as its owner; set-id bits and write permission of group and others are removed. Does not
/// follow links. Returns the size of all its files in bytes, holes included.
///
/// Throws pnl_err::Access("file", entry) before anything is changed. The parameter "reason" is
/// "special_file" (a device, FIFO or socket), "absolute_link", "link_outside" (a symbolic link that
/// leads out of `root`, or could do so because a ".." follows a name), or "hard_link_outside" (a
/// file with names outside `root`).
PNL_API std::uint64_t SecureTree(const std::string& root);

}  // namespace pnl_file
