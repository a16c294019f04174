#include "brefir/installer.h"

#include <functional>
#include <optional>

#include "brefir/str_utils.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/lab.h"
#include "support/repo_server.h"

namespace {

using velkor_repo::Installer;

const std::string kServer = "http://10.99.0.1:8080";

std::string Dd(const std::string& path) {
  return "/bin/sh -c 'dd of=" + path + " 2>/dev/null'";
}

/// Works in a panel's prefix, beside real package repositories, on a node that logs its commands.
class InstallerTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    for (const char* dir : {"/panel/var", "/panel/etc"}) pnl_file::MkDir(dir);
    std::filesystem::current_path("/panel");
    pnl_file::Write("etc/brefir.conf",
                    "download_server = " + kServer + "/\nsigning_key_server = " + kServer + "\n");
    pnl_proc::Execute make(BREFIR_SOURCE_DIR
                           "/lab/make-package-repos repos && cp -r repos/panel/etc /");
    ASSERT_EQ(make.Result(), 0);
    server.emplace("repos", "--bind 10.99.0.1 --port 8080");
  }

  /// A fresh node and its installer.
  void Start(const std::string& os) {
    installer.reset();
    node.emplace(os, support::LabOptions{{}, "", true});
    pnl_rpc::SSH ssh(node->Login());
    installer.emplace(ssh, "var");
  }

  struct Step {
    std::function<void()> call;
    std::string commands;  ///< with "; " between
    std::string error = {};
    std::string output = {};  ///< a part of what the package manager said
  };

  void Run(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      node->ClearCommands();
      const auto caught = support::Caught(step.call);
      std::string error = caught ? caught->what() : "";
      const std::string output = caught ? caught->param("output") : "";
      for (const char* more : {", output=", " (output=", " (reason="}) {
        error = error.substr(0, error.find(more));
      }
      EXPECT_EQ(str::Join(node->Commands(), "; "), step.commands);
      EXPECT_EQ(error, step.error) << step.commands;
      EXPECT_NE(output.find(step.output), std::string::npos) << output;
      EXPECT_LE(output.size(), 2000U);
    }
  }

  std::optional<support::RepoServer> server;
  std::optional<support::LabNode> node;
  std::optional<Installer> installer;
};

TEST_F(InstallerTest, DebianFamily) {
  const std::string install =
      "DEBIAN_FRONTEND=noninteractive apt-get -yq --force-yes install "
      "-o Dpkg::Options::=\"--force-confdef\" -o Dpkg::Options::=\"--force-confold\" --no-remove ";
  const std::string base = "/etc/apt/sources.list.d/velkor-base.list";
  const std::string common = "/etc/apt/sources.list.d/velkor.list";
  const std::string update = "apt-get -y update";
  Start("debian12");
  Run({
      {[&] { EXPECT_FALSE(installer->PacketInstalled("no such tool")); },
       "dpkg -l | grep 'no such tool' | grep '^ii'"},
      {[&] { installer->UpdatePkgCache(); }, update},
      {[&] { installer->InstallPackage("demo-tool", ""); }, install + "demo-tool 2>&1"},
      {[&] { EXPECT_TRUE(installer->PacketInstalled("mo-to")); },
       "dpkg -l | grep mo-to | grep '^ii'"},
      {[&] { installer->InstallPackage("none", "A=b"); }, "A=b " + install + "none 2>&1",
       "install remote none", "E: Unable to locate package none"},
      {[&] { installer->InstallByURL("http://x/y.rpm"); }, ""},
      {[&] { installer->InstallVelkorRepo(); },
       "test -e " + base + "; " + Dd(base) + "; " + update},
      {[&] { installer->InstallVelkorRepo(); }, "test -e " + base},
      {[&] { installer->UpdatePacket("demo-tool", "-q"); },
       update + "; apt-get -y upgrade -q demo-tool"},
      {[&] { installer->InstallCommonRepo(); },
       Dd(common) +
           "; wget -q -O - http://10.99.0.1:8080/repo/debian/velkor.gpg.key | apt-key add -; "
           "apt-get update -y"},
      {[&] { installer->InstallPackage("demo-agent", ""); }, install + "demo-agent 2>&1"},
      {[&] { installer->InstallPackage("demo-broken", ""); }, install + "demo-broken 2>&1",
       "install remote demo-broken", "demo-broken: no license found"},
      {[&] { node->Exec("echo nonsense >/etc/apt/sources.list; rm " + base); }, ""},
      {[&] { installer->UpdatePacket("demo-tool", ""); }, update, "apt_get_update"},
      {[&] { std::filesystem::remove_all("/etc/apt/sources.list.d"); }, ""},
      {[&] { installer->InstallVelkorRepo(); }, ""},
      {[&] { installer->InstallCommonRepo(); }, "", "install_repository " + common},
  });
  EXPECT_EQ(node->Exec("cat /opt/demo-tool/version"), "2\n");
  EXPECT_NE(node->Exec("apt-key list 2>&1").find("Lab packages"), std::string::npos);
}

TEST_F(InstallerTest, RedHatFamily) {
  const std::string url = kServer + "/main/rpm/demo-agent-1.rpm";
  const std::string base = "/etc/yum.repos.d/velkor-base.repo";
  const std::string common = "/etc/yum.repos.d/velkor.repo";
  const std::string epel = "yum -y install epel-release 2>&1";
  Start("centos7");
  Run({
      {[&] { EXPECT_FALSE(installer->PacketInstalled("no such tool")); },
       "yum list installed | grep 'no such tool'"},
      {[&] { installer->UpdatePkgCache(); }, ""},
      {[&] { installer->InstallPackage("demo-tool", "A=b"); }, "A=b yum -y install demo-tool 2>&1"},
      {[&] { installer->InstallPackage("none", ""); }, "yum -y install none 2>&1",
       "install remote none", "Error: Unable to find a match: none"},
      {[&] { installer->InstallByURL(url); }, "rpm -Uvh " + url},
      {[&] { installer->InstallByURL("http://u:p@" + url.substr(7) + "x"); },
       "rpm -Uvh http://u:p@" + url.substr(7) + "x", "install_url " + url + "x"},
      {[&] { installer->InstallVelkorRepo(); },
       Dd(base) + "; rpm --import http://10.99.0.1:8080/repo/velkor.gpg.key"},
      {[&] { installer->UpdatePacket("demo-tool", ""); }, "yum update -y demo-tool"},
      {[&] { installer->UpdatePacket("a b", "-q"); }, "yum update -y -q 'a b'",
       "update_pkg (packet=a b)"},
      {[&] { installer->InstallCommonRepo(); }, epel + "; " + Dd(common)},
      {[&] { server->Fault("repo/centos/velkor-base.repo", "status 404"); }, ""},
      {[&] { installer->InstallVelkorRepo(); }, "", "install_repository velkor-base.repo"},
      {[&] {
         node->Fault("stub yum 'sleep 20 & echo $! >/daemon; seq 2000; echo no epel; exit 1'");
       },
       ""},
      {[&] { installer->InstallCommonRepo(); }, epel, "install_repository " + common, "no epel"},
      {[&] { EXPECT_EQ(node->Exec("kill -0 $(cat /daemon) && echo runs"), "runs\n"); }, ""},
  });
  EXPECT_EQ(node->Exec("cat /opt/demo-tool/version"), "2\n");
  EXPECT_NE(node->Exec("rpm -q gpg-pubkey"), "");
  EXPECT_FALSE(pnl_file::Exists("var/velkor-base.repo"));
}

TEST_F(InstallerTest, OtherSystemsAndLostNodesAreErrors) {
  for (const char* os : {"gentoo", "unknown"}) EXPECT_THROW(Start(os), pnl_err::Error);
  Start("fedora");
  node->Kill();
  EXPECT_THROW((void)installer->PacketInstalled("demo-tool"), pnl_err::Error);
  EXPECT_THROW(installer->InstallVelkorRepo(), pnl_err::Error);
}

}  // namespace
