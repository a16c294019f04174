// package: packages and package repositories of a node.

#include "brefir/installer.h"
#include "brefir/ssh_utils.h"
#include "fleet/diff.h"
#include "fleet/package_answer.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands/families.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

using velkor_repo::Installer;

/// Where the installer may keep a repository file for a moment.
constexpr const char* kLocalDir = "var";

struct Target {
  explicit Target(const Context& context) : ssh(OpenNode(context)), installer(ssh, kLocalDir) {}

  pnl_rpc::SSH ssh;
  Installer installer;
};

Target Open(const Context& context) try {
  return Target(context);
} catch (const pnl_err::Error& error) {
  if (error.type() != velkor_repo::kNotImplemented) throw;
  throw pnl_err::Error(error).add_param(
      "message", context.values.Str("node") +
                     ": neither of the Red Hat nor of the Debian family; packages of others are "
                     "not known here");
}

/// What the package manager said about the failure, on one line.
std::string Reason(const pnl_err::Error& error) {
  const std::string output = error.param("output");
  std::string reason = fleet::FailureOf(output);
  if (reason.empty()) reason = error.param("reason");
  if (reason.empty()) reason = output.substr(output.find_last_of('\n') + 1);
  return reason.empty() ? "the package manager does not say why" : reason;
}

/// Does the work of a package manager; its failure is told as "HOST: `what`: its message".
template <class Work>
void Manage(const pnl_rpc::SSH& ssh, const std::string& what, const Work& work) try {
  work();
} catch (const pnl_err::Error& error) {
  if (error.type().starts_with("ssh_")) throw;
  throw pnl_err::Error(error).add_param("message", ssh.Host() + ": " + what + ": " + Reason(error));
}

/// Runs a command of the package manager; `error` when it fails, with what it said. A daemon that
/// a package starts is not waited for.
void Require(pnl_rpc::SSH& ssh, const std::string& command, const pnl_err::Error& error) {
  const pnl_host::Outcome run = pnl_host::Host(ssh).Act(command);
  if (run.code == 0) return;
  const std::string said = str::Append(str::Trim(run.output), run.complaint, "\n");
  throw pnl_err::Error(error).add_param("output", str::WithoutCredentials(said));
}

/// Goes to the node's shell and its package manager as it is.
std::string PackageName(const Context& context) {
  const std::string& name = context.values.Str("NAME");
  RequirePlain(name, "NAME");
  if (name.starts_with('-'))
    throw UsageError("NAME", name, "NAME '" + name + "' cannot be a package: it begins with \"-\"");
  return name;
}

// --- Packages

/// yum fetches its index by itself.
bool IsRedHat(const Installer& installer) {
  return installer.UpdatePkgCacheCommand().empty();
}

/// Whether the node has the package of just this name: the library's own question finds parts of
/// names, too.
bool IsInstalled(Target& node, const std::string& name) {
  const std::string query =
      IsRedHat(node.installer) ? "rpm -q " : "dpkg-query -W -f='${db:Status-Status}\\n' ";
  const pnl_host::Outcome run =
      pnl_host::Host(node.ssh).Run(WithSbin("LC_ALL=C " + query + pnl_proc::Escape(name)));
  if (run.code == 0)
    return IsRedHat(node.installer) ||
           ("\n" + run.output).find("\ninstalled\n") != std::string::npos;
  const std::string said = run.output + run.complaint;
  for (const char* no : {" is not installed", "no packages found matching"}) {
    if (said.find(no) != std::string::npos) return false;
  }
  throw NodeError(node.ssh, name,
                  "it could not be asked for package '" + name +
                      "': " + str::Replace(str::Trim(said), "\n", "; "));
}

int Installed(Context& context) {
  const std::string name = PackageName(context);
  Target node = Open(context);
  const bool installed = IsInstalled(node, name);
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("name", name).Add("installed", installed));
  } else {
    context.out.Raw(installed ? "yes\n" : "no\n");
  }
  return installed ? kDone : kNo;
}

bool IsUrl(const std::string& name) {
  return name.find("://") != std::string::npos;
}

int InstallByUrl(Context& context, const std::string& url) {
  Target node = Open(context);
  const std::string command = node.installer.InstallByURLCommand(url);
  if (command.empty()) {
    throw NodeError(node.ssh, url, "packages are installed by address in the Red Hat family only");
  }
  if (context.values.Has("dry-run")) return Would(context, WithSbin(command));
  const std::string shown = str::WithoutCredentials(url);
  Manage(node.ssh, "'" + shown + "' could not be installed",
         [&] { Require(node.ssh, WithSbin(command), pnl_err::Error("install_url", shown)); });
  context.out.One(Record().Add("url", shown).Add("installed", true));
  return kDone;
}

int Install(Context& context) {
  const std::string name = PackageName(context);
  const std::string& wrap = context.values.Str("wrap");
  if (IsUrl(name)) return InstallByUrl(context, name);
  Target node = Open(context);
  if (context.values.Has("dry-run"))
    return Would(context, node.installer.InstallPackageCommand(name, wrap));
  Manage(node.ssh, "package '" + name + "' could not be installed",
         [&] { node.installer.InstallPackage(name, wrap); });
  context.out.One(Record().Add("name", name).Add("installed", true));
  return kDone;
}

/// Upgrades this one package; the library's own command upgrades all that a node has, too.
std::string UpdateCommand(const Installer& installer, const std::string& name,
                          const std::string& options) {
  const char* command = IsRedHat(installer)
                            ? "yum -y update"
                            : "DEBIAN_FRONTEND=noninteractive apt-get -yq install --only-upgrade "
                              "-o Dpkg::Options::=--force-confdef "
                              "-o Dpkg::Options::=--force-confold --no-remove";
  return WithSbin(str::Append(command, options, " ") + " " + pnl_proc::Escape(name) + " 2>&1");
}

void Refresh(Target& node) {
  Manage(node.ssh, "the package index could not be fetched", [&] {
    Require(node.ssh, WithSbin(node.installer.UpdatePkgCacheCommand()),
            pnl_err::Error("apt_get_update"));
  });
}

int Update(Context& context) {
  const std::string name = PackageName(context);
  Target node = Open(context);
  const std::string command = UpdateCommand(node.installer, name, context.values.Str("options"));
  if (!IsInstalled(node, name)) {
    throw NodeError(
        node.ssh, name,
        "package '" + name + "' is not installed; 'brefirctl package install' does that");
  }
  if (context.values.Has("dry-run")) {
    const std::string refresh = node.installer.UpdatePkgCacheCommand();
    return Would(context, str::Append(refresh.empty() ? "" : WithSbin(refresh), command, "\n"));
  }
  if (!IsRedHat(node.installer)) Refresh(node);
  Manage(node.ssh, "package '" + name + "' could not be updated", [&] {
    Require(node.ssh, command, pnl_err::Error("update_pkg").add_param("packet", name));
  });
  context.out.One(Record().Add("name", name).Add("updated", true));
  return kDone;
}

int Refresh(Context& context) {
  Target node = Open(context);
  const bool refreshes = !IsRedHat(node.installer);
  if (context.values.Has("dry-run")) {
    return Would(context, refreshes ? WithSbin(node.installer.UpdatePkgCacheCommand()) : "");
  }
  if (refreshes) Refresh(node);
  context.out.One(Record().Add("refreshed", refreshes));
  return kDone;
}

// --- Repositories

/// What the repository's file on the node is going to hold.
std::string RepoContent(const Installer& installer, const std::string& file, bool base) {
  const std::string url = base ? installer.VelkorRepoUrl() : "";
  if (url.empty()) return pnl_file::ReadE(file);
  const pnl_file::Tmp copy("/tmp/repo");
  if (pnl_rpc::FetchFile(url, copy, velkor_repo::kRepoFileLimit)) return pnl_file::ReadE(copy);
  const std::string shown = str::WithoutCredentials(url);
  throw pnl_err::Error("fetch", "file", shown)
      .add_param("message", "'" + shown + "' could not be fetched; -v shows why");
}

int ShowRepo(Context& context, Target& node, const std::string& file, bool base) {
  pnl_host::Host host(node.ssh);
  const std::string before = HostTextOrNone(host, file);
  context.out.Text("diff",
                   fleet::UnifiedDiff(before, RepoContent(node.installer, file, base), file));
  return kDone;
}

int AddRepo(Context& context) {
  const bool base = context.values.Str("REPO") == "base";
  Target node = Open(context);
  const std::string file = base ? node.installer.VelkorRepoFile() : node.installer.CommonRepoFile();
  if (context.values.Has("dry-run")) return ShowRepo(context, node, file, base);
  Manage(node.ssh, "the repository was not added", [&] {
    if (base) {
      node.installer.InstallVelkorRepo();
    } else {
      node.installer.InstallCommonRepo();
    }
  });
  // Neither a missing file here nor a copy that failed there is an error of the library.
  if (!ssh_utils::file::Exists(node.ssh, file, "s")) {
    throw NodeError(node.ssh, file,
                    "the repository was not added: this host has no '" + file +
                        "', or the node did not take it; -v shows which");
  }
  context.out.One(Record().Add("repo", base ? "base" : "common").Add("path", file));
  return kDone;
}

// --- The command line

const Field kNameField = {"name", "the package"};

opts::Arg& DescribeName(opts::Args& args) {
  return args.Positional("NAME").Help("the package");
}

void DescribeInstalled(opts::Args& args) {
  DescribeName(args);
}

void DescribeDryRun(opts::Args& args) {
  args.Option("dry-run").Help("print the command that would run");
}

void DescribeInstall(opts::Args& args) {
  DescribeName(args).Help("the package, or the address of an rpm file");
  args.Option("wrap").Value("WORDS").Help(
      "variables or a wrapper in front of the command, for the node's shell as they are");
  DescribeDryRun(args);
}

void DescribeUpdate(opts::Args& args) {
  args.Details("Nothing but this package, and what its new version needs, is changed.");
  DescribeName(args);
  args.Option("options").Value("WORDS").Help(
      "options of the package manager, for the node's shell as they are");
  DescribeDryRun(args);
}

void DescribeAddRepo(opts::Args& args) {
  args.Positional("REPO").OneOf({"base", "common"}).Help("which of the panel's repositories");
  args.Option("dry-run").Help("show the change of its file on the node as a diff");
}

void DescribeFamily(opts::Args& args) {
  args.Details(
      "The node's system decides: yum where it is of the Red Hat family, apt-get where it is of "
      "the "
      "Debian family. Nothing is ever asked: new versions of configuration files do not replace "
      "changed ones.");
  AddNodeOptions(args).Required();
}

}  // namespace

Family PackageFamily() {
  return {
      .name = "package",
      .summary = "Packages of a managed node, by its own package manager.",
      .describe = DescribeFamily,
      .verbs =
          {
              {
                  .name = "installed",
                  .summary = "Tells, also by the exit code, whether a package is installed.",
                  .describe = DescribeInstalled,
                  .run = Installed,
                  .examples = {"rsync --node 192.0.2.7"},
                  .fields = {kNameField, {"installed", "whether it is"}},
              },
              {
                  .name = "install",
                  .summary = "Installs a package.",
                  .describe = DescribeInstall,
                  .run = Install,
                  .examples = {"rsync --node 192.0.2.7 --dry-run",
                               "nginx --wrap 'nice -n 19' --node 192.0.2.7"},
                  .fields = {{"name", "the package", "unless it is named by an address"},
                             {"url", "its address", "when it is named by one"},
                             {"installed", "true"},
                             kWouldField},
              },
              {
                  .name = "update",
                  .summary = "Upgrades an installed package.",
                  .describe = DescribeUpdate,
                  .run = Update,
                  .examples = {"rsync --node 192.0.2.7"},
                  .fields = {kNameField, {"updated", "true"}, kWouldField},
              },
              {
                  .name = "refresh",
                  .summary = "Fetches the package index anew, where that is not done by itself.",
                  .describe = DescribeDryRun,
                  .run = Refresh,
                  .examples = {"--node 192.0.2.7"},
                  .fields = {{"refreshed", "false where there was nothing to be done"},
                             kWouldField},
              },
              {
                  .name = "add-repo",
                  .summary = "Adds one of the panel's package repositories.",
                  .describe = DescribeAddRepo,
                  .run = AddRepo,
                  .examples = {"base --node 192.0.2.7"},
                  .fields = {{"repo", "base or common"},
                             {"path", "its file on the node"},
                             kDiffField},
              },
          },
      .see_also = {"brefir.conf(5)", "apt-get(8)", "yum(8)"},
  };
}

}  // namespace tools
