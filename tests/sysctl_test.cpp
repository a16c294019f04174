#include "brefir/sysctl.h"

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "support/lab.h"

namespace {

constexpr const char* kConf = "/etc/sysctl.conf";
constexpr const char* kForward = "net.ipv4.ip_forward";

TEST(SysctlRewriteTest, EachParameterOnce) {
  const struct {
    std::string before, after;  // of b = 2 and a.x = 1
  } cases[] = {
      {"", "a.x = 1\nb = 2\n"},
      {"\nc=3\n#b = 0\n b\t=0=\nb = 4\na.x", "\nc=3\n#b = 0\nb = 2\nb = 4\na.x = 1\n"},
      {"  #b = 1\n  # b = 1\n  ##a.x = 3\n b=5", "b = 2\n  # b = 1\na.x = 1\n b=5\n"},
      {"a.x = 0 # note\n\r\nbb = 2", "a.x = 1\n\r\nbb = 2\nb = 2\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sysctl::Rewrite(c.before, {{"b", "2"}, {"a.x", "1"}}), c.after);
  }
  EXPECT_EQ(sysctl::Rewrite("  #b=1", {}), "  #b=1\n");
}

class SysctlTest : public support::LabTest {
 protected:
  static pnl_rpc::SSH Session(const support::LabNode& node) {
    return pnl_rpc::SSH({.host = node.Address(),
                         .key_file = support::LabKey(),
                         .known_hosts = support::LabKnownHosts()});
  }
};

TEST_F(SysctlTest, ChangesHereAndOnANode) {
  const support::LabNode node;
  const std::string remote = node.Root() / "etc/sysctl.conf";
  const auto kernel = [&](bool here) {
    const std::string command = std::string("sysctl -n ") + kForward;
    return str::Trim(here ? pnl_proc::Execute(command).Str() : node.Exec(command));
  };
  for (const bool here : {true, false}) {
    const auto text = [&] { return pnl_file::Read(here ? kConf : remote); };
    pnl_file::Write(here ? kConf : remote, "# c\nnet.ipv4.ip_forward=0");
    auto* conf = new sysctl::Conf(here ? sysctl::Local() : sysctl::Remote(Session(node)));
    conf->SetParamValue(kForward, 7);
    conf->SetParamValue(kForward, 1);
    conf->SetParamValue("net.none", "x y");  // what the kernel refuses is not told
    conf->Run();
    const std::string after = "# c\nnet.ipv4.ip_forward = 1\nnet.none = x y\n";
    EXPECT_EQ(text(), after);
    EXPECT_EQ(kernel(here), "1");

    pnl_file::Write(here ? kConf : remote, "net.ipv4.ip_forward=0\n");
    conf->Run();  // nothing is left to be written: it loads what is there
    EXPECT_EQ(text(), "net.ipv4.ip_forward=0\n");
    EXPECT_EQ(kernel(here), "0");
    pnl_job::Rollback();
    EXPECT_EQ(text(), "# c\nnet.ipv4.ip_forward=0");
  }
}

TEST_F(SysctlTest, ALostSessionIsNoEmptyFile) {
  const support::LabNode node;
  pnl_file::Write(node.Root() / "etc/sysctl.conf", "# c\n");
  pnl_rpc::SSH first = Session(node);
  pnl_rpc::SSH second = Session(node);
  auto* conf = new sysctl::Conf(sysctl::Remote(first));
  conf->SetParamValue(kForward, 1);
  node.Fault("cut");
  EXPECT_THROW(conf->Run(), pnl_err::Error);
  EXPECT_THROW(new sysctl::Conf(sysctl::Remote(second)), pnl_err::Error);
  pnl_job::Rollback();
  EXPECT_EQ(node.Exec("cat /etc/sysctl.conf"), "# c\n");

  node.Exec("rm /etc/sysctl.conf");
  new sysctl::Conf(sysctl::Remote(Session(node)));  // a missing file is an empty one
  pnl_job::Rollback();
  EXPECT_EQ(node.Exec("cat /etc/sysctl.conf"), "");
}

}  // namespace
