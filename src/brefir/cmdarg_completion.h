#pragma once

#include <string>

#include "brefir/cmdarg.h"

namespace opts {

/// A script that completes a program's command lines in `shell`, which is "bash", "zsh" or "fish":
/// commands, options, choices, files and directories. A value or word completes to files when its
/// name contains FILE, to directories when it contains DIR, and otherwise to what Arg::Completes
/// sets. For a list of the program itself the script runs `PROGRAM --candidates LIST WORD...`,
/// where the WORDs are those before the cursor; the program prints one candidate a line.
///
///     opts::Args args("nodectl", "Looks after a node.");
///     args.Option("completion").OneOf({"bash", "zsh", "fish"}).Help("print it for a shell").Last();
///     const opts::Values values = args.Parse(argc, argv);
///     if (values.EndedBy() == "completion")
///       puts(opts::Completion(args, values.Str("completion")).c_str());
///
/// Any thread may call it.
[[nodiscard]] BREFIR_API std::string Completion(const Args& program, const std::string& shell);

}  // namespace opts
