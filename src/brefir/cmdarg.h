#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"

/// Command lines of the panel's utilities.
///
/// A program registers its options, sub-commands and positional words once. Parsing, the usage
/// text, completion scripts and man pages are all made from this registration.
///
///     opts::Args args("nodectl", "Looks after a node.");
///     args.Option("verbose").Short('v').Help("tell every step");
///     opts::Args& copy = args.Command("copy", "Copies files to a node.");
///     copy.Option("node").Short('n').Value("HOST").Help("the node").Required();
///     copy.Option("port").Number("PORT", 1, 65535).Default("22").Help("its SSH port").Needs("node");
///     copy.Positional("FILE").Repeated().Help("what to copy");
///
///     const opts::Values values = args.Parse(argc, argv);
///     if (values.EndedBy() == "help") return puts(args.Usage(values.Command()).c_str()), 0;
///     Copy(values.Str("node"), values.Int("port"), values.List("FILE"));
///
/// How a command line is read
///   --name=value  --name value  -n value  -nvalue    a value; "--name=" is the empty one
///   -abc                                             short flags in one word; the last may be an
///                                                    option with its value: -abn value
///   --                                               ends the options: words follow
///   -                                                a word like any other
/// Options and words may be mixed. A value in a separate word must not begin with "-", because it
/// is then read as an option; write "--name=-x" instead. The value "-" and negative numbers of
/// number options are allowed. Long names cannot be abbreviated: a script must not break when an
/// option is added.
///
/// Sub-commands nest. After a sub-command's word its own options are valid, and those of the outer
/// levels too. When both have the same name or letter, the inner option counts. Every level has
/// "--help" and "-h"; a sub-command may use the letter for another option.
///
/// A wrong command line is pnl_err::Error of type "usage". The object is the wrong option or word
/// ("--prot", "FILE", "instal"), the value is the command ("nodectl copy"), and the parameter
/// "message" is a sentence for people that says what to do. The parameter "nearest" is the known
/// name that is most similar to a misspelt one, if any. A wrong registration is an error of the
/// program: every Parse then throws pnl_err::Error("opts", name) with a parameter "message".
///
/// Thread safety: const functions may be called from any thread.
namespace opts {

inline constexpr const char* kUsageError = "usage";  ///< the type of a wrong command line's error

enum class Kind {
  kFlag,    ///< takes no value
  kText,    ///< any value
  kNumber,  ///< a decimal number within limits
  kChoice,  ///< one of a list
};

/// One registered option or positional word, as help, completion and man pages read it.
struct ArgInfo {
  std::string name;    ///< "node"; "FILE" for a positional word
  char letter = '\0';  ///< short form, if any
  Kind kind = Kind::kFlag;
  std::string value_name;  ///< the placeholder in texts: "HOST", "table|json"
  std::string help;
  std::vector<std::string> choices;
  std::int64_t min = 0;
  std::int64_t max = 0;
  std::optional<std::string> default_value;
  bool positional = false;
  bool required = false;
  bool repeated = false;
  bool last = false;
  bool hidden = false;
  std::string completes;              ///< the list that completion uses; see Arg::Completes
  std::vector<std::string> needs;     ///< names of options
  std::vector<std::string> excludes;  ///< names of options
  std::vector<std::string> also;      ///< further choices that no text shows
};

/// An option or a positional word that is being registered. An option is a flag unless Value,
/// Number or OneOf is called.
class BREFIR_API Arg {
 public:
  Arg(std::string name, bool positional);

  Arg& Short(char letter);
  Arg& Help(std::string text);  ///< a phrase in lower case without a full stop

  Arg& Value(std::string value_name);
  Arg& Number(std::string value_name, std::int64_t min, std::int64_t max);
  Arg& OneOf(std::vector<std::string> choices);
  Arg& Also(std::string choice);  ///< one more choice, shown in no text
  /// The value when the option is not given. It must be a valid value of the option.
  Arg& Default(std::string value);

  Arg& Required();  ///< an option that must be given
  Arg& Optional();  ///< a positional word that may be missing
  Arg& Repeated();  ///< may be given several times; a positional word takes all words it can get

  /// When this option is given, `option` (of this level or an outer one) must be given too.
  Arg& Needs(std::string option);
  /// This option and `option` must not be given together. Register it at one of the two.
  Arg& Excludes(std::string option);
  /// Ends the parsing, as --help does: the following words go to Values::Rest, and missing options
  /// are no error.
  Arg& Last();
  /// For other programs only: neither shown in texts nor offered by completion.
  Arg& Hidden();
  /// Completion offers "files", "dirs", or a list of the program itself, such as "templates".
  Arg& Completes(std::string list);

  const ArgInfo& Info() const { return info_; }

 private:
  ArgInfo info_;
};

/// The result of parsing a command line. A name stands for the option of the innermost level that
/// has it. A name that no level on the command line has throws pnl_err::Error("opts", name).
class BREFIR_API Values {
 public:
  /// The sub-commands' words, outermost first: {"repo", "add"}.
  const std::vector<std::string>& Command() const { return command_; }
  /// Whether the option was given on the command line; a default does not count.
  bool Has(std::string_view name) const;
  /// The same, but false also when the command has no such option.
  bool HasAtAll(std::string_view name) const;
  const std::string& Str(
      std::string_view name) const;               ///< the given value, else the default, else ""
  std::int64_t Int(std::string_view name) const;  ///< the same as a number, else 0
  /// All values in the order in which they were given; else the default alone; else none.
  const std::vector<std::string>& List(std::string_view name) const;
  /// The option that ended the parsing early (Arg::Last), such as "help"; "" when none did.
  const std::string& EndedBy() const { return ended_by_; }
  /// The words after that option.
  const std::vector<std::string>& Rest() const { return rest_; }

 private:
  friend class Parser;
  struct Entry {
    bool given = false;
    std::vector<std::string> values;
  };
  using Level = std::map<std::string, Entry, std::less<>>;
  const Entry* Look(std::string_view name) const;
  const Entry& Find(std::string_view name) const;

  std::vector<std::string> command_;
  std::string ended_by_;
  std::vector<std::string> rest_;
  std::vector<Level> levels_;
};

/// A program, or one of its sub-commands, with its whole registration. A value; the references that
/// the registering functions return are valid as long as this object, and do not refer to its
/// copies.
class BREFIR_API Args {
 public:
  /// A program with its option --help.
  Args(std::string name, std::string summary);

  Arg& Option(std::string name);      ///< `name` without dashes
  Arg& Positional(std::string name);  ///< in the order of the words; required unless Optional
  /// A sub-command. A level has either sub-commands or positional words.
  Args& Command(std::string name, std::string summary);
  /// The placeholder for its sub-commands in texts, in upper case ("FAMILY"); "COMMAND" by default.
  Args& CommandName(std::string name);
  /// Another word for this sub-command, shown in no text. Values::Command still returns the name.
  Args& Alias(std::string name);
  Args& Details(std::string text);  ///< further paragraphs of the help, one line each
  Args& Example(std::string call);  ///< a whole command line, shown at the end of the help

  Values Parse(int argc, const char* const* argv) const;  ///< argv[0] is skipped
  Values Parse(const std::vector<std::string>& words) const;
  /// What a value that was given stands for.
  using Meaning = std::function<std::string(const std::string& value)>;
  /// The same for a template of a command line: each value of an option and each positional word is
  /// replaced by what it means, after the words were told apart and before it is checked. What comes
  /// in is never an option, whatever it begins with. Throws what `meaning` throws.
  Values Parse(const std::vector<std::string>& words, const Meaning& meaning) const;

  /// The help of the sub-command `command` (a path as Values::Command returns it; {} for the
  /// program), wrapped to `width` columns; 0 means TerminalWidth().
  std::string Usage(const std::vector<std::string>& command = {}, std::size_t width = 0) const;

  const std::string& Name() const { return name_; }
  const std::string& Summary() const { return summary_; }
  const std::string& Details() const { return details_; }
  const std::string& CommandName() const { return command_name_; }
  const std::vector<std::string>& Examples() const { return examples_; }
  const std::list<Arg>& Options() const { return options_; }
  const std::list<Arg>& Positionals() const { return positionals_; }
  const std::list<Args>& Commands() const { return commands_; }
  const Args* FindCommand(std::string_view name) const;  ///< nullptr when there is none

 private:
  struct Inner {};
  Args(Inner, std::string name, std::string summary);

  std::string name_;
  std::string summary_;
  std::string details_;
  std::string command_name_ = "COMMAND";
  std::vector<std::string> aliases_;
  std::vector<std::string> examples_;
  // Lists: registering functions return references, and elements of a list never move.
  std::list<Arg> options_;
  std::list<Arg> positionals_;
  std::list<Args> commands_;
};

/// An option as texts show it: "-n, --node HOST", "    --wait"; a positional word "FILE...",
/// "[FILE]".
[[nodiscard]] BREFIR_API std::string Label(const ArgInfo& info);

/// Its help with limits, default and conditions: "its SSH port (1 to 65535; default: 22; needs
/// --node)".
[[nodiscard]] BREFIR_API std::string Describe(const ArgInfo& info);

/// The synopsis for texts, from the program to the last of `levels`: "nodectl copy [OPTION...]
/// FILE...".
[[nodiscard]] BREFIR_API std::string Synopsis(const std::vector<const Args*>& levels);

/// The options of the outer levels that texts also show for the last of `levels`: those that no
/// inner level overrides. Of the options that end the parsing, only --help is among them.
[[nodiscard]] BREFIR_API std::vector<const ArgInfo*> OuterOptions(
    const std::vector<const Args*>& levels);

/// The name in `known` that `word` probably means: a name that differs in few letters (inserted,
/// dropped, changed, neighbours swapped), or one that begins with `word`. "" when there is none.
[[nodiscard]] BREFIR_API std::string Nearest(std::string_view word,
                                             const std::vector<std::string>& known);

/// The columns of the terminal on standard output; else the environment variable COLUMNS; else 80.
[[nodiscard]] BREFIR_API std::size_t TerminalWidth();

}  // namespace opts
