#include "fleet/host_steps.h"

#include "pnl/err.h"
#include "pnl/file.h"
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

    EXPECT_EQ(Words(fleet::MakeSteps(host, run, steps)), all);
    fleet::EndSteps(host, run);
    EXPECT_EQ(Run(host, "find /srv/t /var/lib -name '.brefir*' -o -path '*/runs/*'"), "");
    // Without kept copies: what the books have comes back.
    EXPECT_EQ(Words(fleet::UndoSteps(host, run, steps, true)),
              "done done done done done done done failed(the old one was kept nowhere) done "
              "failed(the old one was kept nowhere) done done");
  }
}

}  // namespace
