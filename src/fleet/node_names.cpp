#include "fleet/node_names.h"

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "pnl/test.h"

namespace fleet {
namespace {

constexpr int kMaxPort = 65535;

pnl_err::Error Refusal(const std::string& word, const std::string& message) {
  return pnl_err::Error(kNodeName, "", word).add_param("message", message);
}

/// Neither an option for the ssh programs, nor a rest of user or port.
bool IsName(const std::string& word) {
  return !word.empty() && word.front() != '-' && word.find_first_of("@[]") == std::string::npos;
}

/// Cuts off and returns the part after the host, with its colon.
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

/// The ssh command lines that distribute keys have no user or port.
bool IsAddress(const std::string& word) {
  const bool name = word.find_first_of("@%/=,:") == std::string::npos;
  return pnl_proc::Escape(word) == word && !word.starts_with('-') && (name || test::Ip6(word));
}

}  // namespace

pnl_rpc::SshOptions ParseNode(const std::string& text) {
  pnl_rpc::SshOptions options;
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
  if (!good) throw Refusal(text, "'" + text + "' is not [USER@]HOST[:PORT]");
  return options;
}

std::vector<std::string> KeyAddresses(const std::vector<Node>& nodes) {
  if (nodes.empty()) throw Refusal("", "no node is given; use --nodes, or the setting nodes");
  std::vector<std::string> addresses;
  for (const Node& node : nodes) {
    const std::string& user = node.Get("user");
    const bool plain = (user.empty() || user == "root") && node.Get("key").empty() &&
                       (node.Get("port").empty() || node.Get("port") == "22") &&
                       (node.Get("jump").empty() || node.Get("jump") == "none");
    if (!plain || !IsAddress(node.host)) {
      throw Refusal(node.name,
                    "'" + node.name +
                        "' is refused: keys go to root on port 22, with the panel's own "
                        "key; the node must have no other user, port or key, and no jump host");
    }
    addresses.push_back(node.host);
  }
  return addresses;
}

}  // namespace fleet
