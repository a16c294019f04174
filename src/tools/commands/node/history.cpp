#include "fleet/draft.h"
#include "fleet/fleet_database.h"
#include "fleet/journal.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

using Past = std::vector<fleet::Journal::Past>;

constexpr std::size_t kShown = 100;

/// `more` says whether there are older ones.
Past PastOf(const Context& context, const std::string& node, const std::string& path, bool& more) {
  if (!fleet::HasFleetDatabase()) return {};
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  if (context.values.Has("all")) return journal.History(node, path);
  Past past = journal.History(node, path, kShown + 1);
  more = past.size() > kShown;
  if (more) past.pop_back();
  return past;
}

std::string DiffOf(const std::string& node, const std::vector<fleet::RunStep>& steps) {
  const fleet::Plan plan = fleet::PlanOf(node, steps);
  return fleet::DiffOf(plan) + fleet::WordsOf(plan);
}

/// A misspelt name has no history, either.
void RequireKnown(const std::string& node) {
  const fleet::Inventory inventory = PanelInventory();
  if (inventory.Find(node) != nullptr) return;
  const std::string nearest = inventory.Nearest(node);
  throw pnl_err::Missed("node", node)
      .add_param("message", "no run has changed '" + node +
                                "', and it is no node of the inventory" +
                                (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
}

int History(Context& context) {
  const std::string& node = context.values.Str("NODE");
  const std::string path = context.values.Has("PATH") ? NodePath(context, "PATH") : "";
  bool more = false;
  const Past past = PastOf(context, node, path, more);
  if (past.empty()) RequireKnown(node);
  const bool diff = context.values.Has("diff");
  std::vector<Record> records;
  std::string text;
  for (const auto& [run, state, steps] : past) {
    const std::time_t time = run.ended == 0 ? run.begun : run.ended;
    records.push_back(Record()
                          .Add("time", pnl_date::DateTime(time))
                          .Add("run", run.id)
                          .Add("command", run.command)
                          .Add("state", fleet::ToText(state)));
    if (!diff) continue;
    records.back().Add("diff", DiffOf(node, steps));
    text += "run " + std::to_string(run.id) + ", " + LocalTime(pnl_date::DateTime(time)) + ", " +
            fleet::ToText(state) + ": " + run.command + "\n" + DiffOf(node, steps);
  }
  if (diff && context.out.ForPeople() && !context.out.IsShaped())
    context.out.Plain(text);
  else
    context.out.List(std::move(records));
  if (more && context.out.ForPeople() && !context.out.IsShaped())
    context.out.Plain("older runs: --all\n");
  return kDone;
}

void Describe(opts::Args& args) {
  args.Positional("NODE").Help("the name of the node").Completes("nodes");
  args.Positional("PATH").Optional().Help(
      "only runs that changed this path; as it is without symbolic links");
  args.Option("all").Help("all these runs, not only the newest 100");
  args.Option("diff").Help("show what each run changed, as unified diffs and commands");
  args.Details(
      "The journal is read; nobody logs in to the node. 'run prune' deletes old runs from it.");
}

}  // namespace

Verb NodeHistoryVerb() {
  return {.name = "history",
          .summary = "Lists the runs that changed a node, the newest first.",
          .describe = Describe,
          .run = History,
          .examples = {"web1", "web1 /etc/motd --diff"},
          .fields = {{"time", "when the run ended; of an unfinished one, when it began"},
                     {"run", "its ID"},
                     {"command", "the command that began it"},
                     {"state", "of the node in that run: done, undone, conflict, owed, ..."},
                     {"diff", "what it changed", "with --diff"}},
          .reach = Reach::kNothing};
}

}  // namespace tools
