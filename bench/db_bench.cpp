// Reading a million rows by column name beside bare clients that copy each column's text.

#include <libpq-fe.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "pnldb/db.h"
#include "ratio.h"

namespace {

constexpr int kRows = 1'000'000;
const std::string kSelect = "select name, cname, value from counters";

const std::string kFile = "/tmp/db_bench." + std::to_string(getpid());

std::string PostgresAddress() {
  const char* address = getenv("BREFIR_POSTGRES");
  return address == nullptr ? "" : address;
}

std::shared_ptr<pnl_db::Cache> Filled(const std::string& address) {
  auto cache = pnl_db::Cache::Open(address);
  cache->Execute("drop table if exists counters");
  cache->Execute("create table counters (name varchar(64), cname varchar(64), value bigint)");
  cache->Execute(
      "insert into counters with recursive n(i) as (select 1 union all select i + 1 from n "
      "where i < " +
      std::to_string(kRows) +
      ") select 'web' || i || '.example.net', 'bytes_sent', 9000000000000 + i from n");
  return cache;
}

std::shared_ptr<pnl_db::Cache> Sqlite() {
  static const auto cache = Filled("sqlite:" + kFile);
  return cache;
}

std::shared_ptr<pnl_db::Cache> Postgres() {
  static const auto cache = Filled(PostgresAddress());
  return cache;
}

void Read(pnl_db::Cache& cache) {
  const auto query = cache.Select(kSelect);
  int rows = 0;
  for (; query->Next(); ++rows) {
    for (const char* column : {"name", "cname", "value"}) {
      benchmark::DoNotOptimize(query->AsString(column));
    }
  }
  if (rows != kRows) throw std::runtime_error("rows are missing");
}

void SqliteQuery(benchmark::State& state) {
  const auto cache = Sqlite();
  for (auto _ : state) Read(*cache);
}
BENCHMARK(SqliteQuery)->Unit(benchmark::kMillisecond);

void SqliteBare(benchmark::State& state) {
  Sqlite();
  sqlite3* db = nullptr;
  sqlite3_open(kFile.c_str(), &db);
  for (auto _ : state) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, kSelect.c_str(), -1, &statement, nullptr);
    while (sqlite3_step(statement) == SQLITE_ROW) {
      for (int i = 0; i < 3; ++i) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
        benchmark::DoNotOptimize(
            std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, i))));
      }
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
}
BENCHMARK(SqliteBare)->Unit(benchmark::kMillisecond);

void PostgresQuery(benchmark::State& state) {
  if (PostgresAddress().empty()) return state.SkipWithError("no server");
  const auto cache = Postgres();
  for (auto _ : state) Read(*cache);
}
BENCHMARK(PostgresQuery)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The whole result in memory, as most clients do it.
void PostgresBare(benchmark::State& state) {
  if (PostgresAddress().empty()) return state.SkipWithError("no server");
  Postgres();
  PGconn* connection = PQconnectdb(PostgresAddress().c_str());
  for (auto _ : state) {
    PGresult* result = PQexec(connection, kSelect.c_str());
    for (int row = 0; row < PQntuples(result); ++row) {
      for (int i = 0; i < 3; ++i) {
        benchmark::DoNotOptimize(std::string(
            PQgetvalue(result, row, i), static_cast<std::size_t>(PQgetlength(result, row, i))));
      }
    }
    PQclear(result);
  }
  PQfinish(connection);
}
BENCHMARK(PostgresBare)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  const int status =
      bench::Main(argc, argv,
                  {{"SqliteQuery", "SqliteBare", "at most 1.3"},
                   {"PostgresQuery", "PostgresBare", "at most 1.3", bench::Time::kClock}});
  for (const char* end : {"", "-wal", "-shm"}) std::filesystem::remove(kFile + end);
  return status;
}
