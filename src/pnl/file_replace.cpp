// The parts of pnl_file that replace files and directories, and temporary files.

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/retry.h"

namespace pnl_file {
namespace {

pnl_log::Module log_module("file");

/// The part of a temporary directory's name that no other program uses.
constexpr const char* kTmpDirMark = ".brefir-";

// --- Replacing

/// Opened before a rename, so that the only thing that can fail after it is the sync itself.
Fd OpenFolder(const std::string& path) {
  return Open(Folder(path), O_RDONLY | O_DIRECTORY);
}

void Rename(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) != 0) {
    throw pnl_err::System("rename", to, errno).add_param("tmp", from);
  }
}

/// The rename has happened and cannot be undone. When the directory cannot be synced (some file
/// systems do not support it), that is only logged.
void SyncFolder(const Fd& folder, const std::string& path) noexcept {
  try {
    Sync(folder.Get(), path);
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "Directory is not synced: %s", error.what());
  }
}

/// The path of the old directory while PlaceTree without exchange works: one level deeper, so that
/// nobody takes it for an entry beside `to`.
std::string AsidePath(const std::string& to) {
  return ConcatPath(Folder(to), ".replaced", Name(to));
}

/// Renames and syncs both directories.
void MoveOver(const std::string& from, const std::string& to) {
  const Fd from_folder = OpenFolder(from);
  const Fd to_folder = OpenFolder(to);
  Rename(from, to);
  SyncFolder(to_folder, to);
  SyncFolder(from_folder, from);
}

/// PlaceTree without an exchange.
void ReplaceInTwoSteps(const std::string& from, const std::string& to) {
  RecoverTree(to);
  if (!Info(to, true).Exists()) return MoveOver(from, to);
  const std::string aside = AsidePath(to);
  MkDir(Folder(aside));
  MoveOver(to, aside);
  try {
    MoveOver(from, to);
  } catch (const pnl_err::Error&) {
    RecoverTree(to);
    throw;
  }
  try {
    MoveOver(aside, from);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "The old '%s' is left: %s", to.c_str(), error.what());
  }
}

/// The errors of a file system or kernel that has no exchange.
bool Unknown(int error) {
  return error == EINVAL || error == ENOSYS || error == ENOTSUP;
}

/// The process's umask, read from /proc: umask(2) would change it for every thread. Without /proc,
/// new files are accessible to their owner only.
mode_t Umask() {
  const std::string status = Read("/proc/self/status");
  const std::size_t at = status.find("\nUmask:");
  unsigned mask = 0;
  const bool told =
      at != std::string::npos && std::sscanf(status.c_str() + at, "\nUmask: %o", &mask) == 1;
  return told ? mask : 077;
}

std::string Absolute(const std::string& path) {
  return path.starts_with('/') ? path : ConcatPath(GetCurrentDir(), path);
}

}  // namespace

std::string LinkTarget(std::string path) {
  if (path.empty()) throw pnl_err::System("open", path, ENOENT);
  // stat(2) fails for links that the kernel does not follow (proc(5), protected_symlinks).
  const Info followed(path);
  for (int links = 0; links < 40; ++links) {  // the kernel's limit, path_resolution(7)
    char target[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), target, sizeof target);
    if (size < 0 && (errno == EINVAL || errno == ENOENT)) return path;  // not a link, or missing
    if (size < 0) throw pnl_err::System("readlink", path, errno);
    const std::string_view next(target, static_cast<std::size_t>(size));
    path.resize(next.starts_with('/') ? 0 : path.rfind('/') + 1);  // npos + 1 is 0
    path += next;
  }
  throw pnl_err::System("readlink", path, ELOOP);
}

void Move(const std::string& from, const std::string& to) {
  Fd folder;
  try {
    folder = OpenFolder(to);
  } catch (pnl_err::Error& error) {
    throw error.add_param("tmp", from);
  }
  Rename(from, to);
  SyncFolder(folder, to);
}

void RecoverTree(const std::string& to) {
  const std::string aside = AsidePath(to);
  if (!Info(aside, true).Exists()) return;
  if (Info(to, true).Exists()) {
    Remove(aside);
  } else {
    MoveOver(aside, to);
  }
}

void PlaceTree(const std::string& from, const std::string& to, const std::function<void()>& last) {
  const Fd folder = OpenFolder(to);
  const Fd tree = Open(from, O_RDONLY | O_DIRECTORY);
  if (syncfs(tree.Get()) != 0) throw pnl_err::System("syncfs", from, errno);
  const auto rename_as = [&](unsigned flags) {
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0;
  };
  if (last) last();
  // Between the two calls somebody else may make `to`, or remove it.
  while (!rename_as(RENAME_EXCHANGE)) {
    if (Unknown(errno)) return ReplaceInTwoSteps(from, to);
    if (errno != ENOENT) throw pnl_err::System("renameat2", to, errno);
    if (rename_as(RENAME_NOREPLACE)) break;
    if (Unknown(errno)) return ReplaceInTwoSteps(from, to);
    if (errno != EEXIST) throw pnl_err::System("renameat2", to, errno);
  }
  SyncFolder(folder, to);
}

void Write(const std::string& path, std::string_view content, mode_t new_mode) {
  const std::string target = LinkTarget(path);
  Tmp tmp(target);
  tmp.Write(content);
  tmp.CopyAttrs(target, new_mode);
  tmp.Replace(target);
}

// --- Temporary files and directories

Tmp::Tmp(const std::string& prefix) {
  fd_ = Fd(Retry([&] {
    path_ = prefix + ".XXXXXX";
    return mkostemp(path_.data(), O_CLOEXEC);
  }));
  if (!fd_) throw pnl_err::System("open", prefix, errno);
}

Tmp Tmp::Adopt(std::string path) {
  Tmp tmp;
  tmp.path_ = std::move(path);
  return tmp;
}

Tmp::Tmp(Tmp&& other) noexcept : path_(other.Release()), fd_(std::move(other.fd_)) {}

Tmp& Tmp::operator=(Tmp&& other) noexcept {
  if (this != &other) {
    Tmp old(std::move(*this));
    path_ = other.Release();
    fd_ = std::move(other.fd_);
  }
  return *this;
}

Tmp::~Tmp() {
  if (!path_.empty()) unlink(path_.c_str());
}

void Tmp::Write(std::string_view data) {
  WriteAll(fd_.Get(), data, path_);
}

void Tmp::CopyAttrs(const std::string& path, mode_t new_mode) {
  const Info old(path);
  if (old.IsDir()) throw pnl_err::System("open", path, EISDIR);
  if (old.Exists() && !old.IsFile()) throw pnl_err::System("open", path, EINVAL);
  if (!fd_) fd_ = Open(path_, O_RDONLY | O_NOFOLLOW);
  if (old.Exists()) {
    old.GetAttrs().SafeSet(fd_.Get(), path_);
  } else if (fchmod(fd_.Get(), new_mode & ~Umask()) != 0) {
    throw pnl_err::System("chmod", path_, errno);
  }
}

void Tmp::Close() {
  if (!fd_) return;
  Sync(fd_.Get(), path_);
  fd_.Close(path_);
}

void Tmp::Replace(const std::string& path) {
  // Another program may have written the file by its name: its content must be synced first.
  if (!fd_) fd_ = Open(path_, O_RDONLY | O_NOFOLLOW);
  Close();
  const Fd folder = OpenFolder(path);
  Rename(Release(), path);
  SyncFolder(folder, path);
}

std::string Tmp::Release() noexcept {
  return std::exchange(path_, std::string());
}

TmpDir::TmpDir(const std::string& prefix) : path_(Absolute(prefix) + kTmpDirMark + "XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw pnl_err::System("mkdtemp", prefix, errno);
}

TmpDir& TmpDir::operator=(TmpDir&& other) noexcept {
  if (this != &other) {
    TmpDir old(std::move(*this));
    path_ = other.Release();
  }
  return *this;
}

TmpDir::~TmpDir() {
  if (path_.empty()) return;
  try {
    Remove(path_);
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "Temporary directory is left: %s", error.what());
  }
}

std::string TmpDir::Release() noexcept {
  return std::exchange(path_, std::string());
}

void TmpDir::RemoveStale(const std::string& prefix, const std::set<std::string>& keep) {
  const std::string begin = Name(prefix) + kTmpDirMark;
  for (Dir dir(Folder(prefix)); dir.Read();) {
    const std::string& name = dir.name();
    if (name.size() != begin.size() + 6 || !name.starts_with(begin) || keep.contains(name))
      continue;
    if (Info(dir.FullName(), true).IsDir()) Remove(dir.FullName());
  }
}

}  // namespace pnl_file
