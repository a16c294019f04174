#include "tools/commands/package/package.h"

namespace tools {
namespace {

int Installed(Context& context) {
  const std::string name = PackageName(context);
  const bool installed = OpenPackages(context).Installed(name);
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("name", name).Add("installed", installed));
  } else {
    context.out.Raw(installed ? "yes\n" : "no\n");
  }
  return installed ? kDone : kNo;
}

}  // namespace

Verb PackageInstalledVerb() {
  return {.name = "installed",
          .summary = "Tells, also by the exit code, whether a package is installed.",
          .describe = [](opts::Args& args) { DescribePackage(args); },
          .run = Installed,
          .examples = {"rsync --node 192.0.2.7"},
          .fields = {kPackageField, {"installed", "whether it is"}}};
}

}  // namespace tools
