#include "tools/commands/repo/repos.h"

namespace tools {
namespace {

Change Remove(Context& context) {
  const RepositoryLine line(context);
  const auto missed = [=] {
    return pnl_err::Missed("repo", line.name)
        .add_param("message", "etc/ostemplates.conf has no repository '" + line.name +
                                  "' of kind " + line.kind);
  };
  if (!line.location) throw missed();
  const auto make = [=]() -> Answer {
    if (!line.repositories->Delete(line.name)) throw missed();
    return Record().Add("kind", line.kind).Add("key", line.name).Add("removed", true);
  };
  return {line.Becomes(std::nullopt), make};
}

}  // namespace

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
