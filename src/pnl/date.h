#pragma once

#include <compare>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// Points in time, in UTC.
namespace pnl_date {

/// A point in time in whole seconds. The default value is the epoch, 1970-01-01 00:00:00.
class PNL_API DateTime {
 public:
  DateTime() = default;
  explicit DateTime(std::time_t seconds_since_epoch) : seconds_(seconds_since_epoch) {}
  /// Parses `text` (see Parse); throws pnl_err::Error("date", "parse", text) for anything else.
  explicit DateTime(std::string_view text);
  explicit DateTime(const std::string& text) : DateTime(std::string_view(text)) {}
  explicit DateTime(const char* text) : DateTime(std::string_view(text)) {}

  /// Accepts, with white space around it ignored:
  ///   ISO 8601   "2026-03-01", "2026-03-01T10:20[:30[.5]][zone]", "20260301", "20260301T102030Z"
  ///   plain      "2026-03-01 10:20[:30[.5]][zone]"
  ///   RFC 2822   "Sun, 01 Mar 2026 10:20:30 +0300", weekday and seconds optional
  ///   epoch      "1772360430": an optional minus sign and digits
  /// A zone is "Z", "+03:00", "+0300", "+03", or after a space also UTC, UT, GMT or one of the
  /// North American names of RFC 2822 section 4.3. A text without a zone is UTC. Fractions of a
  /// second are cut off. A leap second (:60) is the first second of the next minute. Impossible
  /// dates (month 13, 30 February, a wrong weekday) and the year 0 are refused. Eight digits alone
  /// are a date, never seconds since the epoch.
  static std::optional<DateTime> Parse(std::string_view text);

  static DateTime Now();  ///< wall clock

  /// "YYYY-MM-DD HH:MM:SS"; outside the years 1 to 9999 the seconds since the epoch. Parse reads
  /// both.
  std::string Str() const;
  std::time_t Seconds() const { return seconds_; }
  explicit operator std::time_t() const { return seconds_; }

  friend auto operator<=>(const DateTime&, const DateTime&) = default;

 private:
  std::time_t seconds_ = 0;
};

/// A point in time in microseconds, for measuring and logging.
class PNL_API AccurateDateTime {
 public:
  explicit AccurateDateTime(std::int64_t microseconds_since_epoch = 0)
      : microseconds_(microseconds_since_epoch) {}
  static AccurateDateTime Now();  ///< wall clock
  std::int64_t Microseconds() const { return microseconds_; }
  DateTime AsDateTime() const;  ///< rounded down to the second

 private:
  std::int64_t microseconds_;
};

}  // namespace pnl_date
