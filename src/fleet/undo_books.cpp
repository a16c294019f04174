// Undoing with all that the books have.

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "fleet/host_steps.h"
#include "fleet/undo_lines.h"

namespace fleet {

/// What takes the lines of a step back; null if that is not possible, with the reason.
static std::optional<RunStep> LinesBack(const RunStep& step, const Place& place,
                                        std::string& reason) {
  const FileText before = step.before.kind == PathKind::kMissing
                              ? std::make_shared<const std::string>()
                              : step.before.content;
  const bool can_be_read = place.path == step.object && place.state.kind == PathKind::kFile;
  if (!before || !step.after.content || !place.state.content || !can_be_read) return std::nullopt;
  LinesUndone undone = UndoLines(*before, *step.after.content, *place.state.content);
  reason = std::move(undone.why);
  if (!undone.text) return std::nullopt;
  RunStep back{.object = step.object, .before = place.state};
  if (step.before.kind == PathKind::kMissing && undone.text->empty()) return back;
  back.after = PathState::File(*std::move(undone.text));
  // Attributes that others have changed stay as well.
  back.after.mode =
      place.state.mode == step.after.mode && step.before.mode ? step.before.mode : place.state.mode;
  back.after.owner = place.state.owner == step.after.owner && !step.before.owner.empty()
                         ? step.before.owner
                         : place.state.owner;
  return back;
}

namespace {

/// Steps that undo single lines, by number, and why others cannot.
struct AllLines {
  std::map<std::size_t, RunStep> back;
  std::map<std::size_t, std::string> reasons;
};

AllLines LinesOf(pnl_host::Host& host, const std::vector<RunStep>& steps,
                 const std::set<std::size_t>& which) {
  AllLines lines;
  Looks looks;
  for (const std::size_t i : which) looks.texts.insert(steps[i].object);
  if (which.empty()) return lines;
  const Sight sight = Look(host, looks);
  for (const std::size_t i : which) {
    const Place& place = sight.files.at(steps[i].object);
    if (place.state.SameContent(steps[i].after) || place.state.SameContent(steps[i].before))
      continue;
    std::optional<RunStep> back = LinesBack(steps[i], place, lines.reasons[i]);
    if (back) lines.back.emplace(i, *std::move(back));
  }
  return lines;
}

/// The last step of each object that may be undone by lines.
std::set<std::size_t> LastByLines(const std::vector<RunStep>& steps) {
  std::set<std::size_t> which;
  std::set<std::string> objects;
  for (std::size_t i = steps.size(); i-- > 0;)
    if (objects.insert(steps[i].object).second && steps[i].by_lines) which.insert(i);
  return which;
}

}  // namespace

/// Files are undone as often as it takes. Commands are undone once, and take with them what files
/// need, so that all that may be needed comes at once.
Undone UndoFromBooks(pnl_host::Host& host, const RunMark& run, const std::vector<RunStep>& steps) {
  Undone undone;
  std::set<std::size_t> which;
  const bool once = std::any_of(steps.begin(), steps.end(), RunsCommand);
  if (once) {
    which = LastByLines(steps);
  } else {
    undone.verdicts = UndoSteps(host, run, steps, false, {}, &undone.guard);
    const bool wanted =
        std::any_of(undone.verdicts.begin(), undone.verdicts.end(),
                    [](const Verdict& verdict) { return verdict.result == StepResult::kWanted; });
    if (wanted) undone.verdicts = UndoSteps(host, run, steps, true);
    for (std::size_t i = 0; i < steps.size(); ++i)
      if (undone.verdicts[i].result == StepResult::kConflict && steps[i].by_lines) which.insert(i);
  }
  AllLines lines = LinesOf(host, steps, which);
  if (once || !lines.back.empty())
    undone.verdicts = UndoSteps(host, run, steps, true, lines.back, once ? &undone.guard : nullptr);
  for (auto& [i, reason] : lines.reasons) {
    if (lines.back.contains(i)) undone.by_lines.push_back(steps[i].object);
    if (undone.verdicts[i].result == StepResult::kConflict)
      undone.verdicts[i].reason = std::move(reason);
  }
  return undone;
}

}  // namespace fleet
