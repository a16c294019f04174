// The lines of a change file as commands: parsed as on the command line, for each host.

#include <algorithm>
#include <set>
#include <stdexcept>

#include "fleet/gather.h"
#include "pnl/file.h"
#include "tools/commands/apply/apply.h"
#include "tools/commands/families.h"
#include "tools/frame/command_line.h"
#include "tools/frame/login.h"

namespace tools {

/// A parsed line. The edit refers to what stands before it.
struct ChangeCommands::Command {
  Command(const opts::Values& parsed, const std::string& dir, Context& context, Origin origin,
          const Verb& verb)
      : values(parsed),
        line(values, dir, context.out, context.bar, origin),
        edit(EditOf(line, verb)) {}

  const opts::Values values;
  Context line;
  HostEdit edit;
};

namespace {

/// Options that a plan in a file cannot have: what they do is done by this program, not by a step.
constexpr const char* kUnsaved[] = {"checksum", "undo-on-failure"};

std::string CallOf(const Family& family, const Verb& verb) {
  return family.name + " " + verb.name;
}

/// "config (set, remove), sysctl (set)": the commands that a file can have.
std::string AllowedCalls(const std::vector<Family>& families) {
  std::string calls;
  for (const Family& family : families) {
    std::string verbs;
    for (const Verb& verb : family.verbs)
      if (verb.edit != nullptr) verbs = str::Append(verbs, verb.name, ", ");
    if (verbs.empty()) continue;
    calls = str::Append(calls, family.name, ", ");
    calls.append(" (").append(verbs).append(")");
  }
  return calls;
}

/// The options that the command has for itself: without those of logins, and of the program.
std::set<std::string> OwnOptions(const Family& family, const Verb& verb) {
  opts::Args own("", "");
  if (family.describe != nullptr) family.describe(own);
  if (verb.describe != nullptr) verb.describe(own);
  opts::Args logins("", "");
  AddNodeOptions(logins);
  std::set<std::string> names;
  for (const opts::Arg& option : own.Options()) names.insert(option.Info().name);
  for (const opts::Arg& option : logins.Options()) names.erase(option.Info().name);
  return names;
}

[[noreturn]] void Refuse(const std::string& word, const std::string& message) {
  throw UsageError(word, "", message);
}

}  // namespace

ChangeCommands::ChangeCommands(Context& context, const std::vector<fleet::Node>& nodes,
                               const std::vector<fleet::RunTarget>& targets)
    : context_(context),
      name_(context.values.Str("FILE")),
      dir_(pnl_file::Folder(context.Path(name_))),
      families_(Families()),
      program_(Program(families_)),
      file_(fleet::LoadChangeFile(context.Path(name_), name_)) {
  if (file_.lines.empty() && file_.mistakes.empty())
    throw pnl_err::Error(fleet::kChangeFileError, name_)
        .add_param("message", name_ + ": has no command");
  for (std::size_t i = 0; i < targets.size(); ++i) {
    hosts_.push_back(targets[i].name);
    values_.push_back(nodes.empty() ? StringMap{{"name", "localhost"}, {"host", "localhost"}}
                                    : fleet::NodeValues(nodes[i], *targets[i].login));
  }
  for (const fleet::ChangeLine& read : file_.lines) {
    try {
      Line line = Find(read);
      if (read.has_values) {
        ParseForEach(line);
      } else {
        ParseForAll(line);
      }
      lines_.push_back(std::move(line));
    } catch (const pnl_err::Error& error) {
      Note(read, ErrorText(error, Format::kTable));
    }
  }
  const auto number = [](const pnl_err::Error& mistake) {
    return str::Int64(mistake.param("line"));
  };
  std::stable_sort(file_.mistakes.begin(), file_.mistakes.end(),
                   [&](const auto& a, const auto& b) { return number(a) < number(b); });
}

void ChangeCommands::Note(const fleet::ChangeLine& line, const std::string& what) {
  file_.mistakes.push_back(fleet::ChangeFileError(name_, line.number, line.words.front(), what));
}

/// The command of a line. What is none is told by the parser, which knows similar names.
ChangeCommands::Line ChangeCommands::Find(const fleet::ChangeLine& read) const {
  const std::vector<std::string>& words = read.words;
  const opts::Args* const family = program_.FindCommand(words[0]);
  const opts::Args* const command =
      family == nullptr || words.size() < 2 ? nullptr : family->FindCommand(words[1]);
  if (words[0].starts_with('-'))
    Refuse(words[0],
           "'" + words[0] + "' stands before the command: begin the line with the command");
  const bool alone = family != nullptr && family->Commands().empty();
  if (command == nullptr && !alone) {
    (void)program_.Parse(words);
    Refuse(words[0], "'" + words[0] + "' is no command");
  }
  const std::string call = family->Name() + (alone ? "" : " " + command->Name());
  for (const Family& of : families_)
    for (const Verb& verb : of.verbs)
      if (verb.edit != nullptr && CallOf(of, verb) == call)
        return {.read = read, .family = &of, .verb = &verb};
  Refuse(words[0], "'" + call + "' cannot be part of a change file yet; only these can: " +
                       AllowedCalls(families_));
}

bool ChangeCommands::IsForeign(const Line& line, const std::string& option) const {
  const opts::Args& family = *program_.FindCommand(line.family->name);
  bool known = false;
  for (const opts::Args* level : {&program_, &family, family.FindCommand(line.verb->name)})
    for (const opts::Arg& arg : level->Options()) known |= arg.Info().name == option;
  return known && OwnOptions(*line.family, *line.verb).count(option) == 0;
}

/// Refuses what is valid on a command line, but not here.
void ChangeCommands::RequireAllowed(const Line& line, const opts::Values& values) const {
  const opts::Args& family = *program_.FindCommand(line.family->name);
  for (const opts::Args* level : {&program_, &family, family.FindCommand(line.verb->name)})
    for (const opts::Arg& arg : level->Options())
      if (const std::string& name = arg.Info().name; values.HasAtAll(name) && IsForeign(line, name))
        Refuse("--" + name, "--" + name + " is for the whole file: give it to 'apply'");
  const char* const change = line.verb->change_option;
  if (change != nullptr && values.HasAtAll(change))
    Refuse(change,
           std::string("--") + change + " cannot be part of a change file: it cannot be undone");
  if (context_.values.Has("save-plan")) {
    for (const char* option : kUnsaved)
      if (values.HasAtAll(option))
        Refuse(option, std::string("--") + option +
                           " cannot be saved in a plan: leave it out, or apply the file itself");
  }
  if (line.verb->reach == Reach::kNode && !context_.HasNodes())
    Refuse("--node", "'" + CallOf(*line.family, *line.verb) +
                         "' works on nodes: --node or --nodes is missing behind 'apply'");
}

std::shared_ptr<const ChangeCommands::Command> ChangeCommands::Parse(
    const Line& line, const StringMap& values) const {
  const auto meaning = [&](const std::string& word) { return fleet::FilledIn(word, values); };
  opts::Values parsed;
  try {
    parsed = program_.Parse(line.read.words, meaning);
  } catch (const pnl_err::Error& error) {
    // "option --policy needs --nodes too" would be the wrong advice.
    if (error.object().starts_with("--") && IsForeign(line, error.object().substr(2)))
      Refuse(error.object(), error.object() + " is for the whole file: give it to 'apply'");
    throw;
  }
  RequireAllowed(line, parsed);
  const Origin origin = context_.HasNodes() ? Origin::kLineOfNodes : Origin::kLine;
  return std::make_shared<const Command>(parsed, dir_, context_, origin, *line.verb);
}

void ChangeCommands::ParseForAll(Line& line) {
  line.command = Parse(line, {});
  if (line.command->edit.before_commit) before_commit_.push_back(line.command->edit.before_commit);
}

/// Only looks for mistakes: with many nodes the commands would take much memory.
void ChangeCommands::ParseForEach(const Line& line) {
  std::vector<std::string> texts(hosts_.size());
  for (std::size_t i = 0; i < hosts_.size(); ++i) {
    try {
      const auto command = Parse(line, values_[i]);
      if (command->edit.before_commit) before_commit_.push_back(command->edit.before_commit);
    } catch (const pnl_err::Missed& missed) {
      const bool value = missed.object() == "value";
      texts[i] = value ? "the inventory has no value '" + missed.value() + "' for '{node." +
                             missed.value() + "}'"
                       : ErrorText(missed, Format::kTable);
    } catch (const pnl_err::Error& error) {
      texts[i] = ErrorText(error, Format::kTable);
    }
  }
  for (const fleet::Gathered& group : fleet::Gather(hosts_, texts))
    if (!group.answer.empty()) Note(line.read, group.names + ": " + group.answer);
}

/// The error of a host, with the line that it comes from behind it: equal errors of several hosts stay
/// equal.
pnl_err::Error ChangeCommands::Placed(const pnl_err::Error& error,
                                      const fleet::ChangeLine& line) const {
  const std::string at = std::to_string(line.number);
  return pnl_err::Error(error.type(), error.object(), error.value())
      .add_param("line", at)
      .add_param("message", ErrorText(error, Format::kTable) + " (" + name_ + ":" + at + ")");
}

template <class Work>
auto ChangeCommands::At(const fleet::ChangeLine& line, const Work& work) const {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    throw Placed(error, line);
  }
}

std::vector<HostEdit> ChangeCommands::Of(std::size_t target) const {
  std::vector<HostEdit> edits;
  for (const Line& line : lines_) {
    const auto command =
        line.command ? line.command : At(line.read, [&] { return Parse(line, values_[target]); });
    edits.push_back({.look = [command](fleet::Looks& looks) { command->edit.look(looks); },
                     .make = [this, command, &line](fleet::Draft& draft) -> Answer {
                       return At(line.read, [&] { return command->edit.make(draft); });
                     }});
  }
  return edits;
}

std::function<std::string()> ChangeCommands::BeforeCommit() const {
  if (before_commit_.empty()) return {};
  return [all = before_commit_] {
    for (const auto& refusal : all)
      if (std::string reason = refusal(); !reason.empty()) return reason;
    return std::string();
  };
}

}  // namespace tools
