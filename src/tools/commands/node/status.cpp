#include "tools/commands/node/status.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "console/interrupt.h"
#include "fleet/fact_store.h"
#include "fleet/fleet_database.h"
#include "fleet/run.h"
#include "fleet/sample_store.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

using Nodes = std::vector<fleet::Node>;
using Statuses = std::vector<NodeStatus>;
using Stop = std::shared_ptr<pnl_thread::Event>;

constexpr int kMaxInterval = 86400;             // seconds
constexpr std::time_t kSampleAge = 7 * 86400L;  // seconds; older samples are not looked for

// --- What the databases know

/// Status can do without them: their errors are warnings, and end their use.
class Books {
 public:
  explicit Books(Context& context) : context_(context) {}

  /// Stores the new facts, and adds to all nodes what is known of them.
  void Complete(Statuses& statuses, const Nodes& nodes) {
    Use(knows_nodes_, "nothing is known of earlier: ", [&] { AddKnown(statuses, nodes); });
    Use(has_samples_, "the last samples are not known: ", [&] { AddSamples(statuses, nodes); });
  }

  /// The runs of the journal; null if it cannot be read.
  const std::map<std::string, std::int64_t>* Runs() const { return runs_ ? &*runs_ : nullptr; }

 private:
  template <class Work>
  void Use(bool& usable, const char* without, const Work& work) {
    if (!usable) return;
    try {
      work();
    } catch (const pnl_err::Error& error) {
      usable = false;
      context_.Warn(pnl_err::Error(error.type(), error.object(), error.value())
                        .add_param("message", without + ErrorText(error, Format::kTable)));
    }
  }

  void AddKnown(Statuses& statuses, const Nodes& nodes) {
    if (!db_) db_ = fleet::OpenFleetDatabase();
    fleet::FactStore store(db_);
    std::map<std::string, fleet::Facts> known;
    for (fleet::NodeFacts& node : store.All()) known[node.node] = std::move(node.facts);
    const fleet::Journal journal(db_);
    const auto changes = journal.LastChanges();
    runs_ = fleet::NamesOnNodes(journal);
    std::vector<fleet::NodeFacts> fresh;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      NodeStatus& status = statuses[i];
      // As pnl_host::Host names it.
      const std::string& name = nodes[i].line > 0 ? nodes[i].name : nodes[i].host;
      if (status.answered) fresh.push_back({name, *status.facts});
      if (const auto old = known.find(name); !status.answered && old != known.end())
        status.facts = old->second;
      if (const auto change = changes.find(name); change != changes.end())
        status.change = change->second;
    }
    store.Store(std::move(fresh));
  }

  static void AddSamples(Statuses& statuses, const Nodes& nodes) {
    const auto samples = fleet::LastSamples(std::time(nullptr) - kSampleAge);
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const auto sample = samples.find(fleet::SampleHost(nodes[i].Login({})));
      if (sample != samples.end()) statuses[i].sample = sample->second;
    }
  }

  Context& context_;
  std::shared_ptr<pnl_db::Cache> db_;
  std::optional<std::map<std::string, std::int64_t>> runs_;
  bool knows_nodes_ = true;
  bool has_samples_ = true;
};

// --- Asking

Nodes Asked(const Context& context) {
  if (context.values.Has("nodes")) return SelectedNodes(context);
  Nodes nodes = PanelInventory().Nodes();
  if (!nodes.empty()) return nodes;
  throw pnl_err::Missed("node", fleet::InventoryPath())
      .add_param("message", "there are no nodes in " + fleet::InventoryPath() +
                                "; 'brefirctl node add' adds one, --nodes names others");
}

/// One login and one command for each node.
Statuses AskAll(Context& context, const Nodes& nodes, Books& books, const Stop& stop, bool draws) {
  Round round(context, nodes);
  Statuses statuses(nodes.size());
  const auto ask = [&](const fleet::Node& node, pnl_host::Host& host) {
    NodeStatus& status = statuses[static_cast<std::size_t>(&node - round.Nodes().data())];
    status.facts = fleet::AskFacts(host);
    status.answered = true;
    return Answer(Record());
  };
  round.Visit(ask, {.stop = stop, .draws = draws});
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    NodeStatus& status = statuses[i];
    status.node = nodes[i].name;
    status.state = round.State(i);
    status.login = round.LoginTime(i);
    if (round.HasFailed(i)) status.error = round.Reason(i);
  }
  books.Complete(statuses, nodes);
  for (NodeStatus& status : statuses) {
    if (!status.answered) continue;
    status.troubles = fleet::Troubles(*status.facts, books.Runs());
    if (!status.troubles.empty()) status.state = NodeStatus::kAttention;
  }
  return statuses;
}

int Code(const Statuses& statuses) {
  int code = kDone;
  for (const NodeStatus& status : statuses) {
    if (status.state == Round::kInterruptedState) return kInterrupted;
    if (!status.IsWell()) code = kNo;
  }
  return code;
}

// --- Output

Value Time(const std::optional<std::time_t>& time) {
  return time ? Value(pnl_date::DateTime(*time)) : Value();
}

/// Only of a node that answered: what was true earlier is no status.
FieldOf<NodeStatus> Fact(const char* name, const char* meaning,
                         const std::function<Value(const fleet::Facts&)>& value) {
  return {{name, meaning}, [value](const NodeStatus& status) {
            return status.answered ? value(*status.facts) : Value();
          }};
}

const FieldTable<NodeStatus>& StatusFields() {
  static const auto* const fields = new FieldTable<NodeStatus>{
      {{"node", "its name"}, &NodeStatus::node},
      {{"state", "ok, attention, failed, unreachable or interrupted"}, &NodeStatus::state},
      {{"ms", "milliseconds that the login took; null if the node was not reached"},
       [](const NodeStatus& status) {
         return status.login ? Value(status.login->count()) : Value();
       }},
      {{"os", "its operating system; of a node that did not answer, the last known"},
       [](const NodeStatus& status) { return status.facts ? OrNull(status.facts->os) : Value(); }},
      Fact("uptime", "seconds since its boot",
           [](const auto& facts) { return fleet::Uptime(facts); }),
      Fact("load", "average of the last minute", [](const auto& facts) { return facts.load; }),
      Fact("disk", "used percentage of the fullest disk",
           [](const auto& facts) {
             const fleet::Disk* const disk = fleet::FullestDisk(facts);
             return disk == nullptr ? Value() : Value(disk->Percent());
           }),
      Fact("disk_mount", "where that disk is mounted",
           [](const auto& facts) {
             const fleet::Disk* const disk = fleet::FullestDisk(facts);
             return disk == nullptr ? Value() : Value(disk->mount);
           }),
      Fact("memory_free", "bytes that programs can still get",
           [](const auto& facts) {
             return facts.memory_free ? Value(console::Bytes{*facts.memory_free}) : Value();
           }),
      Fact("reboot_wanted", "whether an update waits for a reboot",
           [](const auto& facts) { return facts.reboot_wanted; }),
      {{"last_change", "time of the last run that changed it, or null"},
       [](const NodeStatus& status) {
         return status.change ? Value(pnl_date::DateTime(status.change->time)) : Value();
       }},
      {{"last_command", "the command of that run"},
       [](const NodeStatus& status) {
         return status.change ? Value(status.change->what) : Value();
       }},
      {{"last_sample", "time of the last sample of its counters in the last 7 days, or null"},
       [](const NodeStatus& status) { return Time(status.sample); }},
      {{"asked", "when it answered: now, or earlier; null if never"},
       [](const NodeStatus& status) { return status.facts ? Time(status.facts->asked) : Value(); }},
      {{"attention", "what wants attention, the worst first"},
       [](const NodeStatus& status) {
         std::vector<std::string> texts;
         for (const fleet::Trouble& trouble : status.troubles) texts.push_back(trouble.text);
         return texts;
       }},
  };
  return *fields;
}

std::vector<Record> Records(const Statuses& statuses) {
  std::vector<Record> records;
  for (const NodeStatus& status : statuses) {
    records.push_back(ToRecord(StatusFields(), status));
    if (!status.error.empty()) records.back().Add("error", status.error);
  }
  return records;
}

/// The cursor stays below the last line; `rows` of the terminal are for others.
std::string Screen(const Statuses& statuses, std::size_t rows) {
  std::optional<console::TerminalSize> size;
  if (isatty(STDOUT_FILENO) != 0) {
    size = console::GetTerminalSize(STDOUT_FILENO);
    size->rows -= std::min(size->rows, rows + 1);
  }
  return StatusScreen(statuses, std::time(nullptr), size);
}

/// `rows` of the terminal are for others.
void Show(Context& context, const Statuses& statuses, std::size_t rows = 0) {
  const bool screen = context.out.ForPeople() && !context.out.IsShaped();
  if (screen) return context.out.Raw(Screen(statuses, rows));
  context.out.List(Records(statuses));
}

// --- Again and again

/// Draws over the screen before, line by line: nothing flickers, and no mode of the terminal is
/// changed that a killed program would leave behind.
std::string Redrawn(const std::string& text) {
  return "\x1b[H" + str::Replace(text, "\n", "\x1b[K\n") + "\x1b[J";
}

void ShowRound(Context& context, const Statuses& statuses, bool first) {
  if (!context.out.ForPeople()) {
    Show(context, statuses);
    return context.out.LeaveOutHeaders();
  }
  const std::string now = LocalTime(pnl_date::DateTime(std::time(nullptr)));
  if (context.out.IsShaped() || !console::CanDraw(STDOUT_FILENO)) {
    context.out.Raw("--- " + now + "\n");
    return Show(context, statuses, 1);
  }
  // What was on the terminal is scrolled away, not lost.
  const std::size_t rows = console::GetTerminalSize(STDOUT_FILENO).rows;
  const std::string head = now + ", every " + context.values.Str("interval") + " s; Ctrl-C ends\n";
  context.out.Raw((first ? std::string(rows, '\n') : "") + Redrawn(head + Screen(statuses, 1)));
}

/// Whether another round is wanted, after `seconds`. A reader that has left is an error, as in a
/// failed write.
bool Pause(const pnl_thread::Event& stop, std::int64_t seconds) {
  pollfd ends[] = {{stop.Fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  const int milliseconds = static_cast<int>(seconds * 1000);
  while (poll(ends, 2, milliseconds) < 0 && errno == EINTR && !stop.Raised()) {
  }
  if (stop.Raised()) return false;
  if ((ends[1].revents & (POLLERR | POLLHUP)) == 0) return true;
  throw pnl_err::System("write", "standard output", EPIPE);
}

/// Ctrl-C is the way to end it: the exit code is that of the last complete round. The round that was
/// interrupted is shown only if there is no other.
int Watch(Context& context, const Nodes& nodes, Books& books, const Stop& stop) {
  context.out.SetLinewise();
  for (int code = kInterrupted, first = 1;; first = 0) {
    const Statuses statuses = AskAll(context, nodes, books, stop, first != 0);
    const bool interrupted = stop->Raised();
    if (interrupted && first == 0) return code;
    ShowRound(context, statuses, first != 0);
    code = Code(statuses);
    if (!context.out.Flush() || interrupted || !Pause(*stop, context.values.Int("interval")))
      return code;
  }
}

int Status(Context& context) {
  const Nodes nodes = Asked(context);
  Books books(context);
  const Stop stop = std::make_shared<pnl_thread::Event>();
  const console::StoppedByInterruption interruption(*stop);
  if (context.values.Has("watch")) return Watch(context, nodes, books, stop);
  const Statuses statuses = AskAll(context, nodes, books, stop, true);
  Show(context, statuses);
  return Code(statuses);
}

void Describe(opts::Args& args) {
  AddAllNodesOptions(args);
  args.Option("watch").Help("ask again and again until Ctrl-C");
  args.Option("interval")
      .Number("S", 1, kMaxInterval)
      .Default("10")
      .Needs("watch")
      .Help("pause for S seconds between two rounds");
  args.Details(str::Format(
      "Asks all nodes of the inventory, or those of --nodes: one login and one command each. Nodes "
      "that are well are counted. The others are listed, the worst first; nodes with the same "
      "trouble are one line. These want attention, in this order: a node that is unreachable or "
      "failed; a run of another panel, or of a lost journal, that has not ended there; a guard "
      "that has gone off or was lost; a disk that is full (%d %% or more used) or nearly full (%d "
      "%%); memory of which "
      "programs can get less than %d %%; a load of more than %.0f for each processor; a reboot "
      "that an update waits for; an armed guard; a part of the answer that did not come in time.\n"
      "The exit code is 0 if all nodes are well, and 3 if something wants attention. With --watch, "
      "after Ctrl-C, it is that of the last complete round. With --watch, -o json prints an array "
      "in "
      "one line for each round.\n"
      "The answers are stored. Of a node that does not answer, the last known operating system is "
      "shown, and how long ago it was seen.",
      fleet::kFullPercent, fleet::kNearlyFullPercent, fleet::kShortPercent,
      fleet::kLoadOfProcessor));
}

}  // namespace

Verb NodeStatusVerb() {
  return {.name = "status",
          .summary = "Shows which nodes are up, and what wants attention.",
          .describe = Describe,
          .run = Status,
          .examples = {"", "--nodes '@web' --timeout 5", "--watch --interval 30"},
          .fields = Fields(Declared(StatusFields()),
                           {{"error", "why the node did not answer", "if it did not"}}),
          .reach = Reach::kNothing};
}

}  // namespace tools
