#pragma once

#include <string>

#include "brefir/cmdarg.h"

/// Completion scripts of a program, rendered from its registration.
namespace tools {

/// A script that completes the program's commands, options, choices, files (value name FILE),
/// directories (DIR) and what `PROGRAM --candidates LIST WORD...` prints, a candidate a line, for
/// values and words that say so (Completes); `shell` is "bash", "zsh" or "fish".
[[nodiscard]] std::string Completion(const opts::Args& program, const std::string& shell);

}  // namespace tools
