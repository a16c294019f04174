// Ways to log in: jump hosts, sudo, agents, ssh_config(5).

#include <gtest/gtest.h>

#include <thread>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/program.h"

namespace {

using support::Has;
using support::LabNode;

class LoginCommandsTest : public support::ProgramTest {
 protected:
  /// The inventory has these lines; keys and known hosts are those of the lab.
  static void Nodes(const std::string& lines, const std::string& settings = "") {
    pnl_file::Write("etc/nodes", lines);
    pnl_file::Write("etc/brefir.conf", "private_key = " + support::LabKey() + "\nknown_hosts = " +
                                           support::LabKnownHosts() + "\n" + settings);
  }

  static std::string HostOf(const LabNode& node) { return " host=" + node.Address() + " "; }

  /// ssh(1) of this panel host that still run.
  static std::string Leftovers() { return Shell("pgrep -a -x ssh").out; }

  /// What a command prints on a terminal where that is typed.
  static std::string Typed(const std::string& keys, const std::string& arguments) {
    return Shell("(sleep 1; printf '" + keys + "'; sleep 1) | TERM=dumb script -qec '" +
                 Line(arguments) + "' /dev/null")
        .out;
  }
};

TEST_F(LoginCommandsTest, JumpHosts) {
  const LabNode first, second, node;
  // One wrong key for the second host; a line for an address counts before the lab's pattern.
  const std::string wrong =
      second.Address() +
      " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5eXl5\n";
  pnl_file::Write("etc/wrong hosts", wrong);
  Nodes("a" + HostOf(first) + "\nb" + HostOf(second) + "jump=a\nc" + HostOf(node) + "jump=b\nd" +
        HostOf(node) + "jump=a,root@" + second.Address() + ":22\ne" + HostOf(node) + "jump=f\nf" +
        HostOf(second) + "jump=g\ng" + HostOf(first) + "jump=f\nh" + HostOf(node) + "jump=h\ni" +
        HostOf(node) + "jump=" + node.Address() + "\nj" + HostOf(second) +
        "'known_hosts=etc/wrong hosts' jump=none\nk" + HostOf(node) + "jump=j\nl" + HostOf(node) +
        "jump=a,m\nm" + HostOf(second) + "port=1\n");
  Check({{"node exec --nodes c,d 'echo $SSH_CONNECTION'", 0, second.Address(), "2 ok\n"},
         {"node exec --node c 'seq 200000; exit 4'", 4, "\n200000\n", ""},
         {"node get /etc/passwd --node d -ojson", 0, R"("local")", ""},
         {"node exec --node e true", 1, "", "e: its jump hosts go in a circle: e -> f -> g -> f;"},
         {"node exec --node h true", 1, "", "go in a circle: h -> h; set jump=none for 'h'"},
         {"node exec --node i true", 1, "", "i: it is its own jump host; set jump=none"},
         {"node exec --node k true", 255, "",
          "will not connect to k: through the jump host j: Host key"},
         {"node exec --node l true", 255, "",
          "through the jump hosts a, m: channel 0: open failed: co"},
         {"node sync etc --dest /x --node c", 2, "", "does not go through jump hosts"},
         {"node add x jump=-y", 2, "", "'jump=-y' names no jump host"}});
  EXPECT_EQ(Leftovers(), "");
  for (const LabNode* silent : {&first, &second, &node}) {
    silent->Fault("silence");
    const auto ended = Shell("timeout 7 " + Line("node exec --node c --timeout 2 true"));
    EXPECT_EQ(ended.code, 255) << ended.err;
    EXPECT_TRUE(Has(ended.err, "c: through the jump hosts a, b: ")) << ended.err;
    silent->Fault("resume");
    EXPECT_EQ(Leftovers(), "");
  }
  node.Fault("silence");  // a program that is killed cannot end its children
  Shell("timeout -s KILL 2 " + Line("node exec --node c true"));
  pnl_proc::Sleep(1000);
  EXPECT_EQ(Leftovers(), "");
  node.Fault("resume");
  std::jthread cutter([&] {
    pnl_proc::Sleep(1000);
    first.Fault("cut");
  });
  const auto cut = Shell("timeout 10 " + Line("node exec --node c 'sleep 20'"));
  EXPECT_TRUE(Has(cut.err, "lost the connection to c: through the jump hosts a, b: ")) << cut.err;
  EXPECT_EQ(Leftovers(), "");
}

TEST_F(LoginCommandsTest, Sudo) {
  const LabNode node;
  for (const std::string user : {"free", "asked", "no"}) {
    node.Exec("useradd -m " + user + " && echo " + user + ":secret | chpasswd && cp -r /root/.ssh" +
              " /home/" + user + " && chown -R " + user + " /home/" + user);
  }
  node.Exec(
      "printf 'free ALL=(ALL) NOPASSWD: ALL\nasked ALL=(ALL) ALL\n' >/etc/sudoers.d/x && chmod 440 "
      "/etc/sudoers.d/x");
  std::string lines;
  for (const std::string user : {"free", "asked", "no", "root"})
    lines += user + HostOf(node) + "become=sudo user=" + user + "\n";
  Nodes(lines + "plain" + HostOf(node) + "user=free\n");
  Check({{"node exec --nodes free,root,plain 'id -un; echo $HOME' --columns node,output -ocsv", 0,
          "free,\"root\n/root\n\"\nroot,\"root\n/root\n\"\nplain,\"free\n/home/free\n\"\n", "3 ok"},
         {"node exec --node free \"printf '%s\\n' \\\"a'b\\\" '!x' 'c\\\\\\d'; exit 7\"", 7,
          "a'b\n!x\nc\\\\d\n", ""},
         {"node exec --node free --stdin /etc/hostname 'cat >&2'", 0, "", "\n"},
         {"node touch /root/a --node free", 0, "changed  yes", ""},
         {"node exec --node asked id", 255, "",
          "asked: sudo asks for a password, and there is no terminal to ask on; use one, or"}});
  EXPECT_EQ(node.Exec("stat -c %U /root/a"), "root\n");
  // The input of the command is never the password, nor the other way round.
  const std::string read = "node exec --node asked --stdin etc/brefir.conf -- cat";
  EXPECT_TRUE(Has(Typed("secrex\\177t\\r", read), "known_hosts")) << pnl_file::Read("var/out");
  EXPECT_FALSE(Has(pnl_file::Read("var/out"), "secret"));
  EXPECT_TRUE(Has(Typed("wrong\\r", read), "sudo refuses the password: Sorry, try again."));
  EXPECT_TRUE(Has(Typed("secret\\r", "node exec --nodes no,no id"), "no is not in the sudoers"))
      << pnl_file::Read("var/out");
  EXPECT_TRUE(Has(Typed("\\003", "node exec --nodes asked id"), "1 interrupted"));
}

TEST_F(LoginCommandsTest, AgentsAndSshConfig) {
  const LabNode node;
  Nodes("a" + HostOf(node) + "key=etc/locked\n");
  Shell(
      "ssh-keygen -q -t ed25519 -N secret -f etc/locked; ssh-keygen -q -t rsa -N '' -f etc/other");
  pnl_file::Write(node.Root() / "root/.ssh/authorized_keys", pnl_file::Read("etc/locked.pub"));
  const auto with_agent = [](const std::string& setup) {
    return Shell("eval $(ssh-agent) >/dev/null; trap 'kill $SSH_AGENT_PID' EXIT; " + setup + "; " +
                 Line("node exec --node a --timeout 3 'echo in'"));
  };
  const std::string add =
      "printf '#!/bin/sh\\necho secret\\n' >var/ask; chmod 755 var/ask; SSH_ASKPASS=var/ask "
      "SSH_ASKPASS_REQUIRE=force ssh-add -q etc/locked";
  const std::pair<std::string, std::string> cases[] = {
      {"unset SSH_AUTH_SOCK", "an SSH agent, and none runs: start ssh-agent(1), then ssh-add"},
      {"ssh-add -q etc/other", "an SSH agent, and no key of the agent was accepted: ssh-add the"},
      {"kill -STOP $SSH_AGENT_PID", "no login within the time-out"},
      {add, "in\n"},
      {add + "; echo \"$(cat etc/locked.pub)\" >etc/locked", "in\n"}};  // its public half is enough
  for (const auto& [setup, said] : cases) {
    const auto told = with_agent(setup);
    EXPECT_TRUE(Has(told.out + told.err, said)) << told.out << told.err;
  }

  Nodes("a" + HostOf(node), "private_key = none\n");
  const auto full = Shell(  // its queue of connections is full
      "python3 -c 'from socket import *; import time; s = socket(AF_UNIX); s.bind(\"var/agent\"); "
      "s.listen(0); c = socket(AF_UNIX); c.connect(\"var/agent\"); time.sleep(9)' & sleep 1; "
      "SSH_AUTH_SOCK=var/agent timeout 5 " +
      Line("node exec --node a true") + "; x=$?; kill $!; exit $x");
  EXPECT_EQ(full.code, 255) << full.err;
  EXPECT_TRUE(Has(full.err, "the SSH agent takes no connection")) << full.err;

  Nodes("a\nb\nc\nd user=root\n", "ssh_config = yes\n");
  pnl_file::Write(node.Root() / "root/.ssh/authorized_keys",
                  pnl_file::Read(support::LabKey() + ".pub"));
  pnl_file::Write("/root/.ssh/config",
                  "Host a b alias d\n  HostName " + node.Address() +
                      "\nHost b\n  ProxyJump a\nHost c\n  ProxyCommand nc\n" +
                      "Host d\n  User nobody\nMatch host slow exec \"sleep 9\"\n");
  Check({{"node exec --nodes a,d 'id -un'", 0, "a,d: root", "2 ok"},
         {"node exec --node root@alias 'id -un'", 0, "root", ""},
         {"node exec --node b true", 1, "", "b: it is its own jump host"},
         {"node exec --node c true", 1, "", "c: ssh_config(5) has a ProxyCommand for it, which"},
         {"node exec --node slow --timeout 1 true", 1, "", "did not end in time and was killed"}});
  Nodes("a\n", "ssh_config = maybe\n");
  Check(
      {{"node exec --node a true", 1, "", "ssh_config in etc/brefir.conf must be yes or no, not"}});
}

}  // namespace
