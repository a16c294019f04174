#include "brefir/cmdarg_completion.h"

#include <vector>

#include "brefir/str_utils.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace opts {
namespace {

using Words = std::vector<std::string>;

/// One level of the program, for all three scripts.
struct Level {
  std::string path;  ///< "", "task", "task list"
  const Args* args;
  std::vector<const ArgInfo*> options;  ///< its own and those of outer levels
};

void AddLevels(const std::string& path, const std::vector<const Args*>& chain,
               std::vector<Level>& levels) {
  Level& level = levels.emplace_back(Level{path, chain.back(), OuterOptions(chain)});
  for (const Arg& arg : level.args->Options()) {
    if (!arg.Info().hidden) level.options.push_back(&arg.Info());
  }
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

/// "--name" and "-n" of the options that `wanted` picks.
template <class Wanted>
std::string OptionWords(const Level& level, const Wanted& wanted) {
  Words words;
  for (const ArgInfo* option : level.options) {
    if (!wanted(*option)) continue;
    words.push_back("--" + option->name);
    if (option->letter != '\0') words.push_back(std::string("-") + option->letter);
  }
  return str::Join(words, " ");
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
  return str::Join(words, " ");
}

bool WantsFile(const ArgInfo& info) {
  return info.completes == "files" || info.value_name.find("FILE") != std::string::npos;
}
bool WantsDir(const ArgInfo& info) {
  return info.completes == "dirs" || info.value_name.find("DIR") != std::string::npos;
}

/// The completion of a value or word: "choices WORD...", "list NAME" for a list of the program,
/// "files", "dirs" or nothing.
std::string Action(const ArgInfo& info) {
  if (info.kind == Kind::kChoice) return "choices " + str::Join(info.choices, " ");
  if (WantsFile(info)) return "files";
  if (WantsDir(info)) return "dirs";
  return info.completes.empty() ? "" : "list " + info.completes;
}

/// The completions of the level's positional words, each followed by "|". A "+" begins the
/// completion of a word that takes all further words.
std::string WordActions(const Level& level) {
  std::string actions;
  for (const Arg& arg : level.args->Positionals())
    actions += (arg.Info().repeated ? "+" : "") + Action(arg.Info()) + "|";
  return actions;
}

// --- bash and zsh

/// Functions for both shells. NAME_level sets the sub-commands, the options, the options with a
/// value, and the completions of the words of a level. NAME_value sets the completion of an
/// option's value. The variables must not have names that are special in a shell, as path and words
/// are in zsh.
std::string ShellTables(const Args& program, const std::string& name) {
  std::string level_cases;
  std::string value_cases;
  for (const Level& level : Levels(program)) {
    level_cases += "    " + pnl_proc::Quoted(level.path) +
                   ") subs=" + pnl_proc::Quoted(CommandWords(level)) +
                   " dashed=" + pnl_proc::Quoted(AllOptions(level)) +
                   " valued=" + pnl_proc::Quoted(ValueOptions(level)) +
                   " actions=" + pnl_proc::Quoted(WordActions(level)) + " ;;\n";
    for (const ArgInfo* option : level.options) {
      if (Action(*option).empty()) continue;
      std::string pattern = pnl_proc::Quoted(level.path + " --" + option->name);
      if (option->letter != '\0')
        pattern += "|" + pnl_proc::Quoted(level.path + " -" + option->letter);
      value_cases += "    " + pattern + ") action=" + pnl_proc::Quoted(Action(*option)) + " ;;\n";
    }
  }
  return name + "_level() {\n  case \"$1\" in\n" + level_cases + "  esac\n}\n\n" + name +
         "_value() {\n  action=\n  case \"$1\" in\n" + value_cases + "  esac\n}\n\n";
}

/// Reads the words before the cursor. A word that names a sub-command leads one level down; an
/// option with a value also consumes the next word. Sets `action` to the completion of the word at
/// the cursor.
constexpr const char* kShellWalk = R"sh(@NAME@_walk() {
  local word count=0
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
    else
      count=$((count + 1))
    fi
  done
  while (( count > 0 )) && [[ -n $actions && $actions != +* ]]; do
    actions=${actions#*'|'}
    count=$((count - 1))
  done
  action=${actions%%'|'*}
  action=${action#+}
  if [[ -n $pending ]]; then @NAME@_value "$at $pending"; fi
}

)sh";

/// Readline also splits words at "=", ":" and "@", and replaces only the last part. Therefore the
/// words are read from the line itself, and the part that stays is removed from the replies.
constexpr const char* kBash = R"sh(@NAME@() {
  local at subs dashed valued actions action pending lead= found=() reply
  local line=${COMP_LINE:0:COMP_POINT} before cur=
  read -ra before <<<"$line"
  if [[ $line != *[[:space:]] ]]; then
    if [[ ${before[-1]} == '#'* ]]; then return; fi  # a comment to bash
    cur=${before[-1]//\\/}
    unset 'before[-1]'
  fi
  local stays=${cur%"${cur##*["$COMP_WORDBREAKS"]}"}
  @NAME@_walk "${before[@]:1}"
  if [[ -z $pending && $cur == --*=* ]]; then
    pending=${cur%%=*}
    lead=$pending=
    cur=${cur#*=}
    @NAME@_value "$at $pending"
  fi
  case $action in
    choices\ *) mapfile -t found < <(compgen -W "${action#choices }" -- "$cur") ;;
    list\ *) mapfile -t found < <(
      "${before[0]}" --candidates "${action#list }" "${before[@]:1}" 2>/dev/null </dev/null) ;;
    files) compopt -o filenames 2>/dev/null; mapfile -t found < <(compgen -f -- "$cur") ;;
    dirs) compopt -o filenames 2>/dev/null; mapfile -t found < <(compgen -d -- "$cur") ;;
  esac
  if [[ -z $pending ]]; then
    if [[ $cur == -* ]]; then subs=$dashed; found=(); fi
    found+=($(compgen -W "$subs" -- "$cur"))
  fi
  COMPREPLY=()
  for reply in "${found[@]}"; do
    [[ $reply == "$cur"* ]] || continue
    reply=$lead$reply
    reply=${reply#"$stays"}
    if [[ $action == list\ * ]]; then printf -v reply %q "$reply"; fi
    COMPREPLY+=("$reply")
  done
}
complete -F @NAME@ @PROGRAM@
)sh";

constexpr const char* kZsh = R"sh(@NAME@() {
  local at subs dashed valued actions action pending
  @NAME@_walk "${(@)words[2,CURRENT-1]}"
  if [[ -z $pending && ${words[CURRENT]} == --*=* ]]; then
    pending=${words[CURRENT]%%=*}
    @NAME@_value "$at $pending"
    compset -P '*='
  elif [[ -z $pending && ${words[CURRENT]} == -* ]]; then
    compadd -- ${=dashed}
    return
  fi
  case $action in
    choices\ *) compadd -- ${=action#choices } ;;
    list\ *) compadd -- ${(f)"$(${words[1]} --candidates ${action#list } \
      "${(@)words[2,CURRENT-1]}" 2>/dev/null </dev/null)"} ;;
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

/// NAME_at PLACE [COUNT]: whether the cursor is at PLACE with COUNT words before it ("COUNT+": or
/// more).
constexpr const char* kFishWalk = R"sh(function @NAME@_at
    set -l place ''
    set -l skip 0
    set -l count 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if string match -q -- '-*' $word
            contains -- "$place $word" $@NAME@_valued; and set skip 1
        else
            set -l inner (string trim -- "$place $word")
            if contains -- $inner $@NAME@_places
                set place $inner
            else
                set count (math $count + 1)
            end
        end
    end
    test "$place" = "$argv[1]"; or return 1
    switch "$argv[2]"
        case ''
            return 0
        case '*+'
            test $count -ge (string replace + '' -- $argv[2])
        case '*'
            test $count = $argv[2]
    end
end

function @NAME@_list
    set -l before (commandline -opc)
    command $before[1] --candidates $argv[1] $before[2..-1] 2>/dev/null </dev/null
end

complete -c @PROGRAM@ -f
)sh";

/// The words for `complete ... -a`; "" when there are none.
std::string FishWords(const ArgInfo& info, const std::string& name) {
  if (info.kind == Kind::kChoice) return str::Join(info.choices, " ");
  if (WantsFile(info)) return "";
  if (WantsDir(info)) return "(__fish_complete_directories)";
  return info.completes.empty() ? "" : "(" + name + "_list " + info.completes + ")";
}

std::string FishValue(const ArgInfo& info, const std::string& name) {
  if (info.kind == Kind::kFlag) return "";
  const std::string words = FishWords(info, name);
  if (!words.empty()) return " -x -a " + FishQuoted(words);
  return WantsFile(info) ? " -r -F" : " -x";
}

std::string FishLines(const Level& level, const std::string& name, const std::string& program) {
  const std::string here = name + "_at " + FishQuoted(level.path);
  const std::string start = "complete -c " + program + " -n ";
  std::string out;
  for (const Args& command : level.args->Commands()) {
    out += start + FishQuoted(here) + " -a " + command.Name() + " -d " +
           FishQuoted(command.Summary()) + "\n";
  }
  for (const ArgInfo* option : level.options) {
    out += start + FishQuoted(here) + " -l " + option->name;
    if (option->letter != '\0') out += std::string(" -s ") + option->letter;
    out += FishValue(*option, name) + " -d " + FishQuoted(option->help) + "\n";
  }
  int count = 0;
  for (const Arg& arg : level.args->Positionals()) {
    const ArgInfo& info = arg.Info();
    const std::string place = here + " " + std::to_string(count++) + (info.repeated ? "+" : "");
    const std::string words = FishWords(info, name);
    if (!words.empty()) {
      out += start + FishQuoted(place) + " -a " + FishQuoted(words) + "\n";
    } else if (WantsFile(info)) {
      out += start + FishQuoted(place) + " -F\n";
    }
  }
  return out;
}

std::string Fish(const Args& program, const std::string& name) {
  std::string places = "set -g " + name + "_places";
  std::string valued = "set -g " + name + "_valued";
  std::string lines;
  for (const Level& level : Levels(program)) {
    if (!level.path.empty()) places += " " + FishQuoted(level.path);
    for (std::string words = ValueOptions(level); !words.empty();)
      valued += " " + FishQuoted(level.path + " " + str::GetWord(words));
    lines += FishLines(level, name, program.Name());
  }
  return places + "\n" + valued + "\n\n" + kFishWalk + lines;
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

}  // namespace opts
