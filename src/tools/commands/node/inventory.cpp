#include "tools/commands/node/node.h"

namespace tools {
Value OrNull(const std::string& text) {
  return text.empty() ? Value() : Value(text);
}

/// A login setting that not every node has.
static FieldOf<fleet::Node> Setting(const char* key, const char* meaning) {
  return {{key, meaning}, [=](const fleet::Node& node) { return OrNull(node.Get(key)); }};
}

const FieldTable<fleet::Node>& InventoryFields() {
  static const auto* const fields = new FieldTable<fleet::Node>{
      {{"node", "its name"}, &fleet::Node::name},
      {{"host", "the host name or address at which it is reached"}, &fleet::Node::host},
      {{"user", "the user who logs in"}, [](const auto& node) { return node.Login({}).user; }},
      {{"port", "the port of its SSH server"},
       [](const auto& node) { return node.Login({}).port; }},
      Setting("key", "the private key; null: as for any node (--key, setting private_key)"),
      Setting("known_hosts", "the file with its host key; null: as for any node"),
      Setting("jump", "the node through which it is reached, or null"),
      Setting("become", "how the user becomes root, or null"),
      {{"groups", "all groups that it is in"}, [](const auto& node) { return *node.groups; }},
      {{"values", "its other settings, and those of its groups"}, &fleet::Node::Values}};
  return *fields;
}

opts::Arg& DescribeSelection(opts::Args& args) {
  return args.Positional("SELECTION")
      .Help("names and ranges of nodes with commas between, @GROUP, @all, @failed, !NAME")
      .Completes("selections");
}

Change InventoryChange(
    const Context& context,
    const std::function<Answer(std::string& text, const std::string& path)>& edit) {
  const std::string path = fleet::InventoryPath();
  const std::string file =
      path.starts_with('/') ? path : pnl_file::ConcatPath(pnl_file::GetCurrentDir(), path);
  if (!context.OnlyPlans()) pnl_file::MkDir(pnl_file::Folder(file));  // a prefix may have only var
  pnl_host::Host host;
  auto lock = LockForChange(context, host, file);
  const pnl_host::Content before = HostContent(host, file);
  std::string text = before.value_or("");
  Answer answer = edit(text, path);
  return FileChange(host, file, before, text, std::move(lock), std::move(answer));
}

}  // namespace tools
