// key: the panel's SSH key on its nodes.

#include <cerrno>

#include "brefir/sshkey_generate.h"
#include "console/render.h"
#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "fleet/retirement.h"
#include "pnl/file.h"
#include "tools/commands/families.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {

static std::string KeyFile(const Context& context, const char* option, const char* key) {
  std::string path = context.PathSetting(option, key);
  RequirePlain(path, std::string("--") + option);
  if (!pnl_file::Exists(path)) throw pnl_err::System("read", path, ENOENT);
  return path;
}

static void Describe(opts::Args& args) {
  args.Details(
      "Messages appear during the work. The last output has one record for each node; if a node "
      "failed, its field error has the reason.");
  args.Option("nodes")
      .Value("SELECTION")
      .Help(
          "the nodes: names, addresses, @GROUP, @all, or a file such as ./some; default: setting "
          "nodes")
      .Completes("selections");
  args.Option("private").Value("FILE").Help(
      "the panel's private key; default: setting private_key");
  args.Option("public").Value("FILE").Help("its public half; default: setting public_key");
  AddLoginOptions(args);
}

std::vector<fleet::Node> KeyNodes(const Context& context) {
  if (context.values.Has("nodes")) return SelectedNodes(context);
  const std::string setting = context.Setting("nodes", "nodes");
  if (!setting.empty() && pnl_file::Exists(setting)) return fleet::Inventory::Load(setting).Nodes();
  std::vector<fleet::Node> nodes;
  if (setting.empty()) return nodes;
  for (const std::string& word : fleet::SplitNames(setting))
    nodes.push_back(fleet::NodeOutside(word));
  return nodes;
}

fleet::KeySetup ReadKeySetup(const Context& context) {
  fleet::KeySetup setup;
  setup.nodes = AboutWord(fleet::kNodeName, "--nodes",
                          [&] { return fleet::KeyAddresses(KeyNodes(context)); });
  setup.private_key = KeyFile(context, "private", "private_key");
  setup.public_key = KeyFile(context, "public", "public_key");
  setup.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  if (!setup.known_hosts.empty()) RequirePlain(setup.known_hosts, "--known-hosts");
  setup.accept_new = context.values.Has("accept-new");
  setup.timeout = static_cast<int>(context.values.Int("timeout"));
  return setup;
}

// Log lines and the table would overwrite each other.
NodeScreen::NodeScreen(const Context& context, const std::vector<std::string>& nodes)
    : table(nodes, !context.values.Has("verbose") && !context.values.Has("quiet")) {}

Answer NodeScreen::Told(fleet::NodeState changed, int code) {
  Answer answer(table.Records());
  for (Record& record : answer.records) {
    const fleet::NodeState state = table.State(console::Cell(*record.Find("node")));
    record.Add("changed", state == fleet::NodeState::kError ? Value() : Value(state == changed));
  }
  for (const Field& field : console::kNodeFields) answer.columns.push_back(field.name);
  answer.code = code;
  return answer;
}

fleet::NodeWatch WatchOn(const std::shared_ptr<NodeScreen>& screen) {
  return {
      .changed = [screen](const std::string& node, fleet::NodeState state,
                          const std::string& reason) { screen->table.Set(node, state, reason); },
      .stop = [screen] { return screen->interruption.Happened(); },
      .reason = [](const pnl_err::Error& error) { return ErrorText(error, Format::kTable); }};
}

Change Previewed(Context& context, const fleet::KeySetup& setup,
                 const std::function<fleet::Plan(const fleet::NodeWatch& watch)>& preview) {
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  try {
    fleet::Plan plan = preview(WatchOn(screen));
    screen->table.End();
    return {std::move(plan), {}, setup.nodes};
  } catch (const pnl_err::Error& error) {
    if (error.type() == ssh_gen::kCopyFailed || error.type() == fleet::kRetirementFailed)
      context.out.List(screen->table.Records());
    throw;
  }
}

Family KeyFamily() {
  return {.name = "key",
          .summary = "The panel's SSH key on its nodes: replace, check, remove.",
          .describe = Describe,
          .verbs = {KeyRotateVerb(), KeyVerifyVerb(), KeyRetireVerb(), KeyAuditVerb()},
          .files = {{"etc/panel.key", "the private key, unless the settings name another"},
                    {"etc/panel.key.pub", "its public half"},
                    {"etc/known_keys", "public keys whose owners are known, for the audit"},
                    {"etc/panel.key.rotation",
                     "the record of a rotation; if it is killed, the next rotation uses the record "
                     "to clean up"}},
          .see_also = {"brefir.conf(5)", "ssh(1)", "sshd(8)"}};
}

}  // namespace tools
