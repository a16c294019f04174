#include "pnl/file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>

#include "support/error_of.h"
#include "support/faults.h"
#include "support/temp_dir.h"

using namespace std::string_literals;
using pnl_file::Info;
using Strings = std::vector<std::string>;

namespace {

class FileTest : public support::TempDir {};

std::string ErrorOf(const std::function<void()>& call) {
  return support::ErrorOf(call, {"errno", "reason"});
}

std::string Failed(const char* operation, int error) {
  return "file "s + operation + " " + std::to_string(error);
}

mode_t ModeOf(const std::string& path) {
  return Info(path).GetAttrs().mode;
}

void SetXattr(const char* path, const char* name, const std::string& value) {
  ASSERT_EQ(setxattr(path, name, value.data(), value.size(), 0), 0) << path << " " << name;
}

/// An ACL (its form on disk: linux/posix_acl_xattr.h) that lets the user 1234 read.
const std::string kAcl =
    "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\4\0\xd2\4\0\0\4\0\4\0\xff\xff\xff\xff"
    "\x10\0\4\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff"s;

TEST(FileNames, AreJoinedAndCut) {
  EXPECT_EQ(pnl_file::ConcatPath("a/", "/b", ""), "a/b");
  EXPECT_EQ(pnl_file::ConcatPath("/", "", "b"), "/b");
  EXPECT_EQ(pnl_file::Folder("/b"), "/");
  EXPECT_EQ(pnl_file::Folder("b"), ".");
  EXPECT_EQ(pnl_file::Name("a/b/"), "");
}

TEST_F(FileTest, FailuresAreNamedAndLeakNothing) {
  Put("file", "x");
  Put("dir/file", "x");
  mkfifo("fifo", 0666);
  std::filesystem::create_symlink("loop", "loop");
  std::filesystem::create_symlink("nowhere", "dangling");
  pnl_file::Lock held;
  held.DoLockWithTimeout("file", true, 0, 1);
  const auto lock = [](const char* path) { pnl_file::Lock().DoLockWithTimeout(path, true, 0, 1); };
  const struct {
    std::function<void()> call;
    std::string error;
  } cases[] = {
      {[] { EXPECT_EQ(pnl_file::Read("missing"), ""); }, ""},
      {[] { EXPECT_EQ(pnl_file::Read("dangling"), ""); }, ""},
      {[] { EXPECT_EQ(pnl_file::Read("loop"), ""); }, ""},
      {[] { (void)pnl_file::Read("dir"); }, Failed("open", EISDIR)},
      {[] { (void)pnl_file::Read("fifo"); }, Failed("open", EINVAL)},
      {[] { (void)pnl_file::ReadE("dangling"); }, Failed("open", ENOENT)},
      {[] { pnl_file::Write("dir", "x"); }, Failed("open", EISDIR)},
      {[] { pnl_file::Write("fifo", "x"); }, Failed("open", EINVAL)},
      {[] { pnl_file::Write("loop", "x"); }, Failed("readlink", ELOOP)},
      {[] { pnl_file::Write("missing/file", "x"); }, Failed("open", ENOENT)},
      {[] { pnl_file::Write("", "x"); }, Failed("open", ENOENT)},
      {[] { pnl_file::MkDir("dir//"); }, ""},
      {[] { pnl_file::MkDir("file"); }, Failed("mkdir", EEXIST)},
      {[] { pnl_file::MkDir("dangling"); }, Failed("mkdir", EEXIST)},
      {[] { pnl_file::RemoveFile("dir"); }, Failed("unlink", EISDIR)},
      {[] { pnl_file::Remove("missing/tree"); }, ""},
      {[] { pnl_file::SecureTree("dir/file"); }, Failed("open", ENOTDIR)},
      {[] { pnl_file::TmpDir("missing/dir"); }, Failed("mkdtemp", ENOENT)},
      {[&] { lock("missing/file"); }, Failed("realpath", ENOENT)},
      {[&] { lock("file"); }, "lock timeout"},
  };
  const Strings tree = support::Tree();
  const std::size_t descriptors = support::OpenDescriptors();
  for (int round = 0; round < 100; ++round) {
    for (const auto& c : cases) ASSERT_EQ(ErrorOf(c.call), c.error) << &c - cases;
  }
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_EQ(support::Tree(), tree);
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
  const std::string text("\0\xff\n", 3);
  for (const std::string path : {"link", "real/acl"}) {
    const pnl_file::Attrs old = Info(path).GetAttrs();
    pnl_file::Write(path, text);
    const pnl_file::Attrs now = Info(path).GetAttrs();
    EXPECT_EQ(std::tie(now.uid, now.gid, now.mode, now.xattrs),
              std::tie(old.uid, old.gid, old.mode, old.xattrs));
    EXPECT_EQ(pnl_file::Read(path), text);
  }
  EXPECT_TRUE(Info("link", true).IsLink());
}

TEST_F(FileTest, NewFilesAndTemporaries) {
  umask(027);
  std::filesystem::create_symlink("dir/a/made", "dangling");
  pnl_file::MkDir("dir//a/");
  pnl_file::Write("dangling", "1");
  pnl_file::Write("secret", "2", pnl_file::kSecretMode);
  EXPECT_EQ(ModeOf("dir/a/made"), 0640U);
  EXPECT_EQ(ModeOf("secret"), 0600U);
  EXPECT_TRUE(pnl_file::Read("/proc/self/status").starts_with("Name:"));  // its size says 0
  {
    pnl_file::Tmp moved = pnl_file::Tmp("other");
    moved = pnl_file::Tmp("secret");
    const pnl_file::TmpDir dir("tree");
    EXPECT_EQ(dir.Str().find(Root().string() + "/tree."), 0U);
    Put(dir.Str() + "/sub/file", "x");
    Put("adopted", "by name");
    pnl_file::Tmp::Adopt("adopted").Replace("target");
  }
  EXPECT_EQ(support::Tree(),
            (Strings{"dangling", "dir", "dir/a", "dir/a/made", "secret", "target"}));
}

// Each name is taken by somebody else, as a link that leads elsewhere, just before it is made.
TEST_F(FileTest, TemporariesAreNeverWhatOthersMadeReady) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  Put("victim", "x");
  pnl_file::MkDir("outside");
  std::map<std::string, int> ready;
  const auto seize = [&](const support::Call& call) {
    const bool dir = call.number == SYS_mkdir;
    if (!dir && (call.args[2] & O_CREAT) == 0) return 0;
    const std::string elsewhere = Root().string() + (dir ? "/outside" : "/victim");
    const std::string name = support::TextAt(call, call.args[dir ? 0 : 1]);
    if (ready[elsewhere] < 3 && symlink(elsewhere.c_str(), name.c_str()) == 0) ++ready[elsewhere];
    return 0;
  };
  support::Intercept({SYS_openat, SYS_mkdir}, seize, [] {
    pnl_file::Write("file", "new");
    Put(pnl_file::TmpDir("tree").Str() + "/name", "x");
  });
  EXPECT_EQ(ready.size(), 2U);
  for (const auto& [elsewhere, times] : ready) EXPECT_EQ(times, 3) << elsewhere;
  EXPECT_EQ(pnl_file::Read("file"), "new");
  EXPECT_EQ(pnl_file::Read("victim"), "x");
  EXPECT_TRUE(support::Tree("outside").empty());
}

TEST_F(FileTest, AMoveIsOnTheDiskWhenItReturns) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  std::filesystem::create_directories("from");
  std::filesystem::create_directories("to");
  pnl_file::Write("from/f", "x");
  std::vector<std::string> synced;
  const auto note = [&](const support::Call& call) {
    synced.push_back(pnl_file::RealPath("/proc/self/fd/" + std::to_string(call.args[0])));
    return 0;
  };
  EXPECT_TRUE(support::Intercept({SYS_fsync}, note, [] { pnl_file::Move("from/f", "to/g"); }));
  EXPECT_EQ(synced, std::vector{(Root() / "to").string()});
  pnl_file::Tmp tmp("to/f");
  tmp.Write("x");
  EXPECT_EQ(support::FailNth(1, EIO, {SYS_close}, [&] { tmp.Close(); }), support::End::kThrew);
  pnl_file::PlaceTree("from", "to/tree");  // the first one there
  EXPECT_FALSE(pnl_file::Exists("from"));
}

TEST_F(FileTest, RemoveIsNotLedOutByASwap) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  const Strings names{"a", "b", "c", "d"};
  auto end = support::End::kThrew;
  for (int nth = 1; end != support::End::kClean; ++nth) {
    for (const std::string& name : names) {
      for (const char* dir : {"./", "outside/", "tree/", "tree/dir/"}) Put(dir + name, "x");
    }
    std::filesystem::create_symlink("../outside", "link");  // as seen from the tree
    const auto swap = [] {  // the directory and the link change places before the n-th call
      syscall(SYS_renameat2, AT_FDCWD, "tree/dir", AT_FDCWD, "link", 2 /* RENAME_EXCHANGE */);
      return 0;
    };
    end = support::AtNth(nth, {SYS_openat, SYS_unlinkat, SYS_getdents64}, swap,
                         [] { pnl_file::Remove("tree"); });
    for (const std::string& name : names) {
      EXPECT_TRUE(pnl_file::Exists(name) && pnl_file::Exists("outside/" + name)) << nth;
    }
    pnl_file::Remove("link");
    pnl_file::Remove("tree");
  }
}

/// Where trees cannot be exchanged: whichever rename fails, or the process is killed before it, one
/// of both stands there when whoever is next has begun.
TEST_F(FileTest, TreesArePlacedWithoutExchange) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  const int errors[] = {EINVAL, ENOSYS, ENOTSUP};
  for (int round = 0; round < 3 * 8; ++round) {
    SCOPED_TRACE(round);
    const bool killed = round % 2 != 0;
    const int nth = round / 2 % 4;  // the rename; 0 is none
    for (const char* path : {"d", "tree"}) pnl_file::Remove(path);
    Put("d/file", "old");
    Put("tree/file", "new");
    bool placed = false;
    const auto place = [&] {
      int count = 0;
      const auto decide = [&](const support::Call& call) {
        if (call.number == SYS_renameat2) return errors[round / 8];
        if (++count != nth) return 0;
        return killed ? kill(getpid(), SIGKILL) : EIO;
      };
      placed = support::Intercept({SYS_renameat2, SYS_rename}, decide,
                                  [] { pnl_file::PlaceTree("tree", "d"); });
    };
    if (!killed) place();
    if (killed && fork() == 0) {
      place();
      _exit(0);
    }
    while (wait(nullptr) > 0) continue;
    const bool is_new = nth == 0 || nth == 3;
    EXPECT_EQ(placed, is_new && !killed);
    pnl_file::RecoverTree("d");
    EXPECT_EQ(pnl_file::Read("d/file"), is_new ? "new" : "old");
    EXPECT_EQ(pnl_file::Read("tree/file"), nth == 3 ? "" : is_new ? "old" : "new");
    EXPECT_TRUE(std::filesystem::is_empty(".replaced"));
  }
}

TEST_F(FileTest, LockExcludesUnderEveryNameUntilItEnds) {
  pnl_file::MkDir("dir");
  std::filesystem::create_symlink("dir/file", "link");  // the file itself is made under the lock
  const auto busy = [](const std::string& path, bool exclusive) {
    return !ErrorOf([&] { pnl_file::Lock().DoLockWithTimeout(path, exclusive, 0, 1); }).empty();
  };
  pnl_file::Lock lock;
  lock.DoLockWithTimeout("dir/file", true, 0, 1);
  for (int round = 0; round < 2; ++round) {
    for (const std::string path : {"dir/file", "dir/../dir//file", "link"}) {
      EXPECT_TRUE(busy(path, true)) << path << round;
      EXPECT_TRUE(busy(path, false)) << path << round;
    }
    EXPECT_FALSE(busy("dir/other", true));
    pnl_file::Write("dir/file", "the holder replaced it");
  }
  lock.DoLockWithTimeout("dir/file", false, 0, 1);
  EXPECT_FALSE(busy("link", false));
  EXPECT_TRUE(busy("link", true));
  EXPECT_EQ(support::Tree(), (Strings{"dir", "dir/file", "link"}));
}

/// Whether `path` is locked for a user, asked in a process of his own.
bool BusyFor(uid_t user, gid_t group, const char* runtime_dir, const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    setenv("XDG_RUNTIME_DIR", runtime_dir, 1);
    if (setgid(group) != 0 || setuid(user) != 0) _exit(9);
    const auto lock = [&] { pnl_file::Lock().DoLockWithTimeout(path, true, 0, 1); };
    const std::string error = ErrorOf(lock);
    _exit(error == "lock timeout" ? 1 : error.empty() ? 0 : 2);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(status == 0 || status == 1 << 8) << status << " " << path;
  return status != 0;
}

TEST_F(FileTest, LockIsTheSameForAllWhoMayWriteThere) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const struct {
    mode_t mode;
    uid_t owner, user;
    gid_t group;
    bool busy;  // for that user while root has the lock
  } cases[] = {
      {0755, 1234, 1234, 77, true},   {0755, 0, 1234, 77, false},  // who cannot write there
      {0775, 1234, 1235, 4321, true}, {0777, 1234, 1235, 77, true}, {01777, 0, 1234, 77, true},
  };
  const pnl_file::TmpDir open("/tmp/lock");  // which these users can reach, unlike the present one
  chmod(open.Str().c_str(), 0755);
  const std::string dir = open.Str() + "/dir";
  const std::string file = dir + "/file";
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    Put(file, "x");
    ASSERT_EQ(chown(dir.c_str(), c.owner, 4321) + chmod(dir.c_str(), c.mode), 0);
    ASSERT_EQ(chown(file.c_str(), c.user, c.group), 0);
    pnl_file::Lock lock;
    lock.DoLockWithTimeout(file, true, 0, 1);
    EXPECT_EQ(BusyFor(c.user, c.group, "/nowhere", file), c.busy);
    EXPECT_EQ(BusyFor(c.user, c.group, "", file), c.busy);
    lock.Unlock();
    EXPECT_FALSE(BusyFor(c.user, c.group, "", file));
    pnl_file::Remove(dir);
  }
}

TEST_F(FileTest, LockFilesOfOthersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Put("dir/file", "x");
  ASSERT_EQ(chown("dir", 1250, 1250), 0);
  const std::string ready = "/run/lock/brefir-1250.lock";
  const auto lock = [] { pnl_file::Lock().DoLockWithTimeout("dir/file", true, 0, 1); };
  for (const bool link : {false, true}) {
    pnl_file::RemoveFile(ready);
    link ? std::filesystem::create_symlink("file", ready) : Put(ready, "");
    ASSERT_EQ(lchown(ready.c_str(), 1251, 1251), 0);
    EXPECT_EQ(ErrorOf(lock), "lock foreign") << link;
  }
  pnl_file::RemoveFile(ready);
  EXPECT_EQ(ErrorOf(lock), "");
}

TEST_F(FileTest, LockIsNotInheritedByAFork) {
  for (const bool killed : {false, true}) {
    const pid_t holder = fork();
    if (holder == 0) {
      setpgid(0, 0);
      pnl_file::Lock lock;
      lock.DoLockWithTimeout("file", true, 0, 1);
      if (fork() == 0) _exit(pause());
      if (killed) raise(SIGKILL);
      lock.Unlock();
      _exit(0);
    }
    waitpid(holder, nullptr, 0);
    // The child gives it back as the first thing that it does.
    EXPECT_EQ(ErrorOf([] { pnl_file::Lock().DoLockWithTimeout("file", true, 5, 1); }), "");
    kill(-holder, SIGKILL);
  }
}

TEST_F(FileTest, RemoveRefusesAndStaysInside) {
  Put("outside/keep", "x");
  Put("tree/.hidden/file", "x");
  std::filesystem::create_symlink("../outside", "tree/link");
  std::filesystem::create_symlink("tree", "link");
  for (const std::string& path :
       Strings{"", "/", "//", ".", "..", "tree/.", "tree/..", "tree/../", "a\0b"s}) {
    EXPECT_EQ(ErrorOf([&] { pnl_file::Remove(path); }), "access file") << path;
  }
  pnl_file::Remove("link/");  // the link, not what it leads to
  EXPECT_TRUE(pnl_file::Exists("tree/link/keep"));
  pnl_file::Remove("tree");
  EXPECT_EQ(support::Tree(), (Strings{"outside", "outside/keep"}));
}

TEST_F(FileTest, RemoveGoesToAnyDepthWithFewDescriptors) {
  {
    const pnl_file::safe::Folder back;
    for (int depth = 0; depth < 1000; ++depth) {
      ASSERT_EQ(mkdir("deep", 0777), 0);
      ASSERT_EQ(chdir("deep"), 0);
    }
  }
  ASSERT_EQ(pnl_file::GetCurrentDir(), Root());
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit few{support::OpenDescriptors() + 3, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(ErrorOf([] { pnl_file::Remove("deep"); }), "");
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(support::Tree(), Strings{});
}

TEST_F(FileTest, SecureTreeTakesOverOrRefuses) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Put("outside", "x");
  const Strings safe{"tree", "tree/a", "tree/a/b", "tree/a/b/file", "tree/a/b/up"};
  const char* entry = "tree/a/b/entry";
  const auto link = [=](const char* target) { return [=] { return symlink(target, entry); }; };
  const struct {
    const char* reason;
    std::function<int()> make;
  } cases[] = {
      {"", link("file")},
      {"", link("../../.")},
      {"", link(".././../missing//x")},
      {"", [=] { return ::link("tree/a/b/file", entry); }},
      {"absolute_link", link("/etc/passwd")},
      {"link_outside", link("../../..")},
      {"link_outside", link("./..//../../outside")},
      {"link_outside", link("file/../../../../outside")},
      {"link_outside", link("up/..")},  // "up" is the top: its ".." is outside
      {"special_file", [=] { return mkfifo(entry, 0666); }},
      {"hard_link_outside", [=] { return ::link("outside", entry); }},
  };
  for (const auto& c : cases) {
    pnl_file::Remove("tree");
    Put("tree/a/b/file", "x");
    std::filesystem::create_symlink("../..", "tree/a/b/up");
    ASSERT_EQ(c.make(), 0);
    for (const std::string& path : safe) {
      ASSERT_EQ(lchown(path.c_str(), 1234, 1234), 0);
      if (!Info(path, true).IsLink()) chmod(path.c_str(), 07777);
    }
    const std::string error = c.reason[0] == '\0' ? "" : "access file "s + c.reason;
    EXPECT_EQ(ErrorOf([] { pnl_file::SecureTree("tree/"); }), error);
    for (const std::string& path : safe) {
      // Nothing is changed when something is refused.
      EXPECT_EQ(Info(path, true).Stat().st_uid, error.empty() ? 0U : 1234U) << path << error;
      EXPECT_EQ(ModeOf(path), error.empty() ? 01755U : 07777U) << path << error;
    }
  }
}

}  // namespace
