#include "tools/frame/login.h"

#include <algorithm>

#include "brefir/ssh_utils.h"
#include "fleet/failed_nodes.h"
#include "fleet/node_names.h"
#include "fleet/panel_dir.h"
#include "fleet/selection.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/test.h"

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

opts::Arg& AddNodeOptions(opts::Args& args) {
  args.Option("key").Value("FILE").Help(
      "the private key to log in with; default: setting private_key if the file exists, else the "
      "keys of the SSH agent and of ~/.ssh");
  AddLoginOptions(args);
  return args.Option("node")
      .Value("[USER@]HOST[:PORT]")
      .Help("the managed node; write an IPv6 address in brackets")
      .Completes("nodes");
}

pnl_rpc::SshOptions LoginOf(const Context& context, const fleet::Node& node) {
  for (const char* setting : {"jump", "become"}) {
    if (node.Get(setting).empty()) continue;
    throw pnl_err::Error("node", node.name, setting)
        .add_param("message", node.name + ": the inventory sets " + setting +
                                  " for this node, which this release does not support");
  }
  const opts::Values& values = context.values;
  pnl_rpc::SshOptions options;
  options.key_file = context.PathSetting("key", "private_key");
  if (!values.Has("key") && !pnl_file::Exists(options.key_file)) options.key_file.clear();
  options.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  const pnl_rpc::SshOptions common = options;
  options = node.Login(std::move(options));
  if (values.Has("key")) options.key_file = common.key_file;
  if (values.Has("known-hosts")) options.known_hosts = common.known_hosts;
  if (values.Has("accept-new")) options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
  if (values.Has("timeout")) options.connect_timeout = static_cast<int>(values.Int("timeout"));
  if (node.line > 0) options.name = node.name;
  return options;
}

fleet::Inventory PanelInventory() {
  return fleet::IsPanelDir() ? fleet::Inventory::Load(fleet::InventoryPath()) : fleet::Inventory();
}

pnl_rpc::SshOptions NodeOptions(const Context& context) {
  return AboutWord(fleet::kNodeName, "--node", [&] {
    return LoginOf(context, fleet::SelectOne(PanelInventory(), context.values.Str("node")));
  });
}

std::vector<fleet::Node> SelectedNodes(const Context& context, const std::string& name) {
  const auto failed = [](const std::string& run) {
    if (run.empty()) return fleet::FailedNodes();
    throw pnl_err::Error(fleet::kNodeName, "", "@failed:" + run)
        .add_param("message", "'@failed:" + run + "' names a run, and there are none");
  };
  return AboutWord(fleet::kNodeName, name == "nodes" ? "--nodes" : name, [&] {
    return fleet::Select(PanelInventory(), context.values.Str(name),
                         {.failed = failed, .dir = context.StartDir()});
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
