#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brefir/recipes.h"
#include "fleet/export.h"
#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/ssh.h"

/// Runs recipes on a node: access checks, the run, and its log.
///
///     const recipe::Manage manage("nodemgr", "/opt/panel/var/recipes");
///     fleet::RecipePlan plan{.recipe = manage.GetById("main__web.sh", true), .node = "web1"};
///     plan.environment = {{"PORT", "80"}};
///     fleet::RequireRunnable(*plan.recipe, "root");
///     const auto open = [&] { return pnl_rpc::SSH(options); };
///     const fleet::RecipeOutcome outcome =
///         fleet::RunRecipe(plan, open(), {.output = Show, .stop = Interrupted, .open = open});
///     const std::string log = fleet::WriteRecipeLog(plan, outcome);
namespace fleet {

inline constexpr const char* kAdministrator = "root";  ///< may run every recipe that is not locked

/// Throws pnl_err::Error("recipe", "refused", id) with a message for a recipe that `user` must not
/// run, that has no name, or that does not run over SSH. Nobody may run a locked recipe. The
/// administrator may run all others. Other users may run their own recipes and those with access
/// "any".
FLEET_API void RequireRunnable(const recipe::RecipeInfo& info, const std::string& user);

/// Whether `word` is a valid name of a shell variable.
[[nodiscard]] FLEET_API bool IsVariableName(std::string_view word);

/// A run of a recipe.
struct RecipePlan {
  recipe::RecipeInfoPtr recipe;  ///< with its content
  std::string node;              ///< the node's name for the log
  std::string dir = "/tmp";      ///< directory on the node for the script while it runs
  /// Names and values of environment variables, set in this order.
  std::vector<std::pair<std::string, std::string>> environment = {};
};

/// The command line that runs the plan's script at `path` on the node and then removes it. The
/// first line of its output is the script's process group. After the script's own output it prints
/// `end`, because background processes may keep the output open for ever. `end` must be a plain
/// word. Throws pnl_err::Error("recipe", "environment", name) for an invalid name of a variable.
[[nodiscard]] FLEET_API std::string RecipeCommand(const RecipePlan& plan, const std::string& path,
                                                  const std::string& end);

/// Callbacks of a run; each may be empty. They are called on the caller's thread unless stated
/// otherwise. What they throw is logged and has no other effect.
struct RecipeCalls {
  /// Gets the script's output, including standard error, in blocks of whole characters. A thread of
  /// the run calls it.
  std::function<void(std::string_view block)> output = {};
  /// Called about fifty times a second. When it returns true, nothing further is started, the
  /// script's process group gets SIGTERM, and SIGKILL 10 s later. It may read a flag that another
  /// thread or a signal handler sets.
  std::function<bool()> stop = {};
  /// Opens another session to the node, which is used to end the script. Its errors are passed to
  /// `not_ended`. When `open` is empty, a started script runs to its end.
  std::function<pnl_rpc::SSH()> open = {};
  /// Called when the script could not be ended; the run goes on.
  std::function<void(const pnl_err::Error& error)> not_ended = {};
};

/// How a run ended.
struct RecipeOutcome {
  std::optional<int> code;  ///< exit code of the script; null when not started or not known
  std::optional<pnl_err::Error> error;  ///< why the code is null
  bool stopped = false;                 ///< whether `stop` has returned true
  std::string tail;                     ///< the end of the output, by recipe::TruncateOutput
  pnl_date::DateTime started = {};
  pnl_date::DateTime ended = {};
};

/// Runs a plan over `ssh` on a separate thread and waits for it. Do not use the session meanwhile.
/// Failures on the node are in the outcome. Throws what RecipeCommand throws, before anything is
/// done, and "thread" when the system refuses a thread.
[[nodiscard]] FLEET_API RecipeOutcome RunRecipe(const RecipePlan& plan, pnl_rpc::SSH ssh,
                                                const RecipeCalls& calls);

/// The name of the file in var/recipes/log with the last run of a recipe on a node.
[[nodiscard]] FLEET_API std::string RecipeLogName(const std::string& id, const std::string& node);

/// Writes that file (mode 0600) with the plan, its outcome and the end of the output, and returns
/// its path. Throws pnl_err::Error("recipe", "log_name", name) when the id or node cannot be part
/// of a file name, and what writing throws.
FLEET_API std::string WriteRecipeLog(const RecipePlan& plan, const RecipeOutcome& outcome);

}  // namespace fleet
