#include "pnl/date.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>
#include <span>

#include "pnl/err.h"
#include "pnl/str.h"
#include "pnl/test.h"

namespace pnl_date {
namespace {

namespace chrono = std::chrono;

/// Reads a text from left to right. A function that returns false has consumed nothing.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : rest_(text) {}

  bool AtEnd() const { return rest_.empty(); }
  bool AtDigit() const { return !AtEnd() && test::Numeric(rest_.front()); }

  bool Take(char c) {
    if (AtEnd() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }

  /// Exactly `digits` digits.
  bool Number(std::size_t digits, int& value) {
    if (rest_.size() < digits || !test::Numeric(rest_.substr(0, digits))) return false;
    value = str::Int(rest_.substr(0, digits));
    rest_.remove_prefix(digits);
    return true;
  }

  bool Spaces() {
    const bool any = Take(' ');
    while (Take(' ')) continue;
    return any;
  }

  void Digits() {
    while (AtDigit()) rest_.remove_prefix(1);
  }

  /// The letters up to the next other character, in lower case.
  std::string Word() {
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), is_letter);
    const auto size = static_cast<std::size_t>(end - rest_.begin());
    std::string word = str::Lower(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return word;
  }

 private:
  std::string_view rest_;
};

/// The fields of a text; only their form is checked.
struct Fields {
  int year = 0;
  int month = 0;
  int day = 0;
  int weekday = -1;  ///< from Sunday, 0; -1 when the text has none
  int hour = 0;
  int minute = 0;
  int second = 0;
  int offset = 0;  ///< minutes east of UTC
};

constexpr std::string_view kWeekdays[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr std::string_view kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};

struct Zone {
  std::string_view name;
  int hours;
};
/// The names of RFC 2822 section 4.3, and UTC. The military letters are left out: that section says
/// that their meaning is not known.
constexpr Zone kZones[] = {{"z", 0},    {"utc", 0},  {"ut", 0},   {"gmt", 0},
                           {"edt", -4}, {"est", -5}, {"cdt", -5}, {"cst", -6},
                           {"mdt", -6}, {"mst", -7}, {"pdt", -7}, {"pst", -8}};

bool TakeName(Cursor& in, std::span<const std::string_view> names, int& index) {
  const auto found = std::find(names.begin(), names.end(), in.Word());
  index = static_cast<int>(found - names.begin());
  return found != names.end();
}

bool TakeZoneName(Cursor& in, int& offset) {
  const auto* found = std::find_if(std::begin(kZones), std::end(kZones),
                                   [word = in.Word()](const Zone& z) { return z.name == word; });
  if (found == std::end(kZones)) return false;
  offset = found->hours * 60;
  return true;
}

/// "Z", "+03:00", "+0300", "+03", or after a space also a name; or nothing, which is UTC.
bool TakeZone(Cursor& in, Fields& fields) {
  const bool spaced = in.Spaces();
  if (in.AtEnd() || in.Take('Z')) return true;
  const bool west = in.Take('-');
  if (!west && !in.Take('+')) return spaced && TakeZoneName(in, fields.offset);
  int hours = 0;
  int minutes = 0;
  if (!in.Number(2, hours)) return false;
  if ((in.Take(':') || in.AtDigit()) && !in.Number(2, minutes)) return false;
  fields.offset = (west ? -1 : 1) * (hours * 60 + minutes);
  return hours < 24 && minutes < 60;
}

/// "10:20[:30[.5]]", or "1020[30[.5]]" without colons.
bool TakeClock(Cursor& in, bool colons, Fields& fields) {
  if (!in.Number(2, fields.hour) || (colons && !in.Take(':')) || !in.Number(2, fields.minute)) {
    return false;
  }
  if (!(colons ? in.Take(':') : in.AtDigit())) return true;
  if (!in.Number(2, fields.second)) return false;
  if (!in.Take('.')) return true;
  if (!in.AtDigit()) return false;
  in.Digits();
  return true;
}

/// ISO 8601, and the plain form with a space for the "T".
bool Iso(Cursor in, Fields& fields) {
  if (!in.Number(4, fields.year)) return false;
  const bool extended = in.Take('-');
  if (!in.Number(2, fields.month) || (extended && !in.Take('-')) || !in.Number(2, fields.day)) {
    return false;
  }
  if (in.AtEnd()) return true;
  if (!in.Take('T') && !(extended && in.Take(' '))) return false;
  return TakeClock(in, extended, fields) && TakeZone(in, fields) && in.AtEnd();
}

bool Rfc2822(Cursor in, Fields& fields) {
  if (!in.AtDigit()) {
    if (!TakeName(in, kWeekdays, fields.weekday) || !in.Take(',')) return false;
    in.Spaces();
  }
  if (!in.Number(2, fields.day) && !in.Number(1, fields.day)) return false;
  if (!in.Spaces() || !TakeName(in, kMonths, fields.month)) return false;
  ++fields.month;
  if (!in.Spaces() || !in.Number(4, fields.year) || !in.Spaces()) return false;
  return TakeClock(in, true, fields) && TakeZone(in, fields) && in.AtEnd();
}

std::optional<std::time_t> Epoch(std::string_view text) {
  constexpr std::size_t kBasicDate = 8;  // digits; seconds since the epoch would be in 1970
  if (text.size() == kBasicDate && test::Numeric(text)) return std::nullopt;
  std::time_t seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, seconds);
  if (text.empty() || stop != end || failure != std::errc()) return std::nullopt;
  return seconds;
}

/// The time that the fields stand for, if it exists.
std::optional<DateTime> Instant(const Fields& fields) {
  const chrono::year_month_day date(chrono::year(fields.year),
                                    chrono::month(static_cast<unsigned>(fields.month)),
                                    chrono::day(static_cast<unsigned>(fields.day)));
  if (fields.year == 0 || !date.ok()) return std::nullopt;
  const chrono::sys_days day(date);
  if (fields.weekday >= 0 &&
      chrono::weekday(day) != chrono::weekday(static_cast<unsigned>(fields.weekday))) {
    return std::nullopt;
  }
  if (fields.hour > 23 || fields.minute > 59 || fields.second > 60) return std::nullopt;
  const chrono::sys_seconds instant = day + chrono::hours(fields.hour) +
                                      chrono::minutes(fields.minute - fields.offset) +
                                      chrono::seconds(fields.second);
  return DateTime(instant.time_since_epoch().count());
}

// 0001-01-01 00:00:00 and 9999-12-31 23:59:59.
constexpr std::time_t kFirstSecond = -62135596800;
constexpr std::time_t kLastSecond = 253402300799;

}  // namespace

DateTime::DateTime(std::string_view text) {
  const std::optional<DateTime> parsed = Parse(text);
  if (!parsed) throw pnl_err::Error("date", "parse", text);
  *this = *parsed;
}

std::optional<DateTime> DateTime::Parse(std::string_view text) {
  const std::string_view trimmed = str::TrimView(text);
  if (const auto seconds = Epoch(trimmed)) return DateTime(*seconds);
  for (const auto form : {Iso, Rfc2822}) {
    Fields fields;
    if (form(Cursor(trimmed), fields)) return Instant(fields);
  }
  return std::nullopt;
}

DateTime DateTime::Now() {
  return AccurateDateTime::Now().AsDateTime();
}

std::string DateTime::Str() const {
  if (seconds_ < kFirstSecond || seconds_ > kLastSecond) return fmt::to_string(seconds_);
  const chrono::sys_seconds instant{chrono::seconds(seconds_)};
  const auto day = chrono::floor<chrono::days>(instant);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss time(instant - day);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count());
}

AccurateDateTime AccurateDateTime::Now() {
  const auto now = chrono::system_clock::now().time_since_epoch();
  return AccurateDateTime(chrono::floor<chrono::microseconds>(now).count());
}

DateTime AccurateDateTime::AsDateTime() const {
  return DateTime(chrono::floor<chrono::seconds>(chrono::microseconds(microseconds_)).count());
}

}  // namespace pnl_date
