#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console/field_table.h"
#include "console/record.h"
#include "pnl/err.h"

/// What a command prints.
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

/// What of a list is to be seen, as the command line says.
struct View {
  std::vector<std::string> columns = {};  ///< these, in this order; the command's own if empty
  std::string sort = {};  ///< by this field, "-FIELD" from the last to the first; "" as it is
  bool headers = true;
};

/// Standard output. A command calls one of List, One and Text, once; it is written when the command
/// is over, so that one that fails at once prints nothing.
class Output {
 public:
  explicit Output(Format format) : format_(format) {}

  Format GetFormat() const { return format_; }
  void SetFormat(Format format) { format_ = format; }
  bool ForPeople() const { return format_ == Format::kTable; }

  /// The fields that the command declares: what it prints from now on has to have them and no
  /// others, else pnl_err::Error("internal", field).
  void SetFields(std::vector<Field> fields) { fields_ = std::move(fields); }
  /// A field that is none of the declared ones is pnl_err::Error("usage", ...).
  void SetView(View view);

  /// Records of the same fields. Unless the view says otherwise, people see `columns`, or all
  /// fields when it is empty, and programs all of them.
  void List(std::vector<Record> records, const std::vector<std::string>& columns = {});
  /// One record: for people a line a field.
  void One(const Record& record, const std::vector<std::string>& columns = {});
  /// A record of which people see the text `field` alone, with a line end.
  void Word(const Record& record, const std::string& field);
  /// The same of the answer to a question, "true" or "false".
  void Truth(const Record& record, const std::string& field);
  /// Text as it is, such as a file's content; in JSON an object with the one field `name`. On
  /// a terminal it is made printable.
  void Text(const std::string& name, std::string_view text);
  /// A text of any size for people, piece by piece, each written at once. Throws as Finish does.
  void Piece(std::string_view text);
  /// The program's own text, in whatever format.
  void Raw(std::string_view text) { buffer_ += text; }

  /// What is printed tells of work that has been done: whether it can be written or not, the
  /// program's exit code is that of the work.
  void TellOfWork() { tells_of_work_ = true; }
  bool TellsOfWork() const { return tells_of_work_; }

  /// Writes everything and closes standard output, since some file systems tell of a full disk only
  /// then. A failure is pnl_err::Error of type "file" with the value "standard output".
  void Finish();

 private:
  void RequireDeclared(const std::string& name) const;
  void CheckFields(const Record& record) const;

  std::vector<std::string> Shown(const std::vector<Record>& records,
                                 const std::vector<std::string>& columns) const;

  Format format_;
  View view_;
  std::optional<std::vector<Field>> fields_;
  std::string buffer_;
  bool begun_ = false;  // something is written
  bool tells_of_work_ = false;
};

/// The error as the programs tell it on standard error, without a line end: a sentence for people,
/// for programs one object with type, object, value and params.
[[nodiscard]] std::string ErrorText(const pnl_err::Error& error, Format format);

/// A wrong word on the command line: pnl_err::Error("usage", object, value).
[[nodiscard]] pnl_err::Error UsageError(const std::string& object, const std::string& value,
                                        const std::string& message);

}  // namespace tools
