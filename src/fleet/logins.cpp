#include "fleet/logins.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "fleet/own_user.h"
#include "fleet/selection.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr const char* kNone = "none";

pnl_err::Error Wrong(const std::string& node, const std::string& word, const std::string& message) {
  return pnl_err::Error(kLoginError, node, word).add_param("message", node + ": " + message);
}

// --- ssh_config(5)

/// With the home directory for "~", which ssh(1) takes from passwd(5), not from $HOME.
std::string Home(const std::string& path) {
  if (!path.starts_with("~/")) return path;
  const std::string home = FindOwnUser().home;
  return home.empty() ? path : pnl_file::ConcatPath(home, path.substr(2));
}

/// What "ssh -G" prints: lines "name value". The first value of a name counts.
StringMap AskSsh(const Node& node, const std::string& name, int timeout) {
  constexpr std::size_t kMaxAnswer = std::size_t{1} << 20;
  pnl_proc::Execute ssh("ssh -G -- " + pnl_proc::Escape(name),
                        pnl_proc::kOwnSession | pnl_proc::kNoInput);
  ssh.SetTimeout(timeout);
  std::string text = ssh.Str(kMaxAnswer);
  if (ssh.Result() != 0) {
    throw Wrong(node.name, name, "'ssh -G " + name + "' failed: " + str::Trim(ssh.Complaint()));
  }
  StringMap values;
  while (!text.empty()) {
    std::string line = str::GetWord(text, '\n');
    const std::string key = str::GetWord(line, ' ');
    if (key != "identityfile" || pnl_file::Exists(Home(line))) values.emplace(key, line);
  }
  return values;
}

/// Whether it is one of the files that ssh(1) tries where IdentityFile is not set.
bool IsUsualKey(const std::string& path) {
  static constexpr std::array<std::string_view, 7> kNames = {
      "id_rsa", "id_ecdsa", "id_ecdsa_sk", "id_ed25519", "id_ed25519_sk", "id_xmss", "id_dsa"};
  const std::string name = pnl_file::Name(path);
  return path == Home("~/.ssh/" + name) &&
         std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

bool SameServer(const pnl_rpc::SshJump& jump, const pnl_rpc::SshOptions& options) {
  return jump.host == options.host && jump.port == options.port;
}

pnl_rpc::SshJump AsJump(const std::string& name, const pnl_rpc::SshOptions& options) {
  return {.host = options.host,
          .name = name,
          .port = options.port,
          .user = options.user,
          .key_file = options.key_file,
          .known_hosts = options.known_hosts};
}

}  // namespace

/// The nodes whose jump hosts led here, for the message about a circle.
struct Logins::Way {
  const Way* before;
  const std::string& name;

  bool Has(const std::string& other) const {
    return name == other || (before != nullptr && before->Has(other));
  }
  const std::string& Begin() const { return before == nullptr ? name : before->Begin(); }
  std::string Text() const { return (before != nullptr ? before->Text() + " -> " : "") + name; }
};

Logins::Logins(const Inventory& inventory, LoginDefaults defaults)
    : inventory_(inventory), defaults_(std::move(defaults)) {}

void Logins::AskSshConfig(const Node& node, pnl_rpc::SshOptions& options, std::string& jump) const {
  StringMap values =
      AskSsh(node, node.line > 0 ? node.name : node.host, defaults_.options.connect_timeout);
  const bool has_host = node.line > 0 && node.host != node.name;
  if (!has_host && !values["hostname"].empty()) options.host = values["hostname"];
  if (node.Get("user").empty() && !values["user"].empty()) options.user = values["user"];
  if (node.Get("port").empty() && !values["port"].empty()) options.port = str::Int(values["port"]);
  const std::string key = Home(values["identityfile"]);
  if (options.key_file.empty() && !key.empty() && !IsUsualKey(key)) options.key_file = key;
  if (options.known_hosts.empty())
    options.known_hosts = Home(str::GetWord(values["userknownhostsfile"]));
  if (!jump.empty()) return;
  jump = values["proxyjump"];
  if (const std::string& command = values["proxycommand"]; !command.empty() && command != kNone) {
    throw Wrong(node.name, command,
                "ssh_config(5) has a ProxyCommand for it, which is not supported; set jump= in the "
                "inventory");
  }
}

/// The login at the server itself. `jump`: the words of its jump hosts.
pnl_rpc::SshOptions Logins::Direct(const Node& node, std::string& jump) const {
  pnl_rpc::SshOptions options = node.Login(defaults_.options);
  jump = node.Get("jump");
  if (defaults_.ssh_config) AskSshConfig(node, options, jump);
  if (jump == kNone) jump.clear();
  if (options.key_file.empty()) options.key_file = defaults_.key_file;
  options.sudo = node.Get("become") == "sudo" && options.user != "root";
  return options;
}

pnl_rpc::SshOptions Logins::Find(const Node& node, const Way& way) const {
  std::string words;
  pnl_rpc::SshOptions options = Direct(node, words);
  for (const std::string& word : SplitNames(words)) {
    const bool first = options.jumps.empty();
    const Node host = [&] {
      try {
        return SelectOne(inventory_, word);
      } catch (const pnl_err::Error&) {
        throw Wrong(node.name, word,
                    "jump host '" + word + "' is no node and no [USER@]HOST[:PORT]");
      }
    }();
    if (way.Has(host.name)) {
      throw Wrong(way.Begin(), word,
                  "its jump hosts go in a circle: " + way.Text() + " -> " + host.name +
                      "; set jump=none for '" + host.name + "'");
    }
    std::string ignored;
    const pnl_rpc::SshOptions jump = first ? Find(host, {&way, host.name}) : Direct(host, ignored);
    if (first) options.jumps = jump.jumps;
    options.jumps.push_back(AsJump(host.name, jump));
  }
  if (options.jumps.size() > kMaxJumps)
    throw Wrong(node.name, words, "there are more than 8 jump hosts on the way to it");
  for (const pnl_rpc::SshJump& jump : options.jumps) {
    if (SameServer(jump, options))
      throw Wrong(node.name, words, "it is its own jump host; set jump=none for it");
  }
  return options;
}

pnl_rpc::SshOptions Logins::Of(const Node& node) const {
  return Find(node, {nullptr, node.name});
}

}  // namespace fleet
