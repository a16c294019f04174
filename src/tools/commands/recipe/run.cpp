#include <unistd.h>

#include <optional>

#include "console/interrupt.h"
#include "console/screen.h"
#include "fleet/recipe_run.h"
#include "pnl/file.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/recipe/recipes.h"
#include "tools/frame/login.h"

namespace tools {

static fleet::RecipePlan MakePlan(const Context& context) {
  const opts::Values& values = context.values;
  fleet::RecipePlan plan{.recipe = FindRecipe(context, true),
                         .node = NodeOptions(context).host,
                         .dir = values.Str("dir")};
  for (const std::string& word : values.List("env")) {
    const auto [name, value] = Assignment(word, "--env");
    if (!fleet::IsVariableName(name))
      throw UsageError("--env", word, "--env '" + word + "' is not NAME=VALUE");
    plan.environment.emplace_back(name, value);
  }
  RequirePathComponent(fleet::RecipeLogName(plan.recipe->id, plan.node), "the log's name");
  fleet::RequireRunnable(*plan.recipe, values.Str("as"));
  return plan;
}

/// The path of the log; none when it could not be written, which does not change the result.
static std::optional<std::string> WriteLog(Context& context, const fleet::RecipePlan& plan,
                                           const fleet::RecipeOutcome& outcome) {
  try {
    return fleet::WriteRecipeLog(plan, outcome);
  } catch (const pnl_err::Error& error) {
    context.Warn(pnl_err::Error(error).add_param(
        "message", "warning: the log of recipe '" + plan.recipe->id + "' was not written: " +
                       ErrorText(error, Format::kTable) + "; the recipe itself ran"));
    return std::nullopt;
  }
}

static Answer Conclude(Context& context, const fleet::RecipePlan& plan,
                       const fleet::RecipeOutcome& outcome) {
  const std::string& id = plan.recipe->id;
  const std::optional<std::string> log = WriteLog(context, plan, outcome);
  if (outcome.error) throw pnl_err::Error(*outcome.error);
  Answer answer = Record()
                      .Add("id", id)
                      .Add("node", plan.node)
                      .Add("exit_code", outcome.code)
                      .Add("output", outcome.tail)
                      .Add("log", log);
  // People have already seen the output: print nothing after it.
  if (context.out.ForPeople()) answer = std::vector<Record>();
  if (outcome.code == 0) return answer;
  answer.code = kFailed;
  const std::string what =
      outcome.stopped ? "was interrupted" : "ended with exit code " + std::to_string(*outcome.code);
  context.Report(
      pnl_err::Error("recipe", outcome.stopped ? "interrupted" : "exit_code", id)
          .add_param("message", plan.node + ": recipe '" + id + "' " + what +
                                    (log ? "; the end of its output is in " + *log : "")));
  return answer;
}

static Answer RunOnNode(Context& context, const fleet::RecipePlan& plan) {
  console::Screen screen(context.out.ForPeople() ? STDOUT_FILENO : STDERR_FILENO);
  pnl_rpc::SSH ssh = OpenNode(context);
  const console::NotedInterruption interruption;
  const fleet::RecipeOutcome outcome =
      fleet::RunRecipe(plan, std::move(ssh),
                       {.output = [&](std::string_view block) { screen.Show(block); },
                        .stop = [&] { return interruption.Happened(); },
                        .open = [&] { return OpenNode(context); },
                        .not_ended = [&](const pnl_err::Error& error) { context.Report(error); }});
  return Conclude(context, plan, outcome);
}

static Change Run(Context& context) {
  const fleet::RecipePlan plan = MakePlan(context);
  const std::string path = pnl_file::ConcatPath(plan.dir, "recipe.XXXXXX");
  return {{{.node = plan.node, .words = fleet::RecipeCommand(plan, path, "MARK")}},
          [=, &context] { return RunOnNode(context, plan); }};
}

static void Describe(opts::Args& args) {
  AddRecipeId(args);
  AddNodeOptions(args).Required();
  args.Option("env").Value("NAME=VALUE").Repeated().Help("a variable for the script's environment");
  args.Option("as")
      .Value("USER")
      .Default(fleet::kAdministrator)
      .Help(
          "the user whose right to run it is checked: root may run all, others their own and those "
          "with access any; nobody may run those with access none");
  args.Option("dir").Value("DIR").Default("/tmp").Help(
      "the directory on the node for the script while it runs");
}

Verb RecipeRunVerb() {
  return {.name = "run",
          .summary = "Runs a recipe on a node; var/recipes/log keeps the end of its output.",
          .describe = Describe,
          .change = Run,
          .examples = {"main__web.sh --node 192.0.2.7 --key etc/panel.key --env PORT=80"},
          .fields = {{"id", "the recipe"},
                     {"node", "where it ran"},
                     {"exit_code", "exit code of the script"},
                     {"output", "the end of its output, printable ASCII only"},
                     {"log", "the file that keeps these data; null if it could not be written"}}};
}

}  // namespace tools
