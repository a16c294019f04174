#include "tools/commands/login.h"

#include <algorithm>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/test.h"

namespace tools {
namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxTimeout = 86400;

/// Not an option of the ssh programs, and nothing that was to be cut off.
bool IsName(const std::string& word) {
  return !word.empty() && word.front() != '-' && word.find_first_of("@[]") == std::string::npos;
}

/// Leaves the bare host; what follows it is returned, with its colon.
std::string CutPort(std::string& host) {
  if (test::Ip6(host)) return "";
  const bool bracket = host.starts_with('[');
  std::size_t end = host.find(bracket ? ']' : ':');
  if (end == std::string::npos) return "";
  if (bracket) ++end;
  std::string port = host.substr(end);
  host = bracket ? host.substr(1, end - 2) : host.substr(0, end);
  return port;
}

bool IsPort(const std::string& text) {
  const std::string number = text.substr(1);
  return text.front() == ':' && test::Numeric(number) && number.size() <= 5 &&
         str::Int(number) >= 1 && str::Int(number) <= kMaxPort;
}

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
      .Help("the managed node; an IPv6 address in brackets")
      .Completes("nodes");
}

void ParseNode(const std::string& text, pnl_rpc::SshOptions& options) {
  std::string host = text;
  bool good = true;
  if (host.find('@') != std::string::npos) {
    options.user = str::GetWord(host, '@');
    good = IsName(options.user);
  }
  const std::string port = CutPort(host);
  options.host = host;
  if (!port.empty()) options.port = str::Int(port.substr(1));
  good = good && IsName(host) && (port.empty() || IsPort(port));
  if (!good) throw UsageError("--node", text, "--node '" + text + "' is not [USER@]HOST[:PORT]");
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

std::string WithSbin(const std::string& command) {
  return "env \"PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin\" " + command;
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
  throw NodeError(
      ssh, word,
      "there is no directory '" + word + "'; without the \"/\" at its end " + name + " is a file");
}

pnl_rpc::SSH OpenNode(const Context& context, const std::vector<std::string>& names) {
  pnl_rpc::SSH ssh = OpenNode(context);
  for (const std::string& name : names) RequireMeant(context, ssh, name);
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

}  // namespace tools
