#include "fleet/guarding.h"

#include <gtest/gtest.h>

namespace {

using fleet::RunStep;
using fleet::StepForm;

pnl_rpc::SshOptions Login(const std::string& user = "root", bool sudo = false) {
  pnl_rpc::SshOptions login;
  login.host = "n1";
  login.user = user;
  login.sudo = sudo;
  return login;
}

TEST(GuardingTest, KnowsWhatCanLockOut) {
  struct Case {
    const char* path;
    bool root;  ///< whether it can lock out root
    bool user;  ///< whether it can lock out the user ann, who uses sudo
  };
  const Case cases[] = {{"/root/.ssh/authorized_keys", true, true},
                        {"/home/bob/.ssh", true, true},
                        {"/srv/x.ssh/file", false, false},
                        {"/root", true, false},
                        {"/home/ann", false, true},
                        {"/etc/ssh/sshd_config.d/50-panel.conf", true, true},
                        {"/etc/sshd", false, false},
                        {"/etc", true, true},
                        {"/", true, true},
                        {"/etc/pam.d/sshd", true, true},
                        {"/etc/security/access.conf", true, true},
                        {"/etc/sudoers.d/ann", false, true},
                        {"/etc/motd", false, false}};
  for (const Case& c : cases) {
    RunStep step{.object = c.path};
    EXPECT_EQ(fleet::CanLockOut(step, Login()), c.root) << c.path;
    EXPECT_EQ(fleet::CanLockOut(step, Login("ann", true)), c.user) << c.path;
    step = {.form = StepForm::kMove, .object = "/srv/old", .from = c.path};
    EXPECT_EQ(fleet::CanLockOut(step, Login()), c.root) << "away: " << c.path;
  }
  RunStep parameter{.form = StepForm::kParameter, .object = "net.ipv4.ip_forward"};
  EXPECT_TRUE(fleet::CanLockOut(parameter, Login()));
  parameter.object = "vm.swappiness";
  EXPECT_FALSE(fleet::CanLockOut(parameter, Login()));
}

/// f a file, k a key, c a command, p packages, s a service.
std::vector<RunStep> Steps(const std::string& letters) {
  std::vector<RunStep> steps;
  for (const char letter : letters) {
    RunStep step{.object = letter == 'k' ? "/root/.ssh/authorized_keys" : "/etc/motd"};
    if (letter == 'c') step.form = StepForm::kCommand;
    if (letter == 'p') step.form = StepForm::kPackages;
    if (letter == 's') step.form = StepForm::kService;
    steps.push_back(step);
  }
  return steps;
}

TEST(GuardingTest, SlowStepsAreInOtherGroups) {
  struct Case {
    const char* steps;
    fleet::Guarding guarding;
    const char* groups;  ///< with blanks between them; guarded ones in brackets
  };
  const fleet::Guarding usual{.seconds = 60};
  const Case cases[] = {
      {"fcfs", usual, "fcfs"},       {"k", usual, "[k]"},
      {"fksf", usual, "[fksf]"},     {"fcpkscf", usual, "fcp [ks] cf"},
      {"kckf", usual, "[k] c [kf]"}, {"fcpkscf", {.seconds = 60, .all = true}, "[fcpkscf]"},
      {"fkcf", {}, "fkcf"}};
  for (const Case& c : cases) {
    const std::string letters = c.steps;
    const std::vector<RunStep> steps = Steps(letters);
    std::string groups;
    for (std::size_t begin = 0; begin < steps.size();) {
      const auto group = fleet::GroupFrom(steps, begin, steps.size(), c.guarding, Login());
      const std::string part = letters.substr(begin, group.end - begin);
      ASSERT_GT(group.end, begin) << c.steps;
      groups += (begin == 0 ? "" : " ") + (group.guarded ? "[" + part + "]" : part);
      begin = group.end;
    }
    EXPECT_EQ(groups, c.groups) << c.steps;
    const auto here = fleet::GroupFrom(steps, 0, steps.size(), c.guarding, std::nullopt);
    EXPECT_FALSE(here.guarded) << "nothing is guarded on this host";
  }
}

TEST(GuardingTest, PlansTellWhatPeopleShouldKnow) {
  RunStep firewall{.form = StepForm::kPackages, .object = "install ufw"};
  firewall.packages = {{"libx", {"", "1"}}, {"ufw", {"", "0.36"}}};
  RunStep update = firewall;
  update.packages["ufw"].before = "0.35";
  const RunStep key{.object = "/root/.ssh/authorized_keys"}, file{.object = "/etc/motd"};
  const fleet::Guarding usual{.seconds = 60}, all{.seconds = 90, .all = true};
  const std::tuple<std::vector<RunStep>, fleet::Guarding, bool, const char*> cases[] = {
      {{file}, usual, true, ""},
      {{file, key}, usual, true, "guarded: put back by the node itself after 60 s"},
      {{file}, all, true, "guarded: put back by the node itself after 90 s"},
      {{key}, usual, false, "not if the node boots within that time"},
      {{key}, {}, true, "not guarded: a mistake in this change can lock everybody out"},
      {{file}, {}, true, ""},
      {{firewall}, usual, true, "warning: 'ufw' may close the port of SSH"},
      {{update}, usual, true, ""},
      {{}, all, true, ""}};
  for (const auto& [steps, guarding, at_boot, text] : cases) {
    const std::string note = fleet::GuardNote(steps, guarding, Login(), at_boot);
    EXPECT_NE(note.find(text), std::string::npos) << note;
    EXPECT_EQ(note.empty(), *text == '\0') << note;
    EXPECT_EQ(fleet::GuardNote(steps, guarding, std::nullopt, at_boot), "");
  }
}

}  // namespace
