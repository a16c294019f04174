#include "tools/commands/package/package.h"

namespace tools {

static Change Update(Context& context) {
  const std::string name = PackageName(context);
  fleet::Packages packages = OpenPackages(context);
  return PackageChange(packages, packages.Update(name, context.values.Str("options")),
                       Record().Add("name", name).Add("updated", true));
}

static void Describe(opts::Args& args) {
  args.Details("Only this package and the packages that its new version needs are changed.");
  DescribePackage(args);
  args.Option("options").Value("WORDS").Help(
      "options of the package manager; the node's shell interprets them");
}

Verb PackageUpdateVerb() {
  return {.name = "update",
          .summary = "Upgrades an installed package.",
          .describe = Describe,
          .change = Update,
          .examples = {"rsync --node 192.0.2.7"},
          .fields = {kPackageField, {"updated", "true"}}};
}

}  // namespace tools
