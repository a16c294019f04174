#include "fleet/panel.h"
#include "tools/commands/repo/repos.h"

namespace tools {

static Change Remove(Context& context) {
  const std::string kind = context.values.Str("KIND");
  const std::string name = context.values.Str("NAME");
  const auto repositories = Repositories(kind);
  const fleet::Step step = fleet::RepositoryStep(*repositories, name, std::nullopt);
  const auto require = [=](bool there) {
    if (there) return;
    throw pnl_err::Missed("repo", name)
        .add_param("message",
                   "etc/ostemplates.conf has no repository '" + name + "' of kind " + kind);
  };
  require(step.before.has_value());
  const auto make = [=]() -> Answer {
    require(repositories->Delete(name));
    return Record().Add("kind", kind).Add("key", name).Add("removed", true);
  };
  return {{step}, make};
}

Verb RepoRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes a repository from the list.",
          .aliases = {"del", "delete"},
          .describe = [](opts::Args& args) { AddKindAndName(args).Completes("repositories"); },
          .change = Remove,
          .checks = true,
          .examples = {"recipes main"},
          .fields = {kRepositoryKind, {"key", "the repository"}, {"removed", "true"}}};
}

}  // namespace tools
