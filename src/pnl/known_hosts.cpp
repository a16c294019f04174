#include "pnl/known_hosts.h"

#include <fcntl.h>
#include <libssh/libssh.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "pnl/file.h"
#include "pnl/str.h"

namespace pnl_rpc::known_hosts {
namespace {

struct FreeEntry {
  void operator()(ssh_knownhosts_entry* entry) const { ssh_knownhosts_entry_free(entry); }
};
using Entry = std::unique_ptr<ssh_knownhosts_entry, FreeEntry>;

/// The key of a line with one pattern, matched by libssh; empty when the pattern does not match or
/// the line is malformed.
Entry Match(const std::string& host, const std::string& pattern, std::string_view rest) {
  const std::string line = pattern + " " + std::string(rest);
  ssh_knownhosts_entry* entry = nullptr;
  return Entry(ssh_known_hosts_parse_line(host.c_str(), line.c_str(), &entry) == SSH_OK ? entry
                                                                                        : nullptr);
}

/// The key of a line for the host. When a negated pattern matches ("*,!web1"), the whole line does
/// not apply.
Entry Find(const std::string& host, const std::string& patterns, std::string_view rest) {
  std::vector<std::string> words;
  str::Split(patterns, ",", words);
  Entry found;
  for (const std::string& word : words) {
    const bool negated = word.starts_with('!');
    Entry entry = Match(host, word.substr(negated ? 1 : 0), rest);
    if (entry && negated) return nullptr;
    if (entry) found = std::move(entry);
  }
  return found;
}

}  // namespace

std::string Read(const std::string& path) {
  return path == "/dev/null" ? "" : pnl_file::Read(path);
}

void Append(const std::string& path, std::string line) {
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDWR | O_APPEND | O_CREAT, 0600);
  // The last line may have no line end.
  const off_t size = lseek(fd.Get(), 0, SEEK_END);
  char last = '\n';
  if (size > 0 && pread(fd.Get(), &last, 1, size - 1) == 1 && last != '\n') line.insert(0, "\n");
  if (line.back() != '\n') line += '\n';
  pnl_file::WriteAll(fd.Get(), line, path);
}

std::string NameOf(const std::string& host, int port) {
  constexpr int kUsualPort = 22;
  const std::string name = str::Lower(host);
  return port == kUsualPort ? name : "[" + name + "]:" + std::to_string(port);
}

HostKey::State LookUp(const std::string& text, const std::string& host, ssh_key_struct* key) {
  HostKey::State answer = HostKey::State::kUnknown;
  for (std::string_view lines = text; !lines.empty();) {
    std::string rest = str::Trim(std::string(str::NextWord(lines, '\n')));
    const std::string mark = rest.starts_with('@') ? str::GetWord(rest) : "";
    const bool revoked = mark == "@revoked";
    if (rest.starts_with('#') || (!mark.empty() && !revoked)) continue;
    const std::string patterns = str::GetWord(rest);
    const Entry entry = Find(host, patterns, rest);
    if (!entry) continue;
    const bool same = ssh_key_cmp(entry->publickey, key, SSH_KEY_CMP_PUBLIC) == 0;
    if (revoked && same) return HostKey::State::kRevoked;
    if (revoked) continue;
    if (same) answer = HostKey::State::kKnown;
    if (answer == HostKey::State::kUnknown) answer = HostKey::State::kChanged;
  }
  return answer;
}

}  // namespace pnl_rpc::known_hosts
