#include "fleet/run_step.h"

#include <array>
#include <charconv>
#include <utility>

#include "brefir/str_utils.h"
#include "pnl/cksum.h"
#include "pnl/err.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::array<const char*, 5> kKinds = {"missing", "file", "directory", "link", "other"};
constexpr std::array<const char*, 8> kForms = {"path",    "move",    "copy",     "parameter",
                                               "command", "service", "packages", "late"};

// --- Writing: "NAME=VALUE" words; what is not plain in a value is percent-encoded, so that all bytes
// survive every database and editor.

bool IsPlain(char c) {
  return c > ' ' && c <= '~' && c != '%';
}

void Add(std::string& text, const std::string& name, const std::string& value) {
  text = str::Append(text, name + "=" + str::PercentEncode(value, IsPlain), " ");
}

void AddUnlessEmpty(std::string& text, const std::string& name, const std::string& value) {
  if (!value.empty()) Add(text, name, value);
}

void AddState(std::string& text, const std::string& name, const PathState& state, bool secret) {
  Add(text, name, kKinds[static_cast<std::size_t>(state.kind)]);
  if (state.kind == PathKind::kFile && !secret) {
    Add(text, name + ".size", std::to_string(state.size));
    Add(text, name + ".sum", std::to_string(state.sum));
    if (state.content) Add(text, name + ".content", *state.content);
  }
  AddUnlessEmpty(text, name + ".target", state.target);
  if (state.mode) Add(text, name + ".mode", str::Format("%o", *state.mode));
  AddUnlessEmpty(text, name + ".owner", state.owner);
  if (state.time) Add(text, name + ".time", std::to_string(*state.time));
}

/// Lists are words in words.
std::string ListText(const std::vector<std::string>& list) {
  std::string text;
  for (const std::string& word : list)
    text.append(text.empty() ? "" : " ").append(str::PercentEncode(word, IsPlain));
  return text;
}

bool IsNoBar(char c) {
  return IsPlain(c) && c != '|';
}

/// "NAME|BEFORE|AFTER" words.
std::string MovesText(const PackageMoves& moves) {
  std::vector<std::string> list;
  for (const auto& [name, move] : moves)
    list.push_back(str::PercentEncode(name, IsNoBar) + "|" +
                   str::PercentEncode(move.before, IsNoBar) + "|" +
                   str::PercentEncode(move.after, IsNoBar));
  return str::Join(list, " ");
}

// --- Reading

class Words {
 public:
  explicit Words(std::string_view line) : line_(line) {
    for (std::string_view rest = line; !rest.empty();) {
      std::string_view word = str::NextWord(rest, ' ');
      const std::string name(str::NextWord(word, '='));
      const auto [value, is_new] = values_.try_emplace(name);
      if (name.empty() || !is_new || !str::PercentDecode(word, value->second)) throw Unreadable();
    }
  }

  pnl_err::Error Unreadable() const {
    return pnl_err::Error("step", "read", line_)
        .add_param("message", "this is not a step of a run: '" + str::Shorten(line_, 200) + "'");
  }

  bool Has(const std::string& name) const { return values_.count(name) != 0; }
  std::string Get(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? "" : found->second;
  }
  template <class Value>
  Value Number(const std::string& name, int base, Value most) const {
    const std::string word = Get(name);
    Value number = 0;
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number, base);
    if (read.ec != std::errc() || read.ptr != end || number > most) throw Unreadable();
    return number;
  }
  std::string Decoded(std::string_view word) const {
    std::string text;
    if (!str::PercentDecode(word, text)) throw Unreadable();
    return text;
  }
  std::vector<std::string> List(const std::string& name) const {
    const std::string text = Get(name);
    std::vector<std::string> list;
    for (std::string_view rest = text; !rest.empty();)
      list.push_back(Decoded(str::NextWord(rest, ' ')));
    return list;
  }
  PackageMoves Moves(const std::string& name) const {
    const std::string text = Get(name);
    PackageMoves moves;
    for (std::string_view rest = text; !rest.empty();) {
      std::string_view word = str::NextWord(rest, ' ');
      const std::string package = Decoded(str::NextWord(word, '|'));
      const std::string before = Decoded(str::NextWord(word, '|'));
      moves[package] = {before, Decoded(word)};
    }
    return moves;
  }
  template <class Enum, std::size_t kCount>
  Enum OneOf(const std::string& name, const std::array<const char*, kCount>& words) const {
    for (std::size_t i = 0; i < kCount; ++i)
      if (Get(name) == words[i]) return static_cast<Enum>(i);
    throw Unreadable();
  }

 private:
  std::string line_;
  StringMap values_;
};

PathState ReadState(const Words& words, const std::string& name, bool secret) {
  constexpr int kOctal = 8;
  constexpr int kDecimal = 10;
  PathState state;
  state.kind = words.OneOf<PathKind>(name, kKinds);
  if (state.kind == PathKind::kFile && secret) {
    state.is_known = false;
  } else if (state.kind == PathKind::kFile) {
    state.size = words.Number(name + ".size", kDecimal, UINT64_MAX);
    state.sum = words.Number(name + ".sum", kDecimal, UINT32_MAX);
    if (words.Has(name + ".content"))
      state.content = std::make_shared<const std::string>(words.Get(name + ".content"));
  }
  state.target = words.Get(name + ".target");
  if (words.Has(name + ".mode")) state.mode = words.Number(name + ".mode", kOctal, 07777U);
  state.owner = words.Get(name + ".owner");
  if (words.Has(name + ".time")) state.time = words.Number(name + ".time", kDecimal, INT64_MAX);
  return state;
}

}  // namespace

// --- States

PathState PathState::File(std::string content) {
  return File(std::make_shared<const std::string>(std::move(content)));
}

PathState PathState::File(FileText content) {
  PathState state = File(content->size(), pnl_file::Cksum::Of(*content));
  state.content = std::move(content);
  return state;
}

PathState PathState::File(std::uint64_t size, std::uint32_t sum) {
  PathState state;
  state.kind = PathKind::kFile;
  state.size = size;
  state.sum = sum;
  return state;
}

bool PathState::SameContent(const PathState& other) const {
  return is_known && other.is_known && kind == other.kind && size == other.size &&
         sum == other.sum && target == other.target;
}

bool PathState::SameAttributes(const PathState& other) const {
  const bool same_mode = !mode || !other.mode || *mode == *other.mode;
  return same_mode && (owner.empty() || other.owner.empty() || owner == other.owner);
}

// --- Steps

std::string RunStep::Text() const {
  std::string text;
  Add(text, "form", kForms[static_cast<std::size_t>(form)]);
  Add(text, "object", object);
  switch (form) {
    case StepForm::kParameter:
      if (!secret) Add(text, "value_before", value_before);
      if (!secret) Add(text, "value", value);
      break;
    case StepForm::kPath:
    case StepForm::kMove:
    case StepForm::kCopy:
      AddState(text, "before", before, secret);
      AddState(text, "after", after, secret);
      break;
    case StepForm::kCommand:
    case StepForm::kService:
    case StepForm::kPackages:
    case StepForm::kLate:
      AddUnlessEmpty(text, "make", make);
      AddUnlessEmpty(text, "undo", undo);
      AddUnlessEmpty(text, "follows", ListText(follows));
      AddUnlessEmpty(text, "packages", MovesText(packages));
      AddUnlessEmpty(text, "no_undo", no_undo);
      break;
  }
  AddUnlessEmpty(text, "from", from);
  AddUnlessEmpty(text, "source", source);
  if (by_lines) Add(text, "by_lines", "1");
  if (uncommitted) Add(text, "uncommitted", "1");
  if (secret) Add(text, "secret", "1");
  return text;
}

RunStep RunStep::Read(std::string_view line) {
  const Words words(line);
  RunStep step;
  step.form = words.OneOf<StepForm>("form", kForms);
  step.object = words.Get("object");
  step.secret = words.Has("secret");
  if (step.object.empty()) throw words.Unreadable();
  switch (step.form) {
    case StepForm::kParameter:
      step.value_before = words.Get("value_before");
      step.value = words.Get("value");
      break;
    case StepForm::kPath:
    case StepForm::kMove:
    case StepForm::kCopy:
      step.before = ReadState(words, "before", step.secret);
      step.after = ReadState(words, "after", step.secret);
      break;
    case StepForm::kCommand:
    case StepForm::kService:
    case StepForm::kPackages:
    case StepForm::kLate:
      step.make = words.Get("make");
      step.undo = words.Get("undo");
      step.follows = words.List("follows");
      step.packages = words.Moves("packages");
      step.no_undo = words.Get("no_undo");
      break;
  }
  step.from = words.Get("from");
  const bool has_two = step.form == StepForm::kMove || step.form == StepForm::kCopy;
  if (has_two && step.from.empty()) throw words.Unreadable();
  step.source = words.Get("source");
  step.by_lines = words.Has("by_lines");
  step.uncommitted = words.Has("uncommitted");
  return step;
}

bool RunsCommand(const RunStep& step) {
  return step.form == StepForm::kCommand || step.form == StepForm::kService ||
         step.form == StepForm::kPackages;
}

bool UndoableFromBooks(const RunStep& step) {
  switch (step.form) {
    case StepForm::kParameter:
      return !step.secret;
    case StepForm::kCommand:
    case StepForm::kService:
    case StepForm::kPackages:
    case StepForm::kLate:
      return step.no_undo.empty();
    case StepForm::kMove:
    case StepForm::kCopy:
    case StepForm::kPath:
      break;
  }
  switch (step.before.kind) {
    case PathKind::kMissing:
    case PathKind::kLink:
      return true;
    case PathKind::kFile:
      return (step.before.content != nullptr && !step.secret) ||
             step.before.SameContent(step.after);
    case PathKind::kDirectory:
    case PathKind::kOther:
      return step.before.SameContent(step.after);
  }
  return false;
}

std::vector<RunStep> Inverse(const RunStep& step) {
  if (step.form == StepForm::kLate) return {};
  RunStep back = step;
  back.source.clear();
  std::swap(back.before, back.after);
  std::swap(back.value_before, back.value);
  for (auto& [name, move] : back.packages) std::swap(move.before, move.after);
  if (step.form == StepForm::kCopy) {
    back.form = StepForm::kPath;
    back.from.clear();
  }
  if (step.form != StepForm::kMove) return {back};
  back.object = step.from;
  back.from = step.object;
  back.before = {};
  back.after = step.after;
  std::vector<RunStep> steps = {back};
  if (step.before.kind == PathKind::kMissing) return steps;
  RunStep replaced{.object = step.object};
  replaced.after = step.before;
  steps.push_back(replaced);
  return steps;
}

}  // namespace fleet
