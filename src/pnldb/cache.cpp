#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "pnl/log.h"
#include "pnldb/connection.h"
#include "pnldb/db.h"

namespace pnl_db {

namespace {

pnl_log::Module log_module("db");

// The most idle connections that are kept.
constexpr std::size_t kMaxIdle = 8;

/// For PostgreSQL a text ends at a NUL; SQLite stores the rest but hides it.
void RefuseNul(std::string_view text) {
  if (text.find('\0') == std::string_view::npos) return;
  throw DbError("value", text, "a text in a database cannot hold the byte 0");
}

void RefuseNul(const std::string& sql, const std::vector<std::string>& args) {
  RefuseNul(sql);
  for (const std::string& arg : args) RefuseNul(arg);
}

std::string Quoted(std::string_view text, char quote) {
  RefuseNul(text);
  std::string quoted(1, quote);
  for (const char c : text) {
    if (c == quote) quoted += quote;
    quoted += c;
  }
  return quoted += quote;
}

pnl_err::Error TransactionFailed(std::string_view operation, std::string_view sql) {
  return DbError(operation, sql, "the transaction has failed and must be rolled back", "25P02");
}

/// Runs `statement` on the connection. Refuses statements that begin or end a transaction: use
/// class Transaction for that.
template <class F>
auto KeepingTransaction(Connection& connection, std::string_view operation, const std::string& sql,
                        F statement) {
  const bool before = connection.InTransaction();
  auto result = statement();
  if (connection.InTransaction() == before) return result;
  throw DbError(operation, sql, "transactions are begun and ended with Transaction");
}

}  // namespace

pnl_err::Error DbError(std::string_view operation, std::string_view value, std::string_view errmsg,
                       std::string_view sqlstate) {
  pnl_err::Error error("db", operation, value);
  error.add_param("errmsg", str::TrimView(errmsg)).add_param("sqlstate", sqlstate);
  return error;
}

// --- Connections

ConnectionPool::ConnectionPool(Connector connect) : connect_(std::move(connect)) {
  idle_.reserve(kMaxIdle);
}

std::shared_ptr<Connection> ConnectionPool::Take(std::string_view operation, std::string_view sql) {
  std::shared_ptr<Connection> connection;
  {
    const std::lock_guard lock(mutex_);
    const auto it = transactions_.find(std::this_thread::get_id());
    if (it != transactions_.end()) connection = it->second.lock();
  }
  if (!connection) return TakeUnused();
  // Without this, SQLite would run the statement outside of the transaction.
  if (!connection->InTransaction()) throw TransactionFailed(operation, sql);
  return connection;
}

std::unique_ptr<Connection> ConnectionPool::PopIdle() {
  const std::lock_guard lock(mutex_);
  if (idle_.empty()) return nullptr;
  std::unique_ptr<Connection> connection = std::move(idle_.back());
  idle_.pop_back();
  return connection;
}

std::shared_ptr<Connection> ConnectionPool::TakeUnused() {
  std::unique_ptr<Connection> connection = PopIdle();
  while (connection && !connection->Reusable()) connection = PopIdle();
  if (!connection) connection = connect_();
  return {connection.release(), [pool = shared_from_this()](Connection* returned) {
            pool->Return(std::unique_ptr<Connection>(returned));
          }};
}

void ConnectionPool::Return(std::unique_ptr<Connection> connection) noexcept {
  if (!connection->Reusable()) return;
  const std::lock_guard lock(mutex_);
  if (idle_.size() < kMaxIdle) idle_.push_back(std::move(connection));
}

bool ConnectionPool::InTransaction() const {
  const std::lock_guard lock(mutex_);
  return transactions_.count(std::this_thread::get_id()) != 0;
}

void ConnectionPool::Bind(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  transactions_[std::this_thread::get_id()] = connection;
}

void ConnectionPool::Unbind(const std::shared_ptr<Connection>& connection) noexcept {
  const std::lock_guard lock(mutex_);
  std::erase_if(transactions_,
                [&](const auto& entry) { return entry.second.lock() == connection; });
}

// --- Queries

Query::Query(std::shared_ptr<Connection> connection, std::unique_ptr<Rows> rows)
    : connection_(std::move(connection)),
      rows_(std::move(rows)),
      names_(rows_->Names()),
      rollbacks_(connection_->rollbacks) {}

Query::~Query() {
  End();
}

void Query::End() {
  on_row_ = false;
  rows_.reset();
  connection_.reset();
}

bool Query::Next() {
  if (!rows_) return false;
  try {
    if (connection_->rollbacks != rollbacks_)
      throw DbError("query", "", "its transaction was rolled back", "40000");
    on_row_ = rows_->Next();
  } catch (...) {
    End();
    throw;
  }
  // The connection is for others from now on.
  if (!on_row_) End();
  return on_row_;
}

std::size_t Query::Index(const std::string& column) const {
  if (!on_row_) throw DbError("query", column, "there is no present row");
  std::size_t index = expected_;
  if (index >= names_.size() || names_[index] != column) {
    const auto it = std::find(names_.begin(), names_.end(), column);
    if (it == names_.end()) throw pnl_err::Missed("column", column);
    index = static_cast<std::size_t>(it - names_.begin());
  }
  expected_ = index + 1 == names_.size() ? 0 : index + 1;
  return index;
}

std::string Query::AsString(const std::string& column) const {
  const std::size_t index = Index(column);
  return std::string(rows_->Text(index));
}

std::int64_t Query::AsInt64(const std::string& column) const {
  const std::size_t index = Index(column);
  return rows_->Number(index);
}

// --- The database

std::shared_ptr<Cache> Cache::Open(const std::string& address, int timeout) {
  constexpr std::string_view kSqlite = "sqlite:";
  ConnectionPool::Connector connect;
  if (address.starts_with(kSqlite)) {
    const std::string name = address.substr(kSqlite.size());
    RefuseNul(name);
    // Such a database exists in one connection only.
    if (name.empty() || name == ":memory:") throw DbError("open", address, "not a file name");
    // The path is made absolute: the working directory may differ for later connections.
    std::error_code error;
    const std::string path = std::filesystem::absolute(name, error);
    if (error) throw DbError("open", address, error.message());
    ConnectSqlite(path, timeout, true);
    connect = [path, timeout] { return ConnectSqlite(path, timeout, false); };
  } else if (address.starts_with("postgresql://") || address.starts_with("postgres://")) {
    RefuseNul(address);
    connect = [address, timeout] { return ConnectPostgres(address, timeout); };
  } else {
    // It may contain a password.
    throw DbError("open", address.substr(0, address.find(':')),
                  "an address is sqlite:PATH or postgresql://...");
  }
  auto pool = std::make_shared<ConnectionPool>(std::move(connect));
  pool->TakeUnused();
  return std::make_shared<Cache>(std::move(pool));
}

Cache::Cache(std::shared_ptr<ConnectionPool> pool) : pool_(std::move(pool)) {}
Cache::~Cache() = default;

std::shared_ptr<Query> Cache::Select(const std::string& sql, const std::vector<std::string>& args) {
  RefuseNul(sql, args);
  std::shared_ptr<Connection> connection = pool_->Take("query", sql);
  std::unique_ptr<Rows> rows =
      KeepingTransaction(*connection, "query", sql, [&] { return connection->Select(sql, args); });
  return std::make_shared<Query>(std::move(connection), std::move(rows));
}

std::int64_t Cache::Execute(const std::string& sql, const std::vector<std::string>& args) {
  RefuseNul(sql, args);
  const std::shared_ptr<Connection> connection = pool_->Take("execute", sql);
  return KeepingTransaction(*connection, "execute", sql,
                            [&] { return connection->Execute(sql, args); });
}

std::string Cache::Quote(std::string_view text) {
  return Quoted(text, '\'');
}

std::string Cache::QuoteName(std::string_view name) {
  return Quoted(name, '"');
}

// --- Transactions

Transaction::Transaction(Cache& cache) : pool_(cache.pool_) {
  if (pool_->InTransaction()) {
    throw DbError("begin", "", "this thread is in a transaction", "25001");
  }
  std::shared_ptr<Connection> connection = pool_->TakeUnused();
  const char* begin = connection->GetDialect().begin;
  try {
    connection->Execute(begin, {});
  } catch (const pnl_err::Error& error) {
    throw DbError("begin", begin, error.param("errmsg"), error.param("sqlstate"));
  }
  pool_->Bind(connection);
  connection_ = std::move(connection);
}

Transaction::~Transaction() {
  Rollback();
}

void Transaction::Lock(std::string_view name) {
  if (!connection_) throw DbError("execute", "", "the transaction has ended", "25P01");
  const char* lock = connection_->GetDialect().lock;
  if (*lock == '\0') return;
  connection_->Execute(lock, {str::Str(static_cast<std::int64_t>(str::Hash(name)))});
}

void Transaction::Commit() {
  if (!connection_) throw DbError("commit", "", "the transaction has ended", "25P01");
  try {
    // PostgreSQL would then answer "commit" with a rollback, without an error.
    if (!connection_->InTransaction()) throw TransactionFailed("commit", "");
    connection_->Execute("commit", {});
  } catch (const pnl_err::Error& error) {
    Rollback();
    throw DbError("commit", "", error.param("errmsg"), error.param("sqlstate"));
  }
  End();
}

void Transaction::Rollback() noexcept {
  if (!connection_) return;
  ++connection_->rollbacks;
  try {
    connection_->Rollback();
  } catch (const std::exception& error) {
    // Its connection is not used again; closing it rolls back.
    PNL_LOG(log_module, 3, "rollback: %s", error.what());
  }
  End();
}

void Transaction::End() noexcept {
  pool_->Unbind(connection_);
  connection_.reset();
}

}  // namespace pnl_db
