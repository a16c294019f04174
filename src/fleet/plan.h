#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"

/// A change as data. One value is used to show the change, to check it, to make it and to report
/// it: what was shown is what is done.
///
///     const fleet::Plan plan = {{.node = "web1", .kind = fleet::StepKind::kFile,
///                                .object = "/etc/motd", .before = "", .after = text}};
///     if (fleet::Changes(plan)) Show(fleet::DiffOf(plan) + fleet::WordsOf(plan));
namespace fleet {

enum class StepKind {
  kFile,     ///< the text of a file
  kValue,    ///< a named value, kept by the kernel or the library
  kCommand,  ///< a command line; always counts as a change
};

/// One change on one host.
struct FLEET_API Step {
  std::string node = {};  ///< its address; "localhost" for this host
  StepKind kind = StepKind::kCommand;
  std::string object = {};                 ///< the file's path, or the value's name
  std::optional<std::string> before = {};  ///< of a file or value; none: it does not exist
  std::optional<std::string> after = {};   ///< the new text or value; none: it is removed
  std::string words = {};                  ///< the command line
};

using Plan = std::vector<Step>;

/// Whether the step changes anything.
[[nodiscard]] FLEET_API bool Changes(const Step& step);
[[nodiscard]] FLEET_API bool Changes(const Plan& plan);

/// The unified diffs of all files of the plan. In a plan for several nodes a file is named
/// "NODE:PATH".
[[nodiscard]] FLEET_API std::string DiffOf(const Plan& plan);
/// The other steps, one line each: "NAME: BEFORE -> AFTER" for a value that changes ("-" for none),
/// and command lines.
[[nodiscard]] FLEET_API std::string WordsOf(const Plan& plan);

}  // namespace fleet
