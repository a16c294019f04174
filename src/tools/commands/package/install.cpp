#include "tools/commands/package/package.h"

namespace tools {

static Change Install(Context& context) {
  const std::string name = PackageName(context);
  const fleet::Packages packages = OpenPackages(context);
  return PackageChange(packages, packages.Install(name, context.values.Str("wrap")),
                       Record().Add("name", str::WithoutCredentials(name)).Add("installed", true));
}

static void Describe(opts::Args& args) {
  DescribePackage(args).Help("the package, or the address of an rpm file");
  args.Option("wrap").Value("WORDS").Help(
      "text to put before the command, such as 'nice -n 19'; the node's shell interprets it");
}

Verb PackageInstallVerb() {
  return {.name = "install",
          .summary = "Installs a package.",
          .describe = Describe,
          .change = Install,
          .examples = {"rsync --node 192.0.2.7 --dry-run",
                       "nginx --wrap 'nice -n 19' --node 192.0.2.7"},
          .fields = {{"name", "the package, or its address"}, {"installed", "true"}}};
}

}  // namespace tools
