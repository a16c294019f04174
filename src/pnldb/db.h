#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/export.h"
#include "pnl/str.h"

/// Databases: SQLite embedded in the process, PostgreSQL for panels that have outgrown one machine,
/// behind the same classes.
///
///     auto cache = pnl_db::Cache::Open("sqlite:var/stat.db");
///     cache->Execute("update counters set value = ? where name = ?", {"5", name});
///     auto query = cache->Select("select name, value from counters where value > ?", {"100"});
///     while (query->Next()) Use(query->AsString("name"), query->AsInt64("value"));
///
/// Values go to the database as text and come back as text; what they are compared with decides
/// whether they count as numbers ("sum(value) > ?", "value / 100 = ?"). "?" stands for the next
/// argument (not inside literals, quoted names and comments), so that no value needs quoting. A
/// text must not hold the byte 0; PostgreSQL also refuses what is not in its encoding (we speak
/// UTF-8 to it).
///
/// Failures are pnl_err::Error of type "db": object the operation ("open", "execute", "query",
/// "begin", "commit", "value", "column"), value the SQL (for "open" the address without password),
/// parameters "errmsg", the database's own words, and "sqlstate", where it tells the cause.
/// SQLite's causes are told by the SQLSTATE that PostgreSQL has for them: 23505 for a value that is
/// there already, 55P03 for a lock that was not to be had in time, 53100 for a full disk, ...
namespace pnl_db {

class Connection;
class ConnectionPool;
class Rows;
class Transaction;

/// Seconds to wait for a connection, and for a lock that another user of the database holds.
inline constexpr int kTimeout = 30;

/// The rows of a statement, walked one by one as the database finds them; nothing is kept of those
/// passed. PostgreSQL does one thing at a time: another statement of the transaction puts the rows
/// that are still to come aside, beyond some memory in a file in /var/tmp. One thread at a time
/// uses it. Outlives its Cache.
class PNL_API Query {
 public:
  Query(std::shared_ptr<Connection> connection, std::unique_ptr<Rows> rows);  ///< by Cache::Select
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  ~Query();

  /// Steps to the next row, at first to the first; false at the end. An error ends the query, and
  /// so does the rollback of its transaction: it is the error of the next step, 40000.
  bool Next();

  /// A column of the present row. NULL is ""; a column that the query does not have is
  /// pnl_err::Missed("column", name). Names are compared byte by byte. Without a row (before the
  /// first Next, after the last) pnl_err::Error("db", "query").
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
  int rollbacks_;  // of the connection, at the beginning
  /// Callers read the columns of each row in the same order: the one after the last is tried first.
  mutable std::size_t expected_ = 0;
};

/// A database. Any thread may use it: each statement has a connection for itself, taken from those
/// that are idle or opened anew, except that all statements of a thread that is in a Transaction go
/// through that one's. Not to be used in a child process after fork(2).
///
/// SQLite: write-ahead log, so that readers and the one writer do not wait for each other; a commit
/// that has returned is on the disk. The file's directory must allow two more files beside it, PATH
/// with "-wal" and "-shm"; they stay, so that who may only read all three can read.
///
/// PostgreSQL: a connection that was lost while idle is replaced unnoticed; one that is lost during
/// a statement is an error, and the next statement connects anew. A silent server is given up after
/// about kTimeout seconds.
class PNL_API Cache {
 public:
  /// Connects to "sqlite:PATH" (the file is made when it is missing, its directory is not; relative
  /// to the working directory at this moment) or to a PostgreSQL address ("postgresql://...",
  /// "postgres://..."), whose parameters win over ours. `timeout` in seconds, at least 1.
  static std::shared_ptr<Cache> Open(const std::string& address, int timeout = kTimeout);
  explicit Cache(std::shared_ptr<ConnectionPool> pool);  ///< by Open
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;
  ~Cache();

  /// Runs one statement that gives rows. It has begun on return; one that changes something
  /// ("insert ... returning") is carried out, and its rows are kept, beyond some memory in
  /// /var/tmp. What a function changes is sure only when the query has come to its end. Dropping
  /// the query before that is fine.
  std::shared_ptr<Query> Select(const std::string& sql, const std::vector<std::string>& args = {});

  /// Runs one statement to its end. The number of rows it inserted, updated or deleted; 0 for other
  /// statements. Transactions are begun with Transaction, not with SQL.
  std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args = {});

  /// `text` as an SQL literal, for what cannot be an argument.
  [[nodiscard]] static std::string Quote(std::string_view text);
  /// `name` as an SQL identifier, whatever it holds.
  [[nodiscard]] static std::string QuoteName(std::string_view name);

 private:
  friend class CustomTable;
  friend class Transaction;
  std::shared_ptr<ConnectionPool> pool_;
};

/// A transaction of this thread: from construction on all its statements on that Cache belong to
/// it, until Commit, Rollback, or the destructor, which rolls back. Ends on the thread that began
/// it; one at a time (pnl_err::Error("db", "begin") otherwise).
///
/// SQLite transactions exclude each other from their beginning; PostgreSQL's run side by side (read
/// committed). After a failed statement only rolling back is of use: PostgreSQL refuses the rest.
class PNL_API Transaction {
 public:
  explicit Transaction(Cache& cache);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  /// When it throws, nothing has happened; but when the connection is lost just then, nobody knows.
  void Commit();
  void Rollback() noexcept;

 private:
  void End() noexcept;

  std::shared_ptr<ConnectionPool> pool_;
  std::shared_ptr<Connection> connection_;  // null when it has ended
};

// --- Tables

class CustomTable;

/// A column of a table, and its value in the row that the table holds. Made with new and owned by
/// the table from then on.
class PNL_API Field {
 public:
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  const std::string& Name() const { return name_; }

 protected:
  /// Throws pnl_err::Error("db", "column", name) when the table has one of that name, or for "".
  Field(CustomTable* table, const std::string& name);
  virtual ~Field();

 private:
  friend class CustomTable;
  virtual std::string Definition() const = 0;  // its type and what else CREATE TABLE wants
  virtual std::string Value() const = 0;       // throws when the column cannot hold it
  virtual void Set(const std::string& value) = 0;

  std::string name_;
};

/// Text of at most `width` characters; "" at first. Inserting or updating more is
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

/// A table: its columns, and one row of it at a time.
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
/// Names are taken as they are, quoted in all statements made here; lower-case ones need no quotes
/// in yours. A key maps column names to the values wanted; an empty one means every row.
class PNL_API CustomTable {
 public:
  explicit CustomTable(std::string name);
  CustomTable(const CustomTable&) = delete;
  CustomTable& operator=(const CustomTable&) = delete;
  virtual ~CustomTable();

  const std::string& Name() const { return name_; }
  std::vector<std::string> Columns() const;  ///< names of the fields, in order

  /// Makes the table when it is missing, and adds the columns that an older one lacks; other
  /// columns of it stay. Safe against other processes that do the same.
  void Create(Cache& cache) const;

  void Insert(Cache& cache) const;  ///< the fields' values as a new row
  /// Gives the fields' values to all rows of that key; how many there were.
  std::int64_t Update(Cache& cache, const StringMap& key) const;
  std::int64_t Delete(Cache& cache, const StringMap& key) const;  ///< how many rows went
  /// Takes the fields' values from a row of that key, of several from the first one inserted
  /// where the table has an identity. False, and the fields as they were, when there is none.
  bool Find(Cache& cache, const StringMap& key);
  void Load(const Query& row);  ///< takes the fields' values from a row that has all columns

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
