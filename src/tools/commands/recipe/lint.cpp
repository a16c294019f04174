// recipe lint: what is wrong with a recipe's header.

#include "fleet/recipe_lint.h"

#include <algorithm>

#include "pnl/file.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {
namespace {

bool IsError(const fleet::RecipeFinding& finding) {
  return finding.severity == fleet::RecipeFinding::Severity::kError;
}

int Lint(Context& context) {
  const std::string path = context.Path(context.values.Str("FILE"));
  const std::vector<fleet::RecipeFinding> findings = fleet::LintRecipe(pnl_file::ReadE(path));
  std::vector<Record> records;
  records.reserve(findings.size());
  for (const fleet::RecipeFinding& finding : findings) {
    records.push_back(Record()
                          .Add("line", finding.line)
                          .Add("severity", IsError(finding) ? "error" : "warning")
                          .Add("fault", finding.fault));
  }
  context.out.List(records);
  return std::any_of(findings.begin(), findings.end(), IsError) ? kFailed : kDone;
}

void Describe(opts::Args& args) {
  args.Positional("FILE").Help("a script");
}

}  // namespace

Verb RecipeLint() {
  return {
      .name = "lint",
      .summary = "Checks a script's header; its exit code is 1 for an error.",
      .describe = Describe,
      .run = Lint,
      .examples = {"web.sh"},
      .fields = {{"line", "where it is; the first is 1"},
                 {"severity",
                  "error: the recipe cannot be used; warning: not all is taken as meant"},
                 {"fault", "what is wrong"}},
      .place = Place::kAnywhere,
  };
}

}  // namespace tools
