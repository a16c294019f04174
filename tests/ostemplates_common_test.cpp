#include "brefir/ostemplates_common.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "pnl/err.h"
#include "pnl/settings.h"
#include "support/error_of.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;

constexpr const char* kConf = "etc/ostemplates.conf";

class TestRepo : public ostemplate::Repo {
 public:
  explicit TestRepo(const std::string& kind) : Repo(kind, "B") {}
  bool UpdateCache(const std::string&, bool, StringSet*) override { return false; }

  std::string List() const {
    std::string list;
    for (const auto& [name, info] : repos) {
      list += name + "=" + info.location + (info.builtin ? "!;" : ";");
    }
    return list;
  }
};

class OstemplatesCommonTest : public support::TempDir {
 protected:
  OstemplatesCommonTest() { MakePanelDirs(); }
};

TEST_F(OstemplatesCommonTest, ListsTheLinesOfItsKindAndLooksThemUp) {
  EXPECT_EQ(TestRepo("ostemplates").List(), "Velkor=B!;");
  const std::string huge(16 << 20, 'x');
  const struct {
    std::string text, templates, recipes;
  } cases[] = {
      {"Repo ostemplates a X\nRepo recipes b Y # Z\n", "Velkor=B!;a=X;", "Velkor=B!;b=Y;"},
      {"Repo ostemplates a X#\n#\n\nRepo ostemplates a Y\n", "Velkor=B!;a=Y;", "Velkor=B!;"},
      {"\tRepo\tostemplates  Velkor X more\r\n#Repo ostemplates a X\nrepo ostemplates b X",
       "Velkor=X;", "Velkor=B!;"},
      {"Repo\nRepo ostemplates\nRepo ostemplates a\nRepo ostemplates b#X\n", "Velkor=B!;a=;b=;",
       "Velkor=B!;"},
      {"Repo ostemplates \0\xff\xc3 X\0\n"s, "\0\xff\xc3=X\0;Velkor=B!;"s, "Velkor=B!;"},
      {huge + "\nRepo recipes " + huge + " X\n#" + huge, "Velkor=B!;", "Velkor=B!;" + huge + "=X;"},
  };
  for (const auto& c : cases) {
    Put(kConf, c.text);
    EXPECT_TRUE(TestRepo("ostemplates").List() == c.templates) << c.text.substr(0, 80);
    EXPECT_TRUE(TestRepo("recipes").List() == c.recipes) << c.text.substr(0, 80);
  }
  Put(kConf, "Repo recipes b X\nRepo recipes a X\n");
  const TestRepo repo("recipes");
  EXPECT_EQ(repo.GetID("X"), "a");
  EXPECT_EQ(repo.GetID("x"), "");
  EXPECT_EQ(repo.GetLocation("b"), "X");
  EXPECT_EQ(repo.GetLocation("d"), "");
}

// A location "-" means delete.
TEST_F(OstemplatesCommonTest, WorksUntilTheProcessEnds) {
  const auto leave = [] {
    std::atexit([] {                    // runs after the destructors of what is made from now on
      std::vector<std::string> others;  // take the memory of what was destroyed
      for (std::size_t size = 24; size < 24 * 400; size += 8) others.emplace_back(size % 256, 'x');
      const bool works =
          TestRepo("x").List() == "Velkor=B!;" && pnl_settings::Get("module_name") == "panel";
      _exit(works ? 0 : 1);
    });
    TestRepo("x").List();
    std::exit(2);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "");
}

TEST_F(OstemplatesCommonTest, EditsOnlyItsLine) {
  const struct {
    std::string before, name, location, after;
  } cases[] = {
      {"", "a", "X", "Repo ostemplates a X\n"},
      {"# c\n\nOther a b\n", "a", "X", "# c\n\nOther a b\nRepo ostemplates a X\n"},
      {"Repo recipes a Y # no end", "a", "X", "Repo recipes a Y # no end\nRepo ostemplates a X\n"},
      {"Other\r\n", "a", "X", "Other\r\nRepo ostemplates a X\r\n"},
      {" Repo\tostemplates  a Y more#c\r\n# d", "a", "long",
       " Repo\tostemplates  a long more#c\r\n# d"},
      {"Repo ostemplates a Y\nRepo ostemplates a Z\n", "a", "X",
       "Repo ostemplates a Y\nRepo ostemplates a X\n"},
      {"Repo ostemplates a # c\r\nb", "a", "X", "Repo ostemplates a X # c\r\nb"},
      {"Repo ostemplates a Y\n", "Velkor", "X",
       "Repo ostemplates a Y\nRepo ostemplates Velkor X\n"},
      {"Repo recipes a Y\n", "a", "-", "Repo recipes a Y\n"},
      {"# c\nRepo ostemplates a Y # d\n\nRepo ostemplates b Z\nRepo ostemplates a", "a", "-",
       "# c\n\nRepo ostemplates b Z\n"},
  };
  for (const auto& c : cases) {
    Put(kConf, c.before);
    TestRepo repo("ostemplates");
    const bool known = repo.Exists(c.name);
    if (c.location == "-") {
      EXPECT_EQ(repo.Delete(c.name), known);
      EXPECT_EQ(repo.Exists(c.name), known);
      EXPECT_FALSE(TestRepo("ostemplates").Exists(c.name));
    } else {
      repo.Set(c.name, c.location);
      EXPECT_EQ(TestRepo("ostemplates").List(), repo.List());
    }
    EXPECT_EQ(Get(kConf), c.after);
  }
}

TEST_F(OstemplatesCommonTest, RefusesBadWordsAndUnreadableFiles) {
  const struct {
    std::string name, location, field;
  } cases[] = {
      {"", "X", "name"},         {"a b", "X", "name"},    {"a\0"s, "X", "name"},
      {"a", "", "location"},     {"a", "X#", "location"}, {"a", "X\r", "location"},
      {"b", "X\nY", "location"},
  };
  Put(kConf, "Repo recipes b Y");
  TestRepo repo("recipes");
  const std::string list = repo.List();
  for (const auto& c : cases) {
    EXPECT_EQ(support::ErrorOf([&] { repo.Set(c.name, c.location); }, {"field"}),
              "parser bad_word " + std::string(c.field))
        << c.name << " " << c.location;
  }
  EXPECT_EQ(Get(kConf), "Repo recipes b Y");
  EXPECT_EQ(repo.List(), list);

  std::filesystem::remove(kConf);
  std::filesystem::create_directory(kConf);
  EXPECT_THROW(TestRepo("recipes"), pnl_err::Error);
  std::filesystem::remove_all("etc");
  EXPECT_THROW(repo.Set("a", "X"), pnl_err::Error);
  EXPECT_FALSE(std::filesystem::exists("etc"));
}

// Changes of the same size, within one tick of the file system's clock.
TEST_F(OstemplatesCommonTest, SeesEveryChangeOfTheFile) {
  for (int i = 100; i < 400; ++i) {
    Put(kConf, "Repo recipes a " + std::to_string(i));
    EXPECT_EQ(TestRepo("recipes").GetLocation("a"), std::to_string(i));
  }
}

TEST_F(OstemplatesCommonTest, ChangesOfProcessesAndThreadsJoin) {
  const auto set = [](const std::string& who) {
    TestRepo repo("recipes");
    for (int i = 0; i < 25; ++i) repo.Set(who + std::to_string(i), "X");
    repo.Delete(who + "0");
  };
  const pid_t child = fork();
  {
    const std::string who = child == 0 ? "child" : "parent";
    std::jthread thread(set, who + "-thread");
    set(who);
  }
  if (child == 0) _exit(0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(TestRepo("recipes").repos.size(), 1U + 4 * 24);
}

}  // namespace
