// brefirctl apply: files of commands, and saved plans.

#include <gtest/gtest.h>

#include "pnl/file.h"
#include "pnl/str.h"
#include "support/program.h"

namespace {

/// A panel with three nodes, which have the file /etc/app.conf.
class ApplyCommandsTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    support::ProgramTest::SetUp();
    pnl_file::Write("etc/brefir.conf", "private_key = " + support::LabKey() +
                                           "\nknown_hosts = " + support::LabKnownHosts() + "\n");
    std::string inventory = "[web]\n";
    for (std::size_t i = 0; i < std::size(nodes_); ++i) {
      nodes_[i].Exec("printf 'port=80\\nname=x\\n' >/etc/app.conf");
      const std::string name = "n" + std::to_string(i + 1);
      inventory += name + " host=" + nodes_[i].Address() + " title='-the \"" + name + "\" one'" +
                   (i == 2 ? "\n" : " role=front\n");
    }
    pnl_file::Write("etc/nodes", inventory);
    pnl_file::MkDir("changes/files");
    pnl_file::Write("changes/files/motd", "Welcome\n");
  }

  static support::Finished Apply(const std::string& lines, const std::string& arguments) {
    pnl_file::Write("changes/f", lines);
    return Run("apply changes/f " + arguments);
  }

  const support::LabNode nodes_[3] = {support::LabNode(), support::LabNode(), support::LabNode()};
};

constexpr const char* kLines = R"(# the new port
config set /etc/app.conf port 8080
brefirctl config set /etc/app.conf name {node.name}.example.org  # of each node
config set /etc/app.conf title {node.title}
config set /etc/app.conf "quo\"ted" 'a b  c' --after port # a comment \
config remove /etc/app.conf none
node mkdir /srv/t/made
node put files/motd \
    /srv/t/made
node chmod 0600 /etc/app.conf
node ln /srv/t/made '/srv/t/a link'
sysctl set net.ipv4.ip_forward=1
)";

TEST_F(ApplyCommandsTest, AFileIsOneChangeOfAllNodes) {
  std::string text = kLines;
  text.erase(text.find("config remove"), text.find("node mkdir") - text.find("config remove"));
  pnl_file::Write("changes/f", text);
  std::filesystem::create_directories("/srv/else");
  const std::string from_else = "apply ../panel/changes/f --prefix /srv/panel --nodes @web";
  std::filesystem::current_path("/srv/else");
  pnl_file::MkDir("var");
  Check({
      {from_else + " --check", 3, "n3    yes", ""},
      {from_else + " --dry-run", 0, "n2 (1 node):\n    --- /etc/app.conf", ""},
      {"run list --prefix /srv/panel", 0, "no runs", ""},
      {from_else, 0, "n[1-3]: 7 steps done\n", "run 1 is done: 3 done\n"},
      {from_else, 0, "n[1-3]: no change\n", "nothing to do: 3 unchanged\n"},
      {from_else + " --check", 0, "n3    no", ""},
      {from_else + " -o json", 0, R"("state": "unchanged",)", "nothing to do"},
      {"run list --prefix /srv/panel --columns command,nodes --no-headers", 0, "apply f  3\n", ""},
  });
  std::filesystem::current_path("/srv/panel");
  EXPECT_EQ(nodes_[1].Exec("cat /etc/app.conf '/srv/t/a link/motd'; stat -c %a /etc/app.conf"),
            "port=8080\nquo\"ted=a b  c\nname=n2.example.org\ntitle=-the \"n2\" one\n"
            "Welcome\n600\n");
  pnl_file::Write("changes/here",
                  "config set conf port 1 --create\nconfig set conf on {node.name}\n");
  pnl_file::Write(
      "changes/refuses",
      "node rm /srv/t/made --recursive --undo-on-failure false\nnode rm /etc/app.conf\n");
  Check({{"apply changes/here", 0, "localhost: 1 step done\n", "run 2 is done"},
         {"apply changes/refuses --node n1", 1, "n1: undone\n", "ended with exit code 1"}});
  EXPECT_EQ(pnl_file::Read("changes/conf"), "port=1\non=localhost\n");
  nodes_[0].Exec("test -f /etc/app.conf -a -f /srv/t/made/motd");
  nodes_[2].Kill();
  pnl_file::Write("changes/g", "config set /etc/app.conf port 9\n");
  Check({{"apply changes/g --nodes @web --timeout 1", 1, "n[1-2]: as before\nn3: failed\n",
          "nothing was changed: 2 unchanged, 1 failed"},
         {"apply changes/g --nodes @web --timeout 1 --save-plan p", 1, "+port=9",
          "No plan was saved"},
         {"apply changes/g --nodes @web --timeout 1 --max-failed 1", 1, "n[1-2]: 1 step done\n",
          "n3: cannot connect"}});
  EXPECT_FALSE(pnl_file::Exists("p"));
}

TEST_F(ApplyCommandsTest, MistakesAreToldByLineBeforeANodeIsTouched) {
  const struct {
    std::string line;
    std::string error;
  } cases[] = {
      {"config set /x a 'b", "f:2: 'config set /x a 'b' has a quote (') that does not end"},
      {"package refresh", "f:2: 'package refresh' cannot be part of a change file yet"},
      {"package install rsync --wrap nice",
       "f:2: this 'package install' cannot be part of a change"},
      {"package update", "f:2: NAME is missing, or --all"},
      {"node exec reboot",
       "f:2: this 'node exec' cannot be part of a change file: give it --change"},
      {"node exec --change x --policy each", "f:2: --policy is for the whole file"},
      {"demo", "f:2: 'demo' cannot be part"},
      {"config sett /x a b", "f:2: unknown verb 'sett'; did you mean 'set'?"},
      {"config set /x a b --nodes n1", "f:2: --nodes is for the whole file"},
      {"config set /x a b --policy each", "f:2: --policy is for the whole file"},
      {"config set /x a b --help", "f:2: --help is for the whole file"},
      {"-q config set /x a b", "f:2: '-q' stands before the command"},
      {"config set /x a {node.}", "f:2: 'config set /x a {node.}' has '{node.' without a name"},
      {"config set /x a {node.role", "has '{node.' without a name"},
      {"config set /x a {node.role}", "f:2: n3: the inventory has no value 'role'"},
      {"node chmod {node.title} /x", "f:2: n1: MODE '-the \"n1\" one' is not a mode"},
      {"config set /x a -b", "f:2: unknown option -b in '-b'; put -- before words"},
      {"config {node.role} /x a", "f:2: unknown verb '{node.role}'"},
      {"node put files/none /x", "f:2: cannot read '/srv/panel/changes/files/none'"},
      {"node put files/motd x", "f:2: REMOTE 'x' must be an absolute path on the node"},
      {"node write /x", "f:2: --from FILE is missing"},
      {"sysctl set --keep net.ipv4.ip_forward=1", "with --keep it cannot be undone"},
      {"config set /x a \\",
       "f:2: 'config set /x a \\' ends with a backslash, and no line follows"},
      {std::string(1, '\0'), "f:2: has a zero byte"},
      {std::string(1 << 20, '#'), "f: has more than 1 MiB"},
  };
  for (const auto& c : cases) {
    const support::Finished run = Apply("\n" + c.line, "--nodes @web");
    EXPECT_EQ(run.code, 2) << c.line.substr(0, 80);
    EXPECT_NE(run.err.find(c.error), std::string::npos) << c.line.substr(0, 80) << run.err;
  }
  EXPECT_NE(Apply("node\n\nconfig\n", "--nodes @web").err.find("f:3: VERB"), std::string::npos);
  EXPECT_FALSE(pnl_file::Exists("var/fleet.db"));
  pnl_file::Write("changes/f", "config set /etc/none a b\r\n");
  Check({{"apply changes/f --nodes @web", 1, "n[1-3]: failed\n",
          "n[1-3]: there is no '/etc/none' (changes/f:1)\n"},
         {"apply changes/none --node n1", 1, "", "cannot open '/srv/panel/changes/none'"},
         {"apply", 2, "", "FILE is missing"},
         {"apply changes/f --plan p", 2, "", "FILE and --plan exclude each other"},
         {"apply --plan p --node n1", 2, "", "--plan and --node exclude each other"},
         {"apply changes/f --node n1 --save-plan changes", 1, "", "Is a directory"}});
  EXPECT_NE(Apply("\n", "--node n1").err.find("has no command"), std::string::npos);
  EXPECT_NE(Apply("node rm /x\n", "").err.find("'node rm' works on nodes"), std::string::npos);
}

TEST_F(ApplyCommandsTest, APlanIsMadeAsItWasShownOrNotAtAll) {
  pnl_file::Write("changes/f", std::string(kLines) + "node put files/big /srv/t/big\n" +
                                   "node mv /etc/app.conf /etc/new.conf\n");
  std::string big(3 << 20, 'x');
  pnl_file::Write("changes/files/big", big);
  pnl_file::Write("p", "an old plan");
  for (const auto& node : nodes_) node.Exec("echo none=1 >>/etc/app.conf");
  Check(
      {{"apply changes/f --nodes n1,n2 --save-plan p", 0, "mv /etc/app.conf", "apply --plan p\n"}});
  EXPECT_EQ(pnl_file::Info("p").GetAttrs().mode, 0600U);
  const std::string plan = pnl_file::Read("p");
  const auto change = [&](const char* what, const std::string& text) {
    pnl_file::Write("p", text);
    const support::Finished run = Run("apply --plan p");
    EXPECT_EQ(run.code, 1) << what;
    return run.err;
  };
  for (const std::string& cut : {plan.substr(0, plan.size() - 1), plan.substr(0, plan.size() / 2),
                                 str::Replace(plan, "port", "sort"), plan + "node x\n"})
    EXPECT_NE(change("cut", cut).find("the plan was cut or edited"), std::string::npos);
  EXPECT_NE(change("other", "x\n" + plan).find("this is no plan"), std::string::npos);
  pnl_file::Write("changes/files/big", big + "y");
  EXPECT_NE(change("source", plan).find("big: the file is no longer as it was"), std::string::npos);
  pnl_file::Write("changes/files/big", big);
  nodes_[1].Exec("echo more=1 >>/etc/app.conf");
  EXPECT_NE(change("edited", plan).find("n2: '/etc/app.conf' is no longer as it was"),
            std::string::npos);
  EXPECT_EQ(nodes_[0].Exec("tail -n 1 /etc/app.conf; ls /srv"), "none=1\n");
  nodes_[1].Exec("sed -i '$d' /etc/app.conf; cp /etc/machine-id /tmp; echo other >/etc/machine-id");
  EXPECT_NE(change("machine", plan).find("n2: it is another machine"), std::string::npos);
  nodes_[1].Exec("cp /tmp/machine-id /etc");
  Check({{"apply --plan p --check", 3, "n2    yes", ""},
         {"apply --plan p --dry-run", 0, "n1 (1 node):", ""},
         {"apply --plan p", 0, "n[1-2]: 9 steps done\n", "run 1 is done: 2 done"},
         {"apply --plan p", 0, "n[1-2]: no change\n", "nothing to do"},
         {"apply --plan p --check", 0, "n1    no", ""},
         {"run list --columns command --no-headers", 0, "apply f --plan p\n", ""}});
  EXPECT_EQ(nodes_[1].Exec("stat -c %s /srv/t/big; grep port /etc/new.conf"),
            "3145728\nport=8080\n");
  nodes_[1].Exec("rm /srv/t/big");
  EXPECT_NE(change("taken", plan).find("n2: '/etc/app.conf' is no longer"), std::string::npos);
  const std::pair<const char*, const char*> unsaved[] = {
      {"config set /etc/new.conf port 1 --secret\n", "n1: '/etc/new.conf' is secret"},
      {"node put files/motd /x --checksum\n", "f:1: --checksum cannot be saved"}};
  for (const auto& [line, error] : unsaved)
    EXPECT_NE(Apply(line, "--nodes n1 --save-plan q").err.find(error), std::string::npos) << line;
  EXPECT_FALSE(pnl_file::Exists("q"));
}

}  // namespace
