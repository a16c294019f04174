#include "tools/commands/key/nodes.h"

#include <cerrno>
#include <set>

#include "pnl/file.h"
#include "pnl/settings.h"
#include "pnl/test.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

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

fleet::KeySetup ReadKeySetup(const Context& context) {
  fleet::KeySetup setup;
  setup.nodes = Nodes(context);
  setup.private_key = KeyFile(context, "private", "private_key");
  setup.public_key = KeyFile(context, "public", "public_key");
  setup.known_hosts = context.PathSetting("known-hosts", "known_hosts");
  if (!setup.known_hosts.empty()) RequirePlain(setup.known_hosts, "--known-hosts");
  setup.accept_new = context.values.Has("accept-new");
  setup.timeout = static_cast<int>(context.values.Int("timeout"));
  return setup;
}

fleet::NodeWatch WatchOn(const std::shared_ptr<NodeScreen>& screen) {
  return {
      .changed = [screen](const std::string& node, const std::string& state,
                          const std::string& reason) { screen->table.Set(node, state, reason); },
      .stop = [screen] { return screen->interruption.Happened(); },
      .reason = [](const pnl_err::Error& error) { return ErrorText(error, Format::kTable); }};
}

}  // namespace tools
