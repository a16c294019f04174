#include "tools/commands/task/task.h"

namespace tools {

static int List(Context& context) {
  context.out.List(ToRecords(TaskTable(), pnl_task::List()),
                   {"id", "state", "exit_code", "started"});
  return kDone;
}

Verb TaskListVerb() {
  return {.name = "list",
          .summary = "Lists all tasks.",
          .run = List,
          .examples = {"", "-o json"},
          .fields = Declared(TaskTable())};
}

}  // namespace tools
