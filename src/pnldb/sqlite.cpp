#include <sqlite3.h>

#include <charconv>
#include <filesystem>
#include <unordered_map>
#include <utility>

#include "pnl/deadline.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "pnldb/connection.h"
#include "pnldb/row_buffer.h"
#include "pnldb/sql.h"

namespace pnl_db {

namespace {

pnl_log::Module log_module("db");

// The number of compiled statements that a connection keeps.
constexpr std::size_t kMaxCompiled = 64;

// --- Errors

constexpr const char* kDamaged = "XX001";

/// The SQLSTATE for an extended result code; "" when PostgreSQL has none.
const char* SqlState(int code) {
  // Never destroyed: destructors of static objects may still use a database.
  using States = std::unordered_map<int, const char*>;
  static const States& exact = *new States{
      {SQLITE_CONSTRAINT_UNIQUE, "23505"},     {SQLITE_CONSTRAINT_PRIMARYKEY, "23505"},
      {SQLITE_CONSTRAINT_NOTNULL, "23502"},    {SQLITE_CONSTRAINT_CHECK, "23514"},
      {SQLITE_CONSTRAINT_FOREIGNKEY, "23503"},
  };
  static const States& primary = *new States{
      {SQLITE_ERROR, "42000"},    {SQLITE_BUSY, "55P03"},     {SQLITE_LOCKED, "55P03"},
      {SQLITE_NOMEM, "53200"},    {SQLITE_READONLY, "25006"}, {SQLITE_IOERR, "58030"},
      {SQLITE_CORRUPT, kDamaged}, {SQLITE_NOTADB, kDamaged},  {SQLITE_FULL, "53100"},
      {SQLITE_TOOBIG, "54000"},   {SQLITE_MISMATCH, "22000"}, {SQLITE_CONSTRAINT, "23000"},
  };
  if (const auto it = exact.find(code); it != exact.end()) return it->second;
  const auto it = primary.find(code & 0xff);
  return it == primary.end() ? "" : it->second;
}

/// The error of the call that has just failed.
pnl_err::Error LastError(sqlite3* db, std::string_view operation, std::string_view value) {
  const std::string_view state = SqlState(sqlite3_extended_errcode(db));
  std::string reason = sqlite3_errmsg(db);
  if (state == kDamaged)
    reason = "the database '" + std::string(sqlite3_db_filename(db, "main")) + "' is damaged (" +
             reason + "): move it away with its -wal and -shm, and put a backup in its place";
  return DbError(operation, value, reason, state);
}

// --- Statements

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, Finalize>;

struct Compiled {
  StatementPtr statement;
  std::size_t arguments;  ///< further ones are the same again, as numbers
};

/// The unused compiled statements, by their SQL.
class CompiledStatements {
  using Map = std::unordered_map<std::string, Compiled>;

 public:
  using Node = Map::node_type;

  explicit CompiledStatements(sqlite3* db) : db_(db) { idle_.reserve(kMaxCompiled); }

  Node Take(const std::string& operation, const std::string& sql) {
    if (auto node = idle_.extract(sql)) return node;
    Map fresh;
    fresh.emplace(sql, Compile(operation, sql));
    return fresh.extract(fresh.begin());
  }

  /// Allocates no memory: destructors call it.
  void Return(Node node) noexcept {
    sqlite3_reset(node.mapped().statement.get());
    sqlite3_clear_bindings(node.mapped().statement.get());
    if (idle_.size() >= kMaxCompiled) idle_.erase(idle_.begin());
    idle_.insert(std::move(node));
  }

 private:
  Compiled Compile(const std::string& operation, const std::string& sql) {
    const TypedSql typed = Typed(sql);
    const std::string& text = typed.doubled ? typed.sql : sql;
    sqlite3_stmt* compiled = nullptr;
    const char* rest = text.c_str();
    const char* const end = rest + text.size() + 1;
    if (sqlite3_prepare_v3(db_, rest, static_cast<int>(end - rest), SQLITE_PREPARE_PERSISTENT,
                           &compiled, &rest) != SQLITE_OK) {
      throw LastError(db_, operation, sql);
    }
    StatementPtr statement(compiled);
    if (!statement) throw DbError(operation, sql, "no statement", "42000");
    // Only comments may follow: a second statement would not be run.
    const int code =
        sqlite3_prepare_v2(db_, rest, static_cast<int>(end - rest), &compiled, nullptr);
    const StatementPtr second(compiled);
    if (code != SQLITE_OK || second) throw DbError(operation, sql, "several statements", "42601");
    const int count = sqlite3_bind_parameter_count(statement.get());
    return {std::move(statement),
            typed.doubled ? typed.arguments : static_cast<std::size_t>(count)};
  }

  sqlite3* const db_;
  Map idle_;
};

/// Binds a text, which must stay valid.
int BindText(sqlite3_stmt* statement, int index, const std::string& text) {
  return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC,
                             SQLITE_UTF8);
}

template <class Number>
bool IsNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

/// Binds `text` as a number if all of it is one, else as text.
int BindNumber(sqlite3_stmt* statement, int index, const std::string& text) {
  std::string_view trimmed = str::TrimView(text);
  if (trimmed.starts_with('+')) trimmed.remove_prefix(1);
  std::int64_t integer = 0;
  if (IsNumber(trimmed, integer)) return sqlite3_bind_int64(statement, index, integer);
  double real = 0;
  if (IsNumber(trimmed, real)) return sqlite3_bind_double(statement, index, real);
  return BindText(statement, index, text);
}

/// A statement in use, with its arguments.
class Statement {
 public:
  Statement(sqlite3* db, CompiledStatements& compiled, const char* operation,
            const std::string& sql, const std::vector<std::string>& args)
      : db_(db),
        compiled_(compiled),
        operation_(operation),
        args_(args),
        node_(compiled.Take(operation, sql)),
        statement_(node_.mapped().statement.get()) {
    if (node_.mapped().arguments != args_.size()) {
      throw DbError(operation, sql, "as many arguments as \"?\" are needed", "08P01");
    }
    int index = 0;
    for (const std::string& arg : args_) Check(BindText(Get(), ++index, arg));
    // The statement has no numbers after the last one that it uses.
    const int count = sqlite3_bind_parameter_count(Get());
    for (std::size_t i = 0; index < count; ++i) Check(BindNumber(Get(), ++index, args_[i]));
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { compiled_.Return(std::move(node_)); }

  /// Steps to the next row; false at the end.
  bool Step() {
    const int code = sqlite3_step(Get());
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    throw LastError(db_, operation_, node_.key());
  }

  sqlite3_stmt* Get() const { return statement_; }

 private:
  void Check(int code) const {
    if (code != SQLITE_OK) throw LastError(db_, operation_, node_.key());
  }

  sqlite3* const db_;
  CompiledStatements& compiled_;
  const char* const operation_;
  const std::vector<std::string> args_;  // outlive the use of the statement
  CompiledStatements::Node node_;
  sqlite3_stmt* const statement_;  // that of the node
};

class SqliteRows : public Rows {
 public:
  SqliteRows(sqlite3* db, CompiledStatements& compiled, const std::string& sql,
             const std::vector<std::string>& args)
      : statement_(db, compiled, "query", sql, args), state_(Step()) {
    const int count = sqlite3_column_count(statement_.Get());
    names_.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) names_.emplace_back(sqlite3_column_name(statement_.Get(), i));
  }

  bool Next() override {
    if (state_ == State::kBeforeRow) {
      state_ = State::kOnRow;
    } else if (state_ == State::kOnRow && Step() == State::kEnd) {
      state_ = State::kEnd;
    }
    return state_ == State::kOnRow;
  }

  bool OnlyReads() const { return sqlite3_stmt_readonly(statement_.Get()) != 0; }

  std::string_view Text(std::size_t column) const override {
    const auto index = static_cast<int>(column);
    const unsigned char* text = sqlite3_column_text(statement_.Get(), index);
    if (text == nullptr) return {};
    return {reinterpret_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.Get(), index))};
  }

  std::int64_t Number(std::size_t column) const override {
    const auto index = static_cast<int>(column);
    if (sqlite3_column_type(statement_.Get(), index) == SQLITE_INTEGER) {
      return sqlite3_column_int64(statement_.Get(), index);
    }
    return str::Int64(Text(column));
  }

 private:
  // The first step is made at once, so that a statement that changes something is complete.
  enum class State { kBeforeRow, kOnRow, kEnd };

  State Step() { return statement_.Step() ? State::kBeforeRow : State::kEnd; }

  Statement statement_;
  State state_;
};

// --- The connection

struct Close {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};

/// Waits for locks by the monotonic clock; SQLite's own time-out only counts its sleeps.
class LockWait {
 public:
  explicit LockWait(int seconds) : limit_(seconds) {}

  /// For sqlite3_busy_handler: returns 1 to try again; `tries` have failed so far.
  static int Handle(void* self, int tries) {
    return static_cast<LockWait*>(self)->Again(tries) ? 1 : 0;
  }

  bool Again(int tries) {
    constexpr int kLongest = 20;
    if (tries == 0) over_ = pnl_time::Deadline(limit_);
    if (over_.Passed()) return false;
    pnl_proc::Sleep(tries < kLongest ? tries + 1 : kLongest);
    return true;
  }

 private:
  const std::chrono::seconds limit_;
  pnl_time::Deadline over_{limit_};
};

class SqliteConnection final : public Connection {
 public:
  SqliteConnection(const std::string& path, int timeout, bool create)
      : wait_(timeout), db_(OpenFile(path, create)), compiled_(db_.get()) {
    sqlite3* const db = db_.get();
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_handler(db, LockWait::Handle, &wait_);
    // A misspelt column in double quotes must be an error, not a text.
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
    try {
      SwitchToLog(path);
      // NORMAL would make single commits twice as fast, but lose the last ones in a power failure.
      Execute("pragma synchronous = full", {});
      Execute("pragma foreign_keys = on", {});
      KeepLog();
    } catch (const pnl_err::Error& error) {
      throw DbError("open", path, error.param("errmsg"), error.param("sqlstate"));
    }
  }

  std::unique_ptr<Rows> Select(const std::string& sql,
                               const std::vector<std::string>& args) override {
    auto rows = std::make_unique<SqliteRows>(db_.get(), compiled_, sql, args);
    if (rows->OnlyReads()) return rows;
    // Until its end it would hold the writer's lock.
    return std::make_unique<BufferedRows>(sql, *rows);
  }

  std::int64_t Execute(const std::string& sql, const std::vector<std::string>& args) override {
    Statement statement(db_.get(), compiled_, "execute", sql, args);
    const sqlite3_int64 before = sqlite3_total_changes64(db_.get());
    while (statement.Step()) continue;
    // Statements of other kinds do not reset the number of changes.
    return sqlite3_total_changes64(db_.get()) == before ? 0 : sqlite3_changes64(db_.get());
  }

  void Rollback() override {
    if (InTransaction()) Execute("rollback", {});
  }

  bool InTransaction() const override { return sqlite3_get_autocommit(db_.get()) == 0; }
  bool Reusable() override { return !InTransaction(); }

  const Dialect& GetDialect() const override {
    // A transaction that starts as a reader cannot wait for the writer's lock; it would fail.
    static constexpr Dialect kDialect = {"begin immediate", "integer primary key autoincrement",
                                         ""};
    return kDialect;
  }

 private:
  using Handle = std::unique_ptr<sqlite3, Close>;

  static Handle OpenFile(const std::string& path, bool create) {
    sqlite3* opened = nullptr;
    // The pool ensures that one thread at a time uses the connection.
    const int flags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
    const int code = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
    Handle db(opened);
    if (code == SQLITE_OK) return db;
    throw DbError("open", path, db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(code),
                  SqlState(code));
  }

  /// SQLite does not always wait for locks when the journal mode is changed.
  void SwitchToLog(const std::string& path) {
    for (int tries = 0;; ++tries) {
      try {
        const auto rows = Select("pragma journal_mode = wal", {});
        if (rows->Next() && rows->Text(0) == "wal") return;
        throw DbError("open", path, "the file system is not fit for a write-ahead log", "58030");
      } catch (const pnl_err::Error& error) {
        if (error.param("sqlstate") != "55P03" || !wait_.Again(tries)) throw;
        PNL_LOG(log_module, 5, "%s: waiting for a lock", path.c_str());
      }
    }
  }

  /// Keeps the files of the log, emptied, when the last connection closes. Users who cannot write
  /// to the directory need them to read the database.
  void KeepLog() {
    int on = 1;
    sqlite3_file_control(db_.get(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &on);
    // They are emptied only with a limit (bytes; a log of usual size).
    Execute("pragma journal_size_limit = 4194304", {});
  }

  LockWait wait_;
  Handle db_;
  CompiledStatements compiled_;
};

}  // namespace

std::unique_ptr<Connection> ConnectSqlite(const std::string& path, int timeout, bool create) {
  return std::make_unique<SqliteConnection>(path, timeout, create);
}

}  // namespace pnl_db
