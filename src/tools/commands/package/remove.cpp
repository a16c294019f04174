#include "tools/commands/package/package.h"

namespace tools {

static HostEdit Remove(Context& context) {
  return PackageEdit(
      {.action = fleet::PackageRequest::Action::kRemove, .names = PackageNames(context)},
      "removed");
}

static void Describe(opts::Args& args) {
  args.Details(
      "Packages that need them are removed, too: look at the plan (--dry-run). Configuration files "
      "stay, and so do packages that were installed only for them.");
  DescribePackages(args);
}

Verb PackageRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes packages.",
          .describe = Describe,
          .edit = Remove,
          .examples = {"nginx --nodes @web --dry-run"},
          .fields = {kPackageField,
                     {"removed", "true"},
                     {"version", "the version that was removed; empty if it was not installed"}}};
}

}  // namespace tools
