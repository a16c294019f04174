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

/// Recipes on a node: who may run them, the run, and the log of it.
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

inline constexpr const char* kAdministrator = "root";  ///< who may run what is not locked

/// Throws pnl_err::Error("recipe", "refused", id), with a message, for a recipe that `user` must
/// not run, that has no name, or that does not run over SSH. Nobody runs a locked recipe. The
/// administrator runs all others, and everybody those that are for all and his own.
FLEET_API void RequireRunnable(const recipe::RecipeInfo& info, const std::string& user);

/// Whether a shell can have a variable of that name.
[[nodiscard]] FLEET_API bool IsVariableName(std::string_view word);

/// What is to be run.
struct RecipePlan {
  recipe::RecipeInfoPtr recipe;  ///< with its content
  std::string node;              ///< as the log calls it
  std::string dir = "/tmp";      ///< on the node: where the script is put for as long as it runs
  /// Names and values, set in the script's environment in this order.
  std::vector<std::pair<std::string, std::string>> environment = {};
};

/// The command line that runs a plan's script, which lies at `path` on the node; it is removed when
/// it has run. The output begins with the process group in a line of its own, and `end` stands
/// behind the script's: what it left in the background may hold the output open for ever. `end` has
/// to be a plain word. Throws pnl_err::Error("recipe", "environment", name) for what is no name of
/// a variable.
[[nodiscard]] FLEET_API std::string RecipeCommand(const RecipePlan& plan, const std::string& path,
                                                  const std::string& end);

/// What a run calls, on the caller's thread unless said otherwise; all of it may be empty. What
/// these throw is logged and changes nothing.
struct RecipeCalls {
  /// Gets the script's output, standard error with it, as it comes, in blocks that do not end
  /// within a character. A thread of the run calls it.
  std::function<void(std::string_view block)> output = {};
  /// Asked about fifty times a second: from its first true on, nothing more is begun, and the
  /// script with all its process group gets SIGTERM, and SIGKILL 10 s later. Another thread, or a
  /// signal handler, brings that about by what this looks at.
  std::function<bool()> stop = {};
  /// Opens another session to the node, to end the script over; its errors go to `not_ended`.
  /// Without it a script that has begun runs to its end.
  std::function<pnl_rpc::SSH()> open = {};
  /// The script could not be ended; the run goes on.
  std::function<void(const pnl_err::Error& error)> not_ended = {};
};

/// How a run ended.
struct RecipeOutcome {
  std::optional<int> code;              ///< of the script; null when it was not begun, or not known
  std::optional<pnl_err::Error> error;  ///< why it could not be run, or is not known
  bool stopped = false;                 ///< whether `stop` was true at the end
  std::string tail;                     ///< the end of the output, as recipe::TruncateOutput has it
  pnl_date::DateTime started = {};
  pnl_date::DateTime ended = {};
};

/// Runs a plan over `ssh`, which is the run's until it returns, on a thread of its own; the caller
/// waits. What fails on the node is in the outcome. Throws what RecipeCommand throws, before
/// anything is done, and "thread" when the system refuses one.
[[nodiscard]] FLEET_API RecipeOutcome RunRecipe(const RecipePlan& plan, pnl_rpc::SSH ssh,
                                                const RecipeCalls& calls);

/// The name of the file in var/recipes/log that keeps the last run of a recipe on a node.
[[nodiscard]] FLEET_API std::string RecipeLogName(const std::string& id, const std::string& node);

/// Writes that file (mode 0600), of the plan, its outcome and the end of the output, and returns
/// its path. Throws pnl_err::Error("recipe", "log_name", name) when id or node cannot be in a
/// file's name, and what writing throws.
FLEET_API std::string WriteRecipeLog(const RecipePlan& plan, const RecipeOutcome& outcome);

}  // namespace fleet
