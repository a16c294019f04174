#include "tools/commands/key/key.h"

namespace tools {
namespace {

int Verify(Context& context) {
  const fleet::KeyChange pair = PanelPair(context);
  const NodeLogins logins(context);
  Round round(context, KeyNodes(context));
  round.Visit(
      [](const fleet::Node& /*node*/, pnl_host::Host& host) {
        if (host.Do("true") == 0) return Answer(Record().Add("accepted", true));
        throw pnl_err::Error("node", host.Name())
            .add_param("message", host.Name() + ": the login works, but the command 'true' fails");
      },
      {.login = [&](const fleet::Node& node) { return KeyLogin(logins, pair, node); }});
  return round.Tell(KeyVerifyVerb());
}

}  // namespace

Verb KeyVerifyVerb() {
  return {.name = "verify",
          .summary = "Shows which nodes accept the present key.",
          .describe = [](opts::Args& args) { AddFanOptions(args, true); },
          .run = Verify,
          .examples = {"--nodes etc/nodes"},
          .fields = Fields(NodesFields(false), {{"accepted", "yes, or the node has an error"}})};
}

}  // namespace tools
