#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"

/// Command lines of the panel's utilities.
///
/// A program registers its options, sub-commands and positional words once; parsing, the usage
/// text, and whatever a program renders from the registration (completion, man pages) follow.
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
///   --                                               what follows are no options
///   -                                                a word like any other
/// Options and words mix freely. A value in a word of its own must not begin with "-" (unless it is
/// "-" or a negative number for a number): it would be an option meant as one; "--name=-x" says
/// otherwise. Long names are never completed from a prefix: a script must not break when an option
/// is added.
///
/// Sub-commands nest. After a sub-command's word its own options are known and those of the levels
/// around it still are; where both have a name (or letter), the inner one wins. Every program has
/// "--help", "-h" at every level; a sub-command may take the letter for itself.
///
/// A wrong command line is pnl_err::Error of type "usage": object the option or word at fault
/// ("--prot", "FILE", "instal"), value the command that was being read ("nodectl copy"), parameter
/// "message" a sentence for people that says what to do, and parameter "nearest" the known name
/// that a misspelt one resembles, if there is one. A wrong registration is a fault of the program:
/// pnl_err::Error("opts", name) with a parameter "message", thrown by every Parse.
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
  std::string name;    ///< "node", or "FILE" of a positional word
  char letter = '\0';  ///< short form, if any
  Kind kind = Kind::kFlag;
  std::string value_name;  ///< what stands for the value in texts: "HOST", "table|json"
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
  std::string completes;              ///< what a completion script asks the program for
  std::vector<std::string> needs;     ///< names of options
  std::vector<std::string> excludes;  ///< names of options
  std::vector<std::string> also;      ///< further choices
};

/// An option or a positional word being registered. An option is a flag until one of Value, Number
/// and OneOf says what it takes.
class BREFIR_API Arg {
 public:
  Arg(std::string name, bool positional);

  Arg& Short(char letter);
  Arg& Help(std::string text);  ///< a phrase in lower case without a full stop

  Arg& Value(std::string value_name);
  Arg& Number(std::string value_name, std::int64_t min, std::int64_t max);
  Arg& OneOf(std::vector<std::string> choices);
  Arg& Also(std::string choice);  ///< one more, which no text tells of
  /// What Values answers when the option is not given. Has to be a value that could be given.
  Arg& Default(std::string value);

  Arg& Required();  ///< an option that must be given
  Arg& Optional();  ///< a positional word that may be missing
  Arg& Repeated();  ///< may be given several times; a positional word takes all words it can get

  /// When this option is given, so must be `option` (of this level or one around it).
  Arg& Needs(std::string option);
  /// This option and `option` are not given together; one of the two says so.
  Arg& Excludes(std::string option);
  /// Ends the reading, as --help does: what follows goes to Values::Rest, nothing is missed.
  Arg& Last();
  /// For other programs only: no text tells of it, nor does completion offer it.
  Arg& Hidden();
  /// Completion offers "files", "dirs", or what the program itself lists under another word, such
  /// as "templates".
  Arg& Completes(std::string list);

  const ArgInfo& Info() const { return info_; }

 private:
  ArgInfo info_;
};

/// What a command line said. A name means the innermost level that registers it; asking for one
/// that none of the levels on the command line registers throws pnl_err::Error("opts", name).
class BREFIR_API Values {
 public:
  /// The sub-commands' words, outermost first: {"repo", "add"}.
  const std::vector<std::string>& Command() const { return command_; }
  /// Given on the command line; a default does not count.
  bool Has(std::string_view name) const;
  /// The same; false also of what the command does not have.
  bool HasAtAll(std::string_view name) const;
  const std::string& Str(std::string_view name) const;  ///< given, else default, else ""
  std::int64_t Int(std::string_view name) const;        ///< the same as a number, else 0
  /// All values in the order given, else the default as the only one, else none.
  const std::vector<std::string>& List(std::string_view name) const;
  /// The option that ended the reading before its time (Arg::Last): "help"; "" when none did.
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

/// A program, or one of its sub-commands: a value that holds its whole registration. References
/// that the registering calls return live as long as the object and are not those of its copies.
class BREFIR_API Args {
 public:
  /// A program with its option --help.
  Args(std::string name, std::string summary);

  Arg& Option(std::string name);      ///< `name` without dashes
  Arg& Positional(std::string name);  ///< in the order of the words; required unless Optional
  /// A sub-command. A level has either sub-commands or positional words.
  Args& Command(std::string name, std::string summary);
  /// What its sub-commands are called in texts, in upper case ("FAMILY"); "COMMAND" otherwise.
  Args& CommandName(std::string name);
  /// Another word for this sub-command, which no text tells of; Values::Command has its name.
  Args& Alias(std::string name);
  Args& Details(std::string text);  ///< further paragraphs of the help, each one line
  Args& Example(std::string call);  ///< a whole command line, shown at the end of the help

  Values Parse(int argc, const char* const* argv) const;  ///< argv[0] is passed over
  Values Parse(const std::vector<std::string>& words) const;

  /// The help of the sub-command `command` (a path as Values::Command gives it; {} for the
  /// program), wrapped to `width` columns, 0 for TerminalWidth().
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
  // Lists, because their elements stay where they are: registering calls return references.
  std::list<Arg> options_;
  std::list<Arg> positionals_;
  std::list<Args> commands_;
};

/// An option as texts show it: "-n, --node HOST", "    --wait"; a positional word "FILE...",
/// "[FILE]".
[[nodiscard]] BREFIR_API std::string Label(const ArgInfo& info);

/// Its help with what else is to know: "its SSH port (1 to 65535; default: 22; needs --node)".
[[nodiscard]] BREFIR_API std::string Describe(const ArgInfo& info);

/// The call as texts show it, from the program to the last of `levels`:
/// "nodectl copy [OPTION...] FILE...".
[[nodiscard]] BREFIR_API std::string Synopsis(const std::vector<const Args*>& levels);

/// The options of the levels around the last of `levels` that texts offer there too: those that no
/// level nearer to it takes over. Of those that end the reading only the help is about that level.
[[nodiscard]] BREFIR_API std::vector<const ArgInfo*> OuterOptions(
    const std::vector<const Args*>& levels);

/// The one of `known` that `word` probably means: it differs in few letters (inserted, dropped,
/// changed, neighbours swapped) or begins with it. "" when there is none.
[[nodiscard]] BREFIR_API std::string Nearest(std::string_view word,
                                             const std::vector<std::string>& known);

/// Columns of the terminal on standard output (ioctl_tty(2)), else the environment's COLUMNS, else
/// 80.
[[nodiscard]] BREFIR_API std::size_t TerminalWidth();

}  // namespace opts
