#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "parser/conf_file.h"
#include "pnl/export.h"

namespace dd {

/// A cursor over records, and the field values of the record that it stands on. What changes them
/// says the derived class. Not copyable: its fields point back to it.
class PNL_API Record {
 public:
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  virtual ~Record();

  virtual void First() = 0;
  virtual bool Eof() const = 0;  ///< past the last record; all fields are empty there
  virtual void Next() = 0;

 protected:
  /// A field's name and present value.
  struct Cell {
    std::string name;
    std::string value;
    bool changed = false;  ///< set by the user, not yet posted
  };

  Record() = default;

  std::vector<Cell> cells_;

 private:
  friend class Field;
};

/// A named field of a record, declared as a member of the record's class:
///
///     class Hosts : public LineDataSet {
///      public:
///       dd::Field name{*this, "name"};
///       dd::Field address{*this, "address"};
///     };
///
/// The order of declaration is the order of the fields.
class PNL_API Field {
 public:
  Field(Record& record, std::string_view name);
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  const std::string& Str() const { return record_.cells_[index_].value; }
  void Set(std::string_view value);

 private:
  Record& record_;
  std::size_t index_;
};

}  // namespace dd

/// The records of one kind in a configuration file; had from ConfRef::Get. Shows the file as it was
/// then, or at the last Post or _Delete, which work on the file as it is now. For one thread at a
/// time.
class PNL_API ConfDataSet : public dd::Record {
 public:
  /// Goes to the record of that key, the last one when there are several; past the end and false
  /// when there is none.
  virtual bool Locate(const std::string& key) = 0;
  /// Leaves the present record for a new one, empty so far.
  virtual void NewRecord() = 0;
  /// Writes the changed fields of the record to the file, and stands on it afterwards. A record
  /// that is new, or that has vanished from the file meanwhile, is added; a new one whose key the
  /// file has got by now changes that record.
  virtual void Post() = 0;
  /// Removes the present record, and all others of its key, from the file; then past the end.
  virtual void _Delete() = 0;  // NOLINT(bugprone-reserved-identifier): the platform's name

 protected:
  ConfDataSet() = default;

  std::shared_ptr<ConfFile> file_;
  ConfTextPtr text_;

 private:
  friend class ConfRef;
  void Open(std::shared_ptr<ConfFile> file);
};

inline constexpr const char* kParserError = "parser";  ///< a type of errors

/// Records that are lines: the word LinePrefix(), then the fields, a word each. Missing words are
/// empty fields, further words belong to no field.
///
/// A change of the file keeps everything else of it byte for byte: other lines, comments, order,
/// spacing, line ends, and on the changed line whatever is not the word to be changed. New records
/// are added as the last line, with blanks between the words and the file's kind of line end; both
/// must be what the file's rules take them for.
///
/// Post throws pnl_err::Error(kParserError, "bad_word", value), parameter "field", for a value that
/// cannot be a word of the file (pnl_token::Params::IsWord); the file stays untouched.
class PNL_API LineDataSet : public ConfDataSet {
 public:
  void First() override;
  bool Eof() const override { return line_ == text_->lines.size(); }
  void Next() override;
  bool Locate(const std::string& key) override;
  void NewRecord() override;
  void Post() override;
  void _Delete() override;  // NOLINT(bugprone-reserved-identifier)

 protected:
  virtual std::string LinePrefix() const = 0;
  /// The key of the present record, made of its fields.
  virtual std::string KeyVal() const = 0;

 private:
  bool IsRecord(std::size_t line) const;
  void GoTo(std::size_t line);
  void GoToNext(std::size_t line);
  const std::string& Word(const Cell& cell) const;
  std::string WithLineAdded() const;
  std::string WithLineChanged() const;
  std::string WithoutKey(const std::string& key);

  std::size_t line_ = 0;            // of text_; behind the last one for a new record
  std::optional<std::string> key_;  // of the record as it stands in the file
};
