// Plans in files: --save-plan and --plan.

#include "fleet/saved_plan.h"

#include <cerrno>
#include <cstdio>

#include "pnl/file.h"
#include "tools/commands/apply/apply.h"
#include "tools/frame/login.h"

namespace tools {

static std::string PlanPath(const Context& context) {
  return pnl_file::LinkTarget(context.Path(context.values.Str("save-plan")));
}

void RequirePlanFile(const Context& context) {
  const std::string path = PlanPath(context);
  if (const pnl_file::Info info(path); info.Exists() && !info.IsFile())
    throw pnl_err::System("write", path, info.IsDir() ? EISDIR : EINVAL);
  if (const std::string dir = pnl_file::Folder(path); !pnl_file::IsDir(dir))
    throw pnl_err::System("write", path, ENOENT);
}

void SavePlan(Context& context, const std::string& command, const fleet::Run& run) {
  fleet::SavedPlan plan{.command = command};
  for (std::size_t i = 0; i < run.Targets().size(); ++i) {
    const fleet::RunTarget& target = run.Targets()[i];
    plan.nodes.push_back({.name = target.name,
                          .machine = run.Machine(i),
                          .login = fleet::LoginText(target.login),
                          .steps = run.Steps(i)});
  }
  const std::string path = PlanPath(context);
  pnl_file::Tmp file(path);  // only its owner can read it, whatever the mode of an old one is
  file.Write(plan.Text());
  file.Replace(path);
  context.out.TellOfWork();
  const std::string word = context.values.Str("save-plan");
  if (!context.values.Has("quiet"))
    std::fputs(("The plan is saved: brefirctl apply --plan " + word + "\n").c_str(), stderr);
}

EditJob SavedJob(const Context& context) {
  const std::string& word = context.values.Str("plan");
  const fleet::SavedPlan plan = fleet::SavedPlan::Read(pnl_file::ReadE(context.Path(word)), word);
  fleet::RequireSources(plan);
  const fleet::LoginOf login = BookedLogins(context);
  EditJob job{.targets = {}, .command = plan.command + " --plan " + pnl_file::Name(word)};
  for (const fleet::SavedNode& node : plan.nodes) {
    std::optional<pnl_rpc::SshOptions> booked = fleet::ReadLogin(node.login);
    if (booked) {
      fleet::RunNode known;
      known.name = node.name;
      booked = login(known, *booked);
    }
    job.targets.push_back({.name = node.name, .login = std::move(booked)});
    job.steps.push_back(node.steps);
    job.machines.push_back(node.machine);
  }
  return job;
}

}  // namespace tools
