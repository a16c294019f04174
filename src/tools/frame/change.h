#pragma once

#include <functional>
#include <vector>

#include "fleet/plan.h"
#include "tools/frame/context.h"
#include "tools/frame/output.h"

/// What a changing verb gives to the frame.
namespace tools {

/// What is told of a change that was made: one record, or a list of them.
struct Answer {
  Answer(Record record, std::vector<std::string> shown = {})
      : records{std::move(record)}, columns(std::move(shown)) {}
  Answer(std::vector<Record> list, std::vector<std::string> shown = {})
      : records(std::move(list)), is_list(true), columns(std::move(shown)) {}

  std::vector<Record> records;
  bool is_list = false;
  std::vector<std::string> columns = {};  ///< what people see of it; all when empty
  std::string word = {};                  ///< people see only this field of the one record, bare
  int code = kDone;
};

struct Change {
  fleet::Plan plan;
  /// Carries the plan out. Called also when there is nothing to do, for what it tells; it holds what
  /// the change needs, such as locks.
  std::function<Answer()> make;
  /// The change of --nodes: what is shown of the plan and told by --check is a list, too, with a
  /// record for each of these nodes.
  std::vector<std::string> nodes = {};
};

/// Shows the change, asks about it or carries it out, as the command line says; its exit code.
/// Each record that it tells has "changed", unless the verb has set it, as its last field.
[[nodiscard]] int CarryOut(Context& context, const Change& change);

/// What --dry-run and --check print.
[[nodiscard]] std::vector<Field> PlanFields();

}  // namespace tools
