// package: packages and package repositories of a node.

#include "fleet/package_edits.h"
#include "tools/commands/families.h"
#include "tools/commands/package/package.h"
#include "tools/frame/login.h"

namespace tools {

fleet::Packages OpenPackages(const Context& context) {
  if (context.values.Has("node")) return fleet::Packages(OpenNode(context));
  throw UsageError("--node", "", "--node is missing");
}

std::string PackageName(const Context& context) {
  const std::string& name = context.values.Str("NAME");
  RequirePlain(name, "NAME");
  if (name.starts_with('-'))
    throw UsageError("NAME", name, "NAME '" + name + "' cannot be a package: it begins with \"-\"");
  if (context.values.List("NAME").size() == 1) return name;
  throw UsageError("NAME", name, "only one NAME is possible here");
}

std::vector<std::string> PackageNames(const Context& context, bool versions) {
  const std::vector<std::string>& names = context.values.List("NAME");
  for (const std::string& word : names) {
    const std::size_t end = versions ? word.find('=') : std::string::npos;
    const bool plain = fleet::IsPackageName(word.substr(0, end)) &&
                       (end == std::string::npos || fleet::IsPackageName(word.substr(end + 1)));
    if (!plain)
      throw UsageError(
          "NAME", word,
          "NAME '" + word + "' is refused: a package has letters, digits and \"+-._:~\"");
  }
  return names;
}

opts::Arg& DescribePackage(opts::Args& args) {
  return args.Positional("NAME").Help("the package");
}

opts::Arg& DescribePackages(opts::Args& args) {
  return args.Positional("NAME").Repeated().Help("the packages");
}

// --- Runs

/// The version that the package has after the change, or had before it was removed.
static std::string VersionOf(const fleet::Sight& sight, const fleet::PackagePlan& plan,
                             const std::string& name) {
  const auto move = plan.moves.find(name);
  if (move != plan.moves.end())
    return move->second.after.empty() ? move->second.before : move->second.after;
  const auto there = sight.versions.find(name);
  return there == sight.versions.end() ? "" : there->second;
}

HostEdit PackageEdit(const fleet::PackageRequest& request, const std::string& done) {
  std::vector<std::string> names;
  for (const std::string& word : request.names) names.push_back(word.substr(0, word.find('=')));
  const auto look = [=](fleet::Looks& looks) {
    looks.packages.insert(request);
    looks.versions.insert(names.begin(), names.end());
  };
  const auto make = [=](fleet::Draft& draft) -> Answer {
    draft.ChangePackages(request);
    const fleet::PackagePlan& plan = draft.Seen().packages.at(request);
    std::vector<std::string> told = names;
    if (request.action == fleet::PackageRequest::Action::kUpdateAll)
      for (const auto& [name, move] : plan.moves) told.push_back(name);
    std::vector<Record> records;
    records.reserve(told.size());
    for (const std::string& name : told)
      records.push_back(Record()
                            .Add("name", name)
                            .Add(done, true)
                            .Add("version", VersionOf(draft.Seen(), plan, name))
                            .Add("changed", plan.moves.contains(name)));
    if (names.size() == 1) return records.front();
    return records;
  };
  return {.look = look, .make = make};
}

Change PackageChange(const fleet::Packages& packages, const fleet::PackageSteps& steps,
                     const Record& record) {
  fleet::Plan plan;
  for (const fleet::PackageStep& step : steps)
    plan.push_back({.node = packages.Host(), .words = step.command});
  const auto make = [=, packages = packages]() mutable -> Answer {
    packages.Make(steps);
    return record;
  };
  return {plan, make};
}

Family PackageFamily() {
  const auto describe = [](opts::Args& args) {
    args.Details(
        "The package manager is yum on systems of the Red Hat family, and apt-get on those of the "
        "Debian family. It asks no questions: changed configuration files are kept.\n"
        "install, remove, update, hold and add-repo are runs: all nodes get the change or none, "
        "and "
        "'run undo' takes it back. The plan is what the package manager itself would do, with "
        "exact "
        "versions. Undoing removes what came, and nothing else; what was replaced or removed comes "
        "back if the package manager still has the old version. If it does not, the plan says so, "
        "and each node is for itself (--policy each). Without --node and --nodes they are for this "
        "host.");
    AddNodeOptions(args);
  };
  return {.name = "package",
          .summary = "Packages of a host, through its own package manager.",
          .describe = describe,
          .verbs = {PackageListVerb(), PackageInstalledVerb(), PackageInstallVerb(),
                    PackageRemoveVerb(), PackageUpdateVerb(), PackageHoldVerb(),
                    PackageUnholdVerb(), PackageRefreshVerb(), PackageAddRepoVerb()},
          .see_also = {"brefir.conf(5)", "apt-get(8)", "yum(8)"}};
}

}  // namespace tools
