#include "tools/frame/command_line.h"

#include "pnl/err.h"
#include "pnl/str.h"

namespace tools {

/// The examples of a verb. Those of a family are the first examples of its first verbs.
static void AddExamples(const Family& family, const Verb& verb, opts::Args& level,
                        opts::Args& args) {
  constexpr std::size_t kOfFamily = 3;
  for (const std::string& words : verb.examples) {
    const std::string call = str::Append("brefirctl " + family.name + " " + verb.name, words, " ");
    args.Example(call);
    if (&words == &verb.examples.front() && level.Examples().size() < kOfFamily)
      level.Example(call);
  }
}

opts::Args Program(const std::vector<Family>& families) {
  opts::Args program("brefirctl", "Manages the templates, recipes and nodes of a server panel.");
  program.CommandName("FAMILY").Details("'brefirctl help FAMILY' lists the commands of a family.");
  program.Example("brefirctl prefix init /opt/panel")
      .Example("brefirctl --prefix /opt/panel template list")
      .Example("brefirctl node facts --node root@192.0.2.7 -o json")
      .Example("brefirctl --man template | man -l -")
      .Example("source <(brefirctl --completion bash)");
  program.Option("prefix").Value("DIR").Help(
      "the panel's directory; default: $BREFIR_PREFIX, or the current directory if it is one, or "
      "prefix in /etc/brefir.conf");
  program.Option("output")
      .Short('o')
      .OneOf({"table", "json", "csv"})
      .Default("table")
      .Help("tables for people; JSON or CSV for programs");
  program.Option("columns").Value("FIELD,...").Help("show only these fields, in this order");
  program.Option("sort").Value("FIELD").Help(
      "sort a list by this field; --sort=-FIELD sorts in descending order");
  program.Option("no-headers").Help("print a list without the line of field names");
  program.Option("quiet").Short('q').Help("print only errors on standard error");
  program.Option("verbose").Short('v').Help("show the log on standard error").Excludes("quiet");
  program.Option("version").Help("print the program's version").Last();
  program.Option("completion")
      .OneOf({"bash", "zsh", "fish"})
      .Help("print a completion script")
      .Last();
  program.Option("man").Help("print the man page of the program; --man FAMILY: of a family").Last();
  program.Option("candidates").Value("LIST").Hidden().Last();  // for completion scripts
  for (const Family& family : families) {
    opts::Args& level = program.Command(family.name, family.summary).CommandName("VERB");
    if (family.describe != nullptr) family.describe(level);
    for (const Verb& verb : family.verbs) {
      if (verb.name.empty()) {
        for (const std::string& words : verb.examples)
          level.Example(str::Append("brefirctl " + family.name, words, " "));
        continue;
      }
      opts::Args& args = level.Command(verb.name, verb.summary);
      Describe(verb, args);
      AddExamples(family, verb, level, args);
    }
  }
  return program;
}

/// The words of a command: {"task", "list"}, or {"demo"} for a family that is a command itself.
static std::vector<std::string> Words(const Family& family, const Verb& verb) {
  if (verb.name.empty()) return {family.name};
  return {family.name, verb.name};
}

const Verb& Find(const std::vector<Family>& families, const std::vector<std::string>& words) {
  for (const Family& family : families) {
    for (const Verb& verb : family.verbs) {
      if (words == Words(family, verb)) return verb;
    }
  }
  throw pnl_err::Missed("command", words.empty() ? "" : words.back());
}

}  // namespace tools
