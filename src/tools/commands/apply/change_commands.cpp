// The lines of a change file as commands: parsed as on the command line, for each host.

#include <algorithm>
#include <stdexcept>

#include "fleet/draft.h"
#include "fleet/gather.h"
#include "pnl/file.h"
#include "tools/commands/apply/apply.h"
#include "tools/frame/login.h"

namespace tools {

ChangeCommands::ChangeCommands(Context& context, const std::vector<fleet::Node>& nodes,
                               const std::vector<fleet::RunTarget>& targets)
    : name_(context.values.Str("FILE")),
      origin_(nodes.empty() ? Origin::kLine : Origin::kLineOfNodes),
      parser_(context, pnl_file::Folder(context.Path(name_))),
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
      Line line{.read = read, .call = parser_.Find(read.words)};
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

std::shared_ptr<const LineCommand> ChangeCommands::Parse(const Line& line,
                                                         const StringMap& values) const {
  return parser_.Parse(line.call, line.read.words, origin_,
                       [&](const std::string& word) { return fleet::FilledIn(word, values); });
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
  pnl_err::Error placed(error.type(), error.object(), error.value());
  placed.add_param("line", at)
      .add_param("message", ErrorText(error, Format::kTable) + " (" + name_ + ":" + at + ")");
  const std::string missing = error.param(fleet::kIsMissing);
  return missing.empty() ? placed : placed.add_param(fleet::kIsMissing, missing);
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
                     },
                     .words = command->edit.words});
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
