#include "brefir/simpleconfig.h"

#include <functional>
#include <utility>

#include "pnl/err.h"
#include "pnl/log.h"
#include "pnl/str.h"

namespace utils {
namespace {

pnl_log::Module log_module("simpleconfig");

// Seconds.
constexpr int kLockTimeout = 3;
constexpr int kLockInterval = 1;

// --- Lines

/// Cuts off and returns the key; `line` keeps the text after the separator.
std::string_view CutKey(std::string_view& line, const LineSyntax& syntax) {
  return str::TrimView(str::NextWord(line, syntax.separator));
}

std::string_view KeyOf(std::string_view line, const LineSyntax& syntax) {
  return CutKey(line, syntax);
}

bool IsComment(std::string_view line, const LineSyntax& syntax) {
  return !line.empty() && syntax.comment.find(line.front()) != std::string::npos;
}

/// The value in the text after the separator.
std::string_view ValueOf(std::string_view rest, std::string_view quote, const LineSyntax& syntax) {
  std::string_view value = str::TrimView(rest.substr(0, rest.find_first_of(syntax.comment)));
  if (quote.empty()) return value;
  // Each end separately: people forget one of the two quotes.
  if (value.starts_with(quote)) value.remove_prefix(quote.size());
  if (value.ends_with(quote)) value.remove_suffix(quote.size());
  return value;
}

std::string NewLine(std::string_view key, std::string_view value, const LineSyntax& syntax) {
  std::string line(key);
  line.append(syntax.separator).append(syntax.quote).append(value).append(syntax.quote);
  return line += '\n';
}

// --- Files

/// All failures to open the file get one error type.
template <class Work>
auto Opening(const std::string& path, const Work& work) {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_err::kFile || error.object() == "read") throw;
    throw pnl_err::Error("pkg", "file_open", path).add_errno(error.code());
  }
}

std::string ReadAll(const std::string& path) {
  return Opening(path, [&] { return pnl_file::ReadE(path); });
}

using Change = std::function<std::optional<std::string>(const std::string& text)>;

/// Replaces the file with the result of `change`; false when there is none.
bool Rewrite(const std::string& path, const Change& change) {
  const std::string before = ReadAll(path);
  auto tmp = Opening(path, [&] { return pnl_file::Tmp(path); });
  const std::optional<std::string> after = change(before);
  if (!after) return false;
  tmp.Write(*after);
  tmp.CopyAttrs(path);
  tmp.Replace(path);
  return true;
}

}  // namespace

// --- Edits of a text

namespace lines {

bool Exists(std::string_view text, std::string_view key, const LineSyntax& syntax) {
  while (!text.empty()) {
    if (KeyOf(str::NextWord(text, '\n'), syntax) == key) return true;
  }
  return false;
}

std::string Get(std::string_view text, std::string_view key, std::string_view quote,
                const LineSyntax& syntax) {
  while (!text.empty()) {
    std::string_view line = str::NextWord(text, '\n');
    if (line.empty() || IsComment(line, syntax)) continue;
    if (CutKey(line, syntax) == key) return std::string(ValueOf(line, quote, syntax));
  }
  return "";
}

std::string Set(std::string_view text, std::string_view key, std::string_view value,
                std::string_view after, const LineSyntax& syntax) {
  const std::string new_line = NewLine(key, value, syntax);
  const bool moves = !after.empty() && after != key;
  bool written = false;  // the new line has been written
  bool done = false;     // the remaining lines stay as they are
  std::string out;
  out.reserve(text.size() + new_line.size() + 1);
  const auto copy = [&](std::string_view line) { out.append(line) += '\n'; };
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    const bool fixed = done || line.empty() || IsComment(line, syntax);
    if (!fixed && moves && !written && str::TrimView(line).starts_with(after)) {
      copy(line);
      out += new_line;
      written = true;
    } else if (fixed || KeyOf(line, syntax) != key) {
      copy(line);
    } else if (written) {
      done = true;
    } else if (!moves) {
      out += new_line;
      written = done = true;
    }
  }
  if (!written) out += new_line;
  return out;
}

std::optional<std::string> Del(std::string_view text, std::string_view key,
                               const LineSyntax& syntax) {
  std::string out;
  out.reserve(text.size() + 1);
  bool found = false;
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    if (KeyOf(line, syntax) == key) {
      found = true;
    } else {
      out.append(line) += '\n';
    }
  }
  return found ? std::optional(std::move(out)) : std::nullopt;
}

std::vector<Entry> List(std::string_view text, std::string_view quote, const LineSyntax& syntax) {
  std::vector<Entry> entries;
  for (std::size_t number = 1; !text.empty(); ++number) {
    std::string_view line = str::NextWord(text, '\n');
    if (IsComment(line, syntax)) continue;
    const std::string_view key = CutKey(line, syntax);
    if (key.empty()) continue;
    entries.push_back({number, std::string(key), std::string(ValueOf(line, quote, syntax))});
  }
  return entries;
}

}  // namespace lines

// --- One file

SimpleConfig::SimpleConfig(const std::string& path, bool create, const std::string& comment,
                           const std::string& separator, const std::string& quote)
    : path_(path), syntax_{comment, separator, quote} {
  if (!create && !pnl_file::Exists(path_)) throw pnl_err::Error("pkg", "file_not_exists", path_);
  lock_.DoLockName(path_, true, kLockTimeout, kLockInterval);
  // Under the lock: otherwise the slower of two processes would empty the file of the faster one.
  if (create && !pnl_file::Exists(path_)) pnl_file::Write(path_, "");
}

SimpleConfig::~SimpleConfig() = default;

bool SimpleConfig::Exists(const std::string& key) const {
  return lines::Exists(ReadAll(path_), key, syntax_);
}

std::string SimpleConfig::Get(const std::string& key, const std::string& quote) const {
  return lines::Get(ReadAll(path_), key, quote, syntax_);
}

void SimpleConfig::Set(const std::string& key, const std::string& value, const std::string& after) {
  Rewrite(path_, [&](const std::string& text) {
    return std::optional(lines::Set(text, key, value, after, syntax_));
  });
}

bool SimpleConfig::Del(const std::string& key) {
  return Rewrite(path_, [&](const std::string& text) { return lines::Del(text, key, syntax_); });
}

std::string SimpleConfig::Content() const {
  return pnl_file::Read(path_);
}

// --- A file with fields

Config::Config(const std::string& path)
    : config_(std::make_shared<SimpleConfig>(path, true, "#", "=", "")) {}

Config::Config(pnl_rpc::SSH ssh, const std::string& path)
    : remote_(std::make_shared<ssh_utils::file::RemoteFile>(ssh, path)),
      config_(std::make_shared<SimpleConfig>(*remote_, false, "#", "=", "")) {}

Config::~Config() = default;

void Config::Register(SCBaseField* field) {
  fields_[field->name()] = field;
  field->is_set_ = config_->Exists(field->name());
  if (field->is_set_) *field = config_->Get(field->name(), "\"");
}

void Config::Dump() const {
  PNL_TRACE(log_module, "config: %s", config_->Content().c_str());
}

SCBaseField::SCBaseField(const std::string& name, Config* owner, const std::string& default_value)
    : owner_(owner), name_(name), value_(default_value), default_value_(default_value) {
  owner_->Register(this);
}

SCBaseField& SCBaseField::operator=(const std::string& value) {
  value_ = value;
  owner_->config_->Set(name_, value_, "");
  is_set_ = true;
  return *this;
}

SCBaseField& SCBaseField::operator=(const char* value) {
  return *this = std::string(value);
}

SCBaseField& SCBaseField::Del() {
  value_ = default_value_;
  is_set_ = false;
  owner_->config_->Del(name_);
  return *this;
}

}  // namespace utils
