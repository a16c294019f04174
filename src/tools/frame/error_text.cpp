#include <cerrno>
#include <nlohmann/json.hpp>

#include "brefir/cmdarg.h"
#include "parser/dataset.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/ssh.h"
#include "pnl/utf8.h"
#include "tools/frame/output.h"

namespace tools {
namespace {

/// Sentences for the library's errors; the value is put in the middle.
struct Wording {
  std::string_view type;
  std::string_view object;
  std::string_view before;
  std::string_view after;
};

constexpr Wording kWordings[] = {
    {"backup_ssh_keys", "",
     "the key pair is unchanged: its copies in .old could not be made; -v shows why", ""},
    {"interrupted", "",
     "interrupted; the work that had begun is reported above, the rest was not begun", ""},
    {pnl_proc::kError, "timeout", "'", "' did not end in time and was killed"},
    {"ssh_keygen_fail", "", "ssh-keygen could not make the new key '", "'; -v shows why"},
    {"access", "file", "'", "' is refused: it must be an absolute path without symbolic links"},
    {pnl_file::kLockError, "foreign", "the lock file '", "' was made by another user; remove it"},
    {pnl_file::kLockError, "timeout", "'", "' is locked by another process; try again"},
    {pnl_err::kMissed, "module", "there is no panel module '",
     "': sbin/pnlctl is missing; 'brefirctl prefix init' makes the link"},
    {pnl_err::kMissed, "ospnl_repo", "there is no repository '",
     "'; 'brefirctl repo list' shows all"},
    {pnl_err::kMissed, "ostemplate", "no repository offers the template '",
     "' to this panel module; 'brefirctl template list' shows all that are offered"},
    {"ostemplate", "load_repo", "repository '",
     "' has no index that can be read; 'brefirctl template update' fetches it"},
    {kParserError, "bad_word", "'",
     "' must be one word: not empty, and without blanks, \"#\" and line ends"},
    {"pkg", "file_not_exists", "there is no file '", "'"},
    {"task", "running", "task '", "' is running already; 'brefirctl task wait' follows it"},
};

/// Sentences for errors of SSH sessions: `before`, the host, the reason, then what to do.
struct SshWording {
  std::string_view type;
  std::string_view before;
  std::string_view advice;
};

constexpr SshWording kSshWordings[] = {
    {pnl_rpc::kSshConnect, "cannot connect to ", "check that it is up, and its address and port"},
    {pnl_rpc::kSshHostKey, "will not connect to ",
     "--accept-new stores the key of a new node; for a changed or revoked key edit known_hosts"},
    {pnl_rpc::kSshAuth, "cannot log in to ", "name the private key with --key"},
    {pnl_rpc::kSshExec, "cannot run a command on ", ""},
    {pnl_rpc::kSshTimeout, "stopped waiting for ", "wait longer with --timeout"},
    {pnl_rpc::kSshClosed, "lost the connection to ", "it is unknown how far the command came"},
    {pnl_rpc::kSshStopped, "disconnected from ", ""},
    {pnl_rpc::kSshSudo, "cannot become root on ", "check sudoers(5) there"},
};

/// "" for other errors.
std::string SshSentence(const pnl_err::Error& error) {
  for (const SshWording& wording : kSshWordings) {
    if (error.type() != wording.type) continue;
    return std::string(wording.before) +
           str::Append(str::Append(error.object(), error.param("reason"), ": "), wording.advice,
                       "; ");
  }
  return "";
}

std::string Sentence(const pnl_err::Error& error) {
  // An error in a panel module's reply has its value among the parameters.
  const std::string value = error.value().empty() ? error.param("value") : error.value();
  if (std::string message = error.param("message"); !message.empty()) return message;
  if (std::string reason = error.param("errmsg"); !reason.empty()) {
    const bool opening = error.object() == "file_open";
    const bool reading = opening || error.object() == "open" || error.object() == "read";
    if (reading && error.code() == EINVAL)  // devices, FIFOs, sockets
      return "cannot read '" + value + "': it is not a regular file";
    if (error.param("sqlstate").starts_with("XX")) return reason;  // the statement says nothing
    if (error.type() == pnl_proc::kError)
      return "cannot " + error.object() + " '" + value + "': " + reason;
    const std::string kept = error.param("tmp");
    if (opening || error.type() == pnl_err::kFile)
      return "cannot " + (opening ? "open" : error.object()) + " '" + value + "': " + reason +
             (kept.empty() ? "" : "; the new content is kept as '" + kept + "'");
  }
  for (const Wording& wording : kWordings) {
    if (error.type() != wording.type || error.object() != wording.object) continue;
    return std::string(wording.before) + value + std::string(wording.after);
  }
  if (std::string sentence = SshSentence(error); !sentence.empty()) return sentence;
  if (error.type() == pnl_err::kMissed) return "there is no " + error.object() + " '" + value + "'";
  const bool bare = error.object().empty() && error.value().empty();
  return error.what() + std::string(bare ? " failed; -v shows the log" : "");
}

}  // namespace

std::string ErrorText(const pnl_err::Error& error, Format format) {
  if (format != Format::kJson) return utf8::Printable(Sentence(error));
  using Json = nlohmann::ordered_json;
  Json params = Json::object();
  for (const pnl_err::Error::Param& param : error.params()) params[param.name] = param.value;
  if (error.param("message").empty()) params["message"] = Sentence(error);
  Json object = {{"type", error.type()}, {"object", error.object()}, {"value", error.value()}};
  object["params"] = std::move(params);
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string ReasonText(const pnl_err::Error& error, const std::string& node) {
  std::string text = ErrorText(error, Format::kTable);
  for (const std::string& host : {node, error.object()}) {
    if (host.empty()) continue;
    if (text.starts_with(host + ": ")) text.erase(0, host.size() + 2);
    for (std::string words : {" to ", " on "}) {
      words += host;
      words += ": ";
      text = str::Replace(text, words, ": ");
    }
  }
  return text;
}

pnl_err::Error UsageError(const std::string& object, const std::string& value,
                          const std::string& message) {
  return pnl_err::Error(opts::kUsageError, object, value).add_param("message", message);
}

}  // namespace tools
