#include <algorithm>

#include "fleet/recipe_lint.h"
#include "pnl/file.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {
namespace {

using fleet::RecipeFinding;

bool IsError(const RecipeFinding& finding) {
  return finding.severity == RecipeFinding::Severity::kError;
}

const FieldTable<RecipeFinding> kFindings = {
    {{"line", "the line's number, from 1"}, [](const auto& finding) { return finding.line; }},
    {{"severity", "error: the recipe cannot be used; warning: perhaps a mistake"},
     [](const auto& finding) { return IsError(finding) ? "error" : "warning"; }},
    {{"fault", "what is wrong"}, [](const auto& finding) { return finding.fault; }},
};

int Lint(Context& context) {
  const std::string path = context.Path(context.values.Str("FILE"));
  const std::vector<RecipeFinding> findings = fleet::LintRecipe(pnl_file::ReadE(path));
  context.out.List(ToRecords(kFindings, findings));
  return std::any_of(findings.begin(), findings.end(), IsError) ? kFailed : kDone;
}

}  // namespace

Verb RecipeLintVerb() {
  return {.name = "lint",
          .summary = "Checks the header of a script; exit code 1 if it has an error.",
          .describe = [](opts::Args& args) { args.Positional("FILE").Help("a script"); },
          .run = Lint,
          .examples = {"web.sh"},
          .fields = Declared(kFindings),
          .place = Place::kAnywhere};
}

}  // namespace tools
