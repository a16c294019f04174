// package: packages and package repositories of a node.

#include "tools/commands/families.h"
#include "tools/commands/package/package.h"
#include "tools/frame/login.h"

namespace tools {

fleet::Packages OpenPackages(const Context& context) {
  return fleet::Packages(OpenNode(context));
}

std::string PackageName(const Context& context) {
  const std::string& name = context.values.Str("NAME");
  RequirePlain(name, "NAME");
  if (name.starts_with('-'))
    throw UsageError("NAME", name, "NAME '" + name + "' cannot be a package: it begins with \"-\"");
  return name;
}

opts::Arg& DescribePackage(opts::Args& args) {
  return args.Positional("NAME").Help("the package");
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
        "Debian family. It asks no questions: changed configuration files are kept.");
    AddNodeOptions(args);
  };
  return {.name = "package",
          .summary = "Packages of a node, through its own package manager.",
          .describe = describe,
          .verbs = OnNodes({PackageInstalledVerb(), PackageInstallVerb(), PackageUpdateVerb(),
                            PackageRefreshVerb(), PackageAddRepoVerb()}),
          .see_also = {"brefir.conf(5)", "apt-get(8)", "yum(8)"}};
}

}  // namespace tools
