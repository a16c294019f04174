#include "tools/commands/catalogue.h"
#include "tools/commands/task/task.h"
#include "tools/commands/template/templates.h"

namespace tools {

static Change Install(Context& context) {
  const std::string key = Key(context);
  ostemplate::Manage catalogue = OfferedTemplates(context);
  const ostemplate::OsMetaInfo info = catalogue.GetOsInfoFromCache(key);
  RequirePathComponent(info.name, "osname");
  const pnl_task::LongTask task = catalogue.InstallTask({info.repo, info.name});
  const auto make = [=, &context]() mutable -> Answer {
    catalogue.Install(info);
    if (context.values.Has("wait")) return FollowTask(context, task.Id());
    return {ToRecord(TaskTable(), pnl_task::Get(task.Id())), {"id", "state"}};
  };
  return {{{.node = "localhost", .object = key, .words = task.Command()}}, make};
}

static void Describe(opts::Args& args) {
  AddKey(args);
  args.Option("wait").Help("wait for the end of the installation");
}

Verb TemplateInstallVerb() {
  return {.name = "install",
          .summary = "Installs or updates a template, as a task.",
          .describe = Describe,
          .change = Install,
          .examples = {"main__Debian-12 --wait"},
          .fields = Declared(TaskTable())};
}

}  // namespace tools
