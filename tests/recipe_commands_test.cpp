// brefirctl recipe: on a panel's prefix, and on real nodes.

#include <gtest/gtest.h>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace {

using support::Finished;
using support::Has;
using support::LabNode;

std::string Script(const std::string& name, const std::string& body) {
  return "# metadata_begin\n# recipe: " + name + "\n# tags: t\n# metadata_end\n" + body;
}

/// The working directory is a panel's prefix whose one repository holds a thousand recipes.
class RecipeCommandsTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    std::filesystem::create_directories("var/recipes/local");
    std::filesystem::create_directories("www");
    for (int i = 0; i < 1000; ++i) {
      const std::string n = std::to_string(i);
      pnl_file::Write("www/r" + n + ".sh", Script("R" + n, ""));
    }
    Shell("tar czf all.tgz -C www .");
    pnl_file::Write("etc/ostemplates.conf", "Repo recipes Velkor file:///srv/panel/all.tgz\n");
  }

  static void Local(const std::string& file, const std::string& text) {
    pnl_file::Write("var/recipes/local/" + file, text);
  }
  static std::string Line(const std::string& arguments, const LabNode* node = nullptr) {
    return ProgramTest::Line("recipe " + arguments, node);
  }
  static void Check(std::vector<support::Case> cases, const LabNode* node = nullptr) {
    for (support::Case& c : cases) c.arguments.insert(0, "recipe ");
    ProgramTest::Check(cases, node);
  }
};

TEST_F(RecipeCommandsTest, TheCatalogueAndWhoMayUseIt) {
  Local("own.sh", Script("R7", "body"));
  std::filesystem::create_symlink("/srv/panel/all.tgz", "var/recipes/local/link");
  const std::string json = Run("recipe list -o json").out;
  EXPECT_TRUE(Has(json, R"("id": "#local__own.sh")") && Has(json, R"("id": "Velkor__r999.sh")"));
  const Finished repos = Run("repo list");
  EXPECT_TRUE(Has(repos.out, "Velkor  file:///srv/panel/all.tgz")) << repos.code << repos.out;
  pnl_file::Write("bad", "x\n# metadata_begin\n# color: red\n\n# recipe: \n");
  Check({
      {"list --repo '#local'", 0, "#local__own.sh  R7", ""},
      {"find R7 --tag u --tag t", 0, "id            #local__own.sh", ""},
      {"find R7 --tag u", 1, "", "no recipe 'R7' has"},
      {"show Velkor__r7.sh --content", 0, "# recipe: R7\n", ""},
      {"show '#local__../../../all.tgz'", 2, "", "is not SOURCE__FILE"},
      {"access '#local__none' any", 1, "", "no recipe '#local__none'"},
      {"access Velkor__r7.sh admin --dry-run", 0, "+    <access>admin</access>", ""},
      {"show Velkor__r7.sh", 0, "access        any", ""},
      {"access Velkor__r7.sh admin", 0, "access   admin", ""},
      {"owner Velkor__r7.sh alice", 0, "owner    alice", ""},
      {"update -o json", 0, R"("updated": true)", ""},
      {"show Velkor__r7.sh", 0, "access        admin", ""},
      {"remove '#local__link'", 1, "", "is a link to '/srv/panel/all.tgz'"},
      {"remove Velkor__r7.sh", 0, "removed  yes", ""},
      {"show Velkor__r7.sh", 1, "", "no recipe 'Velkor__r7.sh'"},
      {"lint var/recipes/local/own.sh -o json", 0, "[]", ""},
      {"lint bad", 1, "3  warning   unknown token 'color'", ""},
      {"lint bad", 1, "2  error     the header has no name", ""},
      {"lint bad", 1, "2  error     the header has no end", ""},
  });
  for (const char* line : {"Repo recipes a__b x\n", "Repo recipes a_ x\n"}) {
    pnl_file::Write("etc/ostemplates.conf", line);
    Check({{"list", 2, "", "must not contain \"__\""}});
  }
  pnl_file::Write("etc/ostemplates.conf", "Repo recipes x file:///none\n");
  Check({{"update", 1, "x", "could not be updated"}});
}

TEST_F(RecipeCommandsTest, RunsOnANodeAndLeavesNothingThere) {
  const LabNode node;
  Local("own.sh", "#!/bin/bash\n" + Script("Own",
                                           "echo \"$A\"; echo err >&2; read x || "
                                           "[ \"$BASH_VERSION\" ] && (sleep 99 &) && exit 3"));
  Local("sh", Script("Sh", "printf 'no end \xc3\xa9'"));
  Local("x.ps1", Script("Win", ""));
  Local("nameless", "echo x");
  Check({{"update", 0, "yes", ""},
         {"access Velkor__r1.sh none", 0, "none", ""},
         {"access Velkor__r2.sh admin", 0, "admin", ""},
         {"access Velkor__r3.sh admin", 0, "admin", ""},
         {"owner Velkor__r1.sh alice", 0, "alice", ""},
         {"owner Velkor__r3.sh alice", 0, "alice", ""}});
  Check(
      {
          {"run '#local__own.sh' --env A=\"it's \\$x\"", 1, "it's $x\nerr\n",
           "exit code 3; the end"},
          {"run '#local__sh'", 0, "no end \xc3\xa9", ""},
          {"run '#local__sh' -o json", 0, R"("output": "no end ")", "no end"},
          {"run '#local__x.ps1'", 1, "", "method 'winrm'"},
          {"run '#local__nameless'", 1, "", "has no name"},
          {"run '#local__sh' --env 'A;reboot'", 2, "", "--env 'A;reboot' is not"},
          {"run '#local__sh' --dry-run --env 'A=b c'", 0, "export A='b c'; /bin/sh /tmp/", ""},
          {"run '#local__sh' --dir /none", 1, "", "'/none/recipe."},
          {"run '#local__sh' --dir /none", 1, "", "there is no directory for it; --dir names"},
          {"run Velkor__r1.sh --as alice", 1, "", "is locked"},
          {"run Velkor__r2.sh --as alice", 1, "", "not for 'alice'"},
          {"run Velkor__r3.sh --as alice -o json", 0, R"("exit_code": 0)", ""},
          {"run '#local__sh' --as bob", 0, "no end", ""},
      },
      &node);
  const std::string log = "var/recipes/log/#local__own.sh@" + node.Address() + ".log";
  EXPECT_TRUE(Has(pnl_file::Read(log), "\nexit code: 3\n\nit's $x\nerr\n"));
  // What was run is run, whatever becomes of its log.
  Shell("rm -r var/recipes/log; echo >var/recipes/log");
  Check({{"run '#local__sh'", 0, "no end", "the log of recipe '#local__sh' was not written"},
         {"run '#local__own.sh' -ojson", 1, R"("log": null)", "ended with exit code 3"}},
        &node);
  EXPECT_EQ(node.Exec("ls -A /tmp"), "");
}

TEST_F(RecipeCommandsTest, AnInterruptionEndsTheScript) {
  const LabNode node;
  Local("s", Script("S", "trap 'echo bye' EXIT; trap 'exit 5' TERM; echo on; sleep 77; sleep 77"));
  const std::string run = Line("run '#local__s'", &node);
  const Finished end =
      Shell(run + " & until grep -qs on var/out; do sleep 0.1; done; kill $!; wait $!");
  EXPECT_EQ(end.code, 130);
  EXPECT_TRUE(Has(end.err, "was interrupted"));
  EXPECT_TRUE(Has(end.out, "bye"));
  EXPECT_EQ(node.Exec("ls /tmp; pgrep -x sleep || true"), "");

  // The node falls silent in the middle: the run ends, and says what it knows.
  pnl_file::RemoveFile("var/out");
  pnl_proc::Execute lost("exec " + run + " --timeout 3 >var/out 2>var/err");
  while (!Has(pnl_file::Read("var/out"), "on")) pnl_proc::Sleep(50);
  node.Fault("silence");
  EXPECT_EQ(lost.Result(), 1);
  EXPECT_TRUE(Has(pnl_file::Read("var/recipes/log/#local__s@" + node.Address() + ".log"),
                  "exit code: unknown: ssh_timeout"));
}

}  // namespace
