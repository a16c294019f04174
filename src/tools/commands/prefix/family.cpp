// prefix init: a directory that the other commands can work in.

#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "pnl/file.h"
#include "tools/commands/families.h"
#include "tools/commands/prefix/samples.h"

namespace tools {
namespace {

/// What is there already stays as it is, whatever it is: the administrator may have changed it.
const char* State(bool made) {
  return made ? "made" : "kept";
}

bool MakeDir(const std::string& path) {
  if (pnl_file::IsDir(path)) return false;
  pnl_file::MkDir(path);
  return true;
}

/// The whole file or none, and never over an existing one: link(2) refuses that, rename(2) would
/// not.
bool MakeFile(const std::string& path, const std::string& text) {
  if (pnl_file::Info(path, true).Exists()) return false;
  pnl_file::Tmp tmp(path);
  tmp.Write(text);
  tmp.CopyAttrs(path);
  tmp.Close();
  if (link(tmp.Str().c_str(), path.c_str()) == 0) return true;
  if (errno == EEXIST) return false;
  throw pnl_err::System("create", path, errno);
}

bool MakeLink(const std::string& target, const std::string& path) {
  if (symlink(target.c_str(), path.c_str()) == 0) return true;
  if (errno == EEXIST) return false;
  throw pnl_err::System("create", path, errno);
}

/// A build has all programs in one directory, an installation some of them beside it.
std::string FindProgram(const char* name) {
  const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const char* dir : {".", BREFIR_HELPER_DIR}) {
    std::string program = (here / dir / name).lexically_normal();
    if (pnl_file::Exists(program)) return program;
  }
  return "";
}

int Init(Context& context) {
  const std::string prefix = context.Path(context.values.Str("DIR"));
  std::vector<Record> records;
  const auto add = [&](const std::string& path, const char* state) {
    records.push_back(Record().Add("path", path).Add("state", state));
  };
  add(prefix, State(MakeDir(prefix)));
  for (const char* name : {"etc", "var", "sbin"}) {
    const std::string path = pnl_file::ConcatPath(prefix, name);
    add(path, State(MakeDir(path)));
  }
  for (const Sample& sample : Samples()) {
    const std::string path = pnl_file::ConcatPath(prefix, sample.path);
    add(path, State(MakeFile(path, sample.text)));
  }
  for (const char* name : {"brefirctl", "ost_install", "pnlctl"}) {
    const std::string program = FindProgram(name);
    if (program.empty()) continue;  // not every installation has all of them
    const std::string path = pnl_file::ConcatPath(prefix, "sbin", name);
    add(path, State(MakeLink(program, path)));
  }
  context.out.List(records);
  return kDone;
}

}  // namespace

Family PrefixFamily() {
  return {
      .name = "prefix",
      .summary = "The directory that the panel works in.",
      .verbs =
          {
              {
                  .name = "init",
                  .summary =
                      "Lays out etc, var and sbin with sample configuration; keeps what is there.",
                  .describe =
                      [](opts::Args& args) {
                        args.Positional("DIR").Help("made when it is missing");
                      },
                  .run = Init,
                  .examples = {"/opt/panel"},
                  .fields = {{"path", "a directory, file or link"},
                             {"state", "made, or kept as it was"}},
                  .place = Place::kStart,
              },
          },
      .files = {{"etc/brefir.conf", "settings"},
                {"etc/ostemplates.conf", "repositories of templates and recipes"},
                {"etc/frontd.conf", "where the panel's web server listens"},
                {"etc/log.conf", "levels of the log"},
                {"sbin/ost_install", "link to the installer of templates"},
                {"sbin/pnlctl", "link to the panel's control utility"}},
      .see_also = {"brefir.conf(5)", "ostemplates.conf(5)", "ost_install(8)", "pnlctl(8)"},
  };
}

}  // namespace tools
