#include "pnl/file.h"
#include "tools/commands/task/task.h"

namespace tools {

static int Log(Context& context) {
  context.out.Text("log", pnl_file::ReadE(pnl_task::LogPath(context.values.Str("ID"))));
  return kDone;
}

Verb TaskLogVerb() {
  return {.name = "log",
          .summary = "Prints the output of a task.",
          .describe = AddTaskId,
          .run = Log,
          .examples = {"OST_INSTALL@main__Debian-12"},
          .fields = {{"log", "its standard output and standard error"}}};
}

}  // namespace tools
