#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"
#include "pnl/thread.h"
#include "pnl/xml.h"
#include "pnldb/db.h"

/// Rows of statistics, and the persistent counters that turn running counters into increases.
///
/// Each kind of row is a class. Its fields are members and have the order of their declarations;
/// declare the keys first.
///
///     class Traffic : public Stat::Recordset {
///      public:
///       std::string Name() const override { return "traffic"; }
///       Stat::KeyField device{this, "device"};
///       Stat::DataField bytes{this, "bytes", true, Stat::Sum};   // a running counter
///       Stat::DataField peak{this, "peak", false, Stat::Max};
///     };
///
///     Traffic row;
///     row.device = "eth0";
///     row.bytes = 1234567;   // the kernel's running counter
///     row.Normalize();       // now it is the increase since the last sample
///
/// Use rows, fields and tables from one thread at a time. The counters are thread-safe.
namespace Stat {

class Recordset;

// --- Fields

enum FieldType : int {
  Key = 0,   ///< a string that identifies the row
  Data = 1,  ///< a number
};

/// How two values of a data field are folded (combined), and the SQL aggregate that does the same.
enum DataFoldType : int {
  Sum = 0,
  Max = 1,
  Min = 2,
  None = 3,  ///< the other value replaces this one; no aggregate
};

/// A field of a row; a member of the row's class.
class BREFIR_API Field {
 public:
  /// Registers the field in `owner`, after the fields that it already has.
  Field(Recordset* owner, const std::string& name);
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  virtual FieldType Type() const = 0;
  /// Adds a column for this field to `table`, which owns it.
  virtual void CreateDbField(pnl_db::CustomTable* table) = 0;
  virtual std::string Value() const = 0;  ///< as text
  virtual DataFoldType FoldType();
  virtual void Fold(Field* other);  ///< combines the value with that of `other`; does nothing here
  virtual void Set(const std::string& text) = 0;
  virtual std::string GetFun();  ///< the expression for this field in an SQL query that groups rows
  virtual ~Field();

  const std::string& Name() const { return name_; }

 private:
  const std::string name_;
};

/// A string, in a column of width 64.
class BREFIR_API KeyField : public Field {
 public:
  using Field::Field;
  KeyField& operator=(const std::string& text);

  FieldType Type() const override;
  void CreateDbField(pnl_db::CustomTable* table) override;
  std::string Value() const override;
  void Set(const std::string& text) override;

 private:
  std::string value_;
};

/// A signed 64-bit number, 0 at first. Text is read as str::Int64 does: 0 when there is no number,
/// the nearest limit when it is out of range.
class BREFIR_API DataField : public Field {
 public:
  /// `need_normalize`: the value is a running counter that Recordset::Normalize turns into an
  /// increase.
  DataField(Recordset* owner, const std::string& name, bool need_normalize, DataFoldType fold_type);
  DataField& operator=(long number);

  FieldType Type() const override;
  void CreateDbField(pnl_db::CustomTable* table) override;
  std::string Value() const override;
  DataFoldType FoldType() override;
  /// Folds by the fold type of this field. A sum wraps around beyond 64 bits.
  void Fold(Field* other) override;
  void Set(const std::string& text) override;
  std::string GetFun() override;  ///< "sum(bytes) bytes"

  std::int64_t Int() const { return value_; }
  bool NeedNormalize() const { return need_normalize_; }

 private:
  std::int64_t value_ = 0;
  const bool need_normalize_;
  const DataFoldType fold_type_;
};

// --- Recordsets

/// A row, or several rows that were folded into one.
class BREFIR_API Recordset {
 public:
  Recordset() = default;
  Recordset(const Recordset&) = delete;
  Recordset& operator=(const Recordset&) = delete;

  virtual std::string Name() const = 0;  ///< the kind of row; only rows of one kind are folded
  virtual ~Recordset();

  void Register(Field* field);  ///< for the constructor of Field

  /// All fields, or those of one type, in order. The row owns them.
  std::vector<Field*> Fields();
  std::vector<Field*> Fields(FieldType type);
  /// Throws pnl_err::Missed("recordset_field", name) when no field has exactly that name.
  Field* FieldByName(const std::string& name) const;
  int GetCount() const { return count_; }  ///< number of rows in this one, itself included

  /// Sets the i-th field to the i-th of `keys` if it is a key field; skips that key otherwise.
  /// Surplus fields or keys are ignored. Declare key fields first.
  void SetKeys(const std::vector<std::string>& keys);
  /// Reads every field from the column of its name in the current row of `query`. A missing column
  /// throws the query's error; the fields before it are then already set.
  void FromQuery(const std::shared_ptr<pnl_db::Query>& query);
  /// Reads fields from the child elements of their names; ignores "begin" and unknown names.
  void FromXml(pnl_xml::XmlNode node);

  /// Adds the count of `other`. When both rows are of one kind, each data field is also folded with
  /// the field of its name. A field that `other` lacks throws as FieldByName does; the fields
  /// before it are then already folded.
  void Fold(const Recordset& other);

  /// Turns running counters into the increase since the last sample of the same keys. In the
  /// counters of the process (counter::Cache), the row's name is the values of its keys joined by
  /// ":". Errors: those of counter::Cache::Load.
  void Normalize();
  void Normalize(Field& field);

  // The parts of an SQL query about such rows.

  std::vector<std::string> GetKeys();        ///< names of the key fields
  std::vector<std::string> GetKeysValues();  ///< values of the key fields that are not empty
  /// "name='value'" for every key that is not empty. Nothing is escaped: do not use it with values
  /// from outside.
  std::vector<std::string> GetKeyNamesAndValues();
  std::vector<std::string> GetDataFields();  ///< names of the data fields

  void FieldDump();  ///< logs names and values (level 9)

 private:
  Field* Find(std::string_view name) const;

  std::vector<Field*> fields_;
  int count_ = 1;
};

/// The expression for `field` in a query that groups rows: the aggregate of a data field, else the
/// name.
[[nodiscard]] BREFIR_API std::string to_fun(Field* field);

// --- The table of counters

/// The table "counters", with object name, counter name and the last raw value.
class BREFIR_API CountersTable : public pnl_db::IdTable {
 public:
  CountersTable();

  pnl_db::StringField& name = *new pnl_db::StringField(this, "name", 64);
  pnl_db::StringField& cname = *new pnl_db::StringField(this, "cname", 64);
  pnl_db::LongField& value = *new pnl_db::LongField(this, "value");
};

}  // namespace Stat

/// Logs `text` with a source file and line (level 9).
BREFIR_API void HeaderDebug(const char* file, int line, const std::string& text);

// --- The counter cache

/// The last raw value of every counter, kept across the runs of a program.
namespace counter {

inline constexpr const char* kFile = "var/stat.counters";  ///< below the working directory

/// A raw value (the reading of a running counter), or an increase.
class BREFIR_API Value {
 public:
  Value() = default;
  Value(long number) : val_(number) {}                        // NOLINT: converts from its number
  Value(const Stat::DataField& field) : val_(field.Int()) {}  // NOLINT

  Value& operator=(long number);
  Value& operator=(const Stat::DataField& field);
  long Val() const { return val_; }

  /// Turns this previous raw value into the increase up to `raw`. When `raw` is less, the counter
  /// has restarted, and the increase is `raw` itself. An increase beyond 64 bits wraps around.
  void Normalize(Value raw);

 private:
  std::int64_t val_ = 0;
};

/// The counters of the process: Singleton<counter::Cache>::Instance().
///
/// They are read from kFile once, at the first use. Only Flush writes them back:
///
///      # counter cache data
///      #name cname value
///      eth0 rx_bytes 1234567
///
/// Objects and counters are sorted by bytes. Some names cannot be written as a word: empty names,
/// names with white space, names that begin with "%%", and object names that begin with "#". They
/// are written as "%%" and the name, with each white space, "%" and "#" as "%" and two hexadecimal
/// digits.
///
/// Thread-safe. But Advance and Normalize are not atomic: two threads that use one counter at the
/// same time may get the same previous value.
class BREFIR_API Cache {
 public:
  /// Object name, counter name, last raw value.
  using Counters = std::map<std::string, std::map<std::string, Value>>;

  /// Reads the file unless it was already read. A missing file counts as empty. When a counter has
  /// several lines, the last counts; lines of less than two words are ignored. After an error of
  /// pnl_file::Read the cache is not loaded.
  void Load();
  /// Replaces the file with pnl_file::Write; after an error the old file stays. Does nothing before
  /// Load, so that a file that was not read is not overwritten.
  void Flush();

  bool HasCounter(const std::string& name, const std::string& cname);
  /// Throws std::out_of_range when the counter does not exist.
  Value GetCounter(const std::string& name, const std::string& cname);
  void UpdateCounter(const std::string& name, const std::string& cname, Value v);
  /// Removes one counter, so that its next sample counts as the first. False when it does not
  /// exist.
  bool RemoveCounter(const std::string& name, const std::string& cname);
  Counters GetCounters();  ///< a copy of all

  /// Returns the increase from the last sample to `raw` (0 for the first sample), and stores `raw`.
  Value Advance(const std::string& name, const std::string& cname, Value raw);
  /// Calls Load, and sets `field` from its raw value to the increase. Does not write the file.
  void Normalize(const std::string& name, Stat::DataField& field);

 private:
  std::optional<Value> Find(const std::string& name, const std::string& cname);

  Counters counters_;
  std::atomic<bool> loaded_{false};
  pnl_thread::RwLock lock_;  // guards counters_; loaded_ is set under it
};

}  // namespace counter
