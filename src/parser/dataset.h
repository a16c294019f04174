#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "parser/conf_file.h"
#include "pnl/export.h"

namespace dd {

/// A cursor over records, with the field values of the current record. The derived class defines
/// what a record is. Not copyable: its fields point back to it.
class PNL_API Record {
 public:
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  virtual ~Record();

  virtual void First() = 0;
  virtual bool Eof() const = 0;  ///< after the last record; all fields are empty there
  virtual void Next() = 0;

 protected:
  /// A field's name and current value.
  struct Cell {
    std::string name;
    std::string value;
    bool changed = false;  ///< set by the caller, not yet posted
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
/// The fields have the order of their declarations.
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

/// The records of one kind in a configuration file; ConfRef::Get makes it. It shows the file as it
/// was at ConfRef::Get or at the last Post or _Delete. Post and _Delete work on the file's current
/// content. Use it from one thread at a time.
class PNL_API ConfDataSet : public dd::Record {
 public:
  /// Goes to the record of that key; to the last one when there are several. When there is none,
  /// goes past the end and returns false.
  virtual bool Locate(const std::string& key) = 0;
  /// Begins a new, empty record.
  virtual void NewRecord() = 0;
  /// Writes the changed fields of the current record to the file; the cursor stays on it. A new
  /// record is added, and so is one that has been removed from the file meanwhile. When the file
  /// already has the key of a new record, that record is changed. Errors: those of ConfFile::Edit.
  virtual void Post() = 0;
  /// Removes the current record, and all others of its key, from the file. The cursor is past the
  /// end afterwards. Errors: those of ConfFile::Edit.
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

/// Each record is a line: the word LinePrefix(), then one word for each field. A missing word is an
/// empty field. Additional words belong to no field.
///
/// A change keeps everything else in the file byte for byte: other lines, comments, order, spacing,
/// line ends, and the rest of the changed line. A new record becomes the last line, with blanks
/// between the words and the line end that the file uses. The rules of the file must accept both as
/// separator and line end.
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

  std::size_t line_ = 0;            // in text_; after the last line for a new record
  std::optional<std::string> key_;  // of the record in the file
};
