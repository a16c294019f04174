#include "tools/commands/repo/repos.h"

#include "brefir/recipes.h"
#include "pnl/settings.h"

namespace tools {

std::shared_ptr<ostemplate::Repo> Repositories(const std::string& kind) {
  if (kind == "recipes") return std::make_shared<recipe::RecipeRepo>();
  return std::make_shared<ostemplate::OstRepo>(pnl_settings::Get("template_location"));
}

RepositoryLine::RepositoryLine(const Context& context)
    : kind(context.values.Str("KIND")),
      name(context.values.Str("NAME")),
      repositories(Repositories(kind)) {
  const auto found = repositories->repos.find(name);
  if (found != repositories->repos.end() && !found->second.builtin)
    location = found->second.location;
}

fleet::Plan RepositoryLine::Becomes(const std::optional<std::string>& after) const {
  const auto shown = [](const std::optional<std::string>& text) {
    return text ? std::optional(str::WithoutCredentials(*text)) : std::nullopt;
  };
  fleet::Step step{.node = "localhost",
                   .kind = fleet::StepKind::kValue,
                   .object = kind + " " + name,
                   .before = shown(location),
                   .after = shown(after)};
  if (step.before == step.after && location != after) *step.after += " (another name or password)";
  return {step};
}

opts::Arg& AddKind(opts::Args& args) {
  return args.Positional("KIND").OneOf(kRepositoryKinds).Help("what the repository holds");
}

opts::Arg& AddKindAndName(opts::Args& args) {
  AddKind(args);
  return args.Positional("NAME").Help("the repository");
}

}  // namespace tools
