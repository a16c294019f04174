#include "pnl/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <tuple>

#include "pnl/err.h"
#include "pnl/log.h"
#include "pnl/retry.h"

namespace pnl_file {
namespace {

pnl_log::Module log_module("file");

/// Whether a failure means that there is no such file.
bool Absent(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

/// Only regular files are opened: opening a FIFO could block for ever, opening a device may have an
/// effect.
void CheckReadable(const struct stat& info, const std::string& path) {
  if (S_ISDIR(info.st_mode)) throw pnl_err::System("open", path, EISDIR);
  if (!S_ISREG(info.st_mode)) throw pnl_err::System("open", path, EINVAL);
}

OpenFile OpenChecked(const std::string& path, const Info& info) {
  CheckReadable(info.Stat(), path);
  // O_NONBLOCK: the regular file may have been replaced since the check.
  Fd fd = Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  Info opened(fd, path);
  CheckReadable(opened.Stat(), path);
  return {std::move(fd), std::move(opened)};
}

std::string ReadOpened(const OpenFile& file, const std::string& path) {
  // The size is only a hint: files of /proc have none, and a file may grow. With one byte more, the
  // end of an unchanged file is found without growing the buffer.
  std::string content(file.info.Size() + 1, '\0');
  std::size_t used = 0;
  while (const std::size_t got =
             ReadSome(file.fd.Get(), content.data() + used, content.size() - used, path)) {
    used += got;
    if (used == content.size()) content.resize(2 * used + 4096);
  }
  content.resize(used);
  return content;
}

constexpr const char* kAccessAcl = "system.posix_acl_access";

/// Integrity hashes belong to the content: they must not be copied, the kernel computes new ones.
bool BelongsToContent(std::string_view xattr) {
  return xattr == "security.ima" || xattr == "security.evm";
}

std::vector<std::string> XattrNames(const std::string& path, bool nofollow) {
  std::string list(XATTR_LIST_MAX, '\0');  // the kernel's own limit (xattr(7))
  const ssize_t size = (nofollow ? llistxattr : listxattr)(path.c_str(), list.data(), list.size());
  if (size < 0 && errno == ENOTSUP) return {};
  if (size < 0) throw pnl_err::System("listxattr", path, errno);
  std::vector<std::string> names;
  for (std::size_t at = 0; at < static_cast<std::size_t>(size); at += names.back().size() + 1) {
    names.emplace_back(list.c_str() + at);
  }
  return names;
}

void SetXattr(int fd, const std::string& name, const std::string& value, const std::string& path) {
  std::string present(value.size() + 1, '\0');
  const ssize_t size = fgetxattr(fd, name.c_str(), present.data(), present.size());
  // This process may have no permission to set the label, but an equal label needs no change.
  if (size >= 0 && present.compare(0, static_cast<std::size_t>(size), value) == 0) return;
  if (fsetxattr(fd, name.c_str(), value.data(), value.size(), 0) != 0 && errno != ENOTSUP) {
    throw pnl_err::System("setxattr", path, errno).add_param("name", name);
  }
}

/// Removes an ACL that the file inherited from its directory: it could give access to users beyond
/// `mode`.
void RemoveAcl(int fd, const std::string& path) {
  if (fremovexattr(fd, kAccessAcl) != 0 && errno != ENODATA && errno != ENOTSUP) {
    throw pnl_err::System("removexattr", path, errno).add_param("name", kAccessAcl);
  }
}

}  // namespace

// --- Descriptors

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    Reset();
    fd_ = other.Release();
  }
  return *this;
}

int Fd::Release() noexcept {
  return std::exchange(fd_, -1);
}

void Fd::Reset() noexcept {
  if (fd_ >= 0) close(Release());
}

void Fd::Close(std::string_view path) {
  if (fd_ < 0) return;
  // close(2) frees the descriptor whatever it returns, even EINTR.
  if (close(Release()) != 0 && errno != EINTR) throw pnl_err::System("close", path, errno);
}

Fd Open(const std::string& path, int flags, mode_t mode) {
  Fd fd(Retry([&] { return open(path.c_str(), flags | O_CLOEXEC, mode); }));
  if (!fd) throw pnl_err::System("open", path, errno);
  return fd;
}

void WriteAll(int fd, std::string_view data, std::string_view path) {
  while (!data.empty()) {
    const ssize_t written = Retry([&] { return write(fd, data.data(), data.size()); });
    if (written < 0) throw pnl_err::System("write", path, errno);
    if (written == 0) throw pnl_err::System("write", path, EIO);
    data.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::size_t ReadSome(int fd, char* buffer, std::size_t size, std::string_view path) {
  const ssize_t got = Retry([&] { return read(fd, buffer, size); });
  if (got < 0) throw pnl_err::System("read", path, errno);
  return static_cast<std::size_t>(got);
}

void Sync(int fd, std::string_view path) {
  if (Retry([&] { return fsync(fd); }) != 0) throw pnl_err::System("fsync", path, errno);
}

// --- Whole files

std::string Read(const std::string& path) {
  const Info info(path);
  return info.Exists() ? ReadOpened(OpenChecked(path, info), path) : "";
}

std::string ReadE(const std::string& path) {
  return ReadOpened(OpenRegular(path), path);
}

// --- Names

std::string ConcatPath(std::string_view a, std::string_view b) {
  if (a.empty() || b.empty()) return std::string(a) + std::string(b);
  while (a.ends_with('/')) a.remove_suffix(1);
  while (b.starts_with('/')) b.remove_prefix(1);
  std::string path;
  path.reserve(a.size() + 1 + b.size());
  path.append(a).append("/").append(b);
  return path;
}

std::string ConcatPath(std::string_view a, std::string_view b, std::string_view c) {
  return ConcatPath(ConcatPath(a, b), c);
}

std::string Name(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));  // npos + 1 is 0: the whole path
}

std::string Folder(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
  if (real) return real.get();
  if (Absent(errno)) return "";
  throw pnl_err::System("realpath", path, errno);
}

std::string GetCurrentDir() {
  const std::unique_ptr<char, decltype(&free)> dir(getcwd(nullptr, 0), free);
  if (!dir) throw pnl_err::System("getcwd", ".", errno);
  return dir.get();
}

// --- What is there

void Attrs::SafeSet(const std::string& path, bool nofollow) const {
  const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | (nofollow ? O_NOFOLLOW : 0);
  SafeSet(Open(path, flags).Get(), path);
}

void Attrs::SafeSet(int fd, const std::string& path) const {
  struct stat now {};
  if (fstat(fd, &now) != 0) throw pnl_err::System("stat", path, errno);
  if ((now.st_uid != uid || now.st_gid != gid) && fchown(fd, uid, gid) != 0) {
    throw pnl_err::System("chown", path, errno);
  }
  bool has_acl = false;
  for (const auto& [name, value] : xattrs) {
    has_acl |= name == kAccessAcl;
    SetXattr(fd, name, value, path);
  }
  if (!has_acl) RemoveAcl(fd, path);
  if (fchmod(fd, mode) != 0) throw pnl_err::System("chmod", path, errno);
}

Info::Info(const std::string& path, bool nofollow) : path_(path), nofollow_(nofollow) {
  exists_ = (nofollow ? lstat : stat)(path.c_str(), &stat_) == 0;
  if (!exists_ && !Absent(errno)) throw pnl_err::System("stat", path, errno);
}

Info::Info(const Fd& fd, const std::string& path) : path_(path), nofollow_(false), exists_(true) {
  if (fstat(fd.Get(), &stat_) != 0) throw pnl_err::System("stat", path, errno);
}

pnl_date::DateTime Info::MTime() const {
  return pnl_date::DateTime(exists_ ? stat_.st_mtim.tv_sec : 0);
}

Attrs Info::GetAttrs() const {
  if (!exists_) throw pnl_err::System("stat", path_, ENOENT);
  Attrs attrs{stat_.st_uid, stat_.st_gid, stat_.st_mode & 07777, {}};
  std::string value(XATTR_SIZE_MAX, '\0');
  for (const std::string& name : XattrNames(path_, nofollow_)) {
    if (BelongsToContent(name)) continue;
    const ssize_t size =
        (nofollow_ ? lgetxattr : getxattr)(path_.c_str(), name.c_str(), value.data(), value.size());
    if (size >= 0) {
      attrs.xattrs.emplace_back(name, value.substr(0, static_cast<std::size_t>(size)));
    } else if (errno != ENODATA && errno != ENOTSUP) {
      throw pnl_err::System("getxattr", path_, errno).add_param("name", name);
    }
  }
  return attrs;
}

bool Info::SameVersion(const Info& other) const {
  if (!exists_ || !other.exists_) return exists_ == other.exists_;
  const auto same_time = [](const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  };
  const struct stat& that = other.stat_;
  return stat_.st_dev == that.st_dev && stat_.st_ino == that.st_ino &&
         stat_.st_size == that.st_size && same_time(stat_.st_mtim, that.st_mtim) &&
         same_time(stat_.st_ctim, that.st_ctim);
}

bool Info::Settled() const {
  using namespace std::chrono;
  if (!exists_) return true;
  const auto age = system_clock::now().time_since_epoch() - seconds(stat_.st_ctim.tv_sec) -
                   nanoseconds(stat_.st_ctim.tv_nsec);
  return age > milliseconds(20);
}

OpenFile OpenRegular(const std::string& path) {
  const Info info(path);
  if (!info.Exists()) throw pnl_err::System("open", path, ENOENT);
  return OpenChecked(path, info);
}

bool Exists(const std::string& path) {
  return Info(path).Exists();
}

bool IsDir(const std::string& path) {
  return Info(path).IsDir();
}

Dir::Dir(const std::string& path) : path_(path) {
  do {
    stream_ = opendir(path.c_str());
  } while (stream_ == nullptr && errno == EINTR);
  if (stream_ == nullptr) throw pnl_err::System("opendir", path, errno);
}

Dir::~Dir() {
  closedir(static_cast<DIR*>(stream_));
}

void Dir::Sort() {
  decltype(sorted_) entries;
  while (Read()) entries.emplace_back(name_, type_);
  std::sort(entries.rbegin(), entries.rend());
  sorted_ = std::move(entries);
}

bool Dir::Read() {
  if (!sorted_.empty()) {
    std::tie(name_, type_) = std::move(sorted_.back());
    sorted_.pop_back();
    return true;
  }
  do {
    errno = 0;  // only errno distinguishes the end from a failure
    const dirent* entry = readdir(static_cast<DIR*>(stream_));
    if (entry == nullptr && errno != 0) throw pnl_err::System("readdir", path_, errno);
    if (entry == nullptr) return false;
    name_ = entry->d_name;
    type_ = entry->d_type;
  } while (name_ == "." || name_ == "..");
  return true;
}

std::string Dir::FullName() const {
  return ConcatPath(path_, name_);
}

pnl_file::Info Dir::Info() const {
  return pnl_file::Info(FullName());
}

std::optional<OpenFile> Dir::OpenRegular() const {
  const int dir = dirfd(static_cast<DIR*>(stream_));
  if (type_ != DT_REG) {  // opening a device may have an effect
    struct stat info {};
    const bool known = type_ != DT_LNK && type_ != DT_UNKNOWN;
    if (known || fstatat(dir, name_.c_str(), &info, 0) != 0 || !S_ISREG(info.st_mode)) return {};
  }
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  Fd fd(Retry([&] { return openat(dir, name_.c_str(), kFlags); }));
  if (!fd && Absent(errno)) return {};
  if (!fd) throw pnl_err::System("open", FullName(), errno);
  pnl_file::Info info(fd, name_);
  if (!info.IsFile()) return {};
  return OpenFile{std::move(fd), std::move(info)};
}

bool Dir::Replaced() const {
  struct stat mine {};
  if (fstat(dirfd(static_cast<DIR*>(stream_)), &mine) != 0) {
    throw pnl_err::System("stat", path_, errno);
  }
  const pnl_file::Info there(path_);
  return !there.Exists() || there.Stat().st_dev != mine.st_dev ||
         there.Stat().st_ino != mine.st_ino;
}

// --- Changes

void MkDir(const std::string& path) {
  int error = mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
  const std::string parent = Folder(path);
  if (error == ENOENT && parent != path) {
    MkDir(parent);
    error = mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
  }
  if (error != 0 && !IsDir(path)) throw pnl_err::System("mkdir", path, error);
}

void RemoveFile(const std::string& path) {
  if (unlink(path.c_str()) != 0 && !Absent(errno)) throw pnl_err::System("unlink", path, errno);
}

namespace safe {

Folder::Folder() : fd_(Open(".", O_PATH | O_DIRECTORY)) {}

Folder::~Folder() {
  if (fchdir(fd_.Get()) != 0) PNL_LOG(log_module, 3, "Cannot return to the working directory");
}

}  // namespace safe
}  // namespace pnl_file
