#pragma once

#include <string>

#include "brefir/cmdarg.h"

namespace opts {

/// A script that completes a program's command lines in `shell`, which is "bash", "zsh" or "fish":
/// commands, options, choices, files and directories. A value or word completes to files when its
/// name has FILE in it, to directories with DIR, and to what Arg::Completes says; lists of the
/// program's own are what `PROGRAM --candidates LIST WORD...` prints, a candidate a line, WORDs
/// being those before the cursor.
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
