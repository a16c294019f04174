#include "fleet/host_steps.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/guard_scripts.h"
#include "fleet/host_answers.h"
#include "fleet/package_scripts.h"
#include "fleet/run_scripts.h"
#include "pnl/cksum.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::size_t kNonceBytes = 8;
std::string Nonce() {
  return str::hex::Encode(str::Random(kNonceBytes));
}

/// On this host, a signal of the terminal must not end a command in the middle. The script is a word, so
/// that it knows its own text, and that the name of the command comes before it: old kernels show only
/// the first 4096 bytes of a command line.
std::string CommandFor(const pnl_host::Host& host, const std::string& script,
                       std::vector<std::string> words) {
  words.insert(words.begin(), str::Replace(str::Trim(script), "\n", " "));
  const std::string command =
      pnl_host::PortableCommand("text=$1; shift; eval \"$text\"", "brefir-run", words);
  return host.IsLocal() ? "setsid " + command : command;
}

constexpr std::array<const char*, 4> kActions = {"install", "remove", "update", "all"};

std::string QuestionOf(const PackageRequest& request) {
  std::string words = kActions[static_cast<std::size_t>(request.action)];
  for (const std::string& name : request.names) words += " " + name;
  return words;
}

// --- Writing the steps

std::string StateWord(const PathState& state) {
  if (!state.is_known) return "-";  // the host has it in its list
  switch (state.kind) {
    case PathKind::kMissing:
      return "missing";
    case PathKind::kFile:
      return "file:" + std::to_string(state.sum) + ":" + std::to_string(state.size);
    case PathKind::kDirectory:
      return "directory";
    case PathKind::kLink:
      return "link:" + std::to_string(pnl_file::Cksum::Of(state.target)) + ":" +
             std::to_string(state.target.size());
    case PathKind::kOther:
      return "other";
  }
  return "";
}

std::string ModeWord(const PathState& state) {
  return state.mode ? str::Format("%o", *state.mode) : "-";
}

std::string OrNone(const std::string& word) {
  return word.empty() ? "-" : word;
}

std::string EncodedOrNone(const std::string& word) {
  return word.empty() ? "-" : pnl_host::EncodedWord(word);
}

/// A step as the script reads it.
struct Order {
  std::string form;
  std::string object;
  std::string before;
  std::string after;
  std::string size = "-";
  std::string mode = "-";
  std::string owner = "-";
  std::string extra = "-";  ///< a path

  std::string Line(std::size_t number) const {
    return std::to_string(number) + " " + form + " " + pnl_host::EncodedWord(object) + " " +
           before + " " + after + " " + size + " " + mode + " " + owner + " " +
           (extra == "-" ? extra : pnl_host::EncodedWord(extra)) + "\n";
  }
};

/// The order for a path that goes from one state to another. `undoing`: what is no file or link comes
/// from the kept copy only.
Order PathOrder(const RunStep& step, bool undoing) {
  constexpr const char* kNewMode = "644";
  const PathState& after = step.after;
  Order order{.form = "",
              .object = step.object,
              .before = StateWord(step.before),
              .after = StateWord(after),
              .mode = ModeWord(after),
              .owner = OrNone(after.owner)};
  if (step.before.SameContent(after) && after.kind != PathKind::kMissing) {
    if (step.before.time && after.time) {
      order.form = "time";
      order.before = std::to_string(*step.before.time);
      order.after = std::to_string(*after.time);
      return order;
    }
    order.form = "attributes";
    order.before = ModeWord(step.before) + ":" + step.before.owner;
    order.after = ModeWord(after) + ":" + after.owner;
    return order;
  }
  switch (after.kind) {
    case PathKind::kMissing:
      order.form = "gone";
      break;
    case PathKind::kFile:
      order.form = "file";
      if (step.before.kind != PathKind::kFile) {
        if (order.mode == "-") order.mode = kNewMode;
        break;
      }
      // What stays is what the file has when its turn comes.
      if (step.before.mode == after.mode) order.mode = "-";
      if (step.before.owner == after.owner) order.owner = "-";
      break;
    case PathKind::kLink:
      order.form = "link";
      order.extra = after.target;
      break;
    case PathKind::kDirectory:
      order.form = undoing ? "kept" : "directory";
      if (order.mode == "-") order.mode = "755";
      break;
    case PathKind::kOther:
      order.form = "kept";
      break;
  }
  return order;
}

/// "NAME=VERSION,NAME=missing"; "none" for no packages.
std::string VersionsWord(const PackageMoves& moves, std::string PackageMove::*side) {
  std::string word;
  for (const auto& [name, move] : moves)
    word.append(word.empty() ? "" : ",")
        .append(name)
        .append("=")
        .append((move.*side).empty() ? "missing" : move.*side);
  return word.empty() ? "none" : word;
}

Order OrderOf(const RunStep& step, bool undoing) {
  switch (step.form) {
    case StepForm::kParameter: {
      const bool is_known = !step.secret || !step.value.empty();
      return {.form = "parameter",
              .object = step.object,
              .before = is_known ? "=" + pnl_host::EncodedWord(step.value_before) : "-",
              .after = is_known ? "=" + pnl_host::EncodedWord(step.value) : "-"};
    }
    case StepForm::kMove:
      return {.form = "move",
              .object = step.object,
              .before = StateWord(step.before),
              .after = StateWord(step.after),
              .extra = step.from};
    case StepForm::kCopy: {
      Order order = PathOrder(step, undoing);
      order.form = "copy";
      order.extra = step.from;
      return order;
    }
    case StepForm::kCommand:
      return {.form = "command",
              .object = step.object,
              .before = "none",
              .after = "run",
              .owner = undoing ? "-" : EncodedOrNone(step.undo),
              .extra = OrNone(undoing ? step.undo : step.make)};
    case StepForm::kService:
      return {.form = "service",
              .object = step.object,
              .before = "none",
              .after = "run",
              .mode = step.follows.empty() ? "-" : "again",
              .extra = step.make};
    case StepForm::kPackages:
      return {.form = "packages",
              .object = step.object,
              .before = VersionsWord(step.packages, &PackageMove::before),
              .after = VersionsWord(step.packages, &PackageMove::after),
              .extra = undoing ? "-" : step.make};
    case StepForm::kPath:
      return PathOrder(step, undoing);
    case StepForm::kLate:
      break;
  }
  return {};
}

/// What one command gets and answers.
class Work {
 public:
  Work(pnl_host::Host& host, const RunMark& run, const char* mode, std::size_t done = 0)
      : host_(host), run_(run), mode_(mode), done_(done) {}

  void Add(std::size_t number, const RunStep& step, bool undoing, bool with_content,
           bool whatever_is_kept = false) {
    Order order = OrderOf(step, undoing);
    const bool is_file = order.form == "file";
    if (is_file && whatever_is_kept) order.form = "lines";
    if (is_file && with_content) {
      order.size = std::to_string(step.after.size);
      if (step.after.size != 0) contents_.push_back(&step);
    }
    if (step.form == StepForm::kPackages) has_packages_ = true;
    input_ += order.Line(number);
  }

  /// Runs it.
  answers::Answer Do() {
    const std::string nonce = Nonce();
    // Every user of the host sees command lines: steps and content go through the input.
    pnl_host::Command command = host_.Start(CommandFor(
        host_, Script(),
        {nonce, mode_, run_.name, std::to_string(run_.epoch), std::to_string(run_.wait),
         run_.take ? "take" : "-", std::to_string(contents_.size()), run_.fence ? "fence" : "-",
         run_.machine.empty() ? "-" : run_.machine, run_.known ? str::Join(*run_.known, " ") : "*",
         run_.committed ? "committed"
         : run_.made    ? "made"
                        : "-",
         std::to_string(run_.command_limit), std::to_string(done_),
         run_.guard == 0 || mode_ != std::string_view("make") ? "-" : std::to_string(run_.guard)}));
    command.In() << input_ << ".\n";
    for (const RunStep* step : contents_) Send(command.In(), *step);
    command.CloseIn();
    std::string output = command.Str();
    return {host_.Name(), run_.name, nonce, std::move(output), command.Complaint()};
  }

 private:
  /// Of a run to be salvaged only the host knows whether it has packages.
  std::string Script() const {
    std::string script = scripts::kWords;
    if (has_packages_ || mode_ == std::string_view("salvage"))
      script.append(scripts::kPackages).append(scripts::kPackageSteps);
    return script.append(scripts::kGuardState).append(scripts::kGuard).append(scripts::kWork);
  }

  static void Send(std::ostream& in, const RunStep& step) {
    if (step.after.content) {
      in << *step.after.content;
      return;
    }
    pnl_file::OpenFile file = pnl_file::OpenRegular(step.source);
    std::vector<char> block(std::size_t{1} << 18);
    while (const std::size_t size =
               pnl_file::ReadSome(file.fd.Get(), block.data(), block.size(), step.source))
      in.write(block.data(), static_cast<std::streamsize>(size));
  }

  pnl_host::Host& host_;
  const RunMark& run_;
  const char* mode_;
  std::size_t done_;
  bool has_packages_ = false;
  std::string input_;
  std::vector<const RunStep*> contents_;
};

}  // namespace

// --- Looking

const PathState& Sight::At(const std::string& path) const {
  const auto found = files.find(path);
  if (found == files.end()) throw pnl_err::Missed("path", path);
  return found->second.state;
}

Sight Look(pnl_host::Host& host, const Looks& looks, std::uint64_t limit) {
  std::string input;
  const auto ask = [&](const char* kind, const std::set<std::string>& words) {
    for (const std::string& word : words)
      input.append(kind).append(" ").append(pnl_host::EncodedWord(word)) += '\n';
  };
  ask("T", looks.texts);
  ask("F", looks.files);
  ask("N", looks.entries);
  ask("D", looks.missing);
  ask("P", looks.parameters);
  ask("U", looks.users);
  ask("G", looks.groups);
  const bool packages = answers::AsksForPackages(looks);
  if (packages || looks.family) input += "Y -\n";
  if (packages) input += "L -\n";
  for (const PackageRequest& request : looks.packages)
    input += "Q " + pnl_host::EncodedWord(QuestionOf(request)) + "\n";
  const std::string nonce = Nonce();
  const std::string script =
      scripts::kWords +
      (packages || looks.family ? std::string(scripts::kPackages) + scripts::kPackagePlans : "") +
      scripts::kGuardState + scripts::kLook;
  pnl_host::Outcome run =
      host.Run(CommandFor(host, script,
                          {nonce, std::to_string(limit), std::to_string(pnl_host::Host::kMaxText)}),
               input);
  return answers::ReadSight(
      {host.Name(), answers::kLook, nonce, std::move(run.output), std::move(run.complaint)}, looks);
}

// --- Working

std::vector<Verdict> MakeSteps(pnl_host::Host& host, const RunMark& run,
                               const std::vector<RunStep>& steps, std::size_t done) {
  Work work(host, run, "make", done);
  std::size_t asked = 0;
  for (; asked < steps.size() && steps[asked].form != StepForm::kLate; ++asked)
    work.Add(asked, steps[asked], false, asked >= done);
  return answers::ReadMade(work.Do(), steps.size(), asked, done);
}

/// The numbers of the steps in the order in which they are undone: the last one first, but a service
/// behind all that it follows.
static std::vector<std::size_t> UndoOrder(const std::vector<RunStep>& steps) {
  std::map<std::size_t, std::vector<std::size_t>> after;  // services by the step that they wait for
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (steps[i].form != StepForm::kService || steps[i].follows.empty()) continue;
    const std::set<std::string> follows(steps[i].follows.begin(), steps[i].follows.end());
    const auto first = std::find_if(steps.begin(), steps.end(), [&](const RunStep& step) {
      return follows.contains(step.object);
    });
    after[std::min(i, static_cast<std::size_t>(first - steps.begin()))].push_back(i);
  }
  std::vector<std::size_t> order;
  for (std::size_t i = steps.size(); i-- > 0;) {
    if (steps[i].form != StepForm::kService && steps[i].form != StepForm::kLate) order.push_back(i);
    order.insert(order.end(), after[i].begin(), after[i].end());
  }
  return order;
}

std::vector<Verdict> UndoSteps(pnl_host::Host& host, const RunMark& run,
                               const std::vector<RunStep>& steps, bool content,
                               const std::map<std::size_t, RunStep>& instead, GuardState* guard) {
  // A step may need several to be undone. They keep its number, by which the host finds what it has
  // kept.
  const std::vector<std::size_t> order = UndoOrder(steps);
  std::vector<std::vector<RunStep>> back(steps.size());
  Work work(host, run, "undo");
  for (const std::size_t i : order) {
    back[i] = instead.contains(i) ? std::vector{instead.at(i)} : Inverse(steps[i]);
    for (const RunStep& step : back[i])
      work.Add(i, step, true, content && step.after.content != nullptr, instead.contains(i));
  }
  return answers::ReadUndone(work.Do(), steps.size(), {order.begin(), order.end()}, guard);
}

void ClaimGuard(pnl_host::Host& host, const RunMark& run) {
  answers::ReadClaimed(Work(host, run, "claim").Do());
}

void EndSteps(pnl_host::Host& host, const RunMark& run) {
  answers::ReadEnded(Work(host, run, "end").Do());
}

std::vector<Salvaged> SalvageRun(pnl_host::Host& host, const RunMark& run) {
  return answers::ReadSalvaged(Work(host, run, "salvage").Do());
}

}  // namespace fleet
