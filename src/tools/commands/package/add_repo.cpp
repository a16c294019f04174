#include "fleet/package_edits.h"
#include "tools/commands/package/package.h"

namespace tools {

static HostEdit AddRepo(Context& context) {
  const std::string& word = context.values.Str("REPO");
  const auto repo = word == "base" ? fleet::PanelRepo::kBase : fleet::PanelRepo::kCommon;
  fleet::Edit edit = fleet::PanelRepoEdit(repo);
  return {.look = std::move(edit.look),
          .make = [=, make = std::move(edit.make)](fleet::Draft& draft) -> Answer {
            make(draft);
            return Record()
                .Add("repo", word)
                .Add("path", fleet::PanelRepoFile(repo, draft.Seen().family));
          }};
}

static void Describe(opts::Args& args) {
  args.Details(
      "The panel fetches the file and the key once, and gives them to the nodes; nodes of the Red "
      "Hat family import the key from its server themselves. Then the index is fetched where the "
      "package manager does not do that itself.");
  args.Positional("REPO").OneOf({"base", "common"}).Help("the panel's repository");
}

Verb PackageAddRepoVerb() {
  return {.name = "add-repo",
          .summary = "Adds one of the panel's package repositories and its signing keys.",
          .describe = Describe,
          .edit = AddRepo,
          .examples = {"base --nodes @web", "common --node 192.0.2.7 --dry-run"},
          .fields = {{"repo", "base or common"}, {"path", "its file on the node"}}};
}

}  // namespace tools
