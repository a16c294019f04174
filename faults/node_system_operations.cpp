// The operations of node_faults for a node's system: facts, processes, kernel parameters, packages,
// the web server.

#include <filesystem>

#include "brefir/frontdctl.h"
#include "brefir/installer.h"
#include "brefir/ssh_utils.h"
#include "brefir/sysctl.h"
#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "faults/table.h"
#include "pnl/file.h"

namespace node_faults {
namespace {

namespace os_info = ssh_utils::os_info;
using velkor_repo::Installer;

constexpr const char* kSysctlConf = "/etc/sysctl.conf";
constexpr const char* kRestarts = "/var/lib/frontd.restarts";

std::function<std::string(const Site&)> Made(const std::string& path) {
  return [path](const Site& site) { return Exists(site.Here(path)) ? "new" : "old"; };
}

// --- Facts and processes

/// What the node runs in the background until the point is over.
int StartSleep(pnl_rpc::SSH& ssh) {
  return str::Int(ssh.Execute("sleep 30 >/dev/null 2>&1 & echo $!").Str());
}

/// A node with a script in place of its panel's control utility.
void PutPnlctl(Site& site) {
  const std::string program = site.Path("sbin/pnlctl");
  Put(site.Here(program), "#!/bin/sh\necho '<doc>'; cat " + site.Path("f") + "; echo '</doc>'\n");
  std::filesystem::permissions(site.Here(program), std::filesystem::perms{0755});
}

void AskFacts(Site& s) {
  Expect(os_info::Arch(s.Ssh()) == "x86_64", "Arch");
  Expect(os_info::BootDate(s.Ssh()).Seconds() > 1, "BootDate");
  Expect(os_info::Type(s.Ssh()) == os_info::OsDebian, "Type");
  Expect(os_info::Version(s.Ssh()) == "12.5", "Version");
  Expect(os_info::GetOs(s.Ssh()) == "Debian 12.5", "GetOs");
}

std::vector<Operation> FactOperations() {
  const auto terminate = [](Site& s) {
    Expect(ssh_utils::Terminate(s.Ssh(), StartSleep(s.Ssh()), 2, 2), "");
  };
  const auto ask = [](Site& s) {
    const auto reply = ssh_utils::PnlCtl(s.Ssh(), s.dir, "core", "frontd", {});
    Expect(reply.GetNode("/doc").Str() == "\n" + OldText(), "the whole reply");
  };
  return {
      {.name = "os_info: all facts",
       .call = AskFacts,
       .points = 10,
       .errors = "remote_uptime remote_read"},
      {.name = "Terminate, ProcessExists, Kill", .call = terminate, .points = 3, .seconds = 9},
      {.name = "PnlCtl", .call = ask, .prepare = PutPnlctl},
  };
}

// --- Kernel parameters

std::string SysctlState(const Site& site) {
  return StateOf(site.Here(kSysctlConf), OldText(),
                 sysctl::Rewrite(OldText(), {{"net.ipv4.ip_forward", "1"}}));
}

/// On the way back the old text is what is written: any beginning of it may be there.
std::string SysctlUndoState(const Site& site) {
  const std::string state = SysctlState(site);
  return state == "TORN" && OldText().starts_with(Get(site.Here(kSysctlConf))) ? "short" : state;
}

void SetSysctl(Site& site) {
  auto* conf = new sysctl::Conf(sysctl::Remote(site.Ssh()));
  conf->SetParamValue("net.ipv4.ip_forward", 1);
  conf->Run();
}

std::vector<Operation> SysctlOperations() {
  Operation commit{.name = "sysctl::Conf, committed",
                   .call = [](Site& s) { SetSysctl(s), pnl_job::Commit(); },
                   .state = SysctlState,
                   .failed = "old short new",
                   .silent = "old short",
                   .prepare = [](Site& s) { Put(s.Here(kSysctlConf), OldText()); },
                   .faults = kAllFaults,
                   .points = 5};
  Operation rollback = commit;
  rollback.name = "sysctl::Conf, rolled back";
  rollback.call = [](Site& s) { SetSysctl(s), pnl_job::Rollback(); };
  rollback.state = SysctlUndoState;
  rollback.done = rollback.failed;
  return {commit, rollback};
}

// --- The web server, by the real programs on the node

FrontdCtl Frontd(Site& site) {
  return FrontdCtl(site.Ssh());
}

std::string ListenState(const Site& site) {
  const std::string conf = Get(site.Here(pnl_file::GetCurrentDir() + "/etc/frontd.conf"));
  const bool added = conf.find("10.0.0.7 77") != std::string::npos;
  const bool whole = conf.ends_with("\n") && conf.find("10.0.0.8 88") != std::string::npos;
  return !whole ? "TORN" : added ? "new" : "old";
}

Operation FrontdOperation(const std::string& name, std::function<void(Site&)> call) {
  return {.name = "FrontdCtl::" + name,
          .call = std::move(call),
          .faults = "cut silence",
          .seconds = 15,  // the node's programs may be slow
          .os = "panel"};
}

std::vector<Operation> FrontdOperations() {
  const auto listen = [](const std::string& entries) {
    return [entries](Site& site) {
      Put(site.Here(pnl_file::GetCurrentDir() + "/etc/frontd.conf"), entries);
    };
  };
  const std::string one = "Listen 10.0.0.8 88\n";
  Operation add =
      FrontdOperation("Add", [](Site& s) { Frontd(s).Add("10.0.0.7", 77, true, true); });
  add.state = ListenState;
  add.prepare = listen(one);
  Operation remove = FrontdOperation("Delete", [](Site& s) { Frontd(s).Delete("10.0.0.7:77"); });
  remove.state = [](const Site& site) {
    const std::string state = ListenState(site);
    return state == "old" ? "new" : state == "new" ? "old" : state;
  };
  remove.prepare = listen(one + "Listen 10.0.0.7 77\n");
  Operation restart = FrontdOperation("Restart, by its job", [](Site& s) {
    new FrontdRestartJob(Frontd(s));
    pnl_job::Commit();
  });
  restart.state = Made(kRestarts);
  restart.prepare = [](Site& site) { std::filesystem::remove(site.Here(kRestarts)); };
  Operation look = FrontdOperation("Listening, HasError, ErrorPort", [](Site& s) {
    std::vector<int> ports;
    Expect(Frontd(s).Listening("10.0.0.8", 88), "");
    Expect(Frontd(s).Listening("10.0.0.8", ports) && ports == std::vector<int>{88}, "ports");
    Expect(Frontd(s).HasError(), "the node lacks the address");
    Expect(Frontd(s).ErrorPort() == "10.0.0.8:88", "");
  });
  look.prepare = add.prepare;
  look.points = 4;
  return {add, remove, look, restart};
}

// --- Packages, from real repositories

/// Package managers of an earlier point may be at work still.
void Forget(Site& site, const std::string& command) {
  site.node.Exec("while pgrep -x 'apt-get|dpkg|dnf|yum|rpm' >/dev/null; do sleep 0.1; done; " +
                 command);
}

/// `call` on an installer; `made` is the file that it puts on the node.
Operation InstallOperation(const std::string& os, const std::string& name,
                           const std::function<void(Installer&)>& call, const std::string& errors,
                           const std::string& made = "", const std::string& undo = "") {
  Operation operation{.name = "Installer::" + name + (os == "centos7" ? ", Red Hat" : ""),
                      .call =
                          [call](Site& s) {
                            Installer installer(s.Ssh(), "var");
                            call(installer);
                          },
                      .silent = "old",  // a repository file goes there by CopyTo
                      .faults = os == "centos7" ? "cut silence" : "cut silence readonly",
                      .seconds = 30,  // package managers are slow
                      .errors = "remote_read " + errors,
                      .os = os};
  if (!made.empty()) {
    operation.state = Made(made);
    operation.prepare = [undo](Site& site) { Forget(site, undo); };
  }
  return operation;
}

std::vector<Operation> InstallerOperations() {
  const std::string kTool = "/opt/demo-tool/version";
  const std::string kPurge =
      "ls /var/lib/apt/lists/*Packages >/dev/null 2>&1 || apt-get -qq update; "
      "dpkg --configure -a; dpkg -P demo-tool demo-lib >/dev/null 2>&1 || true";
  const std::string kErase =
      "for p in demo-tool demo-lib demo-agent epel-release; do "
      "rpm -e $p >/dev/null 2>&1 || true; done";
  const std::string kBase = "/etc/apt/sources.list.d/velkor-base.list";
  const std::string kMain = "/etc/apt/sources.list.d/velkor.list";
  const std::string kYum = "/etc/yum.repos.d/velkor";
  const std::string kUrl = "http://10.99.0.1:8080/main/rpm/demo-agent-1.rpm";
  const auto update = [](Installer& i) {
    Expect(i.PacketInstalled("dpkg"), "");
    i.UpdatePacket("demo-tool", "");
  };
  const auto install = [](Installer& i) { i.InstallPackage("demo-tool", ""); };
  const auto base = [](Installer& i) { i.InstallVelkorRepo(); };
  const auto common = [](Installer& i) { i.InstallCommonRepo(); };
  std::vector<Operation> all = {
      InstallOperation("debian12", "PacketInstalled, UpdatePkgCache, UpdatePacket", update,
                       "apt_get_update update_pkg"),
      InstallOperation("debian12", "InstallPackage", install, "install", kTool, kPurge),
      InstallOperation("debian12", "InstallVelkorRepo", base, "install_repository", kBase,
                       "rm -f " + kBase),
      InstallOperation("debian12", "InstallCommonRepo", common, "install_repository", kMain,
                       "rm -f " + kMain),
      InstallOperation("centos7", "InstallPackage", install, "install", kTool, kErase),
      InstallOperation(
          "centos7", "InstallByURL", [kUrl](Installer& i) { i.InstallByURL(kUrl); }, "install_url",
          "/opt/demo-agent/version", kErase),
      InstallOperation("centos7", "InstallVelkorRepo", base, "install_repository",
                       kYum + "-base.repo", kErase + "; rm -f " + kYum + "-base.repo"),
      InstallOperation("centos7", "InstallCommonRepo", common, "install_repository", kYum + ".repo",
                       kErase + "; rm -f " + kYum + ".repo"),
  };
  all[0].points = 6;  // of three functions
  return all;
}

}  // namespace

std::vector<Operation> SystemOperations() {
  return faults::Joined(
      {FactOperations(), SysctlOperations(), FrontdOperations(), InstallerOperations()});
}

}  // namespace node_faults
