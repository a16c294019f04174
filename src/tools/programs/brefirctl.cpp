#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "brefir/cmdarg_completion.h"
#include "brefir/version.h"
#include "console/begin.h"
#include "console/interrupt.h"
#include "fleet/panel_dir.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/progress.h"
#include "tools/commands/candidates.h"
#include "tools/commands/families.h"
#include "tools/frame/command_line.h"
#include "tools/frame/man_page.h"

namespace tools {
namespace {

/// The format for errors of the command line itself, when it could not be parsed.
Format AskedFormat(const std::vector<std::string>& words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "-ojson" || words[i] == "--output=json") return Format::kJson;
    if ((words[i] == "-o" || words[i] == "--output") && i + 1 < words.size() &&
        words[i + 1] == "json")
      return Format::kJson;
  }
  return Format::kTable;
}

pnl_err::Error NoPrefix(const std::string& dir) {
  return UsageError("prefix", dir,
                    "'" + pnl_file::GetCurrentDir() +
                        "' is not a panel's directory, which has its own etc and var; make one "
                        "with 'brefirctl prefix init', or name one with --prefix, BREFIR_PREFIX or "
                        "'prefix = DIR' in /etc/brefir.conf");
}

void EnterPrefix(const std::string& dir) {
  if (chdir(dir.c_str()) != 0) throw pnl_err::System("enter", dir, errno);
  if (!fleet::IsPanelDir()) throw NoPrefix(dir);
  pnl_log::Reload();
}

void EnterPlace(Place place, const opts::Values& values) {
  if (place == Place::kStart) return;
  const std::string prefix = values.Has("prefix") ? values.Str("prefix") : fleet::DefaultPrefix();
  if (!prefix.empty() || values.Has("prefix")) return EnterPrefix(prefix);
  if (place == Place::kPrefix) throw NoPrefix(".");
  pnl_log::NoFile();  // in "/" it would be in the system's /var
}

/// What --help, --version, --completion, --man and --candidates print.
std::string Information(const std::vector<Family>& families, const opts::Args& program,
                        const opts::Values& values) {
  if (values.EndedBy() == "help") return program.Usage(values.Command());
  if (values.EndedBy() == "version") return "brefirctl " BREFIR_VERSION "\n";
  if (values.EndedBy() == "completion") return opts::Completion(program, values.Str("completion"));
  if (values.EndedBy() == "candidates") return Candidates(values.Str("candidates"), values.Rest());
  const std::vector<std::string>& family =
      values.Command().empty() ? values.Rest() : values.Command();
  return ManPage(families, program, family.empty() ? "" : family.front());
}

Format FormatNamed(const std::string& word) {
  if (word == "csv") return Format::kCsv;
  return word == "json" ? Format::kJson : Format::kTable;
}

View ViewOf(const opts::Values& values) {
  View view{.sort = values.Str("sort"), .headers = !values.Has("no-headers")};
  str::Split(values.Str("columns"), ",", view.columns);
  return view;
}

int RunVerb(const Verb& verb, const opts::Values& values, Output& out) {
  if (values.Has("verbose")) pnl_log::Echo(pnl_log::kMaxLevel);
  out.SetFields(AllFields(verb));
  out.SetView(ViewOf(values));
  const std::string start_dir = pnl_file::GetCurrentDir();
  EnterPlace(verb.place, values);
  // Log lines and the bar would overwrite each other.
  console::ProgressBar bar(!values.Has("verbose") && !values.Has("quiet"));
  const pnl_progress::Watch watch([&](std::string_view what, std::uint64_t done,
                                      std::uint64_t total) { bar.Show(what, done, total); });
  Context context(values, start_dir, out, bar);
  const int code = Run(verb, context);
  if (code == kFailed && console::WasInterrupted()) return kInterrupted;
  return code == kDone && context.Failed() ? kFailed : code;
}

/// "help", "help FAMILY" and "version" are other words for options.
std::vector<std::string> Meant(std::vector<std::string> words) {
  if (words.empty()) return words;
  if (words.front() == "version") words.front() = "--version";
  if (words.front() != "help") return words;
  words.erase(words.begin());
  words.emplace_back("--help");
  return words;
}

int Run(const std::vector<std::string>& words, Output& out) {
  const std::vector<Family> families = Families();
  const opts::Args program = Program(families);
  const opts::Values values = program.Parse(Meant(words));
  out.SetFormat(FormatNamed(values.Str("output")));
  if (values.EndedBy().empty()) return RunVerb(Find(families, values.Command()), values, out);
  out.Raw(Information(families, program, values));
  return kDone;
}

int ExitCode(const pnl_err::Error& error) {
  if (error.type() == opts::kUsageError) return kUsage;
  return console::WasInterrupted() ? kInterrupted : kFailed;
}

/// No message when the reader has closed the pipe (`brefirctl ... | head`).
bool ReaderLeft(const pnl_err::Error& error) {
  return error.type() == pnl_err::kFile && error.code() == EPIPE;
}

pnl_err::Error Unreported(pnl_err::Error error) {
  return error.add_param("message", "the report could not be written (" +
                                        ErrorText(error, Format::kTable) +
                                        "); the exit code shows whether the work succeeded");
}

int Finish(Output& out, int code) {
  try {
    out.Finish();
    return code;
  } catch (const pnl_err::Error& error) {
    const bool work = out.TellsOfWork();
    if (!ReaderLeft(error)) TellError(work ? Unreported(error) : error, out.GetFormat());
    return work ? code : kFailed;
  }
}

int Main(const std::vector<std::string>& words) {
  Output out(AskedFormat(words));
  int code = kFailed;
  try {
    code = Run(words, out);
  } catch (const pnl_err::Error& error) {
    if (!ReaderLeft(error)) TellError(error, out.GetFormat());
    code = ExitCode(error);
  } catch (const std::exception& error) {
    TellError(pnl_err::Error("internal", "", error.what()), out.GetFormat());
  }
  return Finish(out, code);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv) {
  console::Begin();
  return tools::Main({argv + std::min(argc, 1), argv + argc});
}
