#include "brefir/recipes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace recipe;
using Names = std::vector<std::string>;

std::string Script(const std::string& name, const std::string& tags = "") {
  return "#!/bin/sh\n# metadata_begin\n# recipe: " + name + "\n# tags: " + tags +
         "\n# metadata_end\n";
}

std::string ErrorOf(const std::function<void()>& call) {
  return support::ErrorOf(call, {"value"});
}

/// Name, revision, tags and descriptions in one line.
std::string Header(const RecipeInfo& info) {
  std::string text = info.name + "|" + info.revision + "|";
  for (const std::string& tag : info.tags) text += "<" + tag + ">";
  for (const auto& [lang, line] : info.descriptions) text += "|" + lang + "=" + line;
  return text;
}

/// A panel prefix; the recipes directory D is "d", the built-in repository the directory "www".
class RecipesTest : public support::TempDir {
 protected:
  RecipesTest() {
    MakePanelDirs();
    SetRepos("Velkor");
  }
  void SetRepos(const std::string& names) {
    std::string lines;
    std::string rest = names;
    while (!rest.empty()) {
      const std::string name = str::GetWord(rest);
      lines += "Repo recipes " + name + " file://" + Root().string() + "/www/" + name + ".tgz\n";
    }
    Put("etc/ostemplates.conf", lines);
  }
  static RecipeMap List(StringSet* failed = nullptr) {
    RecipeMap map;
    Manage("", "d").List(map, failed);
    return map;
  }
  static Names Ids(const RecipeMap& map) {
    Names ids;
    for (const auto& [id, info] : map) ids.push_back(id);
    return ids;
  }
  static std::string FromFile(const std::string& text) {
    Put("script", text);
    RecipeInfo info;
    info.path = "script";
    ParseFile(info);
    return Header(info);
  }
  static std::string FromMemory(const std::string& text) {
    RecipeInfo info;
    info.content = text;
    Manage("", "").ParseContent(info);
    return Header(info);
  }
};

TEST_F(RecipesTest, HeadersFromFilesAndFromMemory) {
  const std::string b = "#metadata_begin\n";
  const struct {
    std::string text;
    const char* file;
    const char* memory = nullptr;  // where it differs
  } cases[] = {
      {"", "||"},
      {"x\n# metadata_begin\n##\t recipe: Web: 1 \n# tags: a, b ,\n#tags:c\n# revision: 3\n"
       "# description_en: E\n# description_: x\n# description_en: F\n# color: red\n"
       "# metadata_end: x\n# recipe: late\n",
       "Web: 1|3|<a><b><c>|=x|en=F"},
      {b + "# tags: a,,b, ,a", "||<><a><b>"},
      {b + "# recipe: a\n# recipe\n# metadata_end now\n# revision : 2", "|2|"},
      {b + b + "#\n\n echo\n#Recipe: x\nREM recipe: y\n#recipe: z", "z||"},
      {"# metadata_begin:\n# recipe: a", "||"},
      {"# metadata_begin now\n# recipe: a", "||"},
      {"REM metadata_begin\n# recipe: a", "||"},
      {"  #  metadata_begin\n# recipe: a", "a||", "||"},
      {"# metadata_begin\r\n# recipe: a\r\n# metadata_end\r\n# recipe: b", "a||", "||"},
      {b + "# recipe: a\r\n  # revision: 1\n# metadata_end \r\n# recipe: b", "a|1|", "a||"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FromFile(c.text), c.file) << c.text;
    EXPECT_EQ(FromMemory(c.text), c.memory == nullptr ? c.file : c.memory) << c.text;
  }
}

TEST_F(RecipesTest, LongLinesAndLongScripts) {
  const std::string line = "# recipe: " + std::string(kMaxLine - 10, 'x');
  const std::string next = "\n# revision: 2\n# metadata_end\n";
  const std::string name(kMaxLine - 10, 'x');
  EXPECT_EQ(FromFile("# metadata_begin\n" + line + next), name + "|2|");
  EXPECT_EQ(FromFile("# metadata_begin\n" + line), name + "||");
  EXPECT_EQ(FromFile("# metadata_begin\n" + line + "y" + next), name + "||");
  EXPECT_EQ(FromMemory("# metadata_begin\n" + line + "y" + next), name + "y|2|");
  for (std::size_t size = 1000; size < 1040; ++size) {  // around the end of the first block
    EXPECT_EQ(FromFile(std::string(size, '\n') + "# metadata_begin\n# recipe: a\n# revision: 1"),
              "a|1|");
  }
  const auto read = [] {
    std::string io = pnl_file::Read("/proc/self/io");
    (void)str::GetWord(io, "rchar:");
    return str::Int64(io);
  };
  Put("script", Script("a") + std::string(1 << 20, '\n'));
  RecipeInfo info;
  info.path = "script";
  const auto before = read();
  ParseFile(info);
  EXPECT_LT(read() - before, 4096);
}

TEST(RecipeTexts, OutputNamesMethodsAndLevels) {
  const std::map<std::string, std::string> outputs = {{"a\tb\r\nc", "ab\nc"},
                                                      {"\303\25112", "2"},
                                                      {"\342\202\2541", "1"},
                                                      {"\360\237\230\20012", "2"},
                                                      {"a\177\33[0m~ ", "a[0m~ "},
                                                      {"a\377", "a"},
                                                      {"\377ab", "b"},
                                                      {"", ""}};
  for (const auto& [text, shown] : outputs) EXPECT_EQ(TruncateOutput(text), shown);
  EXPECT_EQ(TruncateOutput("b" + std::string(5120, 'a')), std::string(5120, 'a'));
  EXPECT_EQ(TruncateOutput("b" + std::string(5119, 'a')), "b" + std::string(5119, 'a'));
  EXPECT_EQ(TruncateOutput("\342\202\254" + std::string(5118, 'a')), std::string(5117, 'a'));

  RecipeInfo info;
  info.name = "Web";
  EXPECT_EQ(info.FullName(), "Web []");
  info.revision = "3";
  info.repo = "main";
  EXPECT_EQ(info.FullName(), "Web rev.3 [main]");
  for (const auto& [path, method] : std::map<std::string, std::string>{
           {"a.ps1", "winrm"}, {"b.bat", "winrm"}, {"c.PS1", "ssh"}, {"ps1", "ssh"}, {"", "ssh"}}) {
    info.path = path;
    Manage("", "").SetMethod(info);
    EXPECT_EQ(info.method, method) << path;
  }
  for (const auto& [text, level] : std::map<std::string, int>{
           {"", 255}, {"any", 255}, {"admin", 1}, {"none", 0}, {"Admin", 0}, {" any", 0}}) {
    EXPECT_EQ(StrToAccessLevel(text), level) << text;
  }
  EXPECT_EQ(AccessLevelToStr(static_cast<AccessLevel>(7)), "");
}

TEST_F(RecipesTest, ListsWhatIsARecipeAndNothingBlocks) {
  SetRepos("Velkor R none");
  fs::create_directories("d/repo/Velkor");
  Put("d/repo/R/x.sh", Script("X", "t, u"));
  Put("d/repo/R/a__b.ps1", Script("AB"));
  Put("d/repo/R/plain", "#!/bin/sh\n");
  Put("d/repo/other/x.sh", Script("X", "t"));
  EXPECT_EQ(Ids(List()), (Names{"R__a__b.ps1", "R__x.sh"}));
  fs::create_symlink("/proc/self/mem", "d/repo/R/unreadable");  // also by root

  Put("d/local/x.sh", Script("X", "u"));
  fs::create_directory("d/local/dir");
  fs::create_symlink("../repo/R/x.sh", "d/local/link");
  fs::create_symlink("none", "d/local/dangling");
  fs::create_symlink("/dev/zero", "d/local/zero");
  fs::create_symlink("fifo", "d/local/to-fifo");
  mkfifo("d/local/fifo", 0600);
  StringSet failed;
  const RecipeMap map = List(&failed);
  EXPECT_EQ(Ids(map), (Names{"#local__link", "#local__x.sh", "R__a__b.ps1", "R__x.sh"}));
  EXPECT_EQ(failed, (StringSet{"R", "none"}));
  EXPECT_EQ(map.at("R__a__b.ps1").method + map.at("R__a__b.ps1").repo, "winrmR");
  EXPECT_EQ(map.at("#local__x.sh").mtime, pnl_file::Info("d/local/x.sh").MTime());

  Manage manage("", "d");
  EXPECT_EQ(manage.FindByName("X", {"u"}, false)->id, "#local__link");
  EXPECT_EQ(manage.FindByName("X", {"t"}, true)->content, Script("X", "t, u"));
  EXPECT_EQ(manage.FindByName("AB", {}, false), nullptr);
  EXPECT_TRUE(manage.Exists("R__a__b.ps1"));
  EXPECT_FALSE(manage.Exists("R__plain"));
  EXPECT_EQ(manage.GetById("R__plain", false)->name, "");
  EXPECT_EQ(manage.GetById("R__a__b.ps1", false)->path, Root().string() + "/d/repo/R/a__b.ps1");
  EXPECT_EQ(manage.GetById("#local__link", true)->content, Script("X", "t, u"));
  for (const std::string name : {"none", "dangling"}) {
    EXPECT_EQ(ErrorOf([&] { (void)manage.GetById("#local__" + name, false); }),
              "read file d/local/" + name);
  }
  const std::string local = "read file " + Root().string() + "/d/local/";
  for (const std::string name : {"dir", "fifo"}) {
    EXPECT_EQ(ErrorOf([&] { (void)manage.GetById("#local__" + name, true); }), local + name);
  }
  manage.SetAccessLevel("#local__x.sh", kAccessNone);
  EXPECT_TRUE(manage.Delete("#local__x.sh"));
  EXPECT_EQ(ErrorOf([&] { manage.Delete("#local__x.sh"); }), "read file d/local/x.sh");
  EXPECT_EQ(Get("d/metadata.xml").find("elem"), std::string::npos);
}

// --- Repositories

constexpr const char* kPrelude = R"(import io, sys, tarfile
out = sys.argv[1] + '/out'; name = sys.argv[2]
tar = tarfile.open(name, 'w:gz')
def add(name, kind=tarfile.REGTYPE, link='', data=b'x', mode=0o644, uid=0):
  t = tarfile.TarInfo(name); t.type = kind; t.linkname = link; t.mode = mode; t.uid = uid
  t.size = len(data) if kind == tarfile.REGTYPE else 0
  tar.addfile(t, io.BytesIO(data))
def recipe(file, name, **how): add(file, data=b'#metadata_begin\n#recipe: ' + name.encode(), **how)
def cut(): tar.close(); open(name, 'r+b').truncate(60)
)";

class RecipeRepoTest : public RecipesTest {
 protected:
  RecipeRepoTest() {
    Put("out/victim", "untouched");
    Publish("www/Velkor.tgz", "recipe('old.sh', 'Old')");
  }
  void Publish(const std::string& archive, const std::string& python) {
    fs::create_directories("www");
    Put("make.py", kPrelude + python + "\ntar.close()\n");
    const std::string command = "python3 make.py " + Root().string() + " ";
    ASSERT_EQ(pnl_proc::Execute(command + pnl_proc::Escape(archive)).Result(), 0);
  }
  static bool Update(StringSet* failed = nullptr) {
    return RecipeRepo().UpdateCache("d/repo", false, failed);
  }
};

TEST_F(RecipeRepoTest, FetchesAllAndKeepsWhatItCannotReplace) {
  const support::RepoServer server("www");
  Put("etc/ostemplates.conf",
      "Repo recipes Velkor " + server.Url() + "/Velkor.tgz\n" + "Repo recipes bad " + server.Url() +
          "/none.tgz\n" + "Repo recipes bad.backup file:///\n" + "Repo recipes odd file://" +
          Root().string() + "/odd/it's;$(touch${IFS}x).tgz\n");
  fs::create_directory("odd");
  Publish("odd/it's;$(touch${IFS}x).tgz", "recipe('o.sh', 'O', mode=0o6777, uid=7)");
  Put("d/repo/bad/kept.sh", Script("Kept"));
  Put("d/repo/bad.backup/b.sh", Script("No leftover"));
  Put("d/repo/bad.brefir-a1b2c3/b.sh", Script("Of an update that was killed"));
  for (const char* path : {"bad.ubuntu/b.sh", "bad.tar.gz", "bad.brefir-a1b2c4"}) {
    Put(std::string("d/repo/") + path, "somebody else's");
  }
  EXPECT_EQ(Ids(List()), (Names{"Velkor__old.sh", "bad.backup__b.sh", "bad__kept.sh",
                                "odd__o.sh"}));  // first use

  Publish("www/Velkor.tgz", "recipe('new.sh', 'New')");
  StringSet failed;
  EXPECT_FALSE(Update(&failed));
  EXPECT_EQ(failed, (StringSet{"bad", "bad.backup"}));
  EXPECT_EQ(Ids(List()),
            (Names{"Velkor__new.sh", "bad.backup__b.sh", "bad__kept.sh", "odd__o.sh"}));
  EXPECT_EQ(pnl_file::Info("d/repo/odd/o.sh").Stat().st_mode & 07777U, 0755U);
  EXPECT_EQ(pnl_file::Info("d/repo/odd/o.sh").Stat().st_uid, geteuid());
  EXPECT_EQ(support::Tree("d/repo").size(), 8U + 4U);  // nothing temporary
  EXPECT_FALSE(fs::exists("x"));
}

/// Nothing lands outside, and what is refused keeps the old recipes; the log says why.
TEST_F(RecipeRepoTest, HostileArchives) {
  const struct {
    const char* python;
    const char* reason;  ///< "": made harmless; these come last
  } cases[] = {
      {"recipe('r', 'R'); add('../out/member')", "2"},
      {"add('l', tarfile.SYMTYPE, out); add('l/member')", "2"},
      {"add('l', tarfile.SYMTYPE, '../../../out/victim')", "link_outside"},
      {"add('l', tarfile.SYMTYPE, out)", "absolute_link"},
      {"add('l', tarfile.LNKTYPE, out + '/victim')", "2"},
      {"add('null', tarfile.CHRTYPE)", "special_file"},
      {"add('fifo', tarfile.FIFOTYPE)", "special_file"},
      {"add('r', data=b'x' * 9999); cut()", "2"},
      {"add('r', data=bytes(65 << 20))", "too_large"},
      {"import os; tar.close(); os.system(f'truncate -s 1G x; tar cSzf {name} x; rm x')",
       "too_large"},
      {"recipe('r', 'R'); add('/' + out + '/member')", ""},
      {"add('Velkor.tgz', tarfile.SYMTYPE, out + '/victim')", ""},
  };
  const Names old = {"Velkor", "Velkor/old.sh"};
  ASSERT_TRUE(Update());
  for (const auto& [python, reason] : cases) {
    SCOPED_TRACE(python);
    Publish("www/Velkor.tgz", python);
    Put("var/recipes_test.log", "");
    pnl_log::Reload();
    EXPECT_EQ(Update(), *reason == '\0');
    if (*reason == '\0') continue;
    EXPECT_EQ(support::Tree("d/repo"), old);
    EXPECT_NE(Get("var/recipes_test.log").find(std::string("recipe extract ") + reason + "\n"),
              std::string::npos);
  }
  EXPECT_EQ(support::Tree("out"), Names{"victim"});
  EXPECT_EQ(Get("out/victim"), "untouched");
}

TEST_F(RecipeRepoTest, AListingDuringUpdatesIsOldOrNew) {
  for (const std::string version : {"a", "b"}) {
    Publish("www/" + version,
            "for i in range(200): recipe(f'" + version + "{i}', '" + version + "')");
  }
  std::atomic<bool> done{false};
  ASSERT_TRUE(Update());
  std::thread updates([&] {
    for (int i = 0; i < 8; ++i) {
      fs::rename(i % 2 == 0 ? "www/a" : "www/b", "www/Velkor.tgz");
      fs::copy_file("www/Velkor.tgz", i % 2 == 0 ? "www/a" : "www/b");
      EXPECT_TRUE(Update());
    }
    done = true;
  });
  std::map<std::string, std::size_t> seen;  // names of whole listings
  while (!done) {
    StringSet failed;
    std::map<std::string, std::size_t> names;
    for (const auto& [id, info] : List(&failed)) ++names[info.name];
    EXPECT_TRUE(failed.empty());
    EXPECT_LE(names.size(), 1U);
    for (const auto& [name, count] : names) EXPECT_EQ(count, name == "Old" ? 1U : 200U);
    seen.merge(names);
  }
  updates.join();
  EXPECT_TRUE(seen.contains("a") && seen.contains("b"));
  EXPECT_EQ(support::Tree("d/repo").size(), 201U);
}

// --- Local parameters

TEST_F(RecipesTest, LocalParameters) {
  Put("d/local/a", Script("A"));
  Put("d/local/b'\"", Script("B"));
  fs::create_directories("d/repo/Velkor");
  Manage manage("", "d");
  const std::string odd = "#local__b'\"";
  manage.SetOwner("#local__a", "alice");
  manage.SetAccessLevel(odd, kAccessAdmin);
  manage.SetAccessLevel(odd, kAccessNone);
  manage.SetAccessLevel("gone__x", static_cast<AccessLevel>(7));
  EXPECT_EQ(List().at("#local__a").owner, "alice");
  EXPECT_EQ(List().at("#local__a").access, kAccessAny);
  EXPECT_EQ(List().at(odd).access, kAccessNone);
  EXPECT_EQ(manage.GetById(odd, false)->access, kAccessNone);
  EXPECT_EQ(ErrorOf([&] { manage.SetOwner(odd, "\x01"); }), "xml text \x01");
  EXPECT_EQ(List().at(odd).access, kAccessNone);
  manage.DeleteLocalParams(odd);
  EXPECT_EQ(List().at(odd).access, kAccessAny);
  EXPECT_EQ(List().at("#local__a").owner, "alice");
  Put("d/metadata.xml",
      "<doc><elem name='#local__a'><access>admin</access></elem>"
      "<elem name='#local__a'><owner>bob</owner><access>Any</access></elem></doc>");
  EXPECT_EQ(List().at("#local__a").owner + std::to_string(List().at("#local__a").access), "bob0");
}

/// Whatever is wrong with the file: a locked recipe never looks open, and nothing overwrites it.
TEST_F(RecipesTest, LocalParametersFailClosed) {
  Put("d/local/a", Script("A"));
  fs::create_directories("d/repo/Velkor");
  Manage manage("", "d");
  const std::function<void()> calls[] = {
      [] { List(); },
      [&] { (void)manage.GetById("#local__a", false); },
      [&] { (void)manage.FindByName("A", {""}, false); },
      [&] { manage.SetOwner("#local__a", "bob"); },
      [&] { manage.Delete("#local__a"); },
      [&] { manage.DeleteLocalParams("#local__a"); },
  };
  const auto refused = [&](const char* what) {
    for (std::size_t i = 0; i < std::size(calls); ++i) {
      EXPECT_NE(ErrorOf(calls[i]), "") << what << " " << i;
    }
  };
  const std::string good = "<doc><elem name='#local__a'><access>none</access></elem></doc>";
  for (const std::string& bad : {std::string(), good.substr(0, 60), good + "<doc/>",
                                 "<root>" + good + "</root>", "\xff" + good}) {
    Put("d/metadata.xml", bad);
    refused(bad.c_str());
    EXPECT_EQ(Get("d/metadata.xml"), bad);
  }
  for (const char* target : {"none", "metadata.xml", "/dev/null", "local"}) {
    fs::remove("d/metadata.xml");
    fs::create_symlink(target, "d/metadata.xml");
    refused(target);
  }
  fs::remove("d/metadata.xml");
  EXPECT_TRUE(fs::exists("d/local/a"));
}

}  // namespace
