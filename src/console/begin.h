#pragma once

namespace console {

/// The first call of every program. Opens missing standard streams, so that no later file gets
/// their numbers. Adds the sbin directories to PATH, because cron's PATH lacks them. Ignores
/// SIGPIPE, so that writing to a closed pipe is an error.
void Begin();

}  // namespace console
