#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <set>

#include "console/interrupt.h"
#include "console/node_table.h"
#include "tools/commands/node/node.h"
#include "tools/frame/ask.h"

namespace tools {
namespace {

using State = pnl_rpc::HostKey::State;

/// A node, and the host key that it has shown.
struct Scanned {
  std::string node;
  std::string state = "failed";
  pnl_rpc::HostKey key = {};
  std::optional<std::string> error = {};
  bool stored = false;

  bool IsNew() const { return state == "new"; }
};

const FieldTable<Scanned>& ScanFields() {
  static const auto* const fields = new FieldTable<Scanned>{
      {{"node", "its name"}, &Scanned::node},
      {{"state",
        "known; new: known_hosts has no key of this host; changed: it has other keys only; "
        "revoked: it revokes this key; failed: the node showed no key"},
       &Scanned::state},
      {{"stored", "whether the key was added to known_hosts now"}, &Scanned::stored},
      {{"type", "the type of the key, such as ssh-ed25519; null if the node failed"},
       [](const Scanned& scanned) { return OrNull(scanned.key.type); }},
      {{"fingerprint", "the SHA-256 sum of the key, as ssh-keygen(1) prints it; else null"},
       [](const Scanned& scanned) { return OrNull(scanned.key.fingerprint); }},
      {{"error", "what is wrong, or null"}, &Scanned::error}};
  return *fields;
}

void Take(const pnl_rpc::HostKey& key, Scanned& scanned) {
  scanned.key = key;
  switch (key.state) {
    case State::kKnown:
      scanned.state = "known";
      break;
    case State::kUnknown:
      scanned.state = "new";
      break;
    case State::kChanged:
      scanned.state = "changed";
      scanned.error = "'" + key.known_hosts + "' has another key of this host; if the change is " +
                      "expected, remove that key there";
      break;
    case State::kRevoked:
      scanned.state = "revoked";
      scanned.error = "'" + key.known_hosts + "' revokes this key";
      break;
  }
}

/// Asks all nodes for their keys, many at the same time.
std::vector<Scanned> Fetch(const Context& context, const std::vector<fleet::Node>& nodes) {
  std::vector<Scanned> all;
  std::vector<std::string> names;
  for (const fleet::Node& node : nodes) {
    all.push_back({.node = node.name});
    names.push_back(node.name);
  }
  const auto stop = std::make_shared<pnl_thread::Event>();
  const console::StoppedByInterruption interruption(*stop);
  console::NodeTable table(names, !context.values.Has("verbose") && !context.values.Has("quiet"));
  const NodeLogins logins(context);
  const auto visit = [&](const fleet::Turn& turn) {
    const pnl_rpc::SshOptions options = logins.Of(nodes[turn.Index()]);
    Take(pnl_rpc::FetchHostKey(turn.Bounded(options)), all[turn.Index()]);
  };
  const auto begun = [&](std::size_t i) { table.Set(names[i], fleet::NodeState::kRunning); };
  const auto ended = [&](std::size_t i, const std::optional<pnl_err::Error>& failure) {
    if (failure) all[i].error = ReasonText(*failure, names[i]);
    table.Set(names[i], failure ? fleet::NodeState::kError : fleet::NodeState::kFinished,
              all[i].error.value_or(""));
  };
  fleet::Fan fan({.forks = Forks(context), .stop = stop});
  fan.Visit(nodes.size(), visit, {.begun = begun, .ended = ended});
  return all;
}

void Say(const std::string& text) {
  std::fputs(text.c_str(), stderr);
}

/// Shows the new keys and asks; "no" where nobody can answer.
bool Agreed(const Context& context, const std::vector<Scanned>& all) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) return false;
  std::vector<Scanned> fresh;
  std::copy_if(all.begin(), all.end(), std::back_inserter(fresh), std::mem_fn(&Scanned::IsNew));
  Say(context.out.Rendered([&](Output& out) {
    out.List(ToRecords(ScanFields(), fresh), {"node", "type", "fingerprint"});
  }));
  Say(fresh.size() == 1 ? "Store this host key? [y/N] "
                        : "Store these " + std::to_string(fresh.size()) + " host keys? [y/N] ");
  char line[64];
  const std::size_t size = pnl_file::ReadSome(STDIN_FILENO, line, sizeof line, "standard input");
  if (size == 0) Say("\n");
  const std::string answer = str::Trim(std::string(line, size));
  return answer == "y" || answer == "Y" || answer == "yes";
}

/// Adds the new keys. Several nodes may be one host; its key is added once.
void Store(std::vector<Scanned>& all) {
  std::set<std::pair<std::string, std::string>> lines;
  for (Scanned& scanned : all) {
    if (!scanned.IsNew()) continue;
    try {
      const bool first = lines.emplace(scanned.key.known_hosts, scanned.key.line).second;
      if (first) pnl_rpc::NoteHostKey(scanned.key);
      scanned.stored = true;
    } catch (const pnl_err::Error& error) {
      scanned.error = ErrorText(error, Format::kTable);
    }
  }
}

std::string Summary(const std::vector<Scanned>& all) {
  std::map<std::string, std::size_t> counts;
  for (const Scanned& scanned : all) {
    ++counts[scanned.state];
    if (scanned.stored) ++counts["stored"];
  }
  std::string text;
  for (const char* state : {"known", "new", "stored", "changed", "revoked", "failed"})
    if (counts[state] > 0)
      text = str::Append(text, std::to_string(counts[state]) + " " + state, ", ");
  return text;
}

int Scan(Context& context) {
  std::vector<Scanned> all = Fetch(context, SelectedNodes(context, "SELECTION"));
  const bool has_new = std::any_of(all.begin(), all.end(), std::mem_fn(&Scanned::IsNew));
  const bool wanted = context.values.Has("yes") || context.values.Has("accept-new");
  const bool stores = has_new && !console::WasInterrupted() && (wanted || Agreed(context, all));
  if (stores) {
    context.out.TellOfWork();
    Store(all);
  }
  context.out.List(ToRecords(ScanFields(), all));
  if (!context.values.Has("quiet"))
    Say(Summary(all) + (has_new && !stores ? "; --yes stores new keys\n" : "\n"));
  const auto failed = [](const Scanned& scanned) { return scanned.error.has_value(); };
  if (std::any_of(all.begin(), all.end(), failed)) return kFailed;
  return has_new && !stores ? kNo : kDone;
}

void Describe(opts::Args& args) {
  DescribeSelection(args);
  args.Option("yes").Help("store new keys without asking, as --accept-new does");
  args.Details(
      "The program connects to each node and shows the fingerprint of its host key; it does not "
      "log in. Compare the fingerprints of new keys with those that the servers show on their "
      "consoles: 'ssh-keygen -lf /etc/ssh/ssh_host_ed25519_key.pub'. On a terminal the program "
      "then asks whether to store the new keys. Otherwise it stores them only with --yes; without "
      "it the exit code is 3 if there is a new key. A changed or revoked key is never stored; such "
      "a key, and a node that cannot be reached, give the exit code 1.");
}

}  // namespace

Verb NodeScanVerb() {
  return {.name = "scan",
          .summary = "Shows the host keys of nodes, and stores new ones in known_hosts.",
          .describe = Describe,
          .run = Scan,
          .examples = {"@all", "192.0.2.7 --yes", "@web --known-hosts etc/known_hosts"},
          .fields = Declared(ScanFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
