// brefirctl key, on real nodes.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "fleet/authorized_keys.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/program.h"

namespace {

using support::Finished;
using support::Has;
using support::LabNode;
using Nodes = std::vector<std::unique_ptr<LabNode>>;

TEST(AuthorizedKeysTest, TheKeyOfALine) {
  const struct {
    const char* line;
    const char* key;
  } cases[] = {
      {"ssh-rsa AAAA joe@home", "ssh-rsa AAAA"},
      {"  ecdsa-sha2-nistp256\tBBBB ssh-rsa AAAA\r", "ecdsa-sha2-nistp256 BBBB"},
      {"from=\"10.0.0.1\",command=\"echo ssh-rsa \\\" x\" sk-ssh-ed25519@openssh.com CC d",
       "sk-ssh-ed25519@openssh.com CC"},
      {"# ssh-rsa AAAA", ""},
      {"ssh-rsa", ""},
      {"no-pty", ""},
      {"a b ssh-rsa AAAA", ""},
      {"command=\"ssh-rsa AAAA", ""},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(fleet::KeyOf(c.line), c.key) << c.line;
  EXPECT_EQ(fleet::WithoutKey("a\r\nssh-rsa A x\n\nno-pty ssh-rsa A\nssh-rsa AB", "ssh-rsa A"),
            "a\r\n\nssh-rsa AB");
}

/// The working directory is a panel's prefix with a key pair that the nodes accept.
class KeyCommandsTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    Shell("ssh-keygen -q -t rsa -b 2048 -N '' -C panel -f etc/panel.key");
    pnl_file::Write("etc/brefir.conf", "nodes = etc/nodes\n");
  }

  static Nodes MakeNodes(int count) {
    Nodes nodes;
    std::string addresses = "# all of them\n";
    for (int i = 0; i < count; ++i) {
      nodes.push_back(std::make_unique<LabNode>("debian12", support::LabOptions{.disk = "3m"}));
      addresses += nodes.back()->Address() + "\n";
      pnl_file::Write(Ssh(*nodes.back()) + "authorized_keys", "# kept\n" + PublicKey());
    }
    pnl_file::Write("etc/nodes", addresses);
    return nodes;
  }
  static std::string PublicKey() { return pnl_file::Read("etc/panel.key.pub"); }
  static std::string Ssh(const LabNode& node) { return node.Root().string() + "/root/.ssh/"; }
  static std::string Keys(const LabNode& node) {
    return pnl_file::Read(Ssh(node) + "authorized_keys");
  }
  static void ExpectAllHave(const Nodes& nodes, const std::string& keys) {
    for (const auto& node : nodes) {
      EXPECT_EQ(Keys(*node), keys);
      EXPECT_EQ(Shell("ls " + Ssh(*node) + "*.new").out, "");
    }
  }
};

/// Twenty, or as many as BREFIR_STRESS_NODES says.
int ManyNodes() {
  const char* wanted = std::getenv("BREFIR_STRESS_NODES");
  return wanted == nullptr ? 20 : std::atoi(wanted);
}

TEST_F(KeyCommandsTest, RotatesVerifiesAndRetires) {
  const Nodes nodes = MakeNodes(ManyNodes());
  const std::string old = Keys(*nodes[0]);
  const std::string old_key = PublicKey();
  EXPECT_TRUE(Has(Run("key rotate --dry-run").out, "+ssh-rsa (the new key)"));
  nodes[7]->Kill();
  const Finished dead = Run("key rotate");
  EXPECT_EQ(dead.code, 1);
  EXPECT_TRUE(Has(dead.err, "1 of ")) << dead.err;
  EXPECT_TRUE(Has(dead.err, " nodes failed: " + nodes[7]->Address()));
  nodes[7]->Reboot();
  ExpectAllHave(nodes, old);

  // An older file of an earlier run must not come back, even to a node that fails early.
  pnl_file::Write(Ssh(*nodes[3]) + "authorized_keys.old", "ssh-rsa AGES ago\n");
  nodes[3]->Fault("fill");
  const Finished full = Run("-o json key rotate");
  EXPECT_EQ(full.code, 1);
  EXPECT_TRUE(Has(full.out, "\"state\": \"RESTORED\"")) << full.out;
  EXPECT_TRUE(Has(full.err, "undone: all nodes are restored")) << full.err;
  nodes[3]->Fault("writable");
  ExpectAllHave(nodes, old);

  {
    pnl_file::Lock other;
    other.DoLockWithTimeout("etc/panel.key", true, 1, 1);
    EXPECT_TRUE(Has(Run("key rotate").err, "locked by another process"));
  }
  pnl_file::RemoveFile("var/brefirctl.log");
  EXPECT_EQ(Run("key rotate").code, 0);
  EXPECT_EQ(Shell("grep '] 3 ' var/brefirctl.log").out, "");  // nothing is wrong
  EXPECT_EQ(pnl_file::Info("etc/panel.key").Stat().st_mode & 07777, 0600U);
  EXPECT_NE(PublicKey(), old_key);
  ExpectAllHave(nodes, old + PublicKey());
  EXPECT_EQ(Run("key verify").code, 0);

  EXPECT_EQ(Run("key retire --old etc/panel.key.pub").code, 1);
  EXPECT_TRUE(Has(Run("key retire --old etc/panel.key.pub.old --dry-run").out, "-" + old_key));
  EXPECT_EQ(Run("key retire --old etc/panel.key.pub.old --check").code, 3);
  ExpectAllHave(nodes, old + PublicKey());
  for (const auto& node : nodes) node->Exec("chmod 640 /root/.ssh/authorized_keys");
  EXPECT_EQ(Run("key retire --old etc/panel.key.pub.old").code, 0);
  ExpectAllHave(nodes, "# kept\n" + PublicKey());
  EXPECT_EQ(Run("node exists / --node " + nodes[0]->Address()).code, 0);  // by the panel's key
  for (const auto& node : nodes)
    EXPECT_EQ(node->Exec("stat -c %a:%U /root/.ssh/a*keys"), "640:root\n");
  EXPECT_EQ(
      Shell("cp etc/panel.key.old etc/panel.key; chmod 600 etc/panel.key; " + Line("key verify"))
          .code,
      1);
}

// A node that reads its keys from another file takes the new key and does not accept it. A shared
// connection, opened with the old key, would not notice.
TEST_F(KeyCommandsTest, ANodeThatReadsOtherKeysIsPutBackAndKeepsItsLastKey) {
  const LabNode node("debian12", {.sshd = {"AuthorizedKeysFile /etc/keys"}});
  node.Exec("cp /root/.ssh/authorized_keys /etc/keys");
  pnl_file::Write(Ssh(node) + "authorized_keys", PublicKey());
  Shell("cp " + support::LabKey() + "* etc/");
  pnl_file::Write("/root/.ssh/config",
                  "Host *\nControlMaster auto\nControlPath /run/%C\nControlPersist 30\n");
  const std::string with = " --private etc/key --public etc/key.pub --nodes " + node.Address();
  node.Exec("mkdir /srv/keys; echo k >/srv/keys/key");
  for (const char* sharing : {"yes", "no"}) {
    const Finished run = Run("key rotate --copy-keys --dest /srv/keys" + with);
    EXPECT_EQ(run.code, 1) << sharing;
    EXPECT_TRUE(Has(run.err, "all nodes are restored")) << sharing << run.err;
    EXPECT_EQ(Keys(node), PublicKey()) << sharing;
    EXPECT_EQ(node.Exec("cat /srv/keys/*"), "k\n") << sharing;
    Shell("ssh -O exit root@" + node.Address());
    pnl_file::RemoveFile("/root/.ssh/config");
  }
  const Finished retire = Run("key retire --old etc/panel.key.pub" + with);
  EXPECT_EQ(retire.code, 1);
  EXPECT_TRUE(Has(retire.out, "refused")) << retire.out << retire.err;
  EXPECT_EQ(Keys(node), PublicKey());

  node.Exec("truncate -s 1G /root/.ssh/authorized_keys");
  EXPECT_TRUE(Has(Run("key rotate" + with).err, "it said more than the 4194304 bytes"));
}

TEST_F(KeyCommandsTest, AReportThatCannotBeWrittenChangesNothing) {
  const Nodes nodes = MakeNodes(2);
  std::string keys = Keys(*nodes[0]);
  const support::Case cases[] = {
      {"rotate --dry-run -o json >/dev/full", 1, "", "cannot write 'standard output'"},
      {"rotate -o json >/dev/full", 0, "ssh-rsa", "the report could not be written"},
      {"rotate -o json | head -n 1 >/dev/null", 0, "ssh-rsa", ""},
      {"verify >/dev/full", 1, "", "cannot write 'standard output'"},
      {"retire --old etc/panel.key.pub.old >/dev/full", 0, "", "the report could not be written"},
  };
  for (const support::Case& c : cases) {
    const std::string old = pnl_file::Read("etc/panel.key.pub.old");
    const Finished run =
        Shell("exec bash -c '" + Line("key " + c.arguments) + "; exit ${PIPESTATUS[0]}'");
    EXPECT_EQ(run.code, c.code) << c.arguments << run.err;
    EXPECT_TRUE(Has(run.err, c.err)) << c.arguments << run.err;
    if (!c.out.empty()) keys += PublicKey();  // it is a new one
    if (c.arguments.starts_with("retire")) keys.erase(keys.find(old), old.size());
    ExpectAllHave(nodes, keys);
    EXPECT_EQ(Run("key verify").code, 0) << c.arguments;
  }
}

// What was killed before it could clean up is cleaned up by the next one, as soon as that can.
TEST_F(KeyCommandsTest, NoNodeKeepsKeyFilesThatItDidNotHave) {
  const Nodes nodes = MakeNodes(2);
  const std::string copying = "key rotate --copy-keys --dest /srv";
  const std::string record = "etc/panel.key.rotation";
  const auto expect_none = [&](const char* when) {
    for (const auto& node : nodes) EXPECT_EQ(node->Exec("ls /srv"), "") << when;
    EXPECT_EQ(Shell("ls etc/panel.key.????????????????").out, "") << when;
    EXPECT_FALSE(pnl_file::Exists(record)) << when;
  };
  nodes[1]->Fault("stub mv 'sleep 1; exit 1'");
  EXPECT_TRUE(Has(Run(copying).err, "all nodes are restored"));
  expect_none("failed");

  nodes[1]->Fault("stub mv ''");
  nodes[1]->Fault("stub cp 'sleep 5'");
  const std::string placed = nodes[0]->Root().string() + "/srv/panel.key";
  pnl_proc::Execute rotation("exec " + Line(copying));
  for (int i = 0; i < 1000 && !pnl_file::Exists(placed); ++i) pnl_proc::Sleep(10);
  kill(rotation.Pid(), SIGKILL);
  EXPECT_EQ(rotation.Result(), 128 + SIGKILL);
  EXPECT_TRUE(pnl_file::Exists(placed));
  nodes[1]->Fault("stub cp ''");
  nodes[0]->Kill();
  const Finished refused = Run("key rotate");
  EXPECT_EQ(refused.code, 1);
  EXPECT_TRUE(Has(refused.err, "tries these again: 1 of 2 nodes failed: " + nodes[0]->Address()))
      << refused.err;
  EXPECT_EQ(nodes[1]->Exec("ls /srv"), "");
  nodes[0]->Reboot();
  const Finished run = Run("key rotate");
  EXPECT_EQ(run.code, 0);
  EXPECT_TRUE(Has(run.err, "2 key files on nodes")) << run.err;
  expect_none("killed");

  // Killed while it put the pair in place, which the next one completes.
  EXPECT_EQ(Run(copying).code, 0);
  const std::string key = PublicKey();
  pnl_file::Move("etc/panel.key.pub", "etc/panel.key.0123456789abcdef.pub");
  pnl_file::Write("etc/panel.key.pub", "ssh-rsa OLD panel\n");
  pnl_file::Write(record, "rotation panel.key.0123456789abcdef " + fleet::KeyOf(key) +
                              "\nmissing " + nodes[0]->Address() + " /srv/panel.key\n");
  EXPECT_TRUE(Has(Run("key rotate").err, "its key is in use"));
  EXPECT_EQ(pnl_file::Read("etc/panel.key.pub.old"), key);
  EXPECT_EQ(nodes[0]->Exec("ls /srv"), "panel.key\npanel.key.pub\n");
  pnl_file::Write(record, "rotation ../etc/passwd ssh-rsa A\n");
  EXPECT_TRUE(Has(Run("key rotate").err, "correct the line or remove it"));
}

TEST_F(KeyCommandsTest, AnInterruptionRollsBack) {
  const Nodes nodes = MakeNodes(3);
  const std::string old = Keys(*nodes[0]);
  for (const int number : {SIGINT, SIGTERM}) {
    nodes[1]->Fault("stub cp 'sleep 1; exec /bin/cp \"$@\"'");
    pnl_proc::Execute rotation("exec 2>var/err; exec " + Line("key rotate"));
    for (int i = 0; i < 1000 && !pnl_file::Exists(Ssh(*nodes[1]) + "authorized_keys.new"); ++i)
      pnl_proc::Sleep(10);
    kill(rotation.Pid(), number);
    EXPECT_EQ(rotation.Result(), 130);
    const std::string err = pnl_file::Read("var/err");
    EXPECT_TRUE(Has(err, "all nodes are restored")) << err;
    ExpectAllHave(nodes, old);
    EXPECT_EQ(Shell("ls etc/panel.key.????????????????").out, "");
  }
}

}  // namespace
