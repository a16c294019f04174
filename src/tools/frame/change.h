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
  Answer(Record record) : records{std::move(record)} {}
  Answer(std::vector<Record> list) : records(std::move(list)), is_list(true) {}

  std::vector<Record> records;
  bool is_list = false;
};

struct Change {
  fleet::Plan plan;
  /// Carries the plan out. Called also when there is nothing to do, for what it tells; it holds what
  /// the change needs, such as locks.
  std::function<Answer()> make;
};

/// Shows the change, asks about it or carries it out, as the command line says; its exit code.
/// Each record that it tells has "changed" as its last field.
[[nodiscard]] int CarryOut(Context& context, const Change& change);

}  // namespace tools
