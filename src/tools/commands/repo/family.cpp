// repo: the repositories of templates and recipes.

#include "tools/commands/families.h"
#include "tools/commands/repo/repos.h"

namespace tools {

Family RepoFamily() {
  return {.name = "repo",
          .summary = "Repositories of templates and recipes, in etc/ostemplates.conf.",
          .verbs = {RepoListVerb(), RepoAddVerb(), RepoRemoveVerb()},
          .files = {{"etc/ostemplates.conf", "the list"}},
          .see_also = {"ostemplates.conf(5)", "brefirctl-template(1)", "brefirctl-recipe(1)"}};
}

}  // namespace tools
