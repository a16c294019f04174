#include "tools/commands/node/node.h"

namespace tools {

Verb NodeMvVerb() {
  return {.name = "mv",
          .summary = "Moves a file or directory on the node.",
          .describe = DescribeFromTo,
          .edit = [](Context& context) { return FromTo(context, &fleet::Draft::Move); },
          .examples = {"/srv/new /srv/www --node 192.0.2.7"},
          .fields = {{"path", "where it is now"}, {"from", "where it was"}}};
}

}  // namespace tools
