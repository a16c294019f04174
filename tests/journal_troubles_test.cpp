// brefirctl with a journal that is damaged, lost, older than the nodes, or used by two at the same time;
// and with nodes that are not what the journal says.

#include <gtest/gtest.h>

#include <filesystem>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnldb/db.h"
#include "support/program.h"

namespace {

namespace fs = std::filesystem;

/// A panel with two nodes, which have the file /srv/t/file. A change is a file and a command.
class JournalTroublesTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    support::ProgramTest::SetUp();
    fs::remove_all("var");
    pnl_file::MkDir("var");
    pnl_file::Write("etc/brefir.conf", "private_key = " + support::LabKey() +
                                           "\nknown_hosts = " + support::LabKnownHosts() + "\n");
    std::string inventory;
    for (const support::LabNode* node : {&n1_, &n2_}) {
      node->Exec("mkdir -p /srv/t; echo a=0 >/srv/t/file; touch /srv/t/log");
      inventory += (node == &n1_ ? "n1 host=" : "n2 host=") + node->Address() + "\n";
    }
    pnl_file::Write("etc/nodes", inventory);
    for (const char* value : {"1", "2"})
      pnl_file::Write(std::string("change") + value,
                      std::string("config set /srv/t/file a ") + value +
                          "\nconfig set /srv/t/file b " + value +
                          "\nnode exec --change 'echo ran >>/srv/t/log; test ! -e /srv/t/wait || "
                          "sleep 3' --undo 'echo undone >>/srv/t/log'\n");
  }

  /// Copies the books while nobody writes.
  static void Copy(const char* from, const char* to) {
    fs::remove_all(to);
    fs::copy(from, to, fs::copy_options::recursive);
  }

  static void Execute(const std::string& statement) {
    pnl_db::Cache::Open("sqlite:var/fleet.db")->Execute(statement);
  }

  std::string State() const {
    const std::string look =
        "cd /srv/t; echo $(cat file log); ls -d /var/lib/brefir/runs/*/made /srv/t/.b* 2>/dev/null "
        "|| true";
    return n1_.Exec(look) + n2_.Exec(look);
  }

  /// Begins a run whose command takes its time; it is at work when this returns.
  void Begin(const char* change) const {
    for (const support::LabNode* node : {&n1_, &n2_})
      node->Exec("touch /srv/t/wait; : >/srv/t/log");
    Shell("{ " + Line(std::string("apply ") + change + " --nodes n1,n2") +
          " >var/run 2>&1; echo $? >var/ended; } & echo $! >var/pid");
    for (const support::LabNode* node : {&n1_, &n2_})
      node->Exec("until grep -q ran /srv/t/log; do sleep 0.02; done; rm /srv/t/wait");
  }
  static void AwaitEnd() {
    Shell("until [ -s var/ended ]; do sleep 0.02; done");
    EXPECT_EQ(pnl_file::Read("var/ended"), "0\n") << pnl_file::Read("var/run");
  }

  const support::LabNode n1_, n2_;
  int runs_ = 0;
};

constexpr const char* kChange = "apply change1 --nodes n1,n2";
constexpr const char* kNothingLeft = "run salvage --nodes n1,n2 -ojson";

TEST_F(JournalTroublesTest, DamageIsToldAndNothingIsDone) {
  for (int i = 0; i < 3; ++i)
    Check({{"apply change1 --nodes n1,n2", 0, "2 steps done", "is done"},
           {"apply change2 --nodes n1,n2", 0, "2 steps done", "is done"}});
  Copy("var", "/srv/good");
  const std::string before = State();
  const std::string damaged = "the database '/srv/panel/var/fleet.db' is damaged (";
  const std::pair<const char*, bool> cases[] = {
      {"truncate -s 20000 var/fleet.db", true},
      {"truncate -s 5000 var/fleet.db", true},
      {"dd if=/dev/zero of=var/fleet.db bs=4096 seek=1 count=8 conv=notrunc", true},
      {"dd if=/dev/zero of=var/fleet.db bs=100 count=1 conv=notrunc", true},
      {"echo hello >var/fleet.db", true},
      {"head -c 9000 /dev/urandom >var/fleet.db-wal", false},  // it was never whole: not used
      {"head -c 100 /dev/urandom >var/fleet.db-shm", false},
  };
  for (const auto& [damage, is_told] : cases) {
    SCOPED_TRACE(damage);
    Copy("/srv/good", "var");
    ASSERT_EQ(Shell(damage).code, 0);
    if (is_told) {
      Check({{"run list", 1, "", damaged},
             {"run show 2", 1, "", "move it away with its -wal and -shm"},
             {kChange, 1, "", damaged}});
      EXPECT_EQ(State(), before);
    } else {
      Check({{"run list --no-headers --columns id", 0, "6\n", ""},
             {"run resume", 0, "Nothing to do", ""}});
    }
  }
  // An empty one instead: what it does not know is not missed.
  Shell("rm -r var; mkdir var");
  Check(
      {{kNothingLeft, 0, R"("list": [])", "2 ok"}, {kChange, 0, "2 steps done", "run 1 is done"}});
}

TEST_F(JournalTroublesTest, OlderThanTheNodes) {
  // A backup from before the run begins: it is salvaged.
  Check({{kChange, 0, "2 steps done", "run 1 is done"}});
  Copy("var", "/srv/backup");
  const std::string before = n1_.Exec("cat /srv/t/file");
  Begin("change2");
  Copy("var", "/srv/middle");
  Shell("pkill -P $(cat var/pid) brefirctl; sleep 0.1; rm -rf var");
  Copy("/srv/backup", "var");
  Check({{kChange, 1, "n[1-2]: failed", "of another panel has not ended there"},
         {"run salvage --nodes n1,n2", 3, "found", "2 ok"},
         {"run salvage --nodes n1,n2 --put-back", 0, "undone", "2 ok"},
         {kNothingLeft, 0, R"("list": [])", "2 ok"}});
  EXPECT_EQ(State(), "a=1 b=1 ran undone\na=1 b=1 ran undone\n");
  EXPECT_EQ(n1_.Exec("cat /srv/t/file"), before);

  // One from before the commit: what has ended on the nodes is neither repeated nor forgotten.
  for (const bool resumed : {true, false}) {
    SCOPED_TRACE(resumed);
    Copy("/srv/backup", "var");
    Begin("change2");
    Copy("var", "/srv/middle");
    AwaitEnd();
    EXPECT_EQ(State(), "a=2 b=2 ran\na=2 b=2 ran\n");
    Copy("/srv/middle", "var");
    Check({{resumed ? "run resume 2" : "run undo 2", 0, resumed ? "done" : "undone", "run 2 is"},
           {kNothingLeft, 0, R"("list": [])", "2 ok"}});
    EXPECT_EQ(State(),
              resumed ? "a=2 b=2 ran\na=2 b=2 ran\n" : "a=1 b=1 ran undone\na=1 b=1 ran undone\n");
    if (resumed) Check({{"run undo 2", 0, "undone", "run 2 is undone"}});
  }
}

/// Another machine has the name and the address of a node; and a machine has two names.
TEST_F(JournalTroublesTest, OtherMachines) {
  Check({{kChange, 0, "2 steps done", "run 1 is done"}});
  const std::string id = n2_.Exec("cat /etc/machine-id");
  n2_.Exec("tr 0-9 1-90 </etc/machine-id >/tmp/id; cat /tmp/id >/etc/machine-id");
  const std::string as_new = n2_.Exec("cat /srv/t/*");
  Check({{"run undo 1", 1, "n1: undone\nn2: owed\n", "n2: it is another machine now"},
         {"run resume 1", 1, "n2: owed\n", "installed anew: 'brefirctl run write-off 1'"},
         {"config set /srv/t/file c 1 --node n2", 0, "yes", ""},  // its own runs go on
         {"run write-off 1 --nodes n2 --reason 'installed anew'", 0, "n2    yes", ""},
         {"run resume 1", 0, "the run has ended", ""}});
  EXPECT_EQ(n2_.Exec("cat /srv/t/*"), "a=1\nb=1\nc=1\nran\n");
  const std::string also = "also host=" + n1_.Address() + "\n";
  pnl_file::Write("etc/nodes", pnl_file::Read("etc/nodes") + also);
  Check({{"apply change1 --nodes n1,also", 1, "also: failed", "are the same machine"}});
  Begin("change2");
  Check({{"apply change1 --nodes also", 1, "",
          "also is the same machine as n1, which is part of run"},
         {kNothingLeft, 0, "known", "2 ok"}});
  AwaitEnd();
  Check({{kNothingLeft, 0, R"("list": [])", "2 ok"}});
}

/// Clocks decide nothing: neither those of panel and node, nor when one is set back between two commands.
TEST_F(JournalTroublesTest, ClocksMayDiffer) {
  for (const char* hours : {"+ 18000", "- 18000"}) {
    SCOPED_TRACE(hours);
    Check({{kChange, 0, "2 steps done", "is done"}});
    for (const char* column : {"begun", "committed", "ended"})
      Execute(std::string("update runs set ") + column + " = " + column + " " + hours);
    Execute(std::string("update run_nodes set noted = noted ") + hours);
    n1_.Exec("touch -d '5 hours' /srv/t/* /var/lib/brefir/runs/*");
    n2_.Exec("touch -d '5 hours ago' /srv/t/* /var/lib/brefir/runs/*");
    Check({{"run list", 0, "done", ""},
           {"node history n1", 0, "apply change1", ""},
           {"run undo " + std::to_string(++runs_), 0, "n[1-2]: undone\n", "is undone"},
           {kNothingLeft, 0, R"("list": [])", "2 ok"}});
    EXPECT_EQ(n1_.Exec("cat /srv/t/file"), "a=0\n");
    EXPECT_EQ(n1_.Exec("cat /srv/t/file"), n2_.Exec("cat /srv/t/file"));
  }
}

TEST_F(JournalTroublesTest, TwoAtTheSameMoment) {
  Begin("change1");
  Check({{"apply change2 --nodes n2", 1, "", "still works: wait for its end"},
         {"run undo 1", 1, "", "take the run over with --take-over"}});
  AwaitEnd();
  int refused = 0;
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    const std::string second = Line("apply change2 --nodes n1,n2");
    Shell("{ " + Line(kChange) + " >var/one 2>&1; echo $? >var/one.code; } & " + second +
          " >var/two 2>&1; echo $? >var/two.code; wait");
    for (const char* name : {"var/one", "var/two"}) {
      const std::string said = pnl_file::Read(name);
      if (pnl_file::Read(std::string(name) + ".code") == "0\n") continue;
      ++refused;
      EXPECT_TRUE(said.find("wait for its end") != std::string::npos ||
                  said.find("was changed by somebody else meanwhile") != std::string::npos ||
                  said.find("try again when it has ended") != std::string::npos ||
                  said.find("has not ended there") != std::string::npos)
          << said;
    }
    const std::string file = n1_.Exec("cat /srv/t/file");
    EXPECT_TRUE(file == "a=1\nb=1\n" || file == "a=2\nb=2\n") << file;
    EXPECT_EQ(n2_.Exec("cat /srv/t/file"), file);
    Check({{kNothingLeft, 0, R"("list": [])", "2 ok"}});
  }
  RecordProperty("refused", refused);
  Check({{"run list --unfinished --no-headers --columns id", 0, "", ""}});
}

}  // namespace
