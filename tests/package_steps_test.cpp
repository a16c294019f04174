// Packages as steps of a run, on real nodes of both families.

#include <thread>

#include "fleet/host_steps.h"
#include "pnl/proc.h"
#include "support/lab.h"
#include "support/repo_server.h"

namespace {

using fleet::PackageRequest;
using fleet::RunMark;
using fleet::RunStep;
using fleet::StepForm;
using fleet::StepResult;
using pnl_host::Host;
using support::LabNode;
using Action = PackageRequest::Action;

constexpr const char* kDebian = "debian12";
constexpr const char* kRedHat = "centos7";

class PackageStepsTest : public support::LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    std::filesystem::current_path("/srv");
    pnl_proc::Execute make(BREFIR_SOURCE_DIR "/lab/make-package-repos repos");
    make.Str();
    ASSERT_EQ(make.Result(), 0);
    server_.emplace("repos", "--bind 10.99.0.1 --port 8080");
  }

  static std::unique_ptr<LabNode> Node(const std::string& os) {
    auto node = std::make_unique<LabNode>(os);
    if (os == kDebian) node->Exec("apt-get -q update 2>&1");
    if (os == kRedHat) node->Exec("ln -sf bash /bin/sh");  // as there
    return node;
  }

  /// The node knows the newer packages, too.
  static void AddBase(const LabNode& node) {
    const std::string panel = "/srv/repos/";
    const bool debian = std::filesystem::exists(node.Root() / "etc/debian_version");
    const std::string from =
        debian ? "panel/etc/apt/sources.list.d/velkor-base.list" : "repo/centos/velkor-base.repo";
    const std::string to =
        debian ? "etc/apt/sources.list.d/base.list" : "etc/yum.repos.d/base.repo";
    std::filesystem::copy_file(panel + from, node.Root() / to);
    if (debian) node.Exec("apt-get -q update 2>&1");
  }

  static Host HostOf(const LabNode& node) { return Host(pnl_rpc::SSH(node.Login())); }

  static fleet::PackagePlan PlanOf(const LabNode& node, const PackageRequest& request) {
    Host host = HostOf(node);
    return fleet::Look(host, {.packages = {request}}).packages.at(request);
  }

  static RunStep StepOf(const fleet::PackagePlan& plan) {
    RunStep step{.form = StepForm::kPackages, .object = "packages", .make = plan.command};
    step.packages = plan.moves;
    step.no_undo = plan.no_undo;
    return step;
  }

  /// All packages with their states, and what was ever written below /etc, /usr and /opt: the node's
  /// own layer has just this.
  static std::string Tree(const LabNode& node) {
    const std::string layer = node.Root().parent_path() / "upper";
    pnl_proc::Execute files(
        "cd " + layer +
        " && find etc usr opt ! -type d -o -path '*demo*' | grep -v ld.so | sort |"
        "while read -r f; do stat -c '%n %F %a %u:%g' \"$f\";"
        "[ ! -f \"$f\" ] || cksum <\"$f\"; done");
    return node.Exec(
               "[ -e /etc/redhat-release ] && rpm -qa 2>/dev/null | sort || "
               "dpkg-query -W -f '${Package} ${Version} ${Status}\\n' 'demo*' 2>/dev/null | grep "
               "-v "
               "not-inst;:") +
           files.Str();
  }

 private:
  std::optional<support::RepoServer> server_;
};

std::string Words(const PackageRequest& request) {
  std::string words = std::to_string(static_cast<int>(request.action));
  for (const std::string& name : request.names) words += " " + name;
  return words;
}

std::string Moves(const fleet::PackageMoves& moves) {
  std::string words;
  for (const auto& [name, move] : moves) words += name + ":" + move.before + ">" + move.after + " ";
  return words;
}

struct Case {
  const char* prepare;
  PackageRequest request;
  const char* debian;  ///< the moves
  const char* redhat;
};

const Case kCases[] = {
    {"true",
     {Action::kInstall, {"demo-tool"}},
     "demo-lib:>1 demo-tool:>1 ",
     "demo-lib:>1-1.noarch demo-tool:>1-1.noarch "},
    {"true", {Action::kInstall, {"demo-conf=1"}}, "demo-conf:>1 ", "demo-conf:>1-1.noarch "},
    {"I demo-conf demo-tool; echo own >>/etc/demo-conf/demo-conf.conf",
     {Action::kRemove, {"demo-conf", "demo-lib"}},
     "demo-conf:1> demo-lib:1> demo-tool:1> ",
     "demo-conf:1-1.noarch> demo-lib:1-1.noarch> demo-tool:1-1.noarch> "},
    {"I demo-conf demo-lib; echo own >>/etc/demo-conf/demo-conf.conf; base",
     {Action::kUpdate, {"demo-conf"}},
     "demo-conf:1>2 ",
     "demo-conf:1-1.noarch>2-1.noarch "},
    {"I demo-conf demo-lib; base",
     {Action::kUpdateAll, {}},
     "demo-conf:1>2 demo-lib:1>2 ",
     "demo-conf:1-1.noarch>2-1.noarch demo-lib:1-1.noarch>2-1.noarch "},
    {"base; I demo-lib; I demo-conf",
     {Action::kInstall, {"demo-lib=1", "demo-conf=1"}},
     "demo-conf:2>1 demo-lib:2>1 ",
     "demo-conf:2-1.noarch>1-1.noarch demo-lib:2-1.noarch>1-1.noarch "},
};

TEST_F(PackageStepsTest, MadeAndUndone) {
  for (const char* os : {kDebian, kRedHat}) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(std::string(os) + ": " + Words(c.request));
      const bool debian = os == kDebian;
      const auto node = Node(os);
      std::string prepare = c.prepare;
      const bool base_first = prepare.starts_with("base; ");
      const bool base_last = prepare.ends_with("; base");
      if (base_first) {
        AddBase(*node);
        prepare.erase(0, 6);
      }
      if (base_last) prepare.erase(prepare.size() - 6);
      node->Exec(
          "I() { if [ -e /etc/redhat-release ]; then yum -y install \"$@\"; else apt-get -yq "
          "install \"$@\"; fi >/dev/null 2>&1; }; " +
          prepare);
      if (base_last) AddBase(*node);
      const std::string before = Tree(*node);
      const fleet::PackagePlan plan = PlanOf(*node, c.request);
      EXPECT_EQ(plan.refusal, "");
      EXPECT_EQ(plan.no_undo, "");
      EXPECT_EQ(Moves(plan.moves), debian ? c.debian : c.redhat);
      Host host = HostOf(*node);
      const RunMark run{.name = "1-ab"};
      const auto made = fleet::MakeSteps(host, run, {StepOf(plan)});
      EXPECT_EQ(made[0].result, StepResult::kDone)
          << made[0].reason << made[0].output << plan.command;
      EXPECT_TRUE(PlanOf(*node, c.request).moves.empty());
      const auto undone = fleet::UndoSteps(host, run, {StepOf(plan)});
      EXPECT_EQ(undone[0].result, StepResult::kDone) << undone[0].reason << undone[0].output;
      EXPECT_EQ(Tree(*node), before);
    }
  }
}

/// What came between making and undoing, and what undoing says then.
struct Trouble {
  const char* name;
  const char* package;
  const char* before;  ///< a command on the node before it is made
  const char* during;  ///< while it is made; "": nothing. "reboot": the node crashes then
  StepResult made;
  const char* after;  ///< after it was made
  StepResult undone;
};

const Trouble kTroubles[] = {
    {"somebody needs it", "demo-lib", "", "", StepResult::kDone, "I demo-tool",
     StepResult::kConflict},
    {"the manager is busy", "demo-conf", "", "", StepResult::kDone, "H", StepResult::kDone},
    {"it fails", "demo-broken", "", "", StepResult::kFailed, "", StepResult::kDone},
    {"the manager is killed", "demo-slow", "touch /var/demo-slow", "K", StepResult::kFailed,
     "rm -f /var/demo-slow", StepResult::kDone},
    {"the node crashes", "demo-slow", "touch /var/demo-slow", "reboot", StepResult::kNone,
     "rm -f /var/demo-slow", StepResult::kDone},
};

constexpr const char* kShell =
    "I() { if [ -e /etc/redhat-release ]; then yum -y install \"$@\"; else apt-get -yq install "
    "\"$@\"; fi >/dev/null 2>&1; }; "
    "K() { pkill -9 -x 'apt-get|dpkg|yum|dnf|rpm|demo-slow.*'; }; "
    "H() { f=/var/lib/dpkg/lock-frontend; [ -e /etc/redhat-release ] && f=/var/lib/rpm/.rpm.lock; "
    "python3 -c \"import fcntl,time; f = open('$f', 'a'); fcntl.lockf(f, fcntl.LOCK_EX); "
    "time.sleep(3)\" >/dev/null 2>&1 & sleep 0.5; }; ";

TEST_F(PackageStepsTest, Troubles) {
  for (const char* os : {kDebian, kRedHat})
    for (const Trouble& trouble : kTroubles) {
      SCOPED_TRACE(std::string(os) + ": " + trouble.name);
      const auto node = Node(os);
      const std::string before = Tree(*node);
      const auto plan = PlanOf(*node, {Action::kInstall, {trouble.package}});
      node->Exec(kShell + std::string(trouble.before));
      const RunMark run{.name = "1-ab"};
      std::vector<fleet::Verdict> made(1);
      std::thread making([&] {
        try {
          Host host = HostOf(*node);
          made = fleet::MakeSteps(host, run, {StepOf(plan)});
        } catch (const pnl_err::Error&) {
          made[0].result = StepResult::kNone;
        }
      });
      const std::string during = trouble.during;
      if (!during.empty()) {
        node->Exec("for t in $(seq 200); do [ -s /var/demo-slow ] && break; sleep 0.05; done; :");
        if (during == "reboot")
          node->Reboot();
        else
          node->Exec(kShell + during + "; :");
      }
      making.join();
      EXPECT_EQ(made[0].result, trouble.made) << made[0].reason << made[0].output;
      node->Exec(kShell + std::string(trouble.after));
      Host host = HostOf(*node);
      const auto undone = fleet::UndoSteps(host, run, {StepOf(plan)});
      EXPECT_EQ(undone[0].result, trouble.undone) << undone[0].reason << undone[0].output;
      if (trouble.undone == StepResult::kDone)
        EXPECT_EQ(Tree(*node), before);
      else
        EXPECT_EQ(undone[0].reason.find("demo-tool"), 0U) << undone[0].reason;
    }
}

}  // namespace
