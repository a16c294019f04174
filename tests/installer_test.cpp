#include "brefir/installer.h"

#include <functional>
#include <optional>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/lab.h"
#include "support/repo_server.h"

namespace {

using velkor_repo::Installer;
using Strings = std::vector<std::string>;

constexpr const char* kServer = "http://10.99.0.1:8080";

/// Works in a panel's prefix, beside real package repositories, on a node that logs its commands.
class InstallerTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    for (const char* dir : {"/panel/var", "/panel/etc"}) pnl_file::MkDir(dir);
    std::filesystem::current_path("/panel");
    pnl_file::Write("etc/brefir.conf", std::string("download_server = ") + kServer +
                                           "/\nsigning_key_server = " + kServer + "\n");
    const auto run = [](const std::string& command) {
      ASSERT_EQ(pnl_proc::Execute(command).Result(), 0);
    };
    run(BREFIR_SOURCE_DIR "/lab/make-package-repos repos && cp -r repos/panel/etc /");
    server.emplace("repos", "--bind 10.99.0.1 --port 8080");
  }

  /// A fresh node and its installer.
  void Start(const std::string& os) {
    installer.reset();
    ssh.reset();
    node.emplace(os, support::LabOptions{{}, "", true});
    ssh.emplace(pnl_rpc::SshOptions{.host = node->Address(),
                                    .key_file = support::LabKey(),
                                    .known_hosts = support::LabKnownHosts()});
    installer.emplace(*ssh, "var");
    node->ClearCommands();
  }

  struct Step {
    std::function<void()> call;
    Strings commands;
    std::string error;   ///< "" for none
    std::string output;  ///< a part of what the package manager said
  };

  void Run(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      node->ClearCommands();
      std::string error;
      std::string output;
      try {
        step.call();
      } catch (const pnl_err::Error& caught) {
        error = caught.type() + "|" + caught.object() + "|" + caught.value();
        output = caught.param("output") + caught.param("packet");
      }
      EXPECT_EQ(node->Commands(), step.commands);
      EXPECT_EQ(error, step.error) << step.commands.back();
      EXPECT_NE(output.find(step.output), std::string::npos) << output;
    }
  }

  std::string Version() const { return node->Exec("cat /opt/demo-tool/version"); }

  std::optional<support::RepoServer> server;
  std::optional<support::LabNode> node;
  std::optional<pnl_rpc::SSH> ssh;
  std::optional<Installer> installer;
};

TEST_F(InstallerTest, DebianFamily) {
  const std::string install =
      "DEBIAN_FRONTEND=noninteractive apt-get -yq --force-yes install "
      "-o Dpkg::Options::=\"--force-confdef\" -o Dpkg::Options::=\"--force-confold\" --no-remove ";
  const std::string list = "/etc/apt/sources.list.d/velkor-base.list";
  const std::string main_list = "/etc/apt/sources.list.d/velkor.list";
  Start("debian12");
  Run({
      {[&] { EXPECT_FALSE(installer->PacketInstalled("demo-tool")); },
       {"dpkg -l | grep demo-tool | grep '^ii'"},
       "",
       ""},
      {[&] { installer->UpdatePkgCache(); }, {"apt-get -y update"}, "", ""},
      {[&] { installer->InstallPackage("demo-tool", ""); }, {install + "demo-tool 2>&1"}, "", ""},
      {[&] { EXPECT_TRUE(installer->PacketInstalled("mo-to")); },
       {"dpkg -l | grep mo-to | grep '^ii'"},
       "",
       ""},
      {[&] { installer->InstallPackage("none", "A=b env"); },
       {"A=b env " + install + "none 2>&1"},
       "install|remote|none",
       "E: Unable to locate package none"},
      {[&] { installer->InstallByURL("http://x/y.rpm"); }, {}, "", ""},
      {[&] { installer->InstallVelkorRepo(); },
       {"test -e " + list, "/bin/sh -c 'dd of=" + list + " 2>/dev/null'", "apt-get -y update"},
       "",
       ""},
      {[&] { installer->InstallVelkorRepo(); }, {"test -e " + list}, "", ""},
      {[&] { installer->UpdatePacket("demo-tool", "-o a=b"); },
       {"apt-get -y update", "apt-get -y upgrade -o a=b demo-tool"},
       "",
       ""},
      {[&] { installer->UpdatePacket("a b", ""); },
       {"apt-get -y update", "apt-get -y upgrade 'a b'"},
       "update_pkg||",
       "a b"},
      {[&] { installer->InstallCommonRepo(); },
       {"/bin/sh -c 'dd of=" + main_list + " 2>/dev/null'",
        "wget -q -O - http://10.99.0.1:8080/repo/debian/velkor.gpg.key | apt-key add -",
        "apt-get update -y"},
       "",
       ""},
      {[&] { installer->InstallPackage("demo-agent", ""); }, {install + "demo-agent 2>&1"}, "", ""},
      {[&] { installer->InstallPackage("demo-broken", ""); },
       {install + "demo-broken 2>&1"},
       "install|remote|demo-broken",
       "demo-broken: no license found"},
  });
  EXPECT_EQ(Version(), "2\n");
  EXPECT_NE(node->Exec("apt-key list 2>&1").find("Lab packages"), std::string::npos);

  node->Exec("echo nonsense >/etc/apt/sources.list; rm " + list);
  pnl_file::RemoveFile(list);
  pnl_file::RemoveFile(main_list);
  Run({
      {[&] { installer->UpdatePacket("demo-tool", ""); },
       {"apt-get -y update"},
       "apt_get_update||",
       ""},
      {[&] { installer->InstallVelkorRepo(); }, {}, "", ""},
      {[&] { installer->InstallCommonRepo(); }, {}, "install_repository|" + main_list + "|", ""},
  });
}

TEST_F(InstallerTest, RedHatFamily) {
  const std::string url = std::string(kServer) + "/main/rpm/demo-agent-1.rpm";
  const std::string base = "/etc/yum.repos.d/velkor-base.repo";
  Start("centos7");
  Run({
      {[&] { EXPECT_FALSE(installer->PacketInstalled("demo-tool")); },
       {"yum list installed | grep demo-tool"},
       "",
       ""},
      {[&] { installer->UpdatePkgCache(); }, {}, "", ""},
      {[&] { installer->InstallPackage("demo-tool", "A=b"); },
       {"A=b yum -y install demo-tool 2>&1"},
       "",
       ""},
      {[&] { EXPECT_TRUE(installer->PacketInstalled("demo-lib")); },
       {"yum list installed | grep demo-lib"},
       "",
       ""},
      {[&] { installer->InstallPackage("none", ""); },
       {"yum -y install none 2>&1"},
       "install|remote|none",
       "Error: Unable to find a match: none"},
      {[&] { installer->InstallByURL(url); }, {"rpm -Uvh " + url}, "", ""},
      {[&] { installer->InstallByURL(url + "x"); },
       {"rpm -Uvh " + url + "x"},
       "install_url|" + url + "x|",
       ""},
      {[&] { installer->InstallVelkorRepo(); },
       {"/bin/sh -c 'dd of=" + base + " 2>/dev/null'",
        "rpm --import http://10.99.0.1:8080/repo/velkor.gpg.key"},
       "",
       ""},
      {[&] { installer->UpdatePacket("demo-tool", ""); }, {"yum update -y demo-tool"}, "", ""},
      {[&] { installer->UpdatePacket("a b", "-q"); },
       {"yum update -y -q 'a b'"},
       "update_pkg||",
       "a b"},
      {[&] { installer->InstallCommonRepo(); },
       {"yum -y install epel-release 2>&1",
        "/bin/sh -c 'dd of=/etc/yum.repos.d/velkor.repo 2>/dev/null'"},
       "",
       ""},
  });
  EXPECT_EQ(Version(), "2\n");
  EXPECT_NE(node->Exec("rpm -q gpg-pubkey"), "");
  EXPECT_NE(node->Exec("yum -y install demo-agent; cat /opt/demo-agent/version").find("1\n"),
            std::string::npos);

  server->Fault("repo/centos/velkor-base.repo", "status 404");
  node->Fault("stub yum 'echo no epel; exit 1'");
  Run({
      {[&] { installer->InstallVelkorRepo(); }, {}, "install_repository|velkor-base.repo|", ""},
      {[&] { installer->InstallCommonRepo(); },
       {"yum -y install epel-release 2>&1"},
       "install_repository|/etc/yum.repos.d/velkor.repo|",
       "no epel"},
  });
  EXPECT_FALSE(pnl_file::Exists("var/velkor-base.repo"));
}

TEST_F(InstallerTest, OtherSystemsAndLostNodesAreErrors) {
  for (const char* os : {"gentoo", "unknown"}) {
    try {
      Start(os);
      ADD_FAILURE() << os;
    } catch (const pnl_err::Error& error) {
      EXPECT_EQ(error.type(), "not_implemented");
    }
  }
  Start("fedora");
  node->Kill();
  EXPECT_THROW((void)installer->PacketInstalled("demo-tool"), pnl_err::Error);
  EXPECT_THROW(installer->InstallPackage("demo-tool", ""), pnl_err::Error);
  EXPECT_THROW(installer->InstallVelkorRepo(), pnl_err::Error);
}

}  // namespace
