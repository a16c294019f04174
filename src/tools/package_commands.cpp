// package: packages and package repositories of a node.

#include "brefir/installer.h"
#include "brefir/ssh_utils.h"
#include "fleet/diff.h"
#include "fleet/package_answer.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "tools/commands.h"
#include "tools/node.h"
#include "tools/node_file.h"

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
  if (error.type() != "not_implemented") throw;
  throw pnl_err::Error(error).add_param(
      "message", context.values.Str("node") +
                     ": neither of the Red Hat nor of the Debian family; packages of others are "
                     "not known here");
}

/// What the package manager said about the failure, on one line.
std::string Reason(const pnl_err::Error& error) {
  std::string reason = fleet::FailureOf(error.param("output"));
  if (reason.empty()) reason = error.param("reason");
  return reason.empty() ? "-v shows what the node answered" : reason;
}

/// Does the work of a package manager; its failure is told as "HOST: `what`: its message".
template <class Work>
void Manage(const pnl_rpc::SSH& ssh, const std::string& what, const Work& work) try {
  work();
} catch (const pnl_err::Error& error) {
  if (error.type().starts_with("ssh_")) throw;
  throw pnl_err::Error(error).add_param("message", ssh.Host() + ": " + what + ": " + Reason(error));
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

int Installed(Context& context) {
  const std::string name = PackageName(context);
  const bool installed = Open(context).installer.PacketInstalled(name);
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("name", name).Add("installed", installed));
  } else {
    context.out.Raw(installed ? "yes\n" : "no\n");
  }
  return installed ? kDone : kFailed;
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
  if (context.values.Has("dry-run")) return Would(context, command);
  const std::string shown = str::WithoutCredentials(url);
  Manage(node.ssh, "'" + shown + "' could not be installed",
         [&] { node.installer.InstallByURL(url); });
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

int Update(Context& context) {
  const std::string name = PackageName(context);
  const std::string& options = context.values.Str("options");
  Target node = Open(context);
  if (context.values.Has("dry-run")) {
    return Would(context, str::Append(node.installer.UpdatePkgCacheCommand(),
                                      node.installer.UpdatePacketCommand(name, options), "\n"));
  }
  Manage(node.ssh, "package '" + name + "' could not be updated",
         [&] { node.installer.UpdatePacket(name, options); });
  context.out.One(Record().Add("name", name).Add("updated", true));
  return kDone;
}

int Refresh(Context& context) {
  Target node = Open(context);
  const std::string command = node.installer.UpdatePkgCacheCommand();
  if (context.values.Has("dry-run")) return Would(context, command);
  Manage(node.ssh, "the package index could not be fetched",
         [&] { node.installer.UpdatePkgCache(); });
  context.out.One(Record().Add("refreshed", !command.empty()));
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
  DescribeName(args).Help("the package; a part of a longer name counts too");
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
  return {"package",
          "Packages of a managed node, by its own package manager.",
          DescribeFamily,
          {{"installed",
            "Tells, also by the exit code, whether a package is installed.",
            DescribeInstalled,
            Installed,
            {"rsync --node 192.0.2.7"},
            {kNameField, {"installed", "whether it is"}}},
           {"install",
            "Installs a package.",
            DescribeInstall,
            Install,
            {"rsync --node 192.0.2.7 --dry-run", "nginx --wrap 'nice -n 19' --node 192.0.2.7"},
            {{"name", "the package", "unless it is named by an address"},
             {"url", "its address", "when it is named by one"},
             {"installed", "true"},
             kWouldField}},
           {"update",
            "Upgrades an installed package.",
            DescribeUpdate,
            Update,
            {"rsync --node 192.0.2.7"},
            {kNameField, {"updated", "true"}, kWouldField}},
           {"refresh",
            "Fetches the package index anew, where that is not done by itself.",
            DescribeDryRun,
            Refresh,
            {"--node 192.0.2.7"},
            {{"refreshed", "false where there was nothing to be done"}, kWouldField}},
           {"add-repo",
            "Adds one of the panel's package repositories.",
            DescribeAddRepo,
            AddRepo,
            {"base --node 192.0.2.7"},
            {{"repo", "base or common"}, {"path", "its file on the node"}, kDiffField}}},
          {},
          {"brefir.conf(5)", "apt-get(8)", "yum(8)"}};
}

}  // namespace tools
