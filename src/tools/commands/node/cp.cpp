#include "tools/commands/node/node.h"

namespace tools {

Verb NodeCpVerb() {
  return {.name = "cp",
          .summary = "Copies a file on the node.",
          .describe = DescribeFromTo,
          .edit = [](Context& context) { return FromTo(context, &fleet::Draft::Copy); },
          .examples = {"/etc/motd /root/ --node 192.0.2.7"},
          .fields = {{"path", "the copy"}, {"from", "the original"}}};
}

}  // namespace tools
