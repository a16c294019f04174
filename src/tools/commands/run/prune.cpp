#include <ctime>

#include "fleet/fleet_database.h"
#include "pnl/settings.h"
#include "tools/commands/run/run.h"
#include "tools/frame/run_report.h"

namespace tools {
namespace {

constexpr std::int64_t kMaxDays = 36500;

std::int64_t Days(const Context& context) {
  if (context.values.Has("older-than")) return context.values.Int("older-than");
  const std::string value = pnl_settings::Get("run_retention");
  const bool digits = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
  if (digits && str::Int64(value) <= kMaxDays) return str::Int64(value);
  throw pnl_err::Error("setting", "run_retention", value)
      .add_param("message", "run_retention in etc/brefir.conf must be a number of days from 0 to " +
                                std::to_string(kMaxDays) + ", not '" + value + "'");
}

Answer Make(Context& context, fleet::Journal& journal, std::time_t before,
            const std::vector<fleet::RunHead>& old) {
  std::vector<std::int64_t> kept;
  for (const fleet::RunHead& run : old)
    if (run.keep_undo && run.state != fleet::RunState::kUndone) kept.push_back(run.id);
  const auto drop = [&](std::int64_t id, const fleet::RecoverOptions& options) {
    return fleet::DropUndo(journal, id, options);
  };
  const std::vector<fleet::RunReport> reports = EndRuns(context, journal, kept, drop);
  bool good = reports.size() == kept.size();
  for (const fleet::RunReport& report : reports) {
    TellFailures(context, report);
    for (const fleet::NodeReport& node : report.nodes)
      good = good && node.state != fleet::NodeRunState::kCommitted;
  }
  const std::int64_t pruned = journal.Prune(before);
  Answer answer(Record()
                    .Add("pruned", pruned)
                    .Add("kept", static_cast<std::int64_t>(old.size()) - pruned)
                    .Add("changed", pruned > 0));
  if (!good) answer.code = kFailed;
  return answer;
}

Change Prune(Context& context) {
  constexpr std::int64_t kDay = 86400;  // seconds
  const std::time_t before = std::time(nullptr) - Days(context) * kDay;
  const auto journal = std::make_shared<fleet::Journal>(fleet::OpenFleetDatabase());
  const std::vector<fleet::RunHead> old = journal->Old(before);
  fleet::Plan plan;
  for (const fleet::RunHead& run : old)
    plan.push_back({.words = "forget run " + std::to_string(run.id) + " of " +
                             pnl_date::DateTime(run.begun).Str() + " UTC: " + run.command});
  return {plan, [=, &context] { return Make(context, *journal, before, old); }};
}

void Describe(opts::Args& args) {
  args.Option("older-than")
      .Number("DAYS", 0, kMaxDays)
      .Help("runs that began before so many days; default: setting run_retention");
  AddRecoverOptions(args);
  args.Details(
      "A pruned run cannot be undone any more. Runs that are unfinished, owed by a node, or in "
      "conflict with it stay. If the nodes keep copies for a run (keep_undo), they are removed "
      "there first; while a node is not reached, the run stays, and the exit code is 1.");
}

}  // namespace

Verb RunPruneVerb() {
  return {.name = "prune",
          .summary = "Deletes old runs from the journal.",
          .describe = Describe,
          .change = Prune,
          .checks = true,
          .examples = {"", "--older-than 30 --dry-run"},
          .fields = {{"pruned", "how many runs were deleted", "not with --dry-run or --check"},
                     {"kept", "how many old runs stay", "not with --dry-run or --check"}},
          .reach = Reach::kNothing};
}

}  // namespace tools
