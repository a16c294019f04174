#include "brefir/cmdarg.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "pnl/err.h"
#include "pnl/str.h"

namespace opts {

namespace {

using Words = std::vector<std::string>;
using Chain = std::vector<const Args*>;  // the levels on the command line, outermost first

constexpr const char* kHelp = "help";

std::optional<std::int64_t> ToNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string Quoted(std::string_view word) {
  return "'" + std::string(word) + "'";
}

std::string Joined(const Words& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

std::string Path(const Chain& chain) {
  Words names;
  for (const Args* level : chain) names.push_back(level->Name());
  return Joined(names, " ");
}

/// The name of the option or word in messages: "--node", "FILE".
std::string Called(const ArgInfo& info) {
  return (info.positional ? "" : "--") + info.name;
}

std::string WithValue(const ArgInfo& option) {
  return Called(option) + " " + option.value_name;
}

/// Why `value` is not allowed for `info`; "" when it is.
std::string Objection(const ArgInfo& info, const std::string& value) {
  if (info.kind == Kind::kNumber) {
    const auto number = ToNumber(value);
    if (number && *number >= info.min && *number <= info.max) return "";
    return "must be a number from " + std::to_string(info.min) + " to " + std::to_string(info.max);
  }
  if (info.kind == Kind::kChoice &&
      std::find(info.choices.begin(), info.choices.end(), value) == info.choices.end() &&
      std::find(info.also.begin(), info.also.end(), value) == info.also.end()) {
    return "must be one of " + Joined(info.choices, ", ");
  }
  return "";
}

Words CommandNames(const Args& level) {
  Words names;
  for (const Args& command : level.Commands()) names.push_back(command.Name());
  return names;
}

const Arg* FindOption(const Args& level, std::string_view name) {
  const auto found = std::find_if(level.Options().begin(), level.Options().end(),
                                  [&](const Arg& arg) { return arg.Info().name == name; });
  return found == level.Options().end() ? nullptr : &*found;
}

/// The first sub-command at any depth that has the option; {} when none has.
Words FindBelow(const Args& level, std::string_view option) {
  for (const Args& command : level.Commands()) {
    if (FindOption(command, option) != nullptr) return {command.Name()};
    if (Words below = FindBelow(command, option); !below.empty()) {
      below.insert(below.begin(), command.Name());
      return below;
    }
  }
  return {};
}

// --- Checking the registration

/// Finds errors of the registration, so that they show at the program's first run and not at a
/// user's.
class Registration {
 public:
  explicit Registration(const Args& root) { Check(root); }

 private:
  void Check(const Args& level) {
    chain_.push_back(&level);
    Words names;
    Words letters;
    for (const std::list<Arg>* args : {&level.Options(), &level.Positionals()}) {
      for (const Arg& arg : *args) {
        CheckArg(arg.Info());
        names.push_back(arg.Info().name);
        if (arg.Info().letter != '\0') letters.emplace_back(1, arg.Info().letter);
      }
    }
    CheckUnique(std::move(names));
    CheckUnique(std::move(letters));
    CheckUnique(CommandNames(level));
    CheckPositionals(level);
    for (const Args& command : level.Commands()) Check(command);
    chain_.pop_back();
  }

  void CheckUnique(Words names) const {
    std::sort(names.begin(), names.end());
    const auto twice = std::adjacent_find(names.begin(), names.end());
    if (twice != names.end()) Fault(*twice, "is registered twice");
  }

  void CheckPositionals(const Args& level) const {
    if (!level.Positionals().empty() && !level.Commands().empty())
      Fault(level.Name(), "has sub-commands and positional words");
    if (std::count_if(level.Positionals().begin(), level.Positionals().end(),
                      [](const Arg& arg) { return arg.Info().repeated; }) > 1)
      Fault(level.Name(), "has two repeated positional words");
  }

  void CheckArg(const ArgInfo& info) const {
    if (info.name.empty() || info.name.starts_with("-") || info.name.find('=') != std::string::npos)
      Fault(info.name, "is not a name");
    if (info.default_value) {
      if (info.kind == Kind::kFlag) Fault(info.name, "is a flag with a default");
      const std::string objection = Objection(info, *info.default_value);
      if (!objection.empty()) Fault(info.name, "has a default that " + objection);
    }
    for (const Words* others : {&info.needs, &info.excludes}) {
      for (const std::string& other : *others) {
        if (!IsKnown(other)) Fault(info.name, "refers to the unknown option " + other);
      }
    }
  }

  bool IsKnown(std::string_view option) const {
    return std::any_of(chain_.begin(), chain_.end(),
                       [&](const Args* level) { return FindOption(*level, option) != nullptr; });
  }

  [[noreturn]] void Fault(const std::string& name, const std::string& message) const {
    throw pnl_err::Error("opts", name)
        .add_param("message", Path(chain_) + ": " + Quoted(name) + " " + message);
  }

  Chain chain_;
};

}  // namespace

// --- Reading the words

class Parser {
 public:
  Parser(const Args& root, const Words& words, const Args::Meaning* meaning)
      : words_(words), meaning_(meaning) {
    Enter(root);
  }

  Values Run() {
    while (next_ < words_.size() && !Ended()) Take(words_[next_++]);
    if (Ended()) {
      values_.rest_.assign(words_.begin() + static_cast<std::ptrdiff_t>(next_), words_.end());
    } else {
      Finish();
    }
    FillDefaults();
    return std::move(values_);
  }

 private:
  bool Ended() const { return !values_.ended_by_.empty(); }

  void Enter(const Args& level) {
    chain_.push_back(&level);
    Values::Level& entries = values_.levels_.emplace_back();
    for (const std::list<Arg>* args : {&level.Options(), &level.Positionals()}) {
      for (const Arg& arg : *args) entries[arg.Info().name];
    }
  }

  void Take(const std::string& word) {
    if (only_operands_ || word == "-" || !word.starts_with("-")) {
      TakeOperand(word);
    } else if (word == "--") {
      only_operands_ = true;
    } else if (word.starts_with("--")) {
      TakeLong(word);
    } else {
      TakeLetters(word);
    }
  }

  void TakeOperand(const std::string& word) {
    const Args& level = *chain_.back();
    if (level.Commands().empty()) {
      operands_.push_back(word);
      return;
    }
    const Args* command = level.FindCommand(word);
    if (command == nullptr) RefuseCommand(word);
    values_.command_.push_back(command->Name());
    Enter(*command);
  }

  void TakeLong(const std::string& word) {
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(2, equals == std::string::npos ? equals : equals - 2);
    const Found found = FindInner([&](const ArgInfo& info) { return info.name == name; });
    if (found.info == nullptr) RefuseOption(name);
    if (equals == std::string::npos) {
      TakeOption(found);
    } else if (found.info->kind == Kind::kFlag) {
      Refuse(Called(*found.info), "option " + Called(*found.info) + " takes no value");
    } else {
      Set(found, word.substr(equals + 1));
    }
  }

  /// "-v", "-vx", "-n value", "-nvalue", "-vnvalue"
  void TakeLetters(const std::string& word) {
    for (std::size_t i = 1; i < word.size() && !Ended(); ++i) {
      const Found found = FindInner([&](const ArgInfo& info) { return info.letter == word[i]; });
      if (found.info == nullptr) {
        Refuse("-" + word.substr(i, 1), "unknown option -" + word.substr(i, 1) + " in " +
                                            Quoted(word) +
                                            "; put -- before words that begin with a dash");
      }
      if (found.info->kind == Kind::kFlag || i + 1 == word.size()) {
        TakeOption(found);
      } else {
        return Set(found, word.substr(i + 1));
      }
    }
  }

  struct Found {
    const ArgInfo* info = nullptr;
    Values::Entry* entry = nullptr;
  };

  /// The innermost level's option that `matches`.
  template <class Matches>
  Found FindInner(const Matches& matches) {
    for (std::size_t i = chain_.size(); i-- > 0;) {
      for (const Arg& arg : chain_[i]->Options()) {
        if (matches(arg.Info())) return {&arg.Info(), &EntryOf(arg.Info(), i)};
      }
    }
    return {};
  }

  Values::Entry& EntryOf(const ArgInfo& info, std::size_t level) {
    return values_.levels_[level].find(info.name)->second;
  }

  /// An option whose value, if it takes one, is the next word.
  void TakeOption(const Found& found) {
    if (found.info->kind == Kind::kFlag) {
      found.entry->given = true;
      if (found.info->last) values_.ended_by_ = found.info->name;
      return;
    }
    const std::string name = Called(*found.info);
    const bool at_end = next_ == words_.size();
    if (at_end || !CanBeValue(*found.info, words_[next_])) {
      Refuse(name, "option " + name + " needs a value: " + WithValue(*found.info) +
                       (at_end ? "" : "; one that begins with a dash is written " + name + "=..."));
    }
    Set(found, words_[next_++]);
  }

  static bool CanBeValue(const ArgInfo& info, const std::string& word) {
    if (!word.starts_with("-") || word == "-") return true;
    return info.kind == Kind::kNumber && ToNumber(word).has_value();
  }

  void Set(const Found& found, const std::string& given) {
    const ArgInfo& info = *found.info;
    const std::string value = meaning_ == nullptr ? given : (*meaning_)(given);
    const std::string name = (info.positional ? "" : "option ") + Called(info);
    if (found.entry->given && !info.repeated) Refuse(Called(info), name + " is given twice");
    if (const std::string objection = Objection(info, value); !objection.empty()) {
      Refuse(Called(info), name + " " + objection + ", not " + Quoted(value),
             Nearest(value, info.choices));
    }
    found.entry->given = true;
    found.entry->values.push_back(value);
    if (info.last) values_.ended_by_ = info.name;
  }

  // --- What must hold at the end

  void Finish() {
    const Args& level = *chain_.back();
    if (!level.Commands().empty()) {
      Refuse(level.CommandName(), level.CommandName() + " is missing after " +
                                      Quoted(Path(chain_)) + ": " +
                                      Joined(CommandNames(*chain_.back()), ", "));
    }
    AssignOperands(level);
    for (std::size_t i = 0; i < chain_.size(); ++i) {
      for (const Arg& arg : chain_[i]->Options()) {
        CheckOption(arg.Info(), EntryOf(arg.Info(), i).given);
      }
    }
  }

  /// Assigns words to the positionals from left to right. A repeated or optional one leaves enough
  /// words for the required ones after it ("SOURCE... TARGET").
  void AssignOperands(const Args& level) {
    std::size_t required_left = CheckEnoughOperands(level);
    std::size_t next = 0;
    for (const Arg& arg : level.Positionals()) {
      if (arg.Info().required) --required_left;
      const std::size_t free = operands_.size() - next - required_left;
      const std::size_t count = arg.Info().repeated ? free : std::min<std::size_t>(free, 1);
      const Found found{&arg.Info(), &EntryOf(arg.Info(), chain_.size() - 1)};
      for (const std::size_t end = next + count; next < end; ++next) Set(found, operands_[next]);
    }
    if (next < operands_.size())
      Refuse(operands_[next], "unexpected word " + Quoted(operands_[next]));
  }

  /// The number of required positionals; refuses when there are fewer words.
  std::size_t CheckEnoughOperands(const Args& level) const {
    std::size_t required = 0;
    for (const Arg& arg : level.Positionals()) {
      const ArgInfo& info = arg.Info();
      if (info.required && ++required > operands_.size())
        Refuse(info.name, info.name + " is missing");
    }
    return required;
  }

  void CheckOption(const ArgInfo& info, bool given) const {
    const std::string name = Called(info);
    if (info.required && !given) Refuse(name, "option " + WithValue(info) + " is missing");
    if (!given) return;
    for (const std::string& other : info.needs) {
      if (!values_.Has(other)) Refuse(name, str::Format("option %s needs --%s too", name, other));
    }
    for (const std::string& other : info.excludes) {
      if (values_.Has(other))
        Refuse(name, str::Format("%s and --%s exclude each other: give one", name, other));
    }
  }

  void FillDefaults() {
    for (std::size_t i = 0; i < chain_.size(); ++i) {
      for (const std::list<Arg>* args : {&chain_[i]->Options(), &chain_[i]->Positionals()}) {
        for (const Arg& arg : *args) {
          Values::Entry& entry = EntryOf(arg.Info(), i);
          if (!entry.given && arg.Info().default_value)
            entry.values.push_back(*arg.Info().default_value);
        }
      }
    }
  }

  // --- Refusals

  [[noreturn]] void RefuseCommand(const std::string& word) const {
    // "VERB" of a message in the middle of a sentence: "verb".
    std::string kind = chain_.back()->CommandName();
    for (char& c : kind) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    const Words known = CommandNames(*chain_.back());
    const std::string nearest = Nearest(word, known);
    const std::string choice = nearest.empty() ? ": give one of " + Joined(known, ", ") : "";
    Refuse(word, "unknown " + kind + " " + Quoted(word) + choice, nearest);
  }

  [[noreturn]] void RefuseOption(const std::string& name) const {
    const Words below = FindBelow(*chain_.back(), name);
    if (!below.empty()) {
      Refuse("--" + name, "option --" + name + " belongs behind " +
                              Quoted(Path(chain_) + " " + Joined(below, " ")));
    }
    Words known;
    for (const Args* level : chain_) {
      for (const Arg& arg : level->Options()) {
        if (!arg.Info().hidden) known.push_back(arg.Info().name);
      }
    }
    std::string nearest = Nearest(name, known);
    if (!nearest.empty()) nearest.insert(0, "--");
    Refuse("--" + name, "unknown option --" + name, nearest);
  }

  [[noreturn]] void Refuse(const std::string& object, const std::string& message,
                           const std::string& nearest = "") const {
    const std::string advice = nearest.empty() ? "" : "; did you mean " + Quoted(nearest) + "?";
    const std::string help = " (see '" + Path(chain_) + " --help')";
    pnl_err::Error error(kUsageError, object, Path(chain_));
    error.add_param("message", message + advice + help);
    if (!nearest.empty()) error.add_param("nearest", nearest);
    throw error;
  }

  const Words& words_;
  const Args::Meaning* const meaning_;
  std::size_t next_ = 0;
  bool only_operands_ = false;
  Chain chain_;
  Words operands_;
  Values values_;
};

// --- Arg

Arg::Arg(std::string name, bool positional) {
  info_.positional = positional;
  info_.required = positional;
  info_.kind = positional ? Kind::kText : Kind::kFlag;
  info_.value_name = positional ? name : "";
  info_.name = std::move(name);
}

Arg& Arg::Short(char letter) {
  info_.letter = letter;
  return *this;
}

Arg& Arg::Help(std::string text) {
  info_.help = std::move(text);
  return *this;
}

Arg& Arg::Value(std::string value_name) {
  info_.kind = Kind::kText;
  info_.value_name = std::move(value_name);
  return *this;
}

Arg& Arg::Number(std::string value_name, std::int64_t min, std::int64_t max) {
  info_.kind = Kind::kNumber;
  info_.value_name = std::move(value_name);
  info_.min = min;
  info_.max = max;
  return *this;
}

Arg& Arg::OneOf(std::vector<std::string> choices) {
  info_.kind = Kind::kChoice;
  info_.value_name = Joined(choices, "|");
  info_.choices = std::move(choices);
  return *this;
}

Arg& Arg::Also(std::string choice) {
  info_.also.push_back(std::move(choice));
  return *this;
}

Arg& Arg::Default(std::string value) {
  info_.default_value = std::move(value);
  return *this;
}

Arg& Arg::Required() {
  info_.required = true;
  return *this;
}

Arg& Arg::Optional() {
  info_.required = false;
  return *this;
}

Arg& Arg::Repeated() {
  info_.repeated = true;
  return *this;
}

Arg& Arg::Needs(std::string option) {
  info_.needs.push_back(std::move(option));
  return *this;
}

Arg& Arg::Excludes(std::string option) {
  info_.excludes.push_back(std::move(option));
  return *this;
}

Arg& Arg::Last() {
  info_.last = true;
  return *this;
}

Arg& Arg::Hidden() {
  info_.hidden = true;
  return *this;
}

Arg& Arg::Completes(std::string list) {
  info_.completes = std::move(list);
  return *this;
}

// --- Values

const Values::Entry* Values::Look(std::string_view name) const {
  for (auto level = levels_.rbegin(); level != levels_.rend(); ++level) {
    if (const auto found = level->find(name); found != level->end()) return &found->second;
  }
  return nullptr;
}

const Values::Entry& Values::Find(std::string_view name) const {
  if (const Entry* entry = Look(name)) return *entry;
  throw pnl_err::Error("opts", name).add_param("message", "asked for, but not registered");
}

bool Values::HasAtAll(std::string_view name) const {
  const Entry* entry = Look(name);
  return entry != nullptr && entry->given;
}

bool Values::Has(std::string_view name) const {
  return Find(name).given;
}

const std::string& Values::Str(std::string_view name) const {
  static const std::string* const empty = new std::string;
  const std::vector<std::string>& values = Find(name).values;
  return values.empty() ? *empty : values.back();
}

std::int64_t Values::Int(std::string_view name) const {
  return ToNumber(Str(name)).value_or(0);
}

const std::vector<std::string>& Values::List(std::string_view name) const {
  return Find(name).values;
}

// --- Args

Args::Args(Inner, std::string name, std::string summary)
    : name_(std::move(name)), summary_(std::move(summary)) {}

Args::Args(std::string name, std::string summary)
    : Args(Inner(), std::move(name), std::move(summary)) {
  Option(kHelp).Short('h').Help("show this help").Last();
}

Arg& Args::Option(std::string name) {
  return options_.emplace_back(std::move(name), false);
}

Arg& Args::Positional(std::string name) {
  return positionals_.emplace_back(std::move(name), true);
}

Args& Args::Command(std::string name, std::string summary) {
  commands_.push_back(Args(Inner(), std::move(name), std::move(summary)));
  return commands_.back();
}

Args& Args::CommandName(std::string name) {
  command_name_ = std::move(name);
  return *this;
}

Args& Args::Alias(std::string name) {
  aliases_.push_back(std::move(name));
  return *this;
}

Args& Args::Details(std::string text) {
  details_ = std::move(text);
  return *this;
}

Args& Args::Example(std::string call) {
  examples_.push_back(std::move(call));
  return *this;
}

const Args* Args::FindCommand(std::string_view name) const {
  const auto is = [&](const Args& command) {
    const std::vector<std::string>& others = command.aliases_;
    return command.Name() == name || std::find(others.begin(), others.end(), name) != others.end();
  };
  const auto found = std::find_if(commands_.begin(), commands_.end(), is);
  return found == commands_.end() ? nullptr : &*found;
}

Values Args::Parse(int argc, const char* const* argv) const {
  return Parse(argc > 0 ? Words(argv + 1, argv + argc) : Words());
}

Values Args::Parse(const std::vector<std::string>& words) const {
  Registration check(*this);
  return Parser(*this, words, nullptr).Run();
}

Values Args::Parse(const std::vector<std::string>& words, const Meaning& meaning) const {
  Registration check(*this);
  return Parser(*this, words, &meaning).Run();
}

}  // namespace opts
