// brefirctl node status, and the screen that people see.

#include <gtest/gtest.h>

#include <ctime>

#include "pnl/file.h"
#include "pnl/str.h"
#include "support/program.h"
#include "tools/commands/node/status.h"
#include "tools/frame/ask.h"

namespace {

using support::Has;
using tools::NodeStatus;

using StatusCommandsTest = support::ProgramTest;

constexpr std::time_t kNow = 1'000'000;
constexpr std::int64_t kGiB = std::int64_t{1} << 30;

/// A node that answered a second ago.
NodeStatus Answered(const std::string& name, int percent, double load = 0.1) {
  const fleet::Disk disk{"/dev/sda1", "/", kGiB, kGiB / 100 * percent,
                         kGiB / 100 * (100 - percent)};
  fleet::Facts facts;
  facts.asked = kNow - 1;
  facts.boot = 0;
  facts.os = "Debian 12.5";
  facts.load = load;
  facts.processors = 2;
  facts.memory = 100 * kGiB;
  facts.memory_free = 5 * kGiB;
  facts.disks = {{"/dev/sdb1", "/small", kGiB, 0, kGiB}, disk};
  NodeStatus status{name, tools::Round::kOk, std::chrono::milliseconds(20), facts, true};
  status.troubles = fleet::Troubles(facts);
  if (!status.troubles.empty()) status.state = NodeStatus::kAttention;
  return status;
}

NodeStatus Dead(const std::string& name) {
  return {.node = name, .state = tools::Round::kUnreachable, .error = "cannot connect: no route"};
}

TEST_F(StatusCommandsTest, TheScreenHasTheWorstOf300NodesAndCountsTheRest) {
  std::vector<NodeStatus> nodes;
  for (int i = 1; i <= 150; ++i) nodes.push_back(Answered("web" + std::to_string(i), 40));
  for (int i = 1; i <= 100; ++i) nodes.push_back(Dead("rack" + std::to_string(i)));
  for (int i = 1; i <= 48; ++i) nodes.push_back(Answered("disk" + std::to_string(i), 90 + i % 10));
  nodes.push_back(Answered("busy", 94, 8.1));
  nodes.push_back(Answered("calm", 89, 8.0));
  nodes[0].change = fleet::Journal::LastChange{kNow - 180, "node write /etc/motd"};
  nodes[150].facts.emplace().os = "Ubuntu 22.04";
  nodes[150].facts->asked = kNow - 7200;
  const std::string text = tools::StatusScreen(nodes, kNow, {});
  for (const char* line :
       {"300 nodes: 151 well, 149 want attention (100 unreachable)\nwell: 151 Debian 12.5\nhigh",
        "load 8.00 (calm), disk 89% (calm), memory 95% (web1), login ms 20 (web1)\nlast change: ",
        " 3m ago, web1: node write /etc/motd\nNODE ", "rack[1-100] (100) ",
        " 2h    -   Ubuntu 22.04 ", " cannot connect: no route\ndisk[5-9,15-", " 95%-99% ",
        " disk full: /\nbusy ", " disk nearly full: /; load high\ndisk[1-4,10-14,", " 90%-94% ",
        " disk nearly full: /\n"})
    EXPECT_TRUE(Has(text, line)) << line << "\n" << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 9);
  for (const auto& [rows, last] :
       {std::pair(9, "disk nearly full: /"),
        std::pair(8, "and 25 more: busy,disk[1-4,10-14,20-24,30-34,40-44]"),
        std::pair(5, "and 149 more: rack[1-100],disk[1-48],busy")}) {
    const console::TerminalSize size{static_cast<std::size_t>(rows), 60};
    const std::string part = tools::StatusScreen(nodes, kNow, size);
    EXPECT_LE(std::count(part.begin(), part.end(), '\n'), rows) << part;
    EXPECT_TRUE(Has(part, last)) << part;
  }
}

TEST_F(StatusCommandsTest, NodesInTroubleAreFirstAndTheOthersAreCounted) {
  const support::LabNode well, full("debian12", {.disk = "3m"}), old("ubuntu"), dead, silent;
  for (const support::LabNode* node : {&well, &full, &old, &dead, &silent})  // the machine is busy
    node->Exec("echo 0.5 0 0 1/9 9 >/run/load; mount --bind /run/load /proc/loadavg");
  const auto at = [](const support::LabNode& node) { return " host=" + node.Address() + "\n"; };
  const std::string conf =
      "private_key = " + support::LabKey() + "\nknown_hosts = " + support::LabKnownHosts() + "\n";
  pnl_file::Write("etc/brefir.conf", conf);
  Check({{"node status", 1, "", "there are no nodes in etc/nodes; 'brefirctl node add' adds one"},
         {"node status --interval 3", 2, "", "--interval needs --watch"},
         {"node status --node x", 2, "", "'status' takes no --node"}});
  pnl_file::Write("etc/nodes", "well" + at(well) + "full" + at(full) + "old" + at(old) + "dead1" +
                                   at(dead) + "dead2" + at(dead) + "silent" + at(silent));
  Check({{"node status --nodes 'well,dead[1-2]'", 0, "3 nodes: 3 well\nwell: 3 Debian 12.5\n", ""},
         {"stat collect --node well -ojson", 0, "taken", ""},
         {"sysctl set net.ipv4.ip_forward=1 --node well", 0, "ip_forward", ""},
         {"config set /etc/hosts password hush --secret --node well", 0, "yes", ""},
         {"config set /etc/hosts password secret --node old --dry-run", 0, "secret", ""}});
  full.Fault("fill");
  old.Exec("touch /run/reboot-required");
  dead.Kill();
  silent.Fault("silence");
  const support::Finished all = Run("node status --timeout 1");
  EXPECT_EQ(all.code, 3) << all.err;
  std::size_t place = 0;
  for (const char* part : {"6 nodes: 1 well, 5 want attention (3 unreachable)\n",
                           "last change: ", " ago, well: config set /etc/hosts password\n",
                           "\ndead[1-2] (2)  unreachable  ", "\nsilent ", "\nfull ",
                           " disk full: /\n", "old ", " reboot wanted\n"}) {
    place = all.out.find(part, place);
    ASSERT_NE(place, std::string::npos) << part << "\n" << all.out;
  }
  Check({
      {"node list @failed --columns node --no-headers", 0, "dead1\ndead2\nsilent\n", ""},
      {"node status -ojson --nodes full", 3, "\"attention\": [\n      \"disk full: /\"\n    ]\n  }",
       ""},
      {"node status -ojson --nodes dead1", 3, "\"os\": \"Debian 12.5\",\n    \"uptime\": null,",
       ""},
      {"node status -ocsv --nodes well,dead1 --columns node,state,last_command --sort=-node", 3,
       "node,state,last_command\nwell,ok,config set /etc/hosts password\ndead1,unreachable,\n", ""},
      {"node status --nodes old --watch --interval 1 -ojson | head -n2 | grep -c '^.{.*}.$'", 0,
       "2\n", ""},
  });
  EXPECT_FALSE(Has(pnl_file::Read("var/fleet.db"), "hush"));
  const std::string cut = "timeout --foreground --preserve-status -s INT ";
  for (const auto& [seconds, options, code] :
       {std::tuple("1", "", 130), std::tuple("2", " --watch --interval 1 --nodes old,well", 3),
        std::tuple("2", " --watch --nodes well", 0), std::tuple("1", " --watch", 130)}) {
    const support::Finished ended =
        Shell(cut + seconds + " " + Line(std::string("node status") + options));
    EXPECT_EQ(ended.code, code) << options << ended.err;
    EXPECT_TRUE(Has(ended.out, " well")) << options << ended.out;
  }
  pnl_file::Write("etc/brefir.conf", conf + "fleet_database = sqlite:/proc/x\n");
  Check({{"config set /etc/hosts password other --node well", 1, "", "fleet_database in etc/"},
         {"node status --nodes well", 0, "1 node: 1 well\n",
          "brefirctl: nothing is known of earlier: "}});
  const std::string screen =
      Shell("TERM=xterm script -qec 'stty cols 60 rows 9; " + cut + "2 " +
            Line("node status --watch --interval 1 --nodes old") + "' /dev/null")
          .out;
  EXPECT_TRUE(Has(screen, "\x1b[H20")) << screen;
  EXPECT_TRUE(screen.ends_with("\x1b[J")) << screen;
}

}  // namespace
