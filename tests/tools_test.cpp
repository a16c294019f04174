// The programs' frame, through the real brefirctl where it can be seen from there.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>

#include "brefir/ostemplates.h"
#include "console/progress_bar.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/settings.h"
#include "pnl/task.h"
#include "pnl/utf8.h"
#include "support/temp_dir.h"
#include "tools/commands/families.h"
#include "tools/frame/command_line.h"
#include "tools/frame/output.h"

namespace {

struct Finished {
  int code;
  std::string out;
  std::string err;
};

class ToolsTest : public support::TempDir {
 protected:
  ToolsTest() { MakePanelDirs(); }

  /// `arguments` are shell words; redirections of theirs come last and win.
  static Finished Brefirctl(const std::string& arguments) {
    return Shell(pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " >out 2>err " + arguments);
  }

  static Finished Shell(const std::string& command) {
    Put("out", "");
    Put("err", "");
    const int code = pnl_proc::Execute(command).Result();
    return {code, Get("out"), Get("err")};
  }

  static std::string StartTask(const std::string& name, const std::string& script) {
    pnl_task::LongTask task("/bin/sh", name, "TEST");
    task.SetParams({"-c", script});
    task.Start(pnl_task::kDetached);
    return pnl_proc::Escape(task.Id());
  }
};

TEST_F(ToolsTest, TellsErrorsApartFromData) {
  Put("templates/main__x/metainfo.xml", "<doc/>");
  Put("templates/main__x/templatemacros.values", "old\t1");
  const struct {
    std::string arguments;
    int code;
    std::string out;  // "" is nothing, else what it begins with
    std::string err;
  } cases[] = {
      {"--version", 0, "brefirctl ", ""},
      {"task list", 0, "", ""},
      {"task list -o json", 0, "[]\n", ""},
      {"", 2, "", "brefirctl: FAMILY is missing"},
      {"task lsit", 2, "", "brefirctl: unknown verb 'lsit'; did you mean 'list'?"},
      {"-vojson task lsit", 2, "", "brefirctl: unknown verb"},
      {"task lsit -o json", 2, "",
       R"({"type":"usage","object":"lsit","value":"brefirctl task","par)"},
      {"task show none", 1, "", "brefirctl: there is no task 'none'"},
      {"task show none -ojson", 1, "",
       R"({"type":"missed","object":"task","value":"none","params":{"message":"there is no task)"},
      {"--prefix none task list", 1, "", "brefirctl: cannot enter 'none': No such file"},
      {"repo add recipes r h/r.tar.gz", 2, "",
       "brefirctl: LOCATION 'h/r.tar.gz' is not an address"},
      {"repo add recipes r file:r", 2, "", "brefirctl: LOCATION 'file:r' is not an address"},
      {"repo add recipes r http:///r", 2, "", "brefirctl: LOCATION 'http:///r' is not an address"},
      {"macro reset main__x none", 1, "", "brefirctl: template 'main__x' has no macro 'none'"},
      {"macro reset main__x old --dry-run", 0, "--- ", ""},
      {"recipe lint ''", 2, "", "brefirctl: an empty word on the command line"},
      {"--man none", 2, "", "brefirctl: there is no man page"},
      {"--help >/dev/full", 1, "", "brefirctl: cannot write 'standard output': No space left"},
      {"--help >&-", 1, "", "brefirctl: cannot write 'standard output': Bad file"},
  };
  for (const auto& c : cases) {
    const Finished run = Brefirctl(c.arguments);
    EXPECT_EQ(run.code, c.code) << c.arguments;
    EXPECT_EQ(run.out.substr(0, c.out.empty() ? run.out.size() : c.out.size()), c.out);
    EXPECT_EQ(run.err.substr(0, c.err.empty() ? run.err.size() : c.err.size()), c.err);
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), c.err.empty() ? 0 : 1);
  }
}

TEST_F(ToolsTest, AReaderThatLeftCostsTheExitCodeOnly) {
  const Finished run = Shell("(sleep 0.2; " + pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") +
                             " --help; echo $? >out) 2>err | true; sleep 0.5");
  EXPECT_EQ(run.out, "1\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(ToolsTest, FollowsTasks) {
  const std::string bad = StartTask("bad", "echo hello; sleep 0.5; exit 3");
  Finished run = Brefirctl("task wait -o json " + bad);
  EXPECT_EQ(run.code, 1);
  EXPECT_NE(run.out.find("\"exit_code\": 3,"), std::string::npos) << run.out;
  EXPECT_TRUE(run.err.starts_with(R"({"type":"task","object":"failed")")) << run.err;
  EXPECT_EQ(Brefirctl("task log " + bad).out, "hello\n");

  const std::string good = StartTask("a\xff\x1b[2J", "exit 0");
  EXPECT_EQ(Brefirctl("task wait " + good).code, 0);
  EXPECT_NE(Brefirctl("task show " + good).out.find("a\xEF\xBF\xBD\\x1b[2J\n"), std::string::npos);
  run = Brefirctl("task show -ojson " + good);
  EXPECT_NE(run.out.find("\"a\xEF\xBF\xBD\\u001b[2J\""), std::string::npos) << run.out;
  EXPECT_EQ(Brefirctl("task list").out.substr(0, 3), "ID ");
  EXPECT_NE(Brefirctl("task show -ojson " + good).out.find(R"("pid": null)"), std::string::npos);
}

/// What the program writes to `output`, which closes standard output in the end.
template <class Write>
std::string Captured(tools::Format format, const Write& write) {
  const int kept = dup(STDOUT_FILENO);
  EXPECT_NE(freopen("captured", "w", stdout), nullptr);
  tools::Output output(format);
  write(output);
  output.Finish();
  dup2(kept, STDOUT_FILENO);
  close(kept);
  std::ifstream in("captured");
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(ToolsTest, RecordsAreTablesOrJson) {
  const std::vector<tools::Record> records = {
      tools::Record()
          .Add("name", "中文")
          .Add("size", 7U)
          .Add("good", true)
          .Add("tags", StringSet{"b", "a"})
          .Add("macros", StringMap{{"x", "1"}}),
      tools::Record()
          .Add("name", "a\nb\xFF")
          .Add("size", -12)
          .Add("good", false)
          .Add("tags", std::optional<std::string>())
          .Add("macros", std::vector{tools::Record().Add("y", "2")}),
  };
  EXPECT_EQ(Captured(tools::Format::kTable, [&](auto& out) { out.List(records); }),
            "NAME   SIZE  GOOD  TAGS  MACROS\n"
            "中文      7  yes   a, b  x=1\n"
            "a\\nb\xEF\xBF\xBD   -12  no    -     y=2\n");
  EXPECT_EQ(Captured(tools::Format::kTable, [&](auto& out) { out.One(records[1]); }),
            "name    a\n        b\xEF\xBF\xBD\nsize    -12\ngood    no\ntags    -\nmacros  y=2\n");
  std::string json =
      Captured(tools::Format::kJson, [&](auto& out) { out.List(records, {"name"}); });
  json.erase(std::remove_if(json.begin(), json.end(), [](char c) { return c == ' ' || c == '\n'; }),
             json.end());
  EXPECT_EQ(json, R"([{"name":"中文","size":7,"good":true,"tags":["a","b"],"macros":{"x":"1"}},)"
                  R"({"name":"a\nb�","size":-12,"good":false,"tags":null,"macros":[{"y":"2"}]}])");
}

TEST_F(ToolsTest, ATerminalGetsABarAndNoControlCharacters) {
  const std::string id = StartTask("t", "printf 'a\\033[2Jb'; sleep 0.5");
  const std::string command = pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " task ";
  // script(1) runs its command on a terminal of its own.
  const Finished run =
      Shell("TERM=xterm script -qec " +
            pnl_proc::Escape(command + "wait " + id + " >wait; " + command + "log " + id) +
            " /dev/null >out </dev/null");
  EXPECT_NE(run.out.find("\rTEST@t  ...\x1b[K"), std::string::npos) << run.out;
  EXPECT_TRUE(run.out.ends_with("\r\x1b[Ka\\x1b[2Jb")) << run.out;
  EXPECT_TRUE(Get("wait").starts_with("id "));
  EXPECT_EQ(Shell("TERM=xterm script -qec " + pnl_proc::Escape(command + "wait -q " + id) +
                  " /dev/null >out </dev/null")
                .out.find("\x1b"),
            std::string::npos);
}

TEST_F(ToolsTest, LaysOutAPrefixAndKeepsWhatIsThere) {
  Put("p/etc/log.conf", "* 9\n");
  Finished run = Brefirctl("--prefix none prefix init p");
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(Get("p/etc/log.conf"), "* 9\n");
  EXPECT_EQ(Get("p/etc/brefir.conf"), Get(BREFIR_SOURCE_DIR "/etc/brefir.conf"));
  EXPECT_TRUE(std::filesystem::is_directory("p/var"));
  run = Shell("cd p && sbin/brefirctl prefix init . >../out");
  EXPECT_EQ(run.code, 0);
  EXPECT_EQ(run.out.find("made"), std::string::npos) << run.out;
}

TEST_F(ToolsTest, TheDemoNamesWhatIsMissingAndLeavesNothing) {
  const std::string demo =
      pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " demo --part templates >out 2>err ";
  EXPECT_EQ(Shell("PATH=/none " + demo).code, 1);
  EXPECT_NE(Get("err").find("apt-get install --no-install-recommends python3 "), std::string::npos);
  std::filesystem::create_directory("tmp");
  for (const std::string where : {"", "LAB=1 "}) {  // in a lab of its own (as root), and without
    const Finished run =
        Shell(where + "TMPDIR=$PWD/tmp setsid " + demo +
              "& until grep -q 'template install' out || ! kill -0 $!; do sleep 0.1;"
              " done; kill $!; wait $!");
    EXPECT_EQ(run.code, 128 + SIGTERM) << where << run.err;
    // What the kernel is just ending may take a moment.
    const std::string left =
        Shell(
            "for i in $(seq 50); do grep -las TMPDIR=$PWD/tmp /proc/[0-9]*/environ >left || exit 0;"
            " sleep 0.1; done; for i in $(cat left); do tr '\\0' ' ' <${i%environ}cmdline; done "
            ">out")
            .out;
    EXPECT_EQ(left, "") << where;
    EXPECT_EQ(support::Tree("tmp"), std::vector<std::string>()) << where;
  }
}

TEST_F(ToolsTest, CompletionKnowsCommandsAndWhatAPanelHas) {
  const std::string brefirctl = pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl");
  Put("p/etc/ostemplates.conf", "Repo recipes main http://h/r.tar.gz\n");
  Put("p/etc/nodes", "[db]\ndb[1-2]\n");
  Put("try", "source <(" + brefirctl + R"( --completion bash)
t() { COMP_LINE=$1 COMP_POINT=${#1}; _brefirctl; echo "${COMPREPLY[*]}"; }
t 'brefirctl --prefix task pref'
t 'brefirctl -v task '
t 'brefirctl task list --output=j'
t 'brefirctl template mark KEY restrict o'
t ')" BREFIR_BIN_DIR R"(/brefirctl repo remove recipes --prefix p '
t ')" BREFIR_BIN_DIR R"(/brefirctl --prefix p node remove db2 d'
t ')" BREFIR_BIN_DIR R"(/brefirctl --prefix p node facts --nodes '
)");
  EXPECT_EQ(
      Shell("bash try >out 2>err").out,
      "prefix\nlist show wait log\njson\non off\n\\#local Velkor main\ndb1 db2\n@all @db @failed "
      "db1 db2\n")
      << Get("err");
  EXPECT_EQ(Brefirctl("--candidates none --prefix /none").code, 0);
}

TEST_F(ToolsTest, TellsWhoIsBusyAndNoPasswords) {
  Put("templates/main__x/metainfo.xml", "<doc/>");
  const pnl_file::Lock installing = ostemplate::LockTemplate(Root() / "templates", "main__x");
  EXPECT_NE(Brefirctl("template remove main__x").err.find("being installed"), std::string::npos);
  const std::string said = Brefirctl("repo add recipes r http://u:secret@h/r").out +
                           Brefirctl("repo list recipes -ojson").out +
                           Brefirctl("repo add recipes r http://u:secret#@h/r").err;
  EXPECT_EQ(said.find("secret"), std::string::npos) << said;
  EXPECT_NE(Get("etc/ostemplates.conf").find("http://u:secret@h/r"), std::string::npos);
}

TEST_F(ToolsTest, EveryCommandHasFieldsAndExamplesThatParse) {
  const std::vector<tools::Family> families = tools::Families();
  for (const tools::Family& family : families) {
    for (const tools::Verb& verb : family.verbs) {
      EXPECT_FALSE(verb.examples.empty()) << verb.name;
      EXPECT_EQ(verb.fields.empty(), family.name == "demo") << verb.name;
      for (const std::string& example : verb.examples) {
        const std::string call = family.name + " " + verb.name + " " + example;
        std::string lines = Shell("printf '%s\\n' " + call + " >out").out;
        std::vector<std::string> words;
        while (!lines.empty()) words.push_back(str::GetWord(lines, '\n'));
        EXPECT_NO_THROW((void)tools::Program(families).Parse(words)) << call;
      }
    }
  }
}

TEST_F(ToolsTest, ManPagesAreWellFormed) {
  if (Shell("command -v groff").code != 0) GTEST_SKIP() << "no groff";
  std::string families = "''";
  for (const tools::Family& family : tools::Families()) families += " " + family.name;
  Shell("for f in " + families + "; do " BREFIR_BIN_DIR "/brefirctl --man $f >$f.1; done");
  Shell("for f in *.1 " BREFIR_SOURCE_DIR "/docs/man/*.5; do " +
        std::string("groff -man -Tascii -P-cbou -ww $f; done >out 2>err"));
  EXPECT_EQ(Get("err"), "");
  EXPECT_NE(Get("out").find("brefirctl task wait [OPTION...] ID"), std::string::npos);
}

std::string Page(const std::string& name) {
  std::ifstream in(BREFIR_SOURCE_DIR "/docs/man/" + name);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(ToolsTest, ExamplesInManPagesAreRealFiles) {
  Put("templates/main__x/metainfo.xml",
      "<doc><osname>x</osname><install_result>ok</install_result>"
      "<macro><elem name='timezone'>UTC</elem></macro></doc>");
  const struct {
    std::string page;
    std::string file;
    std::string arguments;
    std::string said;
  } cases[] = {
      {"ostemplates.conf.5", "etc/ostemplates.conf", "repo list recipes -ojson",
       "https://templates.example.org/r.tar.gz\""},
      {"brefir-recipe.5", "var/recipes/local/w.sh", "recipe show '#local__w.sh'", "Web server"},
      {"brefir-recipe.5", "w.sh", "recipe lint w.sh -ojson", "[]"},
      {"templatemacros.values.5", "templates/main__x/templatemacros.values", "macro list main__x",
       "Europe/Berlin"},
      {"stat.counters.5", "var/stat.counters", "stat counters get localhost:eth0 tx_bytes",
       "5120774"},
      {"brefir-nodes.5", "etc/nodes", "node list -ocsv '@eu,!web[02-40]'",
       "web41,192.0.2.141,root,22,etc/eu.key,,,,\"eu, web\""},
      {"brefir.conf.5", "etc/brefir.conf", "template remove main__x 2>&1", "in /srv/templates;"},
  };
  for (const auto& c : cases) {
    std::string text = Page(c.page).substr(Page(c.page).find(".SH EXAMPLES\n.EX\n") + 17);
    Put(c.file, str::Replace(text.substr(0, text.find(".EE")), "\\-", "-"));
    EXPECT_NE(Brefirctl(c.arguments).out.find(c.said), std::string::npos)
        << c.page << Get("out") << Get("err");
  }
}

TEST_F(ToolsTest, SettingsAreTheSameInCodePageAndSample) {
  const std::string page = Page("brefir.conf.5");
  const std::string sample = Get(BREFIR_SOURCE_DIR "/etc/brefir.conf");
  std::size_t documented = 0;
  for (std::size_t at = 0; (at = page.find("\n.TP\n.B ", at)) != std::string::npos; ++at)
    ++documented;
  EXPECT_EQ(documented, pnl_settings::Defaults().size());
  for (const auto& [key, value] : pnl_settings::Defaults()) {
    const std::size_t entry = page.find("\n.TP\n.B " + key + "\n");
    ASSERT_NE(entry, std::string::npos) << key;
    const std::string told = page.substr(entry, page.find("\n.TP\n", entry + 1) - entry);
    EXPECT_NE(told.find("Default: " + value), std::string::npos)
        << told << "\nmust tell the value in src/pnl/settings.cpp: " << value;
    EXPECT_NE(sample.find("\n#" + key + " = " + value), std::string::npos)
        << "etc/brefir.conf must have the line #" << key << " = " << value;
  }
}

TEST(Text, PrintsOnlyWhatStaysInItsColumn) {
  const struct {
    std::string text;
    std::string printable;
    std::size_t columns;
  } cases[] = {
      {"a\nb\t", "a\\nb\\t", 6},
      {"\x1b[1m\x7f", "\\x1b[1m\\x7f", 11},
      {"\xC2\x9B", "\\x9b", 4},                               // a control sequence in one character
      {"\xE2\x80\xAEtxt", "\\u202etxt", 9},                   // would turn what follows around
      {"e\xCC\x81\xE4\xB8\xAD", "e\xCC\x81\xE4\xB8\xAD", 3},  // combining, wide
      {"\xC0\xAF\xED\xA0\x80\xE4\xB8",
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD",
       7},  // overlong, surrogate, cut
  };
  for (const auto& c : cases) {
    EXPECT_EQ(utf8::Printable(c.text), c.printable);
    EXPECT_EQ(utf8::Columns(c.printable), c.columns) << c.printable;
  }
}

TEST(Progress, LineFitsTheTerminal) {
  EXPECT_EQ(console::ProgressLine("http://h/a.tar", 1536, 3072, 1 << 20, 80),
            "http://h/a.tar  [##########          ]   50%  1.5 KiB / 3.0 KiB  1.0 MiB/s");
  EXPECT_EQ(console::ProgressLine("a\nb", 5, 0, 0, 80), "a\\nb  5 B");
  for (std::size_t columns = 0; columns < 90; ++columns)
    EXPECT_LE(console::ProgressLine("http://h/a.tar", ~0ULL, 1, ~0ULL, columns).size(), columns);
}

TEST_F(ToolsTest, DiffIsWhatPatchTakes) {
  EXPECT_EQ(fleet::UnifiedDiff("a\n", "a\n", "f"), "");
  std::mt19937 random(1);  // the same texts at every run
  const auto text = [&] {
    std::string lines;
    for (std::size_t n = random() % 40; n > 0; --n)
      lines += "line " + std::to_string(random() % 6) + "\n";
    return random() % 2 == 0 ? lines : lines + "end";
  };
  for (int i = 0; i < 40; ++i) {
    const std::string before = text();
    const std::string after = text();
    Put("f", before);
    Put("d", fleet::UnifiedDiff(before, after, "f"));
    EXPECT_EQ(Shell("patch -s f d >out 2>&1").code, 0) << Get("out") << before << "---\n" << after;
    EXPECT_EQ(std::filesystem::exists("f") ? Get("f") : "", after);
  }
}

}  // namespace
