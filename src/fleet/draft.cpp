#include "fleet/draft.h"

#include <algorithm>
#include <set>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/errors.h"
#include "fleet/shell_words.h"
#include "fleet/sshd_steps.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {

/// What the host runs, or will: it may bring what no look has seen.
static bool IsCommand(const RunStep& step) {
  return RunsCommand(step) || step.form == StepForm::kLate;
}

Draft::Draft(std::string host, Sight sight) : host_(std::move(host)), sight_(std::move(sight)) {}

void Draft::Refuse(const std::string& path, const std::string& why) const {
  throw pnl_err::Error("node", host_, path).add_param("message", host_ + ": " + why);
}

void Draft::Absent(const std::string& path, const std::string& why) const {
  throw pnl_err::Error("node", host_, path)
      .add_param(kIsMissing, "1")
      .add_param("message", host_ + ": " + why);
}

// --- Reading

const Place& Draft::Seen(const std::map<std::string, Place>& places,
                         const std::string& path) const {
  const auto found = places.find(path);
  if (found == places.end()) throw pnl_err::Missed("path", path);
  return found->second;
}

const PathState& Draft::Now(const Place& place) const {
  const auto found = now_.find(place.path);
  return found == now_.end() ? place.state : found->second;
}

const PathState& Draft::File(const std::string& path) const {
  return Now(Seen(sight_.files, path));
}

const PathState& Draft::Entry(const std::string& path) const {
  return Now(Seen(sight_.entries, path));
}

void Draft::RequireFile(const std::string& path, const PathState& state) const {
  switch (state.kind) {
    case PathKind::kFile:
      return;
    case PathKind::kMissing:
      Absent(path, "there is no '" + path + "'");
    case PathKind::kDirectory:
      Refuse(path, "'" + path + "' is a directory");
    case PathKind::kLink:
      Refuse(path, "'" + path + "' is a link that leads nowhere");
    case PathKind::kOther:
      Refuse(path, "'" + path + "' is no regular file");
  }
}

std::optional<std::string> Draft::Text(const std::string& path) const {
  const PathState& state = File(path);
  if (state.kind == PathKind::kMissing) return std::nullopt;
  RequireFile(path, state);
  if (!state.content)
    Refuse(path,
           "'" + path + "' is too large to be edited: " + std::to_string(state.size) + " bytes");
  return *state.content;
}

std::string Draft::Value(const std::string& parameter) const {
  for (auto step = steps_.rbegin(); step != steps_.rend(); ++step)
    if (step->form == StepForm::kParameter && step->object == parameter) return step->value;
  const auto found = sight_.parameters.find(parameter);
  if (found == sight_.parameters.end()) throw pnl_err::Missed("parameter", parameter);
  if (!found->second.value)
    Absent(parameter, "parameter '" + parameter + "' cannot be read: " + found->second.reason);
  return *found->second.value;
}

// --- Editing

void Draft::RequireOutsideTrees(const std::string& path) const {
  for (const std::string& tree : trees_) {
    if (!path.starts_with(tree + "/")) continue;
    Refuse(path, str::Format("'%s' is in '%s', which the same change moves or removes: make this a "
                             "change of its own",
                             path, tree));
  }
}

/// What is made at a path needs a directory, which an earlier edit may make.
void Draft::RequireFolder(const std::string& path, const Place& place) const {
  if (place.has_folder) return;
  const std::string folder = pnl_file::Folder(place.path);
  const auto edited = now_.find(folder);
  if (edited != now_.end() && edited->second.kind == PathKind::kDirectory) return;
  Absent(path, "'" + path + "' cannot be made: there is no directory '" + folder + "'");
}

/// The path's own step: its last one, unless the path was moved or copied since.
RunStep& Draft::StepOf(const Place& place) {
  RequireOutsideTrees(place.path);
  touched_.push_back(place.path);
  for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
    if (step->object != place.path && step->from != place.path) continue;
    if (step->form != StepForm::kPath) break;
    step->secret = step->secret || secret_;
    return *step;
  }
  RunStep step{.object = place.path};
  step.before = Now(place);
  step.after = step.before;
  step.secret = secret_;
  steps_.push_back(step);
  return steps_.back();
}

void Draft::Replace(const std::string& path, PathState after, std::string source,
                    const WriteOptions& options) {
  const Place& place = Seen(sight_.files, path);
  const PathState& now = Now(place);
  if (now.kind != PathKind::kMissing) RequireFile(path, now);
  RequireFolder(path, place);
  RunStep& step = StepOf(place);
  after.mode = now.kind == PathKind::kMissing ? options.new_mode : now.mode;
  after.owner = now.owner;
  step.after = now_[place.path] = std::move(after);
  step.source = std::move(source);
  step.by_lines = step.by_lines || options.by_lines;
  step.secret = step.secret || options.secret;
}

void Draft::Write(const std::string& path, FileText content, const WriteOptions& options) {
  Replace(path, PathState::File(std::move(content)), "", options);
}

void Draft::WriteFrom(const std::string& path, const std::string& source, std::uint64_t size,
                      std::uint32_t sum, const WriteOptions& options) {
  Replace(path, PathState::File(size, sum), source, options);
}

void Draft::SetMode(const std::string& path, unsigned mode) {
  const Place& place = Seen(sight_.files, path);
  PathState now = Now(place);
  if (now.kind == PathKind::kMissing || now.kind == PathKind::kLink) RequireFile(path, now);
  now.mode = mode;
  RunStep& step = StepOf(place);
  step.after = now_[place.path] = std::move(now);
}

void Draft::SetOwner(const std::string& path, const std::string& owner) {
  const Place& place = Seen(sight_.files, path);
  PathState now = Now(place);
  if (now.kind == PathKind::kMissing || now.kind == PathKind::kLink) RequireFile(path, now);
  std::string_view old = now.owner;
  std::string_view given = owner;
  const std::string_view old_user = str::NextWord(old, ':');
  const std::string_view user = str::NextWord(given, ':');
  now.owner =
      std::string(user.empty() ? old_user : user) + ":" + std::string(given.empty() ? old : given);
  RunStep& step = StepOf(place);
  step.after = now_[place.path] = std::move(now);
}

void Draft::Touch(const std::string& path, std::int64_t time) {
  const Place& place = Seen(sight_.files, path);
  PathState now = Now(place);
  if (now.kind == PathKind::kMissing) return Write(path, "");
  if (now.kind == PathKind::kLink) RequireFile(path, now);
  if (now_.count(place.path) != 0) return;  // it is written, and its time is new
  RunStep step{.object = place.path, .before = now, .after = now};
  step.before.time = place.time;
  step.after.time = time;
  RequireOutsideTrees(place.path);
  touched_.push_back(place.path);
  steps_.push_back(step);
}

void Draft::MakeDirs(const std::string& path) {
  const auto found = sight_.missing.find(path);
  if (found == sight_.missing.end()) throw pnl_err::Missed("path", path);
  if (!found->second) Refuse(path, "'" + path + "' cannot be made: a part of it is no directory");
  RequireOutsideTrees(path);
  std::vector<std::string> missing;
  const auto place = sight_.files.find(path);  // its path without links and "~"
  std::string part = place == sight_.files.end() ? path : place->second.path;
  for (std::size_t i = 0; i < *found->second; ++i) {
    missing.push_back(part);
    part = pnl_file::Folder(part);
  }
  for (auto name = missing.rbegin(); name != missing.rend(); ++name) {
    if (now_.count(*name) != 0) continue;  // another edit makes it
    RunStep step{.object = *name};
    step.after.kind = PathKind::kDirectory;
    now_[*name] = step.after;
    touched_.push_back(*name);
    steps_.push_back(step);
  }
}

void Draft::Link(const std::string& path, const std::string& target) {
  const Place& place = Seen(sight_.entries, path);
  const PathState& now = Now(place);
  if (now.kind == PathKind::kLink && now.target == target) return;
  if (now.kind != PathKind::kMissing) Refuse(path, "'" + path + "' is there already");
  RequireFolder(path, place);
  PathState after;
  after.kind = PathKind::kLink;
  after.target = target;
  RunStep& step = StepOf(place);
  step.after = now_[place.path] = std::move(after);
}

void Draft::Remove(const std::string& path, bool recursive) {
  const Place& place = Seen(sight_.entries, path);
  const PathState& now = Now(place);
  if (now.kind == PathKind::kMissing) return;
  if (now.kind == PathKind::kDirectory) {
    if (!recursive)
      Refuse(path, "'" + path + "' is a directory; --recursive removes it with all its content");
    trees_.push_back(place.path);
  }
  RunStep& step = StepOf(place);
  step.after = now_[place.path] = {};
}

void Draft::Move(const std::string& from, const std::string& to) {
  const Place& source = Seen(sight_.entries, from);
  const Place& target = Seen(sight_.entries, to);
  const PathState moved = Now(source);
  const PathState there = Now(target);
  if (moved.kind == PathKind::kMissing) Absent(from, "there is no '" + from + "'");
  if (source.path == target.path) Refuse(from, "'" + from + "' and '" + to + "' are the same");
  if (target.path.starts_with(source.path + "/"))
    Refuse(from, "'" + from + "' cannot be moved into itself");
  if (there.kind != PathKind::kMissing &&
      (moved.kind == PathKind::kDirectory || there.kind == PathKind::kDirectory))
    Refuse(to, "'" + to + "' is there already");
  RequireFolder(to, target);
  RequireOutsideTrees(source.path);
  RequireOutsideTrees(target.path);
  steps_.push_back({.form = StepForm::kMove,
                    .object = target.path,
                    .before = there,
                    .after = moved,
                    .from = source.path,
                    .secret = secret_});
  touched_.push_back(target.path);
  now_[target.path] = moved;
  now_[source.path] = {};
  if (moved.kind != PathKind::kDirectory) return;
  trees_.push_back(source.path);
  trees_.push_back(target.path);
}

void Draft::Copy(const std::string& from, const std::string& to) {
  const Place& source = Seen(sight_.files, from);
  const Place& target = Seen(sight_.files, to);
  const PathState copied = Now(source);
  const PathState there = Now(target);
  RequireFile(from, copied);
  if (there.kind != PathKind::kMissing) RequireFile(to, there);
  if (source.path == target.path) Refuse(from, "'" + from + "' and '" + to + "' are the same");
  if (there.SameContent(copied)) return;
  RequireFolder(to, target);
  RequireOutsideTrees(source.path);
  RequireOutsideTrees(target.path);
  RunStep step{.form = StepForm::kCopy,
               .object = target.path,
               .before = there,
               .after = copied,
               .from = source.path,
               .secret = secret_};
  if (there.kind != PathKind::kMissing) step.after.mode = there.mode;
  step.after.owner = there.owner;
  step.after.time.reset();
  now_[target.path] = step.after;
  touched_.push_back(target.path);
  steps_.push_back(std::move(step));
}

void Draft::SetParameter(const std::string& name, const std::string& value) {
  const std::string now = Value(name);
  if (now == value) return;
  touched_.push_back(name);
  for (RunStep& step : steps_) {
    if (step.form != StepForm::kParameter || step.object != name) continue;
    step.value = value;
    return;
  }
  steps_.push_back(
      {.form = StepForm::kParameter, .object = name, .value_before = now, .value = value});
}

// --- Commands

void Draft::Run(const std::string& name, const std::string& command, const std::string& undo) {
  RunStep step{.form = StepForm::kCommand, .object = name, .make = command, .undo = undo};
  if (undo.empty()) step.no_undo = "a command without --undo CMD";
  touched_.push_back(name);
  steps_.push_back(std::move(step));
}

void Draft::Then(const std::string& command, std::size_t count) {
  const std::set<std::string> objects(touched_.begin() + static_cast<std::ptrdiff_t>(count),
                                      touched_.end());
  if (objects.empty()) return;
  RunStep step{.form = StepForm::kService, .object = command, .make = command};
  step.follows.assign(objects.begin(), objects.end());
  for (auto other = steps_.rbegin(); other != steps_.rend(); ++other) {
    if (other->form == StepForm::kService && other->make == command && !other->follows.empty()) {
      std::set<std::string> all(other->follows.begin(), other->follows.end());
      all.insert(objects.begin(), objects.end());
      step.follows.assign(all.begin(), all.end());
      steps_.erase(std::next(other).base());
      break;
    }
    if (IsCommand(*other) && other->form != StepForm::kService) break;
  }
  steps_.push_back(std::move(step));
}

void Draft::RunService(const std::string& command) {
  touched_.push_back(command);
  steps_.push_back({.form = StepForm::kService, .object = command, .make = command});
}

void Draft::ChangePackages(const PackageRequest& request) {
  const auto found = sight_.packages.find(request);
  const bool all = request.action == PackageRequest::Action::kUpdateAll;
  const std::string names = all ? "all" : str::Join(request.names, " ");
  if (found == sight_.packages.end()) throw pnl_err::Missed("packages", names);
  const PackagePlan& plan = found->second;
  if (plan.is_absent) Absent(names, plan.refusal);
  if (!plan.refusal.empty()) Refuse(names, plan.refusal);
  RunStep step{.form = StepForm::kPackages, .object = names, .make = plan.command};
  step.packages = plan.moves;
  step.no_undo = plan.no_undo;
  for (const RunStep& earlier : steps_)  // what an earlier step brings is there
    for (const auto& [name, move] : earlier.packages) {
      const auto own = step.packages.find(name);
      if (own == step.packages.end()) continue;
      own->second.before = move.after;
      if (own->second.before == own->second.after) step.packages.erase(own);
    }
  if (step.packages.empty()) return;
  touched_.push_back(names);
  steps_.push_back(std::move(step));
}

void Draft::Later(const std::string& words) {
  steps_.push_back({.form = StepForm::kLate, .object = words});
}

/// What follows on nothing is not run, and brings nothing.
bool Draft::MayBring() const {
  if (std::none_of(steps_.begin(), steps_.end(), IsCommand)) return false;
  const std::vector<RunStep> steps = Steps();
  return std::any_of(steps.begin(), steps.end(), IsCommand);
}

// --- The difference

static bool IsChange(const RunStep& step) {
  switch (step.form) {
    case StepForm::kMove:
    case StepForm::kCopy:
    case StepForm::kCommand:
    case StepForm::kService:
    case StepForm::kPackages:
    case StepForm::kLate:
      return true;
    case StepForm::kParameter:
      return step.value_before != step.value;
    case StepForm::kPath:
      break;
  }
  return !step.before.SameContent(step.after) || !step.before.SameAttributes(step.after) ||
         step.before.time != step.after.time;
}

static bool HasPrivateKey(const PathState& state) {
  return state.content && state.content->find("PRIVATE KEY-----") != std::string::npos;
}

/// Leaves out what the step does not need: where the content stays, it is in no journal.
static RunStep Slim(RunStep step) {
  step.secret = step.secret || HasPrivateKey(step.before) || HasPrivateKey(step.after);
  const bool stays = step.form == StepForm::kPath && step.before.SameContent(step.after);
  if (stays) step.before.content.reset();
  if (stays || step.form == StepForm::kMove || step.form == StepForm::kCopy)
    step.after.content.reset();
  if (stays && step.secret)
    for (PathState* state : {&step.before, &step.after}) state->size = state->sum = 0;
  return step;
}

/// A file whose content and attributes change: the content brings the attributes with it. What has no
/// content of its own needs a step for each.
std::vector<RunStep> Draft::Steps() const {
  std::vector<RunStep> steps;
  std::set<std::string> changed;
  for (const RunStep& step : steps_) {
    if (!IsChange(step)) continue;
    const bool idle = !step.follows.empty() &&
                      std::none_of(step.follows.begin(), step.follows.end(),
                                   [&](const auto& object) { return changed.contains(object); });
    if (idle) continue;  // nothing that the service follows has changed
    changed.insert(step.object);
    steps.push_back(Slim(step));
    std::erase_if(steps.back().follows,
                  [&](const std::string& object) { return !changed.contains(object); });
  }
  AddSshdStep(steps);
  return steps;
}

// --- For people

/// "install nginx 1.22, change libc6 2.36 -> 2.37, remove apache2 2.4".
static std::string PackageWords(const PackageMoves& moves) {
  std::string words;
  for (const auto& [name, move] : moves) {
    const char* verb = move.before.empty()  ? "install "
                       : move.after.empty() ? "remove "
                                            : "change ";
    words.append(words.empty() ? "" : ", ").append(verb).append(name).append(" ");
    words += str::Append(move.before, move.after, " -> ");
  }
  return words;
}

/// Commands, and what is like one. What cannot be undone says so.
static std::string RunWords(const RunStep& step) {
  std::string words = step.object;
  if (step.form == StepForm::kPackages) words = "packages: " + PackageWords(step.packages);
  if (step.form == StepForm::kLate) words = step.object + " (planned when its turn comes)";
  // What has a name of its own is no command line that people gave.
  if (step.object == step.make && !step.undo.empty()) words += " (undo: " + step.undo + ")";
  if (!step.no_undo.empty()) words += " (cannot be undone: " + step.no_undo + ")";
  return words;
}

static std::string CommandOf(const RunStep& step) {
  if (IsCommand(step)) return RunWords(step);
  const auto quoted = [](const std::string& word) { return pnl_proc::Escape(word); };
  const std::string object = quoted(step.object);
  const PathState& after = step.after;
  if (step.form == StepForm::kMove) return "mv " + quoted(step.from) + " " + object;
  if (step.form == StepForm::kCopy) return "cp " + quoted(step.from) + " " + object;
  if (after.time) return "touch " + object;
  if (after.kind == PathKind::kMissing)
    return (step.before.kind == PathKind::kDirectory ? "rm -r " : "rm ") + object;
  if (after.kind == PathKind::kLink) return "ln -s " + quoted(after.target) + " " + object;
  if (!step.before.SameContent(after)) {
    if (after.kind == PathKind::kDirectory) return "mkdir " + object;
    return "write " + std::to_string(after.size) + " bytes to " + object +
           (step.secret ? " (secret)" : "");
  }
  std::string words;
  if (after.owner != step.before.owner) words = "chown " + after.owner + " " + object;
  if (after.mode != step.before.mode)
    words = str::Append(words, str::Format("chmod %04o ", after.mode.value_or(0)) + object, "; ");
  return words;
}

static std::optional<std::string> TextOf(const PathState& state) {
  return state.content ? std::optional(*state.content) : std::nullopt;
}

Plan PlanOf(const std::string& node, const std::vector<RunStep>& steps) {
  Plan plan;
  for (const RunStep& step : steps) {
    fleet::Step shown{.node = node, .object = step.object};
    if (step.form == StepForm::kParameter) {
      shown.kind = StepKind::kValue;
      shown.before = step.secret ? "(secret)" : step.value_before;
      shown.after = step.secret ? "(a new secret)" : step.value;
      plan.push_back(shown);
      continue;
    }
    const auto known = [](const PathState& state) {
      return state.kind == PathKind::kMissing || TextOf(state).has_value();
    };
    const bool diff = step.form == StepForm::kPath && !step.secret && known(step.before) &&
                      known(step.after) && !step.before.SameContent(step.after);
    if (diff) {
      shown.kind = StepKind::kFile;
      shown.before = TextOf(step.before);
      shown.after = TextOf(step.after);
      plan.push_back(shown);
      const bool more = step.before.kind == PathKind::kFile && step.after.kind == PathKind::kFile &&
                        !step.before.SameAttributes(step.after);
      if (!more) continue;
    }
    RunStep rest = step;
    if (diff) rest.before.size = rest.after.size, rest.before.sum = rest.after.sum;
    shown = {.node = node, .kind = StepKind::kCommand, .words = CommandOf(rest)};
    plan.push_back(shown);
  }
  return plan;
}

}  // namespace fleet
