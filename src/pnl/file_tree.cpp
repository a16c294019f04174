// The parts of pnl_file that work on whole trees. A tree may come from outside or change during the
// work: every step is relative to an open directory and follows no symbolic link.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/retry.h"

namespace pnl_file {
namespace {

/// One entry of a tree.
struct Entry {
  int dir;            ///< descriptor of its directory
  std::string name;   ///< in that directory
  std::string path;   ///< for errors
  std::size_t depth;  ///< 0 is the top of the tree itself
};

/// Opens a directory relative to an open one; -1 with errno on failure. A link is not followed.
int OpenDirAt(int dir, const char* name) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  return Retry([&] { return openat(dir, name, kFlags); });
}

std::vector<std::string> List(const Fd& dir, const std::string& path) {
  // The stream gets a descriptor of its own: it owns it and moves its offset.
  Fd own(OpenDirAt(dir.Get(), "."));
  if (!own) throw pnl_err::System("open", path, errno);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(own.Get()), closedir);
  if (!stream) throw pnl_err::System("opendir", path, errno);
  own.Release();
  std::vector<std::string> names;
  errno = 0;  // readdir(3) tells the end from a failure by errno alone
  while (const dirent* entry = readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) throw pnl_err::System("readdir", path, errno);
  return names;
}

/// Walks a tree depth first. Uses two or three descriptors at any depth: it leaves a directory
/// through "..", and checks that this is the directory from which it came.
class TreeWalk {
 public:
  using Visit = std::function<bool(const Entry&)>;  ///< returns true to enter a directory
  using Leave = std::function<void(const Entry&)>;  ///< after a directory's last entry

  TreeWalk(const std::string& top, Visit visit, Leave leave)
      : visit_(std::move(visit)),
        leave_(std::move(leave)),
        path_(top.substr(0, top.size() - Name(top).size())) {
    dir_ = Open(Folder(top), O_RDONLY | O_DIRECTORY);
    Push({Name(top)});
  }

  void Run() {
    while (true) {
      if (!levels_.back().names.empty()) {
        const Entry entry = Current();
        if (!visit_(entry) || !GoInto(entry)) levels_.back().names.pop_back();
      } else if (levels_.size() > 1) {
        GoUp();
        leave_(Current());
        levels_.back().names.pop_back();
      } else {
        return;
      }
    }
  }

 private:
  struct Level {
    dev_t dev;
    ino_t ino;
    std::vector<std::string> names;  ///< remaining entries; the last is the current one
  };

  Entry Current() const {
    const std::string& name = levels_.back().names.back();
    return {dir_.Get(), name, path_ + name, levels_.size() - 1};
  }

  struct stat Identity() const {
    struct stat info {};
    if (fstat(dir_.Get(), &info) != 0) throw pnl_err::System("stat", path_, errno);
    return info;
  }

  void Push(std::vector<std::string> names) {
    const struct stat info = Identity();
    levels_.push_back({info.st_dev, info.st_ino, std::move(names)});
  }

  /// False when the directory has been removed.
  bool GoInto(const Entry& entry) {
    Fd child(OpenDirAt(entry.dir, entry.name.c_str()));
    if (!child && errno == ENOENT) return false;
    if (!child) throw pnl_err::System("open", entry.path, errno);
    dir_ = std::move(child);
    path_ = entry.path + "/";
    Push(List(dir_, path_));
    return true;
  }

  void GoUp() {
    Fd parent(OpenDirAt(dir_.Get(), ".."));
    if (!parent) throw pnl_err::System("open", path_ + "..", errno);
    dir_ = std::move(parent);
    levels_.pop_back();
    const struct stat info = Identity();
    if (info.st_dev != levels_.back().dev || info.st_ino != levels_.back().ino) {
      throw pnl_err::System("open", path_ + "..", ESTALE);  // the directory was moved meanwhile
    }
    path_.resize(path_.size() - levels_.back().names.back().size() - 1);
  }

  Visit visit_;
  Leave leave_;
  Fd dir_;
  std::string path_;  ///< of dir_, with a slash at the end
  std::vector<Level> levels_;
};

// --- Removal

/// Removes a file, a link or an empty directory. True when it is a directory with content. A mount
/// point is EBUSY even with content, so that the walk never enters another file system.
bool Unlink(const Entry& entry) {
  if (unlinkat(entry.dir, entry.name.c_str(), 0) == 0 || errno == ENOENT) return false;
  if (errno != EISDIR) throw pnl_err::System("unlink", entry.path, errno);
  if (unlinkat(entry.dir, entry.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return false;
  if (errno != ENOTEMPTY && errno != EEXIST) throw pnl_err::System("rmdir", entry.path, errno);
  return true;
}

void RemoveEmptied(const Entry& entry) {
  if (unlinkat(entry.dir, entry.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
    throw pnl_err::System("rmdir", entry.path, errno);
  }
}

// --- Foreign trees

[[noreturn]] void Refuse(const Entry& entry, std::string_view reason) {
  throw pnl_err::Access("file", entry.path).add_param("reason", reason);
}

/// Whether a link in a directory `depth` levels below the top stays inside. It may begin with at
/// most `depth` times "..". A ".." after a name is not allowed: the name may be a link, and ".."
/// would start from its target.
void CheckLink(const Entry& entry) {
  char buffer[PATH_MAX];
  const ssize_t size = readlinkat(entry.dir, entry.name.c_str(), buffer, sizeof buffer);
  if (size < 0) throw pnl_err::System("readlink", entry.path, errno);
  std::string_view target(buffer, static_cast<std::size_t>(size));
  if (target.starts_with('/')) Refuse(entry, "absolute_link");

  std::size_t up = 0;
  bool named = false;
  while (!target.empty()) {
    const std::string_view part = target.substr(0, target.find('/'));
    target.remove_prefix(std::min(target.size(), part.size() + 1));
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      named = true;
    } else if (named || ++up > entry.depth - 1) {
      Refuse(entry, "link_outside");
    }
  }
}

/// The number of names of a file inside the tree, to be compared with its link count.
struct HardLinks {
  Entry entry;
  nlink_t known;
  nlink_t seen;
};
using HardLinkMap = std::map<std::pair<dev_t, ino_t>, HardLinks>;

struct stat Stat(const Entry& entry) {
  struct stat info {};
  if (fstatat(entry.dir, entry.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    throw pnl_err::System("stat", entry.path, errno);
  }
  return info;
}

bool Check(const Entry& entry, HardLinkMap& hard_links, std::uint64_t& size) {
  const struct stat info = Stat(entry);
  if (S_ISDIR(info.st_mode)) return true;
  if (entry.depth == 0) throw pnl_err::System("open", entry.path, ENOTDIR);
  if (S_ISLNK(info.st_mode)) {
    CheckLink(entry);
  } else if (!S_ISREG(info.st_mode)) {
    Refuse(entry, "special_file");
  } else {
    size += static_cast<std::uint64_t>(info.st_size);
    if (info.st_nlink == 1) return false;
    const auto added =
        hard_links.emplace(std::pair(info.st_dev, info.st_ino), HardLinks{entry, info.st_nlink, 0});
    ++added.first->second.seen;
  }
  return false;
}

/// Owner first: chown(2) clears file capabilities and set-id bits.
bool Own(const Entry& entry) {
  const struct stat info = Stat(entry);
  const char* name = entry.name.c_str();
  if (fchownat(entry.dir, name, geteuid(), getegid(), AT_SYMLINK_NOFOLLOW) != 0) {
    throw pnl_err::System("chown", entry.path, errno);
  }
  if (S_ISLNK(info.st_mode)) return false;
  // glibc opens the entry for this, which a signal may interrupt.
  const mode_t mode = info.st_mode & 01755;
  if (Retry([&] { return fchmodat(entry.dir, name, mode, AT_SYMLINK_NOFOLLOW); }) != 0) {
    throw pnl_err::System("chmod", entry.path, errno);
  }
  return S_ISDIR(info.st_mode);
}

std::string WithoutSlashAtEnd(std::string path) {
  while (path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace

void Remove(const std::string& path) {
  const std::string top = WithoutSlashAtEnd(path);
  const std::string name = Name(top);
  if (name.empty() || name == "." || name == ".." || path.find('\0') != std::string::npos) {
    throw pnl_err::Access("file", path);
  }
  if (!Exists(Folder(top))) return;
  TreeWalk(top, Unlink, RemoveEmptied).Run();
}

std::uint64_t SecureTree(const std::string& root) {
  const std::string top = WithoutSlashAtEnd(root);
  const auto ignore = [](const Entry&) {};
  HardLinkMap hard_links;
  std::uint64_t size = 0;
  TreeWalk(
      top, [&](const Entry& entry) { return Check(entry, hard_links, size); }, ignore)
      .Run();
  for (const auto& [id, file] : hard_links) {
    if (file.seen < file.known) Refuse(file.entry, "hard_link_outside");
  }
  TreeWalk(top, Own, ignore).Run();
  return size;
}

}  // namespace pnl_file
