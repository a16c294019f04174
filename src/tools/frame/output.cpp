#include "tools/frame/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "brefir/cmdarg.h"
#include "pnl/file.h"
#include "tools/frame/text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kStandardOutput = "standard output";
constexpr std::size_t kMinLastColumn =
    20;  // a narrower one is not wrapped but left to the terminal

// --- JSON

struct ToJson {
  Json operator()(std::monostate) const { return nullptr; }
  Json operator()(const std::vector<Record>& records) const {
    Json array = Json::array();
    for (const Record& record : records) array.push_back((*this)(record));
    return array;
  }
  Json operator()(const Record& record) const {
    Json object = Json::object();
    for (const auto& [name, value] : record.fields) object[name] = std::visit(*this, value.Get());
    return object;
  }
  Json operator()(const Value::Records& records) const { return (*this)(*records); }
  Json operator()(pnl_date::DateTime time) const {
    return str::Replace(time.Str(), " ", "T") + "Z";  // RFC 3339
  }
  template <class T>
  Json operator()(const T& value) const {
    return value;
  }
};

/// Bytes that are no UTF-8 become U+FFFD: a file name may hold any.
std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// --- Tables

struct ToCell {
  std::string operator()(std::monostate) const { return "-"; }
  std::string operator()(bool flag) const { return flag ? "yes" : "no"; }
  template <std::integral T>
  std::string operator()(T number) const {
    return std::to_string(number);
  }
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(pnl_date::DateTime time) const { return LocalTime(time); }
  std::string operator()(const std::vector<std::string>& list) const {
    std::string text;
    for (const std::string& item : list) text += (text.empty() ? "" : ", ") + item;
    return text;
  }
  std::string operator()(const StringMap& map) const {
    std::string text;
    for (const auto& [name, value] : map) {
      if (!text.empty()) text += ", ";
      text.append(name).append("=").append(value);
    }
    return text;
  }
  std::string operator()(const Value::Records& records) const {
    std::string text;
    for (const Record& record : *records) text += (text.empty() ? "" : "; ") + OneLine(record);
    return text;
  }

 private:
  std::string OneLine(const Record& record) const {
    std::string text;
    for (const auto& [name, value] : record.fields) {
      if (!text.empty()) text += ", ";
      text.append(name).append("=").append(std::visit(*this, value.Get()));
    }
    return text;
  }
};

bool IsNumber(const Value& value) {
  return std::holds_alternative<std::int64_t>(value.Get()) ||
         std::holds_alternative<std::uint64_t>(value.Get());
}

std::string Padding(std::size_t width, const std::string& text) {
  const std::size_t columns = Columns(text);
  return std::string(width > columns ? width - columns : 0, ' ');
}

/// Cells in columns. On a terminal the last column is wrapped into what is left of the line;
/// elsewhere a row is one line, whatever its length.
class Grid {
 public:
  struct Cell {
    std::string text;
    bool right = false;
  };
  using Row = std::vector<Cell>;

  void Add(Row row) {
    widths_.resize(std::max(widths_.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths_[i] = std::max(widths_[i], Columns(row[i].text));
    rows_.push_back(std::move(row));
  }

  std::string Text() const {
    std::string out;
    for (const Row& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string padding = Padding(widths_[i], row[i].text);
        if (row[i].right) line += padding;
        if (i + 1 == row.size() && !row[i].right) {
          line += Wrapped(row[i].text);
        } else {
          line += row[i].text;
          if (!row[i].right) line += padding;
          line += "  ";
        }
      }
      line.erase(line.find_last_not_of(' ') + 1);
      out += line + "\n";
    }
    return out;
  }

 private:
  std::string Wrapped(std::string_view text) const {
    std::size_t indent = 0;
    for (std::size_t i = 0; i + 1 < widths_.size(); ++i) indent += widths_[i] + 2;
    if (isatty(STDOUT_FILENO) == 0) return std::string(text);
    const std::size_t width = opts::TerminalWidth();
    if (width < indent + kMinLastColumn) return std::string(text);
    std::string out;
    while (Columns(text) > width - indent) {
      std::string_view line = Fitting(text, width - indent);
      const std::size_t blank = line.rfind(' ');
      const bool at_blank = blank != std::string_view::npos && blank > 0;
      if (at_blank) line = line.substr(0, blank);
      out += std::string(line) + "\n" + std::string(indent, ' ');
      text.remove_prefix(line.size() + (at_blank ? 1 : 0));
    }
    return out += text;
  }

  std::vector<Row> rows_;
  std::vector<std::size_t> widths_;
};

std::vector<std::string> FieldNames(const std::vector<Record>& records) {
  std::vector<std::string> names;
  if (records.empty()) return names;
  for (const auto& [name, value] : records.front().fields) names.push_back(name);
  return names;
}

std::string Table(const std::vector<Record>& records, const std::vector<std::string>& columns) {
  Grid grid;
  Grid::Row heading;
  for (const std::string& name : columns) {
    const bool number = std::any_of(records.begin(), records.end(), [&](const Record& record) {
      const Value* value = record.Find(name);
      return value != nullptr && IsNumber(*value);
    });
    heading.push_back({str::Upper(name), number});
  }
  grid.Add(heading);
  for (const Record& record : records) {
    Grid::Row row;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const Value* value = record.Find(columns[i]);
      const std::string text =
          std::visit(ToCell(), value == nullptr ? Value().Get() : value->Get());
      row.push_back({Printable(text), heading[i].right});
    }
    grid.Add(std::move(row));
  }
  return grid.Text();
}

// --- Errors

/// What the library's own errors mean to the people at the program: the value stands in between.
struct Wording {
  std::string_view type;
  std::string_view object;
  std::string_view before;
  std::string_view after;
};

constexpr Wording kWordings[] = {
    {"backup_ssh_keys", "",
     "the key pair was not changed: it could not be copied to files beside it that end in .old; -v "
     "shows why",
     ""},
    {"interrupted", "", "interrupted; what was begun is told above, the rest was not begun", ""},
    {"proc", "timeout", "'", "' did not end in time and was ended"},
    {"ssh_keygen_fail", "", "ssh-keygen could not make the new key '", "'; -v shows why"},
    {"access", "file", "'", "' is refused: it must be an absolute path without symbolic links"},
    {"lock", "foreign", "the lock file '", "' was made by somebody else; remove it"},
    {"lock", "timeout", "'", "' is locked by another process; try again"},
    {"missed", "module", "there is no panel module '",
     "': sbin/pnlctl is missing; 'brefirctl prefix init' makes the link"},
    {"missed", "ospnl_repo", "there is no repository '", "'; 'brefirctl repo list' shows them"},
    {"missed", "ostemplate", "no repository offers the template '",
     "' to this module; 'brefirctl template list' shows what there is"},
    {"ostemplate", "load_repo", "repository '",
     "' has no index that can be read; 'brefirctl template update' fetches it"},
    {"parser", "bad_word", "'",
     "' must be one word: not empty, without blanks, \"#\" or line ends"},
    {"pkg", "file_not_exists", "there is no file '", "'"},
    {"task", "running", "task '", "' is running already; 'brefirctl task wait' follows it"},
};

/// Errors of SSH sessions: the host stands after `before`, then the reason, then what to do.
struct SshWording {
  std::string_view type;
  std::string_view before;
  std::string_view advice;
};

constexpr SshWording kSshWordings[] = {
    {"ssh_connect", "cannot connect to ", "check its address and port, and whether it is up"},
    {"ssh_hostkey", "refusing to talk to ",
     "--accept-new notes that of a new node; for a changed or revoked one known_hosts has to be "
     "edited"},
    {"ssh_auth", "cannot log in to ", "--key names the private key"},
    {"ssh_exec", "a command could not be carried out on ", ""},
    {"ssh_timeout", "gave up on ", "--timeout waits longer"},
    {"ssh_closed", "lost the connection to ", "what the command did there is unknown"},
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
  if (const std::string reason = error.param("errmsg"); !reason.empty()) {
    const bool opening = error.object() == "file_open";
    const bool reading = opening || error.object() == "open" || error.object() == "read";
    if (reading && error.code() == EINVAL)  // devices, FIFOs, sockets
      return "cannot read '" + value + "': it is no regular file";
    if (error.type() == "proc") return "cannot " + error.object() + " '" + value + "': " + reason;
    const std::string kept = error.param("tmp");
    if (opening || error.type() == pnl_err::kFile)
      return "cannot " + (opening ? "open" : error.object()) + " '" + value + "': " + reason +
             (kept.empty() ? "" : "; the new one is kept as '" + kept + "'");
  }
  for (const Wording& wording : kWordings) {
    if (error.type() != wording.type || error.object() != wording.object) continue;
    return std::string(wording.before) + value + std::string(wording.after);
  }
  if (std::string sentence = SshSentence(error); !sentence.empty()) return sentence;
  if (error.type() == pnl_err::kMissed) return "there is no " + error.object() + " '" + value + "'";
  const bool bare = error.object().empty() && error.value().empty();
  return error.what() + std::string(bare ? " failed; -v shows what went before" : "");
}

}  // namespace

// --- Value, Record

std::string LocalTime(pnl_date::DateTime time) {
  const std::time_t seconds = time.Seconds();
  tm local{};
  char text[64];
  if (localtime_r(&seconds, &local) == nullptr) return time.Str();
  return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local)};
}

Value::Value(std::vector<Record> records)
    : data_(std::make_shared<const std::vector<Record>>(std::move(records))) {}

Record&& Record::Add(std::string name, Value value) && {
  fields.emplace_back(std::move(name), std::move(value));
  return std::move(*this);
}

Record& Record::Add(std::string name, Value value) & {
  fields.emplace_back(std::move(name), std::move(value));
  return *this;
}

const Value* Record::Find(std::string_view name) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const auto& field) { return field.first == name; });
  return found == fields.end() ? nullptr : &found->second;
}

// --- Output

namespace {

pnl_err::Error FieldFault(const std::string& name, const char* what) {
  return pnl_err::Error("internal", name)
      .add_param("message", "a fault of brefirctl: the field '" + name + "' is " + what);
}

}  // namespace

void Output::RequireDeclared(const std::string& name) const {
  if (!fields_) return;
  const bool declared = std::any_of(fields_->begin(), fields_->end(),
                                    [&](const Field& field) { return field.name == name; });
  if (!declared) throw FieldFault(name, "not declared");
}

void Output::CheckFields(const Record& record) const {
  for (const auto& [name, value] : record.fields) RequireDeclared(name);
  for (const Field& field : fields_.value_or(std::vector<Field>())) {
    if (field.when.empty() && record.Find(field.name) == nullptr)
      throw FieldFault(field.name, "missing");
  }
}

void Output::List(const std::vector<Record>& records, const std::vector<std::string>& columns) {
  for (const Record& record : records) CheckFields(record);
  if (format_ == Format::kJson) {
    buffer_ += Dump(ToJson()(records), 2) + "\n";
  } else if (!records.empty()) {
    buffer_ += Table(records, columns.empty() ? FieldNames(records) : columns);
  }
}

void Output::One(const Record& record, const std::vector<std::string>& columns) {
  CheckFields(record);
  if (format_ == Format::kJson) {
    buffer_ += Dump(ToJson()(record), 2) + "\n";
    return;
  }
  Grid grid;
  for (const auto& [name, value] : record.fields) {
    if (!columns.empty() && std::find(columns.begin(), columns.end(), name) == columns.end())
      continue;
    // A text of several lines goes on below itself.
    std::string text = std::visit(ToCell(), value.Get());
    std::string label = name;
    do {
      grid.Add({{label}, {Printable(str::GetWord(text, '\n'))}});
      label.clear();
    } while (!text.empty());
  }
  buffer_ += grid.Text();
}

void Output::Text(const std::string& name, std::string_view text) {
  RequireDeclared(name);
  if (format_ == Format::kJson) {
    buffer_ += Dump(ToJson()(Record().Add(name, text)), 2) + "\n";
  } else if (isatty(STDOUT_FILENO) != 0) {
    buffer_ += Printable(text, "\n\t");
  } else {
    buffer_ += text;
  }
}

void Output::Piece(std::string_view text) {
  begun_ = true;
  if (isatty(STDOUT_FILENO) == 0) return pnl_file::WriteAll(STDOUT_FILENO, text, kStandardOutput);
  // What may be the beginning of a character waits for its rest.
  buffer_ += text;
  std::size_t whole = buffer_.size();
  while (whole > 0 && buffer_.size() - whole < 3 &&
         static_cast<unsigned char>(buffer_[whole - 1]) >= 0x80)
    --whole;
  pnl_file::WriteAll(STDOUT_FILENO, Printable(buffer_.substr(0, whole), "\n\t"), kStandardOutput);
  buffer_.erase(0, whole);
}

void Output::Finish() {
  if (buffer_.empty() && !begun_) return;
  pnl_file::WriteAll(STDOUT_FILENO, std::exchange(buffer_, ""), kStandardOutput);
  if (close(STDOUT_FILENO) != 0) throw pnl_err::System("close", kStandardOutput, errno);
}

std::string ErrorText(const pnl_err::Error& error, Format format) {
  if (format == Format::kTable) return Printable(Sentence(error));
  Json params = Json::object();
  for (const pnl_err::Error::Param& param : error.params()) params[param.name] = param.value;
  if (error.param("message").empty()) params["message"] = Sentence(error);
  Json object = {{"type", error.type()}, {"object", error.object()}, {"value", error.value()}};
  object["params"] = std::move(params);
  return Dump(object, -1);
}

}  // namespace tools
