#include "tools/command_docs.h"

#include <algorithm>
#include <vector>

#include "pnl/err.h"
#include "pnl/str.h"

namespace tools {
namespace {

using opts::ArgInfo;
using opts::Args;
using opts::Kind;
using Words = std::vector<std::string>;

/// One level of the program, as all three scripts see it.
struct Level {
  std::string path;  ///< "", "task", "task list"
  const Args* args;
  std::vector<const ArgInfo*> options;  ///< its own and those around it
};

void AddLevels(const std::string& path, const std::vector<const Args*>& chain,
               std::vector<Level>& levels) {
  Level& level = levels.emplace_back(Level{path, chain.back(), opts::OuterOptions(chain)});
  for (const opts::Arg& arg : level.args->Options()) level.options.push_back(&arg.Info());
  for (const Args& command : chain.back()->Commands()) {
    std::vector<const Args*> inner = chain;
    inner.push_back(&command);
    AddLevels(str::Append(path, command.Name(), " "), inner, levels);
  }
}

std::vector<Level> Levels(const Args& program) {
  std::vector<Level> levels;
  AddLevels("", {&program}, levels);
  return levels;
}

std::string Joined(const Words& words, std::string_view separator = " ") {
  std::string text;
  for (const std::string& word : words) text = str::Append(text, word, separator);
  return text;
}

/// "--name" and "-n" of the options that `wanted` picks.
template <class Wanted>
std::string OptionWords(const Level& level, const Wanted& wanted) {
  Words words;
  for (const ArgInfo* option : level.options) {
    if (!wanted(*option)) continue;
    words.push_back("--" + option->name);
    if (option->letter != '\0') words.push_back(std::string("-") + option->letter);
  }
  return Joined(words);
}

std::string AllOptions(const Level& level) {
  return OptionWords(level, [](const ArgInfo&) { return true; });
}

std::string ValueOptions(const Level& level) {
  return OptionWords(level, [](const ArgInfo& option) { return option.kind != Kind::kFlag; });
}

std::string CommandWords(const Level& level) {
  Words words;
  for (const Args& command : level.args->Commands()) words.push_back(command.Name());
  for (const opts::Arg& arg : level.args->Positionals())
    words.insert(words.end(), arg.Info().choices.begin(), arg.Info().choices.end());
  return Joined(words);
}

bool WantsFile(const ArgInfo& info) {
  return info.value_name.find("FILE") != std::string::npos;
}
bool WantsDir(const ArgInfo& info) {
  return info.value_name.find("DIR") != std::string::npos;
}

/// What a value or word of the kind completes to: "choices", "files", "dirs" or nothing.
std::string Action(const ArgInfo& info) {
  if (info.kind == Kind::kChoice) return "choices " + Joined(info.choices);
  if (WantsFile(info)) return "files";
  return WantsDir(info) ? "dirs" : "";
}

/// What the level's positional words complete to besides their choices.
std::string WordAction(const Level& level) {
  std::string action;
  for (const opts::Arg& arg : level.args->Positionals()) {
    if (WantsFile(arg.Info())) return "files";
    if (WantsDir(arg.Info())) action = "dirs";
  }
  return action;
}

/// `text` in single quotes: POSIX shells and zsh take everything inside as it is.
std::string ShellQuoted(std::string_view text) {
  return "'" + str::Replace(text, "'", "'\\''") + "'";
}

// --- bash and zsh

/// Functions that both shells read: NAME_level sets what can stand at a place (sub-commands and
/// choices, options, those with a value, what else the words are), NAME_value what an option's
/// value is. The variables' names are none that a shell gives a meaning, as zsh does with path and
/// words.
std::string ShellTables(const Args& program, const std::string& name) {
  std::string level_cases;
  std::string value_cases;
  for (const Level& level : Levels(program)) {
    level_cases += "    " + ShellQuoted(level.path) + ") subs=" + ShellQuoted(CommandWords(level)) +
                   " dashed=" + ShellQuoted(AllOptions(level)) +
                   " valued=" + ShellQuoted(ValueOptions(level)) +
                   " action=" + ShellQuoted(WordAction(level)) + " ;;\n";
    for (const ArgInfo* option : level.options) {
      if (Action(*option).empty()) continue;
      std::string pattern = ShellQuoted(level.path + " --" + option->name);
      if (option->letter != '\0') pattern += "|" + ShellQuoted(level.path + " -" + option->letter);
      value_cases += "    " + pattern + ") action=" + ShellQuoted(Action(*option)) + " ;;\n";
    }
  }
  return name + "_level() {\n  case \"$1\" in\n" + level_cases + "  esac\n}\n\n" + name +
         "_value() {\n  action=\n  case \"$1\" in\n" + value_cases + "  esac\n}\n\n";
}

/// Walks the words before the cursor: a word that names a sub-command leads one level down, an
/// option that takes a value takes the next word along.
constexpr const char* kShellWalk = R"sh(@NAME@_walk() {
  local word
  at= pending=
  @NAME@_level ''
  for word in "$@"; do
    if [[ -n $pending ]]; then
      pending=
    elif [[ $word == -* ]]; then
      [[ " $valued " == *" $word "* ]] && pending=$word
    elif [[ " $subs " == *" $word "* ]]; then
      at="${at:+$at }$word"
      @NAME@_level "$at"
    fi
  done
  [[ -n $pending ]] && @NAME@_value "$at $pending"
}

)sh";

constexpr const char* kBash = R"sh(@NAME@() {
  local at subs dashed valued action pending
  local cur=${COMP_WORDS[COMP_CWORD]} before=("${COMP_WORDS[@]:1:COMP_CWORD-1}")
  # --name=value comes as three words.
  if [[ $cur == = ]]; then cur=; fi
  if (( ${#before[@]} )) && [[ ${before[-1]} == = ]]; then unset 'before[-1]'; fi
  @NAME@_walk "${before[@]}"
  COMPREPLY=()
  if [[ -z $pending && $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$dashed" -- "$cur"))
    return
  fi
  case $action in
    choices\ *) COMPREPLY=($(compgen -W "${action#choices }" -- "$cur")) ;;
    files) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
    dirs) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
  esac
  if [[ -z $pending ]]; then COMPREPLY+=($(compgen -W "$subs" -- "$cur")); fi
}
complete -F @NAME@ @PROGRAM@
)sh";

constexpr const char* kZsh = R"sh(@NAME@() {
  local at subs dashed valued action pending
  @NAME@_walk "${(@)words[2,CURRENT-1]}"
  if [[ -z $pending && ${words[CURRENT]} == --*=* ]]; then
    @NAME@_value "$at ${words[CURRENT]%%=*}"
    pending=${words[CURRENT]%%=*}
    compset -P '*='
  elif [[ -z $pending && ${words[CURRENT]} == -* ]]; then
    compadd -- ${=dashed}
    return
  fi
  case $action in
    choices\ *) compadd -- ${=action#choices } ;;
    files) _files ;;
    dirs) _files -/ ;;
  esac
  [[ -z $pending ]] && compadd -- ${=subs}
}
# Read by source, or loaded from $fpath by the first completion, which is then still to be done.
if [[ ${funcstack[1]} == @NAME@ ]]; then @NAME@ "$@"; else compdef @NAME@ @PROGRAM@; fi
)sh";

// --- fish

/// Single quotes of fish: only the quote and the backslash are special in them.
std::string FishQuoted(std::string_view text) {
  return "'" + str::Replace(str::Replace(text, "\\", "\\\\"), "'", "\\'") + "'";
}

constexpr const char* kFishWalk = R"sh(function @NAME@_path
    set -l path ''
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if string match -q -- '-*' $word
            contains -- "$path $word" $@NAME@_valued; and set skip 1
        else
            set -l inner (string trim -- "$path $word")
            contains -- $inner $@NAME@_paths; and set path $inner
        end
    end
    echo -- $path
end

function @NAME@_at
    test (@NAME@_path) = "$argv[1]"
end

complete -c @PROGRAM@ -f
)sh";

std::string FishValue(const ArgInfo& info) {
  if (info.kind == Kind::kFlag) return "";
  if (info.kind == Kind::kChoice) return " -x -a " + FishQuoted(Joined(info.choices));
  if (WantsFile(info)) return " -r -F";
  return WantsDir(info) ? " -x -a '(__fish_complete_directories)'" : " -x";
}

std::string FishLines(const Level& level, const std::string& name, const std::string& program) {
  const std::string start =
      "complete -c " + program + " -n " + FishQuoted(name + "_at " + FishQuoted(level.path));
  std::string out;
  for (const Args& command : level.args->Commands())
    out += start + " -a " + command.Name() + " -d " + FishQuoted(command.Summary()) + "\n";
  for (const ArgInfo* option : level.options) {
    out += start + " -l " + option->name;
    if (option->letter != '\0') out += std::string(" -s ") + option->letter;
    out += FishValue(*option) + " -d " + FishQuoted(option->help) + "\n";
  }
  for (const opts::Arg& arg : level.args->Positionals()) {
    const ArgInfo& info = arg.Info();
    if (WantsFile(info)) {
      out += start + " -F\n";
    } else if (!Action(info).empty()) {
      out += start + FishValue(info) + "\n";
    }
  }
  return out;
}

std::string Fish(const Args& program, const std::string& name) {
  std::string paths = "set -g " + name + "_paths";
  std::string valued = "set -g " + name + "_valued";
  std::string lines;
  for (const Level& level : Levels(program)) {
    if (!level.path.empty()) paths += " " + FishQuoted(level.path);
    for (std::string words = ValueOptions(level); !words.empty();)
      valued += " " + FishQuoted(level.path + " " + str::GetWord(words));
    lines += FishLines(level, name, program.Name());
  }
  return paths + "\n" + valued + "\n\n" + kFishWalk + lines;
}

// --- man

/// Text that groff prints as it stands: backslashes and dashes escaped, no line taken for a
/// request.
std::string Roff(std::string_view text) {
  std::string out = str::Replace(text, {{"\\", "\\e"},
                                        {"-", "\\-"},
                                        {"\n", "\n.br\n"},
                                        {"\n.", "\n.br\n\\&."},
                                        {"\n'", "\n.br\n\\&'"}});
  return out.starts_with(".") || out.starts_with("'") ? "\\&" + out : out;
}

std::string Entry(const std::string& term, const std::string& text) {
  return ".TP\n.B " + Roff(term) + "\n" + Roff(text) + "\n";
}

std::string Entries(const std::list<opts::Arg>& args) {
  std::string out;
  for (const opts::Arg& arg : args)
    out += Entry(str::Trim(opts::Label(arg.Info())), opts::Describe(arg.Info()));
  return out;
}

std::string Section(const std::string& title, const std::string& body) {
  return body.empty() ? "" : ".SH " + title + "\n" + body;
}

std::string Heading(const std::string& name, const std::string& synopsis, const Args& args) {
  std::string details = args.Details().empty() ? "" : ".PP\n" + Roff(args.Details()) + "\n";
  // The date stays empty: the page changes with the program, not with the day it is printed.
  return ".TH " + str::Upper(name) + " 8 \"\" \"" + name + "\" \"System administration\"\n" +
         Section("NAME", Roff(name) + " \\- " + Roff(args.Summary()) + "\n") +
         Section("SYNOPSIS", ".B " + Roff(synopsis) + "\n") +
         Section("DESCRIPTION", Roff(args.Summary()) + "\n" + details);
}

constexpr const char* kManEnd = R"(.SH EXIT STATUS
.TP
.B 0
done
.TP
.B 1
failed, also when only a part failed
.TP
.B 2
wrong command line
.SH ENVIRONMENT
.TP
.B BREFIR_PREFIX
the panel's directory, when \-\-prefix is not given
.SH FILES
.TP
.I etc/brefir.conf
settings of the installation, below the panel's directory
.TP
.I etc/ostemplates.conf
repositories of templates and recipes
.TP
.I var/recipes
recipes, who may use them (metadata.xml), and what came of their runs (log)
.TP
.I etc/log.conf
what goes to the log
)";

std::string ProgramPage(const Args& program) {
  std::string families;
  for (const Args& family : program.Commands()) {
    Words verbs;
    for (const Args& verb : family.Commands()) verbs.push_back(verb.Name());
    const std::string tail = verbs.empty() ? "" : " Verbs: " + Joined(verbs, ", ") + ".";
    families += Entry(family.Name(), family.Summary() + tail);
  }
  return Heading(program.Name(), opts::Synopsis({&program}), program) +
         Section("OPTIONS", Entries(program.Options())) +
         Section(program.CommandName() == "FAMILY" ? "FAMILIES" : "COMMANDS", families) + kManEnd;
}

std::string FamilyPage(const Args& program, const Args& family) {
  std::string verbs;
  for (const Args& verb : family.Commands()) {
    verbs += ".SS " + Roff(verb.Name()) + "\n.B " +
             Roff(opts::Synopsis({&program, &family, &verb})) + "\n.PP\n" + Roff(verb.Summary()) +
             "\n";
    if (!verb.Details().empty()) verbs += ".PP\n" + Roff(verb.Details()) + "\n";
    verbs += Entries(verb.Positionals()) + Entries(verb.Options());
  }
  return Heading(program.Name() + "-" + family.Name(), opts::Synopsis({&program, &family}),
                 family) +
         Section("COMMANDS", verbs) + Section("OPTIONS", Entries(family.Options())) +
         Section("COMMON OPTIONS", Entries(program.Options())) +
         Section("SEE ALSO", ".BR " + program.Name() + " (8)\n");
}

}  // namespace

std::string Completion(const Args& program, const std::string& shell) {
  const std::string name = "_" + program.Name();
  std::string script = "# " + shell + " completion for " + program.Name() + "\n\n";
  if (shell == "zsh") script.insert(0, "#compdef " + program.Name() + "\n");
  if (shell == "fish") {
    script += Fish(program, "_" + name);
  } else {
    script += ShellTables(program, name) + kShellWalk + (shell == "bash" ? kBash : kZsh);
  }
  return str::Replace(
      script, {{"@NAME@", shell == "fish" ? "_" + name : name}, {"@PROGRAM@", program.Name()}});
}

std::string ManPage(const Args& program, const std::string& family) {
  if (family.empty()) return ProgramPage(program);
  if (const Args* args = program.FindCommand(family)) return FamilyPage(program, *args);
  throw pnl_err::Error("usage", family)
      .add_param("message", "there is no man page of '" + family + "'; '" + program.Name() +
                                " --help' lists the families");
}

}  // namespace tools
