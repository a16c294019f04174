#include "tools/commands/repo/repos.h"

namespace tools {

static int List(Context& context) {
  std::vector<Record> records;
  for (const std::string& kind : kRepositoryKinds) {
    if (context.values.Has("KIND") && context.values.Str("KIND") != kind) continue;
    const auto repositories = Repositories(kind);
    for (const Repository& repository : repositories->repos)
      records.push_back(ToRecord(kRepositoryTable, repository, Record().Add("kind", kind)));
  }
  context.out.List(records);
  return kDone;
}

Verb RepoListVerb() {
  return {.name = "list",
          .summary = "Lists the repositories, including the built-in ones.",
          .describe = [](opts::Args& args) { AddKind(args).Optional(); },
          .run = List,
          .examples = {"", "recipes"},
          .fields = Fields({kRepositoryKind}, Declared(kRepositoryTable))};
}

}  // namespace tools
