#include "pnl/client.h"

#include "support/temp_dir.h"

namespace {

class ClientTest : public support::TempDir {};

/// The text of the reply's root, or the error.
std::string Answer(const std::string& query) {
  try {
    return pnl_client::Local("core", "test").Query(query).GetRoot().Str();
  } catch (const pnl_err::Error& error) {
    const std::string text = error.what();
    return text.substr(0, text.find(" (reason="));
  }
}

TEST_F(ClientTest, TheUtilityGetsEveryWordAsItIs) {
  const std::string words =
      R"(printf '<doc>'; for word; do printf '{%s}' "$word"; done; echo '</doc>'; exit 1)";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {words, "func=frontd", "{-m}{core}{-o}{xml}{frontd}"},
      {words, "func=f.e&a=b c&d=$x'`;*&e=", "{-m}{core}{-o}{xml}{f.e}{a=b c}{d=$x'`;*}{e=}"},
      {"echo '<doc><error type=\"a\" object=\"b\"><param name=\"c\">d</param></error></doc>'",
       "func=f", "a b (c=d)"},
      {"echo no module >&2; exit 2", "func=f", "client reply core"},
  };
  EXPECT_EQ(Answer("func=f"), "missed module core");
  for (const auto& [script, query, answer] : cases) {
    PutProgram("sbin/pnlctl", script);
    EXPECT_EQ(Answer(query), answer) << script;
  }
  {
    const auto reply = [](const std::string& query) {
      return pnl_xml::Xml("<d>" + query + "</d>");
    };
    const auto empty = [](const std::string&) { return pnl_xml::Xml(); };
    const pnl_client::Module first("core", empty);
    const pnl_client::Module second("core", reply);
    const pnl_client::Module other("other", empty);
    EXPECT_EQ(Answer("func=f"), "func=f") << "the last module of that name comes first";
  }
  EXPECT_EQ(Answer("func=f"), "client reply core") << "a module that is gone is not asked";
}

}  // namespace
