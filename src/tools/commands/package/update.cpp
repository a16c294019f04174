#include "tools/commands/package/package.h"

namespace tools {
namespace {

std::string WhyNoRun(const opts::Values& words) {
  return words.Has("options") ? "with --options it cannot be undone" : "";
}

Change UpdateAlone(Context& context) {
  const std::string name = PackageName(context);
  fleet::Packages packages = OpenPackages(context);
  return PackageChange(packages, packages.Update(name, context.values.Str("options")),
                       Record().Add("name", name).Add("updated", true));
}

HostEdit Update(Context& context) {
  using Action = fleet::PackageRequest::Action;
  const bool all = context.values.Has("all");
  if (all == context.values.Has("NAME"))
    throw UsageError("NAME", context.values.Str("NAME"),
                     all ? "NAME and --all exclude each other" : "NAME is missing, or --all");
  HostEdit edit = PackageEdit(
      {.action = all ? Action::kUpdateAll : Action::kUpdate, .names = PackageNames(context)},
      "updated");
  edit.asks = all;
  return edit;
}

void Describe(opts::Args& args) {
  args.Details(
      "Only these packages are changed, and the packages that their new versions need. They must "
      "be "
      "installed. The index of packages is used as it is: 'package refresh' fetches it.\n"
      "On a terminal --all shows what would be updated, and asks, also for one host.");
  DescribePackages(args).Optional();
  args.Option("all").Help("all packages that have a newer version; none is removed for it");
  args.Option("options").Value("WORDS").Excludes("all").Excludes("then").Help(
      "options of the package manager; the node's shell interprets them; this is no run, and one "
      "NAME with --node");
}

}  // namespace

Verb PackageUpdateVerb() {
  return {.name = "update",
          .summary = "Upgrades installed packages.",
          .describe = Describe,
          .edit = Update,
          .change = UpdateAlone,
          .no_run = WhyNoRun,
          .examples = {"rsync --node 192.0.2.7", "--all --nodes @web --dry-run"},
          .fields = {kPackageField,
                     {"updated", "true"},
                     {"version", "its version now", "not with --options"}}};
}

}  // namespace tools
