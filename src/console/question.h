#pragma once

#include <string>

namespace console {

/// Whether there is somebody to ask: standard input and standard error are a terminal.
[[nodiscard]] bool CanAsk();
/// Asks on standard error; only "y" and "yes" are a yes.
[[nodiscard]] bool Agrees(const std::string& question);

}  // namespace console
