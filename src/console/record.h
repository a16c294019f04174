#pragma once

#include <compare>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "pnl/date.h"
#include "pnl/str.h"

/// Records of named, typed fields: the output of the programs.
namespace console {

struct Record;

/// A size, which people see with a unit ("1.5 GiB") and programs as a number of bytes.
struct Bytes {
  std::int64_t count = 0;
  auto operator<=>(const Bytes&) const = default;
};
/// The size as people see it.
[[nodiscard]] std::string SizeText(std::uint64_t bytes);

/// The value of a field. For people, a list is its items with commas, a map is "name=value" with
/// commas, null is "-", a boolean is "yes" or "no", and a time is local time with its zone. For
/// programs, a time is "YYYY-MM-DDTHH:MM:SSZ" in UTC.
class Value {
 public:
  // A pointer, because a record contains values.
  using Records = std::shared_ptr<const std::vector<Record>>;
  using Data =
      std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, Bytes, std::string,
                   std::vector<std::string>, StringMap, pnl_date::DateTime, Records>;

  Value() = default;  ///< null
  Value(bool flag) : data_(flag) {}
  template <std::integral T>
  Value(T number) : data_(Number(number)) {}
  Value(double number) : data_(number) {}
  Value(Bytes size) : data_(size) {}
  Value(std::string text) : data_(std::move(text)) {}
  Value(std::string_view text) : data_(std::string(text)) {}
  Value(const char* text) : data_(std::string(text)) {}
  Value(std::vector<std::string> list) : data_(std::move(list)) {}
  Value(const StringSet& set) : data_(std::vector<std::string>(set.begin(), set.end())) {}
  Value(StringMap map) : data_(std::move(map)) {}
  Value(pnl_date::DateTime time) : data_(time) {}
  Value(std::vector<Record> records);
  template <class T>
  Value(const std::optional<T>& value) : Value(value ? Value(*value) : Value()) {}

  const Data& Get() const { return data_; }

 private:
  template <class T>
  static Data Number(T number) {
    if constexpr (std::unsigned_integral<T>) {
      return std::uint64_t{number};
    } else {
      return std::int64_t{number};
    }
  }

  Data data_;
};

/// "YYYY-MM-DD HH:MM:SS ZONE", for people.
[[nodiscard]] std::string LocalTime(pnl_date::DateTime time);
/// Parses a local time, "YYYY-MM-DD", "YYYY-MM-DD HH:MM" or "YYYY-MM-DD HH:MM:SS"; null for
/// anything else.
[[nodiscard]] std::optional<pnl_date::DateTime> ParseLocalTime(const std::string& text);

/// Fields in order: Record().Add("id", id).Add("size", size).
struct Record {
  std::vector<std::pair<std::string, Value>> fields;

  Record&& Add(std::string name, Value value) &&;
  Record& Add(std::string name, Value value) &;
  const Value* Find(std::string_view name) const;  ///< nullptr when there is none
};

/// A field that a command's records have.
struct Field {
  std::string name;
  std::string meaning;    ///< "" means the same as the previous field
  std::string when = {};  ///< "with --wait"; "" for always

  bool operator==(const Field&) const = default;
};

}  // namespace console
