#include "fleet/key_login.h"

#include "fleet/authorized_keys.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

std::string Keygen(const std::string& path, const std::string& input) {
  pnl_proc::Execute keygen("ssh-keygen -y -P '' -f " + pnl_proc::Escape(path),
                           pnl_proc::kOwnSession);
  keygen.In() << input;
  std::string key = KeyOf(keygen.Str());
  return keygen.Result() == 0 ? key : "";
}

}  // namespace

pnl_rpc::SSH LogIn(const KeySetup& setup, const std::string& node, const std::string& private_key) {
  pnl_rpc::SshOptions options{
      .host = node, .key_file = private_key, .known_hosts = setup.known_hosts};
  if (setup.accept_new) options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
  if (setup.timeout > 0) options.connect_timeout = setup.timeout;
  pnl_rpc::SSH ssh(options);
  if (setup.timeout > 0) ssh.SetTimeout(setup.timeout);
  return ssh;
}

std::string PublicHalf(const std::string& path) {
  std::string key = Keygen(path, "");
  if (!key.empty()) return key;
  throw pnl_err::Error(kUnusableKey, "", path)
      .add_param("message", "'" + path + "' is not a usable private key");
}

std::vector<std::string> Fingerprints(const std::vector<std::string>& keys) {
  if (keys.empty()) return {};
  std::string lines;  // it leaves out what it does not take: the comments tell them apart
  for (std::size_t i = 0; i < keys.size(); ++i) lines += keys[i] + " " + std::to_string(i) + "\n";
  pnl_proc::Execute keygen("ssh-keygen -l -E sha256 -f /dev/stdin", pnl_proc::kOwnSession);
  keygen.In() << lines;
  std::string answer = keygen.Str();
  constexpr int kNotFound = 127;
  if (keygen.Result() == kNotFound)
    throw pnl_err::Error("ssh_keygen")
        .add_param("message",
                   "the fingerprints of keys cannot be computed: install ssh-keygen on this host");
  std::vector<std::string> fingerprints(keys.size());
  while (!answer.empty()) {  // "256 SHA256:... 17 (ED25519)"
    std::string line = str::GetWord(answer, '\n');
    str::GetWord(line);
    const std::string fingerprint = str::GetWord(line);
    const auto index = static_cast<std::size_t>(str::Int64(str::GetWord(line)));
    if (fingerprint.starts_with("SHA256:") && index < keys.size())
      fingerprints[index] = fingerprint;
  }
  return fingerprints;
}

std::string PublicHalfOf(const std::string& text) {
  return Keygen("/dev/stdin", text);
}

}  // namespace fleet
