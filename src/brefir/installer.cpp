#include "brefir/installer.h"

#include <cstdint>

#include "brefir/ssh_utils.h"
#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/settings.h"
#include "pnl/str.h"

namespace velkor_repo {
namespace {

pnl_log::Module log_module("installer");

constexpr const char* kBaseRepo = "velkor-base.repo";
constexpr const char* kYumDir = "/etc/yum.repos.d";
constexpr const char* kBaseList = "/etc/apt/sources.list.d/velkor-base.list";
constexpr const char* kMainRepo = "/etc/yum.repos.d/velkor.repo";
constexpr const char* kMainList = "/etc/apt/sources.list.d/velkor.list";
constexpr const char* kRepoPath = "/repo/centos";
constexpr const char* kKeyPath = "/repo/velkor.gpg.key";
constexpr const char* kDebianKeyPath = "/repo/debian/velkor.gpg.key";
constexpr const char* kRefresh = "apt-get -y update";
constexpr std::size_t kTailLimit = 2000;  // bytes of output that an error carries

bool IsOf(int family, int type) {
  return (type & family) == family;
}

bool IsRedHat(pnl_rpc::SSH& ssh) {
  const int type = ssh_utils::os_info::Type(ssh);
  if (IsOf(0x20100, type)) return true;
  if (IsOf(0x20200, type)) return false;
  throw pnl_err::Error(kNotImplemented);
}

std::string WithBlank(const std::string& prefix) {
  return prefix.empty() ? "" : prefix + " ";
}

std::string SigningKey(const char* path) {
  return pnl_file::ConcatPath(pnl_settings::Get("signing_key_server"), path);
}

/// The last lines of the text, complete lines only.
std::string Tail(const std::string& output) {
  std::string tail = str::Trim(output);
  if (tail.size() <= kTailLimit) return tail;
  tail.erase(0, tail.size() - kTailLimit);
  str::GetWord(tail, '\n');
  return tail;
}

/// The log shows it without passwords. A daemon that the package starts is not waited for.
pnl_host::Outcome Run(pnl_rpc::SSH& ssh, const std::string& command) {
  pnl_host::Outcome run = pnl_host::Host(ssh).Act(command);
  run.output = str::WithoutCredentials(run.output);
  return run;
}

/// The error with the end of the command's output, if there is any.
pnl_err::Error WithOutput(pnl_err::Error error, const std::string& output) {
  const std::string tail = Tail(output);
  return tail.empty() ? error : error.add_param("output", tail);
}

/// Runs the command; when it fails, throws `error` with its output.
void Require(pnl_rpc::SSH& ssh, const std::string& command, const pnl_err::Error& error) {
  const pnl_host::Outcome run = Run(ssh, command);
  if (run.code != 0) throw WithOutput(error, run.output);
}

/// Does `work`, the steps that add the repository of that file. Every failure becomes one error
/// type with the original reason.
template <class Work>
void AddRepository(const std::string& file, const Work& work) try {
  work();
} catch (const pnl_err::Error& cause) {
  pnl_err::Error error("install_repository", file);
  error.add_param("reason", cause.what());
  throw WithOutput(error, cause.param("output"));
}

}  // namespace

PanelRepository VelkorRepo(bool redhat) {
  if (!redhat) return {.file = kBaseList};
  return {.file = pnl_file::ConcatPath(kYumDir, kBaseRepo),
          .url = pnl_file::ConcatPath(pnl_settings::Get("download_server"), kRepoPath, kBaseRepo),
          .key = SigningKey(kKeyPath)};
}

PanelRepository CommonRepo(bool redhat) {
  if (redhat) return {.file = kMainRepo};
  return {.file = kMainList, .key = SigningKey(kDebianKeyPath)};
}

Installer::Installer(pnl_rpc::SSH& session, const std::string& local_directory)
    : redhat_(IsRedHat(session)), ssh_(session), local_directory_(local_directory) {}

// --- Command lines

std::string Installer::UpdatePkgCacheCommand() const {
  return redhat_ ? "" : kRefresh;
}

std::string Installer::UpdatePacketCommand(const std::string& name,
                                           const std::string& prefix) const {
  return (redhat_ ? "yum update -y " : "apt-get -y upgrade ") + WithBlank(prefix) +
         pnl_proc::Escape(name);
}

std::string Installer::InstallByURLCommand(const std::string& url) const {
  return redhat_ ? "rpm -Uvh " + url : "";
}

std::string Installer::InstallPackageCommand(const std::string& name,
                                             const std::string& prefix) const {
  const char* command = redhat_ ? "yum -y install "
                                : "DEBIAN_FRONTEND=noninteractive apt-get -yq --force-yes install "
                                  "-o Dpkg::Options::=\"--force-confdef\" "
                                  "-o Dpkg::Options::=\"--force-confold\" --no-remove ";
  return WithBlank(prefix) + command + name + " 2>&1";
}

// --- Packages

bool Installer::PacketInstalled(const std::string& name) {
  PNL_ENTRY(log_module);
  const std::string word = pnl_proc::Escape(name);
  const std::string command =
      redhat_ ? "yum list installed | grep " + word : "dpkg -l | grep " + word + " | grep '^ii'";
  return ssh_.Execute(command).Result() == 0;
}

void Installer::UpdatePkgCache() {
  PNL_ENTRY(log_module);
  if (!redhat_) Require(ssh_, UpdatePkgCacheCommand(), pnl_err::Error("apt_get_update"));
}

void Installer::UpdatePacket(const std::string& name, const std::string& prefix) {
  PNL_ENTRY(log_module);
  UpdatePkgCache();
  const pnl_host::Outcome run = Run(ssh_, UpdatePacketCommand(name, prefix));
  if (run.code == 0) return;
  PNL_TRACE(log_module, "error code: %d", run.code);
  PNL_TRACE(log_module, "update output: %s", run.output.c_str());
  throw WithOutput(pnl_err::Error("update_pkg").add_param("packet", name), run.output);
}

void Installer::InstallByURL(const std::string& url) {
  PNL_ENTRY(log_module);
  const pnl_err::Error error("install_url", str::WithoutCredentials(url));
  if (redhat_) Require(ssh_, InstallByURLCommand(url), error);
}

void Installer::InstallPackage(const std::string& name, const std::string& prefix) {
  PNL_ENTRY(log_module);
  const pnl_host::Outcome run = Run(ssh_, InstallPackageCommand(name, prefix));
  if (run.code == 0) return;
  PNL_LOG(log_module, 3, "remote install error:\n%s", run.output.c_str());
  throw WithOutput(pnl_err::Error("install", "remote", str::WithoutCredentials(name)), run.output);
}

// --- Repositories

std::string Installer::VelkorRepoFile() const {
  return VelkorRepo(redhat_).file;
}

std::string Installer::CommonRepoFile() const {
  return CommonRepo(redhat_).file;
}

std::string Installer::VelkorRepoUrl() const {
  return VelkorRepo(redhat_).url;
}

void Installer::FetchVelkorRepo() {
  const auto local = pnl_file::Tmp::Adopt(pnl_file::ConcatPath(local_directory_, kBaseRepo));
  const std::string url = VelkorRepoUrl();
  if (!pnl_rpc::FetchFile(url, local, kRepoFileLimit)) {
    throw pnl_err::Error("fetch", "file", str::WithoutCredentials(url));
  }
  ssh_utils::file::CopyTo(local, ssh_, VelkorRepoFile());
  Run(ssh_, "rpm --import " + VelkorRepo(redhat_).key);
}

void Installer::CopyVelkorRepo() {
  if (!pnl_file::Exists(kBaseList)) {
    PNL_LOG(log_module, 4, "Velkor base repo file '%s' does not exists", kBaseList);
    return;
  }
  if (ssh_utils::file::Exists(ssh_, kBaseList, "e")) return;
  ssh_utils::file::CopyTo(kBaseList, ssh_, kBaseList);
  Run(ssh_, kRefresh);
}

void Installer::InstallVelkorRepo() {
  PNL_ENTRY(log_module);
  if (redhat_) {
    AddRepository(kBaseRepo, [this] { FetchVelkorRepo(); });
  } else {
    AddRepository(kBaseList, [this] { CopyVelkorRepo(); });
  }
}

void Installer::InstallCommonRepo() {
  PNL_ENTRY(log_module);
  const std::string file = CommonRepoFile();
  AddRepository(file, [&] {
    if (redhat_) InstallPackage("epel-release", "");
    ssh_utils::file::CopyTo(file, ssh_, file);
    if (redhat_) return;
    Run(ssh_, "wget -q -O - " + CommonRepo(redhat_).key + " | apt-key add -");
    Run(ssh_, "apt-get update -y");
  });
}

}  // namespace velkor_repo
