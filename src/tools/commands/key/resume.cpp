#include "fleet/fleet_database.h"
#include "tools/commands/key/key.h"
#include "tools/commands/run/run.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"

namespace tools {
namespace {

int Resume(Context& context) {
  const fleet::KeyChange pair = PanelPair(context);
  fleet::Journal journal(fleet::OpenFleetDatabase());
  std::vector<std::int64_t> ids;
  for (const fleet::RunHead& run : journal.KeyRuns())
    if (fleet::KeyChange::Read(run.key).private_key == pair.private_key && IsOpen(journal, run.id))
      ids.push_back(run.id);
  if (!ids.empty()) return ResumeRuns(context, journal, ids);
  return TellNothing(context, "Nothing to do: no rotation of '" + pair.private_key +
                                  "' is unfinished, and no node is owed its key.");
}

void Describe(opts::Args& args) {
  AddTakeOverOption(args);
  AddFanOptions(args, true);
  args.Details(
      "Goes on with what 'key rotate' and 'key retire' have left: an interrupted run is carried to "
      "its end, and nodes that were not reached get the new key, by a login with the old one that "
      "this host has kept for them. Nodes that are still not reached stay owed: exit code 1. A "
      "node that never comes back is closed with 'run write-off'.");
}

}  // namespace

Verb KeyResumeVerb() {
  return {.name = "resume",
          .summary = "Ends interrupted rotations, and gives owed nodes their key.",
          .describe = Describe,
          .run = Resume,
          .examples = {"", "--take-over"},
          .fields = RunRecordFields()};
}

}  // namespace tools
