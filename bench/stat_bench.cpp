// The counter cache beside bare maps, and rows of a query beside a bare client of the database.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "brefir/stat_raw.h"
#include "pnl/file.h"
#include "prefix.h"
#include "ratio.h"

namespace {

constexpr const char* kFile = "var/stat.counters";
constexpr const char* kDatabase = "var/bench.db";
constexpr int kObjects = 100000;
constexpr int kCounters = 10;  // of each
constexpr int kRows = 1000000;

using BareMap = std::map<std::string, std::map<std::string, long>>;

// --- Loading and flushing a million counters

std::string ReadAll(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  std::string text(std::filesystem::file_size(path), '\0');
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t got = read(fd, text.data() + done, text.size() - done);
    if (got <= 0) std::abort();
    done += static_cast<std::size_t>(got);
  }
  close(fd);
  return text;
}

BareMap BareLoad() {
  const std::string whole = ReadAll(kFile);
  std::string_view text = whole;
  BareMap map;
  auto object = map.end();
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() + 1);
    if (line.front() == '#') continue;
    const std::size_t first = line.find(' ');
    const std::size_t second = line.find(' ', first + 1);
    const std::string_view name = line.substr(0, first);
    if (object == map.end() || object->first != name)
      object = map.try_emplace(map.end(), std::string(name));
    long value = 0;
    std::from_chars(line.data() + second + 1, line.data() + line.size(), value);
    object->second.emplace_hint(object->second.end(), line.substr(first + 1, second - first - 1),
                                value);
  }
  return map;
}

void BareFlush(const BareMap& map) {
  std::string text = "# counter cache data\n#name cname value\n";
  for (const auto& [name, values] : map) {
    for (const auto& [cname, value] : values) {
      char digits[24];
      const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
      text.append(name).append(1, ' ').append(cname).append(1, ' ');
      text.append(digits, static_cast<std::size_t>(end - digits)).append(1, '\n');
    }
  }
  const int fd = open("var/bare", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put <= 0) std::abort();
    done += static_cast<std::size_t>(put);
  }
  if (fsync(fd) != 0) std::abort();
  close(fd);
}

void BareLoadFlush(benchmark::State& state) {
  for (auto _ : state) BareFlush(BareLoad());
}
BENCHMARK(BareLoadFlush)->Unit(benchmark::kMillisecond)->Repetitions(5);

void LoadFlush(benchmark::State& state) {
  for (auto _ : state) {
    counter::Cache cache;
    cache.Load();
    cache.Flush();
  }
}
BENCHMARK(LoadFlush)->Unit(benchmark::kMillisecond)->Repetitions(5);

// --- Normalising

class Row : public Stat::Recordset {
 public:
  std::string Name() const override { return "row"; }
  Stat::KeyField device{this, "device"};
  Stat::DataField bytes{this, "bytes", true, Stat::Sum};
  Stat::DataField packets{this, "packets", true, Stat::Sum};
};

std::vector<std::string> Objects() {
  std::vector<std::string> names;
  names.reserve(1000);
  for (int i = 0; i < 1000; ++i) names.push_back("node" + std::to_string(i) + ":eth0");
  return names;
}

/// The maps of the cache, and its three steps under its locks, without anything around them.
struct BareCounters {
  bool Has(const std::string& name, const std::string& cname) {
    const std::shared_lock guard(lock);
    const auto found = map.find(name);
    return found != map.end() && found->second.count(cname) != 0;
  }
  long Get(const std::string& name, const std::string& cname) {
    const std::shared_lock guard(lock);
    return map.at(name).at(cname);
  }
  void Put(const std::string& name, const std::string& cname, long value) {
    const std::unique_lock guard(lock);
    map[name][cname] = value;
  }
  BareMap map;
  std::shared_mutex lock;
};

BareCounters bare_counters;
counter::Cache cache_of_few;

void BareNormalize(benchmark::State& state) {
  static const std::vector<std::string> objects = Objects();
  const std::string cname = "bytes";
  long raw = 0;
  for (auto _ : state) {
    const std::string& name = objects[static_cast<std::size_t>(++raw) % objects.size()];
    long increase = 0;
    if (bare_counters.Has(name, cname)) {
      const long previous = bare_counters.Get(name, cname);
      increase = raw < previous ? raw : raw - previous;
    }
    benchmark::DoNotOptimize(increase);
    bare_counters.Put(name, cname, raw);
  }
}

void Normalize(benchmark::State& state) {
  static const std::vector<std::string> objects = Objects();
  Row row;
  long raw = 0;
  for (auto _ : state) {
    row.bytes = ++raw;
    cache_of_few.Normalize(objects[static_cast<std::size_t>(raw) % objects.size()], row.bytes);
  }
}

BENCHMARK(BareNormalize)->Name("BareNormalizeAlone")->UseRealTime()->Repetitions(5);
BENCHMARK(Normalize)->Name("NormalizeAlone")->UseRealTime()->Repetitions(5);
BENCHMARK(BareNormalize)->Name("BareNormalizeBoth")->Threads(2)->UseRealTime()->Repetitions(5);
BENCHMARK(Normalize)->Name("NormalizeBoth")->Threads(2)->UseRealTime()->Repetitions(5);

// --- Rows of a query

constexpr const char* kSelect = "select device, bytes, packets from traffic";

void BareQuery(benchmark::State& state) {
  sqlite3* db = nullptr;
  if (sqlite3_open(kDatabase, &db) != SQLITE_OK) std::abort();
  for (auto _ : state) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, kSelect, -1, &statement, nullptr);
    const auto text = [&](int column) {
      const auto* const bytes =
          reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      return std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    };
    const auto number = [&](int column) {
      const std::string digits = text(column);
      long value = 0;
      std::from_chars(digits.data(), digits.data() + digits.size(), value);
      return value;
    };
    while (sqlite3_step(statement) == SQLITE_ROW) {
      benchmark::DoNotOptimize(text(0));
      benchmark::DoNotOptimize(number(1));
      benchmark::DoNotOptimize(number(2));
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
}
BENCHMARK(BareQuery)->Unit(benchmark::kMillisecond)->Repetitions(5);

void FromQuery(benchmark::State& state) {
  const auto db = pnl_db::Cache::Open(std::string("sqlite:") + kDatabase);
  Row row;
  for (auto _ : state) {
    const auto query = db->Select(kSelect);
    while (query->Next()) row.FromQuery(query);
    benchmark::DoNotOptimize(row.bytes.Int());
  }
}
BENCHMARK(FromQuery)->Unit(benchmark::kMillisecond)->Repetitions(5);

// --- Memory

long ResidentKilobytes() {
  const std::string status = pnl_file::Read("/proc/self/status");
  return std::strtol(status.c_str() + status.find("VmRSS:") + 6, nullptr, 10);
}

/// What a process of its own grows by while it does `load`.
template <class Load>
double Growth(const Load& load) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  if (fork() == 0) {
    const long before = ResidentKilobytes();
    const auto loaded = load();
    const long growth = ResidentKilobytes() - before;
    _exit(write(ends[1], &growth, sizeof growth) == sizeof growth ? 0 : 1);
  }
  long growth = 0;
  if (read(ends[0], &growth, sizeof growth) != sizeof growth) std::abort();
  wait(nullptr);
  close(ends[0]);
  close(ends[1]);
  return static_cast<double>(growth);
}

void PrintMemory() {
  const double bare = Growth([] { return BareLoad(); });
  const double ours = Growth([] {
    auto cache = std::make_unique<counter::Cache>();
    cache->Load();
    return cache;
  });
  bench::PrintPeaks("memory of the cache", "bare map", ours, bare, "at most 1.2");
}

// --- Data

void MakeData() {
  std::filesystem::create_directory("var");
  BareMap map;
  for (int i = 0; i < kObjects; ++i) {
    for (int j = 0; j < kCounters; ++j) {
      map["node" + std::to_string(i) + ":eth0"]["counter_" + std::to_string(j)] =
          1000000007L * i * j;
    }
  }
  BareFlush(map);
  std::filesystem::rename("var/bare", kFile);
  const auto db = pnl_db::Cache::Open(std::string("sqlite:") + kDatabase);
  db->Execute("create table traffic (device text, bytes bigint, packets bigint)");
  db->Execute(
      "insert into traffic with recursive n(i) as (select 1 union all select i + 1 from n "
      "where i < " +
      std::to_string(kRows) + ") select 'node' || i || ':eth0', i * 1000003, i from n");
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Prefix prefix;
  cache_of_few.Load();  // while there is no file
  if (fork() == 0) {    // so that this process has no memory to spare before it is measured
    MakeData();
    _exit(0);
  }
  wait(nullptr);
  PrintMemory();
  return bench::Main(argc, argv,
                     {{"LoadFlush", "BareLoadFlush", "at most 1.5"},
                      {"NormalizeAlone", "BareNormalizeAlone", "at most 1.43", bench::Time::kClock},
                      {"NormalizeBoth", "BareNormalizeBoth", "at most 1.43", bench::Time::kClock},
                      {"FromQuery", "BareQuery", "at most 1.3"}});
}
