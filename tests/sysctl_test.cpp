#include "brefir/sysctl.h"

#include <utility>

#include "pnl/err.h"
#include "pnl/file.h"
#include "support/lab.h"

namespace {

class SysctlTest : public support::LabTest {};

TEST_F(SysctlTest, RewritesEachParameterOnce) {
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
}

/// Fails once, in reading or in writing.
struct Failing : sysctl::ConnectionBase {
  std::string ReadConf() override { return Fail("read"), text; }
  void WriteConf(const std::string& after) override { Fail("write"), text = after; }
  void ExecSysctl() override {}
  void Fail(const std::string& call) {
    if (call == fails) throw pnl_err::Error(std::exchange(fails, ""));
  }
  std::string text, fails;
};

TEST_F(SysctlTest, WhatWasNotWrittenIsForTheNextRun) {
  for (const char* call : {"read", "write"}) {
    const auto failing = std::make_shared<Failing>();
    auto* conf = new sysctl::Conf(failing);
    conf->SetParamValue("a", 1);
    failing->fails = call;
    EXPECT_THROW(conf->Run(), pnl_err::Error);
    conf->Run();
    EXPECT_EQ(failing->text, "a = 1\n") << call;
    pnl_job::Commit();
  }
}

TEST_F(SysctlTest, ChangesHereAndOnANode) {
  const support::LabNode node;
  const std::string remote = node.Root() / "etc/sysctl.conf";
  for (const std::string& path : {std::string("/etc/sysctl.conf"), remote}) {
    pnl_file::Write(path, "# c\nnet.ipv4.ip_forward=0");
    auto* conf = new sysctl::Conf(path == remote ? sysctl::Remote(pnl_rpc::SSH(node.Login()))
                                                 : sysctl::Local());
    conf->SetParamValue("net.ipv4.ip_forward", 7);
    conf->SetParamValue("net.ipv4.ip_forward", 1);
    conf->SetParamValue("net.none", "x y");  // what the kernel refuses is not told
    conf->Run();
    EXPECT_EQ(pnl_file::Read(path), "# c\nnet.ipv4.ip_forward = 1\nnet.none = x y\n");
    pnl_file::Write(path, "net.ipv4.ip_forward=1\n");
    conf->Run();  // nothing is left to be written
    EXPECT_EQ(pnl_file::Read(path), "net.ipv4.ip_forward=1\n");
    pnl_job::Rollback();
    EXPECT_EQ(pnl_file::Read(path), "# c\nnet.ipv4.ip_forward=0");
  }
  EXPECT_EQ(node.Exec("sysctl -n net.ipv4.ip_forward"), "1\n") << "rolled back in the file only";
}

}  // namespace
