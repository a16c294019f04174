#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <deque>
#include <utility>

#include "pnl/log.h"
#include "pnl/str.h"
#include "pnldb/connection.h"

namespace pnl_db {

namespace {

using Clock = std::chrono::steady_clock;

pnl_log::Module log_module("db");

constexpr std::string_view kLost = "08006";  // connection failure

// What a query that is dropped early may take to end by itself; then its connection goes.
constexpr std::chrono::milliseconds kDrainTime{50};

struct FreeResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using ResultPtr = std::unique_ptr<PGresult, FreeResult>;

struct Finish {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using ConnPtr = std::unique_ptr<PGconn, Finish>;

// --- Placeholders

/// The end of the quoted part that begins at `i`, whose quotes are doubled or, in E'...', escaped.
std::size_t SkipQuoted(std::string_view sql, std::size_t i) {
  const char quote = sql[i];
  const bool escapes =
      quote == '\'' && i > 0 && (sql[i - 1] == 'E' || sql[i - 1] == 'e') &&
      (i < 2 || (std::isalnum(static_cast<unsigned char>(sql[i - 2])) == 0 && sql[i - 2] != '_'));
  for (++i; i < sql.size() && sql[i] != quote; ++i) {
    if (escapes && sql[i] == '\\') ++i;
  }
  return i + 1;
}

/// The end of the comment that begins at `i`; the starred kind nests.
std::size_t SkipComment(std::string_view sql, std::size_t i) {
  if (sql[i] == '-') return sql.find('\n', i);
  int depth = 0;
  do {
    const std::string_view two = sql.substr(i, 2);
    depth += two == "/*" ? 1 : two == "*/" ? -1 : 0;
    i += two == "/*" || two == "*/" ? 2 : 1;
  } while (depth > 0 && i < sql.size());
  return i;
}

/// The end of the $tag$...$tag$ that begins at `i`; i + 1 when none does.
std::size_t SkipDollars(std::string_view sql, std::size_t i) {
  std::size_t end = i + 1;
  while (end < sql.size() &&
         (std::isalnum(static_cast<unsigned char>(sql[end])) != 0 || sql[end] == '_')) {
    ++end;
  }
  if (end >= sql.size() || sql[end] != '$') return i + 1;
  const std::string_view tag = sql.substr(i, end + 1 - i);
  const std::size_t close = sql.find(tag, end + 1);
  return close == std::string_view::npos ? close : close + tag.size();
}

/// The end of what begins at `i` and is not ours to read; `i` when that is plain SQL.
std::size_t Skip(std::string_view sql, std::size_t i) {
  const std::string_view two = sql.substr(i, 2);
  if (sql[i] == '\'' || sql[i] == '"') return SkipQuoted(sql, i);
  if (two == "--" || two == "/*") return SkipComment(sql, i);
  if (sql[i] == '$') return SkipDollars(sql, i);
  return i;
}

/// `sql` with "$1", "$2", ... for each "?".
std::string Numbered(std::string_view sql) {
  std::string out;
  int number = 0;
  for (std::size_t i = 0; i < sql.size();) {
    const std::size_t end = std::min(Skip(sql, i), sql.size());
    if (end > i) {
      out.append(sql.substr(i, end - i));
      i = end;
      continue;
    }
    if (sql[i] == '?') {
      out.append("$").append(std::to_string(++number));
    } else {
      out += sql[i];
    }
    ++i;
  }
  return out;
}

// --- Errors

bool IsCopy(ExecStatusType status) {
  return status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH;
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

/// The results of a statement that was sent, one row at a time as they come in. While it is at
/// work the connection can do nothing else.
class Stream {
 public:
  Stream(PGconn* connection, std::string sql) : connection_(connection), sql_(std::move(sql)) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  /// The next result; null at the end.
  ResultPtr Next() {
    if (ahead_.empty()) return Receive();
    ResultPtr result = std::move(ahead_.front());
    ahead_.pop_front();
    if (IsError(result.get())) throw Failure(connection_, result.get(), "query", sql_);
    return result;
  }

  /// Takes what is still to come into memory: the connection is wanted.
  void ReadAhead() {
    while (!done_) {
      if (ResultPtr result = ReceiveAny()) ahead_.push_back(std::move(result));
    }
  }

  /// Throws away what is still to come.
  void Drain() {
    while (!done_) ReceiveAny();
  }

  /// The same, but not for longer than until `deadline`: then the rest stays.
  void DrainUntil(Clock::time_point deadline) {
    while (!done_ && (PQisBusy(connection_) == 0 || WaitForInput(deadline))) {
      if (PQisBusy(connection_) == 0) ReceiveAny();
      if (Clock::now() > deadline) return;
    }
  }

 private:
  /// False when nothing came, or the connection is lost.
  bool WaitForInput(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd fd = {PQsocket(connection_), POLLIN, 0};
    return left.count() > 0 && poll(&fd, 1, static_cast<int>(left.count())) > 0 &&
           PQconsumeInput(connection_) != 0;
  }

  static bool IsError(const PGresult* result) {
    const ExecStatusType status = PQresultStatus(result);
    return status != PGRES_SINGLE_TUPLE && status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK;
  }

  ResultPtr ReceiveAny() {
    ResultPtr result(PQgetResult(connection_));
    // A copy would go on for ever; its connection is of no more use.
    done_ = !result || IsCopy(PQresultStatus(result.get()));
    return result;
  }

  ResultPtr Receive() {
    if (done_) return nullptr;
    ResultPtr result = ReceiveAny();
    if (!result || !IsError(result.get())) return result;
    Drain();
    throw Failure(connection_, result.get(), "query", sql_);
  }

  PGconn* const connection_;
  const std::string sql_;
  std::deque<ResultPtr> ahead_;
  bool done_ = false;
};

class PostgresConnection;

class PostgresRows : public Rows {
 public:
  PostgresRows(PostgresConnection& connection, PGconn* handle, const std::string& sql);
  ~PostgresRows() override;

  bool Next() override {
    if (!first_) result_ = stream_.Next();
    first_ = false;
    // The last result has no row but the names once more.
    const bool row = result_ && PQntuples(result_.get()) > 0;
    if (!row) {
      while (result_) result_ = stream_.Next();
    }
    return row;
  }

  std::string_view Text(std::size_t column) const override {
    const auto index = static_cast<int>(column);
    return {PQgetvalue(result_.get(), 0, index),
            static_cast<std::size_t>(PQgetlength(result_.get(), 0, index))};
  }

  std::int64_t Number(std::size_t column) const override { return str::Int64(Text(column)); }

 private:
  PostgresConnection& connection_;
  Stream stream_;
  ResultPtr result_;
  bool first_ = true;
};

// --- The connection

class PostgresConnection final : public Connection {
 public:
  PostgresConnection(const std::string& address, int timeout) : conn_(Connect(address, timeout)) {
    PQsetNoticeProcessor(conn_.get(), LogNotice, nullptr);
    // The literals of Cache::Quote; the same patience as with SQLite; and no notice for each table
    // that is there already.
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
    Prepare();
    const std::vector<const char*> values = Values(args);
    if (PQsendQueryParams(conn_.get(), Numbered(sql).c_str(), static_cast<int>(values.size()),
                          nullptr, values.data(), nullptr, nullptr, 0) == 0 ||
        PQsetSingleRowMode(conn_.get()) == 0) {
      throw Failure(conn_.get(), nullptr, "query", sql);
    }
    return std::make_unique<PostgresRows>(*this, conn_.get(), sql);
  }

  std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args) override {
    Prepare();
    const std::vector<const char*> values = Values(args);
    const ResultPtr result(PQexecParams(conn_.get(), Numbered(sql).c_str(),
                                        static_cast<int>(values.size()), nullptr, values.data(),
                                        nullptr, nullptr, 0));
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      throw Failure(conn_.get(), result.get(), "execute", sql);
    }
    // "SELECT 5" is no change.
    const std::string_view tag = PQcmdStatus(result.get());
    return tag.starts_with("SELECT") ? 0 : str::Int64(PQcmdTuples(result.get()));
  }

  void Rollback() override { Execute("rollback", {}); }

  bool InTransaction() const override {
    const PGTransactionStatusType status = PQtransactionStatus(conn_.get());
    return status == PQTRANS_ACTIVE ? was_in_transaction_ : status == PQTRANS_INTRANS;
  }

  bool Reusable() override {
    // An idle server has nothing to say, but perhaps that it ends.
    pollfd fd = {PQsocket(conn_.get()), POLLIN, 0};
    while (PQstatus(conn_.get()) == CONNECTION_OK && poll(&fd, 1, 0) > 0) {
      if (PQconsumeInput(conn_.get()) == 0) return false;
    }
    return PQstatus(conn_.get()) == CONNECTION_OK &&
           PQtransactionStatus(conn_.get()) == PQTRANS_IDLE;
  }

  const Dialect& GetDialect() const override {
    // Two that make the same table at once get in each other's way otherwise. The number is the
    // name of the lock.
    static constexpr Dialect kDialect = {"begin",
                                         "bigint generated by default as identity primary key",
                                         "select pg_advisory_xact_lock(7305804402300416)"};
    return kDialect;
  }

  void SetStream(Stream* stream) { stream_ = stream; }
  Stream* GetStream() const { return stream_; }

 private:
  static std::vector<const char*> Values(const std::vector<std::string>& args) {
    std::vector<const char*> values;
    values.reserve(args.size());
    for (const std::string& arg : args) values.push_back(arg.c_str());
    return values;
  }

  /// Makes the connection ready for a statement.
  void Prepare() {
    if (stream_ != nullptr) stream_->ReadAhead();
    was_in_transaction_ = InTransaction();
  }

  using OptionsPtr = std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)>;

  /// Null when it cannot be read.
  static OptionsPtr Parse(const std::string& address) {
    return {PQconninfoParse(address.c_str(), nullptr), PQconninfoFree};
  }
  /// What is said of an address in errors: all of it but secrets.
  static std::string Shown(const std::string& address);
  static ConnPtr Connect(const std::string& address, int timeout);

  ConnPtr conn_;
  Stream* stream_ = nullptr;         // of the rows that the server is sending
  bool was_in_transaction_ = false;  // before the statement that is at work
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
  // The library's own complaint would quote the password.
  if (!Parse(address)) throw DbError("open", "postgresql:", "the address cannot be read", "08001");
  const std::string seconds = std::to_string(timeout);
  const std::string milliseconds = seconds + "000";
  // Later words win over earlier ones; the address stands for the words in it.
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
    : connection_(connection), stream_(handle, sql), result_(stream_.Next()) {
  const int count = PQnfields(result_.get());
  names_.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) names_.emplace_back(PQfname(result_.get(), i));
  // What is complete already, as a change of data, does not keep the connection busy.
  if (PQresultStatus(result_.get()) != PGRES_SINGLE_TUPLE) {
    while (stream_.Next()) continue;
  }
  connection_.SetStream(&stream_);
}

PostgresRows::~PostgresRows() {
  if (connection_.GetStream() != &stream_) return;
  // In a transaction the connection has to go on, whatever that takes.
  if (connection_.InTransaction()) {
    stream_.Drain();
  } else {
    stream_.DrainUntil(Clock::now() + kDrainTime);
  }
  connection_.SetStream(nullptr);
}

}  // namespace

std::unique_ptr<Connection> ConnectPostgres(const std::string& address, int timeout) {
  return std::make_unique<PostgresConnection>(address, timeout);
}

}  // namespace pnl_db
