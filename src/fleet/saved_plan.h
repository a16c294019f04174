#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/draft.h"
#include "fleet/export.h"
#include "fleet/run_step.h"

/// Plans of runs that are shown today, and made later: exactly these steps, or none.
///
///     const fleet::SavedPlan plan = fleet::SavedPlan::Read(pnl_file::ReadE("web.plan"), "web.plan");
///     fleet::RequireSources(plan);
///     const fleet::SavedNode& node = plan.nodes.front();
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     const fleet::RunTarget target{.name = node.name, .login = fleet::ReadLogin(node.login)};
///     fleet::Run run(&journal, {target}, {.command = plan.command});
///     run.PlanAsSaved({node.steps}, {node.machine});
///     if (run.Failed() == 0) Show(run.Make().reason);
///
/// The file is text, without secrets, but with the content of files: keep it readable for its owner
/// only. Values are percent-encoded. A cut or edited file is refused by its last line, the sum and
/// size of all before as cksum(1) prints them; that is no protection against somebody who means it.
///
///      brefir plan 1
///      command apply%20web.changes
///      node web1
///      machine 5f3a9c21d0e84b6f8a2c41b7d95e6a13
///      login host=10.0.0.5 name=web1 port=22 user=root
///      step form=path object=/etc/motd before=file ...
///      sum 2145687413 310
///
/// The functions are thread-safe.
namespace fleet {

/// The type of errors about such a file: pnl_err::Error(kSavedPlanError, path), with a message, and
/// with the parameter "line" when it is about a line.
inline constexpr const char* kSavedPlanError = "saved_plan";

struct SavedNode {
  std::string name;
  std::string machine;              ///< Sight::machine
  std::string login = {};           ///< LoginText; "": this host
  std::vector<RunStep> steps = {};  ///< none: it was as it should be
};

struct FLEET_API SavedPlan {
  std::string command;  ///< that made it, for people
  std::vector<SavedNode> nodes = {};

  /// The text of the file. Throws pnl_err::Error(kSavedPlanError, NODE, OBJECT), with a message, for a
  /// secret step, whose content cannot be in it.
  [[nodiscard]] std::string Text() const;
  /// The plan of such a text; `path` is for errors. Throws kSavedPlanError.
  [[nodiscard]] static SavedPlan Read(std::string_view text, const std::string& path);
};

/// Files of this host whose content is too large for the plan (RunStep::source) must be as they were.
/// Throws pnl_err::Error(kSavedPlanError, FILE), with a message, and "file".
FLEET_API void RequireSources(const SavedPlan& plan);

// --- On a host

/// What these steps start from and lead to.
[[nodiscard]] FLEET_API Looks LooksOf(const std::vector<RunStep>& steps);
/// Returns the steps if the host is as it was before them, none if it already is as they leave it.
/// Anything else throws as Draft does. `draft` has seen LooksOf(steps).
[[nodiscard]] FLEET_API std::vector<RunStep> StillToDo(const Draft& draft,
                                                       const std::vector<RunStep>& steps);

}  // namespace fleet
