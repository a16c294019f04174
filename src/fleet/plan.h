#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"

/// A change as data: it is shown, asked about, carried out and told of from one value, so that what
/// was shown is what is done.
///
///     const fleet::Plan plan = {{.node = "web1", .kind = fleet::StepKind::kFile,
///                                .object = "/etc/motd", .before = "", .after = text}};
///     if (fleet::Changes(plan)) Show(fleet::DiffOf(plan) + fleet::WordsOf(plan));
namespace fleet {

enum class StepKind {
  kFile,     ///< the text of a file
  kValue,    ///< a named value that is kept by somebody: the kernel, a library
  kCommand,  ///< a command line, which always has something to do
};

/// One thing that is to become different on one host.
struct FLEET_API Step {
  std::string node = {};  ///< its address; "localhost" for this host
  StepKind kind = StepKind::kCommand;
  std::string object = {};  ///< the file's path, or the value's name
  std::optional<std::string> before =
      {};  ///< of a file or value as it was read; none: it is not there
  std::optional<std::string> after = {};  ///< what it is to be; none: it is to go
  std::string words = {};                 ///< a command as it is typed on that host
};

using Plan = std::vector<Step>;

/// Whether there is anything to do.
[[nodiscard]] FLEET_API bool Changes(const Step& step);
[[nodiscard]] FLEET_API bool Changes(const Plan& plan);

/// Its files, as unified diffs one behind the other. In a plan for several nodes a file is
/// "NODE:PATH" there.
[[nodiscard]] FLEET_API std::string DiffOf(const Plan& plan);
/// Its other steps, a line each: "NAME: BEFORE -> AFTER" of a value that changes, "-" for none, and
/// commands as they are typed.
[[nodiscard]] FLEET_API std::string WordsOf(const Plan& plan);

}  // namespace fleet
