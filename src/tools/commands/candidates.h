#pragma once

#include <string>
#include <vector>

/// The names of a panel's items, for completion scripts.
namespace tools {

/// One line for each candidate of `list`: "templates", "installed", "macros" (of the installed
/// templates among `words`), "repositories", "recipes", "tasks", "listen", "nodes", "selections" or "runs".
/// `words` is the command line before the cursor; its options --prefix, --templates and --recipes
/// are used.
///
/// A user is waiting at the prompt: only files are read, nothing is fetched, unreadable files are
/// skipped, and the process ends after one second.
[[nodiscard]] std::string Candidates(const std::string& list,
                                     const std::vector<std::string>& words);

}  // namespace tools
