#include "tools/key_nodes.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <thread>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/settings.h"
#include "pnl/test.h"
#include "tools/authorized_keys.h"
#include "tools/node.h"

namespace tools {
namespace {

constexpr std::size_t kVisitors = 16;  // sessions at a time
constexpr int kMaxTimeout = 3600;

/// One address in each line; "#" begins a comment.
std::vector<std::string> NodesInFile(const std::string& path) {
  std::vector<std::string> nodes;
  std::string text = pnl_file::ReadE(path);
  while (!text.empty()) {
    std::string line = str::GetWord(text, '\n');
    const std::string node = str::Trim(str::GetWord(line, '#'));
    if (!node.empty()) nodes.push_back(node);
  }
  return nodes;
}

bool IsNodeFile(const std::string& word, const std::string& path) {
  return !word.empty() && pnl_file::Info(path).Exists();
}

std::vector<std::string> NodesInWord(const std::string& word) {
  std::vector<std::string> nodes;
  str::Split(word, ",", nodes);
  for (std::string& node : nodes) str::inpl::Trim(node);
  return nodes;
}

/// The ssh command lines have no place for a user or a port.
void RequireAddress(const std::string& node) {
  RequirePlain(node, "--nodes");
  const bool name = node.find_first_of("@%/=,:") == std::string::npos;
  if (!node.starts_with('-') && (name || test::Ip6(node))) return;
  throw UsageError("--nodes", node,
                   "--nodes: '" + node +
                       "' is neither a file nor an address; keys go to root on port 22, an IPv6 "
                       "address stands without brackets");
}

std::vector<std::string> Nodes(const Context& context) {
  const std::string word = context.Setting("nodes", "nodes");
  const std::string path = context.values.Has("nodes") ? context.Path(word) : word;
  std::vector<std::string> nodes = NodesNamed(word, path);
  std::set<std::string> seen;
  for (const std::string& node : nodes) {
    RequireAddress(node);
    if (!seen.insert(node).second)
      throw UsageError("--nodes", node, "--nodes: '" + node + "' stands there twice");
  }
  if (nodes.empty())
    throw UsageError("--nodes", word,
                     IsNodeFile(word, path)
                         ? "--nodes: '" + path + "' names no node"
                         : "no node is named: neither by --nodes nor by the settings");
  return nodes;
}

std::string KeyFile(const Context& context, const char* option, const char* key) {
  std::string path = context.PathSetting(option, key);
  RequirePlain(path, std::string("--") + option);
  if (!pnl_file::Exists(path)) throw pnl_err::System("read", path, ENOENT);
  return path;
}

}  // namespace

std::vector<std::string> NodesNamed(const std::string& word, const std::string& path) {
  return IsNodeFile(word, path) ? NodesInFile(path) : NodesInWord(word);
}

void AddKeyOptions(opts::Args& args) {
  args.Option("nodes")
      .Value("FILE|HOST,...")
      .Help(
          "the nodes: a file with an address in each line, or addresses; else nodes of the "
          "settings");
  args.Option("private").Value("FILE").Help(
      "the panel's private key; else private_key of the settings");
  args.Option("public").Value("FILE").Help("its public half; else public_key of the settings");
  args.Option("known-hosts")
      .Value("FILE")
      .Help("known host keys; else known_hosts of the settings, else ~/.ssh/known_hosts");
  args.Option("accept-new").Help("let nodes with unknown host keys through and note their keys");
  args.Option("timeout")
      .Number("S", 1, kMaxTimeout)
      .Help(
          "give up on a node after so many seconds without a sign of life; else 30 to connect, "
          "then 60");
}

KeySetup ReadKeySetup(const Context& context) {
  KeySetup setup;
  setup.nodes = Nodes(context);
  setup.private_key = KeyFile(context, "private", "private_key");
  setup.public_key = KeyFile(context, "public", "public_key");
  setup.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  if (!setup.known_hosts.empty()) RequirePlain(setup.known_hosts, "--known-hosts");
  setup.accept_new = context.values.Has("accept-new");
  setup.timeout = static_cast<int>(context.values.Int("timeout"));
  return setup;
}

pnl_rpc::SSH LogIn(const KeySetup& setup, const std::string& node, const std::string& private_key) {
  pnl_rpc::SshOptions options{
      .host = node, .key_file = private_key, .known_hosts = setup.known_hosts};
  if (setup.accept_new) options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
  if (setup.timeout > 0) options.connect_timeout = setup.timeout;
  pnl_rpc::SSH ssh(options);
  if (setup.timeout > 0) ssh.SetTimeout(setup.timeout);
  return ssh;
}

namespace {

std::string Keygen(const std::string& path, const std::string& input) {
  pnl_proc::Execute keygen("ssh-keygen -y -P '' -f " + pnl_proc::Escape(path),
                           pnl_proc::kOwnSession);
  keygen.In() << input;
  std::string key = KeyOf(keygen.Str());
  return keygen.Result() == 0 ? key : "";
}

}  // namespace

std::string PublicHalf(const std::string& private_key) {
  std::string key = Keygen(private_key, "");
  if (!key.empty()) return key;
  throw UsageError("--private", private_key, "'" + private_key + "' is no usable private key");
}

std::string PublicHalfOf(const std::string& text) {
  return Keygen("/dev/stdin", text);
}

NodeWork::NodeWork(Context& context, const std::vector<std::string>& nodes, NodeTable::News news)
    : nodes_(nodes), table_(context, nodes, news) {}

void NodeWork::Visit(const std::function<std::string(const std::string& node)>& visit) {
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (std::size_t n = next++; n < nodes_.size(); n = next++) VisitOne(nodes_[n], visit);
  };
  std::vector<std::jthread> visitors;
  try {
    while (visitors.size() + 1 < std::min(kVisitors, nodes_.size())) visitors.emplace_back(work);
  } catch (const std::exception&) {  // fewer do it as well
  }
  work();
}

void NodeWork::VisitOne(const std::string& node,
                        const std::function<std::string(const std::string& node)>& visit) noexcept {
  if (Interrupted()) return Fail(node, "interrupted");
  try {
    table_.Set(node, visit(node));
  } catch (const pnl_err::Error& error) {
    Fail(node, ErrorText(error, Format::kTable));
  } catch (const std::exception& error) {
    Fail(node, error.what());
  }
}

void NodeWork::Fail(const std::string& node, const std::string& reason) noexcept {
  some_failed_ = true;  // whatever becomes of the report
  table_.Set(node, "ERROR", reason);
  try {
    const std::lock_guard guard(mutex_);
    failed_.emplace(node, reason);
  } catch (const std::exception&) {  // no memory: it failed all the same
  }
}

void NodeWork::Restart() {
  some_failed_ = false;
  failed_.clear();
  unstoppable_ = true;
}

std::string NodeWork::Failures(std::size_t told) const {
  if (failed_.empty()) return "";
  std::string text = str::Format("%zu of %zu nodes failed: ", failed_.size(), nodes_.size());
  std::size_t count = 0;
  for (const auto& [node, reason] : failed_) {
    if (count == told) break;
    text += str::Format(count++ > 0 ? ", %s (%s)" : "%s (%s)", node, reason);
  }
  if (count < failed_.size()) text += ", ...";
  return text;
}

std::string NodeWork::FailedNodes() const {
  std::string names;
  for (const auto& [node, reason] : failed_) names = str::Append(names, node, ",");
  return names;
}

}  // namespace tools
