// brefirctl config and sysctl, on real nodes and their panel host; and utils::Config on a node.

#include <gtest/gtest.h>

#include "brefir/simpleconfig.h"
#include "brefir/sysctl.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "support/lab.h"
#include "support/temp_dir.h"

namespace {

using support::LabNode;

struct Finished {
  int code;
  std::string out;
  std::string err;
};

bool Has(const std::string& text, const std::string& part) {
  return part.empty() ? text.empty() : text.find(part) != std::string::npos;
}

/// The working directory is a panel's prefix.
class ConfigCommandsTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    std::filesystem::create_directories("/srv/panel/var");
    std::filesystem::current_path("/srv/panel");
  }

  /// `arguments` are shell words; `node` may be null: here.
  static Finished Run(const LabNode* node, const std::string& arguments) {
    std::string line = pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " " + arguments;
    if (node != nullptr) line += " --node " + node->Address() + " --key " + support::LabKey();
    const int code = pnl_proc::Execute(line + " >/srv/out 2>/srv/err").Result();
    return {code, pnl_file::Read("/srv/out"), pnl_file::Read("/srv/err")};
  }

  struct Case {
    std::string arguments;
    int code;
    std::string out;  // a part; "": nothing
    std::string err;
  };
  static void Expect(const LabNode* node, const Case& c) {
    const Finished run = Run(node, c.arguments);
    EXPECT_EQ(run.code, c.code) << c.arguments << "\n" << run.err;
    EXPECT_TRUE(Has(run.out, c.out)) << c.arguments << "\n" << run.out;
    EXPECT_TRUE(Has(run.err, c.err)) << c.arguments << "\n" << run.err;
  }

  /// What is in var/ besides logs.
  static std::vector<std::string> Kept() {
    std::vector<std::string> names = support::Tree("var");
    std::erase_if(names, [](const std::string& name) { return name.ends_with(".log"); });
    return names;
  }

  /// What an unfinished change leaves: both texts, in files that the error names.
  static void ExpectKept(const Finished& run, const std::string& before, const std::string& after) {
    std::vector<std::string> texts;
    for (const std::string& name : Kept()) {
      texts.push_back(pnl_file::Read("var/" + name));
      EXPECT_TRUE(Has(run.err, "'/srv/panel/var/" + name + "'")) << run.err;
      pnl_file::RemoveFile("var/" + name);
    }
    EXPECT_TRUE((texts == std::vector{after, before})) << run.err;
  }
};

TEST_F(ConfigCommandsTest, ConfigHereAndOnANode) {
  const LabNode node;
  const std::string before = "# c\n\nother = 2\nb = 3 # x\nq='y'\n";
  const Case cases[] = {
      {"config get /etc/f b", 0, "3\n", ""},
      {"config get /etc/f none", 1, "", "'/etc/f' has no key 'none'"},
      {"config get /etc/none b", 1, "", "/etc/none"},
      {"config list /etc/f -o json --quote \"'\"", 0, R"("value": "y")", ""},
      {"config set /etc/f key value --after other --dry-run", 0, "\n+key=value\n", ""},
      {"config del /etc/f b --dry-run", 0, "\n-b = 3 # x\n", ""},
      {"config del /etc/f none", 1, "", "has no key 'none'"},
      {"config set /etc/f a=b c", 2, "", "must not hold the separator"},
      {"config set /etc/f '#b' c", 2, "", "comment character"},
      {"config set /etc/f ' b' c", 2, "", "begin or end with a blank"},
      {"config set /etc/f \"b\nc\" c", 2, "", "must not hold a line end"},
      {"config set /etc/f b \"c\nd\"", 2, "", "must not hold a line end"},
      {"config set /etc/f b 'c#d'", 2, "", "would read back as 'c'"},
      {"config set /etc/f b c --separator=", 2, "", "--separator must not be empty"},
      {"config set /etc/none b c", 1, "", "/etc/none"},
  };
  for (const LabNode* place : {static_cast<const LabNode*>(nullptr), &node}) {
    const std::string root = place == nullptr ? "" : place->Root();
    pnl_file::Write(root + "/etc/f", before);
    const pnl_file::Info info(root + "/etc/f");
    for (const Case& c : cases) Expect(place, c);
    EXPECT_TRUE(pnl_file::Info(root + "/etc/f").SameVersion(info));
    Expect(place, {"config set /etc/f key value --after other", 0, "value  value", ""});
    Expect(place, {"config del /etc/f b", 0, "deleted  yes", ""});
    Expect(place, {"config set /etc/new k v --create", 0, "/etc/new", ""});
    EXPECT_EQ(pnl_file::Read(root + "/etc/f"), "# c\n\nother = 2\nkey=value\nq='y'\n");
    EXPECT_EQ(pnl_file::Read(root + "/etc/new"), "k=v\n");
  }
  EXPECT_TRUE(Kept().empty());
}

TEST_F(ConfigCommandsTest, SysctlHereAndOnANode) {
  const LabNode node;
  const std::string before = "net.ipv4.tcp_rmem = 4096 8192 16384\nnet.ipv4.ip_forward=0\n";
  const Case cases[] = {
      {"sysctl set net.ipv4.ip_forward=1 --dry-run", 0, "\n+net.ipv4.ip_forward = 1\n", ""},
      {"sysctl set net.ipv4.ip_forward=1 net.ipv4.none=1", 1, "net.ipv4.none        1      -",
       "did not take net.ipv4.none = 1: it has no such parameter; /etc/sysctl.conf goes back"},
      {"sysctl set net.ipv4.ip_forward=x", 1, "", "it has '1'"},
      {"sysctl set net.ipv4.ip_forward", 2, "", "is not NAME=VALUE"},
      {"sysctl get net/../../../etc/passwd", 2, "", "is no kernel parameter"},
      {"sysctl get net.ipv4.tcp_rmem net.none", 1, "4096 8192 16384  4096 8192 16384", "net.none"},
  };
  for (const LabNode* place : {static_cast<const LabNode*>(nullptr), &node}) {
    const std::string conf = (place == nullptr ? "" : place->Root().string()) + "/etc/sysctl.conf";
    pnl_file::Write(conf, before);
    for (const Case& c : cases) Expect(place, c);
    EXPECT_EQ(pnl_file::Read(conf), before);
    Expect(place, {"sysctl set net.ipv4.ip_forward=0x1 net.none=1 --keep", 1, "0x1", "keeps it"});
    EXPECT_TRUE(Has(pnl_file::Read(conf), "net.ipv4.ip_forward = 0x1\nnet.none = 1\n"));
  }
  EXPECT_TRUE(Kept().empty());
}

TEST_F(ConfigCommandsTest, AnUnfinishedChangeIsToldAndNothingIsLost) {
  const LabNode node("debian12", {.disk = "3m"});
  const std::string cut = "pkill -KILL -f '^sshd: [^/]'; sleep 9";
  const std::string text = "net.ipv4.ip_forward=0\n#" + std::string(4070, 'x') + "\n";  // a page
  const auto stub = [&](const std::string& command, const std::string& when) {
    return "stub " + command + " " +
           pnl_proc::Escape(when + " && { " + cut + "; }; exec /usr/bin/" + command + " \"$@\"");
  };
  const struct {
    std::string fault, arguments, path;
    std::string left;  // on the node; "": not all
    bool kept;
  } cases[] = {
      {stub("stat", "true"), "config set /etc/f a 1", "/etc/f", text, true},
      {stub("dd", "[ $1 = of=/etc/f ] && : >/etc/f"), "config set /etc/f a 1", "/etc/f", "", true},
      {stub("cat", "[ $# = 0 ]"), "sysctl set net.ipv4.ip_forward=1 a=1", "/etc/sysctl.conf", "",
       true},
      {"fill", "config set /etc/f abc 1234567890", "/etc/f", "", true},
      {"fill", "sysctl set net.ipv4.ip_forward=1 a=1", "/etc/sysctl.conf", text, false},
  };
  for (const auto& c : cases) {
    const std::string path = node.Root().string() + c.path;
    pnl_file::Write(path, text);
    node.Fault(c.fault);
    const Finished run = Run(&node, c.arguments + " --timeout 5");
    EXPECT_EQ(run.code, 1) << c.fault;
    EXPECT_TRUE(pnl_file::Read(path) == c.left || (c.left.empty() && pnl_file::Read(path) != text));
    const std::string after =
        c.arguments.starts_with("config")
            ? text + str::Replace(c.arguments.substr(18), " ", "=") + "\n"
            : sysctl::Rewrite(text, {{"net.ipv4.ip_forward", "1"}, {"a", "1"}});
    if (c.kept) ExpectKept(run, text, after);
    EXPECT_EQ(Has(run.err, "stays as it was"), !c.kept) << run.err;
    for (const std::string name : {"stat", "dd", "cat"}) node.Fault("stub " + name + " ''");
    node.Fault("writable");
  }
}

TEST_F(ConfigCommandsTest, FieldsOfAFileOnANode) {
  const LabNode node;
  pnl_rpc::SSH ssh({.host = node.Address(),
                    .key_file = support::LabKey(),
                    .known_hosts = support::LabKnownHosts()});
  node.Exec("printf 'a = \"1\"' >/etc/f");
  {
    utils::Config config(ssh, "/etc/f");
    const utils::SCBaseField a("a", &config, "");
    EXPECT_EQ(node.Exec("cat /etc/f"), "a = \"1\"");
  }
  EXPECT_EQ(node.Exec("cat /etc/f"), "a=1\n");
  EXPECT_THROW(utils::Config(ssh, "/etc/none"), pnl_err::Error);
  EXPECT_FALSE(pnl_file::Exists(node.Root() / "etc/none"));
  {
    utils::Config config(ssh, "/etc/f");
    utils::SCBaseField("b", &config, "") = "2";
    node.Fault("cut");
  }
  EXPECT_EQ(node.Exec("cat /etc/f"), "a=1\n");
}

}  // namespace
