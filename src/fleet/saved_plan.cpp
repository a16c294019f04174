#include "fleet/saved_plan.h"

#include <map>
#include <set>
#include <utility>

#include "fleet/run.h"
#include "pnl/cksum.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::string_view kHead = "brefir plan 1";
constexpr std::string_view kHere = "here";  // the login of this host

std::string Encoded(const std::string& text) {
  return str::PercentEncode(text, [](char c) { return c > ' ' && c <= '~' && c != '%'; });
}

/// The sum of a text, and its size.
std::string SumLine(std::string_view text) {
  return "sum " + std::to_string(pnl_file::Cksum::Of(text)) + " " + std::to_string(text.size()) +
         "\n";
}

pnl_err::Error Wrong(const std::string& path, const std::string& what) {
  return pnl_err::Error(kSavedPlanError, path).add_param("message", path + ": " + what);
}

/// One text on its way to a plan.
class Reader {
 public:
  Reader(std::string_view text, const std::string& path) : rest_(text), path_(path) {}

  SavedPlan Read() {
    SavedPlan plan{.command = Decoded(Fact("command"))};
    while (NextWord() == "node") plan.nodes.push_back(ReadNode());
    if (!rest_.empty()) throw WrongLine("a node or a step is expected");
    return plan;
  }

 private:
  std::string_view NextWord() const { return rest_.substr(0, rest_.find_first_of(" \n")); }

  pnl_err::Error WrongLine(const std::string& what) const {
    const std::string at = std::to_string(number_ + 1);
    return pnl_err::Error(kSavedPlanError, path_)
        .add_param("line", at)
        .add_param("message", path_ + ":" + at + ": " + what);
  }

  /// The rest of the next line, which begins with `name`.
  std::string_view Fact(std::string_view name) {
    if (NextWord() != name) throw WrongLine("the line '" + std::string(name) + " ...' is expected");
    ++number_;
    std::string_view line = str::NextWord(rest_, '\n');
    str::NextWord(line, ' ');
    return line;
  }

  std::string Decoded(std::string_view text) const {
    std::string value;
    if (str::PercentDecode(text, value)) return value;
    throw WrongLine("a value cannot be read");
  }

  template <class Reading>
  auto About(const Reading& reading) const {
    try {
      return reading();
    } catch (const pnl_err::Error& error) {
      throw WrongLine(error.param("message"));
    }
  }

  SavedNode ReadNode() {
    SavedNode node{.name = Decoded(Fact("node")), .machine = Decoded(Fact("machine"))};
    const std::string login(Fact("login"));
    if (login != kHere) node.login = login;
    if (login.empty() || About([&] { return LoginText(ReadLogin(node.login)); }) != node.login)
      throw WrongLine("the login cannot be read");
    while (NextWord() == "step") {
      const std::string_view line = Fact("step");
      node.steps.push_back(About([&] { return RunStep::Read(line); }));
    }
    return node;
  }

  std::string_view rest_;
  const std::string& path_;
  std::size_t number_ = 1;  // of the line that was read last; the first one is the head
};

}  // namespace

std::string SavedPlan::Text() const {
  std::string text = std::string(kHead) + "\ncommand " + Encoded(command) + "\n";
  for (const SavedNode& node : nodes) {
    text += "node " + Encoded(node.name) + "\nmachine " + Encoded(node.machine) + "\nlogin ";
    text += (node.login.empty() ? std::string(kHere) : node.login) + "\n";
    for (const RunStep& step : node.steps) {
      if (step.secret)
        throw pnl_err::Error(kSavedPlanError, node.name, step.object)
            .add_param("message", node.name + ": '" + step.object +
                                      "' is secret, and no file may have it: this change cannot be "
                                      "saved as a plan");
      text += "step " + step.Text() + "\n";
    }
  }
  return text + SumLine(text);
}

SavedPlan SavedPlan::Read(std::string_view text, const std::string& path) {
  std::string_view head = text;
  if (str::NextWord(head, '\n') != kHead)
    throw Wrong(path,
                "this is no plan that 'apply --save-plan' has written, or of another version");
  const std::size_t last = text.rfind("\nsum ");
  const std::string_view body = text.substr(0, last == std::string_view::npos ? 0 : last + 1);
  if (body.empty() || text.substr(body.size()) != SumLine(body))
    throw Wrong(path, "the plan was cut or edited: its sum is another one; make a new plan");
  const std::size_t begin = std::min(kHead.size() + 1, body.size());
  SavedPlan plan = Reader(body.substr(begin), path).Read();
  for (const SavedNode& node : plan.nodes)
    for (const RunStep& step : node.steps)
      if (step.secret) throw Wrong(path, "a step is secret, and its content is in no plan");
  // What this version does not know must not be passed over.
  if (plan.Text() != text)
    throw Wrong(path, "the plan is not as a program of this version writes it");
  return plan;
}

static std::pair<std::uint64_t, std::uint32_t> SumOf(const std::string& path) {
  constexpr std::size_t kBlock = std::size_t{1} << 18;
  const pnl_file::OpenFile file = pnl_file::OpenRegular(path);
  std::vector<char> block(kBlock);
  pnl_file::Cksum sum;
  while (const std::size_t n = pnl_file::ReadSome(file.fd.Get(), block.data(), kBlock, path))
    sum.Add({block.data(), n});
  return {sum.Size(), sum.Sum()};
}

void RequireSources(const SavedPlan& plan) {
  std::map<std::string, std::pair<std::uint64_t, std::uint32_t>> sums;  // each file is read once
  for (const SavedNode& node : plan.nodes) {
    for (const RunStep& step : node.steps) {
      if (step.source.empty()) continue;
      const auto [sum, is_new] = sums.try_emplace(step.source);
      if (is_new) sum->second = SumOf(step.source);
      if (sum->second != std::pair(step.after.size, step.after.sum))
        throw Wrong(step.source,
                    "the file is no longer as it was when the plan was saved: make a new plan");
    }
  }
}

// --- On a host

static bool HasPath(const RunStep& step) {
  return step.form == StepForm::kPath || step.form == StepForm::kMove ||
         step.form == StepForm::kCopy;
}

/// Whether the host does not tell if it is done already.
static bool IsAlwaysToDo(const RunStep& step) {
  return step.form == StepForm::kCommand || step.form == StepForm::kLate ||
         (step.form == StepForm::kService && step.follows.empty());
}

Looks LooksOf(const std::vector<RunStep>& steps) {
  Looks looks;
  for (const RunStep& step : steps) {
    for (const auto& [name, move] : step.packages) looks.versions.insert(name);
    if (step.form == StepForm::kParameter) looks.parameters.insert(step.object);
    if (!HasPath(step)) continue;
    looks.entries.insert(step.object);
    if (!step.from.empty()) looks.entries.insert(step.from);
  }
  return looks;
}

namespace {

/// The host's side of some steps: what is at their objects, and what they make of it.
class Comparison {
 public:
  explicit Comparison(const Draft& draft) : draft_(draft) {}

  /// Whether all objects are as the steps found them. `what` becomes the first that is not.
  bool IsBefore(const std::vector<RunStep>& steps, std::string& what) const {
    std::set<std::string> known;  // what comes later for an object follows from its first step
    std::set<std::string> packages;
    for (const RunStep& step : steps) {
      for (const auto& [name, move] : step.packages)
        if (packages.insert(name).second && VersionOf(what = name) != move.before) return false;
      if (step.form != StepForm::kParameter && !HasPath(step)) continue;
      const bool two = !step.from.empty();
      const bool whole = step.form != StepForm::kCopy;  // a copy may have other attributes
      if (two && known.insert(step.from).second && !Is(what = step.from, step.after, whole))
        return false;
      if (!known.insert(step.object).second) continue;
      what = step.object;
      if (!(step.form == StepForm::kParameter ? draft_.Value(what) == step.value_before
                                              : Is(what, step.before, true)))
        return false;
    }
    return true;
  }

  /// Whether all objects are as the steps leave them.
  bool IsAfter(const std::vector<RunStep>& steps) const {
    std::map<std::string, PathState> states;
    std::map<std::string, std::string> values;
    std::map<std::string, std::string> versions;
    for (const RunStep& step : steps) {
      if (IsAlwaysToDo(step)) return false;
      for (const auto& [name, move] : step.packages) versions[name] = move.after;
      if (step.form == StepForm::kParameter) {
        values[step.object] = step.value;
        continue;
      }
      if (!HasPath(step)) continue;
      states[step.object] = step.after;
      if (step.form == StepForm::kMove) states[step.from] = {};
    }
    for (const auto& [name, version] : versions)
      if (VersionOf(name) != version) return false;
    for (const auto& [name, value] : values)
      if (draft_.Value(name) != value) return false;
    for (const auto& [path, state] : states)
      if (!Is(path, state, true) || (state.time && PlaceOf(path).time != *state.time)) return false;
    return true;
  }

 private:
  const std::string& VersionOf(const std::string& package) const {
    return draft_.Seen().versions.at(package);
  }
  const Place& PlaceOf(const std::string& path) const { return draft_.Seen().entries.at(path); }
  /// A link on the way to a path would make it another file.
  bool Is(const std::string& path, const PathState& state, bool attributes) const {
    const Place& place = PlaceOf(path);
    return place.path == path && place.state.SameContent(state) &&
           (!attributes || place.state.SameAttributes(state));
  }

  const Draft& draft_;
};

}  // namespace

std::vector<RunStep> StillToDo(const Draft& draft, const std::vector<RunStep>& steps) {
  const Comparison comparison(draft);
  std::string what;
  if (comparison.IsBefore(steps, what)) return steps;
  if (comparison.IsAfter(steps)) return {};
  draft.Refuse(what,
               "'" + what + "' is no longer as it was when the plan was saved: make a new plan");
}

}  // namespace fleet
