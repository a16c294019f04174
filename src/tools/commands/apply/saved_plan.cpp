// Plans in files: --save-plan and --plan.

#include "fleet/saved_plan.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "fleet/shell_words.h"
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

/// How many steps the plan has as words only.
static std::size_t LateSteps(const fleet::SavedPlan& plan) {
  std::size_t count = 0;
  for (const fleet::SavedNode& node : plan.nodes)
    count += static_cast<std::size_t>(std::count_if(
        node.steps.begin(), node.steps.end(),
        [](const fleet::RunStep& step) { return step.form == fleet::StepForm::kLate; }));
  return count;
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
  if (context.values.Has("quiet")) return;
  std::string text = "The plan is saved: brefirctl apply --plan " + word + "\n";
  if (const std::size_t late = LateSteps(plan); late != 0)
    text +=
        std::to_string(late) +
        (late == 1 ? " step is planned when its turn comes; the plan has its words only.\n"
                   : " steps are planned when their turn comes; the plan has their words only.\n");
  std::fputs(text.c_str(), stderr);
}

/// A step that was saved as words becomes the edit of its line again.
static std::function<HostEdit(std::size_t target, const fleet::RunStep& step)> LateEdits(
    Context& context, const std::vector<fleet::RunTarget>& targets) {
  std::vector<Origin> origins;
  origins.reserve(targets.size());
  for (const fleet::RunTarget& target : targets)
    origins.push_back(target.login ? Origin::kLineOfNodes : Origin::kLine);
  const auto parser = std::make_shared<const LineParser>(context, "/");
  return [parser, origins](std::size_t target, const fleet::RunStep& step) -> HostEdit {
    const std::vector<std::string> words = fleet::ShellWords(step.object);
    const auto same = [](const std::string& word) { return word; };
    const auto command = parser->Parse(parser->Find(words), words, origins.at(target), same);
    return {.look = [command](fleet::Looks& looks) { command->edit.look(looks); },
            .make = [command](fleet::Draft& draft) { return command->edit.make(draft); },
            .words = step.object};
  };
}

EditJob SavedJob(Context& context) {
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
  job.late = LateEdits(context, job.targets);
  return job;
}

}  // namespace tools
