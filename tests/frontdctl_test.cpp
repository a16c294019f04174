#include "brefir/frontdctl.h"

#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "support/lab.h"

namespace {

using Ports = std::vector<int>;
using Strings = std::vector<std::string>;

class FrontdCtlTest : public support::LabTest {};

TEST_F(FrontdCtlTest, AsksAndRestartsHereAndOnANode) {
  Strings queries;
  const pnl_client::Module core("core", [&](const std::string& query) {
    queries.push_back(query);
    return pnl_xml::Xml();
  });
  const support::LabNode node("debian12", {.log_commands = true});
  node.Exec(
      "mkdir -p /panel/sbin; printf '#!/bin/sh\n[ $5 != frontd ] && echo \"<doc/>\" || "
      "echo \"<doc><error type=\\\"a\\\" object=\\\"b\\\"/></doc>\"' "
      ">/panel/sbin/pnlctl; chmod +x /panel/sbin/pnlctl");
  FrontdCtl there(pnl_rpc::SSH(node.Login()));
  pnl_file::MkDir("/panel");
  std::filesystem::current_path("/panel");
  for (FrontdCtl frontd : {FrontdCtl(), there}) {
    frontd.Add("10.0.0.1", 80, false, true);
    frontd.Add("::1", 443, true, false);
    frontd.Delete("10.0.0.1:80");
    new FrontdRestartJob(frontd);
    pnl_job::Rollback();
    new FrontdRestartJob(frontd);
    pnl_job::Commit();
  }
  EXPECT_EQ(FrontdCtl().ErrorPort(), "");
  EXPECT_THROW((void)there.HasError(), pnl_err::Error);
  EXPECT_EQ(queries, (Strings{"func=frontd.edit&ip=10.0.0.1&port=80&sok=ok&sslauth=off&sslonly=on",
                              "func=frontd.edit&ip=::1&port=443&sok=ok&sslauth=on&sslonly=off",
                              "func=frontd.delete&elid=10.0.0.1:80", "func=frontd"}));
  const std::string ctl = "/panel/sbin/pnlctl -m core -o xml frontd";
  EXPECT_EQ(node.Commands(),
            (Strings{ctl + ".edit ip=10.0.0.1 port=80 sok=ok sslauth=off sslonly=on",
                     ctl + ".edit ip=::1 port=443 sok=ok sslauth=on sslonly=off",
                     ctl + ".delete elid=10.0.0.1:80", "service frontd restart", ctl + " "}));
}

TEST_F(FrontdCtlTest, ReadsTheList) {
  const struct {
    Strings entries;
    std::string ip;
    int port;
    bool listening;
    Ports ports;
  } cases[] = {
      {{}, "10.0.0.1", 1500, false, {}},
      {{"10.0.0.1"}, "10.0.0.1", 1500, true, {1500}},
      {{"10.0.0.1"}, "10.0.0.1", 8080, false, {1500}},
      {{"10.0.0.1"}, "10.0.0.", 1500, false, {}},
      {{"[::1]:443"}, "::1", 443, true, {}},
      {{"1.2.3.4:80", "1.2.3.4", "5.6.7.8:8", "1.2.3.4:80"}, "1.2.3.4", 80, true, {80, 1500, 80}},
      {{"a'b:1"}, "a'b", 1, true, {1}},
  };
  std::string list;
  const pnl_client::Module core(
      "core", [&](const std::string&) { return pnl_xml::Xml("<doc>" + list + "</doc>"); });
  FrontdCtl frontd;
  for (const auto& c : cases) {
    list.clear();
    for (const std::string& entry : c.entries) list += "<elem><port>" + entry + "</port></elem>";
    EXPECT_EQ(frontd.Listening(c.ip, c.port), c.listening) << list;
    Ports ports{7};
    EXPECT_EQ(frontd.Listening(c.ip, ports), !c.ports.empty());
    EXPECT_EQ(ports, c.ports) << list;
    EXPECT_FALSE(frontd.HasError());
  }
  list += "<elem><error>e</error><port>::</port></elem><elem><port>x</port><error/></elem>";
  EXPECT_TRUE(frontd.HasError());
  EXPECT_EQ(frontd.ErrorPort(), "::");
  EXPECT_EQ(FrontdCtl::SplitPort("1.2.3.4:80"),
            (std::pair<std::string, std::string>("1.2.3.4", "80")));
}

}  // namespace
