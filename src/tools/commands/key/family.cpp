// key: the panel's SSH key on its nodes.

#include <cerrno>

#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/key_login.h"
#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "pnl/file.h"
#include "tools/commands/families.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"

namespace tools {

static void Describe(opts::Args& args) {
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

// --- The pair

static std::string KeyFile(const Context& context, const char* option, const char* key) {
  const std::string path = context.PathSetting(option, key);
  if (!pnl_file::Exists(path)) throw pnl_err::System("read", path, ENOENT);
  return pnl_file::RealPath(path);  // what a link leads to is replaced, not the link
}

fleet::KeyChange PanelPair(const Context& context) {
  return {.private_key = KeyFile(context, "private", "private_key"),
          .public_key = KeyFile(context, "public", "public_key")};
}

std::string PresentKey(const fleet::KeyChange& pair) {
  std::string key = AboutWord(fleet::kUnusableKey, "--private",
                              [&] { return fleet::PublicHalf(pair.private_key); });
  if (fleet::KeyOf(pnl_file::Read(pair.public_key)) == key) return key;
  throw pnl_err::Error(fleet::kUnusableKey, "", pair.public_key)
      .add_param("message", "'" + pair.public_key + "' is not the public half of '" +
                                pair.private_key + "'; make it with: ssh-keygen -y -f " +
                                pair.private_key + " >" + pair.public_key);
}

// --- The nodes

std::vector<fleet::Node> KeyNodes(const Context& context) {
  if (context.values.Has("nodes")) return SelectedNodes(context);
  const std::string setting = context.Setting("nodes", "nodes");
  if (!setting.empty() && pnl_file::Exists(setting)) return fleet::Inventory::Load(setting).Nodes();
  std::vector<fleet::Node> nodes;
  if (setting.empty()) return nodes;
  for (const std::string& word : fleet::SplitNames(setting))
    nodes.push_back(
        AboutWord(fleet::kNodeName, "setting nodes", [&] { return fleet::NodeOutside(word); }));
  return nodes;
}

pnl_rpc::SshOptions KeyLogin(const NodeLogins& logins, const fleet::KeyChange& pair,
                             const fleet::Node& node) {
  pnl_rpc::SshOptions login = logins.Of(node);
  if (!node.Get("key").empty() && pnl_file::RealPath(login.key_file) != pair.private_key)
    throw UsageError("--nodes", node.name,
                     "the inventory has another key for " + node.name + ", '" + node.Get("key") +
                         "': work on that one with --private and --public, and leave the node "
                         "out here");
  login.key_file = pair.private_key;
  return login;
}

std::vector<fleet::RunTarget> KeyTargets(const Context& context, const fleet::KeyChange& pair) {
  const NodeLogins logins(context);
  std::vector<fleet::RunTarget> targets;
  for (const fleet::Node& node : KeyNodes(context))
    targets.push_back({.name = node.name, .login = KeyLogin(logins, pair, node)});
  if (!targets.empty()) return targets;
  throw UsageError("--nodes", "", "there are no nodes: name some with --nodes");
}

// --- Runs

void AddKeyRunOptions(opts::Args& args) {
  AddFanOptions(args, true);
  AddGuardOptions(args);
  AddPlanOptions(args, true);
}

std::vector<Field> KeyRunFields() {
  std::vector<Field> fields = RunRecordFields();
  for (const Field& field : PlanFields())
    if (field.name != "changed") fields.push_back(field);
  return fields;
}

Family KeyFamily() {
  return {.name = "key",
          .summary = "The panel's SSH key on its nodes: replace, check, remove.",
          .describe = Describe,
          .verbs = {KeyRotateVerb(), KeyResumeVerb(), KeyStatusVerb(), KeyVerifyVerb(),
                    KeyRetireVerb(), KeyAuditVerb()},
          .files = {{"etc/panel.key", "the private key, unless the settings name another"},
                    {"etc/panel.key.pub", "its public half"},
                    {"etc/panel.key.run-N", "the key that the rotation of run N has replaced"},
                    {"etc/known_keys", "public keys whose owners are known, for the audit"},
                    {"etc/panel.key.rotation",
                     "the record of a rotation with --method ssh; if it is killed, the next one "
                     "uses the record to clean up"}},
          .see_also = {"brefirctl-run(1)", "brefir.conf(5)", "ssh(1)", "sshd(8)"}};
}

}  // namespace tools
