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

/// The common interface of the two databases, below the public classes.
namespace pnl_db {

/// Makes an error of type "db"; db.h describes its parts.
pnl_err::Error DbError(std::string_view operation, std::string_view value, std::string_view errmsg,
                       std::string_view sqlstate = "");

/// The rows of a running statement. Must be destroyed before its connection.
class Rows {
 public:
  virtual ~Rows() = default;

  virtual bool Next() = 0;  ///< moves to the next row; the first call to the first row
  /// A column of the current row; valid until the next call of Next. NULL is "".
  virtual std::string_view Text(std::size_t column) const = 0;
  virtual std::int64_t Number(std::size_t column) const = 0;

  const std::vector<std::string>& Names() const { return names_; }

 protected:
  std::vector<std::string> names_;
};

/// The parts of SQL in which the databases differ.
struct Dialect {
  const char* begin;
  const char* identity;  ///< type of a primary key that the database fills in
  /// Statement that waits for the lock whose number is its argument, and holds it until the end of
  /// the transaction; "" where transactions run one after the other.
  const char* lock;
};

/// One connection, for one thread at a time. Any number of Rows may be open on it.
class Connection {
 public:
  virtual ~Connection() = default;

  virtual std::unique_ptr<Rows> Select(const std::string& sql,
                                       const std::vector<std::string>& args) = 0;
  virtual std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args) = 0;
  /// Rolls back the transaction, if there is one. Its open Rows give no more rows.
  virtual void Rollback() = 0;
  /// Whether a transaction has begun and no failure has ended it.
  virtual bool InTransaction() const = 0;
  /// Whether the connection is alive and has nothing left over from its last user.
  virtual bool Reusable() = 0;

  virtual const Dialect& GetDialect() const = 0;

  int rollbacks = 0;  ///< number of transactions that were rolled back
};

/// Opens the SQLite database `path` (absolute); makes it when it is missing and `create` is true.
/// `timeout` is in seconds, here and below.
std::unique_ptr<Connection> ConnectSqlite(const std::string& path, int timeout, bool create);
std::unique_ptr<Connection> ConnectPostgres(const std::string& address, int timeout);

/// The connections of a Cache. A connection returns to the pool when its last shared_ptr is
/// released.
class ConnectionPool : public std::enable_shared_from_this<ConnectionPool> {
 public:
  using Connector = std::function<std::unique_ptr<Connection>()>;

  explicit ConnectionPool(Connector connect);

  /// The connection of this thread's transaction; without a transaction an unused one. Throws
  /// DbError(operation, sql) when the transaction has failed.
  std::shared_ptr<Connection> Take(std::string_view operation, std::string_view sql);
  std::shared_ptr<Connection> TakeUnused();

  bool InTransaction() const;                                ///< of this thread
  void Bind(const std::shared_ptr<Connection>& connection);  ///< to the transaction of this thread
  void Unbind(const std::shared_ptr<Connection>& connection) noexcept;

 private:
  void Return(std::unique_ptr<Connection> connection) noexcept;
  std::unique_ptr<Connection> PopIdle();

  const Connector connect_;
  mutable std::mutex mutex_;  // guards the members below
  std::vector<std::unique_ptr<Connection>> idle_;
  std::map<std::thread::id, std::weak_ptr<Connection>> transactions_;
};

}  // namespace pnl_db
