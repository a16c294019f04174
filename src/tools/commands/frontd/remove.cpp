#include "tools/commands/frontd/frontd.h"
#include "tools/frame/login.h"

namespace tools {

static HostEdit Remove(Context& context) {
  const std::string& id = context.values.Str("ID");
  if (id.find('&') != std::string::npos)
    throw UsageError("ID", id, "ID '" + id + "' is not a listen address");
  const auto work = [=](FrontdCtl& frontd) { frontd.Delete(id); };
  const auto answer = [=](FrontdCtl& /*frontd*/, bool /*knows*/) {
    return Record().Add("id", id).Add("removed", true);
  };
  return ListenEdit(context, {work, answer});
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
          .edit = Remove,
          .examples = {"192.0.2.1:443 --restart"},
          .fields = {{"id", "the listen address"}, {"removed", "true"}}};
}

}  // namespace tools
