// brefirctl frontd and package, and the control utility behind them, here and on real nodes.

#include <gtest/gtest.h>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/lab.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

using support::LabNode;

struct Finished {
  int code;
  std::string out;
  std::string err;
};

Finished Shell(const std::string& command) {
  const int code = pnl_proc::Execute("exec >var/out 2>var/err; " + command).Result();
  return {code, pnl_file::Read("var/out"), pnl_file::Read("var/err")};
}

/// The working directory is a panel's prefix; `brefirctl` is in the PATH.
class ServiceCommandsTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    setenv("PATH", BREFIR_BIN_DIR ":/usr/sbin:/usr/bin:/sbin:/bin", 1);
    std::filesystem::create_directories("/srv/panel/var");
    std::filesystem::current_path("/srv/panel");
    ASSERT_EQ(Shell("brefirctl prefix init .").code, 0);
  }

  static std::string At(const LabNode& node) {
    return " --node " + node.Address() + " --key " + support::LabKey();
  }

  struct Step {
    std::string command;
    int code;
    std::string out;  ///< a part; "": nothing
    std::string err;
  };

  static void Run(const std::vector<Step>& steps, const std::string& where) {
    const auto has = [](const std::string& text, const std::string& part) {
      return part.empty() ? text.empty() : text.find(part) != std::string::npos;
    };
    for (const Step& step : steps) {
      const Finished run = Shell("brefirctl " + step.command + where);
      EXPECT_EQ(run.code, step.code) << step.command << where << "\n" << run.err;
      EXPECT_TRUE(has(run.out, step.out)) << step.command << where << "\n" << run.out;
      EXPECT_TRUE(has(run.err, step.err)) << step.command << where << "\n" << run.err;
    }
  }
};

TEST_F(ServiceCommandsTest, FrontdHereAndThere) {
  const LabNode node;
  Run({{"frontd list", 1, "", "there is no '/srv/panel/sbin/pnlctl'"}}, At(node));
  const auto install = "/lab/install-panel " + node.Name() + " /srv/panel " BREFIR_BIN_DIR "/..";
  ASSERT_EQ(Shell(BREFIR_SOURCE_DIR + install).code, 0);
  for (const std::string& where : {std::string(), At(node)}) {
    Run(
        {
            {"frontd list", 0, "", ""},
            {"frontd listening 127.0.0.1", 1, "", ""},
            {"frontd add 127.0.0.1 --sslonly --dry-run", 0, "+Listen 127.0.0.1 1500 off on\n", ""},
            {"frontd list", 0, "", ""},
            {"frontd add 127.0.0.1 --sslonly", 0,
             "id       127.0.0.1:1500\nsslauth  no\nsslonly  y", ""},
            {"frontd add ::1 443 --restart", 0, "[::1]:443", ""},
            {"frontd add 203.0.113.9 80", 0, "error    this host has no address", ""},
            {"frontd add 127.0.0.1 1500 --sslauth -ojson", 0, R"("sslonly": false)", ""},
            {"frontd list", 0, "127.0.0.1:1500  yes", ""},
            {"frontd listening 127.0.0.1 1500", 0, "true\n", ""},
            {"frontd listening ::1 443 -ojson", 0, R"("listening": true)", ""},
            {"frontd listening ::1", 2, "", "PORT is missing"},
            {"frontd listening 203.0.113.9", 0, "80\n", ""},
            {"frontd listening 127.0.0.2 1500", 1, "false\n", ""},
            {"frontd add 127.0.0 80", 1, "", "ip '127.0.0' is not an IP address"},
            {"frontd add '1;reboot'", 2, "", "IP '1;reboot' is refused"},
            {"frontd add ::1 65536", 2, "", "65536"},
            {"frontd delete '[::1]:443' --dry-run", 0, "-Listen ::1 443 off off\n", ""},
            {"frontd delete '[::1]:443'", 0, "deleted  yes", ""},
            {"frontd delete '[::1]:443'", 1, "", "has no listen entry '[::1]:443'"},
            {"frontd restart", 0, "restarted  yes", ""},
            {"frontd restart --dry-run", 0, "service frontd restart\n", ""},
        },
        where);
  }
  const std::string count = "/var/lib/frontd.restarts";
  EXPECT_EQ(pnl_file::Read(count) + node.Exec("cat " + count), "2\n2\n");
  EXPECT_EQ(node.Exec("cat /srv/panel/etc/frontd.conf"), pnl_file::Read("etc/frontd.conf"));
}

TEST_F(ServiceCommandsTest, ListenEntriesThatPeopleWrote) {
  const std::string file =
      "# kept\nListen 127.0.0.1 # the default port\nListen\tlocalhost 80\r\nListen ::1 0\n"
      "Listen ::1 80 yes\nListen 127.0.0.1 1500\nListen\n Listen 0.0.0.0 080 on on more\n"
      "Listen \xff\x01 80\nOther 1\nListen :: 80";
  pnl_file::Write("etc/frontd.conf", file);
  EXPECT_EQ(Shell("brefirctl frontd list | sed 's/  */ /g'").out,
            "ID SSLAUTH SSLONLY ERROR\n"
            "127.0.0.1 no no -\n"
            "localhost:80 no no 'localhost' is no IP address\n"
            "[::1]:0 no no '0' is no port from 1 to 65535\n"
            "[::1]:80 no no 'yes' is neither on nor off\n"
            "127.0.0.1:1500 no no there is another entry of this address and port\n"
            " no no '' is no IP address\n"
            "0.0.0.0:080 yes yes '080' is no port from 1 to 65535\n"
            "\xEF\xBF\xBD\\x01:80 no no '\xEF\xBF\xBD\\x01' is no IP address\n"
            "[::]:80 no no -\n");
  Run({{"frontd delete 127.0.0.1", 0, "deleted", ""},
       {"frontd delete localhost:80", 0, "deleted", ""},
       {"frontd add :: 80 --sslonly", 0, "sslonly  yes", ""}},
      "");
  EXPECT_EQ(pnl_file::Read("etc/frontd.conf"),
            "# kept\nListen ::1 0\nListen ::1 80 yes\nListen\n Listen 0.0.0.0 080 on on more\n"
            "Listen \xff\x01 80\nOther 1\nListen :: 80 off on");
}

TEST_F(ServiceCommandsTest, ManyAtOnceLoseNothing) {
  Shell("for n in $(seq 12); do brefirctl frontd add 127.0.0.1 $n & done; wait");
  EXPECT_EQ(Shell("grep -c ^Listen etc/frontd.conf").out, "12\n");
}

TEST_F(ServiceCommandsTest, TheUtilityAlwaysReplies) {
  const struct {
    std::string words;
    int code;
    std::string out;
  } cases[] = {
      {"-m core -o xml frontd", 0, "<doc"},
      {"-m none frontd", 1, R"(<error type="missed" object="module">)"},
      {"-m core none", 1, R"(<error type="missed" object="function">)"},
      {"-m core frontd.edit ip=::1 port=1 sslauth=on sslonly=on", 1,
       R"(type="value" object="sok")"},
      {"-m core frontd.edit sok=ok ip=::1 port=1 sslauth=on", 1, R"(object="sslonly")"},
      {"-m core frontd.delete elid=$(printf '\\1\\377')", 1, R"(object="listen")"},
  };
  for (const auto& c : cases) {
    const Finished run = Shell("cd / && /srv/panel/sbin/pnlctl " + c.words);
    EXPECT_EQ(run.code, c.code) << c.words;
    EXPECT_NE(run.out.find(c.out), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
  }
  EXPECT_EQ(Shell("sbin/pnlctl frontd").code, 2);
  EXPECT_EQ(Shell("grep -c ^Listen etc/frontd.conf").out, "0\n");
  EXPECT_EQ(Shell("rm sbin/pnlctl; brefirctl frontd list").err.substr(0, 41),
            "brefirctl: there is no panel module 'core");
}

TEST_F(ServiceCommandsTest, PackagesOfBothFamilies) {
  ASSERT_EQ(
      Shell(BREFIR_SOURCE_DIR "/lab/make-package-repos repos && cp -r repos/panel/etc /").code, 0);
  pnl_file::Write("etc/brefir.conf", "download_server = http://10.99.0.1:8080\n");
  const support::RepoServer server("repos", "--bind 10.99.0.1 --port 8080");
  const std::string url = "package install http://10.99.0.1:8080/main/rpm/demo-agent-1.rpm";
  for (const std::string os : {"debian12", "centos7"}) {
    const LabNode node(os);
    const bool debian = os == "debian12";
    Run({{"package refresh", 0, debian ? "refreshed  yes" : "refreshed  no", ""},
         {"package installed demo-tool", 1, "no\n", ""},
         {"package install demo-tool --dry-run", 0, " install ", ""},
         {"package installed demo-tool -ojson", 1, R"("installed": false)", ""},
         {"package install demo-tool", 0, "installed  yes", ""},
         {"package installed demo-tool", 0, "yes\n", ""},
         {"package install none", 1, "",
          debian ? "E: Unable to locate package none" : "Error: Unable to find a match: none"},
         {"package install 'a;b'", 2, "", "NAME 'a;b' is refused"},
         {url, debian ? 1 : 0, debian ? "" : "installed  yes", debian ? "Red Hat family only" : ""},
         {"package add-repo base --dry-run", 0, debian ? "+deb [tr" : "+baseurl=", ""},
         {"package add-repo base", 0, "velkor-base", ""},
         {"package update demo-tool", 0, "updated  yes", ""},
         {"package add-repo common", 0, "velkor.", ""},
         {"package install demo-broken", 1, "", "demo-broken"}},
        At(node));
    EXPECT_EQ(node.Exec("cat /opt/demo-tool/version"), "2\n");
  }
  const LabNode other("gentoo");
  Run({{"package installed x", 1, "", "neither of the Red Hat nor of the Debian family"}},
      At(other));
}

}  // namespace
