// Policies of a run, and logins, as text.

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "fleet/named_words.h"
#include "fleet/run.h"
#include "pnl/err.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::size_t kPercent = 100;

// --- Policies

pnl_err::Error WrongPolicy(const std::string& text) {
  return pnl_err::Error("policy", "read", text)
      .add_param("message", "'" + text +
                                "' is no policy; give all-or-none, each, canary:N or "
                                "canary:N,then:M%, where N and M are numbers");
}

std::size_t NumberOf(std::string_view word, const std::string& text, std::size_t least) {
  std::size_t number = 0;
  const char* const end = word.data() + word.size();
  const auto read = std::from_chars(word.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end || word.empty() || number < least)
    throw WrongPolicy(text);
  return number;
}

void ReadWord(RunPolicy& policy, std::string_view word, const std::string& text) {
  const std::string_view name = str::NextWord(word, ':');
  if (name == "all-or-none" && word.empty()) return;
  if (name == "each" && word.empty()) {
    policy.each = true;
  } else if (name == "canary") {
    policy.canary = NumberOf(word, text, 1);
  } else if (name == "then" && policy.canary != 0 && word.ends_with('%')) {
    policy.then_percent = NumberOf(word.substr(0, word.size() - 1), text, 1);
    if (policy.then_percent > kPercent) throw WrongPolicy(text);
  } else if (name == "serial") {
    policy.serial = NumberOf(word, text, 1);
  } else if (name == "max-failed") {
    policy.max_failed = NumberOf(word, text, 0);
  } else if (name == "guard" || name == "guard-all") {
    policy.guard = static_cast<int>(NumberOf(word, text, 1));
    policy.guard_all = name == "guard-all";
  } else {
    throw WrongPolicy(text);
  }
}

}  // namespace

std::string RunPolicy::Text() const {
  std::string text = each ? "each" : "";
  const auto add = [&](const std::string& word) { text = str::Append(text, word, ","); };
  if (canary != 0) add("canary:" + std::to_string(canary));
  if (canary != 0 && then_percent != kPercent) add("then:" + std::to_string(then_percent) + "%");
  if (serial != 0) add("serial:" + std::to_string(serial));
  if (text.empty()) text = "all-or-none";
  if (max_failed != 0) add("max-failed:" + std::to_string(max_failed));
  if (guard != 0) add((guard_all ? "guard-all:" : "guard:") + std::to_string(guard));
  return text;
}

RunPolicy RunPolicy::Read(const std::string& text) {
  RunPolicy policy;
  if (text.empty()) throw WrongPolicy(text);
  for (std::string_view rest = text; !rest.empty();)
    ReadWord(policy, str::NextWord(rest, ','), text);
  return policy;
}

std::vector<std::size_t> RunPolicy::Waves(std::size_t nodes) const {
  std::vector<std::size_t> waves;
  std::size_t left = nodes;
  const auto take = [&](std::size_t size) {
    waves.push_back(std::min(size, left));
    left -= waves.back();
  };
  if (canary != 0 && left != 0) take(canary);
  std::size_t size = serial != 0 ? serial : nodes;
  if (canary != 0 && serial == 0)
    size = std::max<std::size_t>(1, (nodes * then_percent + kPercent - 1) / kPercent);
  while (left != 0) take(size);
  return waves;
}

// --- Logins. Of the key only the path is written.

namespace {

int Port(const std::string& word) {
  constexpr int kDefault = 22;
  return word.empty() ? kDefault : static_cast<int>(str::Int64(word));
}

}  // namespace

std::string LoginText(const std::optional<pnl_rpc::SshOptions>& login) {
  if (!login) return "";
  std::string jumps;
  for (const pnl_rpc::SshJump& jump : login->jumps)
    jumps = str::Append(jumps,
                        WordsText({{"host", jump.host},
                                   {"name", jump.name},
                                   {"port", std::to_string(jump.port)},
                                   {"user", jump.user},
                                   {"key", jump.key_file},
                                   {"known_hosts", jump.known_hosts}},
                                  ','),
                        ";");
  return WordsText({{"host", login->host},
                    {"name", login->name},
                    {"port", std::to_string(login->port)},
                    {"user", login->user},
                    {"key", login->key_file},
                    {"known_hosts", login->known_hosts},
                    {"jumps", jumps},
                    {"become", login->sudo ? "sudo" : ""}});
}

std::optional<pnl_rpc::SshOptions> ReadLogin(const std::string& text) {
  if (text.empty()) return std::nullopt;
  StringMap words = ReadWords(text, "login");
  pnl_rpc::SshOptions login{.host = words["host"],
                            .name = words["name"],
                            .port = Port(words["port"]),
                            .user = words["user"],
                            .key_file = words["key"],
                            .known_hosts = words["known_hosts"]};
  login.sudo = words["become"] == "sudo";
  for (std::string_view rest = words["jumps"]; !rest.empty();) {
    StringMap jump = ReadWords(str::NextWord(rest, ';'), "login", ',');
    login.jumps.push_back({.host = jump["host"],
                           .name = jump["name"],
                           .port = Port(jump["port"]),
                           .user = jump["user"],
                           .key_file = jump["key"],
                           .known_hosts = jump["known_hosts"]});
  }
  return login;
}

}  // namespace fleet
