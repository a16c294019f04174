#include "pnl/proc.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/frame/login.h"

namespace tools {

static Change Remove(Context& context) {
  const std::string& id = context.values.Str("ID");
  if (id.find('&') != std::string::npos)
    throw UsageError("ID", id, "ID '" + id + "' is not a listen address");
  const auto work = [=](FrontdCtl& frontd, bool quoted) {
    frontd.Delete(quoted ? pnl_proc::Escape(id) : id);  // a bracket is a pattern to a shell
  };
  const auto answer = [=](FrontdCtl& /*frontd*/) {
    return Record().Add("id", id).Add("removed", true);
  };
  return ChangeListen(context, {work, answer});
}

static void Describe(opts::Args& args) {
  args.Positional("ID").Help("the listen address, as 'frontd list' shows it").Completes("listen");
  DescribeListenChange(args);
}

Verb FrontdRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes a listen address.",
          .aliases = {"delete", "del"},
          .describe = Describe,
          .change = Remove,
          .checks = true,
          .examples = {"192.0.2.1:443 --restart"},
          .fields = {{"id", "the listen address"}, {"removed", "true"}}};
}

}  // namespace tools
