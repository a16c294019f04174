// task: long-running programs that the library started.

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/task.h"
#include "tools/commands/families.h"
#include "tools/commands/task/task.h"

namespace tools {
namespace {

constexpr int kPollMs = 200;

/// The number of one that has ended is somebody else's by now.
Value Pid(const pnl_task::Status& status) {
  const bool running = status.state == pnl_task::State::kRunning && status.pid != 0;
  return running ? Value(status.pid) : Value();
}

Record ToRecord(const pnl_task::Status& status) {
  return Record()
      .Add("id", status.id)
      .Add("kind", status.kind)
      .Add("name", status.name)
      .Add("state", pnl_task::ToStr(status.state))
      .Add("exit_code", status.exit_code)
      .Add("started", status.started.Str())
      .Add("pid", Pid(status))
      .Add("program", status.program)
      .Add("params", status.params)
      .Add("progress", status.progress_what)
      .Add("done", status.progress_done)
      .Add("total", status.progress_total);
}

int List(Context& context) {
  std::vector<Record> records;
  for (const pnl_task::Status& status : pnl_task::List()) records.push_back(ToRecord(status));
  context.out.List(records, {"id", "state", "exit_code", "started"});
  return kDone;
}

int Show(Context& context) {
  context.out.One(ToRecord(pnl_task::Get(context.values.Str("ID"))));
  return kDone;
}

int Wait(Context& context) {
  return FollowTask(context, context.values.Str("ID"));
}

int Log(Context& context) {
  context.out.Text("log", pnl_file::ReadE(pnl_task::LogPath(context.values.Str("ID"))));
  return kDone;
}

void AddId(opts::Args& args) {
  args.Positional("ID").Help("the task, as 'task list' shows it").Completes("tasks");
}

pnl_err::Error Failure(const pnl_task::Status& status) {
  const std::string log = "; 'brefirctl task log " + pnl_proc::Escape(status.id) + "' tells more";
  if (!status.exit_code) {
    return pnl_err::Error("task", "lost", status.id)
        .add_param("message", "task '" + status.id + "' was ended from outside" + log);
  }
  const std::string code = std::to_string(*status.exit_code);
  return pnl_err::Error("task", "failed", status.id)
      .add_param("message", "task '" + status.id + "' ended with exit code " + code + log)
      .add_param("exit_code", code);
}

}  // namespace

int FollowTask(Context& context, const std::string& id) {
  pnl_task::Status status = pnl_task::Get(id);
  while (status.state == pnl_task::State::kRunning) {
    context.bar.Show(status.progress_what.empty() ? id : status.progress_what, status.progress_done,
                     status.progress_total);
    pnl_proc::Sleep(kPollMs);
    status = pnl_task::Get(id);
  }
  context.bar.Clear();
  context.out.One(ToRecord(status), {"id", "state", "exit_code"});
  if (status.exit_code == 0) return kDone;
  context.Report(Failure(status));
  return kFailed;
}

std::vector<Field> TaskFields() {
  return {{"id", "the task: what other commands take"},
          {"kind", "what it does, such as OST_INSTALL"},
          {"name", "what it does it with, such as a template's key"},
          {"state", "running, finished, or lost when it was ended from outside"},
          {"exit_code", "of its program; null unless it is finished"},
          {"started", "YYYY-MM-DD HH:MM:SS, UTC"},
          {"pid", "process id of its program; null unless it is running"},
          {"program", "path of its program"},
          {"params", "the program's arguments"},
          {"progress", "what it is doing, empty when it has not told"},
          {"done", "bytes of that work that are done"},
          {"total", "bytes of that work, 0 when unknown"}};
}

Family TaskFamily() {
  return {
      .name = "task",
      .summary = "Long-running tasks, such as installations of templates.",
      .describe =
          [](opts::Args& args) {
            args.Details(
                "A task outlives the command that started it. An ID is its kind, @ and its name.");
          },
      .verbs =
          {
              {
                  .name = "list",
                  .summary = "Lists all tasks.",
                  .run = List,
                  .examples = {"", "-o json"},
                  .fields = TaskFields(),
              },
              {
                  .name = "show",
                  .summary = "Shows one task.",
                  .describe = AddId,
                  .run = Show,
                  .examples = {"OST_INSTALL@main__Debian-12"},
                  .fields = TaskFields(),
              },
              {
                  .name = "wait",
                  .summary = "Follows a task to its end; exit code 0 when it ended well.",
                  .describe = AddId,
                  .run = Wait,
                  .examples = {"OST_INSTALL@main__Debian-12"},
                  .fields = TaskFields(),
              },
              {
                  .name = "log",
                  .summary = "Prints what a task wrote.",
                  .describe = AddId,
                  .run = Log,
                  .examples = {"OST_INSTALL@main__Debian-12"},
                  .fields = {{"log", "its standard output and standard error"}},
              },
          },
      .files = {{"var/tasks", "state and output of each task"}},
      .see_also = {"brefirctl-template(1)"},
  };
}

}  // namespace tools
