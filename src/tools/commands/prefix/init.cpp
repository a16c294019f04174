#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands/prefix/samples.h"

namespace tools {
namespace {

/// One thing that a prefix has. What is there already stays as it is, whatever it is: the
/// administrator may have changed it.
struct Part {
  bool missing;
  fleet::Step step;            ///< its object is the path
  std::function<bool()> make;  ///< false: it is there after all
};

/// What link(2) and symlink(2) answered, which never replace what is there.
bool Made(int result, const std::string& path) {
  if (result == 0 || errno == EEXIST) return result == 0;
  throw pnl_err::System("create", path, errno);
}

Part DirPart(const std::string& path) {
  return {
      .missing = !pnl_file::IsDir(path),
      .step = {.node = "localhost", .object = path, .words = "mkdir -p " + pnl_proc::Escape(path)},
      .make = [=] { return pnl_file::MkDir(path), true; }};
}

/// The whole file or none.
Part FilePart(const std::string& path, const std::string& text) {
  const auto make = [=] {
    pnl_file::Tmp tmp(path);
    tmp.Write(text);
    tmp.CopyAttrs(path);
    tmp.Close();
    return Made(link(tmp.Str().c_str(), path.c_str()), path);
  };
  return {
      .missing = !pnl_file::Info(path, true).Exists(),
      .step = {.node = "localhost", .kind = fleet::StepKind::kFile, .object = path, .after = text},
      .make = make};
}

Part LinkPart(const std::string& path, const std::string& target) {
  return {.missing = !pnl_file::Info(path, true).Exists(),
          .step = {.node = "localhost",
                   .object = path,
                   .words = "ln -s " + pnl_proc::Escape(target) + " " + pnl_proc::Escape(path)},
          .make = [=] { return Made(symlink(target.c_str(), path.c_str()), path); }};
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

std::vector<Part> Parts(const std::string& prefix) {
  std::vector<Part> parts = {DirPart(prefix)};
  for (const char* name : {"etc", "var", "sbin"})
    parts.push_back(DirPart(pnl_file::ConcatPath(prefix, name)));
  for (const Sample& sample : Samples())
    parts.push_back(FilePart(pnl_file::ConcatPath(prefix, sample.path), sample.text));
  for (const char* name : {"brefirctl", "ost_install", "pnlctl"}) {
    const std::string program = FindProgram(name);  // not every installation has all of them
    if (!program.empty())
      parts.push_back(LinkPart(pnl_file::ConcatPath(prefix, "sbin", name), program));
  }
  return parts;
}

Change Init(Context& context) {
  const std::vector<Part> parts = Parts(context.Path(context.values.Str("DIR")));
  fleet::Plan plan;
  for (const Part& part : parts) {
    if (part.missing) plan.push_back(part.step);
  }
  const auto make = [=]() -> Answer {
    std::vector<Record> records;
    for (const Part& part : parts) {
      const bool made = part.missing && part.make();
      records.push_back(Record()
                            .Add("path", part.step.object)
                            .Add("state", made ? "made" : "kept")
                            .Add("changed", made));
    }
    Answer answer = std::move(records);
    answer.columns = {"path", "state"};
    return answer;
  };
  return {plan, make};
}

}  // namespace

Verb PrefixInitVerb() {
  return {
      .name = "init",
      .summary = "Lays out etc, var and sbin with sample configuration; keeps what is there.",
      .describe = [](opts::Args& args) { args.Positional("DIR").Help("made when it is missing"); },
      .change = Init,
      .checks = true,
      .examples = {"/opt/panel"},
      .fields = {{"path", "a directory, file or link"}, {"state", "made, or kept as it was"}},
      .place = Place::kStart};
}

}  // namespace tools
