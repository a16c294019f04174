// The file of the counters, and the arithmetic with its values.

#include <string>

#include "brefir/stat_raw.h"
#include "check.h"
#include "pnl/str.h"

namespace {

constexpr const char* kFile = "var/stat.counters";

using Numbers = std::map<std::string, std::map<std::string, std::int64_t>>;

class Row : public Stat::Recordset {
 public:
  std::string Name() const override { return "row"; }
  Stat::DataField bytes{this, "bytes", true, Stat::Sum};
};

Numbers All(counter::Cache& cache) {
  Numbers numbers;
  for (const auto& [name, values] : cache.GetCounters()) {
    for (const auto& [cname, value] : values) numbers[name][cname] = value.Val();
  }
  return numbers;
}

/// A simple parser as a model: a line needs two words, and "#" begins a comment. It does not
/// support encoded names.
Numbers Model(std::string text) {
  Numbers numbers;
  while (!text.empty()) {
    std::string line = str::GetWord(text, '\n');
    const std::string name = str::GetWord(line);
    const std::string cname = str::GetWord(line);
    if (!cname.empty() && !name.starts_with('#')) numbers[name][cname] = str::Int64(line);
  }
  return numbers;
}

/// Computed with more bits, then cut to 64.
std::int64_t Increase(std::int64_t before, std::int64_t now) {
  const __int128 increase = now < before ? __int128{now} : __int128{now} - before;
  return static_cast<std::int64_t>(increase);
}

/// Samples every counter anew as `raw`, and sums the increases up.
void CheckNormalize(counter::Cache& cache, const Numbers& numbers, std::int64_t raw) {
  Row total;
  __int128 sum = 0;
  for (const auto& [name, values] : numbers) {
    for (const auto& [cname, before] : values) {
      Row row;
      Stat::DataField field(&row, cname, true, Stat::Sum);
      field = raw;
      cache.Normalize(name, field);
      fuzz::Check(field.Int() == Increase(before, raw), "the increase");
      fuzz::Check(cache.GetCounter(name, cname).Val() == raw, "the sample is kept");
      sum += field.Int();
      total.bytes.Fold(&field);
    }
  }
  fuzz::Check(total.bytes.Int() == static_cast<std::int64_t>(sum), "the sum wraps around");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  const std::int64_t raw = str::Int64(str::GetWord(text, '\n'));
  fuzz::Put(kFile, text);
  counter::Cache cache;
  cache.Load();
  const Numbers numbers = All(cache);
  if (text.find("%%") == std::string::npos) fuzz::Check(numbers == Model(text), "what is loaded");
  cache.Flush();
  counter::Cache again;
  again.Load();
  fuzz::Check(All(again) == numbers, "what was flushed loads again");
  CheckNormalize(again, numbers, raw);
  return 0;
}
