#pragma once

#include <functional>
#include <vector>

#include "fleet/plan.h"
#include "tools/frame/answer.h"
#include "tools/frame/context.h"
#include "tools/frame/output.h"

/// The changes that verbs return to the frame.
namespace tools {

struct Change {
  fleet::Plan plan;
  /// Makes the change. Also called when there is nothing to do, for its output. It owns what the
  /// change needs, such as locks.
  std::function<Answer()> make;
  /// Set for --nodes: the plan and the output of --check are then lists with a record for each of
  /// these nodes.
  std::vector<std::string> nodes = {};
};

/// Shows, checks or makes the change, as the command line says; returns the exit code. Adds
/// "changed" as the last field of each record, unless the verb has set it.
[[nodiscard]] int CarryOut(Context& context, const Change& change);

/// The fields of the output of --dry-run and --check.
[[nodiscard]] std::vector<Field> PlanFields();

}  // namespace tools
