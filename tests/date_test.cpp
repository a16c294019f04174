#include "pnl/date.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "pnl/err.h"

namespace {

using pnl_date::AccurateDateTime;
using pnl_date::DateTime;

TEST(DateTime, ParsesEveryForm) {
  // 1772360430 is 2026-03-01 10:20:30 UTC, a Sunday.
  const std::pair<const char*, std::time_t> table[] = {
      {"2026-03-01", 1772323200},
      {"2026-03-01T10:20", 1772360400},
      {"2026-03-01T10:20:30", 1772360430},
      {"2026-03-01T10:20:30.999Z", 1772360430},
      {"2026-03-01T13:20:30+03:00", 1772360430},
      {"2026-03-01T04:50:30-0530", 1772360430},
      {"2026-03-01T13:20:30+03", 1772360430},
      {"20260301T102030Z", 1772360430},
      {"20260301T1020", 1772360400},
      {"\t2026-03-01 10:20:30\r\n", 1772360430},
      {"2026-03-01 13:20:30 +0300", 1772360430},
      {"2026-03-01 10:20:30 UTC", 1772360430},
      {"Sun, 01 Mar 2026 10:20:30 GMT", 1772360430},
      {"Sun,1 Mar 2026 13:20:30 +0300", 1772360430},
      {"1 MAR 2026 05:20 est", 1772360400},
      {"1772360430", 1772360430},
      {"20260301", 20260301},
      {"-1", -1},
      {"2024-02-29", 1709164800},
      {"2000-02-29T23:59:60", 951868800},
      {"1969-12-31T23:59:59.9", -1},
      {"0001-01-01", -62135596800},
      {"9999-12-31 23:59:59", 253402300799},
  };
  for (const auto& [text, seconds] : table) {
    const auto parsed = DateTime::Parse(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->Seconds(), seconds) << text;
  }
}

TEST(DateTime, RefusesEverythingElse) {
  const std::string_view table[] = {
      "", " ", "-", "+5", "1772360430.5", "9223372036854775808", "today", "2026-03", "2026-3-1",
      "2026-03-01x", "2026-03-01T", "2026-03-01T10", "2026-03-01T10:20:", "2026-03-01T10:20:30.",
      "2026-03-01T102030", "20260301T10:20", "20260301 102030", "2026-03-01T10:20:30+3",
      "2026-03-01T10:20:30+03:0", "2026-03-01T10:20:30+24:00", "2026-03-01T10:20:30+03:60",
      "2026-03-01T10:20:30UTC", "2026-03-01 10:20:30 MSK", "2026-03-01T10:20:30Z Z",
      // No such day, hour, minute or second.
      "2026-13-01", "2026-00-01", "2026-02-30", "2025-02-29", "1900-02-29", "2026-04-31",
      "2026-03-00", "0000-01-01", "2026-03-01T24:00:00", "2026-03-01T10:60", "2026-03-01T10:20:61",
      "Sun, 01 Foo 2026 10:20:30 GMT", "Mon, 01 Mar 2026 10:20:30 GMT", "Sun 01 Mar 2026 10:20:30",
      "01 Mar 26 10:20:30", "01Mar 2026 10:20:30", "01 Mar 2026",
      std::string_view("2026-03-01\0", 11), "\xd9\xa2\xd9\xa0"};
  for (const std::string_view text : table) EXPECT_FALSE(DateTime::Parse(text)) << text;

  try {
    DateTime("2026-02-30");
    FAIL();
  } catch (const pnl_err::Error& error) {
    EXPECT_STREQ(error.what(), "date parse 2026-02-30");
  }
}

TEST(DateTime, PrintsWhatItReads) {
  EXPECT_EQ(DateTime().Str(), "1970-01-01 00:00:00");
  EXPECT_EQ(DateTime(-1).Str(), "1969-12-31 23:59:59");
  EXPECT_EQ(DateTime("0033-04-03 15:00:00").Str(), "0033-04-03 15:00:00");

  using Limits = std::numeric_limits<std::time_t>;
  std::mt19937_64 random(7);  // NOLINT(bugprone-random-generator-seed): the same run every time
  std::uniform_int_distribution<std::time_t> instants(-70000000000, 260000000000);
  std::vector<std::time_t> seconds = {Limits::min(), Limits::max()};
  for (int i = 0; i < 10000; ++i) seconds.push_back(instants(random));
  for (const std::time_t second : seconds) {
    const DateTime instant(second);
    ASSERT_EQ(DateTime(instant.Str()), instant) << second;
  }
}

TEST(AccurateDateTime, IsCutToTheSecondBefore) {
  EXPECT_EQ(AccurateDateTime(1999999).AsDateTime().Seconds(), 1);
  EXPECT_EQ(AccurateDateTime(-1).AsDateTime().Seconds(), -1);
  EXPECT_GT(AccurateDateTime::Now().AsDateTime(), DateTime("2025-01-01"));
}

}  // namespace
