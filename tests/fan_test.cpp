// The same work on many nodes, and verbs of brefirctl with --nodes.

#include "fleet/fan.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include "brefir/str_utils.h"
#include "fleet/gather.h"
#include "pnl/file.h"
#include "support/belongings.h"
#include "support/program.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using support::LabNode;

/// The type of each failure, with commas between; "-" for none.
std::string Types(const fleet::Failures& failures) {
  std::string types;
  for (const auto& failure : failures)
    types = str::Append(types, failure ? std::string(failure->type()) : "-", ",");
  return types;
}

TEST(FanTest, EachHasOneTurnAndFailsAlone) {
  std::atomic<int> at_once = 0, most = 0;
  std::mutex mutex;
  std::multiset<std::size_t> visited;
  fleet::Fan fan({.forks = 4});
  const fleet::Failures failures = fan.Visit(40, [&](const fleet::Turn& turn) {
    const int now = ++at_once;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) continue;
    std::this_thread::sleep_for(2ms);
    --at_once;
    const std::lock_guard guard(mutex);
    visited.insert(turn.Index());
    if (turn.Index() == 7) throw pnl_err::Error("mine", "", "7");
    if (turn.Index() == 8) throw std::runtime_error("8");
  });
  EXPECT_EQ(visited.size(), 40u);
  EXPECT_EQ(std::set<std::size_t>(visited.begin(), visited.end()).size(), 40u);
  EXPECT_EQ(most, 4);
  for (std::size_t i = 0; i < 40; ++i) {
    ASSERT_EQ(failures[i].has_value(), i == 7 || i == 8) << i;
    if (failures[i]) {
      EXPECT_EQ(failures[i]->type(), i == 7 ? "mine" : "internal");
    }
  }
  EXPECT_TRUE(fan.Visit(0, [](const fleet::Turn&) { FAIL(); }).empty());
}

TEST(GatherTest, EqualAnswersAreOneAndTheLargestGroupIsFirst) {
  const auto groups = fleet::Gather({"web1", "db", "web2", "web3"}, {"b", "a", "a", "a"});
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].names, "db,web[2-3]");
  EXPECT_EQ(groups[0].members, (std::vector<std::size_t>{1, 2, 3}));
  EXPECT_EQ(groups[1].answer, "b");
}

class FleetTest : public support::ProgramTest {};

TEST_F(FleetTest, DeadlinesAndStopEndWhatIsUnderWay) {
  const LabNode node, silent;
  silent.Fault("silence");
  const auto stop = std::make_shared<pnl_thread::Event>();
  const struct {
    fleet::FanOptions options;
    const char* types;
  } cases[] = {
      {{.forks = 3, .node_deadline = 1s}, "-,deadline,deadline,-"},
      {{.forks = 1, .deadline = 1s}, "-,deadline,deadline,deadline"},
      {{.forks = 3, .stop = stop}, "-,interrupted,interrupted,interrupted"},
  };
  const std::size_t open = support::OpenDescriptors();
  for (const auto& each : cases) {
    const auto begun = Clock::now();
    std::jthread raiser([&] {
      std::this_thread::sleep_for(700ms);
      if (each.options.stop) stop->Raise();
    });
    fleet::Fan fan(each.options);
    // A command that does not end, a login without an answer, and one whose turn comes last.
    const fleet::Failures failures = fan.Visit(4, [&](const fleet::Turn& turn) {
      pnl_rpc::SSH ssh = turn.LogIn((turn.Index() == 2 ? silent : node).Login());
      const bool hangs = turn.Index() == 1 || (turn.Index() == 3 && each.options.stop);
      EXPECT_EQ(ssh.Execute(hangs ? "sleep 60" : "true").Result(), 0);
    });
    EXPECT_EQ(Types(failures), each.types);
    EXPECT_LT(Clock::now() - begun, 5s);
  }
  EXPECT_EQ(support::OpenDescriptors(), open);
}

TEST_F(FleetTest, LoginsThatTheServerRefusesAreTriedAgain) {
  const LabNode node("debian12", {.sshd = {"MaxStartups 2"}});
  fleet::Fan fan({.forks = 12});
  const fleet::Failures failures = fan.Visit(12, [&](const fleet::Turn& turn) {
    EXPECT_EQ(turn.LogIn(node.Login()).Execute("echo in").Str(), "in\n");
  });
  EXPECT_EQ(Types(failures), "-,-,-,-,-,-,-,-,-,-,-,-");
}

TEST_F(FleetTest, VerbsAskManyNodes) {
  const LabNode web1, web2, db("centos7");
  pnl_file::Write("etc/nodes",
                  "[web]\nweb1 host=" + web1.Address() + "\nweb2 host=" + web2.Address() +
                      "\n[db]\ndb1 host=" + db.Address() + "\n[gone]\ngone host=10.99.99.9\n");
  web2.Exec("echo other >/etc/motd; mkdir -p /opt; echo 'a=2' >/opt/c");
  for (const LabNode* node : {&web1, &db})
    node->Exec("rm -f /etc/motd; mkdir -p /opt; echo 'a=1' >/opt/c");
  pnl_file::Write("script",
                  "#!/bin/bash\necho \"$BASH_VERSION\" \"$@\" | sed 's/.* //'; cat; exit 4\n");
  pnl_file::Write("input", "from here\n");
  std::filesystem::create_directories("got");
  const std::string login = " --key " + support::LabKey() + " --timeout 1 ";
  const std::vector<support::Case> cases = {
      {"node exec 'echo $0 | grep -c sh' --nodes @web,db1", 0, "web[1-2],db1: 1\n", "3 ok\n"},
      {"node exec --nodes web1 -- echo '$0  x'", 0, "web1: $0  x\n", "1 ok\n"},
      {"node exec --nodes @web,gone -- cat /etc/motd", 1, "web2: other\n",
       "gone: cannot connect: "},
      {"node exec true --nodes @failed,!gone", 0, "web1:\n", "1 ok\n"},
      {"node exec true --nodes @failed", 2, "", "'@failed' means no node"},
      {"node exec --script script --nodes @web x 'y z'", 1, "web[1-2]: z\n", "2 failed\n"},
      {"node exec cat --stdin input --nodes @web", 0, "web[1-2]: from here\n", "2 ok\n"},
      {"node exec 'head -c 20000000 /dev/zero' --nodes web1", 1, "", "more than 16777216 bytes"},
      {"node exec --nodes web1,gone -o json 'echo x; echo y >&2; exit 5'", 1,
       R"("node": "web1",
    "state": "failed",
    "exit_code": 5,
    "output": "x\n",
    "error_output": "y\n",)",
       "1 failed, 1 unreachable\n"},
      {"node exec --nodes gone -o json true", 1,
       R"([
  {
    "node": "gone",
    "state": "unreachable",
    "exit_code": null,
    "output": null,
    "error_output": null,
    "ms": null,
    "error": ")",
       "1 unreachable\n"},
      {"node exists /etc/motd --nodes web1,gone -o json", 1,
       R"(    "node": "gone",
    "path": null,
    "exists": null,
    "error": "cannot connect: )",
       "1 ok, 1 unreachable\n"},
      {"node exists /etc/motd --nodes @web", 3, "web1: false\nweb2: true\n", "2 ok\n"},
      {"config get /opt/c a --nodes @web,@db --diff", 0,
       "web1,db1: 1\nweb2:\n    --- answer\n    +++ answer\n    @@ -1 +1 @@\n    -1\n    +2\n",
       "3 ok\n"},
      {"config list /opt/c --nodes web2,gone -o json", 1,
       R"(    "list": [
      {
        "line": 1,
        "key": "a",)",
       "1 ok, 1 unreachable\n"},
      {"config list /opt/c --nodes @web -o csv", 0, "node,line,key,value\nweb1,1,a,1\nweb2,1,a,2\n",
       "2 ok\n"},
      {"package installed none-such --nodes @web", 3, "web[1-2]: no\n", "2 ok\n"},
      {"sysctl get net.none --nodes @web", 1, "web[1-2]:\n    KEY", "'net.none' cannot be read"},
      {"frontd list --nodes web1", 1, "", "the panel must be in the same directory"},
      {"node read /opt/c --nodes @web --columns node,content", 0, "web2  a=2", "2 ok\n"},
      {"node get /opt/c got --nodes @web", 0, "web[1-2]: 4 bytes\n", "2 ok\n"},
      {"node get /opt/c got --nodes @web --dry-run", 2, "", "go with --node"},
      {"node exec 'sleep 9' --nodes @web --node-deadline 1", 1, "",
       "web[1-2]: not done before the node's deadline\n"},
      {"node exec true --nodes @wbe", 2, "", "did you mean '@web'?"},
      {"node exec true --nodes web[1-999999999]", 2, "", "stands for more than 100,000 names"},
      {"node exec --node web2 'cat /etc/motd; echo e >&2; exit 9'", 9, "other\n", "e\n"},
      {"node exec --node gone true", 255, "", "cannot connect to gone: "},
      {"node exec true", 2, "", "--node or --nodes is missing"},
  };
  for (support::Case each : cases) {
    const bool own = each.arguments.find(" -- ") != std::string::npos;
    each.arguments =
        own ? str::Replace(each.arguments, " -- ", login + "-- ") : each.arguments + login;
    Check({each});
  }
  EXPECT_EQ(pnl_file::Read("got/web1/c") + pnl_file::Read("got/web2/c"), "a=1\na=2\n");
  EXPECT_EQ(web1.Exec("ls /tmp"), "");
}

}  // namespace
