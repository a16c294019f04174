// apply: the commands of a file as one change of one or many hosts.

#include <algorithm>

#include "pnl/file.h"
#include "tools/commands/apply/apply.h"
#include "tools/commands/families.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"

namespace tools {
namespace {

/// More would only hide the first ones.
constexpr std::size_t kMostMistakes = 20;

int TellMistakes(Context& context, const std::vector<pnl_err::Error>& mistakes) {
  for (std::size_t i = 0; i < std::min(mistakes.size(), kMostMistakes); ++i)
    context.Report(mistakes[i]);
  if (mistakes.size() > kMostMistakes)
    context.Report(pnl_err::Error(fleet::kChangeFileError, context.values.Str("FILE"))
                       .add_param("message", "and " +
                                                 std::to_string(mistakes.size() - kMostMistakes) +
                                                 " more mistakes"));
  return kUsage;
}

int ApplyFile(Context& context) {
  if (context.values.Has("save-plan")) RequirePlanFile(context);
  const std::vector<fleet::Node> nodes = RunNodes(context);
  EditJob job{.targets = RunTargets(context, nodes),
              .command = "apply " + pnl_file::Name(context.values.Str("FILE"))};
  const ChangeCommands commands(context, nodes, job.targets);
  if (!commands.Mistakes().empty()) return TellMistakes(context, commands.Mistakes());
  job.edits = [&](std::size_t target) { return commands.Of(target); };
  job.before_commit = commands.BeforeCommit();
  if (context.values.Has("save-plan"))
    job.save = [&, command = job.command](const fleet::Run& run) {
      SavePlan(context, command, run);
    };
  return RunEdits(context, std::move(job));
}

int Apply(Context& context) {
  const bool saved = context.values.Has("plan");
  if (saved == context.values.Has("FILE"))
    throw UsageError(
        "FILE", context.values.Str("FILE"),
        saved ? "FILE and --plan exclude each other: the plan has the commands of its file"
              : "FILE is missing: a file with commands, or --plan");
  try {
    return saved ? RunEdits(context, SavedJob(context)) : ApplyFile(context);
  } catch (const pnl_err::Error& error) {
    if (error.type() != fleet::kChangeFileError) throw;
    return TellMistakes(context, {error});
  }
}

void Describe(opts::Args& args) {
  args.Details(
      "Each line of FILE has a command as it would be typed, without options of the whole run: "
      "'node put files/motd /etc/motd', 'config set /etc/app.conf port 8080'. Commands that are "
      "runs are possible. All of them are planned on all nodes before one is changed, and all "
      "nodes "
      "get all of them, or none. Without --node and --nodes they are for this host.\n"
      "A line that needs what an earlier command or package brings, such as its configuration "
      "file, is planned when its turn comes; the plan says so.\n"
      "Words are quoted as in a shell, and nothing is expanded. A line that ends with a backslash "
      "goes on in the next one; '#' begins a comment. Relative paths of this host start from the "
      "directory of FILE.\n"
      "{node.NAME} stands for a value of each node: name, host, user, port, groups, or a setting "
      "of "
      "the inventory. It stays a part of its word, and is never an option. A node without that "
      "value "
      "is an error.\n"
      "--save-plan writes what --dry-run shows, with how the nodes are reached; the file has the "
      "content of files, and only its owner can read it. --plan makes exactly that: if a node is "
      "no "
      "longer as it was, or is another machine, nothing is changed. A node that already is as the "
      "plan leaves it has no change.");
  args.Positional("FILE").Optional().Help("the file with the commands").Completes("files");
  AddNodeOptions(args);
  args.Option("nodes")
      .Value("SELECTION")
      .Excludes("node")
      .Help("the nodes: names and ranges with commas between, @GROUP, @all, @failed, !NAME")
      .Completes("selections");
  AddFanOptions(args, true);
  AddPlanOptions(args, true);
  args.Option("save-plan")
      .Value("PLAN")
      .Help("show what would be done, and write it to this file; change nothing")
      .Completes("files")
      .Excludes("dry-run")
      .Excludes("check");
  args.Option("plan")
      .Value("PLAN")
      .Help("make what this file of --save-plan says, on its nodes")
      .Completes("files")
      .Excludes("node")
      .Excludes("nodes")
      .Excludes("save-plan");
  AddPolicyOptions(args, true);
}

/// Those of runs, and those of --dry-run.
std::vector<Field> ApplyFields() {
  std::vector<Field> fields = RunRecordFields();
  for (const Field& field : PlanFields())
    if (field.name != "changed") fields.push_back(field);
  return fields;
}

}  // namespace

Family ApplyFamily() {
  return {.name = "apply",
          .summary = "Makes the commands of a file as one change of one or many hosts.",
          .describe = Describe,
          .verbs = {{.name = "",  // the family is the command
                     .summary = "",
                     .run = Apply,
                     .examples = {"web.changes --nodes @web", "web.changes --nodes @web --dry-run",
                                  "web.changes --nodes @web --save-plan web.plan",
                                  "--plan web.plan --policy canary:1"},
                     .fields = ApplyFields()}},
          .files = {{"var/fleet.db", "the journal; the setting fleet_database names another one"}},
          .see_also = {"brefirctl-run(1)", "brefirctl-node(1)", "brefirctl-config(1)",
                       "brefirctl-sysctl(1)", "brefirctl-package(1)", "brefirctl-frontd(1)",
                       "brefir-nodes(5)"}};
}

}  // namespace tools
