#pragma once

#include <string>
#include <vector>

#include "tools/frame/verb.h"

/// What other families use of tasks.
namespace tools {

/// Follows a task to its end, with a progress bar, and prints its state; kDone when it ended with
/// exit code 0. An unknown task is pnl_err::Missed.
int FollowTask(Context& context, const std::string& id);

/// The fields of a task's record, as FollowTask prints it.
std::vector<Field> TaskFields();

}  // namespace tools
