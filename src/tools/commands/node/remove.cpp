#include "tools/commands/node/node.h"

namespace tools {

static Change Remove(Context& context) {
  return InventoryChange(context, [&](std::string& text, const std::string& path) -> Answer {
    const std::vector<std::string>& words = context.values.List("NAME");
    std::vector<Record> records;
    for (const std::string& name : StringSet(words.begin(), words.end())) {
      text = fleet::WithoutNode(text, path, name);
      records.push_back(Record().Add("node", name).Add("removed", true));
    }
    return records;
  });
}

Verb NodeRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes nodes from the inventory; the servers stay as they are.",
          .aliases = {"delete", "del"},
          .describe =
              [](opts::Args& args) {
                args.Positional("NAME").Repeated().Help("the names of nodes").Completes("nodes");
              },
          .change = Remove,
          .checks = true,
          .examples = {"web7", "web7 web8 --dry-run"},
          .fields = {{"node", "its name"}, {"removed", "true"}},
          .reach = Reach::kNothing};
}

}  // namespace tools
