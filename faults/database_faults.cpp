// Statistics: rows and counters in an SQLite database, whose library makes the calls.

#include <filesystem>

#include "brefir/stat_raw.h"
#include "faults/operation.h"
#include "fleet/sample_store.h"
#include "pnl/str.h"
#include "pnldb/db.h"

namespace {

using faults::Operation;
using faults::Put;
using faults::Text;

constexpr const char* kFile = "var/stat.db";
constexpr const char* kAddress = "sqlite:var/stat.db";

/// The one value that `query` gives, from a database that is found sound.
std::string Value(const std::string& query) {
  const auto db = pnl_db::Cache::Open(kAddress);
  const auto integrity = db->Select("pragma integrity_check");
  if (!integrity->Next() || integrity->AsString("integrity_check") != "ok") return "not sound";
  const auto rows = db->Select("select " + query + " as v");
  return rows->Next() ? rows->AsString("v") : "";
}

void Sample(pnl_db::Cache& db, long raw, std::time_t taken) {
  fleet::DeviceRows rows;
  rows.push_back(std::make_unique<fleet::DeviceRow>(fleet::FindSampleKind("net")));
  rows.back()->SetKeys({"host", "eth0"});
  for (const auto& counter : rows.back()->counters) *counter = raw;
  fleet::StoreSample(db, rows, taken);
}

/// Forgets what this process knows of the counters, and stores a first sample.
void PutFirstSample() {
  static std::string file;
  if (file.empty()) {
    Put("etc/brefir.conf", std::string("stat_database = ") + kAddress + "\n");
    Put("var/stat.counters", "");
    const auto db = fleet::OpenStatDatabase();
    fleet::ResetCounters(*db, "", "");
    Sample(*db, 100, 1);
  }
  if (file.empty()) file = Text(kFile);
  Put(kFile, file);
  Put("var/stat.counters", "host:eth0 rx_bytes 100\n");
}

std::vector<Operation> Operations() {
  const auto store = [] {
    const auto db = pnl_db::Cache::Open(kAddress, 1);
    Sample(*db, 150, 2);
  };
  const auto add = [] {
    const auto db = pnl_db::Cache::Open(kAddress, 1);
    pnl_db::Transaction transaction(*db);
    db->Execute("delete from t");
    for (const char* value : {"2", "3", "4"}) db->Execute("insert into t values (?)", {value});
    transaction.Commit();
  };
  return {
      {.name = "Transaction, several rows",
       .prepare =
           [] {
             std::filesystem::create_directory("var");
             const auto db = pnl_db::Cache::Open(kAddress);
             db->Execute("create table t (n integer)");
             db->Execute("insert into t values (1)");
           },
       .work = add,
       .state =
           [] { return faults::OldOrNew(Value("(select group_concat(n) from t)"), "1", "2,3,4"); },
       .widest = 0666},
      // Every increase is stored once, however often a sample is tried.
      {.name = "StoreSample, rows and counters",
       .prepare = PutFirstSample,
       .work = store,
       .state =
           [] {
             return faults::OldOrNew(Value("(select sum(rx_bytes) from stat_net)"), "0", "50");
           },
       .widest = 0666,
       .late = true},
  };
}

}  // namespace

int main(int argc, char** argv) {
  return faults::Run(argc, argv, Operations());
}
