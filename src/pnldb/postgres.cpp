#include <libpq-fe.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "pnl/deadline.h"
#include "pnl/log.h"
#include "pnl/str.h"
#include "pnldb/connection.h"
#include "pnldb/row_buffer.h"
#include "pnldb/sql.h"

namespace pnl_db {

namespace {

pnl_log::Module log_module("db");

constexpr std::string_view kLost = "08006";  // connection failure

// How long the rest of a query that is destroyed early may take; after that its connection is
// closed.
constexpr std::chrono::milliseconds kDrainTime{50};

struct FreeResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using ResultPtr = std::unique_ptr<PGresult, FreeResult>;

struct Finish {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using ConnPtr = std::unique_ptr<PGconn, Finish>;

// --- Errors

bool IsCopy(ExecStatusType status) {
  return status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH;
}

bool IsError(const PGresult* result) {
  const ExecStatusType status = PQresultStatus(result);
  return status != PGRES_SINGLE_TUPLE && status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK;
}

pnl_err::Error Failure(PGconn* connection, const PGresult* result, std::string_view operation,
                       std::string_view sql) {
  if (IsCopy(PQresultStatus(result))) {
    return DbError(operation, sql, "COPY is not for here", "0A000");
  }
  const char* text = result == nullptr ? "" : PQresultErrorMessage(result);
  const char* state = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
  if (*text == '\0') text = PQerrorMessage(connection);
  if (state != nullptr) return DbError(operation, sql, text, state);
  return DbError(operation, sql, text, PQstatus(connection) == CONNECTION_BAD ? kLost : "");
}

void LogNotice(void* /*unused*/, const char* text) {
  PNL_LOG(log_module, 4, "%s", std::string(str::TrimView(text)).c_str());
}

// --- Rows

class PostgresConnection;

/// The results of a sent statement, one row at a time as they arrive. Until all have arrived, the
/// connection cannot run another statement.
class PostgresRows : public Rows {
 public:
  PostgresRows(PostgresConnection& connection, PGconn* handle, const std::string& sql);
  ~PostgresRows() override;

  bool Next() override {
    if (!std::exchange(begun_, true)) return HasRow();
    if (ahead_) {
      result_.reset();
      if (ahead_->Next()) return true;
      if (failure_) std::rethrow_exception(failure_);
      return false;
    }
    do {
      result_ = Receive();
    } while (result_ && !HasRow());
    return HasRow();
  }

  std::string_view Text(std::size_t column) const override {
    if (!result_) return ahead_->Text(column);
    const auto index = static_cast<int>(column);
    return {PQgetvalue(result_.get(), 0, index),
            static_cast<std::size_t>(PQgetlength(result_.get(), 0, index))};
  }

  std::int64_t Number(std::size_t column) const override { return str::Int64(Text(column)); }

  /// Reads the remaining rows into memory: the connection is needed.
  void ReadAhead();

  /// Discards the remaining rows, for kDrainTime at most.
  void DrainForAWhile() {
    const pnl_time::Deadline over(kDrainTime);
    while (!done_ && (PQisBusy(handle_) == 0 || WaitForInput(over))) {
      if (PQisBusy(handle_) == 0) ReceiveAny();
      if (over.Passed()) return;
    }
  }
  bool Done() const { return done_; }

 private:
  /// False when nothing came, or the connection is lost.
  bool WaitForInput(const pnl_time::Deadline& over) {
    pollfd fd = {PQsocket(handle_), POLLIN, 0};
    return !over.Passed() && poll(&fd, 1, over.Left()) > 0 && PQconsumeInput(handle_) != 0;
  }

  ResultPtr ReceiveAny() {
    ResultPtr result(PQgetResult(handle_));
    // A copy has no end; its connection cannot be used any more.
    done_ = !result || IsCopy(PQresultStatus(result.get()));
    return result;
  }

  /// Discards all remaining rows.
  void Drain() {
    while (!done_) ReceiveAny();
  }

  /// The next result; null at the end.
  ResultPtr Receive() {
    if (done_) return nullptr;
    ResultPtr result = ReceiveAny();
    if (!result || !IsError(result.get())) return result;
    Drain();
    throw Failure(handle_, result.get(), "query", sql_);
  }

  /// The last result has no row, only the names again.
  bool HasRow() const { return result_ && PQntuples(result_.get()) > 0; }

  PostgresConnection& connection_;
  PGconn* const handle_;
  const std::string sql_;
  ResultPtr result_;
  std::optional<RowBuffer> ahead_;
  std::exception_ptr failure_;  // thrown after the buffered rows
  bool begun_ = false;
  bool done_ = false;
};

// --- The connection

class PostgresConnection final : public Connection {
 public:
  PostgresConnection(const std::string& address, int timeout) : conn_(Connect(address, timeout)) {
    PQsetNoticeProcessor(conn_.get(), LogNotice, nullptr);
    // Settings: literals as Cache::Quote writes them, the same time-out for locks as with SQLite,
    // and no notice for each existing table.
    const std::string settings = str::Format(
        "set standard_conforming_strings = on; set lock_timeout = '%ds';"
        "set client_min_messages = warning",
        timeout);
    const ResultPtr result(PQexec(conn_.get(), settings.c_str()));
    if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
      throw Failure(conn_.get(), result.get(), "open", Shown(address));
    }
  }

  std::unique_ptr<Rows> Select(const std::string& sql,
                               const std::vector<std::string>& args) override {
    Send("query", sql, args);
    auto rows = std::make_unique<PostgresRows>(*this, conn_.get(), sql);
    // Discarding its rows could close the connection, and so undo its change.
    if (MayChange(sql)) rows->ReadAhead();
    return rows;
  }

  std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args) override {
    Send("execute", sql, args);
    ResultPtr last;
    while (ResultPtr result{PQgetResult(conn_.get())}) {
      const bool failed = last && IsError(last.get());
      if (!failed) last = std::move(result);
      if (IsCopy(PQresultStatus(last.get()))) break;
    }
    if (!last || IsError(last.get())) throw Failure(conn_.get(), last.get(), "execute", sql);
    // "SELECT 5" is no change.
    const std::string_view tag = PQcmdStatus(last.get());
    return tag.starts_with("SELECT") ? 0 : str::Int64(PQcmdTuples(last.get()));
  }

  void Rollback() override {
    if (rows_ != nullptr) {
      rows_->DrainForAWhile();
      if (!rows_->Done()) {
        // The server rolls back when the connection closes.
        shutdown(PQsocket(conn_.get()), SHUT_RDWR);
        return;
      }
    }
    Execute("rollback", {});
  }

  bool InTransaction() const override {
    const PGTransactionStatusType status = PQtransactionStatus(conn_.get());
    return status == PQTRANS_ACTIVE ? was_in_transaction_ : status == PQTRANS_INTRANS;
  }

  bool Reusable() override {
    // An idle server sends nothing, except perhaps that it shuts down.
    pollfd fd = {PQsocket(conn_.get()), POLLIN, 0};
    while (PQstatus(conn_.get()) == CONNECTION_OK && poll(&fd, 1, 0) > 0) {
      if (PQconsumeInput(conn_.get()) == 0) return false;
    }
    return PQstatus(conn_.get()) == CONNECTION_OK &&
           PQtransactionStatus(conn_.get()) == PQTRANS_IDLE;
  }

  const Dialect& GetDialect() const override {
    static constexpr Dialect kDialect = {"begin",
                                         "bigint generated by default as identity primary key",
                                         "select pg_advisory_xact_lock(?)"};
    return kDialect;
  }

  void SetRows(PostgresRows* rows) { rows_ = rows; }
  PostgresRows* GetRows() const { return rows_; }

 private:
  static std::vector<const char*> Values(const std::vector<std::string>& args) {
    std::vector<const char*> values;
    values.reserve(args.size());
    for (const std::string& arg : args) values.push_back(arg.c_str());
    return values;
  }

  /// Makes the connection ready for a statement.
  void Prepare() {
    if (rows_ != nullptr) rows_->ReadAhead();
    was_in_transaction_ = InTransaction();
  }

  void Send(std::string_view operation, const std::string& sql,
            const std::vector<std::string>& args) {
    Prepare();
    const std::vector<const char*> values = Values(args);
    if (PQsendQueryParams(conn_.get(), Numbered(sql).c_str(), static_cast<int>(values.size()),
                          nullptr, values.data(), nullptr, nullptr, 0) == 0 ||
        PQsetSingleRowMode(conn_.get()) == 0) {
      throw Failure(conn_.get(), nullptr, operation, sql);
    }
  }

  using OptionsPtr = std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)>;

  /// Null when it cannot be read.
  static OptionsPtr Parse(const std::string& address) {
    return {PQconninfoParse(address.c_str(), nullptr), PQconninfoFree};
  }
  /// The address for errors, without passwords.
  static std::string Shown(const std::string& address);
  static ConnPtr Connect(const std::string& address, int timeout);

  ConnPtr conn_;
  PostgresRows* rows_ = nullptr;     // the rows that the server is sending
  bool was_in_transaction_ = false;  // before the running statement
};

std::string PostgresConnection::Shown(const std::string& address) {
  const OptionsPtr options = Parse(address);
  std::string shown = "postgresql:";
  for (auto* option = options.get(); option != nullptr && option->keyword != nullptr; ++option) {
    if (option->val == nullptr || *option->dispchar == '*') continue;
    shown.append(" ").append(option->keyword).append("=").append(option->val);
  }
  return shown;
}

ConnPtr PostgresConnection::Connect(const std::string& address, int timeout) {
  // The library's own message would contain the password.
  if (!Parse(address)) throw DbError("open", "postgresql:", "the address cannot be read", "08001");
  const std::string seconds = std::to_string(timeout);
  const std::string milliseconds = seconds + "000";
  // Later parameters override earlier ones; the address stands for its parameters.
  const char* const names[] = {"connect_timeout",  "keepalives_idle",  "keepalives_interval",
                               "keepalives_count", "tcp_user_timeout", "fallback_application_name",
                               "dbname",           "client_encoding",  nullptr};
  const char* const values[] = {
      seconds.c_str(), "10",   "5",    "4", milliseconds.c_str(), program_invocation_short_name,
      address.c_str(), "UTF8", nullptr};
  ConnPtr connection(PQconnectdbParams(names, values, 1));
  if (PQstatus(connection.get()) == CONNECTION_OK) return connection;
  throw DbError("open", Shown(address), PQerrorMessage(connection.get()), "08001");
}

PostgresRows::PostgresRows(PostgresConnection& connection, PGconn* handle, const std::string& sql)
    : connection_(connection), handle_(handle), sql_(sql) {
  result_ = Receive();
  const int count = PQnfields(result_.get());
  names_.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) names_.emplace_back(PQfname(result_.get(), i));
  // A statement that is already complete does not block the connection.
  if (PQresultStatus(result_.get()) != PGRES_SINGLE_TUPLE) {
    while (Receive()) continue;
  }
  connection_.SetRows(this);
}

PostgresRows::~PostgresRows() {
  if (connection_.GetRows() != this) return;
  // In a transaction the connection is needed, however long this takes.
  if (connection_.InTransaction()) {
    Drain();
  } else {
    DrainForAWhile();
  }
  connection_.SetRows(nullptr);
}

void PostgresRows::ReadAhead() {
  if (done_) return;
  ahead_.emplace(sql_);
  ResultPtr present = std::move(result_);
  try {
    while ((result_ = Receive()))
      if (HasRow()) ahead_->Add(*this);
  } catch (...) {
    failure_ = std::current_exception();
  }
  result_ = std::move(present);
}

}  // namespace

std::unique_ptr<Connection> ConnectPostgres(const std::string& address, int timeout) {
  return std::make_unique<PostgresConnection>(address, timeout);
}

}  // namespace pnl_db
