#include "tools/frame/runs.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include "brefir/str_utils.h"
#include "console/question.h"
#include "fleet/fleet_database.h"
#include "fleet/gather.h"
#include "pnl/settings.h"
#include "tools/frame/ask.h"
#include "tools/frame/change.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"
#include "tools/frame/verb.h"

namespace tools {
namespace {

constexpr std::int64_t kMostFailed = 100'000;
constexpr std::int64_t kShortestGuard = 10;   // seconds: a login may take some of them
constexpr std::int64_t kLongestGuard = 3600;  // the same

bool HasNodes(const Context& context) {
  return context.values.HasAtAll("nodes");
}

// --- Options

fleet::RunPolicy Policy(const opts::Values& values) {
  fleet::RunPolicy policy;
  policy.is_default = !values.HasAtAll("policy");
  if (values.HasAtAll("policy")) {
    policy = AboutWord("policy", "--policy",
                       [&] { return fleet::RunPolicy::Read(values.Str("policy")); });
  }
  if (values.HasAtAll("serial")) policy.serial = static_cast<std::size_t>(values.Int("serial"));
  if (values.HasAtAll("max-failed"))
    policy.max_failed = static_cast<std::size_t>(values.Int("max-failed"));
  policy.guard_all = values.HasAtAll("guard");
  if (policy.guard_all && values.HasAtAll("no-guard"))
    throw UsageError("--no-guard", "", "give --guard or --no-guard, not both");
  policy.guard = policy.guard_all              ? static_cast<int>(values.Int("guard"))
                 : values.HasAtAll("no-guard") ? 0
                                               : fleet::kGuardSeconds;
  return policy;
}

/// Words of the command line that name what is changed. All others may be values or secrets.
constexpr const char* kNames[] = {"REMOTE", "FROM", "TO",   "TARGET", "PATH", "FILE",
                                  "KEY",    "NAME", "REPO", "IP",     "PORT", "ID"};

/// "node write /etc/motd", "sysctl set net.ipv4.ip_forward".
std::string InShort(const Context& context) {
  const opts::Values& values = context.values;
  std::string text = str::Join(values.Command(), " ");
  for (const char* name : kNames)
    if (values.HasAtAll(name)) text = str::Append(text, str::Join(values.List(name), " "), " ");
  if (values.HasAtAll("PARAM"))
    for (const std::string& word : values.List("PARAM"))
      text += " " + word.substr(0, word.find('='));
  return text;
}

fleet::RunOptions OptionsOf(const Context& context, RunScreen& screen, const EditJob& job) {
  const opts::Values& values = context.values;
  fleet::RunOptions options;
  options.command = job.command;
  options.content_limit = static_cast<std::uint64_t>(NumberSetting("journal_file_limit", 0));
  options.max_sessions = screen.MaxSessions();
  options.timeout = screen.Timeout();
  options.fan = screen.Fan();
  options.watch = screen.Watch();
  options.before_commit = job.before_commit;
  options.keep_undo = values.HasAtAll("keep-undo");
  options.policy = Policy(values);
  options.irreversible = values.HasAtAll("irreversible");
  options.key = job.key;
  options.allow_owed = job.allow_owed;
  const bool here = std::none_of(job.targets.begin(), job.targets.end(),
                                 [](const auto& target) { return target.login.has_value(); });
  if (here && options.policy.guard_all)
    throw UsageError(
        "--guard", values.Str("guard"),
        "--guard is for nodes: nothing guards this host itself; add --nodes or --node");
  return options;
}

// --- One run

std::vector<std::string> NamesOf(const std::vector<fleet::RunTarget>& targets) {
  std::vector<std::string> names;
  names.reserve(targets.size());
  for (const fleet::RunTarget& target : targets) names.push_back(target.name);
  return names;
}

class EditRun {
 public:
  /// `verb`: whose answers are printed; null: the states of the nodes are.
  EditRun(Context& context, const Verb* verb, EditJob job)
      : context_(context),
        verb_(verb),
        job_(std::move(job)),
        many_(HasNodes(context) || job_.targets.size() > 1),
        screen_(context, NamesOf(job_.targets), many_),
        journal_(context.OnlyPlans() ? nullptr : Books()),
        answers_(job_.targets.size()),
        run_(journal_.get(), job_.targets, OptionsOf(context, screen_, job_)) {}

  int Do() {
    Plan();
    if (!Many() && run_.Failure(0)) throw pnl_err::Error(*run_.Failure(0));
    if (context_.OnlyPlans()) {
      screen_.End();
      const int code = TellPlan();
      if (job_.save) context_.out.Flush();  // on a terminal, what follows is below the plan
      if (job_.save && code == kDone) job_.save(run_);
      if (job_.save && code != kDone) Say("No plan was saved.\n");
      return code;
    }
    RequireAllowed();
    if (run_.Changes() && !IsWanted()) {
      Say("Nothing was changed.\n");
      return kFailed;
    }
    context_.out.TellOfWork();
    const fleet::RunReport report = run_.Make();
    screen_.End();
    return Tell(report);
  }

 private:
  static std::unique_ptr<fleet::Journal> Books() {
    return std::make_unique<fleet::Journal>(fleet::OpenFleetDatabase());
  }
  bool Many() const { return many_; }  ///< output for several nodes
  std::size_t Count() const { return run_.Targets().size(); }
  const std::string& Name(std::size_t i) const { return run_.Targets()[i].name; }
  void Say(const std::string& text) const {
    if (!context_.values.Has("quiet")) std::fputs(text.c_str(), stderr);
  }

  void Plan();
  std::string Shown(std::size_t i) const;
  std::string Folded() const;
  fleet::Edit EditFor(std::size_t i, HostEdit edit);
  void RequireAllowed() const;
  bool IsWanted();
  int TellPlan();
  int Tell(const fleet::RunReport& report);
  int TellOne(const fleet::RunReport& report);
  int TellMany(const fleet::RunReport& report);
  int TellStates(const fleet::RunReport& report);
  void TellKept(const fleet::RunReport& report);
  std::optional<pnl_err::Error> FailureOf(const fleet::RunReport& report, std::size_t i) const;
  void Complete(std::size_t i, const fleet::NodeReport& node);

  Context& context_;
  const Verb* const verb_;
  const EditJob job_;
  const bool many_;
  RunScreen screen_;
  std::unique_ptr<fleet::Journal> journal_;
  std::vector<std::optional<Answer>> answers_;
  fleet::Run run_;
};

/// Several answers of a host are one list.
void Join(std::optional<Answer>& all, Answer answer) {
  if (!all) {
    all = std::move(answer);
    return;
  }
  all->is_list = true;
  all->records.insert(all->records.end(), answer.records.begin(), answer.records.end());
}

/// The edit of a host, which leaves its answer here.
fleet::Edit EditRun::EditFor(std::size_t i, HostEdit edit) {
  return {.look = std::move(edit.look),
          .make = [this, i, make = std::move(edit.make)](
                      fleet::Draft& draft) { Join(answers_[i], make(draft)); },
          .words = std::move(edit.words)};
}

void EditRun::Plan() {
  if (!job_.edits) {
    return run_.PlanAsSaved(job_.steps, job_.machines,
                            [this](std::size_t i, const fleet::RunStep& step) {
                              return EditFor(i, job_.late(i, step));
                            });
  }
  run_.Plan([&](std::size_t i) {
    answers_[i].reset();
    std::vector<fleet::Edit> plain;
    for (HostEdit& edit : job_.edits(i)) plain.push_back(EditFor(i, std::move(edit)));
    return plain;
  });
}

/// Told before anybody is asked.
void EditRun::RequireAllowed() const {
  const opts::Values& values = context_.values;
  const std::string step = run_.Irreversible();
  if (step.empty() || values.HasAtAll("irreversible")) return;
  const fleet::RunPolicy policy = Policy(values);
  if (policy.each || policy.is_default) return;
  throw UsageError("--policy", values.Str("policy"), step);
}

// --- The plan

/// The change of a node, without its name.
std::string EditRun::Shown(std::size_t i) const {
  const fleet::Plan plan = fleet::PlanOf(Name(i), run_.Steps(i));
  return fleet::DiffOf(plan) + fleet::WordsOf(plan) + run_.GuardNote(i);
}

/// The changes of all nodes, equal ones once.
std::string EditRun::Folded() const {
  std::vector<std::string> names, texts;
  for (std::size_t i = 0; i < Count(); ++i) {
    if (run_.Failure(i)) continue;
    names.push_back(Name(i));
    texts.push_back(run_.Steps(i).empty() ? "no change\n" : Shown(i));
  }
  std::string text;
  for (const fleet::Gathered& group : fleet::Gather(names, texts)) {
    const std::string count =
        std::to_string(group.members.size()) + (group.members.size() == 1 ? " node" : " nodes");
    text += group.names + " (" + count + "):\n";
    for (std::string_view rest = group.answer; !rest.empty();)
      text.append("    ").append(str::NextWord(rest, '\n')) += '\n';
  }
  return text;
}

bool EditRun::IsWanted() {
  if ((Count() == 1 && !job_.asks) || context_.values.Has("yes") || !console::CanAsk()) return true;
  screen_.End();
  std::size_t changing = 0;
  for (std::size_t i = 0; i < Count(); ++i) changing += run_.Steps(i).empty() ? 0 : 1;
  Say(context_.out.Rendered([&](Output& out) { out.Plain(Folded()); }));
  return console::Agrees("Change " + std::to_string(changing) +
                         (changing == 1 ? " node?" : " nodes?"));
}

int EditRun::TellPlan() {
  Change change;
  for (std::size_t i = 0; i < Count(); ++i) {
    if (run_.Failure(i)) {
      context_.Report(*run_.Failure(i));
      continue;
    }
    if (Many()) change.nodes.push_back(Name(i));
    for (fleet::Step& step : fleet::PlanOf(Name(i), run_.Steps(i)))
      change.plan.push_back(std::move(step));
  }
  if (Many() && context_.OnlyShows() && context_.out.ForPeople()) {
    context_.out.Plain(Folded());
    return context_.Failed() ? kFailed : kDone;
  }
  const int code = CarryOut(context_, change);
  if (context_.OnlyShows() && context_.out.ForPeople() && !run_.Failure(0))
    context_.out.Plain(run_.GuardNote(0));
  return context_.Failed() ? kFailed : code;
}

// --- What became of it

/// Why a node does not have the change; null if it has.
std::optional<pnl_err::Error> EditRun::FailureOf(const fleet::RunReport& report,
                                                 std::size_t i) const {
  const fleet::NodeReport& node = report.nodes[i];
  using State = fleet::NodeRunState;
  if (run_.Failure(i)) return run_.Failure(i);
  if (node.state == State::kDone || node.state == State::kCommitted) return std::nullopt;
  if (node.state == State::kUnchanged && report.reason.empty()) return std::nullopt;
  const std::string id = std::to_string(report.id);
  const std::string reason = ReasonText(node);
  std::string type = node.error ? node.error->type() : "run";
  std::string message = Name(i) + ": ";
  if (node.state == State::kConflict) {
    message += "NOT as before: " + reason + "; brefirctl run show " + id;
  } else if (node.state == State::kBehind) {
    message += reason + "; it is owed the change: brefirctl run resume " + id;
  } else if (node.state == State::kOwed) {
    message += reason + "; it could not be undone yet: brefirctl run resume " + id;
  } else if (!reason.empty()) {
    message += reason + "; all is as before";
  } else if (!Many()) {
    message += report.reason + "; all is as before";
  } else {
    type = kUndone;
    message += "as before, because of " + report.reason;
  }
  return pnl_err::Error(type, Name(i), id).add_param("message", message);
}

void EditRun::Complete(std::size_t i, const fleet::NodeReport& node) {
  if (job_.told) job_.told(*answers_[i], node);
  for (Record& record : answers_[i]->records)
    if (record.Find("changed") == nullptr) record.Add("changed", node.changed);
}

int EditRun::TellOne(const fleet::RunReport& report) {
  if (const auto failure = FailureOf(report, 0)) throw pnl_err::Error(*failure);
  Complete(0, report.nodes[0]);
  Print(context_.out, *answers_[0]);
  return answers_[0]->code;
}

int EditRun::TellMany(const fleet::RunReport& report) {
  fleet::Failures failures(Count());
  for (std::size_t i = 0; i < Count(); ++i) {
    failures[i] = FailureOf(report, i);
    if (failures[i]) {
      answers_[i].reset();
    } else {
      Complete(i, report.nodes[i]);
    }
  }
  Round round(context_);
  round.Set(std::move(answers_), std::move(failures));
  const int code = round.Tell(*verb_);
  if (report.id != 0) Say("run " + std::to_string(report.id) + ": " + ToText(report.state) + "\n");
  return code;
}

/// A node that could not be planned has failed; when nothing was begun, the others are as before.
fleet::RunReport Ended(fleet::RunReport report) {
  using State = fleet::NodeRunState;
  for (fleet::NodeReport& node : report.nodes) {
    if (node.state == State::kUnchanged && !node.reason.empty()) node.state = State::kFailed;
    if (node.state == State::kWaiting && report.id == 0) node.state = State::kUnchanged;
  }
  return report;
}

/// "web[1-3]: 2 steps done".
int EditRun::TellStates(const fleet::RunReport& report) {
  TellRuns(context_, {report}, [&](std::size_t i) -> std::string {
    if (report.nodes[i].state == fleet::NodeRunState::kUnchanged)
      return report.reason.empty() ? "no change" : "as before";
    if (!report.nodes[i].changed) return "";
    const std::size_t steps = run_.Steps(i).size();
    return std::to_string(steps) + (steps == 1 ? " step done" : " steps done");
  });
  return RunCode(report, fleet::RunState::kDone, screen_.Interrupted());
}

/// The change is made: what is kept there does not concern its exit code.
void EditRun::TellKept(const fleet::RunReport& report) {
  std::vector<std::string> names, reasons;
  for (const fleet::NodeReport& node : report.nodes) {
    if (node.state != fleet::NodeRunState::kCommitted) continue;
    names.push_back(node.name);
    reasons.push_back("the change is made, but what run " + std::to_string(report.id) +
                      " keeps there could not be removed yet: " + ReasonText(node) +
                      "; the next run does it, or 'brefirctl run resume " +
                      std::to_string(report.id) + "'");
  }
  TellReasons(context_, names, reasons);
}

int EditRun::Tell(const fleet::RunReport& report) {
  if (verb_ == nullptr) return TellStates(Ended(report));
  TellKept(report);
  const int code = Many() ? TellMany(report) : TellOne(report);
  return screen_.Interrupted() ? kInterrupted : code;
}

}  // namespace

void AddSecretOption(opts::Args& args) {
  args.Option("secret").Help(
      "the content is in no journal, plan or log; it can be undone only until the commit, or with "
      "--keep-undo");
}

void AddThenOption(opts::Args& args) {
  args.Option("then").Value("CMD").Help(
      "a command for the host's shell, run after the change, and again when it is undone; not run "
      "where nothing changes");
}

HostEdit EditOf(Context& context, const Verb& verb) {
  HostEdit edit = verb.edit(context);
  if (context.values.HasAtAll("secret")) {
    edit.make = [make = std::move(edit.make)](fleet::Draft& draft) {
      draft.SetSecret(true);
      Answer answer = make(draft);
      draft.SetSecret(false);
      return answer;
    };
  }
  if (context.values.HasAtAll("then")) {
    edit.make = [make = std::move(edit.make),
                 command = context.values.Str("then")](fleet::Draft& draft) {
      const std::size_t count = draft.Count();
      Answer answer = make(draft);
      draft.Then(command, count);
      return answer;
    };
  }
  return edit;
}

void AddRunOptions(opts::Args& args) {
  AddNodesOptions(args);
  AddPolicyOptions(args, false);
}

void AddPolicyOptions(opts::Args& args, bool always) {
  const auto of_nodes = [&](const char* name) -> opts::Arg& {
    opts::Arg& option = args.Option(name);
    return always ? option : option.Needs("nodes");
  };
  of_nodes("policy").Value("POLICY").Help(
      "all-or-none (default), each, canary:N or canary:N,then:M%: the first N nodes, then M "
      "percent of all at a time");
  of_nodes("serial").Number("N", 1, kMostFailed).Help("make N nodes at a time");
  of_nodes("max-failed")
      .Number("K", 0, kMostFailed)
      .Help("up to K failed nodes are undone alone; with one more, all are undone; default: 0");
  AddGuardOptions(args);
  args.Option("irreversible").Help("also make steps that cannot be undone, whatever the policy is");
  args.Option("keep-undo")
      .Help(
          "keep old content on the host until 'brefirctl run prune', so that 'run undo' also "
          "restores what is too large for the journal");
}

void AddGuardOptions(opts::Args& args) {
  args.Option("guard")
      .Number("SECONDS", kShortestGuard, kLongestGuard)
      .Help(
          "the nodes put everything back by themselves after that time, unless a fresh login "
          "works; "
          "without this option, 60 s for keys, sshd, PAM, sudo and the network");
  args.Option("no-guard").Help("the nodes put nothing back by themselves");
  args.Option("yes").Help("do not ask before the change");
}

std::vector<Field> EditFields() {
  return Fields(PlanFields(), NodesFields(true));
}

std::vector<fleet::Node> RunNodes(const Context& context) {
  if (HasNodes(context)) return SelectedNodes(context);
  if (!context.values.HasAtAll("node")) return {};
  return {NamedNode(context)};
}

std::vector<fleet::RunTarget> RunTargets(const Context& context,
                                         const std::vector<fleet::Node>& nodes) {
  if (nodes.empty()) return {{.name = "localhost"}};
  const NodeLogins logins(context);
  std::vector<fleet::RunTarget> targets;
  for (const fleet::Node& node : nodes) {
    const pnl_rpc::SshOptions login = logins.Of(node);
    targets.push_back({.name = HasNodes(context) ? node.name : NameOf(login), .login = login});
  }
  return targets;
}

int RunEdits(Context& context, EditJob job) {
  return EditRun(context, nullptr, std::move(job)).Do();
}

int RunEdit(Context& context, const Verb& verb) {
  const HostEdit edit = EditOf(context, verb);
  EditJob job{.targets = RunTargets(context, RunNodes(context)), .command = InShort(context)};
  job.edits = [&](std::size_t) { return std::vector<HostEdit>{edit}; };
  job.before_commit = edit.before_commit;
  job.told = edit.told;
  job.asks = edit.asks;
  return EditRun(context, &verb, std::move(job)).Do();
}

}  // namespace tools
