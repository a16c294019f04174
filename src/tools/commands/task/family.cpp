// task: long-running programs that the library started.

#include "tools/commands/families.h"
#include "tools/commands/task/task.h"

namespace tools {

const FieldTable<pnl_task::Status>& TaskTable() {
  using S = pnl_task::Status;
  static const FieldTable<S> table = {
      {{"id", "the id that other commands take"}, &S::id},
      {{"kind", "the kind of work, such as OST_INSTALL"}, &S::kind},
      {{"name", "the object of the work, such as a template's key"}, &S::name},
      {{"state", "running, finished, or lost if it was killed"},
       [](const S& s) { return pnl_task::ToStr(s.state); }},
      {{"exit_code", "exit code of its program; null unless it is finished"}, &S::exit_code},
      {{"started", "time of its start"}, &S::started},
      {{"pid", "process id of its program; null unless it is running"},
       [](const S& s) {  // after its end the pid may belong to another process
         const bool running = s.state == pnl_task::State::kRunning && s.pid != 0;
         return running ? Value(s.pid) : Value();
       }},
      {{"program", "path of its program"}, &S::program},
      {{"params", "the program's arguments"}, &S::params},
      {{"progress", "its present step; empty if unknown"}, &S::progress_what},
      {{"done", "bytes of that step that are done"}, &S::progress_done},
      {{"total", "bytes of that step; 0 if unknown"}, &S::progress_total},
  };
  return table;
}

void AddTaskId(opts::Args& args) {
  args.Positional("ID").Help("the task, as 'task list' shows it").Completes("tasks");
}

Family TaskFamily() {
  return {.name = "task",
          .summary = "Long-running tasks, such as installations of templates.",
          .describe =
              [](opts::Args& args) {
                args.Details(
                    "A task continues when the command that started it has ended. An ID is the "
                    "kind of the task, @ and its name.");
              },
          .verbs = {TaskListVerb(), TaskShowVerb(), TaskWaitVerb(), TaskLogVerb()},
          .files = {{"var/tasks", "state and output of each task"}},
          .see_also = {"brefirctl-template(1)"}};
}

}  // namespace tools
