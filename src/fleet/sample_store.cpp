#include "fleet/sample_store.h"

#include <algorithm>
#include <map>
#include <utility>

#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "fleet/database.h"
#include "pnl/err.h"
#include "pnl/settings.h"

namespace fleet {
namespace {

constexpr const char* kSetting = "stat_database";
constexpr int kLockTimeout = 60;  // seconds

// --- Tables

/// A column for each field of a row.
class SampleTable : public pnl_db::IdTable {
 public:
  explicit SampleTable(const SampleKind& kind) : IdTable(kind.table) {
    StoredRow row(kind);
    for (Stat::Field* const field : row.Fields()) field->CreateDbField(this);
  }
};

bool HasTables(pnl_db::Cache& db) {
  return HasTable(db, Stat::CountersTable()) &&
         std::all_of(SampleKinds().begin(), SampleKinds().end(),
                     [&](const SampleKind& kind) { return HasTable(db, SampleTable(kind)); });
}

/// In one transaction, so that no index is missing after a failure.
void CreateTables(pnl_db::Cache& db) {
  pnl_db::Transaction transaction(db);
  Stat::CountersTable().Create(db);
  db.Execute("create index if not exists counters_name on counters (name)");
  for (const SampleKind& kind : SampleKinds()) {
    SampleTable(kind).Create(db);
    db.Execute("create index if not exists " + kind.table + "_taken on " + kind.table + " (taken)");
  }
  transaction.Commit();
}

// --- From a reading to the tables

/// The last values come from the database, even when the file has others.
void TakeLastValues(pnl_db::Cache& db, const std::vector<Reading>& readings, counter::Cache& last) {
  StringMap names;  // in the form of the columns
  for (const Reading& reading : readings) {
    const std::string name = reading.device.ObjectName();
    names[ColumnKey(name)] = name;
  }
  Arguments keys;
  for (const auto& [key, name] : names) keys.insert(keys.end(), key);
  InGroups(keys, 1, [&](const std::string& values, const Arguments& args) {
    const auto query =
        db.Select("select name, cname, value from counters where name in (" + values + ")", args);
    while (query->Next()) {
      last.UpdateCounter(names.at(query->AsString("name")), query->AsString("cname"),
                         query->AsInt64("value"));
    }
  });
}

/// The reading becomes the last one.
Increase IncreaseOf(const Reading& reading, counter::Cache& last) {
  Increase increase{reading.device, reading.taken, {}};
  const std::string name = reading.device.ObjectName();
  for (std::size_t i = 0; i < reading.counters.size(); ++i) {
    const std::string& cname = reading.device.kind->counters.at(i).name;
    increase.counters.push_back(last.Advance(name, cname, reading.counters[i]).Val());
  }
  return increase;
}

void KeepLastValues(pnl_db::Cache& db, const std::vector<Reading>& readings) {
  std::map<std::pair<std::string, std::string>, std::int64_t> last;  // a device may occur twice
  for (const Reading& reading : readings) {
    const std::string name = ColumnKey(reading.device.ObjectName());
    for (std::size_t i = 0; i < reading.counters.size(); ++i)
      last[{name, reading.device.kind->counters[i].name}] = reading.counters[i];
  }
  Arguments rows;
  for (const auto& [key, value] : last)
    rows.insert(rows.end(), {key.first, key.second, str::Str(value)});
  // Tables of older releases have no index for "on conflict".
  InGroups(rows, 3, [&](const std::string& values, const Arguments& args) {
    const std::string from = "from (" + values + ") as last where ";
    const std::string there = "counters.name = last.column1 and counters.cname = last.column2";
    const std::string value = "cast(last.column3 as bigint)";
    db.Execute("update counters set value = " + value + " " + from + there, args);
    db.Execute("insert into counters (name, cname, value) select column1, column2, " + value + " " +
                   from + "not exists (select 1 from counters where " + there + ")",
               args);
  });
}

void InsertRows(pnl_db::Cache& db, const std::vector<Increase>& increases) {
  std::map<const SampleKind*, Arguments> tables;
  for (const Increase& increase : increases) {
    StoredRow row(increase);
    for (Stat::Field* const field : row.Fields())
      tables[increase.device.kind].push_back(field->Value());
  }
  for (const auto& [kind, rows] : tables) {
    const Arguments columns = SampleTable(*kind).Columns();
    const std::string into = "insert into " + kind->table + " (" + str::Join(columns, ", ") + ") ";
    InGroups(rows, columns.size(), [&](const std::string& values, const Arguments& args) {
      db.Execute(into + values, args);
    });
  }
}

// --- From the tables to blocks

/// The SQL for the first second of a sample's local block, as StatUtils::block_left computes it.
std::string BlockBegin(long size) {
  const std::string offset = "(" + str::Str(StatUtils::block_offset()) + ")";
  const std::string length = str::Str(size);
  return "(taken + " + offset + ") / " + length + " * " + length + " - " + offset;
}

std::string FoldQuery(StoredRow& row, const StatFold& fold) {
  // By its position: in "group by" the name would be the table's column.
  std::vector<std::string> columns = {BlockBegin(fold.block) + " " + row.taken.Name()};
  for (Stat::Field* const field : row.Fields()) {
    if (field == &row.taken) continue;
    const bool merged = field->Type() == Stat::FieldType::Key &&
                        std::count(fold.keys.begin(), fold.keys.end(), field->Name()) == 0;
    columns.push_back(merged ? "'' " + field->Name() : Stat::to_fun(field));
  }
  const std::string groups = str::Append("1", str::Join(fold.keys, ", "), ", ");
  return "select " + str::Join(columns, ", ") + " from " + row.Kind().table +
         " where taken >= ? and taken < ? group by " + groups + " order by " + groups;
}

}  // namespace

std::shared_ptr<pnl_db::Cache> OpenStatDatabase() {
  return OpenDatabase(kSetting, pnl_settings::Get(kSetting), [](pnl_db::Cache& db) {
    // A user who only reads may not be allowed to make tables.
    if (!HasTables(db)) CreateTables(db);
  });
}

StoredRow::StoredRow(const SampleKind& kind) : kind_(kind) {
  for (const SampleCounter& counter : kind.counters) {
    counters.push_back(
        std::make_unique<Stat::DataField>(this, counter.name, false, Stat::DataFoldType::Sum));
  }
}

StoredRow::StoredRow(const Increase& increase) : StoredRow(*increase.device.kind) {
  taken = increase.taken;
  host = increase.device.host;
  device = increase.device.name;
  for (std::size_t i = 0; i < counters.size(); ++i) *counters[i] = increase.counters.at(i);
}

std::string StoredRow::Name() const {
  return kind_.name;
}

SampleStore::SampleStore(std::shared_ptr<pnl_db::Cache> db)
    : db_(std::move(db)), lock_(counter::kFile, kLockTimeout) {}

void SampleStore::Store(const std::vector<Reading>& readings) {
  counter::Cache last;
  last.Load();
  pnl_db::Transaction transaction(*db_);
  TakeLastValues(*db_, readings, last);
  std::vector<Increase> increases;
  increases.reserve(readings.size());
  for (const Reading& reading : readings) increases.push_back(IncreaseOf(reading, last));
  KeepLastValues(*db_, readings);
  InsertRows(*db_, increases);
  transaction.Commit();
  last.Flush();
}

std::size_t SampleStore::Reset(const std::string& name, const std::string& cname) {
  counter::Cache last;
  last.Load();
  StringMap key;
  if (!name.empty()) key["name"] = ColumnKey(name);
  if (!cname.empty()) key["cname"] = cname;
  Stat::CountersTable().Delete(*db_, key);
  std::size_t count = 0;
  for (const auto& [object, values] : last.GetCounters()) {
    if (!name.empty() && object != name) continue;
    for (const auto& [counter, value] : values) {
      if (!cname.empty() && counter != cname) continue;
      count += last.RemoveCounter(object, counter) ? 1 : 0;
    }
  }
  last.Flush();
  return count;
}

StoredRows FoldSamples(pnl_db::Cache& db, const SampleKind& kind, const StatFold& fold) {
  StoredRows rows;
  StoredRow fields(kind);
  const auto query = db.Select(FoldQuery(fields, fold), {str::Str(fold.from), str::Str(fold.to)});
  while (query->Next()) rows.emplace_back(std::make_unique<StoredRow>(kind))->FromQuery(query);
  return rows;
}

std::map<std::string, std::time_t> LastSamples(std::time_t from) {
  std::map<std::string, std::time_t> last;
  const std::string address = pnl_settings::Get(kSetting);
  const std::string path = SqlitePath(address);
  if (!path.empty() && !pnl_file::Exists(path)) return last;
  const auto db = OpenDatabase(kSetting, address, [](pnl_db::Cache&) {});
  const SampleTable table(FindSampleKind("cpu"));  // every host has a processor
  if (!HasTable(*db, table)) return last;
  const auto query = db->Select(
      "select host, max(taken) as taken from " + table.Name() + " where taken >= ? group by host",
      {str::Str(from)});
  while (query->Next()) last[query->AsString("host")] = query->AsInt64("taken");
  return last;
}

}  // namespace fleet
