#include "tools/frame/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "brefir/cmdarg.h"
#include "brefir/str_utils.h"
#include "pnl/file.h"
#include "pnl/utf8.h"
#include "tools/frame/terminal.h"

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

bool IsNumber(const Value::Data& data) {
  return std::holds_alternative<std::int64_t>(data) || std::holds_alternative<std::uint64_t>(data);
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
      widths_[i] = std::max(widths_[i], utf8::Columns(row[i].text));
    rows_.push_back(std::move(row));
  }

  std::string Text() const {
    std::string out;
    for (const Row& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string padding = utf8::Padding(row[i].text, widths_[i]);
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
    while (utf8::Columns(text) > width - indent) {
      std::string_view line = utf8::Fitting(text, width - indent);
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

/// The value that the record has, or null.
const Value::Data& DataOf(const Record& record, const std::string& name) {
  static const Value* const null = new Value;
  const Value* value = record.Find(name);
  return (value == nullptr ? *null : *value).Get();
}

std::string Table(const std::vector<Record>& records, const std::vector<std::string>& columns,
                  bool headers) {
  Grid grid;
  Grid::Row heading;
  for (const std::string& name : columns) {
    const bool number = std::any_of(records.begin(), records.end(), [&](const Record& record) {
      return IsNumber(DataOf(record, name));
    });
    heading.push_back({str::Upper(name), number});
  }
  if (headers) grid.Add(heading);
  for (const Record& record : records) {
    Grid::Row row;
    for (std::size_t i = 0; i < columns.size(); ++i)
      row.push_back(
          {utf8::Printable(std::visit(ToCell(), DataOf(record, columns[i]))), heading[i].right});
    grid.Add(std::move(row));
  }
  std::string text = grid.Text();
  if (headers) text.insert(0, Styled(str::GetWord(text, '\n'), kBold, STDOUT_FILENO) + "\n");
  return text;
}

// --- CSV

/// Values as JSON has them, but lists, maps and records as people see them.
struct ToCsv : ToCell {
  using ToCell::operator();
  std::string operator()(std::monostate) const { return ""; }
  std::string operator()(bool flag) const { return flag ? "true" : "false"; }
  std::string operator()(pnl_date::DateTime time) const { return ToJson()(time); }
};

/// By RFC 4180, but for lines that end as others do here.
std::string CsvField(const std::string& text) {
  if (text.find_first_of("\",\r\n") == std::string::npos) return text;
  return "\"" + str::Replace(text, "\"", "\"\"") + "\"";
}

std::string Csv(const std::vector<Record>& records, const std::vector<std::string>& columns,
                bool headers) {
  std::string text;
  const auto add = [&](const auto& cell_of) {
    for (const std::string& name : columns)
      text += (&name == &columns.front() ? "" : ",") + CsvField(cell_of(name));
    text += "\n";
  };
  if (headers) add([](const std::string& name) { return name; });
  for (const Record& record : records)
    add([&](const std::string& name) { return std::visit(ToCsv(), DataOf(record, name)); });
  return text;
}

// --- What is asked of a list

/// Numbers and times by their size, all else as text; what is not there comes first.
bool Less(const Value::Data& a, const Value::Data& b) {
  const bool apart = a.index() != b.index();
  if (apart && (a.index() == 0 || b.index() == 0)) return a.index() < b.index();
  const bool plain = std::visit(
      [](const auto& value) { return std::is_arithmetic_v<std::decay_t<decltype(value)>>; }, a);
  if (!apart && (plain || std::holds_alternative<pnl_date::DateTime>(a))) return a < b;
  return std::visit(ToCell(), a) < std::visit(ToCell(), b);
}

void Sort(std::vector<Record>& records, std::string field) {
  if (field.empty()) return;
  const bool down = field.front() == '-';
  if (down) field.erase(0, 1);
  std::stable_sort(records.begin(), records.end(), [&](const Record& a, const Record& b) {
    return Less(DataOf(down ? b : a, field), DataOf(down ? a : b, field));
  });
}

Record Only(const Record& record, const std::vector<std::string>& columns) {
  Record only;
  for (const std::string& name : columns) {
    if (const Value* value = record.Find(name)) only.Add(name, *value);
  }
  return only;
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

void Output::SetView(View view) {
  view_ = std::move(view);
  const auto require = [&](const char* option, std::string_view name) {
    std::vector<std::string> names;
    for (const Field& field : fields_.value_or(std::vector<Field>())) {
      if (field.name == name) return;
      names.push_back(field.name);
    }
    throw pnl_err::Error("usage", option, name)
        .add_param("message", std::string(option) + ": there is no field '" + std::string(name) +
                                  "'; there are: " + str::Join(names, ", "));
  };
  for (const std::string& column : view_.columns) require("--columns", column);
  if (!view_.sort.empty())
    require("--sort", std::string_view(view_.sort).substr(view_.sort[0] == '-'));
}

std::vector<std::string> Output::Shown(const std::vector<Record>& records,
                                       const std::vector<std::string>& columns) const {
  if (!view_.columns.empty()) return view_.columns;
  if (ForPeople() && !columns.empty()) return columns;
  std::vector<std::string> names;
  if (!records.empty()) {
    for (const auto& [name, value] : records.front().fields) names.push_back(name);
  } else if (fields_) {
    for (const Field& field : *fields_) names.push_back(field.name);
  }
  return names;
}

void Output::List(std::vector<Record> records, const std::vector<std::string>& columns) {
  for (const Record& record : records) CheckFields(record);
  Sort(records, view_.sort);
  const std::vector<std::string> shown = Shown(records, columns);
  if (format_ == Format::kCsv) {
    buffer_ += Csv(records, shown, view_.headers);
  } else if (ForPeople()) {
    if (!records.empty()) buffer_ += Table(records, shown, view_.headers);
  } else {
    if (!view_.columns.empty())
      for (Record& record : records) record = Only(record, shown);
    buffer_ += Dump(ToJson()(records), 2) + "\n";
  }
}

void Output::One(const Record& record, const std::vector<std::string>& columns) {
  CheckFields(record);
  const std::vector<std::string> shown = Shown({record}, columns);
  const Record only = Only(record, shown);
  if (format_ == Format::kCsv) buffer_ += Csv({only}, shown, view_.headers);
  if (format_ == Format::kJson) buffer_ += Dump(ToJson()(only), 2) + "\n";
  if (!ForPeople()) return;
  Grid grid;
  for (const auto& [name, value] : only.fields) {
    // A text of several lines goes on below itself.
    std::string text = std::visit(ToCell(), value.Get());
    std::string label = name;
    do {
      grid.Add({{label}, {utf8::Printable(str::GetWord(text, '\n'))}});
      label.clear();
    } while (!text.empty());
  }
  buffer_ += grid.Text();
}

void Output::Word(const Record& record, const std::string& field) {
  if (!ForPeople()) return One(record);
  CheckFields(record);
  const std::string text = std::visit(ToCell(), DataOf(record, field));
  Text(field, text.ends_with('\n') ? text : text + "\n");
}

void Output::Text(const std::string& name, std::string_view text) {
  RequireDeclared(name);
  if (format_ == Format::kJson) {
    buffer_ += Dump(ToJson()(Record().Add(name, text)), 2) + "\n";
  } else if (isatty(STDOUT_FILENO) == 0) {
    buffer_ += text;
  } else {
    const std::string printable = utf8::Printable(text, "\n\t");
    buffer_ += name == "diff" ? StyledDiff(printable, STDOUT_FILENO) : printable;
  }
}

void Output::Piece(std::string_view text) {
  begun_ = true;
  if (isatty(STDOUT_FILENO) == 0) return pnl_file::WriteAll(STDOUT_FILENO, text, kStandardOutput);
  // What may be the beginning of a character waits for its rest.
  buffer_ += text;
  const std::size_t whole = buffer_.size() - utf8::Unfinished(buffer_);
  pnl_file::WriteAll(STDOUT_FILENO, utf8::Printable(buffer_.substr(0, whole), "\n\t"),
                     kStandardOutput);
  buffer_.erase(0, whole);
}

void Output::Line(const Record& record) {
  CheckFields(record);
  if (format_ != Format::kJson) return;
  buffer_ += Dump(ToJson()(record), -1) + "\n";
  WriteWhatIsRead();
}

/// A pipe that poll(2) calls writable takes PIPE_BUF bytes without waiting: pipe(7).
void Output::WriteWhatIsRead() {
  pollfd out{STDOUT_FILENO, POLLOUT, 0};
  while (!failure_ && !buffer_.empty() && poll(&out, 1, 0) > 0) {
    const std::size_t size = std::min<std::size_t>(buffer_.size(), PIPE_BUF);
    try {
      pnl_file::WriteAll(STDOUT_FILENO, std::string_view(buffer_).substr(0, size), kStandardOutput);
    } catch (const pnl_err::Error& error) {
      failure_ = error;
    }
    buffer_.erase(0, size);
    begun_ = true;
  }
}

void Output::Finish() {
  if (failure_) throw *failure_;
  if (buffer_.empty() && !begun_) return;
  pnl_file::WriteAll(STDOUT_FILENO, std::exchange(buffer_, ""), kStandardOutput);
  if (close(STDOUT_FILENO) != 0) throw pnl_err::System("close", kStandardOutput, errno);
}

}  // namespace tools
