// Statistics rows, the counter cache, blocks of time, directory lists.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <random>
#include <thread>

#include "brefir/stat_raw.h"
#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "fleet/sample_store.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "support/error_of.h"
#include "support/postgres.h"
#include "support/temp_dir.h"

namespace {

using Names = std::vector<std::string>;

constexpr const char* kFile = "var/stat.counters";
constexpr const char* kHeader = "# counter cache data\n#name cname value\n";
constexpr long kMax = std::numeric_limits<long>::max();
constexpr long kMin = std::numeric_limits<long>::min();

class Row : public Stat::Recordset {
 public:
  std::string Name() const override { return "row"; }
  Stat::KeyField host{this, "host"};
  Stat::DataField bytes{this, "bytes", true, Stat::Sum};
  Stat::KeyField device{this, "device"};
  Stat::DataField peak{this, "peak", false, Stat::Max};
  Stat::DataField low{this, "low", false, Stat::Min};
  Stat::DataField last{this, "last", false, Stat::None};
};

struct OtherKind : Row {
  std::string Name() const override { return "other"; }
};

struct Bare : Stat::Recordset {
  std::string Name() const override { return "row"; }
};

class StatTest : public support::TempDir {
 protected:
  StatTest() { MakePanelDirs(); }
};

/// The text of the error that `call` throws.
std::string Thrown(const std::function<void()>& call) {
  const auto error = support::Caught(call);
  return error ? error->what() : "";
}

// --- Blocks, paths, directories

TEST(StatUtils, BlocksAreAlignedToLocalTime) {
  const std::tuple<const char*, long, long, long, long> cases[] = {
      {"EAT-3", 1000000000, 86400, 999982800, 1000069199},
      {"EAT-3", 1000069199, 86400, 999982800, 1000069199},
      {"XXX5:30", 1000000000, 3600, 999999000, 1000002599},
      {"UTC", -1, 3600, 0, 3599},  // the quotient is cut towards zero
  };
  for (const auto& [zone, t, size, left, right] : cases) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(StatUtils::block_left(t, size), left) << zone << " " << t;
    EXPECT_EQ(StatUtils::block_right(t, size), right) << zone << " " << t;
  }
  EXPECT_EQ(Thrown([] { (void)StatUtils::block_left(1, 0); }), "block_size 0");
  for (const long t : {kMin, kMax}) (void)StatUtils::block_right(t, 86400);  // some result
}

TEST(StatUtils, SplitsPaths) {
  EXPECT_EQ(StatUtils::SplitPath("//a//b/"), (Names{"a", "b"}));
  EXPECT_EQ(StatUtils::SplitKeys("/a/@host/b/@user"), (Names{"host", "user"}));
  EXPECT_EQ(Thrown([] { (void)StatUtils::DB(); }), "db_doesnt_init");
}

TEST_F(StatTest, ListsRegularFiles) {
  Put("d/a", "");
  Put("d/b/c", "");
  std::filesystem::create_directory("d/empty");
  std::filesystem::create_symlink("a", "d/link");
  Names files = {"before"};
  EXPECT_EQ(fts::GetList("d", files), 2);
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Names{"before", "d/a", "d/b/c"}));
  EXPECT_EQ(fts::GetList("none", files), 0);
  EXPECT_EQ(Thrown([&] { fts::GetList("", files); }), "fts_open (path=)");
}

// --- Recordsets

TEST(Recordset, IsMadeOfItsFields) {
  Row row;
  row.SetKeys({"h", "y", "d'"});
  EXPECT_EQ(row.GetKeys(), (Names{"host", "device"}));
  EXPECT_EQ(row.GetDataFields(), (Names{"bytes", "peak", "low", "last"}));
  EXPECT_EQ(row.GetKeyNamesAndValues(), (Names{"host='h'", "device='d''"}));
  row.SetKeys({""});
  EXPECT_EQ(row.GetKeysValues(), Names{"d'"});
  Names functions;
  for (Stat::Field* const field : row.Fields()) functions.push_back(Stat::to_fun(field));
  EXPECT_EQ(functions, (Names{"host", "sum(bytes) bytes", "device", "max(peak) peak",
                              "min(low) low", "last"}));
  EXPECT_EQ(Thrown([&] { row.FieldByName("Host"); }), "missed recordset_field Host");
}

TEST(Recordset, Folds) {
  const long cases[][3] = {{5, 7, 12}, {7, 5, 12}, {kMax, 1, kMin}, {kMin, -1, kMax}};
  for (const auto& [mine, theirs, sum] : cases) {
    Row a;
    Row b;
    for (Stat::Field* const field : a.Fields()) field->Set(str::Str(mine));
    for (Stat::Field* const field : b.Fields()) field->Set(str::Str(theirs));
    a.Fold(b);
    a.Fold(OtherKind());
    Names values;
    for (Stat::Field* const field : a.Fields()) values.push_back(field->Value());
    EXPECT_EQ(values, (Names{str::Str(mine), str::Str(sum), str::Str(mine),
                             str::Str(std::max(mine, theirs)), str::Str(std::min(mine, theirs)),
                             str::Str(theirs)}));
    EXPECT_EQ(a.GetCount(), 3);
    EXPECT_THROW(a.Fold(Bare()), pnl_err::Missed);
  }
}

TEST(Recordset, ReadsXml) {
  struct : Row {
    Stat::DataField begin{this, "begin", false, Stat::None};
  } row;
  row.low = 5;
  row.FromXml(pnl_xml::Xml("<r>text<begin>1</begin><none>2</none><host> h </host>"
                           "<bytes>12x</bytes><bytes>13</bytes><low>many</low></r>")
                  .GetRoot());
  EXPECT_EQ(row.host.Value() + row.bytes.Value() + row.low.Value() + row.begin.Value(), " h 1300");
}

// --- Databases

/// SQLite, and a schema of PostgreSQL where that is installed.
Names EmptyDatabases(const std::string& schema) {
  Names addresses = {"sqlite:var/stat.db"};
  const std::string& postgres = support::PostgresAddress();
  if (postgres.empty()) return addresses;
  const auto db = pnl_db::Cache::Open(postgres);
  db->Execute("drop schema if exists " + schema + " cascade");
  db->Execute("create schema " + schema);
  addresses.push_back(postgres + "&options=-csearch_path%3D" + schema);
  return addresses;
}

TEST_F(StatTest, SamplesAreStoredAndFoldedIntoBlocks) {
  const Names addresses = EmptyDatabases("stat_test");
  setenv("TZ", "EAT-3", 1);
  tzset();
  constexpr long kMidnight = 999982800;
  for (const std::string& address : addresses) {
    Put("etc/brefir.conf", "stat_database = " + address + "\n");
    const auto db = fleet::OpenStatDatabase();
    StatUtils::InitStatsDB(db);
    EXPECT_EQ(StatUtils::DB(), db);
    const fleet::SampleKind& net = fleet::FindSampleKind("net");
    const std::string longest = "a'" + std::string(62, 'b');
    fleet::SampleStore store(db);
    const auto sample = [&](const std::string& host, const Names& devices, long taken, long raw) {
      std::vector<fleet::Reading> readings;
      for (const std::string& device : devices)
        readings.push_back({{&net, host, device}, taken, {raw, raw, raw, raw}});
      std::filesystem::remove(kFile);  // the database decides
      store.Store(readings);
    };
    long raw = 1000;
    for (const long taken : {kMidnight - 1, kMidnight, kMidnight + 3599, kMidnight + 3600}) {
      raw += taken - kMidnight + 10;
      sample("h", {longest, "eth0", "eth0"}, taken, raw);
    }
    const auto shown = [&](const fleet::StatFold& fold) {
      std::string text;
      for (const auto& row : fleet::FoldSamples(*db, net, fold)) {
        text += str::Str(row->taken.Int() - kMidnight) + " " +
                str::Join(row->GetKeysValues(), ":") + " " + row->counters[0]->Value() + "\n";
      }
      return text;
    };
    EXPECT_EQ(shown({3600, kMidnight, kMidnight + 3600, {"host", "device"}}),
              "0 h:" + longest + " 3619\n0 h:eth0 3619\n");
    EXPECT_EQ(shown({86400, 0, kMidnight + 9999, {"host"}}), "-86400 h 0\n0 h 14458\n");

    Stat::CountersTable table;
    EXPECT_TRUE(table.Find(*db, {{"name", "h:eth0"}, {"cname", "rx_bytes"}}));
    EXPECT_EQ(str::ToStr(table.cname) + " " + str::Str(table.value.Int()),
              "rx_bytes " + str::Str(raw));
    EXPECT_EQ(store.Reset("h:" + longest, ""), 4U);
    EXPECT_FALSE(table.Find(*db, {{"name", fleet::ColumnKey("h:" + longest)}}));
    Names many;  // more than a statement takes
    for (int i = 0; i < 2500; ++i) many.push_back("eth" + str::Str(i));
    for (const long total : {5, 7}) sample("many", many, kMidnight, total);
    EXPECT_EQ(shown({3600, kMidnight, kMidnight + 1, {"host"}}), "0 h 20\n0 many 5000\n");
    const auto count = db->Select("select count(*) n from counters");
    EXPECT_EQ(count->Next() ? count->AsString("n") : "", "10004");
    EXPECT_EQ(store.Reset("", ""), 10000U);
    EXPECT_FALSE(table.Find(*db, {}));
  }
}

TEST_F(StatTest, LastSamplesAreKnownFromEitherDatabase) {
  for (const std::string& address : EmptyDatabases("status_test")) {
    Put("etc/brefir.conf", "stat_database = " + address + "\n");
    EXPECT_TRUE(fleet::LastSamples(0).empty());
    EXPECT_FALSE(address.starts_with("sqlite") && pnl_file::Exists("var/stat.db"));
    const std::time_t now = std::time(nullptr);
    fleet::SampleStore store(fleet::OpenStatDatabase());
    const fleet::Device device{&fleet::FindSampleKind("cpu"), "web1", "cpu"};
    const std::vector<std::int64_t> counters(device.kind->counters.size(), 1);
    for (const std::time_t taken : {now - 20, now - 10}) store.Store({{device, taken, counters}});
    EXPECT_EQ(fleet::LastSamples(now - 10).at("web1"), now - 10);
    EXPECT_TRUE(fleet::LastSamples(now).empty());
  }
}

// --- The counter cache

TEST_F(StatTest, ReadsWhatPeopleMayHaveWritten) {
  const std::pair<const char*, std::string> cases[] = {
      {"", ""},
      {"#x y 5\n  # no\n\n \t\n", ""},
      {"  a b 7 \r\n", "a b 7\n"},
      {"b x 1\na\ty   2 3\nb w -4\na y 5", "a y 5\nb w -4\nb x 1\n"},
      {"a b +99999999999999999999\na c 1x\na d x\na e\n",
       "a b 9223372036854775807\na c 1\na d 0\na e 0\n"},
      {"%% b 1\n%%a%20b %%%23 2\n%%a%2 b 3\n%x #y 4\n",
       "%% b 1\n%%%25%25a%252 b 3\n%x #y 4\n%%a%20b # 2\n"},
  };
  for (const auto& [text, entries] : cases) {
    Put(kFile, text);
    counter::Cache cache;
    cache.Flush();
    EXPECT_EQ(Get(kFile), text) << "not loaded yet";
    cache.Load();
    cache.Flush();
    EXPECT_EQ(Get(kFile), kHeader + entries);
    EXPECT_THROW((void)cache.GetCounter("a", "x"), std::out_of_range);
    std::filesystem::remove(kFile);
    counter::Cache empty;
    empty.Load();
    empty.Flush();
    EXPECT_EQ(Get(kFile), kHeader);
  }
}

TEST_F(StatTest, NormalizesAgainstTheLastSample) {
  Row row;
  row.SetKeys({"h", "", "d"});
  counter::Cache& cache = Singleton<counter::Cache>::Instance();
  const long samples[][2] = {{100, 0},     {250, 150}, {40, 40}, {40, 0},
                             {kMin, kMin}, {kMax, -1}, {-1, -1}};
  for (const auto& [raw, increase] : samples) {
    row.bytes = raw;
    row.peak = raw;
    row.Normalize();
    EXPECT_EQ(row.bytes.Int(), increase) << raw;
    EXPECT_EQ(row.peak.Int(), raw);
    EXPECT_EQ(cache.GetCounter("h:d", "bytes").Val(), raw);
  }
  EXPECT_TRUE(cache.RemoveCounter("h:d", "bytes"));
  EXPECT_TRUE(cache.GetCounters().empty());
}

/// The sum of the increases is that of the rises, whatever is flushed, loaded anew and reset.
TEST_F(StatTest, LosesNoRise) {
  std::mt19937 random(1);
  auto cache = std::make_unique<counter::Cache>();
  const Names objects = {"a", "a:b", "0", "\xff", "", "a b", "#", "\n%", "%%", "%%20", "a%20b"};
  std::map<std::string, std::pair<long, bool>> raw;  // and whether it was seen
  std::map<std::string, long> rises;
  std::map<std::string, long> increases;
  for (int step = 0; step < 20000; ++step) {
    const std::string& object = objects[random() % objects.size()];
    auto& [value, seen] = raw[object];
    const long rise = static_cast<long>(random() % 1000);
    const bool reset = random() % 20 == 0 && rise < value;
    value = reset ? rise : value + rise;
    if (random() % 50 == 0 && cache->RemoveCounter(object, "bytes")) seen = false;
    if (seen) rises[object] += rise;
    seen = true;
    Row row;
    row.bytes = value;
    cache->Normalize(object, row.bytes);
    increases[object] += row.bytes.Int();
    if (random() % 100 != 0) continue;
    cache->Flush();
    cache = std::make_unique<counter::Cache>();
  }
  EXPECT_EQ(increases, rises);
}

TEST_F(StatTest, ThreadsShareTheCache) {
  counter::Cache cache;
  std::vector<std::jthread> threads;
  for (const char* const name : {"a", "b", "c", "d"}) {
    threads.emplace_back([&cache, name] {
      Row row;
      long sum = 0;
      for (long n = 0; n <= 500; ++n) {
        row.bytes = 5 + n * n;
        cache.Normalize(name, row.bytes);
        sum += row.bytes.Int();
        if (n % 100 == 0) cache.Flush();
      }
      EXPECT_EQ(sum, 250000);
    });
  }
  threads.clear();
  EXPECT_EQ(cache.GetCounters().size(), 4U);
}

}  // namespace
