#include "tools/commands/package/package.h"

namespace tools {

static Change AddRepo(Context& context) {
  const std::string& word = context.values.Str("REPO");
  const auto repo = word == "base" ? fleet::PanelRepo::kBase : fleet::PanelRepo::kCommon;
  fleet::Packages packages = OpenPackages(context);
  const fleet::Step step = packages.RepoStep(repo);
  const auto make = [=]() mutable -> Answer {
    packages.AddRepo(repo);
    return Record().Add("repo", word).Add("path", step.object);
  };
  return {{step}, make};
}

Verb PackageAddRepoVerb() {
  return {.name = "add-repo",
          .summary = "Adds one of the panel's package repositories and its signing keys.",
          .describe =
              [](opts::Args& args) {
                args.Positional("REPO").OneOf({"base", "common"}).Help("the panel's repository");
              },
          .change = AddRepo,
          .checks = true,
          .examples = {"base --node 192.0.2.7", "common --node 192.0.2.7 --dry-run"},
          .fields = {{"repo", "base or common"}, {"path", "its file on the node"}}};
}

}  // namespace tools
