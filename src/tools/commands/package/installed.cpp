#include "tools/commands/package/package.h"

namespace tools {

static Question Installed(Context& context) {
  return [name = PackageName(context)](pnl_host::Host& host) {
    const bool installed = fleet::Packages(*host.Session()).Installed(name);
    Answer answer = Record().Add("name", name).Add("installed", installed);
    answer.word = "installed";
    answer.code = installed ? kDone : kNo;
    return answer;
  };
}

Verb PackageInstalledVerb() {
  return {.name = "installed",
          .summary = "Checks whether a package is installed; exit code 3 for no.",
          .describe = [](opts::Args& args) { DescribePackage(args); },
          .ask = Installed,
          .examples = {"rsync --node 192.0.2.7"},
          .fields = {kPackageField, {"installed", "whether it is installed"}},
          .reach = Reach::kNode};
}

}  // namespace tools
