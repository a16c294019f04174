#pragma once

#include <string>
#include <string_view>

#include "brefir/cmdarg.h"
#include "console/progress_bar.h"
#include "pnl/err.h"
#include "tools/frame/output.h"

/// What the frame gives a verb to work with.
namespace tools {

/// Exit codes.
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;  ///< also when only a part failed
inline constexpr int kUsage = 2;
inline constexpr int kNo = 3;  ///< the answer to a question, or to --check: there would be a change
inline constexpr int kInterrupted = 130;  ///< as shells call what SIGINT ended: 128 and its number

/// The command line, standard output and the progress bar. The working directory is the prefix.
class Context {
 public:
  Context(const opts::Values& command_line, std::string start_dir, Output& output,
          console::ProgressBar& progress_bar)
      : values(command_line), out(output), bar(progress_bar), start_dir_(std::move(start_dir)) {}

  const opts::Values& values;
  Output& out;
  console::ProgressBar&
      bar;  ///< already draws what the library reports on this thread (pnl_progress)

  /// A file argument as a path that holds after the change to the prefix: the user means it from
  /// the directory in which the program was started.
  std::string Path(const std::string& word) const;

  /// The option when given, else the setting `key` of etc/brefir.conf.
  std::string Setting(std::string_view option, std::string_view key) const;
  /// The same for a path: an option's is taken from where the program was started, a setting's from
  /// the prefix.
  std::string PathSetting(std::string_view option, std::string_view key) const;

  /// Whether the change is only to be shown or asked about: --dry-run, --check.
  bool OnlyPlans() const;

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

/// Tells an error on standard error, one line: "brefirctl: ..." or one JSON object.
void TellError(const pnl_err::Error& error, Format format);

}  // namespace tools
