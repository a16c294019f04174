#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/str.h"

/// What the programs print: records of named, typed fields, as tables for people or JSON for
/// programs.
namespace tools {

enum class Format { kTable, kJson };

struct Record;

/// The value of a field. For people a list is its items with commas, a map "name=value" with
/// commas, null is "-", a boolean "yes" or "no", a time local with its zone. For programs a time is
/// "YYYY-MM-DDTHH:MM:SSZ", in UTC.
class Value {
 public:
  // Behind a pointer, since a record is made of values.
  using Records = std::shared_ptr<const std::vector<Record>>;
  using Data = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, std::string,
                            std::vector<std::string>, StringMap, pnl_date::DateTime, Records>;

  Value() = default;  ///< null
  Value(bool flag) : data_(flag) {}
  template <std::integral T>
  Value(T number) : data_(Number(number)) {}
  Value(std::string text) : data_(std::move(text)) {}
  Value(std::string_view text) : data_(std::string(text)) {}
  Value(const char* text) : data_(std::string(text)) {}
  Value(std::vector<std::string> list) : data_(std::move(list)) {}
  Value(const StringSet& set) : data_(std::vector<std::string>(set.begin(), set.end())) {}
  Value(StringMap map) : data_(std::move(map)) {}
  Value(pnl_date::DateTime time) : data_(time) {}
  Value(std::vector<Record> records);
  template <class T>
  Value(const std::optional<T>& value) : Value(value ? Value(*value) : Value()) {}

  const Data& Get() const { return data_; }

 private:
  template <class T>
  static Data Number(T number) {
    if constexpr (std::unsigned_integral<T>) {
      return std::uint64_t{number};
    } else {
      return std::int64_t{number};
    }
  }

  Data data_;
};

/// "YYYY-MM-DD HH:MM:SS ZONE", for people.
[[nodiscard]] std::string LocalTime(pnl_date::DateTime time);

/// Fields in their order: Record().Add("id", id).Add("size", size).
struct Record {
  std::vector<std::pair<std::string, Value>> fields;

  Record&& Add(std::string name, Value value) &&;
  Record& Add(std::string name, Value value) &;
  const Value* Find(std::string_view name) const;  ///< nullptr when there is none
};

/// A name and what it means to people.
struct Note {
  std::string name;
  std::string meaning;
};

/// A field that a command's records have.
struct Field {
  std::string name;
  std::string meaning;    ///< "" like that of the field before it
  std::string when = {};  ///< "with --wait"; "" for always

  bool operator==(const Field&) const = default;
};

/// Standard output. A command calls one of List, One and Text, once; it is written when the command
/// is over, so that one that fails at once prints nothing.
class Output {
 public:
  explicit Output(Format format) : format_(format) {}

  Format GetFormat() const { return format_; }
  void SetFormat(Format format) { format_ = format; }

  /// The fields that the command declares: what it prints from now on has to have them and no
  /// others, else pnl_err::Error("internal", field).
  void SetFields(std::vector<Field> fields) { fields_ = std::move(fields); }

  /// Records of the same fields. People see `columns`, or all fields when it is empty; the array
  /// for programs always has all of them.
  void List(const std::vector<Record>& records, const std::vector<std::string>& columns = {});
  /// One record: for people a line a field, of `columns` or of all when it is empty.
  void One(const Record& record, const std::vector<std::string>& columns = {});
  /// Text as it is, such as a file's content; for programs an object with the one field `name`. On
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

  Format format_;
  std::optional<std::vector<Field>> fields_;
  std::string buffer_;
  bool begun_ = false;  // something is written
  bool tells_of_work_ = false;
};

/// The error as the programs tell it on standard error, without a line end: a sentence for people,
/// for programs one object with type, object, value and params.
[[nodiscard]] std::string ErrorText(const pnl_err::Error& error, Format format);

}  // namespace tools
