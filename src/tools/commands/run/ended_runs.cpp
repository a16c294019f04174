// Runs that another process has begun, and this one ends.

#include <algorithm>

#include "fleet/fan.h"
#include "tools/commands/run/run.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"

namespace tools {

void AddRecoverOptions(opts::Args& args) {
  constexpr int kMaxSeconds = 86400;
  args.Option("forks")
      .Number("N", 1, static_cast<std::int64_t>(fleet::kMaxForks))
      .Help("work on up to N nodes at the same time; default: setting forks");
  args.Option("node-deadline")
      .Number("S", 1, kMaxSeconds)
      .Help("give up a node S seconds after its turn began");
  AddKeyOption(args);
  AddLoginOptions(args);
}

void AddTakeOverOption(opts::Args& args) {
  args.Option("take-over")
      .Help("also when the process that works on the run still lives, or is on another host");
}

static fleet::RunReport EndRun(Context& context, fleet::Journal& journal, std::int64_t id,
                               const Recovery& recovery, bool& interrupted) {
  std::vector<std::string> names;
  for (const fleet::RunNode& node : journal.Find(id).nodes) names.push_back(node.name);
  RunScreen screen(context, names);
  fleet::RunReport report = recovery(id, {.take_over = context.values.HasAtAll("take-over"),
                                          .login = BookedLogins(context),
                                          .fan = screen.Fan(),
                                          .max_sessions = screen.MaxSessions(),
                                          .timeout = screen.Timeout(),
                                          .watch = screen.Watch()});
  screen.End();
  interrupted = screen.Interrupted();
  return report;
}

std::vector<fleet::RunReport> EndRuns(Context& context, fleet::Journal& journal,
                                      const std::vector<std::int64_t>& ids,
                                      const Recovery& recovery) {
  std::vector<fleet::RunReport> reports;
  bool interrupted = false;
  for (const std::int64_t id : ids) {
    try {
      reports.push_back(EndRun(context, journal, id, recovery, interrupted));
      if (interrupted) break;
    } catch (const pnl_err::Error& error) {
      if (ids.size() == 1) throw;
      context.Report(error);
    }
  }
  return reports;
}

int TellEndedRuns(Context& context, fleet::Journal& journal, const std::vector<std::int64_t>& ids,
                  const Recovery& recovery,
                  const std::function<bool(const fleet::RunReport&)>& good) {
  context.out.TellOfWork();
  const std::vector<fleet::RunReport> reports = EndRuns(context, journal, ids, recovery);
  TellRuns(context, reports);
  const bool all =
      reports.size() == ids.size() && std::all_of(reports.begin(), reports.end(), good);
  if (all) return kDone;
  return console::WasInterrupted() ? kInterrupted : kFailed;
}

}  // namespace tools
