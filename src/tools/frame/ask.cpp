#include "tools/frame/ask.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "brefir/str_utils.h"
#include "console/interrupt.h"
#include "console/node_table.h"
#include "fleet/diff.h"
#include "fleet/failed_nodes.h"
#include "fleet/gather.h"
#include "pnl/settings.h"
#include "tools/frame/login.h"
#include "tools/frame/verb.h"

namespace tools {
namespace {

constexpr int kMaxSeconds = 86400;

std::vector<std::string> NamesOf(const std::vector<fleet::Node>& nodes) {
  std::vector<std::string> names;
  names.reserve(nodes.size());
  for (const fleet::Node& node : nodes) names.push_back(node.name);
  return names;
}

/// Below the names of its nodes: one line beside them, several lines indented.
std::string Block(const std::string& names, const std::string& text) {
  const std::string head = names + ":";
  const std::size_t end = text.find('\n');
  if (text.empty()) return head + "\n";
  if (end == std::string::npos || end + 1 == text.size())
    return head + " " + text + (end == std::string::npos ? "\n" : "");
  std::string body = str::Replace(text, "\n", "\n    ");
  if (text.ends_with('\n')) body.erase(body.size() - 4);
  return head + "\n    " + body + (text.ends_with('\n') ? "" : "\n");
}

}  // namespace

const std::string& NameOf(const pnl_rpc::SshOptions& login) {
  return login.name.empty() ? login.host : login.name;
}

std::size_t Forks(const Context& context) {
  if (context.values.HasAtAll("forks"))
    return static_cast<std::size_t>(context.values.Int("forks"));
  const std::string value = pnl_settings::Get("forks");
  const std::int64_t forks = str::Int64(value);
  if (forks >= 1 && forks <= static_cast<std::int64_t>(fleet::kMaxForks))
    return static_cast<std::size_t>(forks);
  throw pnl_err::Error("setting", "forks", value)
      .add_param("message", "forks in etc/brefir.conf must be a number from 1 to " +
                                std::to_string(fleet::kMaxForks) + ", not '" + value + "'");
}

void AddFanOptions(opts::Args& args, bool always) {
  const auto number = [&](const char* name, const char* placeholder, std::int64_t max,
                          const char* help) {
    opts::Arg& option = args.Option(name).Number(placeholder, 1, max).Help(help);
    if (!always) option.Needs("nodes");
  };
  number("forks", "N", static_cast<std::int64_t>(fleet::kMaxForks),
         "ask up to N nodes at the same time; default: setting forks");
  number("node-deadline", "S", kMaxSeconds, "give up a node S seconds after its turn began");
  number("deadline", "S", kMaxSeconds, "give up all nodes after S seconds");
}

void AddAllNodesOptions(opts::Args& args) {
  args.Option("nodes")
      .Value("SELECTION")
      .Help("only these: names and ranges with commas between, @GROUP, @failed, !NAME")
      .Completes("selections");
  AddFanOptions(args, true);
}

void AddNodesOptions(opts::Args& args) {
  args.Option("nodes")
      .Value("SELECTION")
      .Excludes("node")
      .Help("ask several nodes: names and ranges with commas between, @GROUP, @all, @failed, !NAME")
      .Completes("selections");
  AddFanOptions(args, false);
  args.Option("diff").Needs("nodes").Help("show how answers differ from the most frequent one");
}

std::vector<Field> NodesFields(bool list) {
  std::vector<Field> fields = {{"node", "its name", "with --nodes"}};
  if (list)
    fields.push_back({"list", "the node's records; flat with --columns or CSV", "with --nodes"});
  fields.push_back({"error", "why the node failed", "with --nodes, if it failed"});
  return fields;
}

int Ask(Context& context, const Verb& verb) {
  const Question question = verb.ask(context);
  if (context.values.Has("nodes")) {
    Round round(context);
    round.Visit([&](const fleet::Node&, pnl_host::Host& host) { return question.ask(host); },
                {.known = question.known});
    if (question.end) question.end();
    return round.Tell(verb);
  }
  std::optional<Answer> answer;
  if (question.known && context.values.Has("node"))
    answer = question.known(NameOf(NodeOptions(context)));
  if (!answer) {
    pnl_host::Host host = OpenHost(context);
    answer = question.ask(host);
  }
  if (question.end) question.end();
  for (const pnl_err::Error& error : answer->errors) context.Report(error);
  Print(context.out, *answer);
  return answer->code;
}

// --- The work

Round::Round(Context& context) : Round(context, SelectedNodes(context)) {}

Round::Round(Context& context, std::vector<fleet::Node> nodes)
    : context_(context),
      nodes_(std::move(nodes)),
      answers_(nodes_.size()),
      failures_(nodes_.size()),
      login_times_(nodes_.size()) {}

void Round::Visit(const Work& work, const How& how) {
  const opts::Values& values = context_.values;
  const auto stop = how.stop ? how.stop : std::make_shared<pnl_thread::Event>();
  std::optional<console::StoppedByInterruption> interruption;
  if (!how.stop) interruption.emplace(*stop);
  console::NodeTable table(NamesOf(nodes_),
                           how.draws && !values.Has("verbose") && !values.Has("quiet"));
  fleet::Fan fan({.forks = Forks(context_),
                  .node_deadline = std::chrono::seconds(values.Int("node-deadline")),
                  .deadline = std::chrono::seconds(values.Int("deadline")),
                  .stop = stop});
  const NodeLogins logins(context_);
  const auto visit = [&](const fleet::Turn& turn) {
    const fleet::Node& node = nodes_[turn.Index()];
    const pnl_rpc::SshOptions login = how.login ? how.login(node) : logins.Of(node);
    if (how.known && (answers_[turn.Index()] = how.known(NameOf(login)))) return;
    pnl_rpc::SSH ssh = turn.LogIn(login);
    login_times_[turn.Index()] = turn.LoginTime();
    if (values.Has("timeout")) ssh.SetTimeout(static_cast<int>(values.Int("timeout")));
    pnl_host::Host host(ssh);
    answers_[turn.Index()] = work(node, host);
  };
  const fleet::FanWatch watch{
      .begun = [&](std::size_t i) { table.Set(nodes_[i].name, fleet::NodeState::kRunning); },
      .ended =
          [&](std::size_t i, const std::optional<pnl_err::Error>& failure) {
            failures_[i] = failure;
            const bool failed = HasFailed(i);
            table.Set(nodes_[i].name,
                      failed ? fleet::NodeState::kError : fleet::NodeState::kFinished,
                      failed ? Reason(i) : "");
          }};
  failures_ = fan.Visit(nodes_.size(), visit, watch);
  table.End();
  Keep();
}

void Round::Set(std::vector<std::optional<Answer>> answers, fleet::Failures failures) {
  answers_ = std::move(answers);
  failures_ = std::move(failures);
  Keep();
}

/// The work is done: that it cannot be remembered is only a warning.
void Round::Keep() const {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (HasFailed(i) && State(i) != kUndoneState) names.push_back(nodes_[i].name);
  try {
    fleet::KeepFailedNodes(names);
  } catch (const pnl_err::Error& error) {
    context_.Warn(pnl_err::Error(error.type(), error.object(), error.value())
                      .add_param("message", "@failed could not be stored: " +
                                                ErrorText(error, Format::kTable)));
  }
}

// --- What became of a node

bool Round::HasFailed(std::size_t node) const {
  return failures_[node] || answers_[node]->code == kFailed;
}

std::string Round::State(std::size_t node) const {
  if (!HasFailed(node)) return kOk;
  if (!failures_[node]) return kFailedState;
  if (failures_[node]->type() == fleet::kInterrupted) return kInterruptedState;
  if (failures_[node]->type() == kUndone) return kUndoneState;
  return pnl_rpc::SessionFailed(*failures_[node]) ? kUnreachable : kFailedState;
}

std::string Round::Reason(std::size_t node) const {
  if (failures_[node]) return ReasonText(*failures_[node], nodes_[node].name);
  std::string reasons;
  for (const pnl_err::Error& error : answers_[node]->errors)
    reasons = str::Append(reasons, ReasonText(error, nodes_[node].name), "; ");
  return reasons;
}

// --- Output

/// Behind the node's name; some answers have it, too.
static void AddOwn(Record& record, const std::string& name, const Value& value) {
  if (name != "node") record.Add(name, value);
}

/// The node's record. One that gave no answer has null in the verb's fields.
Record Round::Told(std::size_t node, const Verb& verb) const {
  Record record = Record().Add("node", nodes_[node].name);
  const std::optional<Answer>& answer = answers_[node];
  if (answer && answer->is_list) {
    record.Add("list", answer->records);
  } else if (answer) {
    for (const auto& [name, value] : answer->records.front().fields) AddOwn(record, name, value);
  } else if (verb.lists) {
    record.Add("list", Value());
  } else {
    for (const Field& field : verb.fields)
      if (field.when.empty())
        AddOwn(record, field.name, field.name == "state" ? State(node) : Value());
  }
  if (HasFailed(node)) record.Add("error", Reason(node));
  return record;
}

/// A record for each record of a list, too.
std::vector<Record> Round::Rows(const Verb& verb) const {
  std::vector<Record> rows;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    if (!answers_[i] || !answers_[i]->is_list || HasFailed(i)) {
      rows.push_back(Told(i, verb));
      continue;
    }
    for (const Record& record : answers_[i]->records) {
      rows.push_back(Record().Add("node", nodes_[i].name));
      for (const auto& [name, value] : record.fields) rows.back().Add(name, value);
    }
  }
  return rows;
}

void Round::PrintGathered() const {
  std::vector<std::string> names, texts;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    if (!answers_[i]) continue;
    const std::string text = context_.out.Rendered([&](Output& out) { Print(out, *answers_[i]); });
    if (HasFailed(i) && text.empty()) continue;
    names.push_back(nodes_[i].name);
    texts.push_back(text);
  }
  const std::vector<fleet::Gathered> groups = fleet::Gather(names, texts);
  for (const fleet::Gathered& group : groups) {
    const bool differs = context_.values.Has("diff") && &group != &groups.front();
    const std::string text =
        differs ? fleet::UnifiedDiff(groups.front().answer, group.answer, "answer") : group.answer;
    context_.out.Plain(Block(group.names, text));
  }
}

void Round::PrintFailures() const {
  std::vector<std::string> names, reasons;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    if (!HasFailed(i) || Reason(i).empty()) continue;
    names.push_back(nodes_[i].name);
    reasons.push_back(Reason(i));
  }
  for (const fleet::Gathered& group : fleet::Gather(names, reasons)) {
    context_.Warn(pnl_err::Error("node", group.names)
                      .add_param("message", group.names + ": " + group.answer));
  }
}

std::string Round::Summary() const {
  std::map<std::string, std::size_t> counts;
  for (std::size_t i = 0; i < nodes_.size(); ++i) ++counts[State(i)];
  std::string text;
  for (const char* state : {kOk, kFailedState, kUnreachable, kInterruptedState, kUndoneState})
    if (counts[state] > 0)
      text = str::Append(text, std::to_string(counts[state]) + " " + state, ", ");
  return text;
}

void Round::PrintRecords(const Verb& verb) const {
  // Which fields a record has depends on the state of its node.
  std::vector<Field> optional = Fields(AllFields(verb), NodesFields(true));
  for (Field& field : optional) field.when = "with --nodes";
  context_.out.SetFields(std::move(optional));
  if (context_.out.IsShaped() || context_.out.GetFormat() == Format::kCsv)
    return context_.out.List(Rows(verb));
  std::vector<Record> records;
  for (std::size_t i = 0; i < nodes_.size(); ++i) records.push_back(Told(i, verb));
  context_.out.List(records);
}

int Round::Code() const {
  bool no = false;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    if (HasFailed(i)) return kFailed;
    no = no || answers_[i]->code == kNo;
  }
  return no ? kNo : kDone;
}

int Round::Tell(const Verb& verb) {
  if (context_.out.ForPeople() && !context_.out.IsShaped()) {
    PrintGathered();
    context_.out.Flush();  // on a terminal, the summary is below the answers
    PrintFailures();
  } else {
    PrintRecords(verb);
  }
  if (!context_.values.Has("quiet")) std::fputs((Summary() + "\n").c_str(), stderr);
  return Code();
}

}  // namespace tools
