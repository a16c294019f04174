#include "tools/frame/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "brefir/str_utils.h"
#include "console/render.h"
#include "console/terminal.h"
#include "pnl/file.h"
#include "pnl/utf8.h"

namespace tools {
namespace {

constexpr const char* kStandardOutput = "standard output";

pnl_err::Error FieldFault(const std::string& name, const char* what) {
  return pnl_err::Error("internal", name)
      .add_param("message", "a fault of brefirctl: the field '" + name + "' is " + what);
}

}  // namespace

void Output::RequireDeclared(const std::string& name) const {
  if (!fields_) return;
  const bool declared = std::any_of(fields_->begin(), fields_->end(),
                                    [&](const Field& field) { return field.name == name; });
  if (!declared) throw FieldFault(name, "not in the .fields of the verb");
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
    throw UsageError(option, std::string(name),
                     std::string(option) + ": there is no field '" + std::string(name) +
                         "'; the fields are: " + str::Join(names, ", "));
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
  for (const Record& record : records) {
    for (const auto& [name, value] : record.fields)
      if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  if (records.empty() && fields_) {
    for (const Field& field : *fields_) names.push_back(field.name);
  }
  return names;
}

void Output::List(std::vector<Record> records, const std::vector<std::string>& columns) {
  for (const Record& record : records) CheckFields(record);
  console::Sort(records, view_.sort);
  const std::vector<std::string> shown = Shown(records, columns);
  if (format_ == Format::kCsv) {
    buffer_ += console::Csv(records, shown, view_.headers);
  } else if (ForPeople()) {
    if (!records.empty()) buffer_ += console::Table(records, shown, view_.headers);
  } else {
    if (!view_.columns.empty())
      for (Record& record : records) record = console::Only(record, shown);
    buffer_ += console::ToJson(records, layout_);
  }
}

void Output::One(const Record& record, const std::vector<std::string>& columns) {
  CheckFields(record);
  const std::vector<std::string> shown = Shown({record}, columns);
  const Record only = console::Only(record, shown);
  if (format_ == Format::kCsv) buffer_ += console::Csv({only}, shown, view_.headers);
  if (format_ == Format::kJson) buffer_ += console::ToJson(only);
  if (ForPeople()) buffer_ += console::Sheet(only);
}

void Output::Word(const Record& record, const std::string& field) {
  if (!ForPeople()) return One(record);
  CheckFields(record);
  const std::string text = console::Cell(*record.Find(field));
  Text(field, text.ends_with('\n') ? text : text + "\n");
}

void Output::Plain(std::string_view text) {
  buffer_ += isatty(STDOUT_FILENO) == 0 ? std::string(text) : utf8::Printable(text, "\n\t");
}

void Output::Text(const std::string& name, std::string_view text) {
  RequireDeclared(name);
  if (format_ == Format::kJson) {
    buffer_ += console::ToJson(Record().Add(name, text));
  } else if (name == "diff" && isatty(STDOUT_FILENO) != 0) {
    buffer_ += console::StyledDiff(utf8::Printable(text, "\n\t"), STDOUT_FILENO);
  } else {
    Plain(text);
  }
}

std::string Output::Rendered(const std::function<void(Output& out)>& print) const {
  Output out(Format::kTable);
  out.view_ = view_;
  print(out);
  return out.buffer_;
}

void Output::Piece(std::string_view text) {
  begun_ = true;
  if (isatty(STDOUT_FILENO) == 0) return pnl_file::WriteAll(STDOUT_FILENO, text, kStandardOutput);
  // The beginning of an incomplete character waits for its rest.
  buffer_ += text;
  const std::size_t whole = buffer_.size() - utf8::Unfinished(buffer_);
  pnl_file::WriteAll(STDOUT_FILENO, utf8::Printable(buffer_.substr(0, whole), "\n\t"),
                     kStandardOutput);
  buffer_.erase(0, whole);
}

bool Output::Flush() {
  try {
    if (!failure_) pnl_file::WriteAll(STDOUT_FILENO, buffer_, kStandardOutput);
  } catch (const pnl_err::Error& error) {
    failure_ = error;
  }
  buffer_.clear();
  begun_ = true;
  return !failure_;
}

void Output::Finish() {
  if (buffer_.empty() && !begun_) return;
  Flush();
  if (failure_) throw pnl_err::Error(*failure_);
  if (close(STDOUT_FILENO) != 0) throw pnl_err::System("close", kStandardOutput, errno);
}

}  // namespace tools
