#pragma once

#include <string>
#include <vector>

#include "pnl/task.h"
#include "tools/frame/verb.h"

namespace tools {

// One function per verb of the family "task", in VERB.cpp.
Verb TaskListVerb();
Verb TaskShowVerb();
Verb TaskLogVerb();
Verb TaskWaitVerb();

/// Follows a task to its end, with a progress bar; the code is kDone when it ended with exit code
/// 0, else that is told. An unknown task is pnl_err::Missed.
[[nodiscard]] Answer FollowTask(Context& context, const std::string& id);

/// A task's record, as FollowTask answers it.
[[nodiscard]] const FieldTable<pnl_task::Status>& TaskTable();

/// The word ID.
void AddTaskId(opts::Args& args);

}  // namespace tools
