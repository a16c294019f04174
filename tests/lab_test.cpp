#include "support/lab.h"

#include <gtest/gtest.h>

#include "pnl/proc.h"

namespace {

using support::LabNode;

class LabSmokeTest : public support::LabTest {};

std::string Login(const LabNode& node, const std::string& command) {
  return pnl_proc::Execute("ssh -i " + support::LabKey() +
                           " -o UserKnownHostsFile=" + support::LabKnownHosts() + " root@" +
                           node.Address() + " " + pnl_proc::Escape(command))
      .Str();
}

TEST_F(LabSmokeTest, CommandsRunAndAreLogged) {
  const LabNode node("centos7", {.log_commands = true});
  const std::string query = "rpm -q --qf '%{version}.%{release}' -f /etc/redhat-release";
  EXPECT_EQ(Login(node, query), "7.9.2009.1.el7.centos");
  EXPECT_EQ(Login(node, "printf '\xff'"), "\xff");
  EXPECT_EQ(node.Commands(), (std::vector<std::string>{query, "printf '\xff'"}));
}

TEST_F(LabSmokeTest, FilesOutliveACrash) {
  const LabNode node;
  node.Exec("echo kept >/etc/note");
  node.Kill();
  EXPECT_EQ(Login(node, "cat /etc/note"), "");
  node.Reboot();
  EXPECT_EQ(Login(node, "cat /etc/note"), "kept\n");
}

}  // namespace
