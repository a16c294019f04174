#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/field_table.h"
#include "console/record.h"
#include "console/render.h"
#include "pnl/err.h"

/// The output of a command.
namespace tools {

using console::AddFields;
using console::Declared;
using console::Field;
using console::FieldOf;
using console::FieldsOf;
using console::FieldTable;
using console::LocalTime;
using console::Record;
using console::ToRecord;
using console::ToRecords;
using console::Value;

enum class Format { kTable, kJson, kCsv };

/// The columns and order of a list, from the command line.
struct View {
  std::vector<std::string> columns = {};  ///< these, in this order; the command's default if empty
  std::string sort = {};  ///< field to sort by, "-FIELD" to reverse; "" for the command's order
  bool headers = true;
};

/// Standard output. A command calls one of List, One and Text, once. The output is written when the
/// command has ended: a command that fails prints nothing.
class Output {
 public:
  explicit Output(Format format) : format_(format) {}

  Format GetFormat() const { return format_; }
  void SetFormat(Format format) { format_ = format; }
  bool ForPeople() const { return format_ == Format::kTable; }

  /// Sets the fields that the command declares. Records with other fields then throw
  /// pnl_err::Error("internal", field).
  void SetFields(std::vector<Field> fields) { fields_ = std::move(fields); }
  /// A field that is not declared throws pnl_err::Error("usage", ...).
  void SetView(View view);

  /// Prints records with the same fields. Unless the view is set, people see `columns` (all fields
  /// when empty), and programs see all fields.
  void List(std::vector<Record> records, const std::vector<std::string>& columns = {});
  /// Prints one record; for people one line per field.
  void One(const Record& record, const std::vector<std::string>& columns = {});
  /// Prints one record; people see only the text of `field`, with a line end.
  void Word(const Record& record, const std::string& field);
  /// Prints a text for people, made printable on a terminal.
  void Plain(std::string_view text);
  /// Prints a text unchanged, such as the content of a file; made printable on a terminal. In JSON
  /// it is an object with the single field `name`.
  void Text(const std::string& name, std::string_view text);
  /// Prints a part of a text of any size for people, at once. Throws as Finish does.
  void Piece(std::string_view text);
  /// The text for people that `print` makes; it is not printed.
  std::string Rendered(const std::function<void(Output& out)>& print) const;
  /// Whether the user chose columns or an order.
  bool IsShaped() const { return !view_.columns.empty() || !view_.sort.empty(); }
  /// Prints a text of the program itself, the same in all formats.
  void Raw(std::string_view text) { buffer_ += text; }

  /// Call it when the output reports work that was done: the exit code is then that of the work,
  /// even when the output cannot be written.
  void TellOfWork() { tells_of_work_ = true; }
  bool TellsOfWork() const { return tells_of_work_; }

  /// Writes what was printed so far; returns whether all could be written up to now. Finish throws
  /// what goes wrong here.
  bool Flush();
  /// For a command that prints a list again and again: from now on, a JSON list is one line.
  void SetLinewise() { layout_ = console::Layout::kOneLine; }
  /// Leaves out the headings of further lists.
  void LeaveOutHeaders() { view_.headers = false; }
  /// Writes everything and closes standard output, because some file systems report a full disk
  /// only at the close. A failure is pnl_err::Error of type "file" with the value "standard
  /// output".
  void Finish();

 private:
  void RequireDeclared(const std::string& name) const;
  void CheckFields(const Record& record) const;

  std::vector<std::string> Shown(const std::vector<Record>& records,
                                 const std::vector<std::string>& columns) const;

  Format format_;
  View view_;
  console::Layout layout_ = console::Layout::kLines;  // of lists
  std::optional<std::vector<Field>> fields_;
  std::string buffer_;
  std::optional<pnl_err::Error> failure_ = {};  // of Flush
  bool begun_ = false;                          // something was written
  bool tells_of_work_ = false;
};

/// The text of an error for standard error, without a line end: a sentence for people; for programs
/// a JSON object with type, object, value and params.
[[nodiscard]] std::string ErrorText(const pnl_err::Error& error, Format format);

/// The sentence for people without the name of the node, so that many nodes can have the same one.
[[nodiscard]] std::string ReasonText(const pnl_err::Error& error, const std::string& node);

/// The error for a wrong word on the command line: pnl_err::Error("usage", object, value).
[[nodiscard]] pnl_err::Error UsageError(const std::string& object, const std::string& value,
                                        const std::string& message);

}  // namespace tools
