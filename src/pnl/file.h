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
/// Replacing a file goes one way everywhere (Write, Tmp::Replace): a temporary beside it (0600,
/// unpredictable name, O_EXCL), write, attributes of the old file, fsync, checked close, one
/// rename(2) over the old file, fsync of the directory. The path is never absent and never
/// half-written, whatever fails and whenever the process dies. A directory that does not sync is
/// logged (module "file", level 3): the move has happened then.
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
  int Release() noexcept;             ///< gives the descriptor up, open
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

/// The whole file; "" when it does not exist, every other failure throws. Opening never blocks: a
/// FIFO, device or socket is an error (operation "open", EINVAL).
[[nodiscard]] PNL_API std::string Read(const std::string& path);
/// The same, but a missing file throws too.
[[nodiscard]] PNL_API std::string ReadE(const std::string& path);

inline constexpr mode_t kDefaultMode = 0666;  ///< of a new file, less the umask
inline constexpr mode_t kSecretMode = 0600;   ///< for keys and values that may be secret

/// Replaces the file by `content` (see above), keeping owner, group, mode, ACL and security label;
/// a new file gets `new_mode` less the umask. A symbolic link is followed: its target is replaced.
/// On failure the old file is untouched and no temporary stays, except when the rename itself
/// fails: then the temporary with the new content stays and the error's parameter "tmp" names it.
PNL_API void Write(const std::string& path, std::string_view content,
                   mode_t new_mode = kDefaultMode);

// --- Names

[[nodiscard]] PNL_API std::string ConcatPath(std::string_view a,
                                             std::string_view b);  ///< one "/" between
[[nodiscard]] PNL_API std::string ConcatPath(std::string_view a, std::string_view b,
                                             std::string_view c);
[[nodiscard]] PNL_API std::string Name(std::string_view path);  ///< after the last "/"
[[nodiscard]] PNL_API std::string Folder(
    std::string_view path);  ///< before it; "." when there is none
/// Canonical absolute path (realpath(3)) of an existing file. Of a missing one: "".
[[nodiscard]] PNL_API std::string RealPath(const std::string& path);
/// Where a write to `path` ends up: symbolic links in its last component followed, the last of
/// which may lead to nothing. Throws "file" for a loop.
[[nodiscard]] PNL_API std::string LinkTarget(std::string path);
[[nodiscard]] PNL_API std::string GetCurrentDir();

// --- What is there

/// Owner, group, mode, and the extended attributes (POSIX ACL, security label, user attributes) of
/// a file.
class PNL_API Attrs {
 public:
  /// Puts these attributes on `path`: owner and group first (chown clears set-id bits), then
  /// extended attributes, then mode. `nofollow` true: a symbolic link is refused (ELOOP), not
  /// followed. Throws when one of them cannot be set; attributes that the target file system
  /// does not know are left out.
  void SafeSet(const std::string& path, bool nofollow) const;
  void SafeSet(int fd, const std::string& path) const;  ///< on an open file; `path` for errors

  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;  ///< permission and set-id bits
  std::vector<std::pair<std::string, std::string>> xattrs;
};

/// What stat(2) tells about a path at the time of construction. ENOENT, ENOTDIR and ELOOP mean
/// "does not exist"; every other failure throws.
class PNL_API Info {
 public:
  /// `nofollow` true: the symbolic link itself; false: what it points to.
  explicit Info(const std::string& path, bool nofollow = false);
  /// Of an open file; `path` for errors.
  Info(const Fd& fd, const std::string& path);

  bool Exists() const { return exists_; }
  bool IsDir() const { return exists_ && S_ISDIR(stat_.st_mode); }
  bool IsFile() const { return exists_ && S_ISREG(stat_.st_mode); }  ///< regular file
  bool IsLink() const { return exists_ && S_ISLNK(stat_.st_mode); }  ///< only with nofollow
  std::uint64_t Size() const { return exists_ ? static_cast<std::uint64_t>(stat_.st_size) : 0; }
  pnl_date::DateTime MTime() const;
  const struct stat& Stat() const { return stat_; }
  Attrs GetAttrs() const;  ///< throws when the file does not exist

  /// True when both saw the same file, size and change times (nanoseconds): an unchanged file. Two
  /// absent files are the same.
  bool SameVersion(const Info& other) const;
  /// Whether any later change will show in SameVersion. The times come from the kernel's coarse
  /// clock, which steps by up to 10 ms: two changes within one step look the same.
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
/// Opens a regular file, following links. Nothing else is opened, and nothing blocks: a FIFO,
/// device or socket is an error (operation "open", EINVAL), a directory too (EISDIR).
[[nodiscard]] PNL_API OpenFile OpenRegular(const std::string& path);

[[nodiscard]] PNL_API bool Exists(const std::string& path);  ///< follows links
[[nodiscard]] PNL_API bool IsDir(const std::string& path);   ///< follows links

/// Walks the entries of one directory, in kernel order unless they are sorted; names that begin
/// with a dot are seen, "." and ".." are not.
///
///     for (pnl_file::Dir dir(path); dir.Read();) Use(dir.name());
class PNL_API Dir {
 public:
  explicit Dir(const std::string& path);
  Dir(const Dir&) = delete;
  Dir& operator=(const Dir&) = delete;
  ~Dir();

  bool Read();  ///< steps to the next entry; false at the end
  void Sort();  ///< takes in the entries that are left; Read gives them by the bytes of their names
  const std::string& name() const { return name_; }
  std::string FullName() const;  ///< directory + "/" + name
  pnl_file::Info Info() const;   ///< of the present entry, following links
  /// Opens the present entry as the function of that name does. None when it is no regular file, or
  /// gone meanwhile. Entries are looked up in the directory that was opened, also when another one
  /// has taken its path since.
  std::optional<OpenFile> OpenRegular() const;
  /// Another directory, or none, stands at the path by now.
  bool Replaced() const;

 private:
  std::string path_;
  std::string name_;
  unsigned char type_ = 0;                                     // as readdir(3) tells it
  void* stream_;                                               // DIR*
  std::vector<std::pair<std::string, unsigned char>> sorted_;  // name and type; the next one last
};

// --- Changes

/// Makes the directory and its missing parents (0777 less the umask). An existing directory is
/// fine; anything else of that name is an error.
PNL_API void MkDir(const std::string& path);
/// Unlinks a file or link; a missing one is fine, a directory is an error.
PNL_API void RemoveFile(const std::string& path);
/// Removes a file, link or whole tree; a missing one is fine. Goes by openat(2)/unlinkat(2) without
/// following links, also when a directory is swapped for a link meanwhile, and holds few
/// descriptors at any depth. A mount point is an error (EBUSY) and never entered. Stops at the
/// first error; what is gone by then stays gone. Refuses "", "/", a last component "." or ".." and
/// a NUL: pnl_err::Access("file", path).
PNL_API void Remove(const std::string& path);
/// rename(2) over `to`, then fsync of the directory of `to`. `from` must be on the same file system
/// and complete: its content is not synced here. On failure both stay as they were; the error's
/// value is `to`, its parameter "tmp" is `from`.
PNL_API void Move(const std::string& from, const std::string& to);
/// Puts the directory `from` in the place of `to`, which is there at every moment: an existing one
/// is exchanged with it (renameat2(2)) and stands at `from` afterwards, for the caller to remove.
/// What `from` holds reaches the disk first; `last` is called then, right before the exchange, and
/// syncs what it changes. Both on one file system; on failure they stay as they were.
///
/// A file system that cannot exchange (FUSE, some of the network) gets two renames: what stands at
/// `to` is put aside for a moment, as FOLDER/.replaced/NAME. The process may be killed in between:
/// hold one lock, the same for all who place a tree there, and call RecoverTree first.
PNL_API void PlaceTree(const std::string& from, const std::string& to,
                       const std::function<void()>& last = {});
/// Ends what a killed PlaceTree has left: what it had put aside goes back to `to`, or is removed
/// where a new one stands there. Call it under the lock of PlaceTree.
PNL_API void RecoverTree(const std::string& to);

// --- Temporary files and directories

/// A temporary file, removed with the object unless it was moved or released. That of a process
/// that was killed stays, closed to others, and disturbs nobody: no name is given twice.
class PNL_API Tmp {
 public:
  /// Makes "<prefix>.XXXXXX", X random: 0600, O_EXCL. A prefix that is a path to be replaced puts
  /// the temporary beside it.
  explicit Tmp(const std::string& prefix);
  /// Takes over an existing or future file of that very name, which somebody else writes.
  static Tmp Adopt(std::string path);
  Tmp(Tmp&& other) noexcept;
  Tmp& operator=(Tmp&& other) noexcept;
  ~Tmp();

  const std::string& Str() const { return path_; }
  operator const std::string&() const { return path_; }  // NOLINT: reads as its path

  /// Appends; the file is open from construction to Close. Close it first where somebody else
  /// writes the file by its name: what stands there then may be another file.
  void Write(std::string_view data);
  /// Gives it the attributes of the file `path`, which it will replace; when there is none,
  /// `new_mode` less the umask. Only a regular file can be replaced: anything else is an error.
  void CopyAttrs(const std::string& path, mode_t new_mode = kDefaultMode);
  void Close();  ///< fsync and checked close; further calls do nothing
  /// Close (an adopted file is synced too), then Move onto `path`. If the rename fails, the file
  /// stays on disk and is no longer owned: the error's parameter "tmp" names it.
  void Replace(const std::string& path);
  std::string Release() noexcept;  ///< the file stays; returns its path

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
  operator const std::string&() const { return path_; }  // NOLINT: reads as its path
  std::string Release() noexcept;                        ///< the directory stays

  /// Removes the directories with this prefix that killed processes have left, except those whose
  /// name is in `keep`. Call it under a lock that all makers of such directories hold: it cannot
  /// tell a killed process's directory from that of a living one.
  static void RemoveStale(const std::string& prefix, const std::set<std::string>& keep = {});

 private:
  std::string path_;
};

// --- Locks

inline constexpr const char* kLockError = "lock";  ///< a type of errors

/// An exclusive lock on a path, between processes and between objects of one process. It is keyed
/// by the canonical path, not by the file, so that it still holds after its holder replaced the
/// file; it leaves no file beside the target and dies with its holder.
///
/// Carried out as an open-file-description lock (fcntl(2)) on one byte, chosen by a hash of the
/// path, of one lock file. Which one depends on the target alone, so that everybody who may replace
/// it meets there, and nobody else can hold them up: /run/brefir.lock where that is root only; else
/// below /run/lock (/tmp where that is not for everybody) brefir-UID.lock for the owner of the
/// directory (in a sticky one: of the file) and root, brefir-UID-GID.lock where the group may write
/// there too, brefir-all.lock where everybody may. Who may not write there locks by himself. A lock
/// file that somebody else made ready is refused: pnl_err::Error(kLockError, "foreign", lock file).
///
/// A process that forks keeps its locks; its child has none of them.
class PNL_API Lock {
 public:
  Lock() = default;
  /// Locks `path` for itself alone, with pauses of at most a second (see DoLockWithTimeout).
  Lock(const std::string& path, int timeout) { DoLockWithTimeout(path, true, timeout, 1); }
  Lock(Lock&&) noexcept = default;
  Lock& operator=(Lock&&) noexcept = default;
  ~Lock() = default;

  /// Locks `path` (which need not exist, but its directory must). Waits up to `timeout` seconds of
  /// the monotonic clock, trying again after pauses of at most `interval` seconds. Throws
  /// pnl_err::Error(kLockError, "timeout", path). `exclusive` false takes a shared lock. An object that
  /// holds a lock gives it back first.
  void DoLockWithTimeout(const std::string& path, bool exclusive, int timeout, int interval);
  /// The same for who replaces `path` itself also where it is a symbolic link: what the link leads
  /// to is not locked.
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

/// Whether `error` says that somebody else kept a lock for longer than was waited.
[[nodiscard]] PNL_API bool IsTaken(const pnl_err::Error& error);

namespace safe {

/// Remembers the working directory and returns to it when it ends. The working directory belongs to
/// the process: other threads see it too.
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

// --- Foreign trees

/// Makes an unpacked foreign tree safe to keep: every entry is made root's own (the caller's, when
/// not root), set-id bits and write permission of group and others go. Does not follow links.
/// Returns the size of all its files, holes included, in bytes.
///
/// Throws pnl_err::Access("file", entry), before anything is changed, with the parameter "reason":
/// "special_file" (a device, FIFO or socket), "absolute_link", "link_outside" (a symbolic link that
/// leads out of `root`, or could by a ".." behind a name), "hard_link_outside" (a file that has
/// names outside `root`).
PNL_API std::uint64_t SecureTree(const std::string& root);

}  // namespace pnl_file
