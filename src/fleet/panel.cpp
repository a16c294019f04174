#include "fleet/panel.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "brefir/str_utils.h"
#include "pnl/file.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

Step FileStep(const std::string& path) {
  Step step{.node = "localhost", .kind = StepKind::kFile, .object = path};
  if (pnl_file::Exists(path)) step.before = pnl_file::ReadE(path);
  return step;
}

Step CommandStep(const std::string& path, const std::string& words) {
  return {.node = "localhost", .object = path, .words = words};
}

}  // namespace

// --- Templates, recipes, repositories

Step MacroStep(ostemplate::Manage& catalogue, const std::string& key, const std::string& macro,
               const std::optional<std::string>& value) {
  StringMap before;
  Step step = FileStep(catalogue.GetMacroCustomValues(key, before));
  StringMap after = before;
  after.erase(macro);
  if (value) after[macro] = *value;
  step.after = after == before ? step.before : str::JoinParams(after, "\n", "\t");
  return step;
}

Step RecipeParamsStep(const recipe::Manage& catalogue,
                      const std::function<void(recipe::Manage& copy)>& edit) {
  Step step = FileStep(catalogue.ParamsFile());
  const pnl_file::TmpDir scratch(std::filesystem::temp_directory_path() / "recipes");
  recipe::Manage copy("", scratch);
  if (step.before) pnl_file::Write(copy.ParamsFile(), *step.before);
  edit(copy);
  if (pnl_file::Exists(copy.ParamsFile())) step.after = pnl_file::ReadE(copy.ParamsFile());
  return step;
}

Step RepositoryStep(const ostemplate::Repo& repositories, const std::string& name,
                    const std::optional<std::string>& location) {
  Step step{
      .node = "localhost", .kind = StepKind::kValue, .object = repositories.prefix + " " + name};
  if (location) step.after = str::WithoutCredentials(*location);
  const auto found = repositories.repos.find(name);
  if (found == repositories.repos.end() || found->second.builtin) return step;
  step.before = str::WithoutCredentials(found->second.location);
  if (step.before == step.after && location != found->second.location)
    *step.after += " (another name or password)";
  return step;
}

Plan FetchPlan(const ostemplate::Repo& repositories) {
  Plan plan;
  for (const auto& [name, info] : repositories.repos)
    plan.push_back(CommandStep(name, "fetch " + str::WithoutCredentials(info.location)));
  return plan;
}

// --- The prefix

namespace {

/// Checks the result of link(2) or symlink(2), which never replace an existing file.
bool Made(int result, const std::string& path) {
  if (result == 0 || errno == EEXIST) return result == 0;
  throw pnl_err::System("create", path, errno);
}

bool IsFree(const std::string& path) {
  return !pnl_file::Info(path, true).Exists();
}

PrefixPart DirPart(const std::string& path) {
  return {.missing = !pnl_file::IsDir(path),
          .step = CommandStep(path, "mkdir -p " + pnl_proc::Escape(path)),
          .make = [=] { return pnl_file::MkDir(path), true; }};
}

PrefixPart FilePart(const std::string& path, const std::string& text) {
  const auto make = [=] {
    pnl_file::Tmp tmp(path);
    tmp.Write(text);
    tmp.CopyAttrs(path);
    tmp.Close();
    return Made(link(tmp.Str().c_str(), path.c_str()), path);
  };
  return {.missing = IsFree(path),
          .step = {.node = "localhost", .kind = StepKind::kFile, .object = path, .after = text},
          .make = make};
}

PrefixPart LinkPart(const std::string& path, const std::string& target) {
  return {
      .missing = IsFree(path),
      .step = CommandStep(path, "ln -s " + pnl_proc::Escape(target) + " " + pnl_proc::Escape(path)),
      .make = [=] { return Made(symlink(target.c_str(), path.c_str()), path); }};
}

}  // namespace

std::vector<PrefixPart> PrefixParts(const std::string& dir,
                                    const std::vector<std::pair<std::string, std::string>>& samples,
                                    const std::vector<std::string>& programs) {
  std::vector<PrefixPart> parts = {DirPart(dir)};
  for (const char* name : {"etc", "var", "sbin"})
    parts.push_back(DirPart(pnl_file::ConcatPath(dir, name)));
  for (const auto& [path, text] : samples)
    parts.push_back(FilePart(pnl_file::ConcatPath(dir, path), text));
  for (const std::string& program : programs)
    parts.push_back(LinkPart(pnl_file::ConcatPath(dir, "sbin", pnl_file::Name(program)), program));
  return parts;
}

}  // namespace fleet
