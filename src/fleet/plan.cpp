#include "fleet/plan.h"

#include <algorithm>

#include "fleet/diff.h"

namespace fleet {

bool Changes(const Step& step) {
  return step.kind == StepKind::kCommand || step.before != step.after;
}

bool Changes(const Plan& plan) {
  return std::any_of(plan.begin(), plan.end(), [](const Step& step) { return Changes(step); });
}

std::string DiffOf(const Plan& plan) {
  const bool several = std::any_of(
      plan.begin(), plan.end(), [&](const Step& step) { return step.node != plan.front().node; });
  std::string diff;
  for (const Step& step : plan) {
    if (step.kind != StepKind::kFile) continue;
    const std::string path = several ? step.node + ":" + step.object : step.object;
    diff += UnifiedDiff(step.before.value_or(""), step.after.value_or(""), path);
  }
  return diff;
}

std::string WordsOf(const Plan& plan) {
  std::string lines;
  for (const Step& step : plan) {
    if (step.kind == StepKind::kCommand) {
      lines += step.words + "\n";
    } else if (step.kind == StepKind::kValue && Changes(step)) {
      lines +=
          step.object + ": " + step.before.value_or("-") + " -> " + step.after.value_or("-") + "\n";
    }
  }
  return lines;
}

}  // namespace fleet
