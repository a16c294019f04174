#include <memory>

#include "fleet/package_edits.h"
#include "tools/commands/package/package.h"

namespace tools {
namespace {

HostEdit Hold(Context& context, bool held) {
  const std::vector<std::string> names = PackageNames(context);
  std::vector<fleet::Edit> edits;
  edits.reserve(names.size());
  for (const std::string& name : names) edits.push_back(fleet::HoldEdit(name, held));
  const auto look = [edits](fleet::Looks& looks) {
    for (const fleet::Edit& edit : edits) edit.look(looks);
  };
  const auto make = [=](fleet::Draft& draft) -> Answer {
    std::vector<Record> records;
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::size_t count = draft.Count();
      edits[i].make(draft);
      records.push_back(
          Record().Add("name", names[i]).Add("held", held).Add("changed", draft.Count() != count));
    }
    if (names.size() == 1) return records.front();
    return records;
  };
  return {.look = look, .make = make};
}

}  // namespace

Verb PackageHoldVerb() {
  return {.name = "hold",
          .summary = "Keeps installed packages at their versions.",
          .describe =
              [](opts::Args& args) {
                args.Details(
                    "Systems of the Red Hat family need the plugin versionlock of yum or dnf.");
                DescribePackages(args);
              },
          .edit = [](Context& context) { return Hold(context, true); },
          .examples = {"nginx --nodes @web"},
          .fields = {kPackageField, {"held", "true"}}};
}

Verb PackageUnholdVerb() {
  return {.name = "unhold",
          .summary = "Lets packages be updated again.",
          .describe = [](opts::Args& args) { DescribePackages(args); },
          .edit = [](Context& context) { return Hold(context, false); },
          .examples = {"nginx --nodes @web"},
          .fields = {kPackageField, {"held", "false"}}};
}

}  // namespace tools
