// brefirctl config and sysctl, on real nodes and their panel host; and utils::Config on a node.

#include "brefir/simpleconfig.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace {

using support::Has;
using support::LabNode;

class ConfigCommandsTest : public support::ProgramTest {
 protected:
  /// What unfinished changes left in var/: texts by file name.
  static StringMap Kept() {
    StringMap texts;
    for (const std::string& name : support::Tree("var")) {
      if (name != "out" && name != "err" && !name.ends_with(".log") && !name.starts_with("fleet."))
        texts[name] = pnl_file::Read("var/" + name);
    }
    return texts;
  }
};

TEST_F(ConfigCommandsTest, ConfigHereAndOnANode) {
  const LabNode node;
  const std::vector<support::Case> cases = {
      {"config get /etc/f b", 0, "3\n", ""},
      {"config get /etc/none b", 1, "", "/etc/none"},
      {"config list /etc/f -o json --quote \"'\"", 0, R"("value": "y")", ""},
      {"config set /etc/f key value --after other --dry-run", 0, "\n+key=value\n", ""},
      {"config remove /etc/f b --dry-run", 0, "\n-b = 3 # x\n", ""},
      {"config delete /etc/f none", 1, "", "'/etc/f' has no key 'none'"},
      {"config set /etc/f key value --check -o json", 3, R"({
  "changed": true
})",
       ""},
      {"config set /etc/f a=b c", 2, "", "must not contain the separator"},
      {"config set /etc/f '#b' c", 2, "", "comment character"},
      {"config set /etc/f ' b' c", 2, "", "begin or end with a blank"},
      {"config set /etc/f b \"c\nd\"", 2, "", "must not contain a line end"},
      {"config set /etc/f b 'c#d'", 2, "", "would be read back as 'c'"},
      {"config set /etc/none b c", 1, "", "/etc/none"},
      {"config set /etc/none/ b c --create", 2, "", "names a directory"},
      {"config set /etc/f a 1 --after nothing", 1, "", "'/etc/f' has no line that begins with 'no"},
  };
  for (const LabNode* place : {static_cast<const LabNode*>(nullptr), &node}) {
    const std::string root = place == nullptr ? "" : place->Root();
    pnl_file::Write(root + "/etc/f", "# c\n\nother = 2\nb = 3 # x\nq='y'\n");
    const pnl_file::Info info(root + "/etc/f");
    Check(cases, place);
    EXPECT_TRUE(pnl_file::Info(root + "/etc/f").SameVersion(info));
    Check({{"config set /etc/f key value --after other", 0, "value    value", ""},
           {"config set /etc/f key value --check", 0, "changed  no", ""}},
          place);
    Check({{"config del /etc/f b", 0, "removed  yes", ""}}, place);
    EXPECT_EQ(pnl_file::Read(root + "/etc/f"), "# c\n\nother = 2\nkey=value\nq='y'\n");
    // A comment and the kind of line ends outlive the value.
    const struct {
      std::string before, words, after;
    } edits[] = {
        {"a = 1 # x\r\nb=2", "a 3", "a=3 # x\r\nb=2\r\n"},
        {"a=1 #x\r\nb=2 # y", "b 3 --after a", "a=1 #x\r\nb=3 # y\r\n"},
        {"a=\"1 2\"\t# x\nb=2", "a 3 --quote '\"'", "a=\"3\"\t# x\nb=2\n"},
        {"a=\"x # y\"\nc=1#2\n", "a 3", "a=3\nc=1#2\n"},
        {"c=1#2\r\n", "c 3", "c=3\r\n"},
        {"a=1\r\n", "b 2", "a=1\r\nb=2\r\n"},
    };
    for (const auto& c : edits) {
      pnl_file::Write(root + "/etc/edit", c.before);
      Check({{"config set /etc/edit " + c.words, 0, "/etc/edit", ""}}, place);
      EXPECT_EQ(pnl_file::Read(root + "/etc/edit"), c.after);
    }
    Check({{"config set /etc/new k v --create", 0, "/etc/new", ""}}, place);
    EXPECT_EQ(pnl_file::Read(root + "/etc/new"), "k=v\n");
  }
  EXPECT_EQ(Kept(), StringMap());
}

TEST_F(ConfigCommandsTest, SysctlHereAndOnANode) {
  const LabNode node("debian12", {.sshd = {"SetEnv PATH=/usr/bin:/bin"}});
  const std::string before = "net.ipv4.tcp_rmem = 4096 8192 16384\nnet.ipv4.ip_forward=0\n";
  const std::vector<support::Case> cases = {
      {"sysctl set net.ipv4.ip_forward=1 --dry-run", 0, "\n+net.ipv4.ip_forward = 1\n", ""},
      {"sysctl set net.ipv4.ip_forward=1 net.none=1", 1, "",
       "'net.none' cannot be read: sysctl: cannot stat /proc/sys/net/none: No such file"},
      {"sysctl get net.ipv4.ip_forward", 0, "net.ipv4.ip_forward  0     0", ""},
      {"sysctl set net.ipv4.ip_forward=x", 1, "", "Invalid argument; all is as before"},
      {"sysctl set net.ipv4.ip_forward", 2, "", "is not NAME=VALUE"},
      {"sysctl get net/../../../etc/passwd", 2, "", "is not a kernel parameter"},
      {"sysctl get net.ipv4.tcp_rmem net.none", 1, "4096 8192 16384  4096 ",
       "'net.none' cannot be read: sysctl: cannot stat"},
  };
  for (const LabNode* place : {static_cast<const LabNode*>(nullptr), &node}) {
    const std::string conf = (place == nullptr ? "" : place->Root().string()) + "/etc/sysctl.conf";
    pnl_file::Write(conf, before);
    Check(cases, place);
    EXPECT_EQ(pnl_file::Read(conf), before);
    // As under cron, here and there.
    EXPECT_EQ(Shell("PATH=/usr/bin:/bin; " + Line("sysctl get net.ipv4.ip_forward", place)).code,
              0);
    Check({{"sysctl set net.ipv4.ip_forward=0x1 net.none=1 --keep", 1, "0x1", "keeps it"}}, place);
    EXPECT_TRUE(Has(pnl_file::Read(conf), "net.ipv4.ip_forward = 0x1\nnet.none = 1\n"));
  }
  EXPECT_EQ(Kept(), StringMap());
}

TEST_F(ConfigCommandsTest, AnUnfinishedChangeIsToldAndNothingIsLost) {
  const LabNode node("debian12", {.disk = "3m"});
  const std::string text = "net.ipv4.ip_forward=0\n#" + std::string(4070, 'x') + "\n";  // a page
  // The session ends as soon as the new text is on its way.
  const std::string cut =
      "stub cat '[ $# = 0 ] && { pkill -KILL -f \"^sshd(-session)?: [^/]\"; sleep 2; }; exec "
      "/usr/bin/cat "
      "\"$@\"'";
  const std::string config = "config set /etc/f a 123456789";
  const std::string sysctl = "sysctl set net.ipv4.ip_forward=1 net.ipv4.ip_default_ttl=65";
  const struct {
    std::string fault, arguments, err;
  } cases[] = {
      {"readonly", config, "Read-only file system"},
      {cut, config, "lost the connection"},
      {cut, sysctl, "lost the connection"},
      {"fill", config, "No space left on device; all is as before"},
      {"fill", sysctl, "No space left on device"},
  };
  for (const auto& c : cases) {
    for (const char* name : {"etc/f", "etc/sysctl.conf"}) pnl_file::Write(node.Root() / name, text);
    node.Fault(c.fault);
    const std::string err = Run(c.arguments, &node).err;
    EXPECT_TRUE(Has(err, c.err)) << err;
    for (const char* name : {"etc/f", "etc/sysctl.conf"})
      EXPECT_EQ(pnl_file::Read(node.Root() / name), text) << c.fault << c.arguments;
    EXPECT_EQ(Kept().size(), 0U);
    node.Fault("stub cat ''");
    node.Fault("writable");
    EXPECT_EQ(Run(c.arguments, &node).code, 0);
    EXPECT_EQ(node.Exec("find /etc -name '.brefir*'"), "");
  }
}

TEST_F(ConfigCommandsTest, FieldsOfAFileOnANode) {
  const LabNode node;
  const pnl_rpc::SSH ssh({.host = node.Address(),
                          .key_file = support::LabKey(),
                          .known_hosts = support::LabKnownHosts()});
  node.Exec("echo 'a = \"1\"' >/etc/f");
  EXPECT_THROW(utils::Config(ssh, "/etc/none"), pnl_err::Error);
  for (const std::string fault : {"fast", "cut"}) {
    utils::Config config(ssh, "/etc/f");
    utils::SCBaseField("b", &config, "") = fault;
    const utils::SCBaseField a("a", &config, "");
    if (fault == "cut") node.Fault(fault);
  }
  EXPECT_EQ(node.Exec("cd /etc; cat f; [ -e none ] || echo none"), "a=1\nb=fast\nnone\n");
}

}  // namespace
