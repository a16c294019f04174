#include "fleet/key_audit.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "fleet/authorized_keys.h"
#include "fleet/key_audit_script.h"
#include "fleet/key_login.h"
#include "pnl/date.h"
#include "pnl/err.h"

namespace fleet {
namespace {

// --- Logins

/// The clock of a host: the time of its answer, and its zone as "+0100".
struct Clock {
  std::time_t now = 0;
  std::string zone;
};

/// The time of "Nov 23 10:11:12": in the newest year in which that is not in the future.
std::optional<std::time_t> TimeWithoutYear(const std::string& month, const std::string& day,
                                           const std::string& clock, const Clock& host) {
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  constexpr int kLeapYears = 8;  // there are so many years at most between two of them
  const std::size_t at = month.size() == 3 ? kMonths.find(month) : std::string_view::npos;
  if (at == std::string_view::npos || at % 3 != 0) return std::nullopt;
  // Outside of these years it is a number of seconds. East of UTC, the next year has begun.
  const int last = std::clamp(str::Int(pnl_date::DateTime(host.now).Str()), 1, 9999) + 1;
  for (int year = last; year >= last - 1 - kLeapYears; --year) {
    const auto time = pnl_date::DateTime::Parse(str::Format("%04d-%02d-%02dT%s%s", year,
                                                            static_cast<int>(at / 3) + 1,
                                                            str::Int(day), clock, host.zone));
    if (time && time->Seconds() <= host.now) return time->Seconds();
  }
  return std::nullopt;
}

/// Cuts off the time at the beginning of a line of a log.
std::optional<std::time_t> CutTime(std::string_view& line, const Clock& host) {
  const std::string word(str::NextWord(line));
  if (word.size() == 3) {
    const std::string day(str::NextWord(line));
    const std::string clock(str::NextWord(line));
    return TimeWithoutYear(word, day, clock, host);
  }
  const auto time = pnl_date::DateTime::Parse(word);
  return time ? std::optional(time->Seconds()) : std::nullopt;
}

/// Of a line "TIME HOST sshd[1]: Accepted publickey for USER from ADDRESS port N ssh2: TYPE FINGERPRINT". A
/// name that somebody tries to log in with may have these words, too, but not at this place.
std::optional<KeyLogin> ReadLogin(std::string_view line, const Clock& host) {
  const auto time = CutTime(line, host);
  str::NextWord(line);  // the host
  const std::string_view program = str::NextWord(line, ": ");
  constexpr std::string_view kAccepted = "Accepted publickey for ";
  if (!time || !program.starts_with("sshd") || !line.starts_with(kAccepted)) return std::nullopt;
  line.remove_prefix(kAccepted.size());
  const std::size_t from = line.find(" from ");
  const std::size_t last = line.rfind(' ');
  if (from == std::string_view::npos || from == 0) return std::nullopt;
  KeyLogin login{std::string(line.substr(0, from)), std::string(line.substr(last + 1)), *time, ""};
  line.remove_prefix(from + 6);
  login.from = str::NextWord(line, ' ');
  return login.fingerprint.starts_with("SHA256:") ? std::optional(login) : std::nullopt;
}

// --- The answer

/// Reads the lines that KeysCommand describes.
class AnswerReader {
 public:
  void Take(std::string_view line) {
    const std::string_view kind = str::NextWord(line, ' ');
    if (kind == "k") return TakeKey(line);
    if (kind == "l") logs_.push_back(line);
    if (kind == "file") Begin(line);
    if (kind == "read") End(bytes_ >= kMaxKeyFile ? "is too long and was not read to its end" : "");
    if (kind == "bad") End("cannot be read");
    if (kind == "odd") TakeOdd();
    if (kind == "denied") TakeDenied(line);
    if (kind == "same") TakeSame(line);
    if (kind == "keys") complete_ = true;
    if (kind == "now") clock_ = {str::Int64(str::NextWord(line)), std::string(line)};
    TakeSetting(kind, line);
  }

  KeyAudit Finish() {
    if (!complete_) {
      if (!open_) std::tie(user_, file_) = std::pair("", "");
      const std::string what = open_ ? Named(user_, file_) : "the list of users and files";
      audit_.unread.push_back({user_, file_,
                               what + " did not come within " + std::to_string(kKeyAuditTime) +
                                   " seconds; what follows it was not read"});
    }
    for (const std::string_view line : logs_)
      if (auto login = ReadLogin(line, clock_)) audit_.logins.push_back(std::move(*login));
    return std::move(audit_);
  }

 private:
  struct Range {
    std::size_t begin, end;
    std::string unread;
  };

  static std::string Named(const std::string& user, const std::string& file) {
    return "'" + file + "' of " + user;
  }
  void SetFile(std::string_view text) {
    user_ = str::NextWord(text, ':');
    file_ = text;
  }

  void Begin(std::string_view text) {
    SetFile(text);
    open_ = true;
    begin_ = audit_.keys.size();
    bytes_ = 0;
    line_ = broken_ = first_broken_ = 0;
  }

  void TakeKey(std::string_view text) {
    if (!open_) return;
    ++line_;
    bytes_ += text.size() + 1;
    KeyLine parts = SplitKeyLine(text);
    const std::string_view words = str::TrimView(text);
    if (!parts.key.empty()) {
      audit_.keys.push_back({.user = user_,
                             .file = file_,
                             .line = line_,
                             .key = std::move(parts.key),
                             .options = std::move(parts.options),
                             .comment = std::move(parts.comment)});
    } else if (!words.empty() && !words.starts_with('#') && ++broken_ == 1) {
      first_broken_ = line_;
    }
  }

  void End(const std::string& unread) {
    if (!open_) return;
    open_ = false;
    files_[file_] = {begin_, audit_.keys.size(), unread};
    if (!unread.empty()) AddUnread(unread);
    if (broken_ == 0) return;
    const std::string line = "line " + std::to_string(first_broken_) + " of " + Named(user_, file_);
    audit_.notes.push_back(broken_ == 1 ? line + " is no key, and sshd ignores it"
                                        : line + " and " + std::to_string(broken_ - 1) +
                                              " more are no keys, and sshd ignores them");
  }

  void AddUnread(const std::string& why) {
    audit_.unread.push_back({user_, file_, Named(user_, file_) + " " + why});
  }
  void TakeOdd() {
    if (!open_) return;
    End("");
    audit_.notes.push_back(Named(user_, file_) + " is no regular file, and sshd ignores it");
  }
  void TakeDenied(std::string_view text) {
    SetFile(text);
    AddUnread("cannot be read");
  }

  /// A file that other users have, too, comes once.
  void TakeSame(std::string_view text) {
    SetFile(text);
    const auto found = files_.find(file_);
    if (found == files_.end()) return;
    const Range range = found->second;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      AcceptedKey key = audit_.keys[i];
      key.user = user_;
      audit_.keys.push_back(std::move(key));
    }
    if (!range.unread.empty()) AddUnread(range.unread);
  }

  void TakeSetting(std::string_view kind, std::string_view value) {
    const auto note = [&](const std::string& text) { audit_.notes.push_back(text); };
    if (kind == "unasked")
      note("sshd could not be asked for AuthorizedKeysFile: only the usual files were looked at");
    if (kind == "local") note("getent passwd failed: only the users in /etc/passwd were looked at");
    if (kind == "command")
      note("sshd takes more keys, which are not listed, from the command '" + std::string(value) +
           "' (AuthorizedKeysCommand)");
    if (kind == "ca")
      note("sshd accepts all certificates, which are not listed, that the keys in '" +
           std::string(value) + "' have signed (TrustedUserCAKeys)");
  }

  KeyAudit audit_;
  std::vector<std::string_view> logs_;
  Clock clock_;
  std::map<std::string, Range> files_;
  bool complete_ = false;
  bool open_ = false;  // a file has begun and not ended
  std::string user_, file_;
  std::size_t begin_ = 0, bytes_ = 0;
  int line_ = 0, broken_ = 0, first_broken_ = 0;
};

/// The lines of an output with the nonce, without it; null if the output is not complete.
std::optional<std::string> LinesOf(std::string_view output, const std::string& nonce) {
  std::string text;
  bool complete = false;
  while (!output.empty()) {
    std::string_view line = str::NextWord(output, '\n');
    if (str::NextWord(line, ' ') != nonce) continue;
    complete = line == "end";
    text.append(line).append("\n");
  }
  return complete ? std::optional(text) : std::nullopt;
}

// --- What is known of keys

/// Invalid keys have none.
/// Of each user and fingerprint.
using LastLogins = std::map<std::pair<std::string_view, std::string_view>, const KeyLogin*>;

LastLogins LastOf(const std::vector<KeyLogin>& logins) {
  LastLogins last;
  for (const KeyLogin& login : logins) {
    const KeyLogin*& newest = last[{login.user, login.fingerprint}];
    if (newest == nullptr || login.time > newest->time) newest = &login;
  }
  return last;
}

}  // namespace

KeyAudit ParseKeyAnswer(std::string_view answer) {
  AnswerReader reader;
  while (!answer.empty()) reader.Take(str::NextWord(answer, '\n'));
  return reader.Finish();
}

KeyAudit AskKeys(pnl_host::Host& host) {
  constexpr std::size_t kNonceBytes = 8;
  const std::string nonce = str::hex::Encode(str::Random(kNonceBytes));
  const pnl_host::Outcome run = host.Act(KeysCommand(nonce));
  if (const auto answer = LinesOf(run.output, nonce)) return ParseKeyAnswer(*answer);
  const std::string why =
      run.complaint.empty() ? "exit code " + std::to_string(run.code) : run.complaint;
  throw pnl_err::Error("key_audit", host.Name())
      .add_param("message", host.Name() + ": it does not answer with its keys (" +
                                str::Replace(why, "\n", "; ") + "); /bin/sh must work there");
}

KeyOwners KnownKeys(std::string_view text, const std::string& file) {
  KeyOwners owners;
  for (int number = 1; !text.empty(); ++number) {
    const std::string_view line = str::NextWord(text, '\n');
    const std::string_view words = str::TrimView(line);
    if (words.empty() || words.starts_with('#')) continue;
    const KeyLine parts = SplitKeyLine(line);
    const std::string where = file + ", line " + std::to_string(number);
    if (parts.key.empty())
      throw pnl_err::Error("known_keys", file, std::to_string(number))
          .add_param("message", where + ": this is no public key; correct the line or remove it");
    std::string& owner = owners[parts.key];
    owner = str::Append(owner, parts.comment.empty() ? where : parts.comment, ", ");
  }
  return owners;
}

void CompleteAudits(std::vector<KeyAudit>& audits, const KeyOwners& owners) {
  std::set<std::string> distinct;
  for (const KeyAudit& audit : audits)
    for (const AcceptedKey& key : audit.keys) distinct.insert(key.key);
  const std::vector<std::string> keys(distinct.begin(), distinct.end());
  const std::vector<std::string> prints = Fingerprints(keys);
  const auto fingerprint = [&](const std::string& key) {
    const auto found = std::lower_bound(keys.begin(), keys.end(), key);
    return prints[static_cast<std::size_t>(found - keys.begin())];
  };
  for (KeyAudit& audit : audits) {
    const LastLogins logins = LastOf(audit.logins);
    for (AcceptedKey& key : audit.keys) {
      if (const auto owner = owners.find(key.key); owner != owners.end()) key.whose = owner->second;
      key.fingerprint = fingerprint(key.key);
      if (const auto login = logins.find({key.user, key.fingerprint}); login != logins.end()) {
        key.last_seen = login->second->time;
        key.from = login->second->from;
      }
    }
  }
}

}  // namespace fleet
