#include "fleet/host_steps.h"

#include <thread>

#include "brefir/str_utils.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

using fleet::PathKind;
using fleet::PathState;
using fleet::RunMark;
using fleet::RunStep;
using fleet::StepForm;
using fleet::StepResult;
using pnl_host::Host;
using support::LabNode;

class HostStepsTest : public support::LabTest {
 protected:
  static Host HostOf(const LabNode& node) { return Host(pnl_rpc::SSH(node.Login())); }

  static std::string Run(Host& host, const std::string& command) {
    const auto outcome = host.Run(command);
    EXPECT_EQ(outcome.code, 0) << command << outcome.complaint;
    return outcome.output;
  }

  /// All files below /srv/t: names, attributes, links and sums.
  static std::string Tree(Host& host) {
    return Run(host,
               "cd /srv/t && find . -exec stat -c '%n %F %a %u:%g %N' {} + | sort && "
               "find . -type f -exec cksum {} + | sort -k3; find /srv/t /var/lib -name "
               "'.brefir*' -o -path '*/runs/*'");
  }

  /// One word for each verdict: "done already conflict failed ...".
  static std::string Words(const std::vector<fleet::Verdict>& verdicts) {
    static constexpr const char* kWords[] = {"done",   "already", "conflict",
                                             "failed", "wanted",  "none"};
    std::string words;
    for (const fleet::Verdict& verdict : verdicts) {
      words += (words.empty() ? "" : " ") + std::string(kWords[static_cast<int>(verdict.result)]);
      if (verdict.result == StepResult::kFailed) words += "(" + verdict.reason + ")";
    }
    return words;
  }
};

RunStep Path(const fleet::Place& place, PathState after) {
  return {.object = place.path, .before = place.state, .after = std::move(after)};
}

PathState With(PathState state, unsigned mode, const std::string& owner = "") {
  state.mode = mode;
  state.owner = owner;
  return state;
}

PathState Of(PathKind kind, const std::string& target = "") {
  PathState state;
  state.kind = kind;
  state.target = target;
  return state;
}

std::string Odd() {
  std::string name;
  for (int byte = 1; byte < 256; ++byte)
    if (byte != '/') name += static_cast<char>(byte);
  return name.substr(0, 190);
}

/// A step of each kind, from what stands in /srv/t.
std::vector<RunStep> Steps(Host& host) {
  const std::string odd = "/srv/t/" + Odd();
  const fleet::Looks looks{.files = {"/srv/t/link", "/srv/t/new", odd, "/srv/t/big", "/srv/t/copy"},
                           .entries = {"/srv/t/link", "/srv/t/tree", "/srv/t/gone", "/srv/t/a",
                                       "/srv/t/b", "/srv/t/made", "/srv/t/fifo"}};
  const fleet::Sight sight = fleet::Look(host, looks, 1000);
  const auto file = [&](const std::string& name) { return sight.files.at("/srv/t/" + name); };
  const auto entry = [&](const std::string& name) { return sight.entries.at("/srv/t/" + name); };
  EXPECT_EQ(file("link").path, "/srv/t/dir/real");
  EXPECT_EQ(*file("link").state.content, "old\n");
  EXPECT_EQ(entry("link").state.target, "dir/real");
  EXPECT_EQ(file("big").state.content, nullptr);
  PathState changed = file("big").state;
  changed.mode = 0600;
  changed.owner = "1:2";
  const PathState a = entry("a").state;
  return {Path(file("link"), PathState::File("new\n")),
          Path(file("new"), With(PathState::File(Odd()), 0640)),
          Path(file(Odd()), PathState::File("")),
          Path(file("big"), changed),
          Path(entry("made"), With(Of(PathKind::kDirectory), 0711, "3:4")),
          {.object = "/srv/t/made/in", .after = PathState::File("x")},
          Path(entry("link"), Of(PathKind::kLink, "else where")),
          Path(entry("tree"), {}),
          Path(entry("gone"), {}),
          Path(entry("fifo"), {}),
          {.form = StepForm::kMove,
           .object = "/srv/t/b",
           .before = entry("b").state,
           .after = a,
           .from = "/srv/t/a"},
          {.form = StepForm::kCopy,
           .object = "/srv/t/copy",
           .after = With(file("big").state, 0644),
           .from = "/srv/t/big"}};
}

constexpr const char* kSetUp =
    "rm -rf /srv/t; mkdir -p /srv/t/dir /srv/t/tree/sub; cd /srv/t; echo old >dir/real; chown "
    "12:34 "
    "dir/real; chmod 4751 dir/real; ln -s dir/real link; echo x >tree/sub/x; ln -s nowhere gone; "
    "mkfifo fifo; echo a >a; echo b >b; chmod 600 a; head -c 5000 /dev/urandom >big";

// Each shell as /bin/sh, and this host.
TEST_F(HostStepsTest, MakesEndsAndUndoesEveryKind) {
  const LabNode node;
  for (const char* shell : {"dash", "bash", "busybox", ""}) {
    const bool local = *shell == '\0';
    SCOPED_TRACE(local ? "here" : shell);
    Host host = local ? Host() : HostOf(node);
    if (!local) node.Exec("ln -sf " + std::string("$(command -v ") + shell + ") /bin/sh");
    const RunMark run{.name = "1-ab"};
    Run(host, kSetUp);
    const std::string before = Tree(host);
    const std::vector<RunStep> steps = Steps(host);
    const std::string all = "done done done done done done done done done done done done";
    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)), all);
    EXPECT_EQ(Run(host,
                  "cd /srv/t; cat dir/real b; stat -c %a:%u:%g dir/real new big made; "
                  "readlink link; ls -d tree gone fifo a 2>/dev/null || cmp big copy"),
              "new\na\n4751:12:34\n640:0:0\n600:1:2\n711:3:4\nelse where\n");
    EXPECT_EQ(Run(host, "cd /srv/t; cat new"), Odd());
    const std::string made = Tree(host);
    // Again: nothing is done twice.
    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)),
              "already already already already already already already already already already "
              "already already");
    EXPECT_EQ(Tree(host), made);
    EXPECT_EQ(fleet::Look(host, {}).runs, (std::map<std::string, std::int64_t>{{"1-ab", 1}}));
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), all);
    EXPECT_EQ(Tree(host), before);
    // A crash between the temporary file and its rename leaves it in a directory that must go.
    Run(host,
        "cd /srv/t; mkdir made; chmod 711 made; chown 3:4 made; touch made/.brefir-new-1-ab-5");
    EXPECT_EQ(fleet::UndoSteps(host, run, steps).size(), steps.size());
    EXPECT_EQ(Tree(host), before);

    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)), all);
    fleet::EndSteps(host, run);
    EXPECT_EQ(Run(host, "find /srv/t /var/lib -name '.brefir*' -o -path '*/runs/*'"), "");
    // Without kept copies: what the books have comes back.
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps, true)),
              "done done done done done done done failed(the old one was kept nowhere) done "
              "failed(the old one was kept nowhere) done done");
  }
}

/// A file, a service that follows it, and a command with an undo: /srv/t/log says what ran.
std::vector<RunStep> Commands(const std::string& command, const std::string& service) {
  return {
      {.object = "/srv/t/conf", .after = PathState::File("new\n")},
      {.form = StepForm::kCommand,
       .object = "first",
       .make = command,
       .undo = "echo undone >>/srv/t/log"},
      {.form = StepForm::kService, .object = "reload", .make = service, .follows = {"/srv/t/conf"}},
      {.form = StepForm::kService, .object = "alone", .make = "umask >>/srv/t/log"},
      {.form = StepForm::kLate, .object = "later"}};
}

constexpr const char* kLog = "echo $(cat /srv/t/conf 2>&1) >>/srv/t/log";

TEST_F(HostStepsTest, RunsCommandsOnceAndServicesAgainWhenUndone) {
  const LabNode node;
  const std::string none = "cat: /srv/t/conf: No such file or directory\n";
  for (const char* shell : {"dash", "bash", "busybox", ""}) {
    const bool local = *shell == '\0';
    SCOPED_TRACE(local ? "here" : shell);
    Host host = local ? Host() : HostOf(node);
    if (!local) node.Exec("ln -sf " + std::string("$(command -v ") + shell + ") /bin/sh");
    Run(host, "rm -rf /srv/t; mkdir -p /srv/t");
    const auto log = [&] {
      return str::Replace(Run(host, "cat /srv/t/log; rm -f /srv/t/log"), "can't open", "cat:");
    };
    const auto name = [&](const char* number) { return std::string(number) + "-" + shell; };
    RunMark run{.name = name("1")};
    const auto steps = Commands("echo \"it's\" a '!' \\\\ >>/srv/t/log; echo said; exit 0", kLog);
    std::vector<fleet::Verdict> made = fleet::MakeSteps(host, run, steps);
    EXPECT_EQ(Words(made), "done done done done none");
    EXPECT_EQ(made[1].output, "said\n");
    EXPECT_EQ(log(), "it's a ! \\\nnew\n0022\n");
    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)), "already already already already none");
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "done done done already already");
    EXPECT_EQ(log().substr(0, 7), "undone\n");
    // The panel has not heard of it, and asks again.
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "already already already already already");

    // After the commit the host knows nothing; what was not committed has never begun.
    run.name = name("2");
    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)), "done done done done none");
    fleet::EndSteps(host, run);
    run.committed = true;
    Run(host, "rm -f /srv/t/log");
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "done done done already already");
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "already already already already already");
    EXPECT_EQ(log().substr(0, 7), "undone\n");
    run = {.name = name("3")};
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "already already already already already");

    // The books say that it was made: then the host has forgotten it.
    run = {.name = name("7"), .made = true};
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, {steps[1]})),
              "failed(it was made, but this node knows nothing of that any more)");

    // A reload that fails: the file and the service come back.
    run.name = name("4");
    made = fleet::MakeSteps(host, run, Commands("true", "echo bad; exit 3"));
    EXPECT_EQ(Words(made), "done done failed(exit code 3) none none");
    EXPECT_EQ(made[2].output, "bad\n");
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, Commands("true", kLog))),
              "done done done already already");

    // Who takes the run over waits for the command that still works, however short its patience is.
    run = {.name = name("6"), .wait = 3, .take = true};
    const auto slow = Commands("sleep 4; echo slept >>/srv/t/log", "true");
    Run(host, "rm -f /srv/t/log");
    std::jthread first([&] {
      Host other = local ? Host() : HostOf(node);
      EXPECT_EQ(Words(fleet::MakeSteps(other, run, slow)), "done done done done none");
    });
    while (host.Run("pgrep -f '^sleep 4'").code != 0) pnl_proc::Sleep(10);
    RunMark second = run;
    second.epoch = 2;
    EXPECT_EQ(Words(fleet::UndoSteps(host, second, slow)), "done done done already already");
    first.join();
    EXPECT_EQ(log(), "slept\n0022\nundone\n");

    // Ended after its time, with all that it began.
    run = {.name = name("5"), .command_limit = 1};
    made = fleet::MakeSteps(host, run, Commands("sleep 1000 & sleep 1000", kLog));
    EXPECT_EQ(Words(made), "done failed(it was ended after 1 seconds) none none none");
    EXPECT_EQ(host.Run("pgrep -f '^sleep 1000'").output, "");
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps)), "done done already already already");
  }
}

}  // namespace
