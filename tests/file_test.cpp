#include "pnl/file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "pnl/err.h"
#include "support/faults.h"
#include "support/temp_dir.h"

using namespace std::string_literals;
using pnl_file::Info;

namespace {

using Strings = std::vector<std::string>;

class FileTest : public support::TempDir {};

/// Type, object and the number or reason of what `call` throws; "" when it returns.
std::string ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const pnl_err::Error& error) {
    return error.type() + " " + error.object() + " " + error.param("errno") + error.param("reason");
  }
  return "";
}

std::string FileError(const char* operation, int error) {
  return "file "s + operation + " " + std::to_string(error);
}

mode_t ModeOf(const std::string& path) {
  return Info(path).GetAttrs().mode;
}

/// An ACL (its form on disk: linux/posix_acl_xattr.h) that lets the user 1234 read.
const std::string kAcl(
    "\2\0\0\0"
    "\1\0\6\0\xff\xff\xff\xff"
    "\2\0\4\0\xd2\4\0\0"
    "\4\0\4\0\xff\xff\xff\xff"
    "\x10\0\4\0\xff\xff\xff\xff"
    "\x20\0\0\0\xff\xff\xff\xff",
    44);

void SetXattr(const char* path, const char* name, const std::string& value) {
  ASSERT_EQ(setxattr(path, name, value.data(), value.size(), 0), 0) << path << " " << name;
}

TEST(FileNames, AreJoinedAndCut) {
  for (const auto& [a, b, joined, name, folder] : std::vector<std::array<std::string, 5>>{
           {"a", "b", "a/b", "b", "a"},
           {"a/", "/b", "a/b", "b", "a"},
           {"/", "b", "/b", "b", "/"},
           {"", "b", "b", "b", "."},
           {"a/b", "", "a/b", "b", "a"},
           {"a", "b/", "a/b/", "", "a/b"},
       }) {
    EXPECT_EQ(pnl_file::ConcatPath(a, b), joined);
    EXPECT_EQ(pnl_file::Name(joined), name) << joined;
    EXPECT_EQ(pnl_file::Folder(joined), folder) << joined;
  }
}

TEST_F(FileTest, ReadingTellsMissingFromUnreadable) {
  Put("file", "");
  mkdir("dir", 0777);
  mkfifo("fifo", 0666);
  std::filesystem::create_symlink("loop", "loop");
  std::filesystem::create_symlink("nowhere", "dangling");
  const struct {
    const char* path;
    std::string read, read_e;
  } cases[] = {
      {"file", "", ""},
      {"missing", "", FileError("open", ENOENT)},
      {"file/below", "", FileError("open", ENOENT)},
      {"dangling", "", FileError("open", ENOENT)},
      {"loop", "", FileError("open", ENOENT)},
      {"dir", FileError("open", EISDIR), FileError("open", EISDIR)},
      {"fifo", FileError("open", EINVAL), FileError("open", EINVAL)},
      {"/dev/zero", FileError("open", EINVAL), FileError("open", EINVAL)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf([&] { EXPECT_EQ(pnl_file::Read(c.path), ""); }), c.read) << c.path;
    EXPECT_EQ(ErrorOf([&] { (void)pnl_file::ReadE(c.path); }), c.read_e) << c.path;
  }
  EXPECT_TRUE(pnl_file::Read("/proc/self/status").starts_with("Name:"));  // its size says 0
  std::string all(1 << 20, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i % 251);
  pnl_file::Write("all", all);
  EXPECT_EQ(pnl_file::Read("all"), all);
}

TEST_F(FileTest, WriteKeepsAttributesAndFollowsLinks) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Put("real/file", "old");
  SetXattr("real/file", "user.origin", "panel");
  ASSERT_EQ(chown("real/file", 1234, 2345), 0);
  ASSERT_EQ(chmod("real/file", 06751), 0);
  Put("real/acl", "old");
  SetXattr("real/acl", "system.posix_acl_access", kAcl);
  // What the temporary inherits must not reach a file that had no ACL.
  SetXattr("real", "system.posix_acl_default", kAcl);
  std::filesystem::create_symlink("real/../real/file", "link");

  for (const std::string path : {"link", "real/acl"}) {
    const pnl_file::Attrs old = Info(path).GetAttrs();
    pnl_file::Write(path, "new");
    const pnl_file::Attrs now = Info(path).GetAttrs();
    EXPECT_EQ(now.uid, old.uid);
    EXPECT_EQ(now.gid, old.gid);
    EXPECT_EQ(now.mode, old.mode);
    EXPECT_EQ(now.xattrs, old.xattrs) << path;
    EXPECT_EQ(Get(path), "new");
  }
  EXPECT_TRUE(Info("link", true).IsLink());
}

TEST_F(FileTest, WriteMakesNewFilesAndReplacesOnlyFiles) {
  umask(027);
  mkdir("dir", 0777);
  mkfifo("fifo", 0666);
  std::filesystem::create_symlink("dir/made", "dangling");
  std::filesystem::create_symlink("loop", "loop");
  pnl_file::Write("public", "1");
  pnl_file::Write("secret", "2", pnl_file::kSecretMode);
  pnl_file::Write("dangling", "3");
  EXPECT_EQ(ModeOf("public"), 0640U);
  EXPECT_EQ(ModeOf("secret"), 0600U);
  EXPECT_EQ(Get("dir/made"), "3");
  const struct {
    const char* path;
    std::string error;
  } cases[] = {
      {"dir", FileError("open", EISDIR)},     {"fifo", FileError("open", EINVAL)},
      {"loop", FileError("readlink", ELOOP)}, {"missing/file", FileError("open", ENOENT)},
      {"", FileError("open", ENOENT)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ErrorOf([&] { pnl_file::Write(c.path, "x"); }), c.error) << c.path;
  }
  EXPECT_EQ(support::Tree(),
            (Strings{"dangling", "dir", "dir/made", "fifo", "loop", "public", "secret"}));
}

/// A replacement at whose every system call something goes wrong. `target` is "" for a new file.
class FaultTest : public FileTest {
 protected:
  void SetUp() override {
    if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
    umask(0);
  }

  /// Once for each kind of target: none yet, a file, a link to a file.
  void ForEachTarget(const std::function<void(const std::string& path)>& run) {
    for (const std::string path : {"new", "file", "link"}) {
      run(path);
    }
  }

  /// The same files again; forgets what a failed or killed replacement left.
  static void Reset() {
    for (const std::string& path : support::Tree()) unlink(path.c_str());
    Put("file", "old");
    chmod("file", 0604);
    setxattr("file", "user.origin", "panel", 5, 0);
    std::filesystem::create_symlink("file", "link");
  }

  static std::string Old(const std::string& path) { return path == "new" ? "" : "old"; }

  static Strings Temporaries() {
    Strings found = support::Tree();
    std::erase_if(found, [](const std::string& name) { return name.find('.') == name.npos; });
    return found;
  }
};

TEST_F(FaultTest, AnErrorLeavesTheOldFileAndNoTemporary) {
  const struct {
    int call, error;
  } faults[] = {
      {SYS_openat, EMFILE}, {SYS_write, ENOSPC},     {SYS_write, EIO},        {SYS_fsync, EIO},
      {SYS_close, EIO},     {SYS_newfstatat, EIO},   {SYS_fchmod, EPERM},     {SYS_rename, EIO},
      {SYS_listxattr, EIO}, {SYS_getxattr, EIO},     {SYS_fsetxattr, ENOSPC}, {SYS_read, EIO},
      {SYS_readlink, EIO},  {SYS_fremovexattr, EIO},
  };
  ForEachTarget([&](const std::string& path) {
    for (const auto& fault : faults) {
      auto end = support::End::kThrew;
      for (int nth = 1; end != support::End::kClean; ++nth) {
        Reset();
        std::string kept;
        end = support::FailNth(nth, fault.error, {fault.call}, [&] {
          try {
            pnl_file::Write(path, "new");
          } catch (const pnl_err::Error& error) {
            kept = error.param("tmp");
            throw;
          }
        });
        SCOPED_TRACE(path + ": call " + std::to_string(fault.call) + " " + std::to_string(nth));
        EXPECT_EQ(pnl_file::Read(path), end == support::End::kThrew ? Old(path) : "new");
        EXPECT_EQ(Temporaries(), kept.empty() ? Strings{} : Strings{kept});
        EXPECT_EQ(kept.empty(), fault.call != SYS_rename || end == support::End::kClean);
        EXPECT_TRUE(kept.empty() || Get(kept) == "new");
      }
    }
  });
}

TEST_F(FaultTest, AKillLeavesTheOldOrTheNewFile) {
  const std::vector<int> calls{SYS_openat,    SYS_newfstatat, SYS_readlink,    SYS_write,
                               SYS_listxattr, SYS_getxattr,   SYS_fsync,       SYS_fgetxattr,
                               SYS_fsetxattr, SYS_fchmod,     SYS_close,       SYS_rename,
                               SYS_unlink,    SYS_fchown,     SYS_fremovexattr};
  ForEachTarget([&](const std::string& path) {
    bool killed = true;
    bool replaced = false;
    for (int nth = 1; killed; ++nth) {
      Reset();
      killed = support::KillAtNth(nth, calls, [&] { pnl_file::Write(path, "new"); });
      const std::string now = pnl_file::Read(path);
      EXPECT_TRUE(now == "new" || (now == Old(path) && !replaced)) << path << " " << nth << now;
      replaced = now == "new";
      for (const std::string& left : Temporaries()) {
        EXPECT_EQ(ModeOf(left) & (path == "new" ? 0111 : 0173), 0U) << left << " " << nth;
      }
    }
    EXPECT_TRUE(replaced);
  });
}

TEST_F(FileTest, TemporariesGoWithTheirOwners) {
  std::string kept;
  {
    pnl_file::Tmp plain("plain");
    EXPECT_EQ(ModeOf(plain) & 077, 0U);
    pnl_file::Tmp moved = std::move(plain);
    moved = pnl_file::Tmp("other");
    const pnl_file::TmpDir dir("dir");
    EXPECT_TRUE(dir.Str().starts_with(Root().string() + "/dir."));
    Put(dir.Str() + "/sub/file", "x");
    pnl_file::Tmp released("kept");
    kept = released.Release();
    Put("adopted", "by name");
    pnl_file::Tmp::Adopt("adopted").Replace("target");
  }
  EXPECT_EQ(support::Tree(), (Strings{kept, "target"}));
}

TEST_F(FileTest, LockExcludesUnderEveryNameUntilItEnds) {
  mkdir("dir", 0777);
  std::filesystem::create_symlink("dir/file", "link");  // the file itself is made under the lock
  const auto try_lock = [](const std::string& path, bool exclusive) {
    return ErrorOf([&] { pnl_file::Lock().DoLockWithTimeout(path, exclusive, 0, 1); });
  };
  const std::string busy = "lock timeout ";
  pnl_file::Lock lock;
  lock.DoLockWithTimeout("dir/file", true, 0, 1);
  for (int round = 0; round < 2; ++round) {
    for (const std::string path : {"dir/file", "dir/../dir//file", "link"}) {
      EXPECT_EQ(try_lock(path, true), busy) << path << round;
      EXPECT_EQ(try_lock(path, false), busy) << path << round;
    }
    pnl_file::Write("dir/file", "the holder replaced it");
  }
  EXPECT_EQ(try_lock("dir/other", true), "");
  EXPECT_EQ(try_lock("missing/file", true), FileError("realpath", ENOENT));

  lock.DoLockWithTimeout("dir/file", false, 0, 1);
  EXPECT_EQ(try_lock("link", false), "");
  EXPECT_EQ(try_lock("link", true), busy);
  std::thread holder([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    lock.Unlock();
  });
  EXPECT_EQ(ErrorOf([] { pnl_file::Lock().DoLockWithTimeout("link", true, 30, 1); }), "");
  holder.join();
  EXPECT_EQ(support::Tree(), (Strings{"dir", "dir/file", "link"}));
}

TEST_F(FileTest, LockedWritersOfManyProcessesLoseNothing) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 20;
  Put("count", "0");
  for (int i = 0; i < kProcesses; ++i) {
    if (fork() != 0) continue;
    for (int round = 0; round < kRounds; ++round) {
      pnl_file::Lock lock;
      lock.DoLockWithTimeout("count", true, 60, 1);
      pnl_file::Write("count", std::to_string(std::stoi(pnl_file::ReadE("count")) + 1));
      // The last one dies with its lock held: nobody waits for the dead.
      if (i == 0 && round == kRounds - 1) raise(SIGKILL);
    }
    _exit(0);
  }
  while (wait(nullptr) > 0) continue;
  EXPECT_EQ(Get("count"), std::to_string(kProcesses * kRounds));
}

TEST_F(FileTest, RemoveRefusesAndStaysInside) {
  Put("outside/keep", "x");
  Put("tree/.hidden/file", "x");
  std::filesystem::create_symlink("../outside", "tree/link");
  std::filesystem::create_symlink("tree", "link");
  for (const std::string& path :
       Strings{"", "/", "//", ".", "..", "tree/.", "tree/..", "tree/../", "a\0b"s}) {
    EXPECT_EQ(ErrorOf([&] { pnl_file::Remove(path); }), "access file ") << path;
  }
  pnl_file::Remove("link/");  // the link, not what it leads to
  EXPECT_TRUE(pnl_file::Exists("tree/link/keep"));
  pnl_file::Remove("tree");
  pnl_file::Remove("tree");
  pnl_file::Remove("missing/tree");
  EXPECT_EQ(support::Tree(), (Strings{"outside", "outside/keep"}));
}

TEST_F(FileTest, RemoveGoesToAnyDepthWithFewDescriptors) {
  auto folder = std::make_unique<pnl_file::safe::Folder>();
  for (int depth = 0; depth < 3000; ++depth) {
    ASSERT_EQ(mkdir("deep", 0777), 0);
    ASSERT_EQ(chdir("deep"), 0);
  }
  folder.reset();
  ASSERT_EQ(pnl_file::GetCurrentDir(), Root());
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit few{support::OpenDescriptors() + 3, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(ErrorOf([] { pnl_file::Remove("deep"); }), "");
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(support::Tree(), Strings{});
}

TEST_F(FileTest, RemoveIsNotLedOutByASwap) {
  Put("outside/keep", "x");
  std::atomic<bool> done = false;
  std::thread attacker([&] {
    while (!done) syscall(SYS_renameat2, AT_FDCWD, "tree/a", AT_FDCWD, "tree/b", 2 /* exchange */);
  });
  for (int round = 0; round < 300; ++round) {
    Put("made/a/file", "x");
    std::filesystem::create_symlink("../outside", "made/b");
    std::filesystem::rename("made", "tree");
    // Whether a try meets a swap, and which error that gives, is a matter of luck.
    while (pnl_file::Exists("tree")) (void)ErrorOf([] { pnl_file::Remove("tree"); });
  }
  done = true;
  attacker.join();
  EXPECT_EQ(support::Tree(), (Strings{"outside", "outside/keep"}));
}

TEST_F(FileTest, SecureTreeRefusesWhatLeadsOut) {
  Put("outside", "x");
  const auto link = [](const char* target) {
    return [=] { ASSERT_EQ(symlink(target, "tree/a/b/entry"), 0); };
  };
  const struct {
    const char* reason;
    std::function<void()> make;
  } cases[] = {
      {"", link("c")},
      {"", link("../../.")},
      {"", link(".././../missing//x")},
      {"absolute_link", link("/etc/passwd")},
      {"link_outside", link("../../..")},
      {"link_outside", link("./..//../../outside")},
      {"link_outside", link("c/../../../../outside")},
      {"link_outside", link("up/..")},  // "up" is the top: its ".." is outside
      {"special_file", [] { mkfifo("tree/a/b/entry", 0666); }},
      {"hard_link_outside", [] { ASSERT_EQ(::link("outside", "tree/a/b/entry"), 0); }},
      {"", [] { ASSERT_EQ(::link("tree/a/b/c", "tree/a/b/entry"), 0); }},
  };
  for (const auto& c : cases) {
    pnl_file::Remove("tree");
    Put("tree/a/b/c", "x");
    chmod("tree/a/b/c", 0666);
    std::filesystem::create_symlink("../..", "tree/a/b/up");
    c.make();
    try {
      pnl_file::SecureTree("tree");
      EXPECT_STREQ(c.reason, "");
      EXPECT_EQ(ModeOf("tree/a/b/c"), 0644U);
    } catch (const pnl_err::Access& error) {
      EXPECT_EQ(error.param("reason"), c.reason);
      EXPECT_EQ(error.value(), "tree/a/b/entry");
      EXPECT_EQ(ModeOf("tree/a/b/c"), 0666U) << "changed before it was refused";
    }
  }
}

TEST_F(FileTest, SecureTreeTakesOverOwnersAndModes) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Put("outside", "x");
  Put("tree/dir/file", "x");
  std::filesystem::create_symlink("dir/file", "tree/link");
  for (const char* path : {"tree", "tree/dir", "tree/dir/file", "tree/link"}) {
    ASSERT_EQ(lchown(path, 1234, 1234), 0);
    if (!Info(path, true).IsLink()) chmod(path, 07777);
  }
  pnl_file::SecureTree("tree/");
  for (const char* path : {"tree", "tree/dir", "tree/dir/file", "tree/link"}) {
    EXPECT_EQ(Info(path, true).Stat().st_uid, 0U) << path;
    EXPECT_EQ(ModeOf(path), 01755U) << path;
  }
  EXPECT_EQ(ErrorOf([] { pnl_file::SecureTree("outside"); }), FileError("open", ENOTDIR));
}

TEST_F(FileTest, DirectoriesAndSingleFiles) {
  Put("file", "x");
  std::filesystem::create_symlink("nowhere", "dangling");
  const struct {
    void (*call)(const std::string&);
    const char* path;
    std::string error;
  } cases[] = {
      {pnl_file::MkDir, "a/b//c/", ""},
      {pnl_file::MkDir, "a/b/c", ""},
      {pnl_file::MkDir, "/", ""},
      {pnl_file::MkDir, "", FileError("mkdir", ENOENT)},
      {pnl_file::MkDir, "file", FileError("mkdir", EEXIST)},
      {pnl_file::MkDir, "file/below", FileError("mkdir", ENOTDIR)},
      {pnl_file::MkDir, "dangling", FileError("mkdir", EEXIST)},
      {pnl_file::RemoveFile, "missing", ""},
      {pnl_file::RemoveFile, "a", FileError("unlink", EISDIR)},
      {pnl_file::RemoveFile, "dangling", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(ErrorOf([&] { c.call(c.path); }), c.error) << c.path;
  pnl_file::Write("a/b/.dot", "");
  Strings seen;
  for (pnl_file::Dir dir("a/b"); dir.Read();) seen.push_back(dir.FullName());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (Strings{"a/b/.dot", "a/b/c"}));
}

TEST_F(FileTest, FailuresLeakNothing) {
  mkdir("dir", 0777);
  Put("full/file", "x");
  const std::function<void()> failures[] = {
      [] { (void)pnl_file::Read("dir"); },
      [] { pnl_file::Write("dir", "x"); },
      [] { pnl_file::Move("missing", "dir/file"); },
      [] { pnl_file::SecureTree("full/file"); },
      [] { pnl_file::Dir("full/file").Read(); },
      [] { pnl_file::TmpDir("missing/dir"); },
      [] { pnl_file::Lock().DoLockWithTimeout("dir", true, 0, 1); },
  };
  pnl_file::Lock held;
  held.DoLockWithTimeout("dir", true, 0, 1);
  const std::size_t before = support::OpenDescriptors();
  for (int i = 0; i < 1000; ++i) {
    for (const auto& fail : failures) ASSERT_NE(ErrorOf(fail), "");
  }
  EXPECT_EQ(support::OpenDescriptors(), before);
  EXPECT_EQ(support::Tree(), (Strings{"dir", "full", "full/file"}));
}

}  // namespace
