// ost_install -m MODULE -v VERSION -i KEY -t DIR -d INDEX
//
// Installs or updates the template KEY of a repository in DIR/KEY.
//
// The library starts it as a task: progress is written to the task's state. Exit codes: 0
// installed, 1 failed, 2 wrong command line.
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "brefir/cmdarg_man.h"
#include "console/begin.h"
#include "fleet/template_install.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"
#include "pnl/task.h"
#include "pnl/test.h"
#include "tools/frame/output.h"

namespace {

volatile sig_atomic_t stop_signal = 0;

extern "C" void OnStopSignal(int number) {
  stop_signal = number;
}

/// SIGTERM and SIGINT end the work at the next block, with everything cleaned up; a second one ends
/// the process at once.
void CatchStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGTERM, SIGINT}) sigaction(number, &action, nullptr);
}

void CheckStop() {
  if (stop_signal != 0) throw pnl_err::Error("stopped", "signal", str::Str(stop_signal));
}

/// All long work calls this.
void Progress(std::string_view what, std::uint64_t done, std::uint64_t total) {
  CheckStop();
  pnl_task::ReportProgress(what, done, total);
}

const opts::ManNotes kManNotes = {
    {{"DIR/KEY/metainfo.xml", "data of the template, and the result of its installation"},
     {"DIR/KEY/templatemacros.values", "the administrator's macro values, kept by updates"},
     {"DIR/KEY/autoupdate, DIR/KEY/restrict", "markers, kept by updates"},
     {"DIR/.unpack", "where archives are unpacked"},
     {"DIR/.replaced",
      "the old template for a moment, where the file system cannot exchange directories"},
     {"var/ost_install.log", "the log"}},
    {"brefirctl-template(1)", "templatemacros.values(5)"}};

ostemplate::TemplateKey ParseKey(const std::string& text) {
  const auto key = ostemplate::TemplateKey::Parse(text);
  if (key && !key->name.empty() && test::PathComponent(text)) return *key;
  throw pnl_err::Error(opts::kUsageError, "--key", text)
      .add_param("message", "'" + text + "' is not a template's key, REPOSITORY__NAME");
}

fleet::TemplateRequest ReadRequest(int argc, char** argv) {
  opts::Args args("ost_install",
                  "Installs an OS template of a repository, or brings it up to date.");
  args.Details(
          "The program finds the template in the repository's index and fetches its archive. It "
          "unpacks the archive below DIR/.unpack, and then moves the template to DIR/KEY. An "
          "update keeps the administrator's macro values and markers. An update that fails leaves "
          "the installed template unchanged. If a first installation fails, metainfo.xml in "
          "DIR/KEY has the reason (install_result). An archive that unpacks to more than 64 GiB is "
          "refused, and 64 MiB of the disk stay free.\n'brefirctl template install' starts this "
          "program as a task. After SIGTERM or SIGINT it cleans up and ends.")
      .Example(
          "sbin/ost_install -m panel -v 1.0 -i main__Debian-12 \\\n"
          "      -t /opt/panel/templates -d var/.oscache/main/metadata.xml");
  args.Option("man").Help("print the man page").Last();
  const auto option = [&](const char* name, char letter, const char* value, const char* help) {
    args.Option(name).Short(letter).Value(value).Help(help).Required();
  };
  option("module", 'm', "MODULE", "the panel module that the template is for");
  option("version", 'v', "VERSION", "the version of that module");
  option("key", 'i', "KEY", "the template: repository name, two underscores, OS name");
  option("dir", 't', "DIR", "the directory of installed templates");
  option("index", 'd', "INDEX", "the repository's index file");

  const opts::Values values = args.Parse(argc, argv);
  if (!values.EndedBy().empty()) {
    const std::string text =
        values.EndedBy() == "help" ? args.Usage() : opts::ManPage(args, kManNotes);
    pnl_file::WriteAll(STDOUT_FILENO, text, "standard output");
    exit(0);
  }
  return {values.Str("module"), values.Str("version"), ParseKey(values.Str("key")),
          values.Str("dir"), values.Str("index")};
}

int Fail(const pnl_err::Error& error) {
  const bool usage = error.type() == opts::kUsageError;
  const std::string text =
      usage || error.type() == pnl_err::kFile || error.type() == pnl_file::kLockError
          ? tools::ErrorText(error, tools::Format::kTable)
          : error.what();
  fprintf(stderr, "ost_install: %s\n", str::WithoutCredentials(text).c_str());
  return usage ? 2 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  console::Begin();
  CatchStopSignals();
  umask(022);
  pnl_log::Echo(3);  // the task's log must show why a download failed
  try {
    fleet::InstallTemplate(ReadRequest(argc, argv),
                           {.progress = Progress, .check_stop = CheckStop});
    return 0;
  } catch (const pnl_err::Error& error) {
    return Fail(error);
  } catch (const std::exception& error) {
    fprintf(stderr, "ost_install: %s\n", error.what());
    return 1;
  }
}
