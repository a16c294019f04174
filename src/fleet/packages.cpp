#include "fleet/packages.h"

#include <utility>

#include "brefir/ssh_utils.h"
#include "fleet/errors.h"
#include "fleet/host_file.h"
#include "fleet/package_answer.h"
#include "pnl/host.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

using velkor_repo::Installer;

constexpr const char* kLocalDir = "var";  // for a temporary repository file

Installer InstallerOf(pnl_rpc::SSH& ssh) try {
  return {ssh, kLocalDir};
} catch (const pnl_err::Error& error) {
  if (error.type() != velkor_repo::kNotImplemented) throw;
  throw pnl_err::Error(error).add_param(
      "message",
      ssh.Host() +
          ": neither of the Red Hat nor of the Debian family; other systems are not supported");
}

/// "HOST: `failure`: MESSAGE", with the message from the command's output.
std::string Told(const pnl_rpc::SSH& ssh, const std::string& failure, const std::string& output,
                 const std::string& otherwise) {
  std::string reason = FailureOf(output);
  if (reason.empty()) reason = otherwise;
  if (reason.empty()) reason = output.substr(output.find_last_of('\n') + 1);
  if (reason.empty()) reason = "the package manager gave no reason";
  return ssh.Host() + ": " + failure + ": " + reason;
}

}  // namespace

Packages::Packages(pnl_rpc::SSH ssh) : ssh_(std::move(ssh)), installer_(InstallerOf(ssh_)) {}

/// yum fetches its index by itself.
bool Packages::IsRedHat() const {
  return installer_.UpdatePkgCacheCommand().empty();
}

bool Packages::Installed(const std::string& name) {
  // The names are compared here: rpm takes patterns, and a name that another package provides.
  const std::string query = IsRedHat()
                                ? "rpm -qa --qf '%{NAME} installed\\n' " + pnl_proc::Escape(name)
                                : "dpkg-query -W -f='${Package} ${db:Status-Status}\\n'";
  const pnl_host::Outcome run = pnl_host::Host(ssh_).Run(WithSbin("LC_ALL=C " + query));
  if (run.code == 0)
    return ("\n" + run.output + "\n").find("\n" + name + " installed\n") != std::string::npos;
  throw NodeError(ssh_, name,
                  "cannot check whether package '" + name + "' is installed: " +
                      str::Replace(str::Trim(run.output + run.complaint), "\n", "; "));
}

PackageSteps Packages::Install(const std::string& name, const std::string& wrap) const {
  if (name.find("://") == std::string::npos)
    return {{installer_.InstallPackageCommand(name, wrap),
             "package '" + name + "' could not be installed"}};
  const std::string command = installer_.InstallByURLCommand(name);
  if (command.empty())
    throw NodeError(ssh_, name,
                    "only systems of the Red Hat family install a package by its address");
  return {{WithSbin(command), "'" + str::WithoutCredentials(name) + "' could not be installed"}};
}

/// The library's command would upgrade all packages of a node of the Debian family.
PackageSteps Packages::Update(const std::string& name, const std::string& options) {
  if (!Installed(name))
    throw NodeError(
        ssh_, name,
        "package '" + name + "' is not installed; install it with 'brefirctl package install'");
  const char* command = IsRedHat() ? "yum -y update"
                                   : "DEBIAN_FRONTEND=noninteractive apt-get -yq install "
                                     "--only-upgrade -o Dpkg::Options::=--force-confdef "
                                     "-o Dpkg::Options::=--force-confold --no-remove";
  PackageSteps steps = Refresh();
  steps.push_back(
      {WithSbin(str::Append(command, options, " ") + " " + pnl_proc::Escape(name) + " 2>&1"),
       "package '" + name + "' could not be updated"});
  return steps;
}

PackageSteps Packages::Refresh() const {
  if (IsRedHat()) return {};
  return {{WithSbin(installer_.UpdatePkgCacheCommand()), "the package index could not be fetched"}};
}

void Packages::Make(const PackageSteps& steps) {
  for (const auto& [command, failure] : steps) {
    const pnl_host::Outcome run = pnl_host::Host(ssh_).Act(command);  // it may start daemons
    if (run.code == 0) continue;
    const std::string output =
        str::WithoutCredentials(str::Append(str::Trim(run.output), run.complaint, "\n"));
    throw pnl_err::Error("package", ssh_.Host(), failure)
        .add_param("output", output)
        .add_param("message", Told(ssh_, failure, output, ""));
  }
}

}  // namespace fleet
