#include "faults/sync_order.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdint>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace faults {
namespace {

std::optional<struct stat> Look(const std::string& path, bool follow) {
  struct stat info {};
  if ((follow ? stat : lstat)(path.c_str(), &info) != 0) return std::nullopt;
  return info;
}

/// The way to what a descriptor of the caller leads to.
std::string Opened(const support::Call& call, std::uint64_t fd) {
  return "/proc/" + std::to_string(call.thread) + "/fd/" + std::to_string(static_cast<int>(fd));
}

/// A path that the caller has given, with the directory that it starts from.
std::string Given(const support::Call& call, std::uint64_t dir, std::uint64_t address) {
  const std::string path = support::TextAt(call, address);
  if (path.starts_with('/') || static_cast<int>(dir) == AT_FDCWD) return path;
  return fs::read_symlink(Opened(call, dir)) / path;
}

}  // namespace

const std::vector<int>& SyncOrder::Calls() {
  static const std::vector<int> calls = {
      SYS_write,  SYS_writev, SYS_pwrite64,  SYS_copy_file_range, SYS_sendfile, SYS_ftruncate,
      SYS_fchmod, SYS_fchown, SYS_fsetxattr, SYS_fremovexattr,    SYS_fsync,    SYS_fdatasync,
      SYS_syncfs, SYS_rename, SYS_renameat,  SYS_renameat2};
  return calls;
}

void SyncOrder::See(const support::Call& call) {
  switch (call.number) {
    case SYS_copy_file_range:
      return Change(call, call.args[2]);
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_syncfs:
      return Sync(call);
    // What other programs move is their affair.
    case SYS_rename:
      if (!call.own) return;
      return Move(Given(call, static_cast<std::uint64_t>(AT_FDCWD), call.args[0]),
                  Given(call, static_cast<std::uint64_t>(AT_FDCWD), call.args[1]));
    case SYS_renameat:
    case SYS_renameat2:
      if (!call.own) return;
      return Move(Given(call, call.args[0], call.args[1]), Given(call, call.args[2], call.args[3]));
    default:
      return Change(call, call.args[0]);
  }
}

void SyncOrder::Change(const support::Call& call, std::uint64_t fd) {
  const auto info = Look(Opened(call, fd), true);
  if (info && S_ISREG(info->st_mode)) changed_.emplace(info->st_dev, info->st_ino);
}

void SyncOrder::Sync(const support::Call& call) {
  const auto info = Look(Opened(call, call.args[0]), true);
  if (!info) return;
  const bool whole = call.number == SYS_syncfs;
  const auto synced = [&](const File& file) {
    return file.first == info->st_dev && (whole || file.second == info->st_ino);
  };
  std::erase_if(changed_, synced);
  std::erase_if(moved_, [&](const auto& move) { return synced(move.first); });
}

void SyncOrder::Move(const std::string& from, const std::string& to) {
  const auto info = Look(from, false);
  const auto dir = Look(fs::path(to).has_parent_path() ? fs::path(to).parent_path() : ".", true);
  ++moves_;
  if (!info || !dir) {
    faults_.push_back("'" + from + "' and the directory of '" + to + "' are not both there");
    return;
  }
  const auto check = [&](const std::string& path) {
    const auto file = Look(path, false);
    if (file && changed_.contains({file->st_dev, file->st_ino})) {
      faults_.push_back(path + " is moved to " + to + " before it is synced");
    }
  };
  check(from);
  if (S_ISDIR(info->st_mode)) {
    for (const auto& entry : fs::recursive_directory_iterator(from)) check(entry.path());
  }
  moved_.emplace(File(dir->st_dev, dir->st_ino), to);
}

std::vector<std::string> SyncOrder::Faults() const {
  std::vector<std::string> all = faults_;
  for (const auto& move : moved_) {
    all.push_back("the directory of " + move.second + " is not synced after the move");
  }
  return all;
}

}  // namespace faults
