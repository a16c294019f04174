#include "fleet/retirement.h"

#include <vector>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/diff.h"
#include "fleet/errors.h"
#include "pnl/err.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

using ssh_gen::kAuthorizedKeys;

std::string ReadKeys(pnl_rpc::SSH& ssh) {
  return ssh_utils::file::Read(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys);
}

/// The file's text without the old key. No key at all would be that of every comment.
std::string Rest(const pnl_rpc::SSH& ssh, const std::string& keys, const Retirement& retirement) {
  if (retirement.old_key.empty() || retirement.old_key == retirement.current_key)
    throw pnl_err::Error("retirement", "key", retirement.old_key);
  std::string rest = WithoutKey(keys, retirement.old_key);
  if (rest != keys && LinesWith(rest, retirement.current_key).empty())
    throw NodeError(ssh, kAuthorizedKeys,
                    std::string("refused: '") + kAuthorizedKeys +
                        "' would not hold the key that the panel logs in with");
  return rest;
}

/// Replaces a file of the node by what `filter`, reading it and `input`, prints: beside it, with
/// its owner and mode, synced, and only when it came whole. A lost connection changes nothing.
void ReplaceOnNode(pnl_rpc::SSH& ssh, const std::string& path, const std::string& filter,
                   const std::string& input) {
  const std::string script = "set -e; f=$(readlink -f " + pnl_proc::Escape(path) +
                             "); t=$(mktemp \"$f.XXXXXX\"); trap 'rm -f \"$t\"' EXIT; "
                             "i=$(mktemp \"$f.XXXXXX\"); trap 'rm -f \"$t\" \"$i\"' EXIT; "
                             "cat >\"$i\"; [ \"$(wc -c <\"$i\")\" -eq " +
                             std::to_string(input.size()) + " ]; cp -p \"$f\" \"$t\"; " + filter +
                             " >\"$t\"; sync \"$t\"; mv -f \"$t\" \"$f\"";
  pnl_rpc::SSH run = ssh.Execute(script);
  run.In() << input;
  run.CloseIn();
  if (run.Result() != 0)
    throw NodeError(ssh, path, "'" + path + "' could not be replaced; it stays as it was");
}

/// The lines go to the node and not the whole file, so that what somebody else adds meanwhile
/// stays.
void RemoveLines(pnl_rpc::SSH& ssh, const std::vector<std::string>& lines) {
  std::string patterns;
  for (const std::string& line : lines) patterns += line + "\n";
  ReplaceOnNode(ssh, kAuthorizedKeys, "grep -avxF -f \"$i\" \"$f\"", patterns);
}

}  // namespace

std::string PreviewRetirement(const KeySetup& setup, const Retirement& retirement,
                              const std::string& node) {
  pnl_rpc::SSH ssh = LogIn(setup, node, setup.private_key);
  const std::string keys = ReadKeys(ssh);
  return UnifiedDiff(keys, Rest(ssh, keys, retirement), node + ":" + kAuthorizedKeys);
}

bool RetireKey(const KeySetup& setup, const Retirement& retirement, const std::string& node) {
  pnl_rpc::SSH ssh = LogIn(setup, node, setup.private_key);
  const std::string keys = ReadKeys(ssh);
  if (Rest(ssh, keys, retirement) == keys) return false;
  RemoveLines(ssh, LinesWith(keys, retirement.old_key));
  try {
    (void)LogIn(setup, node, setup.private_key);
  } catch (const pnl_err::Error&) {
    ReplaceOnNode(ssh, kAuthorizedKeys, "cat \"$i\"", keys);  // over the connection still open
    throw;
  }
  return true;
}

}  // namespace fleet
