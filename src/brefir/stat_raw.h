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

/// Statistics rows and the persistent counters against which they are normalised.
///
/// A kind of row is a class of its own: its fields are members, in the order of their declaration,
/// keys first.
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
///     row.bytes = 1234567;   // as the kernel counts
///     row.Normalize();       // now the increase since the last sample
///
/// Rows, fields and tables are for one thread at a time; the counters are for all.
namespace Stat {

class Recordset;

// --- Fields

enum FieldType : int {
  Key = 0,   ///< a string that identifies the row
  Data = 1,  ///< a number
};

/// What folding two values of a data field gives, and the SQL aggregate that does the same.
enum DataFoldType : int {
  Sum = 0,
  Max = 1,
  Min = 2,
  None = 3,  ///< the other value replaces this one; no aggregate
};

/// A field of a row. It belongs to the row whose member it is.
class BREFIR_API Field {
 public:
  /// Registers the field in `owner`, behind those that are there.
  Field(Recordset* owner, const std::string& name);
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  virtual FieldType Type() const = 0;
  /// Adds a column for this field to `table`, which owns it.
  virtual void CreateDbField(pnl_db::CustomTable* table) = 0;
  virtual std::string Value() const = 0;  ///< as text
  virtual DataFoldType FoldType();
  virtual void Fold(Field* other);  ///< takes the value of `other` in; does nothing here
  virtual void Set(const std::string& text) = 0;
  virtual std::string GetFun();  ///< what an SQL query that groups rows selects for this field
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

/// A signed 64-bit number, 0 at first. Text is read as str::Int64 reads it: 0 where there is no
/// number, the nearest limit out of range.
class BREFIR_API DataField : public Field {
 public:
  /// `need_normalize`: the value is a running counter, of which Recordset::Normalize makes the
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

/// A row, or several that were folded into one.
class BREFIR_API Recordset {
 public:
  Recordset() = default;
  Recordset(const Recordset&) = delete;
  Recordset& operator=(const Recordset&) = delete;

  virtual std::string Name() const = 0;  ///< the kind of row; only rows of one kind are folded
  virtual ~Recordset();

  void Register(Field* field);  ///< for the constructor of Field

  /// All fields, or those of one type, in order. The row keeps them.
  std::vector<Field*> Fields();
  std::vector<Field*> Fields(FieldType type);
  /// pnl_err::Missed("recordset_field", name) when there is none of exactly that name.
  Field* FieldByName(const std::string& name) const;
  int GetCount() const { return count_; }  ///< rows folded into this one, itself included

  /// Gives the i-th field the i-th of `keys` if it is a key field; a data field passes its one
  /// over. What either list has more than the other stays unused. Put key fields first.
  void SetKeys(const std::vector<std::string>& keys);
  /// Takes every field from the column of its name in the present row of `query`; a missing column
  /// is the query's error, and fields before it are set then.
  void FromQuery(const std::shared_ptr<pnl_db::Query>& query);
  /// Takes fields from the child elements of their names; "begin" and names of no field are passed
  /// over.
  void FromXml(pnl_xml::XmlNode node);

  /// Adds the count of `other`; when both are of one kind, each data field also takes in the field
  /// of its name. A field that `other` lacks throws as FieldByName, after those before it.
  void Fold(const Recordset& other);

  /// Turns running counters into the increase since the last sample of the same keys. The counters
  /// of the process (counter::Cache) know the row by the values of its keys, with ":" between them.
  /// Errors: those of counter::Cache::Load.
  void Normalize();
  void Normalize(Field& field);

  // What a query about such rows is made of.

  std::vector<std::string> GetKeys();        ///< names of the key fields
  std::vector<std::string> GetKeysValues();  ///< values of the key fields that are not empty
  /// "name='value'" for every key that is not empty. Nothing is escaped: not for values from
  /// outside.
  std::vector<std::string> GetKeyNamesAndValues();
  std::vector<std::string> GetDataFields();  ///< names of the data fields

  void FieldDump();  ///< logs names and values (level 9)

 private:
  Field* Find(std::string_view name) const;

  std::vector<Field*> fields_;
  int count_ = 1;
};

/// What a query that groups rows selects for `field`: the aggregate of a data field, else the name.
[[nodiscard]] BREFIR_API std::string to_fun(Field* field);

// --- The table of counters

/// The table "counters": object name, counter name and the last raw value.
class BREFIR_API CountersTable : public pnl_db::IdTable {
 public:
  CountersTable();

  pnl_db::StringField& name = *new pnl_db::StringField(this, "name", 64);
  pnl_db::StringField& cname = *new pnl_db::StringField(this, "cname", 64);
  pnl_db::LongField& value = *new pnl_db::LongField(this, "value");
};

}  // namespace Stat

/// Logs `text` for a place in the source (level 9).
BREFIR_API void HeaderDebug(const char* file, int line, const std::string& text);

// --- The counter cache

/// The last raw value of every counter, kept across the runs of a program.
namespace counter {

inline constexpr const char* kFile = "var/stat.counters";  ///< below the working directory

/// A raw value, or an increase.
class BREFIR_API Value {
 public:
  Value() = default;
  Value(long number) : val_(number) {}                        // NOLINT: stands for its number
  Value(const Stat::DataField& field) : val_(field.Int()) {}  // NOLINT

  Value& operator=(long number);
  Value& operator=(const Stat::DataField& field);
  long Val() const { return val_; }

  /// Turns the previous raw value into the increase up to `raw`. When `raw` is less, the source
  /// began anew, and all of `raw` is increase. An increase beyond 64 bits wraps around.
  void Normalize(Value raw);

 private:
  std::int64_t val_ = 0;
};

/// The counters of the process: Singleton<counter::Cache>::Instance().
///
/// They are read from kFile once, when first needed, and written back by Flush only:
///
///      # counter cache data
///      #name cname value
///      eth0 rx_bytes 1234567
///
/// Objects and counters are in byte order. A name that is no word (empty, with white space in it,
/// begun with "%%" or, of an object, with "#") is written as "%%" and the name, in which "%" and
/// two hexadecimal digits stand for a byte of white space, "%" or "#".
///
/// Any thread may call everything here. Advance and Normalize are not atomic: two threads that have
/// one counter at once may both see the same previous value.
class BREFIR_API Cache {
 public:
  /// Object name, counter name, last raw value.
  using Counters = std::map<std::string, std::map<std::string, Value>>;

  /// Reads the file unless that is done; a missing file is an empty one. Of several lines for one
  /// counter the last counts; lines of less than two words hold none. Errors of pnl_file::Read
  /// leave the cache not loaded.
  void Load();
  /// Replaces the file (pnl_file::Write, with its errors: the old file stays). Does nothing before
  /// Load: what was never read is not overwritten.
  void Flush();

  bool HasCounter(const std::string& name, const std::string& cname);
  /// std::out_of_range when there is none.
  Value GetCounter(const std::string& name, const std::string& cname);
  void UpdateCounter(const std::string& name, const std::string& cname, Value v);
  /// Forgets one counter, so that its next sample is a first one; false when there is none.
  bool RemoveCounter(const std::string& name, const std::string& cname);
  Counters GetCounters();  ///< a copy of all

  /// The increase up to `raw` since the last sample, 0 for the first one; keeps `raw` for the next.
  Value Advance(const std::string& name, const std::string& cname, Value raw);
  /// Loads, and gives `field` the increase up to its raw value. The file is not written.
  void Normalize(const std::string& name, Stat::DataField& field);

 private:
  std::optional<Value> Find(const std::string& name, const std::string& cname);

  Counters counters_;
  std::atomic<bool> loaded_{false};
  pnl_thread::RwLock lock_;  // guards counters_; loaded_ is set under it
};

}  // namespace counter
