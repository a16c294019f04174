#include "pnl/date.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "pnl/err.h"

namespace {

using pnl_date::AccurateDateTime;
using pnl_date::DateTime;

TEST(DateTime, ParsesEveryForm) {
  const struct {
    std::time_t seconds;
    std::vector<const char*> texts;
  } table[] = {
      // A Sunday.
      {1772360430,
       {"2026-03-01T10:20:30", "2026-03-01T10:20:30.999Z", "2026-03-01T13:20:30+03:00",
        "2026-03-01T04:50:30-0530", "2026-03-01T13:20:30+03", "20260301T102030Z",
        "\t2026-03-01 10:20:30\r\n", "2026-03-01 13:20:30 +0300", "2026-03-01 10:20:30 UTC",
        "Sun, 01 Mar 2026 10:20:30 GMT", "Sun,1 Mar 2026 13:20:30 +0300", "1 MAR 2026 05:20:30 est",
        "1772360430"}},
      {1772360400, {"2026-03-01T10:20", "20260301T1020", "1 Mar 2026 10:20"}},
      {1709164800, {"2024-02-29", "20240229", "2024-02-28T23:59:60"}},
      {-1, {"-1", "1969-12-31T23:59:59.9", "1970-01-01T00:59:59+01:00"}},
      {2026030, {"2026030", "002026030"}},
      {1767225600,
       {"31 Dec 2025 20:00 EDT", "31 Dec 2025 19:00 CDT", "31 Dec 2025 18:00 MDT",
        "31 Dec 2025 18:00 CST", "31 Dec 2025 17:00 MST", "31 Dec 2025 16:00 PST"}},
      {-62135596800, {"0001-01-01"}},
      {253402300799, {"9999-12-31 23:59:59"}},
  };
  for (const auto& [seconds, texts] : table) {
    for (const char* text : texts) EXPECT_EQ(DateTime::Parse(text), DateTime(seconds)) << text;
  }
}

TEST(DateTime, RefusesEverythingElse) {
  const std::string_view table[] = {
      "", " ", "-", "+5", "1772360430.5", "9223372036854775808", "today", "2026-03", "2026-3-1",
      "2026-03-01x", "2026-03-01T", "2026-03-01T10", "2026-03-01T10:20:", "2026-03-01T10:20:30.",
      "2026-03-01T102030", "20260301T10:20", "20260301 102030", "2026-03-01T10:20:30+3",
      "2026-03-01T10:20:30+03:0", "2026-03-01T10:20:30+24:00", "2026-03-01T10:20:30+03:60",
      "2026-03-01T10:20:30UTC", "2026-03-01 10:20:30 MSK", "2026-03-01T10:20:30Z Z",
      "Sun, 01 Foo 2026 10:20:30", "Sun 01 Mar 2026 10:20:30", "01 Mar 26 10:20:30", "01 Mar 2026",
      std::string_view("2026-03-01\0", 11), "\xd9\xa2\xd9\xa0",
      // No such day, hour, minute or second.
      "2026-13-01", "2026-00-01", "20261301", "2026-02-30", "2025-02-29", "1900-02-29",
      "2026-04-31", "2026-03-00", "0000-01-01", "2026-03-01T24:00:00", "2026-03-01T10:60",
      "2026-03-01T10:20:61", "Mon, 01 Mar 2026 10:20:30 GMT"};
  for (const std::string_view text : table) EXPECT_FALSE(DateTime::Parse(text)) << text;
  EXPECT_THROW(DateTime("2026-02-30"), pnl_err::Error);
}

TEST(DateTime, PrintsWhatItReads) {
  EXPECT_EQ(DateTime().Str(), "1970-01-01 00:00:00");
  EXPECT_EQ(DateTime(253402300799).Str(), "9999-12-31 23:59:59");
  EXPECT_EQ(AccurateDateTime(-1).AsDateTime().Str(), "1969-12-31 23:59:59");
  EXPECT_EQ(DateTime("0033-04-03 15:00:00").Str(), "0033-04-03 15:00:00");

  using Limits = std::numeric_limits<std::time_t>;
  std::mt19937_64 random(7);  // NOLINT: the same run every time
  std::uniform_int_distribution<std::time_t> instants(-70000000000, 260000000000);
  std::vector<std::time_t> all(10000);
  std::generate(all.begin(), all.end(), [&] { return instants(random); });
  all.insert(all.end(), {Limits::min(), Limits::max()});
  for (const std::time_t seconds : all) {
    ASSERT_EQ(DateTime(DateTime(seconds).Str()), DateTime(seconds)) << seconds;
  }
}

}  // namespace
