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
          .summary = "Tells, also by the exit code, whether a package is installed.",
          .describe = [](opts::Args& args) { DescribePackage(args); },
          .run = Installed,
          .examples = {"rsync --node 192.0.2.7"},
          .fields = {kPackageField, {"installed", "whether it is"}}};
}

}  // namespace tools
