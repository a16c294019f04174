#pragma once

namespace console {

/// What a program does first, whoever started it: takes the numbers of standard streams that it was
/// started without, so that the next file does not become one of them; adds the directories of the
/// system's own programs to PATH, which cron's lacks; ignores SIGPIPE, so that a reader that left is
/// an error of writing.
void Begin();

}  // namespace console
