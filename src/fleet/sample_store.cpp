#include "fleet/sample_store.h"

#include <algorithm>

#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "pnl/err.h"
#include "pnl/settings.h"
#include "pnl/thread.h"

namespace fleet {
namespace {

constexpr int kLockTimeout = 60;  // seconds

/// A column for the time of the sample and one for each field of the row.
class SampleTable : public pnl_db::IdTable {
 public:
  explicit SampleTable(DeviceRow& row) : IdTable(row.Kind().table) {
    new pnl_db::LongField(this, "taken");
    for (Stat::Field* const field : row.Fields()) field->CreateDbField(this);
  }
};

/// Whether the table is there, with all of its columns.
bool Has(pnl_db::Cache& db, const pnl_db::CustomTable& table) {
  try {
    db.Select("select " + str::Join(table.Columns(), ", ") + " from " + table.Name() + " limit 0");
    return true;
  } catch (const pnl_err::Error& error) {
    // Missing tables and columns are of class 42, and so is a table that is not for us.
    if (error.param("sqlstate").starts_with("42")) return false;
    throw;
  }
}

bool HasTables(pnl_db::Cache& db) {
  return Has(db, Stat::CountersTable()) &&
         std::all_of(SampleKinds().begin(), SampleKinds().end(), [&](const SampleKind& kind) {
           DeviceRow row(kind);
           return Has(db, SampleTable(row));
         });
}

/// All or none, lest an index stays missing.
void CreateTables(pnl_db::Cache& db) {
  pnl_db::Transaction transaction(db);
  Stat::CountersTable().Create(db);
  db.Execute("create index if not exists counters_name on counters (name)");
  for (const SampleKind& kind : SampleKinds()) {
    DeviceRow row(kind);
    SampleTable(row).Create(db);
    db.Execute("create index if not exists " + kind.table + "_taken on " + kind.table + " (taken)");
  }
  transaction.Commit();
}

counter::Cache& Counters() {
  return Singleton<counter::Cache>::Instance();
}

/// Takes the raw values that the stored rows account for.
void TakeCounters(pnl_db::Cache& db, const std::string& name) {
  const auto query =
      db.Select("select cname, value from counters where name = ?", {ColumnKey(name)});
  while (query->Next())
    Counters().UpdateCounter(name, query->AsString("cname"), query->AsInt64("value"));
}

void KeepCounters(pnl_db::Cache& db, const std::string& name, DeviceRow& row) {
  Stat::CountersTable table;
  table.name = ColumnKey(name);
  for (const std::string& cname : row.GetDataFields()) {
    table.cname = cname;
    table.value = Counters().GetCounter(name, cname).Val();
    if (table.Update(db, {{"name", table.name}, {"cname", cname}}) == 0) table.Insert(db);
  }
}

void InsertRow(pnl_db::Cache& db, DeviceRow& row, std::time_t taken) {
  std::vector<std::string> values = {str::Str(taken)};
  for (Stat::Field* const field : row.Fields()) values.push_back(field->Value());
  const std::vector<std::string> places(values.size(), "?");
  db.Execute("insert into " + row.Kind().table + " (" +
                 str::Join(SampleTable(row).Columns(), ", ") + ") values (" +
                 str::Join(places, ", ") + ")",
             values);
}

bool Contains(const std::vector<std::string>& list, const std::string& word) {
  return std::find(list.begin(), list.end(), word) != list.end();
}

/// The first second of the local block that holds a sample, as StatUtils::block_left has it.
std::string BlockBegin(long size) {
  const std::string offset = "(" + str::Str(StatUtils::block_offset()) + ")";
  const std::string length = str::Str(size);
  return "(taken + " + offset + ") / " + length + " * " + length + " - " + offset;
}

std::string FoldQuery(DeviceRow& row, const StatFold& fold) {
  std::vector<std::string> columns = {BlockBegin(fold.block) + " block_begin"};
  for (Stat::Field* const field : row.Fields()) {
    const bool merged =
        field->Type() == Stat::FieldType::Key && !Contains(fold.keys, field->Name());
    columns.push_back(merged ? "'' " + field->Name() : Stat::to_fun(field));
  }
  const std::string groups = str::Append("block_begin", str::Join(fold.keys, ", "), ", ");
  return "select " + str::Join(columns, ", ") + " from " + row.Kind().table +
         " where taken >= ? and taken < ? group by " + groups + " order by " + groups;
}

}  // namespace

std::shared_ptr<pnl_db::Cache> OpenStatDatabase() {
  const std::string address = pnl_settings::Get("stat_database");
  try {
    auto db = pnl_db::Cache::Open(address);
    // Who only reads may have no right to make any.
    if (!HasTables(*db)) CreateTables(*db);
    return db;
  } catch (pnl_err::Error& error) {
    const std::string reason = error.param("errmsg");
    throw error.add_param("message", "stat_database in etc/brefir.conf cannot be used: " +
                                         (reason.empty() ? error.what() : reason));
  }
}

CountersLock::CountersLock() : lock_("var/stat.counters", kLockTimeout) {}

void StoreSample(pnl_db::Cache& db, DeviceRows& rows, std::time_t taken) {
  Counters().Load();
  pnl_db::Transaction transaction(db);
  for (const auto& row : rows) {
    const std::string name = row->ObjectName();
    TakeCounters(db, name);
    row->Normalize();
    KeepCounters(db, name, *row);
    InsertRow(db, *row, taken);
  }
  transaction.Commit();
  Counters().Flush();
}

std::size_t ResetCounters(pnl_db::Cache& db, const std::string& name, const std::string& cname) {
  Counters().Load();
  StringMap key;
  if (!name.empty()) key["name"] = ColumnKey(name);
  if (!cname.empty()) key["cname"] = cname;
  Stat::CountersTable().Delete(db, key);
  std::size_t count = 0;
  for (const auto& [object, values] : Counters().GetCounters()) {
    if (!name.empty() && object != name) continue;
    for (const auto& [counter, value] : values) {
      if (!cname.empty() && counter != cname) continue;
      count += Counters().RemoveCounter(object, counter) ? 1 : 0;
    }
  }
  Counters().Flush();
  return count;
}

std::vector<FoldedRow> FoldSamples(pnl_db::Cache& db, const SampleKind& kind,
                                   const StatFold& fold) {
  std::vector<FoldedRow> rows;
  DeviceRow fields(kind);
  const auto query = db.Select(FoldQuery(fields, fold), {str::Str(fold.from), str::Str(fold.to)});
  while (query->Next()) {
    auto row = std::make_unique<DeviceRow>(kind);
    row->FromQuery(query);
    rows.push_back({query->AsInt64("block_begin"), std::move(row)});
  }
  return rows;
}

}  // namespace fleet
