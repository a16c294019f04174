// brefirctl frontd and package, and the control utility behind them, here and on real nodes.

#include <gtest/gtest.h>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/lab.h"
#include "support/repo_server.h"

namespace {

using support::LabNode;

/// The working directory is a panel's prefix.
class ServiceCommandsTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    setenv("PATH", BREFIR_SOURCE_DIR "/lab:" BREFIR_BIN_DIR ":/usr/sbin:/usr/bin:/sbin:/bin", 1);
    pnl_file::MkDir("/srv/panel");
    std::filesystem::current_path("/srv/panel");
    Run({{"brefirctl prefix init .", 0, "frontd.conf"}});
  }

  static std::string At(const LabNode& node) {
    return " --node " + node.Address() + " --key " + support::LabKey();
  }

  struct Step {
    std::string command;
    int code;
    std::string output;  ///< a part, also of standard error; "": nothing
  };

  static void Run(const std::vector<Step>& steps, const std::string& where = "") {
    for (const Step& step : steps) {
      pnl_proc::Execute run(step.command + where, pnl_proc::kMergeStderr);
      const std::string output = run.Str();
      EXPECT_EQ(run.Result(), step.code) << step.command << where << "\n" << output;
      EXPECT_NE(output.find(step.output), std::string::npos) << step.command << "\n" << output;
      EXPECT_EQ(output.empty(), step.output.empty()) << output;
    }
  }
};

TEST_F(ServiceCommandsTest, FrontdHereAndThere) {
  const LabNode node;
  const std::string f = "brefirctl frontd ";
  Run({{f + "list", 1, "there is no '/srv/panel/sbin/pnlctl'"}}, At(node));
  Run({{"install-panel " + node.Name() + " /srv/panel " BREFIR_BIN_DIR "/brefirctl", 0, ""}});
  for (const std::string& where : {std::string(), At(node)}) {
    Run({{f + "list", 0, ""},
         {f + "add 127.0.0.1 --sslonly --dry-run", 0, "+Listen 127.0.0.1 1500 off on\n"},
         {f + "list", 0, ""},
         {f + "add 127.0.0.1 --sslonly", 0, "id       127.0.0.1:1500\nsslauth  no\nsslonly  yes"},
         {f + "add 127.0.0.1 --check", 0, "changed  no\n"},
         {f + "add ::1 443", 0, "[::1]:443"},
         {f + "add 203.0.113.9 80", 0, "error    this host has no address"},
         {f + "add 127.0.0.1 1500 --sslauth -ojson", 0, R"("sslonly": true)"},
         {f + "add 127.0.0.1 --no-sslonly --dry-run", 0, "+Listen 127.0.0.1 1500 on off\n"},
         {f + "add 127.0.0.1 --no-sslonly", 0, "sslauth  yes\nsslonly  no"},
         {f + "list", 0, "127.0.0.1:1500  yes"},
         {f + "listening 127.0.0.1 1500", 0, "true\n"},
         {f + "listening 203.0.113.9", 0, "80\n"},
         {f + "add '1;reboot'", 2, "IP '1;reboot' is not an IP address"},
         {f + "remove '[::1]:443' --dry-run", 0, "-Listen ::1 443 off off\n"},
         {f + "remove '[::1]:443'", 0, "removed  yes"},
         {f + "remove '[::1]:443'", 1, "has no listen entry '[::1]:443'"},
         {"env PATH=/usr/bin:/bin " BREFIR_BIN_DIR "/" + f + "restart", 0, "restarted  yes"}},
        where);
  }
  // A port is waited for where the server listened before: for sshd's it seems to.
  Run({{f + "add ::1 22 --restart", 0, "[::1]:22"},
       {f + "add ::1 444 --restart", 1, "frontd does not listen on port 444 10 seconds after"},
       {f + "add ::1 22 --restart --sslonly --then 'touch /root/then'", 0, "sslonly  yes"},
       {f + "remove '[::1]:22'", 0, "removed"}},
      At(node));
  const std::string count = "/var/lib/frontd.restarts";
  EXPECT_EQ(pnl_file::Read(count) + node.Exec("cat " + count + "; ls /root/then"),
            "1\n5\n/root/then\n");
  EXPECT_EQ(node.Exec("cat /srv/panel/etc/frontd.conf"), pnl_file::Read("etc/frontd.conf"));
  for (const std::string& where : {std::string(), At(node)}) {
    const std::string root = where.empty() ? "" : node.Root().string();
    // What it leaves running, with its output open, is not waited for.
    pnl_file::Write(root + "/etc/init.d/frontd",
                    "#!/bin/sh\nsleep 100 &\necho no license >&2\nexit 3\n");
    Run({{f + "restart", 1, "'service frontd restart' failed: exit code 3: no license"},
         {f + "add :: --restart", 1, "no license"},
         {f + "listening ::", 2, "PORT is missing"},
         {f + "listening :: 1500", 3, "false\n"}},
        where);
  }
}

TEST_F(ServiceCommandsTest, ListenEntriesThatPeopleWrote) {
  pnl_file::Write("etc/frontd.conf",
                  "# kept\nListen 127.0.0.1 # the default port\nListen\tlocalhost 80\r\n"
                  "Listen ::1 0\nListen ::1 80 yes\nListen 127.0.0.1 1500\nListen\n"
                  " Listen 0.0.0.0 080 on on more\nListen \xff\x01 80\nOther 1\nListen :: 80");
  const std::string list =
      "ID SSLAUTH SSLONLY ERROR\n"
      "127.0.0.1 no no -\n"
      "localhost:80 no no 'localhost' is not an IP address\n"
      "[::1]:0 no no '0' is not a port from 1 to 65535\n"
      "[::1]:80 no no 'yes' is neither on nor off\n"
      "127.0.0.1:1500 no no another entry has the same address and port\n"
      " no no '' is not an IP address\n"
      "0.0.0.0:080 yes yes '080' is not a port from 1 to 65535\n"
      "\xEF\xBF\xBD\\x01:80 no no '\xEF\xBF\xBD\\x01' is not an IP address\n"
      "[::]:80 no no -\n";
  Run({{"brefirctl frontd list | sed 's/  */ /g'", 0, list},
       {"brefirctl frontd remove 127.0.0.1", 0, "removed"},
       {"brefirctl frontd remove localhost:80", 0, "removed"},
       {"brefirctl frontd add :: 80 --sslonly", 0, "sslonly  yes"}});
  EXPECT_EQ(pnl_file::Read("etc/frontd.conf"),
            "# kept\nListen ::1 0\nListen ::1 80 yes\nListen\n Listen 0.0.0.0 080 on on more\n"
            "Listen \xff\x01 80\nOther 1\nListen :: 80 off on");
  // Who may not read something is not told that there is nothing.
  const std::string nobody = "setpriv --reuid 65534 --clear-groups " BREFIR_BIN_DIR "/brefirctl ";
  Run({{"chmod 600 etc/frontd.conf; mkdir var/tasks; echo >var/tasks/x.task; chmod 600 "
        "var/tasks/*;" +
            nobody + "frontd list",
        1, "cannot open 'etc/frontd.conf': Permission denied"},
       {nobody + "task list", 1, "cannot open 'var/tasks/x.task': Permission denied"}});
}

TEST_F(ServiceCommandsTest, TheUtilityAlwaysReplies) {
  const std::string ctl = "cd / && /srv/panel/sbin/pnlctl ";
  Run({{ctl + "-m core -o xml frontd", 0, "<doc"},
       {ctl + "-m none frontd", 1, R"(<error type="missed" object="module">)"},
       {ctl + "-m core none", 1, R"(<error type="missed" object="function">)"},
       {ctl + "-m core frontd.edit ip=::1 port=1 sslauth=on sslonly=on", 1, R"(object="sok")"},
       {ctl + "-m core frontd.delete elid=$(printf '\\1\\377')", 1, R"(object="listen")"},
       {ctl + "frontd", 2, "--module MODULE is missing"},
       {"for n in $(seq 12); do sbin/pnlctl -m core frontd.edit ip=:: port=$n sslauth=off "
        "sslonly=off sok=ok & done; wait",
        0, "<doc/>"},
       {"grep -c ^Listen etc/frontd.conf", 0, "12\n"},
       {"rm sbin/pnlctl; brefirctl frontd list", 1, "there is no panel module 'core'"}});
}

TEST_F(ServiceCommandsTest, PackagesOfBothFamilies) {
  Run({{"make-package-repos repos && cp -r repos/panel/etc /", 0, ""},
       {"for s in download_server signing_key_server; do echo $s = http://10.99.0.1:8080; done "
        ">etc/brefir.conf",
        0, ""}});
  const support::RepoServer server("repos", "--bind 10.99.0.1 --port 8080");
  const std::string p = "brefirctl package ";
  const std::string url = p + "install http://10.99.0.1:8080/main/rpm/demo-agent-1.rpm";
  const auto run = [&](const std::string& os, const std::vector<Step>& steps) {
    const LabNode node(os);
    const std::string list = os == "centos7" ? "rpm -qa" : "dpkg -l | grep ^ii";
    const std::string tree = "(" + list + "; find /etc /usr/local | sort) | cksum";
    Run({{p + "refresh", 0, "refreshed"}}, At(node));
    const std::string before = node.Exec(tree);
    Run({{p + "install demo-tool --dry-run", 0, "packages: install demo-lib 1"},
         {p + "installed demo-tool", 3, "no\n"},
         {p + "update demo-tool", 1, "demo-tool"},
         {p + "install demo-tool demo-lib=1", 0, "demo-lib   yes        1"},
         {p + "install demo-tool", 0, "changed    no"},
         {p + "installed demo-tool", 0, "yes\n"},
         {p + "installed demo-", 3, "no\n"},
         {p + "install none", 1, "there is no package 'none': check the name"},
         {p + "install 'a;b'", 2, "NAME 'a;b' is refused"},
         {p + "list --columns name", 0, "\ndemo-tool"},
         {p + "list --upgradable", 0, ""}},
        At(node));
    Run(steps, At(node));
    Run({{p + "add-repo base", 0, "velkor-base"},
         {p + "add-repo base --check", 0, "no"},
         {p + "list --upgradable", 0, "demo-tool"},
         {p + "update demo-tool", 0, "updated  yes"},
         {p + "update --all --check", 3, "changed  yes"},
         {p + "update --all", 0, "demo-lib"},
         {p + "update --all --check", 0, "changed  no"}},
        At(node));
    EXPECT_EQ(node.Exec("cat /opt/demo-tool/version /opt/demo-lib/version"), "2\n2\n");
    Run({{p + "update demo-tool --options=--bad", 1, "could not be updated: "},
         {p + "add-repo common --then 'touch /root/then'", 0, "velkor."},
         {p + "remove demo-tool", 0, "removed  yes"}},
        At(node));
    Run(
        {{"for n in $(brefirctl run list --columns id --no-headers); do brefirctl run undo $n "
          "--key " +
              support::LabKey() + " || exit; done",
          0, "undone"}});
    EXPECT_EQ(node.Exec(tree), before) << os;
  };
  run("debian12", {{p + "add-repo base --dry-run", 0, "+deb [trusted=yes] http"},
                   {p + "hold demo-lib", 0, "held     yes"},
                   {p + "hold demo-lib --check", 0, "changed  no"},
                   {p + "unhold demo-lib", 0, "held     no"},
                   {url, 1, "only systems of the Red Hat family"}});
  run("centos7", {{p + "install demo-broken", 1, "demo-broken"},
                  {p + "hold demo-lib", 1, "yum has no plugin versionlock there"},
                  {p + "add-repo base --dry-run", 0, "+baseurl=http"}});
  const LabNode other("gentoo");
  Run({{p + "installed x", 1, "neither of the Red Hat nor of the Debian family"}}, At(other));
}

}  // namespace
