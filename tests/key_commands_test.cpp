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
      EXPECT_EQ(
          Shell("ls -A " + Ssh(*node) + " | grep -v '^authorized_keys\\(.old\\|.older\\)\\?$'").out,
          "");
    }
  }
};

/// Twenty, or as many as BREFIR_STRESS_NODES says.
int ManyNodes() {
  const char* wanted = std::getenv("BREFIR_STRESS_NODES");
  return wanted == nullptr ? 20 : std::atoi(wanted);
}

TEST_F(KeyCommandsTest, RotatesOwesResumesAndRetires) {
  const Nodes nodes = MakeNodes(ManyNodes());
  const std::string old = Keys(*nodes[0]);
  const std::string old_key = PublicKey();
  const std::string down = nodes[7]->Address();
  const auto expect_unchanged = [&](const Finished& run, const std::string& why) {
    EXPECT_EQ(run.code, 1) << run.out;
    EXPECT_TRUE(Has(run.err, why)) << run.err;
    EXPECT_EQ(Shell("ls etc/panel.key*").out, "etc/panel.key\netc/panel.key.pub\n");
    ExpectAllHave(nodes, old);
  };
  const Finished plan = Run("key rotate --dry-run --type ecdsa");
  EXPECT_TRUE(Has(plan.out, "+ecdsa-sha2-nistp256 (the new key)")) << plan.out << plan.err;
  EXPECT_TRUE(Has(plan.out, "guarded")) << plan.out;
  nodes[3]->Fault("fill");
  expect_unchanged(Run("key rotate"), nodes[3]->Address() + ": ");
  nodes[3]->Fault("writable");
  nodes[7]->Kill();
  expect_unchanged(Run("key rotate --timeout 5"), down + ": ");
  {
    pnl_file::Lock other;
    other.DoLockWithTimeout("etc/panel.key", true, 1, 1);
    EXPECT_TRUE(Has(Run("key rotate").err, "locked by another process"));
  }

  const Finished owing = Run("key rotate --timeout 5 --allow-owed 1");
  EXPECT_EQ(owing.code, 1);
  EXPECT_TRUE(Has(owing.out, down + ": owed")) << owing.out;
  EXPECT_TRUE(Has(owing.err, "brefirctl key resume")) << owing.err;
  const std::string kept = Shell("ls etc/panel.key.run-*.pub").out;
  const std::string run = kept.substr(kept.find('-') + 1, kept.find(".pub") - kept.find('-') - 1);
  EXPECT_EQ(pnl_file::Read("etc/panel.key.run-" + run + ".pub"), old_key);
  EXPECT_EQ(pnl_file::Info("etc/panel.key").Stat().st_mode & 07777, 0600U);
  EXPECT_NE(PublicKey(), old_key);
  for (const char* refused : {"key rotate", "key rotate --method ssh", "key retire"})
    EXPECT_TRUE(Has(Run(refused).err, "run " + run + " owes its new key to " + down)) << refused;
  EXPECT_TRUE(Has(Run("key status -o json").out, "\"owed\": \"" + down + "\""));
  EXPECT_EQ(Run("key resume --timeout 5").code, 1);
  nodes[7]->Reboot();
  const Finished paid = Run("key resume");
  EXPECT_EQ(paid.code, 0) << paid.err;
  ExpectAllHave(nodes, old + PublicKey());
  EXPECT_EQ(Run("key verify").code, 0);
  EXPECT_TRUE(Has(Run("key resume").out, "Nothing to do"));
  EXPECT_TRUE(Has(PublicKey(), Shell("date -u +' %Y-%m-%d'").out)) << PublicKey();

  EXPECT_EQ(Run("key retire --old etc/panel.key.pub").code, 1);
  EXPECT_TRUE(Has(Run("key retire --dry-run").out, "-" + old_key));
  EXPECT_EQ(Run("key retire --check").code, 3);
  // The attributes of the file, options of lines and what comes meanwhile are others' business.
  for (const auto& node : nodes)
    node->Exec("cd /root/.ssh; chmod 640 a*keys; sed -i 's/.* panel$/no-pty &/' a*keys");
  EXPECT_EQ(Run("key retire").code, 0);
  ExpectAllHave(nodes, "# kept\n" + PublicKey());
  EXPECT_TRUE(Has(Run("run undo " + run).err, "has retired the key before it"));
  for (const auto& node : nodes) node->Exec("echo '# late' >>/root/.ssh/authorized_keys");
  EXPECT_EQ(Run("run undo " + std::to_string(std::stoi(run) + 1)).code, 0);
  ExpectAllHave(nodes, "# kept\nno-pty " + old_key + PublicKey() + "# late\n");
  EXPECT_EQ(Run("run undo " + run).code, 0);
  EXPECT_EQ(PublicKey(), old_key);
  ExpectAllHave(nodes, "# kept\nno-pty " + old_key + "# late\n");
  EXPECT_EQ(Shell("ls etc/panel.key*").out, "etc/panel.key\netc/panel.key.pub\n");
  for (const auto& node : nodes)
    EXPECT_EQ(node->Exec("stat -c %a:%U /root/.ssh/a*keys"), "640:root\n");
  EXPECT_EQ(Run("key verify").code, 0);
}

// Each login as the inventory says: another port, another user with sudo, behind a jump host that gets the
// key in the same run, or has it only afterwards.
TEST_F(KeyCommandsTest, LogsInAsTheInventorySays) {
  const LabNode jump, behind, other("debian12", {.sshd = {"Port 2222"}});
  const std::string key = "/.ssh/authorized_keys";
  other.Exec(
      "useradd -m ann && echo ann:secret | chpasswd && cp -r /root/.ssh /home/ann && chown -R ann: "
      "/home/ann && "
      "echo 'ann ALL=(ALL) NOPASSWD: ALL' >/etc/sudoers.d/ann");
  for (const LabNode* node : {&jump, &behind})
    pnl_file::Write(node->Root().string() + "/root" + key, PublicKey());
  pnl_file::Write(other.Root().string() + "/home/ann" + key, PublicKey());
  const std::string root_had = Keys(other);
  pnl_file::Write("etc/nodes",
                  "jump host=" + jump.Address() + "\nbehind jump=jump host=" + behind.Address() +
                      "\nother port=2222 user=ann become=sudo host=" + other.Address() + "\n");
  const Finished alone = Run("key rotate --nodes behind");
  EXPECT_EQ(alone.code, 1);
  EXPECT_TRUE(Has(alone.err, "a fresh login failed after the change")) << alone.err;
  const Finished all = Run("key rotate --accept-new --nodes @all");
  EXPECT_EQ(all.code, 0) << all.err;
  EXPECT_EQ(Run("key verify --nodes @all").code, 0);
  EXPECT_EQ(Keys(other), root_had);
  EXPECT_TRUE(Has(pnl_file::Read(other.Root().string() + "/home/ann" + key), PublicKey()));
  Shell("echo 'own key=etc/own host=" + jump.Address() + "' >>etc/nodes; cp etc/panel.key etc/own");
  EXPECT_TRUE(Has(Run("key rotate --nodes own").err, "another key for own"));
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
  for (const char* how :
       {"", "--no-guard", "--method ssh --copy-keys --dest /srv/keys", "--method ssh"}) {
    const Finished run = Run(std::string("key rotate ") + how + with);
    EXPECT_EQ(run.code, 1) << how;
    EXPECT_TRUE(Has(run.err, "nodes are restored") || Has(run.err, "as before")) << how << run.err;
    EXPECT_EQ(Keys(node), PublicKey()) << how;
    EXPECT_EQ(node.Exec("cat /srv/keys/*"), "k\n") << how;
    Shell("ssh -O exit root@" + node.Address());
  }
  const Finished retire = Run("key retire --old etc/panel.key.pub" + with);
  EXPECT_EQ(retire.code, 1);
  EXPECT_TRUE(Has(retire.err, "would not contain the key")) << retire.out << retire.err;
  EXPECT_EQ(Keys(node), PublicKey());
  Shell("cp etc/panel.key.pub etc/key.pub");
  EXPECT_TRUE(Has(Run("key rotate" + with).err, "is not the public half of"));

  node.Exec("truncate -s 1G /root/.ssh/authorized_keys");
  EXPECT_TRUE(Has(Run("key rotate --method ssh" + with).err, "said more than the 4194304 bytes"));
}

TEST_F(KeyCommandsTest, AReportThatCannotBeWrittenChangesNothing) {
  const Nodes nodes = MakeNodes(2);
  std::string keys = Keys(*nodes[0]);
  const support::Case cases[] = {
      {"rotate --dry-run -o json >/dev/full", 1, "", "cannot write 'standard output'"},
      {"rotate -o json >/dev/full", 0, "ssh-ed25519", "the report could not be written"},
      {"rotate --type rsa -o json | head -n 1 >/dev/null", 0, "ssh-rsa", " is done: 2 done"},
      {"rotate --method ssh -o json >/dev/full", 0, "ssh-rsa", "the report could not be written"},
      {"verify >/dev/full", 1, "", "cannot write 'standard output'"},
      {"retire >/dev/full", 0, "", "the report could not be written"},
  };
  for (const support::Case& c : cases) {
    const Finished run =
        Shell("exec bash -c '" + Line("key " + c.arguments) + "; exit ${PIPESTATUS[0]}'");
    EXPECT_EQ(run.code, c.code) << c.arguments << run.err;
    EXPECT_TRUE(Has(run.err, c.err)) << c.arguments << run.err;
    if (!c.out.empty()) {
      EXPECT_TRUE(Has(PublicKey(), c.out)) << c.arguments;
      keys += PublicKey();  // it is a new one
    }
    if (c.arguments.starts_with("retire")) {
      const std::string old = Shell("ls -t etc/panel.key.run-*.pub | head -n 1 | xargs cat").out;
      keys.erase(keys.find(old), old.size());
    }
    ExpectAllHave(nodes, keys);
    EXPECT_EQ(Run("key verify").code, 0) << c.arguments;
  }
}

// What was killed before it could clean up is cleaned up by the next one, as soon as that can.
TEST_F(KeyCommandsTest, NoNodeKeepsKeyFilesThatItDidNotHave) {
  const Nodes nodes = MakeNodes(2);
  const std::string copying = "key rotate --method ssh --copy-keys --dest /srv";
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
  const Finished refused = Run("key rotate --method ssh");
  EXPECT_EQ(refused.code, 1);
  EXPECT_TRUE(Has(refused.err, "tries these again: 1 of 2 nodes failed: " + nodes[0]->Address()))
      << refused.err;
  EXPECT_EQ(nodes[1]->Exec("ls /srv"), "");
  nodes[0]->Reboot();
  const Finished run = Run("key rotate --method ssh");
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
  EXPECT_TRUE(Has(Run("key rotate --method ssh").err, "its key is in use"));
  EXPECT_EQ(pnl_file::Read("etc/panel.key.pub.old"), key);
  EXPECT_EQ(nodes[0]->Exec("ls /srv"), "panel.key\npanel.key.pub\n");
  pnl_file::Write(record, "rotation ../etc/passwd ssh-rsa A\n");
  EXPECT_TRUE(Has(Run("key rotate --method ssh").err, "correct the line or remove it"));
}

TEST_F(KeyCommandsTest, AnInterruptionRollsBack) {
  const Nodes nodes = MakeNodes(3);
  const std::string old = Keys(*nodes[0]);
  const struct {
    const char* command;
    int signal;
    std::string slow;   ///< what the second node does slowly
    std::string begun;  ///< that it has begun
    const char* told;
  } cases[] = {
      {"key rotate --method ssh", SIGTERM, "cp", "authorized_keys.new", "all nodes are restored"},
      {"key rotate", SIGINT, "mv", ".brefir-*", "interrupted"},
  };
  for (const auto& c : cases) {
    nodes[1]->Fault("stub " + c.slow + " 'sleep 1; exec /bin/" + c.slow + " \"$@\"'");
    pnl_proc::Execute rotation("exec 2>var/told; exec " + Line(c.command));
    for (int i = 0; i < 1000 && Shell("ls " + Ssh(*nodes[1]) + c.begun).code != 0; ++i)
      pnl_proc::Sleep(10);
    kill(rotation.Pid(), c.signal);
    EXPECT_EQ(rotation.Result(), 130) << c.command;
    const std::string err = pnl_file::Read("var/told");
    EXPECT_TRUE(Has(err, c.told)) << err;
    ExpectAllHave(nodes, old);
    EXPECT_EQ(Shell("ls etc/panel.key.????????????????; ls etc/*.next").out, "");
    nodes[1]->Fault("stub " + c.slow + " ''");
  }
}

}  // namespace
