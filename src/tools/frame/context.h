#pragma once

#include <string>
#include <string_view>

#include "brefir/cmdarg.h"
#include "console/progress_bar.h"
#include "pnl/err.h"
#include "tools/frame/output.h"

/// The context in which the frame runs a verb.
namespace tools {

/// Exit codes.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;  ///< also when a part failed
inline constexpr int kUsage = 2;
inline constexpr int kNo = 3;  ///< the answer to a question, or to --check: there would be a change
inline constexpr int kInterrupted = 130;  ///< 128 + SIGINT, as in shells

/// Where a command comes from. A line of a file has no standard input, and its relative paths of this
/// host start from the file's directory.
enum class Origin {
  kCommandLine,
  kLine,         ///< for this host
  kLineOfNodes,  ///< for the nodes that the command line of the file names
};

/// The command line, standard output and the progress bar. The working directory is the prefix.
class Context {
 public:
  Context(const opts::Values& command_line, std::string start_dir, Output& output,
          console::ProgressBar& progress_bar, Origin origin = Origin::kCommandLine)
      : values(command_line),
        out(output),
        bar(progress_bar),
        start_dir_(std::move(start_dir)),
        origin_(origin) {}

  const opts::Values& values;
  Output& out;
  console::ProgressBar&
      bar;  ///< already shows the progress that the library reports on this thread (pnl_progress)

  /// The path of a file argument. The user's relative path starts from the directory in which the
  /// program was started, not from the prefix.
  std::string Path(const std::string& word) const;

  /// The directory in which the program was started.
  const std::string& StartDir() const { return start_dir_; }

  /// The value of the option if given, else the setting `key` of etc/brefir.conf.
  std::string Setting(std::string_view option, std::string_view key) const;
  /// The same for a path: an option is relative to the directory in which the program was started,
  /// a setting is relative to the prefix.
  std::string PathSetting(std::string_view option, std::string_view key) const;

  /// Whether the change is only to be shown: --dry-run, --save-plan.
  bool OnlyShows() const;
  /// The same, or checked: --check.
  bool OnlyPlans() const;

  bool IsLine() const { return origin_ != Origin::kCommandLine; }
  /// Whether nodes are named: --node, --nodes.
  bool HasNodes() const;

  /// Prints an error and goes on, for work on many items; the program will end with kFailed. To end
  /// the command, throw the error instead.
  void Report(const pnl_err::Error& error);
  bool Failed() const { return failed_; }
  /// Prints a warning; it does not change the exit code.
  void Warn(const pnl_err::Error& error);

 private:
  std::string start_dir_;
  Origin origin_;
  bool failed_ = false;
};

/// A setting that is a number of at least `least`; throws "setting", with a message, for another.
[[nodiscard]] std::int64_t NumberSetting(const std::string& key, std::int64_t least);

/// Prints an error on standard error as one line: "brefirctl: ..." or a JSON object.
void TellError(const pnl_err::Error& error, Format format);

}  // namespace tools
