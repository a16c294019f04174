#include "brefir/str_utils.h"

#include <gtest/gtest.h>

#include <locale>

#include "pnl/err.h"
#include "pnl/proc.h"
#include "pnl/test.h"
#include "support/error_of.h"

namespace {

TEST(Str, CutsWords) {
  const struct {
    const char* text;
    std::string_view separator;  // "": the form that splits at white space
    const char* word;
    const char* rest;
  } rows[] = {{" \t\v\f\r a  b c ", "", "a", "b c "},
              {"   ", "", "", ""},
              {"last", "", "last", ""},
              {"a=b=c", "=", "a", "b=c"},
              {"a", "=", "a", ""},
              {"a::b", "::", "a", "b"},
              {"=x", "=", "", "x"}};
  for (const auto& row : rows) {
    std::string text = row.text;
    const std::string word =
        row.separator.empty() ? str::GetWord(text) : str::GetWord(text, row.separator);
    EXPECT_EQ(word, row.word) << row.text;
    EXPECT_EQ(text, row.rest) << row.text;
  }
  std::string commented = " # a#kernel.x";
  EXPECT_EQ(str::RGetWord(commented, "#"), "kernel.x");
  EXPECT_EQ(commented, " # a");
}

TEST(Str, ParsesNumbersAsStrtolAndSaturates) {
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  const struct {
    const char* text;
    int narrow;
    std::int64_t wide;
  } rows[] = {{" \t+12abc", 12, 12},
              {"-7", -7, -7},
              {"", 0, 0},
              {"+-5", 0, 0},
              {"- 5", 0, 0},
              {"0x10", 0, 0},
              {"2147483648", kMax, 2147483648},
              {"-99999999999999999999", kMin, std::numeric_limits<std::int64_t>::min()},
              {"+99999999999999999999x", kMax, std::numeric_limits<std::int64_t>::max()}};
  for (const auto& row : rows) {
    EXPECT_EQ(str::Int(row.text), row.narrow) << row.text;
    EXPECT_EQ(str::Int64(row.text), row.wide) << row.text;
  }
}

TEST(Str, ReplacesInOnePassLongestKeyFirst) {
  const struct {
    StringMap map;
    const char* text;
    const char* result;
  } rows[] = {{{{"a", "b"}, {"b", "a"}}, "abba", "baab"},
              {{{"{A}", "1"}, {"{A}{B}", "12"}, {"{B}", "{A}"}}, "{A}{B}{A}{B", "121{B"},
              {{{"{A}", "{A}{A}"}}, "x{A}y", "x{A}{A}y"},
              {{{"", "never"}, {"{{", "<"}}, "{{{", "<{"},
              {{}, "same", "same"}};
  for (const auto& row : rows) {
    EXPECT_EQ(str::Replace(row.text, row.map), row.result) << row.text;
  }
  EXPECT_EQ(str::Replace("aaa", "aa", "b"), "ba");
}

TEST(Str, MakesKeys) {
  EXPECT_EQ(str::Append("a", "b", ":") + str::Append("a", "", ":") + str::Append("", "b", ":"),
            "a:bab");
  EXPECT_EQ(str::Upper("azAZ`{\xe4") + str::Lower("azAZ@["),
            "AZAZ`{\xe4"
            "azaz@[");
  EXPECT_EQ(str::Shorten("foobar", 6), "foobar");
  EXPECT_EQ(str::Shorten("foobarfoobarfoobar", 17), "~ab8884e58c0b2508");
  EXPECT_EQ(str::Hash("foobar"), 0x85944171f73967e8U);
  std::string text;
  EXPECT_TRUE(str::PercentDecode("a%20%2Fb%25", text));
  EXPECT_EQ(text, "a /b%");
  for (const char* bad : {"%", "%2", "a%2g", "%-1"}) EXPECT_FALSE(str::PercentDecode(bad, text));
}

TEST(Str, WithoutCredentialsTellsHostsOnly) {
  const std::pair<const char*, const char*> rows[] = {
      {"get 'http://u:p@h/x@y' ftp://u@h:21, HTTPS://a:b@c@h?q=@",
       "get 'http://h/x@y' ftp://h:21, HTTPS://h?q=@"},
      {"http:/u:p@h/ http:///u:p@h ssh://u:p@[::1]:22/", "http:/h/ http:///h ssh://[::1]:22/"},
      {"http://u:p/a#s?s@h/x", "http://h/x"},  // no address, yet a password
      {"http://h:80/a@b http://[::1]/a@b http://h: a@b",
       "http://h:80/a@b http://[::1]/a@b http://h: a@b"},
      {"file:///a:b@c root@h:/x@y a@b.c :/ ://", "file:///a:b@c root@h:/x@y a@b.c :/ ://"},
  };
  for (const auto& [text, told] : rows) EXPECT_EQ(str::WithoutCredentials(text), told);
}

TEST(Str, FormatChecksItsArguments) {
  EXPECT_EQ(str::Format("%s:%d %06x %5.2f%% %lld", std::string("a\0b", 3), -4, 0x20103U, 1.5, 7LL),
            std::string("a\0b:-4 020103  1.50% 7", 22));
  for (const char* format : {"%s %s", "%s%", "%s %q"}) {
    EXPECT_EQ(support::ErrorOf([&] { (void)str::Format(format, "x"); }), "format") << format;
  }
}

TEST(StrUtils, HasTailKeepsItsWrap) {
  EXPECT_TRUE(str::HasTail("abc", ""));
  EXPECT_TRUE(str::HasTail("ab", "abc"));
  EXPECT_TRUE(str::HasTail("ab", "xyz"));
  EXPECT_FALSE(str::HasTail("ab", "xabc"));
  EXPECT_FALSE(str::HasTail("ab", "b "));
  EXPECT_TRUE(str::HasTail("abcbc", "bc"));
}

TEST(StrUtils, ToUInt32CutsToLowBits) {
  const struct {
    const char* text;
    int base;
    std::uint32_t number;
    const char* rest;
  } rows[] = {{"12abc", 10, 12, "abc"},    {"0x1F", 0, 31, ""},
              {"017,", 0, 15, ","},        {"4294967296", 10, 0, ""},
              {"-1", 10, 4294967295U, ""}, {"99999999999999999999", 10, 4294967295U, ""},
              {" none", 10, 0, " none"},   {"12", 1, 0, "12"},
              {"12", 37, 0, "12"}};
  for (const auto& row : rows) {
    std::string text = row.text;
    EXPECT_EQ(str::ToUInt32(text, text, row.base), row.number) << row.text;
    EXPECT_EQ(text, row.rest);
  }
}

TEST(StrUtils, Unquotes) {
  const char* rows[][4] = {{"  |x y|  ", "|", "", "x y"}, {"|x", "|", "", "|x"},
                           {"|", "|", "", "|"},           {"[a]", "[", "]", "a"},
                           {"[a", "[", "]", "[a"},        {"[]", "[", "]", ""},
                           {"[ a ]", "[", "]", " a "},    {"''a''", "'", "", "'a'"}};
  for (const auto& row : rows) EXPECT_EQ(str::Unquote(row[0], row[1], row[2]), row[3]) << row[0];
}

TEST(StrUtils, SplitsAndJoins) {
  StringMap map;
  str::SplitConfig("# c\n a = 1 = 2 \n\nb\n", map, "=", "#");
  str::SplitConfig("#=c", map, "=", "");
  EXPECT_EQ(map, (StringMap{{"#", "c"}, {"a", "1 = 2"}, {"b", ""}}));
  map.clear();
  str::SplitConfig("  key \t some value \n\n#x\nkey two", map);
  EXPECT_EQ(map, (StringMap{{"#x", ""}, {"key", "two"}}));
  map["#x"] = "#x " + std::string(100, 'x') + "\ny z";  // the text itself is among what is replaced
  str::SplitConfig(map["#x"], map);
  EXPECT_EQ(map, (StringMap{{"#x", std::string(100, 'x')}, {"key", "two"}, {"y", "z"}}));
  EXPECT_EQ(str::SplitParamsRaw("a=1&b=&a=3& c =d=e", "&", "="),
            (StringMap{{" c ", "d=e"}, {"a", "3"}, {"b", ""}}));
  EXPECT_EQ(str::JoinParams({{"a", "1"}, {"b", ""}}, "&", "="), "a=1&b=");
  EXPECT_EQ(str::JoinParams({}, "&", "="), "");
  EXPECT_EQ(str::Join(std::vector<std::string>{"b", "", "a"}, ","), "b,a");
  std::vector<std::string> pieces;
  str::Split("a,,b,", ",", pieces);
  EXPECT_EQ(pieces, (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(StrUtils, FillsTemplates) {
  EXPECT_EQ(str::Fmt("rm -f ? 100%", "x"), "rm -f x 100%");
  EXPECT_EQ(str::Fmt("kill -? ?", 15, -4711), "kill -15 -4711");
  EXPECT_EQ(str::Fmt("?:?:?", "%s", "?", "{A}"), "%s:?:{A}");
  EXPECT_THROW((void)str::Fmt("? ? ?", "a", "b"), pnl_err::Error);
  using str::formater::MkNamed;
  const auto user = MkNamed<std::string>("user", "u");
  const auto host = MkNamed<std::string>("Host", "{USER}");
  const auto port = MkNamed<std::string>("port", "22");
  EXPECT_EQ(str::Fmt2("{USER} on {HOST} as {USER} {user} {X}", user, host, port),
            "u on {USER} as u {user} {X}");
}

TEST(TextTests, TellAddressesAndNames) {
  for (const char* good : {"::1", "fe80::1", "2001:db8::8:800:200c:417a", "::ffff:10.0.0.1"}) {
    EXPECT_TRUE(test::Ip6(good)) << good;
  }
  using namespace std::string_view_literals;
  for (const auto bad : {"[::1]"sv, "10.0.0.1"sv, ""sv, "::1%eth0"sv, "::1\0x"sv, ":::"sv}) {
    EXPECT_FALSE(test::Ip6(bad)) << bad;
  }
  EXPECT_TRUE(test::PathComponent("main__Debian 12"));
  EXPECT_TRUE(test::PathComponent("..."));
  for (const auto bad : {""sv, "."sv, ".."sv, "a/b"sv, "/"sv, "a\0"sv}) {
    EXPECT_FALSE(test::PathComponent(bad)) << bad;
  }
}

TEST(Str, WritesNumbersForMachines) {
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  EXPECT_EQ(str::ToStr(1234567) + str::ToStr(true) + str::ToStr(false), "1234567truefalse");
  EXPECT_EQ(str::Fmt("kill -? ?", 15, 123456), "kill -15 123456");
  pnl_proc::Execute cat("cat");
  cat.In() << 1234567;
  EXPECT_EQ(cat.Str(), "1234567");
  std::locale::global(before);
}

TEST(Err, KeepsItsTypeWithParameters) {
  EXPECT_THROW(throw pnl_err::Missed("a", "b").add_param("c", "d"), pnl_err::Missed);
  EXPECT_THROW(throw pnl_err::Access("a", "b").add_param("c", "d"), pnl_err::Access);
}

}  // namespace
