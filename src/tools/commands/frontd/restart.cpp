#include "fleet/core_module.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"

namespace tools {

static Change RestartServer(Context& context) {
  pnl_host::Host host = OpenHost(context);
  const auto make = [host]() mutable -> Answer {
    fleet::RestartFrontd(host);
    return Record().Add("node", host.Name()).Add("restarted", true);
  };
  return {{fleet::RestartStep(host)}, make};
}

Verb FrontdRestartVerb() {
  return {.name = "restart",
          .summary = "Restarts the server.",
          .change = RestartServer,
          .examples = {"", "--node 192.0.2.7 --dry-run"},
          .fields = {{"node", "the host of the server"}, {"restarted", "true"}},
          .place = Place::kAnywhere};
}

}  // namespace tools
