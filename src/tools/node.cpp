#include "tools/node.h"

#include <algorithm>
#include <regex>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/test.h"

namespace tools {
namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxTimeout = 86400;

}  // namespace

pnl_err::Error UsageError(const std::string& object, const std::string& value,
                          const std::string& message) {
  return pnl_err::Error("usage", object, value).add_param("message", message);
}

opts::Arg& AddNodeOptions(opts::Args& args) {
  args.Option("key").Value("FILE").Help(
      "the private key to log in with; else the agent's, else those of ~/.ssh");
  args.Option("known-hosts").Value("FILE").Help("known host keys; else ~/.ssh/known_hosts");
  args.Option("accept-new").Help("let a node with an unknown host key through and note its key");
  args.Option("timeout")
      .Number("S", 1, kMaxTimeout)
      .Help("give up after so many seconds without a sign of life; else 30 to connect, then 60");
  return args.Option("node")
      .Value("[USER@]HOST[:PORT]")
      .Help("the managed node; an IPv6 address in brackets");
}

void ParseNode(const std::string& text, pnl_rpc::SshOptions& options) {
  static const std::regex form(
      R"((?:([^@:-][^@:]*)@)?(?:\[([^\]@]+)\]|([^@:\[\]-][^@:\[\]]*))(?::([0-9]{1,5}))?)");
  std::smatch parts;
  if (test::Ip6(text)) {
    options.host = text;
    return;
  }
  const bool matches = std::regex_match(text, parts, form);
  if (matches && parts[4].matched) options.port = str::Int(parts[4].str());
  if (!matches || options.port < 1 || options.port > kMaxPort)
    throw UsageError("--node", text, "--node '" + text + "' is not [USER@]HOST[:PORT]");
  if (parts[1].matched) options.user = parts[1];
  options.host = parts[2].matched ? parts[2] : parts[3];
}

pnl_rpc::SshOptions NodeOptions(const Context& context) {
  const opts::Values& values = context.values;
  pnl_rpc::SshOptions options;
  ParseNode(values.Str("node"), options);
  if (values.Has("key")) options.key_file = context.Path(values.Str("key"));
  if (values.Has("known-hosts")) options.known_hosts = context.Path(values.Str("known-hosts"));
  if (values.Has("accept-new")) options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
  if (values.Has("timeout")) options.connect_timeout = static_cast<int>(values.Int("timeout"));
  return options;
}

pnl_rpc::SSH OpenNode(const Context& context) {
  pnl_rpc::SSH ssh(NodeOptions(context));
  if (context.values.Has("timeout"))
    ssh.SetTimeout(static_cast<int>(context.values.Int("timeout")));
  return ssh;
}

std::string NodePath(const Context& context, const std::string& name) {
  std::string path = context.values.Str(name);
  if (!path.starts_with('/')) {
    throw UsageError(name, path,
                     name + " '" + path + "' must be an absolute path on the node, from \"/\" on");
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
  throw UsageError(
      what, word,
      what + " '" + word +
          "' is refused: here it must not be empty nor hold blanks or characters that mean "
          "something to a shell");
}

pnl_err::Error NodeError(const pnl_rpc::SSH& ssh, const std::string& path,
                         const std::string& message) {
  return pnl_err::Error("node", ssh.Host(), path).add_param("message", ssh.Host() + ": " + message);
}

}  // namespace tools
