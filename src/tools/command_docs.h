#pragma once

#include <string>

#include "brefir/cmdarg.h"

/// Completion scripts and man pages of a program, rendered from its registration.
namespace tools {

/// A script that completes the program's commands, options, choices, files (value name FILE) and
/// directories (DIR); `shell` is "bash", "zsh" or "fish".
[[nodiscard]] std::string Completion(const opts::Args& program, const std::string& shell);

/// A man page (man(7) macros) of the program, or of one family with all its verbs. An unknown
/// family is pnl_err::Error of type "usage".
[[nodiscard]] std::string ManPage(const opts::Args& program, const std::string& family);

}  // namespace tools
