#pragma once

#include <string>
#include <vector>

/// What a panel has, for completion scripts.
namespace tools {

/// A line for each candidate of `list`: "templates", "installed", "macros" (of the installed
/// templates among `words`), "repositories", "recipes", "tasks", "listen" or "nodes". `words` is
/// the command line before the cursor; of its options --prefix, --templates and --recipes count.
///
/// People wait for it at the prompt: only files are read, nothing is fetched, what cannot be read
/// is passed over, and after a second the process ends.
[[nodiscard]] std::string Candidates(const std::string& list,
                                     const std::vector<std::string>& words);

}  // namespace tools
