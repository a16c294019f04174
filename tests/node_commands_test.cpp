// brefirctl node, on real nodes.

#include <gtest/gtest.h>

#include <chrono>

#include "fleet/node_names.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace {

using support::Finished;
using support::Has;
using support::LabNode;
using Names = std::vector<std::string>;

const std::string kBytes("one\n\0\xff\ntwo", 10);

class NodeCommandsTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    std::filesystem::create_directories("here");
  }

  /// `arguments` are shell words; with one of its own, the node is not added.
  static std::string Line(const LabNode& node, const std::string& arguments) {
    const bool own = arguments.find("--node") != std::string::npos;
    return ProgramTest::Line("node " + arguments, own ? nullptr : &node);
  }
  static Finished Run(const LabNode& node, const std::string& arguments) {
    return Shell(Line(node, arguments));
  }
};

TEST_F(NodeCommandsTest, VerbsAnswer) {
  const LabNode node("centos7");
  pnl_file::Write("here/bytes", kBytes);
  pnl_file::Write("here/three", "one\nthree\n");
  node.Exec("mkdir -p /opt/q/sbin; touch /opt/q/sbin/pnlctl");
  node.Exec(R"(mkdir -p /opt/p/sbin; printf '#!/bin/sh
for last; do :; done; echo "<doc><was>$last</was></doc>"' >/opt/p/sbin/pnlctl; chmod +x /opt/p/sbin/*)");
  const support::Case cases[] = {
      {"facts -o json", 0, R"("type": "020103")", ""},
      {"read /etc/none", 1, "", "there is no '/etc/none'"},
      {"write '/etc/a b' --from here/bytes", 0, "size     10", ""},
      {"write '/etc/a b' <here/three --dry-run", 0, "+three\n", ""},
      {"read '/etc/a b'", 0, kBytes, ""},
      {"write /none/x --from here/bytes -o json", 1, "", R"({"type":"node","object":"10.)"},
      {"stat '/etc/a b'", 2, "", "PATH '/etc/a b' is refused"},
      {"stat /etc/none", 0, "exists  no", ""},
      {"stat /etc", 0, "type    directory", ""},
      {"exists /etc", 0, "true\n", ""},
      {"exists /etc --type f", 3, "false\n", ""},
      {"rm etc --recursive", 2, "", "must be an absolute path"},
      {"rm // --recursive", 2, "", "'/' is refused"},
      {"rm /etc/../ --recursive", 2, "", "'/etc/..' is refused"},
      {"rm /etc", 1, "", "--recursive removes it"},
      {"touch /none/x", 1, "", "'/none/x' cannot be made: there is no directory '/none'"},
      {"chmod 0600 /proc/1/maps", 1, "", "cannot be set: chmod: changing permissions of"},
      {"ln /etc /etc/passwd", 1, "", "'/etc/passwd' is there already"},
      {"rm /proc/1/maps", 1, "",
       "was changed by somebody else meanwhile; it is left as it is; all"},
      {"put here/three /nosuchdir/", 1, "", "there is no directory '/nosuchdir/'"},
      {"get /etc/passwd here/none/", 1, "", "cannot write 'here/none/': No such file"},
      {"get /etc/passwd/ here/x", 1, "", "there is no directory '/etc/passwd/'"},
      {"cp /etc/passwd /nosuchdir/", 1, "", "there is no directory '/nosuchdir/'"},
      {"mv /etc/passwd /nosuchdir/", 1, "", "there is no directory '/nosuchdir/'"},
      {"touch /nosuchdir/", 1, "", "there is no directory '/nosuchdir/'"},
      {"write /nosuchdir/ --from here/three", 1, "", "there is no directory '/nosuchdir/'"},
      {"exists /etc/passwd/", 3, "false\n", ""},
      {"cp '/etc/a b' /root/", 0, "/root/a b", ""},
      {"cp /etc/passwd '/root/a b/c'", 1, "", "there is no directory '/root/a b'"},
      {"mv '/root/a b' /root/c", 0, "path     /root/c", ""},
      {"mv '/root/a b' /root/d", 1, "", "there is no '/root/a b'"},
      {"mkdir /root/c/d", 1, "", "'/root/c/d' cannot be made: a part of it is no directory"},
      {"chmod '0;reboot' /root/c", 2, "", "MODE '0;reboot' is not a mode"},
      {"chmod 0600 /root/c --dry-run", 0, "chmod 0600 /root/c\n", ""},
      {"rm /root/c", 0, "removed  yes", ""},
      {"exists /root/c", 3, "false\n", ""},
      {"mkdir /etc --check", 0, "changed  no", ""},
      {"mkdir /none/x --check", 3, "changed  yes", ""},
      {"put here/three /root/c --check", 3, "changed  yes", ""},
      {"tree here --dest /x --dry-run", 0, "mkdir -p /x\ntar cpf - -C ", ""},
      {"kill 4000000", 1, "", "cannot send a signal to process 4000000: "},
      {"terminate 4000000", 0, "terminated  yes", ""},
      {"ctl m f --install-dir /opt/q", 1, "", "'/opt/q/sbin/pnlctl' did not reply with XML"},
      {"put here/three/ /root", 1, "", "cannot open 'here/three/': Not a directory"},
      {"ctl m f --install-dir /opt", 1, "", "there is no '/opt/sbin/pnlctl'"},
      {"ctl m f 'a=b c;d' --install-dir /opt/p", 0, "<was>a=b c;d</was>", ""},
      {"exists / --known-hosts none", 1, "", "--accept-new"},
      {"exists / --key /dev/null --node " + node.Address(), 1, "", "cannot log in to"},
      {"exists / --node " + node.Address() + ":1", 1, "", "Connection refused; check"},
  };
  for (const auto& c : cases) {
    const Finished run = Run(node, c.arguments);
    EXPECT_EQ(run.code, c.code) << c.arguments << "\n" << run.err;
    EXPECT_TRUE(Has(run.out, c.out)) << c.arguments << "\n" << run.out;
    EXPECT_TRUE(Has(run.err, c.err)) << c.arguments << "\n" << run.err;
  }
}

TEST_F(NodeCommandsTest, FactsComeInTimeAndAreKept) {
  const LabNode node("centos7");
  for (const std::string command : {"df", "rpm"})
    node.Fault("stub " + command + " 'trap \"\" TERM; sleep 1000; echo late'");
  node.Fault("stub brefirctl 'echo brefirctl 9.9'");
  node.Fault("stub dnf 'printf \"\\na.x 1 r\\nb.y 2 r\\nObsoleting\\nc.z 1 r\\n\"; exit 100'");
  node.Exec("printf '\\0\\377\\n' >/etc/issue");
  const std::string columns = " -ocsv --no-headers --columns updates,panel_version,late";
  const auto begin = std::chrono::steady_clock::now();
  ProgramTest::Check({{"node facts --cached", 1, "", "no facts of it are kept"},
                      {"node facts --updates" + columns, 0, "2,9.9,\"disks, version\"\n", ""}},
                     &node);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(7));
  pnl_proc::Sleep(1100);
  EXPECT_EQ(node.Exec("pgrep -x sleep || true"), "");

  for (const std::string command : {"df", "rpm"}) node.Fault("stub " + command + " ''");
  Check({{"node facts" + columns, 0, ",9.9,\n", ""}, {"node facts -ojson", 0, R"("late": [])", ""}},
        &node);
  node.Kill();
  const std::string nodes = " --nodes " + node.Address() + " --key /none --timeout 1";
  Check({{"node facts --cached" + columns, 0, "2,9.9,\n", ""},
         {"node facts --max-age 1000 --updates" + columns, 0, "2,9.9,\n", ""}},
        &node);
  Check(
      {{"node facts --max-age 1000 -ojson" + nodes, 0, R"("version": "7.9.2009)", "1 ok\n"},
       {"node facts --cached --nodes x.y," + node.Address(), 1, "CentOS", "x.y: no facts of it"}});
  node.Reboot();
  pnl_file::Write("etc/brefir.conf", "fleet_database = sqlite:/proc/x\n");
  Check({{"node facts --max-age 1000", 0, "CentOS",
          "the facts cannot be kept: fleet_database in etc/brefir.conf cannot be used: cannot"},
         {"node facts --cached", 1, "", "cannot open '/proc/x'"}},
        &node);
}

// What needs no prefix asks for none; a host's own settings may name one for the rest.
TEST_F(NodeCommandsTest, APrefixIsFoundOrNotNeeded) {
  const LabNode node;
  const std::string out = " >/srv/out 2>&1; cat /srv/out >/srv/panel/var/out";
  const struct {
    std::string dir, arguments, conf, out;
  } cases[] = {
      {"/", "node exists /etc", "", "true\n"},
      {"/mnt", "node exists /etc", "", "true\n"},
      {"/mnt", "config get /etc/f a", "", "1\n"},
      {"/mnt", "sysctl get net.ipv4.ip_forward -ojson", "", R"("kernel": ")"},
      {"/mnt", "package installed none", "", "no\n"},
      {"/mnt", "recipe lint --help", "", "FILE"},
      {"/mnt", "frontd restart --dry-run", "", "service frontd restart\n"},
      {"/mnt", "task list", "", "'/mnt' is not a panel's directory"},
      {"/mnt", "task show none", "prefix = /srv/panel\n", "no task 'none'"},
      {"/", "task show none", "prefix = /srv/panel\n", "no task 'none'"},
      {"/mnt", "task show none --prefix /none", "prefix = /srv/panel\n", "cannot enter '/none'"},
      {"/mnt", "task list", "prefix = /none\n", "cannot enter '/none'"},
      {"/mnt", "task list", "prefix = srv\n", "'srv' in /etc/brefir.conf must be an absolute"},
  };
  node.Exec("echo a=1 >/etc/f");
  for (const auto& c : cases) {
    pnl_file::Write("/etc/brefir.conf", c.conf);
    if (c.conf.empty()) pnl_file::RemoveFile("/etc/brefir.conf");
    const bool local = c.arguments.find("task") == 0 || c.arguments.find("--") != std::string::npos;
    const std::string line = ProgramTest::Line(c.arguments, local ? nullptr : &node);
    EXPECT_TRUE(Has(Shell("cd " + c.dir + "; " + line + out).out, c.out))
        << c.dir << " " << c.arguments << "\n"
        << pnl_file::Read("var/out");
    EXPECT_FALSE(pnl_file::Exists("/var/brefirctl.log"));
  }
}

TEST_F(NodeCommandsTest, ARemovalIsFinalOnlyAfterItsCommand) {
  const LabNode node;
  node.Exec("mkdir -p /srv/d && echo kept >/srv/d/f");
  const std::string rm = Line(node, "rm /srv/d --recursive") + " --undo-on-failure ";
  const struct {
    std::string command;
    int code;
    std::string err;
    std::string left;
  } cases[] = {
      {rm + "'exit 3'", 1, "exit code 3; all is as before", "d\n"},
      // An interruption of the program alone: its command ends with it.
      {rm + "'echo $$ >var/pid; exec sleep 60' & sleep 1; kill $!; wait $!", 130,
       "interrupted; all is as before", "d\n"},
      {rm + "true", 0, "", ""},
  };
  for (const auto& c : cases) {
    const Finished run = Shell(c.command);
    EXPECT_EQ(run.code, c.code) << c.command;
    EXPECT_TRUE(Has(run.err, c.err)) << run.err;
    EXPECT_EQ(node.Exec("ls /srv"), c.left);
  }
  EXPECT_FALSE(pnl_file::Exists("/proc/" + str::Trim(pnl_file::Read("var/pid"))));
}

TEST_F(NodeCommandsTest, CopiesAreWholeOrTold) {
  const LabNode node("debian12", {.disk = "3m"});
  Shell("head -c 1000000 /dev/urandom >here/a; head -c 9000000 /dev/zero >here/big; : >here/empty");
  for (const std::string name : {"a", "empty"}) {
    EXPECT_EQ(Run(node, "put here/" + name + " /srv").code, 0);
    EXPECT_EQ(Run(node, "get /srv/" + name + " here/back").code, 0);
    EXPECT_TRUE(pnl_file::Read("here/back") == pnl_file::Read("here/" + name));
  }
  EXPECT_EQ(Run(node, "tree here/a here/empty --dest /srv/t").code, 0);
  const std::string sync = "sync here a --dest /srv/s --known-hosts " + support::LabKnownHosts();
  EXPECT_EQ(Run(node, sync).code, 0) << pnl_file::Read("var/err");
  EXPECT_EQ(node.Exec("cd /srv; ls s t; cmp a s/a"), "s:\na\n\nt:\na\nempty\n");

  EXPECT_TRUE(
      Has(Run(node, "put here/big /srv").err, "'/srv/big': its content cannot be written: cat:"));
  EXPECT_TRUE(
      Has(Run(node, "tree here/big --dest /srv/t").err, "'/srv/t' could not be filled: tar:"));
  EXPECT_TRUE(Has(Run(node, "put here/none /srv").err, "cannot read"));
  EXPECT_TRUE(Has(Run(node, "get /srv here/back").err, "no regular file"));
  node.Fault("slow 1mbit");
  EXPECT_EQ(
      Shell(Line(node, "get /srv/a here/back") + " & sleep 2; ls here >var/seen; kill $!; wait $!")
          .code,
      128 + SIGTERM);
  EXPECT_TRUE(Has(pnl_file::Read("var/seen"), "back."));
  EXPECT_EQ(support::Tree("here"), (Names{"a", "back", "big", "empty"}));
  EXPECT_TRUE(std::filesystem::is_empty("here/back"));
}

TEST_F(NodeCommandsTest, FilesAreStreamed) {
  const LabNode node;
  const std::string read = "timeout 30 " + Line(node, "read /dev/zero");
  EXPECT_EQ(Shell(read + " | head -c 3000000 | wc -c").out, "3000000\n");
  EXPECT_EQ(pnl_file::Read("var/err"), "");  // whoever leaves needs no message
  EXPECT_TRUE(Has(Shell(read + " >/dev/full").err, "No space left"));
  EXPECT_EQ(Shell("head -c 3000000 /dev/zero | " + Line(node, "write /f")).code, 0);
  EXPECT_EQ(Shell(Line(node, "read /f") + " | cmp -n 3000000 - /dev/zero").code, 0);
  EXPECT_NE(Shell(Line(node, "write /f") + " <&-").code, 0);
  EXPECT_EQ(node.Exec("stat -c %s /f"), "3000000\n");  // nothing is touched before all has come
}

TEST_F(NodeCommandsTest, ANodeThatDiesInACopyIsTold) {
  const LabNode node;
  Shell("head -c 100M /dev/zero >here/big");
  node.Fault("slow 100mbit");
  pnl_proc::Execute put("exec " + Line(node, "put here/big /srv --timeout 3") + " 2>var/err");
  const std::string arrives = "ls " + (node.Root() / "srv/.brefir-new-*").string() + " 2>/dev/null";
  for (int i = 0; i < 300 && Shell(arrives).out.empty(); ++i) pnl_proc::Sleep(100);
  const auto killed = std::chrono::steady_clock::now();
  node.Kill();
  EXPECT_EQ(put.Result(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(3 + 5));
  const std::string err = pnl_file::Read("var/err");
  EXPECT_TRUE(Has(err, "no sign of life") || Has(err, "lost the connection")) << err;
  EXPECT_EQ(support::Tree("here"), Names{"big"});
}

TEST(NodeOption, NamesUserHostAndPort) {
  const struct {
    std::string text;
    std::string user;
    std::string host;
    int port;  // 0: refused
  } cases[] = {
      {"web.example.org", "root", "web.example.org", 22},
      {"admin@10.0.0.1:2222", "admin", "10.0.0.1", 2222},
      {"[fe80::1%eth0]:2222", "root", "fe80::1%eth0", 2222},
      {"::1", "root", "::1", 22},
      {"", "", "", 0},
      {"@web", "", "", 0},
      {"web:", "", "", 0},
      {"web:70000", "", "", 0},
      {"[::1", "", "", 0},
      {"-oProxyCommand=x", "", "", 0},
  };
  for (const auto& c : cases) {
    if (c.port == 0) {
      EXPECT_THROW((void)fleet::ParseNode(c.text), pnl_err::Error) << c.text;
      continue;
    }
    const pnl_rpc::SshOptions options = fleet::ParseNode(c.text);
    EXPECT_EQ(std::tie(options.user, options.host, options.port), std::tie(c.user, c.host, c.port));
  }
}

}  // namespace
