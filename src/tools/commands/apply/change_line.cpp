#include "tools/commands/apply/change_line.h"

#include <set>
#include <utility>

#include "fleet/panel_dir.h"
#include "fleet/shell_words.h"
#include "tools/commands/families.h"
#include "tools/frame/command_line.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

/// Options that a plan in a file cannot have: what they do is done by this program, not by a step.
constexpr const char* kUnsaved[] = {"checksum", "undo-on-failure"};

std::string CallOf(const LineParser::Call& call) {
  return call.family->name + " " + call.verb->name;
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

/// What the command has for itself: without the options of logins, of runs, and of the program.
opts::Args OwnArgs(const LineParser::Call& call) {
  opts::Args own("", "");
  if (call.family->describe != nullptr) call.family->describe(own);
  if (call.verb->describe != nullptr) call.verb->describe(own);
  AddThenOption(own);
  return own;
}

std::set<std::string> OwnOptions(const LineParser::Call& call) {
  opts::Args logins("", "");
  AddNodeOptions(logins);
  const opts::Args own = OwnArgs(call);
  std::set<std::string> names;
  for (const opts::Arg& option : own.Options()) names.insert(option.Info().name);
  for (const opts::Arg& option : logins.Options()) names.erase(option.Info().name);
  return names;
}

[[noreturn]] void Refuse(const std::string& word, const std::string& message) {
  throw UsageError(word, "", message);
}

/// Whether its values are paths of this host; those of nodes are absolute.
bool IsPath(const opts::ArgInfo& info) {
  return info.completes == "files" || (info.positional ? info.name : info.value_name) == "FILE";
}

/// The command as a line that means the same in every directory, and has no values of nodes.
std::string WordsOf(const LineParser::Call& call, const Context& line) {
  const opts::Args own = OwnArgs(call);
  const std::set<std::string> names = OwnOptions(call);
  const auto value = [&](const opts::ArgInfo& info, const std::string& word) {
    return IsPath(info) && !word.empty() ? line.Path(word) : word;
  };
  std::string text = CallOf(call);
  for (const opts::Arg& option : own.Options()) {
    const opts::ArgInfo& info = option.Info();
    if (!names.contains(info.name) || !line.values.Has(info.name)) continue;
    if (info.kind == opts::Kind::kFlag) text += " --" + info.name;
    if (info.kind == opts::Kind::kFlag) continue;
    for (const std::string& word : line.values.List(info.name))
      text += " " + fleet::QuotedWord("--" + info.name + "=" + value(info, word));
  }
  std::string words;
  bool dashed = false;
  for (const opts::Arg& word : own.Positionals()) {
    if (!line.values.Has(word.Info().name)) continue;
    for (const std::string& given : line.values.List(word.Info().name)) {
      words += " " + fleet::QuotedWord(value(word.Info(), given));
      dashed |= given.starts_with('-');
    }
  }
  return text + (dashed ? " --" : "") + words;
}

}  // namespace

LineParser::LineParser(Context& context, std::string dir)
    : context_(context),
      dir_(std::move(dir)),
      families_(Families()),
      program_(Program(families_)) {}

/// What is no command is told by the program's parser, which knows similar names.
LineParser::Call LineParser::Find(const std::vector<std::string>& words) const {
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
  const std::string name = family->Name() + (alone ? "" : " " + command->Name());
  for (const Family& of : families_)
    for (const Verb& verb : of.verbs)
      if (const Call call{&of, &verb}; verb.edit != nullptr && CallOf(call) == name) return call;
  Refuse(words[0], "'" + name + "' cannot be part of a change file yet; only these can: " +
                       AllowedCalls(families_));
}

bool LineParser::IsForeign(const Call& call, const std::string& option) const {
  const opts::Args& family = *program_.FindCommand(call.family->name);
  bool known = false;
  for (const opts::Args* level : {&program_, &family, family.FindCommand(call.verb->name)})
    for (const opts::Arg& arg : level->Options()) known |= arg.Info().name == option;
  return known && OwnOptions(call).count(option) == 0;
}

/// Refuses what is valid on a command line, but not here.
void LineParser::RequireAllowed(const Call& call, const opts::Values& values, Origin origin) const {
  const opts::Args& family = *program_.FindCommand(call.family->name);
  for (const opts::Args* level : {&program_, &family, family.FindCommand(call.verb->name)})
    for (const opts::Arg& arg : level->Options())
      if (const std::string& name = arg.Info().name; values.HasAtAll(name) && IsForeign(call, name))
        Refuse("--" + name, "--" + name + " is for the whole file: give it to 'apply'");
  if (call.verb->no_run != nullptr) {
    const std::string why = call.verb->no_run(values);
    if (!why.empty())
      Refuse(call.verb->name,
             "this '" + CallOf(call) + "' cannot be part of a change file: " + why);
  }
  if (context_.values.Has("save-plan")) {
    for (const char* option : kUnsaved)
      if (values.HasAtAll(option))
        Refuse(option, std::string("--") + option +
                           " cannot be saved in a plan: leave it out, or apply the file itself");
  }
  if (call.verb->place == Place::kPrefix && !fleet::IsPanelDir())
    Refuse("--prefix",
           "'" + CallOf(call) + "' needs a panel's directory: give 'apply' --prefix DIR");
  if (call.verb->reach == Reach::kNode && origin != Origin::kLineOfNodes)
    Refuse("--node",
           "'" + CallOf(call) + "' works on nodes: --node or --nodes is missing behind 'apply'");
}

std::shared_ptr<const LineCommand> LineParser::Parse(const Call& call,
                                                     const std::vector<std::string>& words,
                                                     Origin origin, const Meaning& meaning) const {
  opts::Values parsed;
  try {
    parsed = program_.Parse(words, meaning);
  } catch (const pnl_err::Error& error) {
    // "option --policy needs --nodes too" would be the wrong advice.
    if (error.object().starts_with("--") && IsForeign(call, error.object().substr(2)))
      Refuse(error.object(), error.object() + " is for the whole file: give it to 'apply'");
    throw;
  }
  RequireAllowed(call, parsed, origin);
  auto command = std::make_shared<LineCommand>(parsed, dir_, context_, origin, *call.verb);
  command->edit.words = WordsOf(call, command->line);
  return command;
}

}  // namespace tools
