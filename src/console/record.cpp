#include "console/record.h"

#include <algorithm>
#include <ctime>

namespace console {

std::string LocalTime(pnl_date::DateTime time) {
  const std::time_t seconds = time.Seconds();
  tm local{};
  char text[64];
  if (localtime_r(&seconds, &local) == nullptr) return time.Str();
  return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local)};
}

std::string SizeText(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto amount = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; amount >= 1023.95 && unit < 6; ++unit) amount /= 1024;
  return str::Format(unit == 0 ? "%.0f %s" : "%.1f %s", amount, kUnits[unit]);
}

Value::Value(std::vector<Record> records)
    : data_(std::make_shared<const std::vector<Record>>(std::move(records))) {}

std::optional<pnl_date::DateTime> ParseLocalTime(const std::string& text) {
  for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"}) {
    tm local{};
    const char* const end = strptime(text.c_str(), format, &local);
    // A year of two digits would be a year of the first century.
    if (end == nullptr || *end != '\0' || local.tm_year < 0) continue;
    const int day = local.tm_mday;
    local.tm_isdst = -1;  // the zone decides
    const std::time_t time = mktime(&local);
    if (local.tm_mday == day) return pnl_date::DateTime(time);  // false for February 30
  }
  return std::nullopt;
}

Record&& Record::Add(std::string name, Value value) && {
  fields.emplace_back(std::move(name), std::move(value));
  return std::move(*this);
}

Record& Record::Add(std::string name, Value value) & {
  fields.emplace_back(std::move(name), std::move(value));
  return *this;
}

const Value* Record::Find(std::string_view name) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const auto& field) { return field.first == name; });
  return found == fields.end() ? nullptr : &found->second;
}

}  // namespace console
