#include "tools/commands.h"

#include <algorithm>

namespace tools {

std::vector<Family> Families() {
  return {TemplateFamily(), MacroFamily(),  RepoFamily(),   RecipeFamily(),  NodeFamily(),
          KeyFamily(),      ConfigFamily(), SysctlFamily(), PackageFamily(), FrontdFamily(),
          StatFamily(),     TaskFamily(),   PrefixFamily(), DemoFamily()};
}

opts::Args Program(const std::vector<Family>& families) {
  opts::Args program("brefirctl", "Looks after templates, recipes and nodes of a server panel.");
  program.CommandName("FAMILY");
  program.Option("prefix").Value("DIR").Help(
      "the panel's directory; else $BREFIR_PREFIX, else the current directory");
  program.Option("output")
      .Short('o')
      .OneOf({"table", "json"})
      .Default("table")
      .Help("tables for people or JSON for programs");
  program.Option("verbose").Short('v').Help("show the log on standard error");
  program.Option("version").Help("print the program's version").Last();
  program.Option("completion")
      .OneOf({"bash", "zsh", "fish"})
      .Help("print a completion script")
      .Last();
  program.Option("man").Help("print the man page, or that of the FAMILY that follows").Last();
  for (const Family& family : families) {
    opts::Args& level = program.Command(family.name, family.summary).CommandName("VERB");
    if (family.describe != nullptr) family.describe(level);
    for (const Command& command : family.commands) {
      if (command.verb.empty()) continue;
      opts::Args& verb = level.Command(command.verb, command.summary);
      if (command.describe != nullptr) command.describe(verb);
    }
  }
  return program;
}

namespace {

/// What leads to a command: {"task", "list"}, or {"demo"} for a family that is its only command.
std::vector<std::string> Words(const Family& family, const Command& command) {
  if (command.verb.empty()) return {family.name};
  return {family.name, command.verb};
}

}  // namespace

const Command& Find(const std::vector<Family>& families, const std::vector<std::string>& words) {
  for (const Family& family : families) {
    for (const Command& command : family.commands) {
      if (words == Words(family, command)) return command;
    }
  }
  throw pnl_err::Missed("command", words.empty() ? "" : words.back());
}

}  // namespace tools
