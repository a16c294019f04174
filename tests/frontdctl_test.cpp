#include "brefir/frontdctl.h"

#include <functional>

#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "support/lab.h"

namespace {

using Ports = std::vector<int>;
using Strings = std::vector<std::string>;

constexpr const char* kRestarts = "/var/lib/frontd.restarts";

/// Works in a panel's prefix.
class FrontdCtlTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    pnl_file::MkDir("/panel/var");
    std::filesystem::current_path("/panel");
  }
};

pnl_rpc::SSH Session(const support::LabNode& node) {
  return pnl_rpc::SSH({.host = node.Address(),
                       .key_file = support::LabKey(),
                       .known_hosts = support::LabKnownHosts()});
}

/// Everything that asks the module, in a row.
void CallAll(FrontdCtl& frontd) {
  Ports ports;
  frontd.Add("10.0.0.1", 80, false, true);
  frontd.Add("::1", 443, true, false);
  frontd.Delete("10.0.0.1:80");
  (void)frontd.Listening("10.0.0.1", 80);
  frontd.Listening("10.0.0.1", ports);
  (void)frontd.HasError();
  (void)frontd.ErrorPort();
}

TEST_F(FrontdCtlTest, QueriesOfThisHost) {
  Strings queries;
  const pnl_client::Module core("core", [&](const std::string& query) {
    queries.push_back(query);
    return pnl_xml::Xml();
  });
  FrontdCtl frontd;
  CallAll(frontd);
  EXPECT_EQ(queries, (Strings{"func=frontd.edit&ip=10.0.0.1&port=80&sok=ok&sslauth=off&sslonly=on",
                              "func=frontd.edit&ip=::1&port=443&sok=ok&sslauth=on&sslonly=off",
                              "func=frontd.delete&elid=10.0.0.1:80", "func=frontd", "func=frontd",
                              "func=frontd", "func=frontd"}));
}

TEST_F(FrontdCtlTest, CommandsOnANode) {
  const support::LabNode node("debian12", {.log_commands = true});
  node.Exec(
      "mkdir -p /panel/sbin; printf '#!/bin/sh\n[ $5 != frontd.delete ] && echo \"<doc/>\" || "
      "echo \"<doc><error type=\\\"missed\\\" object=\\\"listen\\\"/></doc>\"' "
      ">/panel/sbin/pnlctl; chmod +x /panel/sbin/pnlctl");
  FrontdCtl frontd(Session(node));
  EXPECT_THROW(CallAll(frontd), pnl_err::Error);
  (void)frontd.HasError();
  const std::string ctl = "/panel/sbin/pnlctl -m core -o xml frontd";
  EXPECT_EQ(node.Commands(),
            (Strings{ctl + ".edit ip=10.0.0.1 port=80 sok=ok sslauth=off sslonly=on",
                     ctl + ".edit ip=::1 port=443 sok=ok sslauth=on sslonly=off",
                     ctl + ".delete elid=10.0.0.1:80", ctl + " "}));
  node.Kill();
  EXPECT_THROW((void)frontd.HasError(), pnl_err::Error) << "a lost node has no good entries";
}

TEST_F(FrontdCtlTest, ReadsTheList) {
  const struct {
    std::string elems;
    std::string ip;
    int port;
    bool listening;
    Ports ports;
    std::string error_port;
  } cases[] = {
      {"", "10.0.0.1", 1500, false, {}, ""},
      {"<elem><port>10.0.0.1</port></elem>", "10.0.0.1", 1500, true, {1500}, ""},
      {"<elem><port>10.0.0.1</port></elem>", "10.0.0.1", 8080, false, {1500}, ""},
      {"<elem><port>10.0.0.1</port></elem>", "10.0.0.", 1500, false, {}, ""},
      {"<elem><port>[::1]:443</port></elem>", "::1", 443, true, {}, ""},
      {"<elem><port>[::1]</port></elem>", "::1", 1500, true, {}, ""},
      {"<elem><port>1.2.3.4:80</port></elem><elem><port>1.2.3.4</port></elem>"
       "<elem><port>5.6.7.8:80</port></elem><elem><port>1.2.3.4:80</port></elem>",
       "1.2.3.4",
       80,
       true,
       {80, 1500, 80},
       ""},
      {"<elem><port>1.1.1.1:1</port></elem><elem><error>e</error><port>2.2.2.2:2</port></elem>"
       "<elem><port>3.3.3.3</port><error/></elem>",
       "1.1.1.1",
       1,
       true,
       {1},
       "2.2.2.2:2"},
      {"<elem><port>a'b:1</port></elem>", "a'b", 1, true, {1}, ""},
  };
  for (const auto& c : cases) {
    const pnl_client::Module core(
        "core", [&](const std::string&) { return pnl_xml::Xml("<doc>" + c.elems + "</doc>"); });
    FrontdCtl frontd;
    EXPECT_EQ(frontd.Listening(c.ip, c.port), c.listening) << c.elems;
    Ports ports{7};
    EXPECT_EQ(frontd.Listening(c.ip, ports), !c.ports.empty());
    EXPECT_EQ(ports, c.ports) << c.elems;
    EXPECT_EQ(frontd.HasError(), !c.error_port.empty());
    EXPECT_EQ(frontd.ErrorPort(), c.error_port);
  }
  using Pair = std::pair<std::string, std::string>;
  EXPECT_EQ(FrontdCtl::SplitPort("1.2.3.4:1500"), Pair("1.2.3.4", "1500"));
  EXPECT_EQ(FrontdCtl::SplitPort("a"), Pair("a", ""));
  EXPECT_EQ(FrontdCtl::SplitPort("::1"), Pair("", ":1"));
}

TEST_F(FrontdCtlTest, RestartsOnCommitOnly) {
  const support::LabNode node;
  const auto here = [] { return pnl_file::Read(kRestarts); };
  const auto there = [&] { return pnl_file::Read(node.Root() / (kRestarts + 1)); };
  const auto make = [&] {
    new FrontdRestartJob(FrontdCtl());
    new FrontdRestartJob(FrontdCtl(Session(node)));
  };
  make();
  pnl_job::Rollback();
  EXPECT_EQ(here() + there(), "");
  make();
  EXPECT_EQ(here() + there(), "");
  pnl_job::Commit();
  EXPECT_EQ(here() + there(), "1\n1\n");

  node.Exec("rm /etc/init.d/frontd");
  FrontdCtl(Session(node)).Restart();
  EXPECT_EQ(there(), "1\n");
}

}  // namespace
