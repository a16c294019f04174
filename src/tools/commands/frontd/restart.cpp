#include "tools/commands/frontd/frontd.h"

namespace tools {

static HostEdit RestartServer(Context& /*context*/) {
  return {.look = [](fleet::Looks&) {},
          .make = [](fleet::Draft& draft) -> Answer {
            draft.RunService(kRestart);
            return Record().Add("node", draft.HostName()).Add("restarted", true);
          }};
}

Verb FrontdRestartVerb() {
  return {.name = "restart",
          .summary = "Restarts the server.",
          .edit = RestartServer,
          .examples = {"", "--nodes @web --serial 1"},
          .fields = {{"node", "the host of the server"}, {"restarted", "true"}},
          .place = Place::kAnywhere};
}

}  // namespace tools
