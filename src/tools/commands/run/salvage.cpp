#include "fleet/fleet_database.h"
#include "fleet/host_steps.h"
#include "tools/commands/run/run.h"
#include "tools/frame/ask.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

bool IsUndone(const fleet::Salvaged& step) {
  return step.verdict.result == fleet::StepResult::kDone ||
         step.verdict.result == fleet::StepResult::kAlready;
}

std::string WhyNot(const fleet::Salvaged& step) {
  if (step.verdict.result == fleet::StepResult::kConflict)
    return "'" + step.object + "' was changed by somebody else meanwhile; it is left as it is";
  return "'" + step.object + "': " + str::Replace(step.verdict.reason, "\n", "; ");
}

enum class Wish { kList, kPutBack, kClear };

/// What becomes of the run `mark`, of which only the host knows.
Record Salvage(pnl_host::Host& host, const fleet::RunMark& mark, Wish wish, Answer& answer) {
  std::string state = "found";
  std::vector<std::string> objects;
  if (wish == Wish::kClear) {
    fleet::EndSteps(host, mark);
    state = "cleared";
  } else if (wish == Wish::kPutBack) {
    state = "undone";
    for (const fleet::Salvaged& step : fleet::SalvageRun(host, mark)) {
      objects.push_back(step.object);
      if (IsUndone(step)) continue;
      state = "conflict";
      answer.errors.push_back(pnl_err::Error("run", host.Name(), mark.name)
                                  .add_param("message", "run " + mark.name + ": " + WhyNot(step)));
      answer.code = kFailed;
    }
  } else {
    answer.code = kNo;
  }
  return Record().Add("run", mark.name).Add("state", state).Add("objects", std::move(objects));
}

Answer SalvageOn(pnl_host::Host& host, const std::map<std::string, std::int64_t>& known,
                 Wish wish) {
  const fleet::Sight sight = fleet::Look(host, {});
  Answer answer(std::vector<Record>{});
  for (const auto& [name, epoch] : sight.runs) {
    if (known.contains(name)) {
      answer.records.push_back(Record()
                                   .Add("run", name)
                                   .Add("state", "known")
                                   .Add("objects", std::vector<std::string>()));
      continue;
    }
    const fleet::RunMark mark{
        .name = name, .epoch = epoch + 1, .machine = sight.machine, .fence = true};
    answer.records.push_back(Salvage(host, mark, wish, answer));
  }
  return answer;
}

int SalvageNodes(Context& context) {
  Wish wish = Wish::kList;
  if (context.values.Has("put-back")) wish = Wish::kPutBack;
  if (context.values.Has("clear")) wish = Wish::kClear;
  if (!context.values.Has("nodes")) throw UsageError("--nodes", "", "--nodes is missing");
  std::map<std::string, std::int64_t> known;
  if (fleet::HasFleetDatabase())
    known = fleet::NamesOnNodes(fleet::Journal(fleet::OpenFleetDatabase()));
  if (wish != Wish::kList) context.out.TellOfWork();
  Round round(context);
  round.Visit(
      [&](const fleet::Node&, pnl_host::Host& host) { return SalvageOn(host, known, wish); }, {});
  return round.Tell(RunSalvageVerb());
}

void Describe(opts::Args& args) {
  AddAllNodesOptions(args);
  args.Option("diff").Help("show how answers differ from the most frequent one");
  AddKeyOption(args);
  AddLoginOptions(args);
  args.Option("put-back").Help("undo these runs from the copies that the nodes keep");
  args.Option("clear").Help("remove the copies; the files stay as they are").Excludes("put-back");
  args.Details(
      "A node keeps the old content of what a run changes until the run has ended. If the journal "
      "was lost, or was that of another panel, nobody ends the run, and later runs refuse the "
      "node. Without an option, such runs are listed; the exit code is 3 if there is one. Runs "
      "that this panel's journal has (state known) are never touched: 'run resume', 'run undo' and "
      "'run prune' end them. What is not as the run has left it is a conflict: it is told and left "
      "alone, and the copies stay. A run that another panel is still at work on is found, too: end "
      "it here only if that panel is gone, because its journal is not told.");
}

}  // namespace

Verb RunSalvageVerb() {
  return {.name = "salvage",
          .summary = "Finds and ends runs on nodes that no journal knows.",
          .describe = Describe,
          .run = SalvageNodes,
          .lists = true,
          .examples = {"--nodes @all", "--nodes web7 --put-back", "--nodes web7 --clear"},
          .fields = Fields({{"run", "its name on the nodes"},
                            {"state", "known, found, undone, conflict or cleared"},
                            {"objects", "what was put back; empty without --put-back"}},
                           NodesFields(true)),
          .reach = Reach::kNothing};
}

}  // namespace tools
