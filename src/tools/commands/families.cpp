#include "tools/commands/families.h"

#include <cstdlib>

#include "brefir/simpleconfig.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace tools {

std::vector<Family> Families() {
  return {TemplateFamily(),
          MacroFamily(),
          RepoFamily(),
          RecipeFamily(),
          Anywhere(NodeFamily(), {"sync"}),  // its log is below var/
          KeyFamily(),
          Anywhere(ConfigFamily()),
          Anywhere(SysctlFamily()),
          Anywhere(PackageFamily(), {"add-repo"}),  // the settings name its server
          FrontdFamily(),
          StatFamily(),
          TaskFamily(),
          PrefixFamily(),
          DemoFamily()};
}

namespace {

constexpr const char* kHostConf = "/etc/brefir.conf";

/// What the host's own settings say; "" when they say nothing.
std::string HostPrefix() {
  std::string prefix;
  for (const utils::lines::Entry& entry :
       utils::lines::List(pnl_file::Read(kHostConf), "", {"", "=", ""})) {
    if (entry.key == "prefix") prefix = entry.value;
  }
  if (prefix.empty() || prefix.starts_with('/')) return prefix;
  throw pnl_err::Error("usage", "prefix", prefix)
      .add_param("message", "the prefix '" + prefix + "' in " + kHostConf +
                                " must be an absolute path, from \"/\" on");
}

}  // namespace

bool IsPrefix() {
  // Every system's root has etc and var too; whoever is there forgot --prefix.
  if (pnl_file::GetCurrentDir() == "/") return pnl_file::Exists(kHostConf) && HostPrefix().empty();
  return pnl_file::IsDir("etc") || pnl_file::IsDir("var");
}

std::string DefaultPrefix() {
  const char* prefix = std::getenv("BREFIR_PREFIX");
  if (prefix != nullptr && *prefix != '\0') return prefix;
  return IsPrefix() ? "." : HostPrefix();
}

namespace {

/// The verb's own examples; the family's are the first ones of its first verbs.
void AddExamples(const Family& family, const Command& command, opts::Args& level,
                 opts::Args& verb) {
  constexpr std::size_t kOfFamily = 3;
  for (const std::string& words : command.examples) {
    const std::string call =
        str::Append("brefirctl " + family.name + " " + command.verb, words, " ");
    verb.Example(call);
    if (&words == &command.examples.front() && level.Examples().size() < kOfFamily)
      level.Example(call);
  }
}

}  // namespace

opts::Args Program(const std::vector<Family>& families) {
  opts::Args program("brefirctl", "Looks after templates, recipes and nodes of a server panel.");
  program.CommandName("FAMILY");
  program.Example("brefirctl prefix init /opt/panel")
      .Example("brefirctl --prefix /opt/panel template list")
      .Example("brefirctl node facts --node root@192.0.2.7 -o json")
      .Example("brefirctl --man template | man -l -")
      .Example("source <(brefirctl --completion bash)");
  program.Option("prefix").Value("DIR").Help(
      "the panel's directory; else $BREFIR_PREFIX, else the current directory when it is one, else "
      "the prefix that /etc/brefir.conf names");
  program.Option("output")
      .Short('o')
      .OneOf({"table", "json"})
      .Default("table")
      .Help("tables for people or JSON for programs");
  program.Option("quiet").Short('q').Help("nothing but errors on standard error");
  program.Option("verbose").Short('v').Help("show the log on standard error").Excludes("quiet");
  program.Option("version").Help("print the program's version").Last();
  program.Option("completion")
      .OneOf({"bash", "zsh", "fish"})
      .Help("print a completion script")
      .Last();
  program.Option("man").Help("print the man page, or that of the FAMILY that follows").Last();
  program.Option("candidates").Value("LIST").Hidden().Last();  // for completion scripts
  for (const Family& family : families) {
    opts::Args& level = program.Command(family.name, family.summary).CommandName("VERB");
    if (family.describe != nullptr) family.describe(level);
    for (const Command& command : family.commands) {
      if (command.verb.empty()) {
        for (const std::string& words : command.examples)
          level.Example(str::Append("brefirctl " + family.name, words, " "));
        continue;
      }
      opts::Args& verb = level.Command(command.verb, command.summary);
      if (command.describe != nullptr) command.describe(verb);
      AddExamples(family, command, level, verb);
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
