// What a host says to the commands of a run: a look, making, undoing, ending, salvaging, claiming.

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "check.h"
#include "fleet/host_answers.h"
#include "pnl/cksum.h"
#include "pnl/host.h"
#include "pnl/str.h"

namespace {

using fleet::StepResult;
using fleet::Verdict;
using fleet::answers::Answer;

constexpr const char* kNonce = "n";
constexpr std::size_t kSteps = 6;
constexpr std::size_t kAsked = 5;  // a late step follows
constexpr std::size_t kDone = 2;
const std::set<std::size_t> kBack = {0, 1, 2, 4};  // the others have nothing to undo

/// What `read` returns; nothing where it throws the error that callers expect.
template <class Read>
auto Tried(const Answer& answer, const Read& read) -> std::optional<decltype(read())> try {
  return read();
} catch (const pnl_err::Error& error) {
  fuzz::Check(error.type() == fleet::kRunFailed && error.object() == answer.host &&
                  error.value() == answer.run && !error.param("message").empty(),
              error.what());
  fuzz::Check(
      error.param(fleet::kRefused).empty() || answer.output.find("n refused") != std::string::npos,
      "only the host refuses");
  return std::nullopt;
}

// --- Looks

/// Asks for what the letters of kLook in run_scripts.cpp stand for.
fleet::Looks LooksOf(const std::string& letters) {
  const auto has = [&](char letter) { return letters.find(letter) != std::string::npos; };
  fleet::Looks looks;
  if (has('T')) looks.texts = {"/t"};
  if (has('F')) looks.files = {"/f", "/t"};
  if (has('N')) looks.entries = {"/n"};
  if (has('D')) looks.missing = {"/d/d", "/e"};
  if (has('P')) looks.parameters = {"net.a", "net.b"};
  if (has('U')) looks.users = {"u"};
  if (has('G')) looks.groups = {"g"};
  if (has('L')) looks.versions = {"bash", "gone"};
  if (has('Q')) looks.packages = {{fleet::PackageRequest::Action::kInstall, {"jq"}}};
  looks.family = has('Y');
  return looks;
}

/// The bytes that it took from the answer.
std::size_t CheckPlace(const std::string& path, const fleet::Place& place) {
  const fleet::PathState& state = place.state;
  if (state.content) {
    fuzz::Check(state.kind == fleet::PathKind::kFile, "only files have content");
    fuzz::Check(state.size == state.content->size(), "a content as long as announced");
    fuzz::Check(state.sum == pnl_file::Cksum::Of(*state.content), "the sum of the content");
  }
  fuzz::Check(state.kind == fleet::PathKind::kMissing || place.has_folder,
              "what is there is in a directory");
  fuzz::Check(state.owner.find_first_not_of("0123456789:") == std::string::npos, "an owner");
  return (state.content ? state.content->size() : 0) + state.target.size() +
         (place.path == path ? 0 : place.path.size());
}

template <class Map>
void CheckKeys(const Map& map, std::set<std::string> asked) {
  for (const auto& [key, value] : map)
    fuzz::Check(asked.erase(key) == 1, "an answer to what was asked");
  fuzz::Check(asked.empty(), "an answer to each question");
}

void CheckSight(const Answer& answer, const fleet::Looks& looks, const fleet::Sight& sight) {
  std::set<std::string> files = looks.files;
  files.insert(looks.texts.begin(), looks.texts.end());
  CheckKeys(sight.files, files);
  CheckKeys(sight.entries, looks.entries);
  CheckKeys(sight.missing, looks.missing);
  CheckKeys(sight.parameters, looks.parameters);
  CheckKeys(sight.users, looks.users);
  CheckKeys(sight.groups, looks.groups);
  CheckKeys(sight.versions, looks.versions);
  fuzz::Check(sight.packages.size() == looks.packages.size(), "a plan for each request");
  std::size_t held = sight.machine.size();
  for (const auto* places : {&sight.files, &sight.entries})
    for (const auto& [path, place] : *places) held += CheckPlace(path, place);
  for (const auto& [name, value] : sight.parameters)
    held += value.reason.size() + value.value.value_or("").size();
  for (const auto& [name, version] : sight.versions) held += version.size();
  for (const auto* ids : {&sight.users, &sight.groups})
    for (const auto& [name, id] : *ids)
      fuzz::Check(id.find_first_not_of("0123456789") == std::string::npos, "a number");
  // Later commands have them as words.
  std::vector<std::string> words = {sight.machine};
  for (const auto& [name, epoch] : sight.runs) {
    fuzz::Check(!name.empty() && name.find(' ') == std::string::npos, "one word");
    words.push_back(name);
    held += name.size();
  }
  for (const auto& [name, guard] : sight.guards)
    fuzz::Check(sight.runs.contains(name) && guard != fleet::GuardState::kNone, "guards of runs");
  fuzz::Check(held <= answer.output.size(), "no more than was answered");
  fuzz::Check(!pnl_host::PortableCommand(":", "n", words).empty(), "words of a command");
}

// --- Work

/// All whole lines, each behind a line end.
std::string Lines(const Answer& answer) {
  return "\n" + answer.output.substr(0, answer.output.rfind('\n') + 1);
}

/// The numbers of the lines "n KIND NUMBER ...".
std::set<std::size_t> Told(const Answer& answer, const std::string& kind) {
  const std::string begin = "\nn " + kind + " ";
  const std::string text = Lines(answer);
  std::set<std::size_t> numbers;
  for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos; ++at)
    numbers.insert(std::strtoul(text.c_str() + at + begin.size(), nullptr, 10));
  return numbers;
}

bool Says(const Answer& answer, const std::string& word) {
  return Lines(answer).find("\nn " + word) != std::string::npos;
}

bool IsGood(const Verdict& verdict) {
  return verdict.result == StepResult::kDone || verdict.result == StepResult::kAlready;
}

void CheckVerdict(const Answer& answer, const Verdict& verdict) {
  constexpr std::size_t kMaxOutput = 4001;
  std::size_t held = verdict.output.size();
  fuzz::Check(held <= kMaxOutput, "the last lines of an output");
  for (const auto& [name, move] : verdict.packages.value_or(fleet::PackageMoves()))
    held += name.size() + move.before.size() + move.after.size();
  fuzz::Check(held <= answer.output.size(), "no more than was answered");
  fuzz::Check(verdict.reason.size() <= answer.output.size() + answer.complaint.size() + 2,
              "a reason that was told");
  const bool told = !verdict.reason.empty() || !verdict.output.empty() || verdict.packages;
  fuzz::Check(!told || verdict.result != StepResult::kNone, "nothing is told without a verdict");
}

/// What a step has that was not told of is `silent`, unless it was asked and is in `told`.
void CheckVerdicts(const Answer& answer, const std::vector<Verdict>& verdicts,
                   const std::set<std::size_t>& asked, const std::vector<StepResult>& silent) {
  const std::set<std::size_t> told = Told(answer, "step");
  fuzz::Check(std::includes(asked.begin(), asked.end(), told.begin(), told.end()),
              "verdicts on what was asked");
  fuzz::Check(verdicts.size() == kSteps, "a verdict for each step");
  for (std::size_t i = 0; i < kSteps; ++i) {
    CheckVerdict(answer, verdicts[i]);
    fuzz::Check(told.contains(i) ? verdicts[i].result != StepResult::kNone
                                 : verdicts[i].result == silent[i],
                "no verdict is lost or invented");
  }
}

void CheckMade(const Answer& answer) {
  const auto made =
      Tried(answer, [&] { return fleet::answers::ReadMade(answer, kSteps, kAsked, kDone); });
  if (!made) return;
  std::vector<StepResult> silent(kSteps, StepResult::kNone);
  std::fill_n(silent.begin(), kDone, StepResult::kAlready);
  CheckVerdicts(answer, *made, {0, 1, 2, 3, 4}, silent);
}

void CheckUndone(const Answer& answer) {
  const auto undone =
      Tried(answer, [&] { return fleet::answers::ReadUndone(answer, kSteps, kBack); });
  if (!undone) return;
  std::vector<StepResult> silent(kSteps, StepResult::kAlready);
  for (const std::size_t i : kBack) silent[i] = StepResult::kNone;
  CheckVerdicts(answer, *undone, kBack, silent);
}

void CheckSalvaged(const Answer& answer) {
  const auto steps = Tried(answer, [&] { return fleet::answers::ReadSalvaged(answer); });
  if (!steps) return;
  std::set<std::size_t> told = Told(answer, "object");
  told.merge(Told(answer, "step"));
  fuzz::Check(steps->size() == told.size(), "each step once");
  std::size_t held = 0;
  for (const fleet::Salvaged& step : *steps) {
    CheckVerdict(answer, step.verdict);
    held += step.verdict.output.size();
  }
  fuzz::Check(held <= answer.output.size(), "no more than was answered");
  const bool good = std::all_of(steps->begin(), steps->end(),
                                [](const auto& step) { return IsGood(step.verdict); });
  fuzz::Check(!good || Says(answer, "ended"), "all is undone when the host says so");
}

}  // namespace

/// The command, with the letters of its questions if it is a look; what came on the standard error;
/// then the answer, with the nonce "n".
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  std::string letters = str::GetWord(text, '\n');
  const std::string command = str::GetWord(letters, ' ');
  const std::string complaint = str::GetWord(text, '\n');
  const Answer answer{"web1", command, kNonce, text, complaint};
  if (command == "make") CheckMade(answer);
  if (command == "undo") CheckUndone(answer);
  if (command == "salvage") CheckSalvaged(answer);
  if (command == "end") {
    const auto ended = Tried(answer, [&] { return fleet::answers::ReadEnded(answer), true; });
    fuzz::Check(!ended || Says(answer, "ended"), "the host says that it has ended");
  }
  if (command == "claim") {
    const auto claimed = Tried(answer, [&] { return fleet::answers::ReadClaimed(answer), true; });
    fuzz::Check(!claimed || Says(answer, "guard claimed\n"), "the host says that it is claimed");
  }
  if (command != fleet::answers::kLook) return 0;
  const fleet::Looks looks = LooksOf(letters);
  const auto sight = Tried(answer, [&] { return fleet::answers::ReadSight(answer, looks); });
  if (!sight) return 0;
  fuzz::Check(Says(answer, "end"), "a whole answer has an end");
  CheckSight(answer, looks, *sight);
  return 0;
}
