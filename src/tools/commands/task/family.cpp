// task: long-running programs that the library started.

#include "tools/commands/families.h"
#include "tools/commands/task/task.h"

namespace tools {

Family TaskFamily() {
  return {.name = "task",
          .summary = "Long-running tasks, such as installations of templates.",
          .describe =
              [](opts::Args& args) {
                args.Details(
                    "A task outlives the command that started it. An ID is its kind, @ and its "
                    "name.");
              },
          .verbs = {TaskListVerb(), TaskShowVerb(), TaskWaitVerb(), TaskLogVerb()},
          .files = {{"var/tasks", "state and output of each task"}},
          .see_also = {"brefirctl-template(1)"}};
}

}  // namespace tools
