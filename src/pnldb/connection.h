#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "pnl/err.h"

/// What the two databases have in common, below the public classes.
namespace pnl_db {

/// An error of the database; see db.h for its parts.
pnl_err::Error DbError(std::string_view operation, std::string_view value, std::string_view errmsg,
                       std::string_view sqlstate = "");

/// The rows of a statement that has begun. Goes before its connection.
class Rows {
 public:
  virtual ~Rows() = default;

  virtual bool Next() = 0;  ///< steps to the next row, at first to the first
  /// Of the present row; valid until the next step. NULL is "".
  virtual std::string_view Text(std::size_t column) const = 0;
  virtual std::int64_t Number(std::size_t column) const = 0;

  const std::vector<std::string>& Names() const { return names_; }

 protected:
  std::vector<std::string> names_;
};

/// Where the databases' SQL differs.
struct Dialect {
  const char* begin;
  const char* identity;  ///< type of a primary key that the database fills in
  const char*
      lock_schema;  ///< statement that keeps other changers of tables out; "" for none needed
};

/// One connection; one thread at a time uses it, with any number of open Rows.
class Connection {
 public:
  virtual ~Connection() = default;

  virtual std::unique_ptr<Rows> Select(const std::string& sql,
                                       const std::vector<std::string>& args) = 0;
  virtual std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args) = 0;
  /// Ends whatever transaction there is; the rows that it was still to give are lost.
  virtual void Rollback() = 0;
  /// A transaction has begun and was not ended by a failure.
  virtual bool InTransaction() const = 0;
  /// Alive, and without anything left over from its last user.
  virtual bool Reusable() = 0;

  virtual const Dialect& GetDialect() const = 0;

  int rollbacks = 0;  ///< how many transactions were rolled back
};

/// Opens the SQLite database `path` (absolute), and makes it when it is missing and `create`.
std::unique_ptr<Connection> ConnectSqlite(const std::string& path, int timeout, bool create);
std::unique_ptr<Connection> ConnectPostgres(const std::string& address, int timeout);

/// The connections of a Cache. A connection that is handed out comes back by itself when its last
/// user lets it go.
class ConnectionPool : public std::enable_shared_from_this<ConnectionPool> {
 public:
  using Connector = std::function<std::unique_ptr<Connection>()>;

  explicit ConnectionPool(Connector connect);

  /// The one of this thread's transaction; else one that nobody uses. Throws
  /// DbError(operation, sql) when the transaction has failed.
  std::shared_ptr<Connection> Take(std::string_view operation, std::string_view sql);
  std::shared_ptr<Connection> TakeUnused();

  bool InTransaction() const;                                ///< this thread
  void Bind(const std::shared_ptr<Connection>& connection);  ///< to this thread's transaction
  void Unbind(const std::shared_ptr<Connection>& connection) noexcept;

 private:
  void Return(std::unique_ptr<Connection> connection) noexcept;
  std::unique_ptr<Connection> PopIdle();

  const Connector connect_;
  mutable std::mutex mutex_;  // of what follows
  std::vector<std::unique_ptr<Connection>> idle_;
  std::map<std::thread::id, std::weak_ptr<Connection>> transactions_;
};

}  // namespace pnl_db
