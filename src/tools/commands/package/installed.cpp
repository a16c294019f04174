#include "tools/commands/package/package.h"

namespace tools {

static int Installed(Context& context) {
  const std::string name = PackageName(context);
  const bool installed = OpenPackages(context).Installed(name);
  context.out.Word(Record().Add("name", name).Add("installed", installed), "installed");
  return installed ? kDone : kNo;
}

Verb PackageInstalledVerb() {
  return {.name = "installed",
          .summary = "Checks whether a package is installed; exit code 3 for no.",
          .describe = [](opts::Args& args) { DescribePackage(args); },
          .run = Installed,
          .examples = {"rsync --node 192.0.2.7"},
          .fields = {kPackageField, {"installed", "whether it is installed"}}};
}

}  // namespace tools
