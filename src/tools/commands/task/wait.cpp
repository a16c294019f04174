#include "pnl/proc.h"
#include "tools/commands/task/task.h"

namespace tools {
namespace {

constexpr int kPollMs = 200;

pnl_err::Error Failure(const pnl_task::Status& status) {
  const std::string code = status.exit_code ? std::to_string(*status.exit_code) : "";
  pnl_err::Error error("task", code.empty() ? "lost" : "failed", status.id);
  error.add_param("message", "task '" + status.id + "' " +
                                 (code.empty() ? "was killed" : "ended with exit code " + code) +
                                 "; 'brefirctl task log " + pnl_proc::Escape(status.id) +
                                 "' shows its output");
  return code.empty() ? error : error.add_param("exit_code", code);
}

int Wait(Context& context) {
  const Answer answer = FollowTask(context, context.values.Str("ID"));
  context.out.One(answer.records.front(), answer.columns);
  return answer.code;
}

}  // namespace

Answer FollowTask(Context& context, const std::string& id) {
  pnl_task::Status status = pnl_task::Get(id);
  while (status.state == pnl_task::State::kRunning) {
    context.bar.Show(status.progress_what.empty() ? id : status.progress_what, status.progress_done,
                     status.progress_total);
    pnl_proc::Sleep(kPollMs);
    status = pnl_task::Get(id);
  }
  context.bar.Clear();
  Answer answer(ToRecord(TaskTable(), status), {"id", "state", "exit_code"});
  if (status.exit_code == 0) return answer;
  context.Report(Failure(status));
  answer.code = kFailed;
  return answer;
}

Verb TaskWaitVerb() {
  return {.name = "wait",
          .summary = "Waits for the end of a task; exit code 0 if it succeeded.",
          .describe = AddTaskId,
          .run = Wait,
          .examples = {"OST_INSTALL@main__Debian-12"},
          .fields = Declared(TaskTable())};
}

}  // namespace tools
