// brefirctl node list, show, add, remove and scan.

#include <gtest/gtest.h>

#include "pnl/file.h"
#include "pnl/str.h"
#include "support/program.h"

namespace {

using support::Has;

using InventoryCommandsTest = support::ProgramTest;

TEST_F(InventoryCommandsTest, TheInventoryIsChangedLineByLine) {
  std::filesystem::remove("etc");
  Check({
      {"node list", 0, "", ""},
      {"node list -ojson", 0, "[]\n", ""},
      {"node show web1", 1, "", "etc/nodes: 'web1' is no node there; 'brefirctl node list' shows"},
      {"node remove web1", 1, "", "etc/nodes: 'web1' is no node there"},
      {"node add web1 'note=a '\\''b' x='#1' --dry-run", 0, "+web1 note=\"a 'b\" x='#1'\n", ""},
      {"node list", 0, "", ""},
      {"node add web1 'note=a '\\''b' x='#1'", 0, "web1  web1  root    22", ""},
      {"node add web1", 1, "", "cannot add 'web1' to etc/nodes: 'web1' stands in line 1, too"},
      {"node add 'db[1-3]' 'host=10.0.0.[1-3]' port=23 --check", 3, "changed  yes", ""},
      {"node add 'db[1-3]' 'host=10.0.0.[1-3]' port=23 -ojson", 0, R"("node": "db3")", ""},
      {"node add x port=0", 2, "", "cannot add 'x' to etc/nodes: 'port=0' is no port from 1 to"},
      {"node add x y", 2, "", "'y' is no setting; write KEY=VALUE"},
      {"node add '[x]'", 2, "", "NAME '[x]' is no name of a node"},
      {"node add 'x#y'", 2, "", "NAME 'x#y' is no name of a node"},
      {"node add x \"y=$(echo 1; echo 2)\"", 2, "", "SETTING 'y' must not contain a line end"},
      {"node add x --group web", 2, "", "'web' is no group there; a line [web] makes it one"},
      {"node add x --node y", 2, "", "'add' takes no --node"},
      {"node show web1 -ojson", 0, R"("note": "a 'b",)", ""},
      {"node show db2", 0, "line         2\n", ""},
      {"node show bd2", 1, "", "etc/nodes: 'bd2' is no node there; did you mean 'db2'?"},
      {"node list 'db[1-9]'", 2, "", "SELECTION: 'db4' is no node of the inventory; did you mean"},
      {"node list '@all,!db[2-3]' --columns node --no-headers", 0, "web1\ndb1\n", ""},
      {"node remove db2 nix", 1, "", "'nix' is no node there"},
      {"node remove db2 web1 db2", 0, "db2   yes      yes\nweb1  yes      yes\n", ""},
  });
  EXPECT_EQ(pnl_file::Read("etc/nodes"), "db[1,3] host=10.0.0.[1,3] port=23\n");
  pnl_file::Write("etc/nodes", "a\nb port=x\n");
  for (const std::string verb : {"list", "add c", "remove a", "scan a"})
    EXPECT_TRUE(Has(Run("node " + verb).err, "etc/nodes:2: 'port=x' is no port")) << verb;
}

TEST_F(InventoryCommandsTest, ScanStoresNewKeysOnly) {
  const support::LabNode node;
  const std::string nodes = "a host=" + node.Address() + "\nb host=" + node.Address();
  pnl_file::Write("etc/brefir.conf", "known_hosts = etc/kh\n");
  pnl_file::Write("etc/nodes", nodes + "\nshut host=" + node.Address() + " port=1\n");
  Check({{"node scan a,b", 3, "a     new    no ", "2 new; --yes stores new keys\n"}});
  EXPECT_FALSE(pnl_file::Exists("etc/kh"));
  Check({{"node scan a,b,shut --yes -ocsv", 1, "shut,failed,false,,,\"cannot connect: Connection",
          "2 new, 2 stored, 1 failed\n"},
         {"node scan a,b -ojson", 0, R"("state": "known")", "2 known\n"}});
  const std::string known = pnl_file::Read("etc/kh");
  EXPECT_EQ(std::count(known.begin(), known.end(), '\n'), 1) << known;  // two names, one host
  const std::string other =
      node.Address() + " ssh-ed25519 " +
      "AAAAC3NzaC1lZDI1NTE5AAAAIGl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5\n";
  for (const auto& [text, said] : {std::pair(other, "a     changed  no "),
                                   std::pair("@revoked " + known, "a     revoked  no ")}) {
    pnl_file::Write("etc/kh", text);
    EXPECT_TRUE(Has(Run("node scan a --yes").out, said)) << pnl_file::Read("var/out");
    EXPECT_EQ(pnl_file::Read("etc/kh"), text);
  }
  for (const std::string word : {"n", "y"}) {  // on a terminal people are asked
    pnl_file::RemoveFile("etc/kh");
    const std::string asked =
        Shell("echo " + word + " | TERM=xterm script -qec '" + Line("node scan a") + "' /dev/null")
            .out;
    EXPECT_TRUE(Has(asked, "Store this host key? [y/N] ")) << asked;
    EXPECT_EQ(pnl_file::Read("etc/kh"), word == "y" ? known : "");
  }
}

}  // namespace
