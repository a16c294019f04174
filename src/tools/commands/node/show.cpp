#include "tools/commands/node/node.h"

namespace tools {

static int Show(Context& context) {
  const std::string path = fleet::InventoryPath();
  const fleet::Inventory inventory = PanelInventory();
  const std::string& name = context.values.Str("NAME");
  const fleet::Node* const node = inventory.Find(name);
  if (node == nullptr) {
    const std::string nearest = inventory.Nearest(name);
    throw pnl_err::Missed("node", name)
        .add_param("message", path + ": '" + name + "' is no node there; " +
                                  (nearest.empty() ? "'brefirctl node list' shows all"
                                                   : "did you mean '" + nearest + "'?"));
  }
  context.out.One(ToRecord(InventoryFields(), *node).Add("file", path).Add("line", node->line));
  return kDone;
}

Verb NodeShowVerb() {
  return {.name = "show",
          .summary = "Shows one node of the inventory, and where it stands there.",
          .describe =
              [](opts::Args& args) {
                args.Positional("NAME").Help("the name of a node").Completes("nodes");
              },
          .run = Show,
          .examples = {"web1"},
          .fields = Fields(Declared(InventoryFields()),
                           {{"file", "the inventory"}, {"line", "the line in it"}}),
          .reach = Reach::kNothing};
}

}  // namespace tools
