// brefirctl run, and node history.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "fleet/fleet_database.h"
#include "fleet/run.h"
#include "pnl/file.h"
#include "support/program.h"

namespace {

/// A panel with two nodes, which have the file /srv/t/file.
class RunCommandsTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    support::ProgramTest::SetUp();
    pnl_file::Write("etc/brefir.conf", "private_key = " + support::LabKey() +
                                           "\nknown_hosts = " + support::LabKnownHosts() + "\n");
    std::string inventory;
    for (const support::LabNode* node : {&n1_, &n2_}) {
      node->Exec("mkdir -p /srv/t; echo one >/srv/t/file");
      const std::string name = node == &n1_ ? "n1" : "n2";
      inventory += name + " host=" + node->Address() + "\n";
      targets_.push_back({name, node->Login(2)});
      targets_.back().login->name = name;
    }
    pnl_file::Write("etc/nodes", inventory);
  }

  /// Changes the file, makes a new one and a directory, and moves one.
  static std::vector<fleet::Edit> Edits() {
    return {{.look =
                 [](fleet::Looks& looks) {
                   looks.files = {"/srv/t/file", "/srv/t/made/new"};
                   looks.missing = {"/srv/t/made"};
                   looks.entries = {"/srv/t/from", "/srv/t/to"};
                 },
             .make =
                 [](fleet::Draft& draft) {
                   draft.Write("/srv/t/file", "two\n");
                   draft.SetMode("/srv/t/file", 0600);
                   draft.MakeDirs("/srv/t/made");
                   draft.Write("/srv/t/made/new", "new\n");
                   if (draft.Entry("/srv/t/from").kind != fleet::PathKind::kMissing)
                     draft.Move("/srv/t/from", "/srv/t/to");
                 }}};
  }

  /// Makes a run in a process that is killed when `kill_at` nodes were made; 0: it is not killed.
  void Make(const std::string& journal, int kill_at, bool keep_undo = false) {
    const pid_t pid = fork();
    if (pid == 0) {
      int made = 0;
      bool making = false;
      fleet::RunOptions options{.command = "node write", .keep_undo = keep_undo};
      options.fan.forks = 1;
      options.watch.phase = [&](fleet::RunPhase phase, std::size_t) {
        making = phase == fleet::RunPhase::kMake;
      };
      options.watch.ended = [&](std::size_t, const std::string&) {
        if (making && ++made == kill_at) kill(getpid(), SIGKILL);
      };
      fleet::Journal books(pnl_db::Cache::Open("sqlite:" + journal));
      fleet::Run run(&books, targets_, options);
      run.Plan(Edits());
      const bool good = run.Make().Good();
      _exit(good ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : status, kill_at == 0 ? 0 : SIGKILL);
  }

  const support::LabNode n1_, n2_;
  std::vector<fleet::RunTarget> targets_;
};

TEST_F(RunCommandsTest, WhoReadsTheReportDoesNotMatter) {
  const std::string left = "the report could not be written";
  Check({
      {"config set /srv/t/file a 1 --nodes @all >/dev/full", 0, "", left},
      {"config set /srv/t/file a 2 --nodes @all -ojson | head -c 1", 0, "[", "2 ok"},
      {"run list --no-headers --columns state", 0, "done\ndone\n", ""},
      {"run undo 2 >/dev/full", 0, "", left},
      {"run undo 1 | true", 0, "", "run 1 is undone"},
      {"run list --no-headers --columns state", 0, "undone\nundone\n", ""},
  });
  for (const support::LabNode* node : {&n1_, &n2_})
    EXPECT_EQ(node->Exec("cat /srv/t/file; ls -A /srv/t"), "one\nfile\n");
}

TEST_F(RunCommandsTest, RunsAreShownEndedAndForgotten) {
  Check({{"run list", 0, "no runs in sqlite:var/fleet.db\n", ""},
         {"run list -ojson", 0, "[]\n", ""},
         {"node history n1", 0, "", ""}});
  EXPECT_FALSE(pnl_file::Exists("var/fleet.db"));
  const std::string list = "run list --columns id,state,nodes,changed,failed,owed --no-headers";
  Make("var/fleet.db", 0, true);
  Check({
      {"run resume", 0, "Nothing to do: no run is unfinished", ""},
      {"run undo -ojson", 0, "[]\n", ""},
      {"run show 9", 1, "", "there is no run 9: brefirctl run list shows all"},
      {"run show one", 1, "", "'one' is no ID of a run, which is a number"},
      {"run list", 0, "journal: sqlite:var/fleet.db\n", ""},
      {list, 0, "1  done  2  2  0  0\n", ""},
      {"run show 1", 0, "n[1-2]: done\n    file /srv/t/file\n    directory /srv/t/made\n", ""},
      {"run show 1 --diff", 0, "@@\n-one\n+two\n", ""},
      {"run show 1 -ojson", 0, R"("kind": "file",)", ""},
      {"run log 1 --columns event,node,state,text --no-headers", 0, "node   n2  done  -\nended",
       ""},
      {"node history n1 /srv/t/file --diff", 0, "done: node write\n--- /srv/t/file\n", ""},
      {"node history n1 /srv/t/other", 0, "", ""},
      {"node history n9", 1, "", "no run has changed 'n9', and it is no node of the inventory"},
      {"node list @failed:1", 2, "", "'@failed:1' means no node"},
      {"run write-off 1 --nodes @all --reason x", 1, "", "none of these nodes owes anything"},
      {"run prune --dry-run", 0, "", ""},
      {"run undo 1", 0, "n[1-2]: undone\n", "run 1 is undone: 2 undone\n"},
      {"run resume 1", 0, "Nothing to do: the run has ended", ""},
  });
  EXPECT_EQ(n1_.Exec("cat /srv/t/file; ls -A /srv/t"), "one\nfile\n");
  Make("var/fleet.db", 1);
  Check({{"run list --unfinished --columns id,state --no-headers", 0, "2  making\n", ""},
         {"run write-off 2 --nodes n1 --reason x", 1, "", "run 2 is unfinished: end it with"},
         {"run resume", 0, "n[1-2]: done\n", "run 2 is done: 2 done\n"}});
  n2_.Kill();
  Check({{"run undo 2 --timeout 1", 1, "n1: undone\nn2: owed\n", "'brefirctl run resume 2'"},
         {"node list @failed:2 --columns node --no-headers", 0, "n2\n", ""},
         {list + " --unfinished", 0, "", ""}});
  n2_.Reboot();
  Make("var/fleet.db", 0, true);  // pays the debt first
  Check({{"run show 2 --columns state,owed --no-headers", 0, "undone", ""}});
  pnl_file::Write("etc/nodes", "n1 host=" + n1_.Address() + "\n");
  sleep(1);  // runs of this second are not old
  n2_.Kill();
  Check({{"run prune --older-than 0 --check", 3, "changed  yes", ""},
         {"run prune --older-than 0 --timeout 1", 1, "pruned   2\nkept     1\n", "n2: cannot"},
         {"run write-off 3 --nodes n2 --reason scrapped", 0, "n2    yes", ""},
         {"run show 3", 0, "n2: written off: scrapped\n", ""},
         {"run prune --older-than 0 -ojson", 0, R"("pruned": 1)", ""}});
}

TEST_F(RunCommandsTest, RunsWithoutBooksAreSalvaged) {
  n1_.Exec("echo moved >/srv/t/from; echo old >/srv/t/to");
  const std::string before = n1_.Exec("cd /srv/t; grep . *; stat -c %a *");
  Make("/srv/lost.db", 2);
  EXPECT_EQ(n1_.Exec("cd /srv/t; cat file to"), "two\nmoved\n");
  n1_.Exec("mv /srv/t/made/new /srv/t/made/of_others");
  n2_.Exec("echo three >/srv/t/file");
  Check({{"run salvage --put-back", 2, "", "--nodes is missing"},
         {"node status --nodes n1", 3, "a run of another panel has not ended (run salvage)", ""},
         {"run salvage --nodes n1,n2", 3, "found", "2 ok\n"},
         {"run salvage --nodes n1,n2 --put-back", 1, "conflict",
          "'/srv/t/file' was changed by somebody else meanwhile; it is left as it is"}});
  n1_.Exec("rm /srv/t/made/of_others");
  Check({{"run salvage --nodes n1 --put-back", 0, "undone", "1 ok\n"},
         {"run salvage --nodes n2 --clear", 0, "cleared", "1 ok\n"},
         {"run salvage --nodes n1,n2 -ojson", 0, R"("list": [])", "2 ok\n"}});
  EXPECT_EQ(n1_.Exec("cd /srv/t; grep . *; stat -c %a *"), before);
  EXPECT_EQ(n2_.Exec("cat /srv/t/file; ls -A /srv/t"), "three\nfile\n");
  Make("/srv/panel/var/fleet.db", 1);
  Check({{"run salvage --nodes n1 --clear", 0, "known", "1 ok\n"},
         {"run undo", 0, "undone", "2 undone"}});
}

}  // namespace
