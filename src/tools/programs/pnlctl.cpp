// pnlctl -m MODULE -o xml FUNCTION [NAME=VALUE...]
//
// The panel's control utility: calls a function of a panel module and prints its XML reply. A
// failure is a reply with an `error` element. The panel's directory comes from its own path:
// PREFIX/sbin/pnlctl works in PREFIX. Exit codes: 0 done, 1 failed, 2 wrong command line (then
// nothing is printed to standard output).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "brefir/cmdarg_man.h"
#include "console/begin.h"
#include "fleet/core_module.h"
#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/utf8.h"
#include "tools/frame/output.h"

namespace {

const opts::ManNotes kManNotes = {
    {{"etc/frontd.conf", "the listen addresses"}, {"var/pnlctl.log", "the log"}},
    {"brefirctl-frontd(1)", "brefirctl-node(1)"}};

opts::Args CommandLine() {
  opts::Args args("pnlctl", "Calls a function of a panel module and prints its XML reply.");
  args.Details(
          "The program finds the panel's directory by its own path: PREFIX/sbin/pnlctl works in "
          "PREFIX. If the function fails, the reply has an error node, the exit code is 1, and "
          "standard error stays empty.\nA module is a program of the panel. The functions of the "
          "module core manage the listen addresses of frontd, the panel's web server. frontd lists "
          "the entries. Each is an elem node with port (the listen address), sslauth and sslonly "
          "(on or off), and error if the server cannot use the entry. frontd.edit adds or changes "
          "the entry of ip and port; its other parameters are sslauth, sslonly and sok=ok. "
          "frontd.delete removes the entry whose listen address is elid.")
      .Example("/opt/panel/sbin/pnlctl -m core -o xml frontd")
      .Example(
          "/opt/panel/sbin/pnlctl -m core frontd.edit ip=192.0.2.1 port=443 \\\n"
          "      sslonly=on sslauth=off sok=ok");
  args.Option("man").Help("print the man page").Last();
  args.Option("module").Short('m').Value("MODULE").Required().Help("the module: core");
  args.Option("output").Short('o').OneOf({"xml"}).Default("xml").Help("the format of the reply");
  args.Positional("FUNCTION").Help("frontd, frontd.edit or frontd.delete");
  args.Positional("PARAM").Repeated().Optional().Help("its parameters, each NAME=VALUE");
  return args;
}

/// When called by its name alone, it works in the current directory.
void EnterPrefix(const std::string& self) {
  if (self.find('/') == std::string::npos) return;
  const std::string prefix = pnl_file::ConcatPath(pnl_file::Folder(self), "..");
  if (chdir(prefix.c_str()) != 0) throw pnl_err::System("enter", prefix, errno);
  pnl_log::Reload();
}

StringMap Params(const opts::Values& values) {
  StringMap params;
  for (std::string word : values.List("PARAM")) {
    const std::string name = str::GetWord(word, '=');
    params[name] = word;
  }
  return params;
}

pnl_xml::Xml Call(const opts::Values& values) {
  const std::string& module = values.Str("module");
  if (module != "core") {
    throw pnl_err::Missed("module", module)
        .add_param("message", "there is no module '" + module + "'");
  }
  return fleet::CallCore(values.Str("FUNCTION"), Params(values));
}

/// Characters that XML cannot represent are made printable.
pnl_xml::Xml Reply(const pnl_err::Error& error) {
  pnl_err::Error printable(error.type(), error.object(), utf8::Printable(error.value()));
  for (const pnl_err::Error::Param& param : error.params()) {
    printable.add_param(param.name, utf8::Printable(param.value), param.access_mask);
  }
  return pnl_client::ErrorReply(printable);
}

void Print(const std::string& text) {
  pnl_file::WriteAll(STDOUT_FILENO, text, "standard output");
}

int Run(int argc, char** argv) {
  const opts::Args args = CommandLine();
  const opts::Values values = args.Parse(argc, argv);
  if (!values.EndedBy().empty()) {
    Print(values.EndedBy() == "help" ? args.Usage() : opts::ManPage(args, kManNotes));
    return 0;
  }
  try {
    EnterPrefix(argv[0]);
    Print(Call(values).Str(true));
    return 0;
  } catch (const pnl_err::Error& error) {
    Print(Reply(error).Str(true));
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  console::Begin();
  try {
    return Run(argc, argv);
  } catch (const pnl_err::Error& error) {
    fprintf(stderr, "pnlctl: %s\n", tools::ErrorText(error, tools::Format::kTable).c_str());
    return error.type() == opts::kUsageError ? 2 : 1;
  } catch (const std::exception& error) {
    fprintf(stderr, "pnlctl: %s\n", error.what());
    return 1;
  }
}
