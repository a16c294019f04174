#pragma once

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "brefir/cmdarg.h"
#include "brefir/fields.h"
#include "pnl/err.h"
#include "tools/output.h"
#include "tools/progress_bar.h"

/// The frame of brefirctl: one table of commands that drives parsing, help, completion and man
/// pages.
///
/// To add a family of commands:
///   1. write NAME_commands.cpp with its handlers and a function that returns the Family:
///
///          int List(Context& context) {
///            std::vector<Record> records;
///            ...
///            context.out.List(records, {"id", "state"});
///            return kDone;
///          }
///
///          Family TaskFamily() {
///            return {"task", "Long-running tasks.", nullptr, {
///                {"list", "Lists all tasks.", nullptr, List, {"", "-o json"}, kTask},
///                {"show", "Shows one task.", [](opts::Args& args) { args.Positional("ID"); },
///                Show, {"OST_INSTALL@main__Debian-12"}, kTask},
///            }};
///          }
///   2. declare that function in commands.h and call it in Families() in commands.cpp.
/// Value names have a meaning for completion: FILE completes file names, DIR directories; choices
/// (OneOf) complete themselves, and Completes offers what the panel has (candidates.h).
///
/// A command's table of fields is what the man page promises to programs. Output holds the command
/// to it: a record of other fields is a fault, so that the first test of a command finds it.
namespace tools {

/// Exit codes.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;  ///< also when only a part failed
inline constexpr int kUsage = 2;
inline constexpr int kNo = 3;  ///< the answer to a question

/// What a handler works with. The working directory is the prefix.
class Context {
 public:
  Context(const opts::Values& command_line, std::string start_dir, Output& output,
          ProgressBar& progress_bar)
      : values(command_line), out(output), bar(progress_bar), start_dir_(std::move(start_dir)) {}

  const opts::Values& values;
  Output& out;
  ProgressBar& bar;  ///< already draws what the library reports on this thread (pnl_progress)

  /// A file argument as a path that holds after the change to the prefix: the user means it from
  /// the directory in which the program was started.
  std::string Path(const std::string& word) const;

  /// The option when given, else the setting `key` of etc/brefir.conf.
  std::string Setting(std::string_view option, std::string_view key) const;
  /// The same for a path: an option's is taken from where the program was started, a setting's from
  /// the prefix.
  std::string PathSetting(std::string_view option, std::string_view key) const;

  /// Tells an error at once and goes on, for work on many items; the program will end with kFailed.
  /// What ends the command is thrown instead.
  void Report(const pnl_err::Error& error);
  bool Failed() const { return failed_; }
  /// Tells what is amiss beside the work, which goes on as if nothing were.
  void Warn(const pnl_err::Error& error);

 private:
  std::string start_dir_;
  bool failed_ = false;
};

/// Where a command works.
enum class Place {
  kPrefix,    ///< in the panel's directory, which has to be there
  kAnywhere,  ///< there too, but nothing of it lives there: without one, where it was started
  kStart,     ///< where it was started
};

struct Command {
  std::string verb;                    ///< "": the family's only command, which is its name alone
  std::string summary;                 ///< a sentence
  void (*describe)(opts::Args& args);  ///< registers options and positional words; may be nullptr
  int (*run)(Context& context);        ///< an exit code
  std::vector<std::string> examples =
      {};                          ///< what stands behind the verb: "main__Debian-12 --wait"
  std::vector<Field> fields = {};  ///< of what it prints
  Place place = Place::kPrefix;
};

struct Family {
  std::string name;
  std::string summary;                 ///< a sentence
  void (*describe)(opts::Args& args);  ///< registers options of all its verbs; may be nullptr
  std::vector<Command> commands;
  std::vector<Note> files = {};            ///< what its man page tells of files, below the prefix
  std::vector<std::string> see_also = {};  ///< further man pages: "ostemplates.conf(5)"
};

/// Fields of several commands, put together.
[[nodiscard]] std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more);

/// The fields of a record of the library, as a command declares them.
template <class... T>
std::vector<Field> FieldsOf(const std::tuple<T...>& table, const std::string& when = "") {
  std::vector<Field> fields;
  utils::ForEach(table, [&](const auto& field) {
    fields.push_back({field.name, field.meaning, when});
  });
  return fields;
}

/// And as it prints them: what has a text is that text.
template <class R, class... T>
void AddFields(Record& record, const std::tuple<T...>& table, const R& values) {
  utils::ForEach(table, [&](const auto& field) {
    const auto& value = values.*field.member;
    if constexpr (requires { value.Str(); }) {
      record.Add(field.name, value.Str());
    } else {
      record.Add(field.name, value);
    }
  });
}

/// The family with all its verbs but `bound` at Place::kAnywhere.
[[nodiscard]] Family Anywhere(Family family, const std::set<std::string>& bound = {});

/// What --dry-run prints instead of the answer.
inline const Field kDiffField = {"diff", "the change, as a unified diff", "with --dry-run"};
inline const Field kWouldField = {"would", "the commands that would run", "with --dry-run"};

/// Prints a command that --dry-run keeps from being run; "" for none.
int Would(Context& context, const std::string& command);

/// Tells an error on standard error, one line: "brefirctl: ..." or one JSON object.
void TellError(const pnl_err::Error& error, Format format);

}  // namespace tools
