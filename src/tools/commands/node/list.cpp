#include "tools/commands/node/node.h"

namespace tools {

static int List(Context& context) {
  const std::vector<fleet::Node> nodes = context.values.Has("SELECTION")
                                             ? SelectedNodes(context, "SELECTION")
                                             : PanelInventory().Nodes();
  context.out.List(ToRecords(InventoryFields(), nodes), kInventoryColumns);
  return kDone;
}

Verb NodeListVerb() {
  return {.name = "list",
          .summary = "Lists the nodes of the inventory, or those that are selected.",
          .describe = [](opts::Args& args) { DescribeSelection(args).Optional(); },
          .run = List,
          .examples = {"", "'@web,!web7'", "@all -o json"},
          .fields = Declared(InventoryFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
