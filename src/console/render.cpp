#include "console/render.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "brefir/cmdarg.h"
#include "console/terminal.h"
#include "pnl/utf8.h"

namespace console {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMinLastColumn = 20;  // a narrower column is not wrapped here

// --- JSON

struct AsJson {
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
    const std::string text = time.Str();
    if (text.find(' ') == std::string::npos) return nullptr;  // outside of the years 1 to 9999
    return str::Replace(text, " ", "T") + "Z";                // RFC 3339
  }
  Json operator()(Bytes size) const { return size.count; }
  template <class T>
  Json operator()(const T& value) const {
    return value;
  }
};

template <class Told>
std::string Dump(const Told& told, Layout layout) {
  const int indent = layout == Layout::kLines ? 2 : -1;
  return AsJson()(told).dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

// --- Tables

struct AsCell {
  std::string operator()(std::monostate) const { return "-"; }
  std::string operator()(bool flag) const { return flag ? "yes" : "no"; }
  template <std::integral T>
  std::string operator()(T number) const {
    return std::to_string(number);
  }
  std::string operator()(double number) const { return str::Format("%.2f", number); }
  std::string operator()(Bytes size) const {
    return SizeText(static_cast<std::uint64_t>(size.count));
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
  return std::holds_alternative<std::int64_t>(data) ||
         std::holds_alternative<std::uint64_t>(data) || std::holds_alternative<double>(data) ||
         std::holds_alternative<Bytes>(data);
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

}  // namespace

std::string ToJson(const std::vector<Record>& records, Layout layout) {
  return Dump(records, layout);
}

std::string ToJson(const Record& record, Layout layout) {
  return Dump(record, layout);
}

std::string Cell(const Value& value) {
  return std::visit(AsCell(), value.Get());
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
          {utf8::Printable(std::visit(AsCell(), DataOf(record, columns[i]))), heading[i].right});
    grid.Add(std::move(row));
  }
  std::string text = grid.Text();
  if (headers) text.insert(0, Styled(str::GetWord(text, '\n'), kBold, STDOUT_FILENO) + "\n");
  return text;
}

std::string Sheet(const Record& record) {
  Grid grid;
  for (const auto& [name, value] : record.fields) {
    // Further lines of a text are put in the same column.
    std::string text = Cell(value);
    std::string label = name;
    do {
      grid.Add({{label}, {utf8::Printable(str::GetWord(text, '\n'))}});
      label.clear();
    } while (!text.empty());
  }
  return grid.Text();
}

// --- CSV

namespace {

/// Values as in JSON; lists, maps and records as for people.
struct AsCsv : AsCell {
  using AsCell::operator();
  std::string operator()(std::monostate) const { return ""; }
  std::string operator()(bool flag) const { return flag ? "true" : "false"; }
  std::string operator()(Bytes size) const { return std::to_string(size.count); }
  std::string operator()(pnl_date::DateTime time) const {
    const Json text = AsJson()(time);
    return text.is_null() ? "" : text.get<std::string>();
  }
};

/// RFC 4180, but lines end with a line feed only.
std::string CsvField(const std::string& text) {
  if (text.find_first_of("\",\r\n") == std::string::npos) return text;
  return "\"" + str::Replace(text, "\"", "\"\"") + "\"";
}

}  // namespace

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
    add([&](const std::string& name) { return std::visit(AsCsv(), DataOf(record, name)); });
  return text;
}

// --- What is asked of a list

namespace {

/// Compares numbers and times by size, all else as text; missing values come first.
bool Less(const Value::Data& a, const Value::Data& b) {
  const bool apart = a.index() != b.index();
  if (apart && (a.index() == 0 || b.index() == 0)) return a.index() < b.index();
  const bool plain = std::visit(
      [](const auto& value) { return std::is_arithmetic_v<std::decay_t<decltype(value)>>; }, a);
  if (!apart &&
      (plain || std::holds_alternative<pnl_date::DateTime>(a) || std::holds_alternative<Bytes>(a)))
    return a < b;
  return std::visit(AsCell(), a) < std::visit(AsCell(), b);
}

}  // namespace

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

}  // namespace console
