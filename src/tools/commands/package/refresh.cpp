#include "tools/commands/package/package.h"

namespace tools {

static Change Refresh(Context& context) {
  const fleet::Packages packages = OpenPackages(context);
  const fleet::PackageSteps steps = packages.Refresh();
  return PackageChange(packages, steps, Record().Add("refreshed", !steps.empty()));
}

Verb PackageRefreshVerb() {
  return {.name = "refresh",
          .summary = "Fetches the package index again, on systems that do not do this themselves.",
          .change = Refresh,
          .examples = {"--node 192.0.2.7"},
          .fields = {{"refreshed", "false if there was nothing to do"}},
          .reach = Reach::kNode};
}

}  // namespace tools
