#include "brefir/simpleconfig.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>

#include "pnl/err.h"
#include "pnl/proc.h"
#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;
using utils::Config;
using utils::SCBaseField;
using utils::SimpleConfig;
using Names = std::vector<std::string>;

class SimpleConfigTest : public support::TempDir {
 protected:
  static SimpleConfig Open(const std::string& path = "f", bool create = false) {
    return {path, create, "#;", "=", "'"};
  }
};

template <class Call>
std::string ErrorOf(const Call& call) {
  try {
    call();
  } catch (const pnl_err::Error& error) {
    const std::string text = error.what();
    return text.substr(0, text.find(" (errno="));
  }
  return "";
}

TEST_F(SimpleConfigTest, SetChangesItsLineOnly) {
  const struct {
    std::string before, key, after, expected;  // the value is 9
  } cases[] = {
      {"", "b", "", "b='9'\n"},
      {"a\n\n", "b", "", "a\n\nb='9'\n"},
      {"a=1\r\n\n b\t= 1 # x\n# b=3\n\xff\0"s, "b", "", "a=1\r\n\nb='9'\n# b=3\n\xff\0\n"s},
      {"a=1\nb=1\nb=3", "b", "", "a=1\nb='9'\nb=3\n"},
      {"#b=1\n;b=1\nbb=1\nB=1\n", "b", "", "#b=1\n;b=1\nbb=1\nB=1\nb='9'\n"},
      {"b", "b", "", "b='9'\n"},
      {"a=1\nc=0", "c", "a", "a=1\nc='9'\n"},
      {"c=0\na=1\nc=5\nc=6\na=2\n", "c", "a", "a=1\nc='9'\nc=6\na=2\n"},
      {"c=0\nb=1\nc=5", "c", "a", "b=1\nc='9'\n"},
      {"c=0\nc=1", "c", "c", "c='9'\nc=1\n"},
      {"#Port\n\t PortRange 1-2\nPort=1", "c", "Port", "#Port\n\t PortRange 1-2\nc='9'\nPort=1\n"},
      {"c=1\n", "c", "c=", "c=1\nc='9'\n"},  // it stands behind itself
  };
  for (const auto& c : cases) {
    Put("f", c.before);
    Open().Set(c.key, "9", c.after);
    EXPECT_EQ(Get("f"), c.expected) << c.before;
  }
}

TEST_F(SimpleConfigTest, ReadsAndDeletes) {
  Put("f", "\nv = x # y ; z\n#b=1\n b=2\nq='x\np=x''\nv=w\ne\na=b=c");
  SimpleConfig config = Open();
  for (const auto& [key, value] : {std::pair{"v", "x"},
                                   {"#b", ""},
                                   {"b", "2"},
                                   {"q", "x"},
                                   {"p", "x'"},
                                   {"e", ""},
                                   {"a", "b=c"},
                                   {"none", ""}}) {
    EXPECT_EQ(config.Get(key, "'"), value) << key;
    EXPECT_EQ(config.Exists(key), key != "none"s) << key;
  }
  EXPECT_EQ(config.Get("q", ""), "'x");
  const auto list = utils::lines::List(config.Content(), "'", {"#;", "=", "'"});
  ASSERT_EQ(list.size(), 7U);
  EXPECT_EQ(list[1].line, 4U);
  EXPECT_EQ(list[1].key + list[1].value, "b2");

  const std::filesystem::file_time_type time = last_write_time(Root() / "f");
  EXPECT_FALSE(config.Del("none"));
  EXPECT_EQ(last_write_time(Root() / "f"), time);
  EXPECT_TRUE(config.Del("v"));
  EXPECT_EQ(Get("f"), "\n#b=1\n b=2\nq='x\np=x''\ne\na=b=c\n");
}

TEST_F(SimpleConfigTest, FieldsFollowTheFile) {
  Put("f", "quoted = \"a b\" # x\nplain=c");
  {
    Config config("f");
    SCBaseField quoted("quoted", &config, "");
    SCBaseField plain("plain", &config, "d");
    SCBaseField missing("missing", &config, "d");
    EXPECT_EQ(Get("f"), "quoted=a b\nplain=c\n");
    EXPECT_TRUE(quoted == "a b" && plain == "c"s && missing == "d");
    EXPECT_TRUE(quoted.is_set() && !missing.is_set());
    missing = "m";
    plain.Del();
    EXPECT_TRUE(missing.is_set() && !plain.is_set());
    EXPECT_EQ(plain.AsString(), "d");
    EXPECT_EQ(Get("f"), "quoted=a b\nmissing=m\n");
  }
  Config made("new");
  EXPECT_EQ(Get("new"), "");
}

TEST_F(SimpleConfigTest, ReplacesTheFileAndTellsWhatHinders) {
  Put("dir/real", "a=1\n");
  std::filesystem::create_symlink("dir/real", "f");
  ASSERT_EQ(chmod("dir/real", 02640), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown("dir/real", 7, 8), 0);
    ASSERT_EQ(chmod("dir/real", 02640), 0);
  }
  const struct stat old = pnl_file::Info("dir/real").Stat();
  Open().Set("a", "2", "");
  const struct stat now = pnl_file::Info("dir/real").Stat();
  EXPECT_NE(now.st_ino, old.st_ino);
  EXPECT_EQ(std::tie(now.st_mode, now.st_uid, now.st_gid),
            std::tie(old.st_mode, old.st_uid, old.st_gid));
  EXPECT_EQ(Get("dir/real"), "a='2'\n");
  EXPECT_TRUE(pnl_file::Info("f", true).IsLink());

  EXPECT_EQ(ErrorOf([] { Open("none"); }), "pkg file_not_exists none");
  EXPECT_EQ(ErrorOf([] { (void)Open("dir").Exists("a"); }), "pkg file_open dir");
  EXPECT_EQ(ErrorOf([] {
              SimpleConfig config = Open("gone", true);
              std::filesystem::remove("gone");
              config.Set("a", "1", "");
            }),
            "pkg file_open gone");
  EXPECT_EQ(support::Tree(), (Names{"dir", "dir/real", "f"}));
}

TEST_F(SimpleConfigTest, TheLockOutlivesTheFileAndDiesWithItsHolder) {
  const auto locked = [] { return ErrorOf([] { Open(); }); };
  Put("f", "a=1\n");
  std::filesystem::create_symlink("f", "link");
  {
    SimpleConfig config = Open("link");
    config.Set("a", "2", "");
    EXPECT_EQ(locked(), "lock timeout f") << "in one process, by another name";
  }
  EXPECT_EQ(locked(), "");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    SimpleConfig config = Open();
    config.Set("a", "3", "");
    _exit(write(ready[1], "x", 1) == 1 && pause() == 0 ? 0 : 1);
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(locked(), "lock timeout f") << "between processes";
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(locked(), "");
}

TEST_F(SimpleConfigTest, FaultsAndKillsLeaveTheOldOrTheNewFile) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be stopped here";
  // Without close(2): one that never happened would keep the lock.
  std::vector<int> calls{SYS_open,  SYS_openat,     SYS_read,     SYS_write,
                         SYS_fsync, SYS_rename,     SYS_fchown,   SYS_fchmod,
                         SYS_fstat, SYS_newfstatat, SYS_readlink, SYS_fcntl};
  const std::string before = "a=1\n" + std::string(20000, '#') + "\nb=1\n";
  const std::string after = str::Replace(before, "b=1", "b='2'");
  const auto edit = [] { Open().Set("b", "2", ""); };
  auto end = support::End::kThrew;
  for (int nth = 1; end != support::End::kClean; ++nth) {
    Put("f", before);
    end = support::FailNth(nth, EIO, calls, edit);
    const std::string now = Get("f");
    EXPECT_TRUE(now == (end == support::End::kThrew ? before : after)) << nth;
    EXPECT_LE(support::Tree().size(), 2U) << nth;  // a rename that failed leaves the new text
    for (const std::string& name : support::Tree()) {
      if (name == "f") continue;
      EXPECT_EQ(Get(name), after) << nth;
      std::filesystem::remove(name);
    }
  }
  calls.insert(calls.end(), {SYS_close, SYS_unlink, SYS_exit_group});
  bool killed = true;
  for (int nth = 1; killed; ++nth) {
    Put("f", before);
    killed = support::KillAtNth(nth, calls, edit);
    const std::string now = Get("f");
    EXPECT_TRUE(now == after || (killed && now == before)) << nth;
  }
}

/// Eight processes count up one key, each beside its own: no update is lost, and nobody reads a
/// torn file. BREFIR_STRESS_SECONDS lengthens the run.
TEST_F(SimpleConfigTest, ManyProcessesLoseNothing) {
  const char* seconds = std::getenv("BREFIR_STRESS_SECONDS");
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 2);
  const auto count = [&](const std::string& key) {
    const auto next = [](const SimpleConfig& config, const std::string& name) {
      return std::to_string(str::Int(config.Get(name, "'")) + 1);
    };
    while (std::chrono::steady_clock::now() < end) {
      const std::string text = pnl_file::Read("f");  // without a lock
      if (!text.empty() && !text.ends_with("'\n")) return 1;
      try {
        SimpleConfig config = Open("f", true);
        config.Set("all", next(config, "all"), "");
        config.Set(key, next(config, key), "all");
      } catch (const pnl_err::Error& error) {
        if (error.type() != "lock") return 1;  // a crowd may keep one waiting too long
      }
    }
    return 0;
  };
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(fork());
    if (children.back() == 0) _exit(count("own" + std::to_string(i)));
  }
  for (const pid_t pid : children) {
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
  const SimpleConfig config = Open();  // no lock is left
  int sum = 0;
  for (int i = 0; i < 8; ++i) sum += str::Int(config.Get("own" + std::to_string(i), "'"));
  EXPECT_EQ(config.Get("all", "'"), std::to_string(sum));
  EXPECT_GT(sum, 8);
  EXPECT_EQ(support::Tree(), Names{"f"});
}

}  // namespace
