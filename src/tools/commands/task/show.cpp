#include "tools/commands/task/task.h"

namespace tools {

static int Show(Context& context) {
  context.out.One(ToRecord(TaskTable(), pnl_task::Get(context.values.Str("ID"))));
  return kDone;
}

Verb TaskShowVerb() {
  return {.name = "show",
          .summary = "Shows one task.",
          .describe = AddTaskId,
          .run = Show,
          .examples = {"OST_INSTALL@main__Debian-12"},
          .fields = Declared(TaskTable())};
}

}  // namespace tools
