#pragma once

#include <vector>

#include "fleet/inventory.h"
#include "fleet/key_pair.h"
#include "fleet/run.h"
#include "tools/frame/login.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "key" share: the panel's key pair, and the nodes that accept it.
namespace tools {

Verb KeyRotateVerb();
Verb KeyResumeVerb();
Verb KeyStatusVerb();
Verb KeyVerifyVerb();
Verb KeyRetireVerb();
Verb KeyAuditVerb();

/// The panel's pair, as the options or else the settings say. Throws if a file is missing.
[[nodiscard]] fleet::KeyChange PanelPair(const Context& context);
/// The public half of its private key. Throws a usage error for a file that is no private key, and
/// kUnusableKey, with a message, if the .pub file is not its public half.
[[nodiscard]] std::string PresentKey(const fleet::KeyChange& pair);

/// The nodes of --nodes; without it, those of the setting: a file or addresses.
[[nodiscard]] std::vector<fleet::Node> KeyNodes(const Context& context);
/// How to log in to a node with the panel's key. A usage error if the inventory has another key for it.
[[nodiscard]] pnl_rpc::SshOptions KeyLogin(const NodeLogins& logins, const fleet::KeyChange& pair,
                                           const fleet::Node& node);
/// All of them. A usage error if there are none.
[[nodiscard]] std::vector<fleet::RunTarget> KeyTargets(const Context& context,
                                                       const fleet::KeyChange& pair);

/// The options of a run of keys: --forks and so on, the guard, --yes, --dry-run and --check.
void AddKeyRunOptions(opts::Args& args);
/// The fields of such a run's records.
[[nodiscard]] std::vector<Field> KeyRunFields();

/// --method ssh: the options of this way, and the rotation.
void AddSshMethodOptions(opts::Args& args);
[[nodiscard]] int RotateBySsh(Context& context);

}  // namespace tools
