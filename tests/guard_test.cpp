#include <thread>
#include <vector>

#include "fleet/host_steps.h"
#include "pnl/deadline.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

using fleet::GuardState;
using fleet::PathState;
using fleet::RunMark;
using fleet::RunStep;
using fleet::StepForm;
using pnl_host::Host;
using support::LabNode;

constexpr const char* kMark = "17-5f3a9c21";
constexpr int kShort = 8;  // seconds, in which also a slow machine makes all steps

class GuardTest : public support::LabTest {
 protected:
  static Host HostOf(const LabNode& node) { return Host(pnl_rpc::SSH(node.Login(60))); }

  /// All that a guard has to put back, and what runs leave.
  static std::string State(const LabNode& node) {
    return node.Exec(
        "cd /srv/t && find . -exec stat -c '%n %F %a %u:%g %N' {} + | sort; cat *; "
        "sysctl net.ipv4.ip_forward; cat /srv/reloads; find / -xdev -name '*brefir*' "
        "-not -path '/proc/*' -not -name machine-id -path '*guard*'");
  }

  static void Prepare(const LabNode& node) {
    node.Exec(
        "mkdir -p /srv/t; cd /srv/t; echo one >file; echo gone >gone; echo moved >from; ln -s file "
        "link; echo attr >attributes; chmod 640 attributes; : >/srv/reloads");
  }

  /// A step of each kind that a guard puts back.
  static std::vector<RunStep> Steps(Host& host) {
    fleet::Looks looks;
    looks.files = {"/srv/t/file", "/srv/t/gone", "/srv/t/new", "/srv/t/attributes"};
    looks.entries = {"/srv/t/from", "/srv/t/to", "/srv/t/link", "/srv/t/directory"};
    looks.parameters = {"net.ipv4.ip_forward"};
    const fleet::Sight sight = fleet::Look(host, looks);
    const auto path = [&](const std::string& name, PathState after) {
      const auto file = sight.files.find(name);
      return RunStep{
          .object = name,
          .before = file != sight.files.end() ? file->second.state : sight.entries.at(name).state,
          .after = std::move(after)};
    };
    PathState link, directory, narrow = sight.At("/srv/t/attributes");
    link.kind = fleet::PathKind::kLink;
    link.target = "elsewhere";
    directory.kind = fleet::PathKind::kDirectory;
    narrow.mode = 0600;
    RunStep move = path("/srv/t/to", sight.entries.at("/srv/t/from").state);
    move.form = StepForm::kMove;
    move.from = "/srv/t/from";
    const std::string value = *sight.parameters.at("net.ipv4.ip_forward").value;
    return {path("/srv/t/file", PathState::File("two\n")),
            path("/srv/t/gone", {}),
            path("/srv/t/new", PathState::File("new\n")),
            path("/srv/t/attributes", narrow),
            path("/srv/t/link", link),
            path("/srv/t/directory", directory),
            move,
            {.form = StepForm::kParameter,
             .object = "net.ipv4.ip_forward",
             .value_before = value,
             .value = value == "0" ? "1" : "0"},
            {.form = StepForm::kService,
             .object = "reload",
             .make = "echo reload >>/srv/reloads",
             .follows = {"/srv/t/file"}}};
  }

  struct Case {
    const char* what;
    const char* prepare;  ///< on the node
    bool systemd = false;
    bool boots = false;  ///< long before the guard's time
  };

  static void PutsBack(const Case& c) {
    SCOPED_TRACE(c.what);
    const LabNode node("debian12", {.systemd = c.systemd});
    node.Exec(c.prepare);
    Prepare(node);
    const std::string before = State(node);
    {
      Host host = HostOf(node);
      const std::vector<RunStep> steps = Steps(host);
      const RunMark mark{.name = kMark, .guard = c.boots ? 600 : kShort};
      ASSERT_TRUE(AllDone(fleet::MakeSteps(host, mark, steps)));
      EXPECT_TRUE(!c.boots || Guard(host) == GuardState::kArmed);
    }
    if (c.boots) {
      const std::string group = node.Exec("cat /proc/$(cat /run/brefir/guard-*/armed)/cgroup");
      EXPECT_NE(group.find("/brefir-guard-"), std::string::npos) << group;
      EXPECT_NE(State(node), before);
      // A unit that cannot be removed would put back at the next boot what was claimed.
      node.Exec("mount -o remount,ro /");
      Host claimer = HostOf(node);
      const auto error = support::Caught([&] { fleet::ClaimGuard(claimer, {.name = kMark}); });
      EXPECT_TRUE(error && error->param("message").ends_with("cannot be removed"));
      node.Exec("mount -o remount,rw /");
      node.Reboot();
    }
    Host host = HostOf(node);
    Await(host, GuardState::kRestored);
    EXPECT_EQ(support::ErrorOf([&] { fleet::ClaimGuard(host, {.name = kMark}); }, {"message"}),
              "run " + host.Name() + " " + host.Name() +
                  ": the guard's time was over before a fresh login came, and it has gone off");
    fleet::EndSteps(host, {.name = kMark});
    EXPECT_EQ(State(node), before + "reload\nreload\n");
  }

  static bool AllDone(const std::vector<fleet::Verdict>& verdicts) {
    for (const fleet::Verdict& verdict : verdicts) {
      EXPECT_EQ(verdict.result, fleet::StepResult::kDone) << verdict.reason;
      if (verdict.result != fleet::StepResult::kDone) return false;
    }
    return true;
  }

  static GuardState Guard(Host& host) {
    const fleet::Sight sight = fleet::Look(host, {});
    const auto found = sight.guards.find(kMark);
    return found == sight.guards.end() ? GuardState::kNone : found->second;
  }

  static void Await(Host& host, GuardState state) {
    const pnl_time::Deadline patience{std::chrono::seconds(30)};
    while (Guard(host) != state) {
      ASSERT_FALSE(patience.Passed()) << static_cast<int>(Guard(host));
      pnl_proc::Sleep(100);
    }
  }
};

TEST_F(GuardTest, PutsBackWhatNobodyClaims) {
  const Case cases[] = {
      {"a process", "true"},
      {"bash", "ln -sf bash /bin/sh"},
      {"busybox, without flock", "ln -sf busybox /bin/sh; rm /usr/bin/flock"},
      {"a unit", "true", true},
      {"a unit at boot", "true", true, true},
  };
  std::vector<std::jthread> all;  // they mostly wait
  for (const Case& c : cases)
    if (!c.systemd || support::NodesRunSystemd()) all.emplace_back([&c] { PutsBack(c); });
}

TEST_F(GuardTest, WhoTakesTheTokenDecides) {
  const LabNode node;
  Prepare(node);
  Host host = HostOf(node);
  const std::string before = State(node);
  const std::vector<RunStep> steps = Steps(host);
  const RunMark mark{.name = kMark, .guard = 60};
  const auto refused = [&](const std::string& reason, const auto& call) {
    const auto error = support::Caught(call);
    ASSERT_TRUE(error) << reason;
    EXPECT_NE(error->param("message").find(reason), std::string::npos) << error->param("message");
  };
  const auto make = [&] { return fleet::MakeSteps(host, mark, steps); };
  const auto undo = [&](GuardState expected) {
    GuardState guard = GuardState::kNone;
    for (const fleet::Verdict& verdict : fleet::UndoSteps(host, mark, steps, false, {}, &guard))
      EXPECT_TRUE(verdict.result == fleet::StepResult::kDone ||
                  verdict.result == fleet::StepResult::kAlready)
          << verdict.reason;
    EXPECT_EQ(guard, expected);
    const std::string after = State(node);
    EXPECT_EQ(after.substr(0, before.size()), before) << "and reloads";
  };
  // Claimed: nothing of it is left, and a second claim finds none.
  ASSERT_TRUE(AllDone(make()));
  fleet::ClaimGuard(host, mark);
  EXPECT_EQ(Guard(host), GuardState::kNone);
  EXPECT_EQ(node.Exec("ps ax | grep -c [b]refir-run; ls /run/brefir | grep guard || true"), "0\n");
  refused("is gone", [&] { fleet::ClaimGuard(host, mark); });
  undo(GuardState::kNone);

  // Undone while armed: the guard does not come later. Made again: the next guard takes its place.
  (void)make();
  (void)make();
  EXPECT_EQ(Guard(host), GuardState::kArmed);
  undo(GuardState::kArmed);
  EXPECT_EQ(node.Exec("ps ax | grep -c [b]refir-run || true"), "0\n");

  // A token without a process is no guard.
  (void)make();
  node.Exec("kill -9 $(cat /run/brefir/guard-*/armed)");
  EXPECT_EQ(Guard(host), GuardState::kLost);
  refused("is gone", [&] { fleet::ClaimGuard(host, mark); });
  refused("has to be undone", make);
  undo(GuardState::kLost);

  // It does not start: nothing is made.
  node.Exec("mount -t tmpfs -o ro none /run/brefir");
  refused("cannot be", make);
  node.Exec("umount /run/brefir");
  EXPECT_EQ(State(node).substr(0, before.size()), before);
}

// What can be put back is, whatever happens to the disk.
TEST_F(GuardTest, PutsBackInTrouble) {
  struct Trouble {
    const char* what;
    const char* trouble;  ///< on the node, when all is made
    const char* put_right;
    GuardState after;  ///< before it is put right
  };
  const Trouble cases[] = {
      {"full disk", "head -c 100M /dev/zero >/filled 2>/dev/null; :", "rm /filled",
       GuardState::kRestored},
      {"read-only", "mount -o remount,ro /", "mount -o remount,rw /", GuardState::kFired},
  };
  for (const Trouble& c : cases) {
    SCOPED_TRACE(c.what);
    const LabNode node("debian12", {.disk = "6m"});
    Prepare(node);
    const std::string before = State(node);
    Host host = HostOf(node);
    const std::vector<RunStep> steps = Steps(host);
    const RunMark mark{.name = kMark, .guard = kShort};
    ASSERT_TRUE(AllDone(fleet::MakeSteps(host, mark, steps)));
    node.Exec(c.trouble);
    Await(host, c.after);
    EXPECT_EQ(node.Exec("sysctl -n net.ipv4.ip_forward"), steps[7].value_before + "\n");
    node.Exec(c.put_right);
    const auto undone = fleet::UndoFromBooks(host, mark, steps);
    EXPECT_EQ(undone.guard, c.after);
    EXPECT_EQ(State(node).substr(0, before.size()), before);
  }
}

}  // namespace
