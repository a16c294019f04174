// Statistics: rows and counters in an SQLite database, whose library makes the calls.

#include <filesystem>

#include "brefir/stat_raw.h"
#include "faults/operation.h"
#include "fleet/sample_store.h"
#include "pnl/str.h"
#include "pnldb/db.h"

namespace {

using namespace faults;

constexpr const char* kFile = "var/stat.db";
constexpr const char* kAddress = "sqlite:var/stat.db";

/// The single value of `query`, after an integrity check of the database.
std::string Value(const std::string& query) {
  const auto db = pnl_db::Cache::Open(kAddress);
  const auto integrity = db->Select("pragma integrity_check");
  if (!integrity->Next() || integrity->AsString("integrity_check") != "ok") return "not sound";
  const auto rows = db->Select("select " + query + " as v");
  return rows->Next() ? rows->AsString("v") : "";
}

void Sample(long raw, std::time_t taken) {
  fleet::Device device{&fleet::FindSampleKind("net"), "host", "eth0"};
  const std::vector<std::int64_t> counters(device.kind->counters.size(), raw);
  fleet::SampleStore(pnl_db::Cache::Open(kAddress, 1)).Store({{device, taken, counters}});
}

/// Stores a first sample, and puts an older file of counters beside it.
void PutFirstSample() {
  static std::string file;
  if (file.empty()) {
    Put("etc/brefir.conf", std::string("stat_database = ") + kAddress + "\n");
    Put("var/stat.counters", "");
    (void)fleet::OpenStatDatabase();
    Sample(100, 1);
  }
  if (file.empty()) file = Get(kFile);
  Put(kFile, file);
  Put("var/stat.counters", "host:eth0 rx_bytes 100\n");
}

}  // namespace

/// Every increase is stored once, however often a sample is tried.
int main(int argc, char** argv) {
  return faults::Run(argc, argv,
                     {{.name = "StoreSample, rows and counters",
                       .prepare = PutFirstSample,
                       .work = [] { Sample(150, 2); },
                       .state =
                           [] {
                             return faults::OldOrNew(Value("(select sum(rx_bytes) from stat_net)"),
                                                     "0", "50");
                           },
                       .widest = 0666,
                       .late = true}});
}
