#include "pnl/client.h"

#include <optional>

#include "support/temp_dir.h"

namespace {

class ClientTest : public support::TempDir {
 protected:
  /// Lets sbin/pnlctl be this shell script.
  static void Utility(const std::string& script) {
    Put("sbin/pnlctl", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions("sbin/pnlctl", std::filesystem::perms::owner_all);
  }
};

/// The reply's text below the root, or the error.
std::string Answer(const std::string& query) {
  try {
    return pnl_client::Local("core", "test").Query(query).GetRoot().Str();
  } catch (const pnl_err::Error& error) {
    const std::string text = error.what();
    return text.substr(0, text.find(" (reason="));
  }
}

TEST_F(ClientTest, TheUtilityIsRunWithEveryWordAsItIs) {
  const std::string words =
      R"(printf '<doc>'; for word; do printf '{%s}' "$word"; done; echo '</doc>'; exit 1)";
  const struct {
    std::string script;
    std::string query;
    std::string answer;
  } cases[] = {
      {words, "func=frontd", "{-m}{core}{-o}{xml}{frontd}"},
      {words, "func=f.e&a=b c&d=$x'`;*&e=", "{-m}{core}{-o}{xml}{f.e}{a=b c}{d=$x'`;*}{e=}"},
      {"echo '<doc><error type=\"missed\" object=\"listen\"><param name=\"value\">x</param>"
       "</error></doc>'; exit 1",
       "func=f", "missed listen (value=x)"},
      {"echo no module >&2; exit 2", "func=f", "client reply core"},
      {"echo '<doc>'; kill -9 $$", "func=f", "client reply core"},
  };
  EXPECT_EQ(Answer("func=f"), "missed module core");
  for (const auto& c : cases) {
    Utility(c.script);
    EXPECT_EQ(Answer(c.query), c.answer) << c.script;
  }
}

TEST_F(ClientTest, ModulesOfThisProcessComeFirst) {
  Utility("echo '<doc>utility</doc>'");
  const auto answer = [](const std::string& name) {
    return [name](const std::string& query) {
      return pnl_xml::Xml("<doc>" + name + " " + query + "</doc>");
    };
  };
  {
    const pnl_client::Module other("other", answer("other"));
    EXPECT_EQ(Answer("func=f"), "utility");
    std::optional<pnl_client::Module> first;
    first.emplace("core", answer("first"));
    const pnl_client::Module second("core", answer("second"));
    EXPECT_EQ(Answer("func=f"), "second func=f");
    first.reset();
    EXPECT_EQ(Answer("func=f"), "second func=f");
  }
  EXPECT_EQ(Answer("func=f"), "utility");
}

TEST_F(ClientTest, AnErrorComesThroughAReply) {
  pnl_err::Error error("value", "port", "<0> & \"more\"");
  error.add_param("message", "not\na port");
  const pnl_xml::Xml reply(pnl_client::ErrorReply(error).Str(true));
  try {
    pnl_client::ThrowError(reply);
    ADD_FAILURE() << "no error in " << reply.Str();
  } catch (const pnl_err::Error& got) {
    EXPECT_EQ(got.type() + got.object(), "valueport");
    EXPECT_EQ(got.param("value"), error.value());
    EXPECT_EQ(got.param("message"), "not\na port");
  }
  pnl_client::ThrowError(pnl_xml::Xml("<doc><elem><error>no address</error></elem></doc>"));
}

}  // namespace
