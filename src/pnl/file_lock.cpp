// The locks of pnl_file.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/retry.h"
#include "pnl/str.h"

namespace pnl_file {
namespace {

constexpr const char* kTimeout = "timeout";

/// One name for all spellings of a path; a link in the last component is not followed.
std::string CanonicalName(const std::string& path) {
  const std::string folder = RealPath(Folder(path));
  if (folder.empty()) throw pnl_err::System("realpath", path, ENOENT);
  return ConcatPath(folder, Name(path));
}

/// One name for all spellings of a path, even when the file does not exist yet.
std::string CanonicalPath(const std::string& path) {
  if (std::string real = RealPath(path); !real.empty()) return real;
  return CanonicalName(LinkTarget(path));
}

// --- The lock file

/// The lock file of a path, and who may open it.
struct LockFile {
  std::string path;
  uid_t owner;
  gid_t group;
  mode_t mode;
};

/// A directory in which everybody may make files. On some systems only root may in /run/lock.
const char* CommonDir() {
  const Info run("/run/lock");
  const bool common = run.IsDir() && (run.Stat().st_mode & (S_ISVTX | S_IWOTH)) == 01002;
  return common ? "/run/lock" : "/tmp";
}

LockFile OwnersLock(uid_t owner) {
  if (owner == 0) return {"/run/brefir.lock", 0, 0, 0600};
  const std::string name = "brefir-" + std::to_string(owner) + ".lock";
  return {ConcatPath(CommonDir(), name), owner, static_cast<gid_t>(-1), 0600};
}

/// A file can be replaced by all who may write to its directory; in a sticky directory only by its
/// owner. The result must not depend on the calling user or the environment.
LockFile LockFileOf(const std::string& path) {
  const Info folder(Folder(path));
  const struct stat& dir = folder.Stat();
  if (faccessat(AT_FDCWD, Folder(path).c_str(), W_OK, AT_EACCESS) != 0) {
    return OwnersLock(geteuid());
  }
  if ((dir.st_mode & S_ISVTX) != 0) {
    const Info file(path);
    return OwnersLock(file.Exists() ? file.Stat().st_uid : geteuid());
  }
  if ((dir.st_mode & S_IWOTH) != 0) {
    return {ConcatPath(CommonDir(), "brefir-all.lock"), dir.st_uid, dir.st_gid, 0666};
  }
  if ((dir.st_mode & S_IWGRP) != 0) {
    const std::string name =
        "brefir-" + std::to_string(dir.st_uid) + "-" + std::to_string(dir.st_gid) + ".lock";
    return {ConcatPath(CommonDir(), name), dir.st_uid, dir.st_gid, 0660};
  }
  return OwnersLock(dir.st_uid);
}

/// Another user may have made the lock file. But a user can give a file only to a group of his own.
bool IsGenuine(const struct stat& info, const LockFile& file) {
  if (!S_ISREG(info.st_mode) || info.st_nlink > 1) return false;
  if (info.st_uid == 0 || info.st_uid == file.owner || file.mode == 0666) return true;
  return file.mode == 0660 && info.st_gid == file.group;
}

/// Empty when another process is just making the file.
Fd Make(const LockFile& file) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  Fd fd(Retry([&] { return open(file.path.c_str(), kFlags, 0600); }));
  if (!fd && errno == EEXIST) return fd;
  if (!fd) throw pnl_err::System("open", file.path, errno);
  // Only root can change the owner; members of the group can change the group.
  const uid_t owner = geteuid() == 0 ? file.owner : static_cast<uid_t>(-1);
  if (fchown(fd.Get(), owner, file.group) != 0 || fchmod(fd.Get(), file.mode) != 0) {
    throw pnl_err::System("chown", file.path, errno);
  }
  return fd;
}

/// Without O_CREAT where the file is there: in a sticky directory the kernel refuses that for
/// files of others (fs.protected_regular, proc(5)).
Fd OpenLockFile(const LockFile& file) {
  Fd fd(
      Retry([&] { return open(file.path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  if (!fd && errno == ENOENT) return Make(file);
  if (!fd && errno == EACCES) return fd;  // its maker has not set the mode yet
  if (!fd && errno == ELOOP) throw pnl_err::Error(kLockError, "foreign", file.path);
  if (!fd) throw pnl_err::System("open", file.path, errno);
  if (!IsGenuine(Info(fd, file.path).Stat(), file)) {
    throw pnl_err::Error(kLockError, "foreign", file.path);
  }
  return fd;
}

// --- The lock in it

/// The byte of the lock file for a path; limited to the range of an offset.
off_t LockOffset(std::string_view path) {
  return static_cast<off_t>(str::Hash(path) >> 2);
}

/// F_WRLCK, F_RDLCK or F_UNLCK, without waiting.
int SetLock(int fd, short type, off_t start, off_t length) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return fcntl(fd, F_OFD_SETLK, &lock);
}

/// Tries once. False when somebody else holds the lock.
bool TryLock(int fd, off_t offset, bool exclusive, const std::string& path) {
  if (SetLock(fd, exclusive ? F_WRLCK : F_RDLCK, offset, 1) == 0) return true;
  if (errno == EAGAIN || errno == EACCES || errno == EINTR) return false;
  throw pnl_err::System("lock", path, errno);
}

/// A cleanup job may remove the lock file; a lock on a removed file has no effect.
bool Removed(int fd) {
  struct stat info {};
  return fstat(fd, &info) == 0 && info.st_nlink == 0;
}

}  // namespace

// --- What a process holds

/// A lock that is held. A forked child shares the open file and so the lock, which would then
/// outlive its holder: the child closes all of them.
class Lock::Held {
 public:
  explicit Held(Fd fd) : fd_(std::move(fd)) {
    [[maybe_unused]] static const int watching =
        pthread_atfork([] { Mutex().lock(); }, [] { Mutex().unlock(); }, AfterFork);
    const std::lock_guard guard(Mutex());
    All().insert(this);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  static Held* Take(const std::string& canonical, const std::string& path, bool exclusive,
                    int timeout, int interval);
  ~Held() {
    const std::lock_guard guard(Mutex());
    All().erase(this);
    // Unlocks explicitly: a child that was made without these handlers may still share the open
    // file.
    if (fd_ && getpid() == holder_) SetLock(fd_.Get(), F_UNLCK, 0, 0);
    fd_.Reset();
  }

 private:
  // Never destroyed: static objects may hold locks until the very end.
  static std::mutex& Mutex() {
    static auto* const mutex = new std::mutex();
    return *mutex;
  }
  static std::set<Held*>& All() {
    static auto* const all = new std::set<Held*>();
    return *all;
  }
  static void AfterFork() {
    for (Held* held : All()) held->fd_.Reset();
    Mutex().unlock();
  }

  Fd fd_;
  const pid_t holder_ = getpid();
};

void Lock::Release::operator()(Held* held) const noexcept {
  delete held;
}

/// Locks `canonical`, the unique name of `path`.
Lock::Held* Lock::Held::Take(const std::string& canonical, const std::string& path, bool exclusive,
                             int timeout, int interval) {
  using std::chrono::milliseconds;

  const LockFile file = LockFileOf(canonical);
  const off_t offset = LockOffset(canonical);
  const pnl_time::Deadline over{std::chrono::seconds(timeout)};
  const milliseconds longest =
      std::max(milliseconds(10), milliseconds(std::chrono::seconds(interval)));
  for (milliseconds pause(10);; pause = std::min(2 * pause, longest)) {
    Fd fd = OpenLockFile(file);
    if (fd && TryLock(fd.Get(), offset, exclusive, path) && !Removed(fd.Get())) {
      return new Held(std::move(fd));
    }
    if (over.Passed()) {
      throw fd ? pnl_err::Error(kLockError, kTimeout, path)
               : pnl_err::System("open", file.path, EACCES);
    }
    std::this_thread::sleep_for(std::min(pause, milliseconds(over.Left())));
  }
}

void Lock::DoLockWithTimeout(const std::string& path, bool exclusive, int timeout, int interval) {
  Unlock();
  held_.reset(Held::Take(CanonicalPath(path), path, exclusive, timeout, interval));
}

void Lock::DoLockName(const std::string& path, bool exclusive, int timeout, int interval) {
  Unlock();
  held_.reset(Held::Take(CanonicalName(path), path, exclusive, timeout, interval));
}

bool IsTaken(const pnl_err::Error& error) {
  return error.type() == kLockError && error.object() == kTimeout;
}

}  // namespace pnl_file
