// Saved plans, without their last line: no fuzzer finds a sum.

#include <string>

#include "check.h"
#include "fleet/saved_plan.h"
#include "pnl/cksum.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  text += "sum " + std::to_string(pnl_file::Cksum::Of(text)) + " " + std::to_string(size) + "\n";
  try {
    const fleet::SavedPlan plan = fleet::SavedPlan::Read(text, "p");
    fuzz::Check(plan.Text() == text, "the same text again");
    for (const fleet::SavedNode& node : plan.nodes) {
      const fleet::Looks looks = fleet::LooksOf(node.steps);
      fuzz::Check(looks.entries.size() + looks.parameters.size() <= 2 * node.steps.size(), "looks");
    }
  } catch (const pnl_err::Error& error) {
    fuzz::Check(error.type() == fleet::kSavedPlanError, "the error");
  }
  return 0;
}
