#include <algorithm>

#include "tools/commands/package/package.h"

namespace tools {
namespace {

bool IsAddress(const std::string& name) {
  return name.find("://") != std::string::npos;
}

std::string WhyNoRun(const opts::Values& words) {
  const std::vector<std::string>& names = words.List("NAME");
  if (words.Has("wrap")) return "with --wrap it cannot be undone";
  const bool address = std::any_of(names.begin(), names.end(), IsAddress);
  return address ? "an rpm file from an address cannot be undone" : "";
}

Change InstallAlone(Context& context) {
  const std::string name = PackageName(context);
  const fleet::Packages packages = OpenPackages(context);
  return PackageChange(packages, packages.Install(name, context.values.Str("wrap")),
                       Record().Add("name", str::WithoutCredentials(name)).Add("installed", true));
}

HostEdit Install(Context& context) {
  return PackageEdit(
      {.action = fleet::PackageRequest::Action::kInstall, .names = PackageNames(context, true)},
      "installed");
}

void Describe(opts::Args& args) {
  args.Details(
      "Packages that are installed are left alone, unless another version is wanted. Nothing is "
      "removed for it.");
  DescribePackages(args).Help("packages, each NAME or NAME=VERSION; or the address of an rpm file");
  args.Option("wrap").Value("WORDS").Excludes("then").Help(
      "text to put before the command, such as 'nice -n 19'; the node's shell interprets it; this "
      "is no run, and one NAME with --node");
}

}  // namespace

Verb PackageInstallVerb() {
  return {.name = "install",
          .summary = "Installs packages.",
          .describe = Describe,
          .edit = Install,
          .change = InstallAlone,
          .no_run = WhyNoRun,
          .examples = {"rsync --node 192.0.2.7 --dry-run", "nginx=1.22.1-9 rsync --nodes @web",
                       "nginx --wrap 'nice -n 19' --node 192.0.2.7"},
          .fields = {{"name", "the package, or its address"},
                     {"installed", "true"},
                     {"version", "its version", "not with --wrap and addresses"}}};
}

}  // namespace tools
