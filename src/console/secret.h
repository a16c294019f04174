#pragma once

#include <string>

/// Asking for a password.
namespace console {

/// Prints the prompt on the terminal of the process, /dev/tty, and returns the line that is typed.
/// What is typed is not shown. Drawings wait meanwhile (console::DrawingLock). Throws
/// pnl_err::Error("file") if there is no terminal, and fleet::kInterrupted after Ctrl-C, which also
/// has its usual effect, and after an interruption that is being noted.
[[nodiscard]] std::string AskSecret(const std::string& prompt);

}  // namespace console
