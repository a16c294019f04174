#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/export.h"
#include "pnl/str.h"

/// Databases behind one set of classes: SQLite inside the process, and PostgreSQL for panels that
/// are too large for one machine.
///
///     auto cache = pnl_db::Cache::Open("sqlite:var/stat.db");
///     cache->Execute("update counters set value = ? where name = ?", {"5", name});
///     auto query = cache->Select("select name, value from counters where value > ?", {"100"});
///     while (query->Next()) Use(query->AsString("name"), query->AsInt64("value"));
///
/// "?" stands for the next argument, so that no value needs quoting; inside literals, quoted names
/// and comments it is a plain character. Values are passed and returned as text. An argument counts
/// as a number when it is compared with a number ("sum(value) > ?", "value / 100 = ?"). A text must
/// not contain the byte 0. PostgreSQL also refuses text that its encoding cannot represent; the
/// connection uses UTF-8.
///
/// Failures are pnl_err::Error of type "db". The object is the operation ("open", "execute",
/// "query", "begin", "commit", "value", "column"). The value is the SQL; for "open" the address
/// without password. The parameter "errmsg" is the database's own message. The parameter
/// "sqlstate", where there is one, is the SQLSTATE of PostgreSQL, for SQLite too: 23505 for a value
/// that already exists, 55P03 for a lock that was not free within the time-out, 53100 for a full
/// disk, ...
namespace pnl_db {

class Connection;
class ConnectionPool;
class Rows;
class Transaction;

/// Seconds to wait for a connection, and for a lock that another user of the database holds.
inline constexpr int kTimeout = 30;

/// The rows of a statement, read one by one as the database finds them. Earlier rows are not kept.
/// A PostgreSQL connection runs one statement at a time: when the transaction runs another one, the
/// remaining rows are first read into memory, and into a file in /var/tmp when they are many. Use a
/// query from one thread at a time. It may outlive its Cache.
class PNL_API Query {
 public:
  Query(std::shared_ptr<Connection> connection, std::unique_ptr<Rows> rows);  ///< for Cache::Select
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  ~Query();

  /// Moves to the next row; the first call moves to the first row. False at the end. An error ends
  /// the query. A rollback of its transaction ends it too: the next call then throws with sqlstate
  /// 40000.
  bool Next();

  /// A column of the current row. NULL is "". A column that the query does not have is
  /// pnl_err::Missed("column", name); names are compared byte by byte. Before the first row and
  /// after the last one this throws pnl_err::Error("db", "query").
  std::string AsString(const std::string& column) const;
  /// The same as a number: NULL is 0, a text is read as str::Int64 does.
  std::int64_t AsInt64(const std::string& column) const;

  const std::vector<std::string>& Columns() const { return names_; }  ///< also without a row

 private:
  std::size_t Index(const std::string& column) const;
  void End();

  std::shared_ptr<Connection> connection_;
  std::unique_ptr<Rows> rows_;
  std::vector<std::string> names_;
  bool on_row_ = false;
  int rollbacks_;  // of the connection when the query began
  /// Callers usually read the columns of each row in the same order: the next column is tried
  /// first.
  mutable std::size_t expected_ = 0;
};

/// A database. Thread-safe. Each statement gets a connection of its own, an idle or a new one. In a
/// Transaction, all statements of its thread use the connection of that transaction. Do not use a
/// Cache in a child process after fork(2).
///
/// SQLite uses a write-ahead log, so that readers and the one writer do not wait for each other.
/// When a commit returns, its data is on the disk. Two more files are made beside the database,
/// PATH-wal and PATH-shm. They stay, so that users with read permission only can read the database.
///
/// PostgreSQL: an idle connection that was lost is replaced automatically. A connection that is
/// lost during a statement is an error, and the next statement opens a new one. A server that does
/// not answer is an error after about kTimeout seconds.
class PNL_API Cache {
 public:
  /// Connects to "sqlite:PATH" or to a PostgreSQL address ("postgresql://...", "postgres://..."). A
  /// missing SQLite file is made, its directory is not. A relative PATH is resolved now. Parameters
  /// in a PostgreSQL address override the library's own. `timeout` in seconds, at least 1.
  static std::shared_ptr<Cache> Open(const std::string& address, int timeout = kTimeout);
  explicit Cache(std::shared_ptr<ConnectionPool> pool);  ///< for Open
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;
  ~Cache();

  /// Starts one statement that gives rows. A statement that changes something ("insert ...
  /// returning") is complete on return; its rows are kept in memory, and in /var/tmp when they are
  /// many. When an SQL function in a query changes data, that is complete only after the last row.
  /// A query may be destroyed before its last row.
  std::shared_ptr<Query> Select(const std::string& sql, const std::vector<std::string>& args = {});

  /// Runs one statement to its end. Returns the number of rows that it inserted, updated or
  /// deleted; 0 for other statements. To begin a transaction, use Transaction, not SQL.
  std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args = {});

  /// `text` as an SQL literal, for places where "?" is not possible.
  [[nodiscard]] static std::string Quote(std::string_view text);
  /// `name` as an SQL identifier, whatever characters it has.
  [[nodiscard]] static std::string QuoteName(std::string_view name);

 private:
  friend class CustomTable;
  friend class Transaction;
  std::shared_ptr<ConnectionPool> pool_;
};

/// A transaction of the calling thread. All statements of the thread on that Cache belong to it,
/// until Commit, Rollback or the destructor, which rolls back. End it on the thread that began it.
/// A thread may have one at a time per Cache: a second one throws pnl_err::Error("db", "begin").
///
/// SQLite transactions run one after the other. PostgreSQL's run at the same time (read committed).
/// After a failed statement, roll back: PostgreSQL refuses all other statements.
class PNL_API Transaction {
 public:
  explicit Transaction(Cache& cache);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  /// Waits until no other transaction has the lock of this name, whichever process it belongs to, and
  /// holds it until the end. Whoever gets it sees what the holder before has committed.
  void Lock(std::string_view name);

  /// When it throws, nothing was changed. Only when the connection is lost during the commit, the
  /// result is unknown.
  void Commit();
  void Rollback() noexcept;

 private:
  void End() noexcept;

  std::shared_ptr<ConnectionPool> pool_;
  std::shared_ptr<Connection> connection_;  // null after the end
};

// --- Tables

class CustomTable;

/// A column of a table, and its value in the row that the table object holds. Make it with new; the
/// table owns it.
class PNL_API Field {
 public:
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  const std::string& Name() const { return name_; }

 protected:
  /// Throws pnl_err::Error("db", "column", name) when the table already has that name, and for "".
  Field(CustomTable* table, const std::string& name);
  virtual ~Field();

 private:
  friend class CustomTable;
  virtual std::string Definition() const = 0;  // type and constraints for CREATE TABLE
  virtual std::string Value() const = 0;       // throws when the column cannot hold it
  virtual void Set(const std::string& value) = 0;

  std::string name_;
};

/// Text of at most `width` characters; "" at first. Inserting or updating longer text throws
/// pnl_err::Error("db", "value", column).
class PNL_API StringField : public Field {
 public:
  StringField(CustomTable* table, const std::string& name, int width);

  const std::string& AsString() const { return value_; }
  operator const std::string&() const { return value_; }  // NOLINT: converts like a string
  StringField& operator=(const std::string& value);

 protected:
  ~StringField() override;

 private:
  std::string Definition() const override;
  std::string Value() const override;
  void Set(const std::string& value) override;

  int width_;
  std::string value_;
};

/// A signed 64-bit integer; 0 at first.
class PNL_API LongField : public Field {
 public:
  LongField(CustomTable* table, const std::string& name);

  std::int64_t Int() const { return value_; }
  LongField& operator=(std::int64_t value);

 protected:
  ~LongField() override;

 private:
  std::string Definition() const override;
  std::string Value() const override;
  void Set(const std::string& value) override;

  std::int64_t value_ = 0;
};

/// A table: its columns, and the values of one row. Use it from one thread at a time.
///
///     struct Hosts : pnl_db::CustomTable {
///       Hosts() : CustomTable("hosts") {}
///       pnl_db::StringField& name = *new pnl_db::StringField(this, "name", 64);
///       pnl_db::LongField& hits = *new pnl_db::LongField(this, "hits");
///     };
///     Hosts hosts;
///     hosts.Create(*cache);
///     hosts.name = "web1";
///     hosts.hits = 7;
///     hosts.Insert(*cache);
///
/// Names are used as given: the statements made here quote them. In your own statements, lower-case
/// names need no quotes. A key maps column names to values; it selects the rows with these values.
/// An empty key selects every row.
class PNL_API CustomTable {
 public:
  explicit CustomTable(std::string name);
  CustomTable(const CustomTable&) = delete;
  CustomTable& operator=(const CustomTable&) = delete;
  virtual ~CustomTable();

  const std::string& Name() const { return name_; }
  std::vector<std::string> Columns() const;  ///< names of the fields, in order

  /// Makes the table when it is missing, and adds missing columns to an older one. Other columns of
  /// it stay. Several processes may call it at the same time.
  void Create(Cache& cache) const;

  void Insert(Cache& cache) const;  ///< inserts the fields' values as a new row
  /// Writes the fields' values to all rows of that key; returns how many.
  std::int64_t Update(Cache& cache, const StringMap& key) const;
  std::int64_t Delete(Cache& cache,
                      const StringMap& key) const;  ///< returns how many rows it deleted
  /// Reads the fields' values from a row of that key. When several rows match, an IdTable takes the
  /// one that was inserted first. Returns false when there is none; the fields then keep their
  /// values.
  bool Find(Cache& cache, const StringMap& key);
  void Load(const Query& row);  ///< reads the fields' values from a row with all columns

 protected:
  CustomTable(std::string name, bool has_identity);

 private:
  friend class Field;
  static std::string Where(const StringMap& key, std::vector<std::string>& args);
  std::vector<std::string> Values() const;

  std::string name_;
  bool has_identity_;
  std::vector<Field*> fields_;  // owned
};

/// A table whose first column is the integer identity "id", which the database fills in. There is
/// no field for it.
class PNL_API IdTable : public CustomTable {
 public:
  explicit IdTable(std::string name);
  ~IdTable() override;
};

}  // namespace pnl_db
