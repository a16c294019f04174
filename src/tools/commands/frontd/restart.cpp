#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"

namespace tools {
namespace {

Change RestartServer(Context& context) {
  pnl_host::Host host = OpenHost(context);
  const auto make = [host]() mutable -> Answer {
    Restart(host);
    return Record().Add("node", host.Name()).Add("restarted", true);
  };
  return {{RestartStep(host)}, make};
}

}  // namespace

Verb FrontdRestartVerb() {
  return {.name = "restart",
          .summary = "Restarts the server.",
          .change = RestartServer,
          .examples = {"", "--node 192.0.2.7 --dry-run"},
          .fields = {{"node", "whose"}, {"restarted", "true"}},
          .place = Place::kAnywhere};
}

}  // namespace tools
