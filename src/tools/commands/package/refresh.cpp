#include "tools/commands/package/package.h"

namespace tools {

static Change Refresh(Context& context) {
  const fleet::Packages packages = OpenPackages(context);
  const fleet::PackageSteps steps = packages.Refresh();
  return PackageChange(packages, steps, Record().Add("refreshed", !steps.empty()));
}

Verb PackageRefreshVerb() {
  return {.name = "refresh",
          .summary = "Fetches the package index anew, where that is not done by itself.",
          .change = Refresh,
          .examples = {"--node 192.0.2.7"},
          .fields = {{"refreshed", "false where there was nothing to be done"}}};
}

}  // namespace tools
