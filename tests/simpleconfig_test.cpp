#include "brefir/simpleconfig.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "pnl/deadline.h"
#include "support/error_of.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;
using utils::SCBaseField;
using utils::SimpleConfig;
using Names = std::vector<std::string>;

class SimpleConfigTest : public support::TempDir {
 protected:
  static SimpleConfig Open(const std::string& path = "f", bool create = false) {
    return {path, create, "#;", "=", "'"};
  }
};

std::string ErrorOf(const std::function<void()>& call) {
  return support::ErrorOf(call, {"value"});
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
  const std::pair<const char*, const char*> values[] = {{"v", "x"},   {"#b", ""},  {"b", "2"},
                                                        {"q", "x"},   {"p", "x'"}, {"e", ""},
                                                        {"none", ""}, {"a", "b=c"}};
  for (const auto& [key, value] : values) {
    EXPECT_EQ(config.Get(key, "'"), value) << key;
    EXPECT_EQ(config.Exists(key), key != "none"s) << key;
  }
  const std::filesystem::file_time_type time = last_write_time(Root() / "f");
  EXPECT_FALSE(config.Del("none"));
  EXPECT_EQ(last_write_time(Root() / "f"), time);
  EXPECT_TRUE(config.Del("v"));
  EXPECT_EQ(Get("f"), "\n#b=1\n b=2\nq='x\np=x''\ne\na=b=c\n");
}

TEST_F(SimpleConfigTest, FieldsFollowTheFile) {
  Put("f", "quoted = \"a b\" # x\nplain=c");
  utils::Config config("f");
  const SCBaseField quoted("quoted", &config, "");
  SCBaseField plain("plain", &config, "d");
  SCBaseField missing("missing", &config, "d");
  EXPECT_EQ(Get("f"), "quoted=a b\nplain=c\n");
  EXPECT_TRUE(quoted == "a b" && plain == "c"s && missing == "d" && !missing.is_set());
  missing = "m";
  plain.Del();
  EXPECT_TRUE(plain == "d" && !plain.is_set() && missing.is_set());
  EXPECT_EQ(Get("f"), "quoted=a b\nmissing=m\n");
}

TEST_F(SimpleConfigTest, TellsWhatHinders) {
  std::filesystem::create_directory("dir");
  EXPECT_EQ(ErrorOf([] { Open("none"); }), "pkg file_not_exists none");
  EXPECT_EQ(ErrorOf([] { (void)Open("dir").Exists("a"); }), "pkg file_open dir");
  EXPECT_EQ(ErrorOf([] { Open("dir/made", true).Set("a", "1", "dir"); }), "");
  EXPECT_EQ(Get("dir/made"), "a='1'\n");
  EXPECT_EQ(support::Tree(), (Names{"dir", "dir/made"}));
}

TEST_F(SimpleConfigTest, TheLockOutlivesTheFile) {
  const auto locked = [] { return ErrorOf([] { Open("link"); }); };
  Put("f", "a=1\n");
  std::filesystem::permissions("f", std::filesystem::perms(0640));
  std::filesystem::create_symlink("f", "link");
  {
    SimpleConfig config = Open("link");
    EXPECT_EQ(locked(), "lock timeout link");
    config.Set("a", "2", "");
    EXPECT_TRUE(pnl_file::Info("link", true).IsFile());  // the link itself is replaced
    EXPECT_EQ(pnl_file::Info("link").Stat().st_mode & 07777, 0640U);
    EXPECT_EQ(Get("f"), "a=1\n");
    EXPECT_EQ(locked(), "lock timeout link");
  }
  EXPECT_EQ(locked(), "");
}

/// Eight processes count up one key, each beside its own: no update is lost, and nobody reads a
/// torn file. BREFIR_STRESS_SECONDS lengthens the run.
TEST_F(SimpleConfigTest, ManyProcessesLoseNothing) {
  const char* seconds = std::getenv("BREFIR_STRESS_SECONDS");
  const pnl_time::Deadline end{std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 2)};
  const auto count_up = [](const std::string& own) {
    SimpleConfig config = Open("f", true);
    for (const std::string& key : {std::string("all"), own})
      config.Set(key, std::to_string(str::Int(config.Get(key, "'")) + 1), "all");
  };
  for (int i = 0; i < 8; ++i) {
    if (fork() != 0) continue;
    while (!end.Passed()) {
      const std::string error = ErrorOf([&] { count_up(std::to_string(i)); });
      if (!error.empty() && error != "lock timeout f") _exit(1);  // a crowd may take too long
      if (!pnl_file::Read("f").ends_with("'\n")) _exit(2);        // without a lock
    }
    _exit(0);
  }
  for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
  int sum = 0;
  for (int i = 0; i < 8; ++i) sum += str::Int(Open().Get(std::to_string(i), "'"));
  EXPECT_EQ(Open().Get("all", "'"), std::to_string(sum));
  EXPECT_GT(sum, 8);
  EXPECT_EQ(support::Tree(), Names{"f"});
}

}  // namespace
