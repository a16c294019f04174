#include "tools/frame/login.h"

#include <algorithm>

#include "brefir/ssh_utils.h"
#include "fleet/failed_nodes.h"
#include "fleet/fleet_database.h"
#include "fleet/node_names.h"
#include "fleet/panel_dir.h"
#include "fleet/selection.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/settings.h"
#include "pnl/test.h"
#include "tools/frame/sudo_password.h"

namespace tools {

std::pair<std::string, std::string> Assignment(const std::string& word, const std::string& what) {
  std::string value = word;
  std::string name = str::GetWord(value, '=');
  if (!name.empty() && name != word) return {std::move(name), std::move(value)};
  throw UsageError(what, word, what + " '" + word + "' is not NAME=VALUE");
}

void AddLoginOptions(opts::Args& args) {
  constexpr int kMaxTimeout = 86400;
  args.Option("known-hosts")
      .Value("FILE")
      .Help("known host keys; default: setting known_hosts, or ~/.ssh/known_hosts");
  args.Option("accept-new").Help("accept a node whose host key is unknown, and store the key");
  args.Option("timeout")
      .Number("S", 1, kMaxTimeout)
      .Help("fail after S seconds without an answer; default: 30 to connect, then 60");
}

void AddKeyOption(opts::Args& args) {
  args.Option("key").Value("FILE").Help(
      "the private key to log in with; default: setting private_key if the file exists, else the "
      "keys of the SSH agent and of ~/.ssh");
}

opts::Arg& AddNodeOptions(opts::Args& args) {
  AddKeyOption(args);
  AddLoginOptions(args);
  return args.Option("node")
      .Value("[USER@]HOST[:PORT]")
      .Help("the managed node; write an IPv6 address in brackets")
      .Completes("nodes");
}

/// A setting that is "yes" or "no".
static bool YesSetting(const std::string& key) {
  const std::string value = pnl_settings::Get(key);
  if (value == "yes" || value == "no") return value == "yes";
  throw pnl_err::Error("setting", key, value)
      .add_param("message", key + " in etc/brefir.conf must be yes or no, not '" + value + "'");
}

/// Of --key, which not all verbs have, or the panel's.
static std::string KeyFile(const Context& context) {
  const bool given = context.values.HasAtAll("key");
  return given ? context.Path(context.values.Str("key")) : pnl_settings::Get("private_key");
}

/// What the inventory leaves open.
static fleet::LoginDefaults Defaults(const Context& context) {
  const opts::Values& values = context.values;
  fleet::LoginDefaults defaults;
  defaults.ssh_config = YesSetting("ssh_config");
  pnl_rpc::SshOptions& options = defaults.options;
  options.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  if (values.Has("accept-new")) options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
  if (values.Has("timeout")) options.connect_timeout = static_cast<int>(values.Int("timeout"));
  const std::string key = KeyFile(context);
  if (values.HasAtAll("key")) {
    options.key_file = key;
  } else if (pnl_file::Exists(key)) {
    const bool chosen =
        pnl_settings::Get("private_key") != pnl_settings::Defaults().find("private_key")->second;
    (chosen ? options.key_file : defaults.key_file) = key;
  }
  return defaults;
}

NodeLogins::NodeLogins(const Context& context)
    : context_(context), inventory_(PanelInventory()), logins_(inventory_, Defaults(context)) {}

/// What the command line says overrides all; passwords are in no file.
static pnl_rpc::SshOptions Overridden(const Context& context, pnl_rpc::SshOptions options,
                                      const std::string& node) {
  const opts::Values& values = context.values;
  if (values.HasAtAll("key")) options.key_file = KeyFile(context);
  if (values.Has("known-hosts"))
    options.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  if (options.sudo) {
    const bool many = !values.HasAtAll("node");
    options.sudo_password = [user = options.user, name = node, many] {
      return SudoPassword(user, name, many);
    };
  }
  return options;
}

pnl_rpc::SshOptions NodeLogins::Of(const fleet::Node& node) const {
  pnl_rpc::SshOptions options = Overridden(context_, logins_.Of(node), node.name);
  if (node.line > 0) options.name = node.name;
  return options;
}

fleet::LoginOf BookedLogins(const Context& context) {
  return [&context](const fleet::RunNode& node, pnl_rpc::SshOptions booked) {
    const opts::Values& values = context.values;
    if (values.Has("accept-new")) booked.host_keys = pnl_rpc::HostKeys::kAcceptNew;
    if (values.Has("timeout")) booked.connect_timeout = static_cast<int>(values.Int("timeout"));
    return Overridden(context, std::move(booked), node.name);
  };
}

std::int64_t RunNumber(const std::string& word) {
  const bool digits = !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
  if (digits) return str::Int64(word);
  throw pnl_err::Missed("run", word)
      .add_param(
          "message",
          "'" + word + "' is no ID of a run, which is a number: brefirctl run list shows all");
}

std::vector<std::string> FailedNodesOf(const std::string& run) {
  if (run.empty()) return fleet::FailedNodes();
  std::vector<std::string> names;
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  for (const fleet::RunNode& node : journal.Find(RunNumber(run)).nodes)
    if (fleet::HasFailed(node.state, !node.reason.empty())) names.push_back(node.name);
  return names;
}

fleet::Inventory PanelInventory() {
  return fleet::IsPanelDir() ? fleet::Inventory::Load(fleet::InventoryPath()) : fleet::Inventory();
}

fleet::Node NamedNode(const Context& context) {
  return AboutWord(fleet::kNodeName, "--node",
                   [&] { return fleet::SelectOne(PanelInventory(), context.values.Str("node")); });
}

pnl_rpc::SshOptions NodeOptions(const Context& context) {
  return AboutWord(fleet::kNodeName, "--node",
                   [&] { return NodeLogins(context).Of(NamedNode(context)); });
}

std::vector<fleet::Node> SelectedNodes(const Context& context, const std::string& name) {
  return AboutWord(fleet::kNodeName, name == "nodes" ? "--nodes" : name, [&] {
    return fleet::Select(PanelInventory(), context.values.Str(name),
                         {.failed = FailedNodesOf, .dir = context.StartDir()});
  });
}

pnl_host::Host OpenHost(const Context& context) {
  return context.values.Has("node") ? pnl_host::Host(OpenNode(context)) : pnl_host::Host();
}

pnl_rpc::SSH OpenNode(const Context& context) {
  pnl_rpc::SSH ssh(NodeOptions(context));
  if (context.values.Has("timeout"))
    ssh.SetTimeout(static_cast<int>(context.values.Int("timeout")));
  return ssh;
}

void RequireMeant(const Context& context, pnl_rpc::SSH& ssh, const std::string& name) {
  const std::string& word = context.values.Str(name);
  if (!word.ends_with('/') || ssh_utils::file::Exists(ssh, word, "d")) return;
  throw NodeError(ssh, word,
                  "there is no directory '" + word + "'; if " + name +
                      " is a file, remove the \"/\" at its end");
}

pnl_rpc::SSH OpenNode(const Context& context, const std::vector<std::string>& names) {
  pnl_rpc::SSH ssh = OpenNode(context);
  for (const std::string& name : names) RequireMeant(context, ssh, name);
  return ssh;
}

std::string NodePath(const Context& context, const std::string& name) {
  std::string path = context.values.Str(name);
  if (!path.starts_with('/')) {
    throw UsageError(
        name, path,
        name + " '" + path + "' must be an absolute path on the node: it must begin with \"/\"");
  }
  path.erase(std::max<std::size_t>(path.find_last_not_of('/') + 1, 1));
  return path;
}

std::string MovablePath(const Context& context, const std::string& name) {
  std::string path = NodePath(context, name);
  if (!test::PathComponent(pnl_file::Name(path))) {
    throw UsageError(name, path,
                     name + " '" + path + "' is refused: it is \"/\", or ends in \".\" or \"..\"");
  }
  return path;
}

void RequirePlain(const std::string& word, const std::string& what) {
  if (pnl_proc::Escape(word) == word) return;
  throw UsageError(what, word,
                   what + " '" + word +
                       "' is refused: it must not be empty, and must not contain blanks or special "
                       "characters of the shell");
}

}  // namespace tools
