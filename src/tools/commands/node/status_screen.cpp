#include <algorithm>
#include <functional>
#include <map>
#include <tuple>

#include "brefir/str_utils.h"
#include "console/render.h"
#include "fleet/gather.h"
#include "fleet/node_range.h"
#include "pnl/utf8.h"
#include "tools/commands/node/status.h"
#include "tools/frame/ask.h"

namespace tools {
namespace {

using console::TerminalSize;
using Group = std::vector<const NodeStatus*>;  // nodes with the same trouble

constexpr std::size_t kSystems = 6;          // so many are named
constexpr std::size_t kLeastWidth = 12;      // columns of the attention
constexpr std::size_t kAttentionWidth = 30;  // columns; for that, others are left out

// --- Texts

/// "45s", "12m", "30h", "12d".
std::string Span(std::int64_t seconds) {
  constexpr std::int64_t kMinute = 60, kHour = 3600, kDay = 86400;
  if (seconds < kMinute) return std::to_string(std::max<std::int64_t>(seconds, 0)) + "s";
  if (seconds < kHour) return std::to_string(seconds / kMinute) + "m";
  if (seconds < 2 * kDay) return std::to_string(seconds / kHour) + "h";
  return std::to_string(seconds / kDay) + "d";
}

std::string Cut(const std::string& text, std::size_t columns) {
  if (utf8::Columns(text) <= columns) return text;
  return std::string(utf8::Fitting(text, columns - 3)) + "...";
}

std::string Count(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what;
}

template <class List>
std::string Folded(const List& nodes) {
  std::vector<std::string> names;
  names.reserve(nodes.size());
  for (const NodeStatus* node : nodes) names.push_back(node->node);
  return str::Join(fleet::FoldNames(names), ",");
}

// --- What is shown of a node; null where it is not known

using Number = std::optional<double>;

Number Login(const NodeStatus& node) {
  return node.login ? Number(static_cast<double>(node.login->count())) : std::nullopt;
}
Number Load(const NodeStatus& node) {
  return node.answered ? node.facts->load : std::nullopt;
}
Number DiskPercent(const NodeStatus& node) {
  const fleet::Disk* const disk = node.answered ? fleet::FullestDisk(*node.facts) : nullptr;
  return disk == nullptr ? std::nullopt : Number(disk->Percent());
}
Number MemoryPercent(const NodeStatus& node) {
  const auto percent = node.answered ? fleet::MemoryPercent(*node.facts) : std::nullopt;
  return percent ? Number(*percent) : std::nullopt;
}
Number UptimeOf(const NodeStatus& node) {
  const auto uptime = node.answered ? fleet::Uptime(*node.facts) : std::nullopt;
  return uptime ? Number(static_cast<double>(*uptime)) : std::nullopt;
}

std::string Whole(double number) {
  return str::Format("%.0f", number);
}
std::string Percents(double number) {
  return Whole(number) + "%";
}
std::string Exact(double number) {
  return str::Format("%.2f", number);
}
std::string Age(double seconds) {
  return Span(static_cast<std::int64_t>(seconds));
}

/// "12" if all have it, "12-87" if they differ; null if none has it.
Value Range(const Group& group, const std::function<Number(const NodeStatus&)>& of,
            const std::function<std::string(double)>& text) {
  Number least, most;
  for (const NodeStatus* node : group) {
    const Number number = of(*node);
    if (!number) continue;
    least = std::min(least.value_or(*number), *number);
    most = std::max(most.value_or(*number), *number);
  }
  if (!least) return {};
  const std::string from = text(*least), to = text(*most);
  return from == to ? from : from + "-" + to;
}

// --- Rows

/// The smaller, the worse.
auto Rank(const NodeStatus& node) {
  int state = 3;  // interrupted
  if (node.state == Round::kUnreachable) state = 0;
  if (node.state == Round::kFailedState) state = 1;
  if (node.state == NodeStatus::kAttention) state = 2;
  const int trouble = node.troubles.empty() ? 0 : static_cast<int>(node.troubles.front().kind);
  return std::make_tuple(state, trouble, -DiskPercent(node).value_or(0));
}

std::string What(const NodeStatus& node) {
  std::string text = node.error;
  for (const fleet::Trouble& trouble : node.troubles) text = str::Append(text, trouble.text, "; ");
  return text;
}

/// The worst first; of the same rank, those with the most nodes.
std::vector<Group> Groups(const std::vector<const NodeStatus*>& troubled) {
  std::vector<std::string> names, texts;
  for (const NodeStatus* node : troubled) {
    names.push_back(node->node);
    texts.push_back(node->state + "\n" + What(*node));
  }
  std::vector<Group> groups;
  for (const fleet::Gathered& gathered : fleet::Gather(names, texts)) {
    groups.emplace_back();
    for (const std::size_t i : gathered.members) groups.back().push_back(troubled[i]);
  }
  std::stable_sort(groups.begin(), groups.end(), [](const Group& a, const Group& b) {
    return Rank(*a.front()) < Rank(*b.front());
  });
  return groups;
}

Value System(const Group& group) {
  StringSet systems;
  for (const NodeStatus* node : group)
    if (node->facts && !node->facts->os.empty()) systems.insert(node->facts->os);
  if (systems.size() > 1) return "several";
  return systems.empty() ? Value() : Value(*systems.begin());
}

Record RowOf(const Group& group, std::time_t now, std::size_t name_width) {
  const auto since = [now](std::time_t time) { return Number(static_cast<double>(now - time)); };
  const auto seen = [&](const NodeStatus& node) {
    return node.facts && !node.answered ? since(node.facts->asked) : std::nullopt;
  };
  const auto changed = [&](const NodeStatus& node) {
    return node.change ? since(node.change->time) : std::nullopt;
  };
  const auto sampled = [&](const NodeStatus& node) {
    return node.sample ? since(*node.sample) : std::nullopt;
  };
  std::string name = Cut(Folded(group), name_width);
  if (group.size() > 1) name += " (" + std::to_string(group.size()) + ")";
  return Record()
      .Add("node", name)
      .Add("state", group.front()->state)
      .Add("seen", Range(group, seen, Age))
      .Add("ms", Range(group, Login, Whole))
      .Add("os", System(group))
      .Add("uptime", Range(group, UptimeOf, Age))
      .Add("load", Range(group, Load, Exact))
      .Add("disk", Range(group, DiskPercent, Percents))
      .Add("memory", Range(group, MemoryPercent, Percents))
      .Add("changed", Range(group, changed, Age))
      .Add("sampled", Range(group, sampled, Age))
      .Add("attention", What(*group.front()));
}

std::size_t Width(const std::vector<Record>& rows, const std::string& column) {
  std::size_t width = column.size();
  for (const Record& row : rows)
    width = std::max(width, utf8::Columns(console::Cell(*row.Find(column))));
  return width + 2;
}

/// Those that say something and leave room for the last one. With `brief`, the texts of the last
/// one are cut to that room.
std::vector<std::string> Columns(std::vector<Record>& rows, const std::optional<TerminalSize>& size,
                                 bool brief) {
  std::size_t width = Width(rows, "node") + Width(rows, "state");
  const std::size_t room = size ? size->columns : SIZE_MAX;
  StringSet shown = {"node", "state", "attention"};
  for (const char* name :
       {"seen", "disk", "load", "os", "ms", "changed", "uptime", "memory", "sampled"}) {
    const bool says = std::any_of(rows.begin(), rows.end(), [&](const Record& row) {
      return row.Find(name)->Get().index() != 0;
    });
    if (!says || width + Width(rows, name) + kAttentionWidth > room) continue;
    width += Width(rows, name);
    shown.insert(name);
  }
  std::vector<std::string> columns;
  for (auto& [name, value] : rows.front().fields)
    if (shown.contains(name)) columns.push_back(name);
  if (!brief) return columns;
  for (Record& row : rows) {
    Value& text = row.fields.back().second;
    text = Cut(console::Cell(text), std::max(room, width + kLeastWidth) - width);
  }
  return columns;
}

// --- The lines above

std::string Systems(const std::vector<const NodeStatus*>& well) {
  std::map<std::string, std::size_t> counts;
  for (const NodeStatus* node : well)
    ++counts[node->facts->os.empty() ? "unknown system" : utf8::Printable(node->facts->os)];
  std::vector<std::pair<std::string, std::size_t>> systems(counts.begin(), counts.end());
  std::stable_sort(systems.begin(), systems.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  std::string text;
  std::size_t others = 0;
  for (std::size_t i = 0; i < systems.size(); ++i) {
    if (i >= kSystems) others += systems[i].second;
    if (i < kSystems) text = str::Append(text, Count(systems[i].second, systems[i].first), ", ");
  }
  return others == 0 ? text : text + ", " + Count(others, "others");
}

/// "load 2.31 (web7), disk 71% (db1)": where the next trouble may come from.
std::string Highest(const std::vector<const NodeStatus*>& well) {
  std::string text;
  const auto add = [&](const char* name, Number (*of)(const NodeStatus&),
                       std::string (*shown)(double)) {
    const NodeStatus* highest = nullptr;
    for (const NodeStatus* node : well)
      if (of(*node) && (highest == nullptr || of(*node) > of(*highest))) highest = node;
    if (highest == nullptr) return;
    text = str::Append(text, name + shown(*of(*highest)) + " (" + highest->node + ")", ", ");
  };
  add("load ", Load, Exact);
  add("disk ", DiskPercent, Percents);
  add("memory ", MemoryPercent, Percents);
  add("login ms ", Login, Whole);
  return text;
}

std::string LastChangeOf(const std::vector<NodeStatus>& nodes, std::time_t now) {
  const NodeStatus* last = nullptr;
  for (const NodeStatus& node : nodes)
    if (node.change && (last == nullptr || node.change->time > last->change->time)) last = &node;
  if (last == nullptr) return "";
  return Span(now - last->change->time) + " ago, " + last->node + ": " +
         utf8::Printable(last->change->what);
}

std::string Headline(const std::vector<NodeStatus>& nodes, std::size_t well) {
  const auto in = [&](const char* state) {
    return static_cast<std::size_t>(std::count_if(
        nodes.begin(), nodes.end(), [&](const NodeStatus& node) { return node.state == state; }));
  };
  const std::size_t interrupted = in(Round::kInterruptedState);
  const std::size_t wanting = nodes.size() - well - interrupted;
  std::string text =
      Count(nodes.size(), nodes.size() == 1 ? "node" : "nodes") + ": " + Count(well, "well");
  if (wanting > 0) text += ", " + Count(wanting, wanting == 1 ? "wants" : "want") + " attention";
  std::string parts;
  for (const char* state : {Round::kUnreachable, Round::kFailedState})
    if (in(state) > 0) parts = str::Append(parts, Count(in(state), state), ", ");
  if (!parts.empty()) text += " (" + parts + ")";
  if (interrupted > 0) text += ", " + Count(interrupted, "interrupted");
  return text;
}

// --- The screen

/// So many lines of the terminal does the text take. A heading (with styles) is one line.
std::size_t Lines(std::string_view text, std::size_t columns) {
  std::size_t lines = 0;
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    const std::size_t width = line.starts_with('\x1b') ? 1 : utf8::Columns(line);
    lines += std::max<std::size_t>((width + columns - 1) / columns, 1);
  }
  return lines;
}

std::string Rest(const std::vector<Group>& groups, std::size_t shown, std::size_t width) {
  Group rest;
  for (std::size_t i = shown; i < groups.size(); ++i)
    rest.insert(rest.end(), groups[i].begin(), groups[i].end());
  if (rest.empty()) return "";
  return Cut("and " + std::to_string(rest.size()) + " more: " + Folded(rest), width) + "\n";
}

/// The first rows, and a line that counts the others.
std::string Table(const std::vector<Group>& groups, std::size_t shown, std::time_t now,
                  const std::optional<TerminalSize>& size, bool brief) {
  const std::size_t width = size ? size->columns : SIZE_MAX;
  std::vector<Record> rows;
  for (std::size_t i = 0; i < shown; ++i)
    rows.push_back(RowOf(groups[i], now, size ? std::max<std::size_t>(width / 3, 10) : width));
  std::string rest = Rest(groups, shown, width);
  if (rows.empty()) return rest;
  const std::vector<std::string> columns = Columns(rows, size, brief);
  return console::Table(rows, columns, true) + rest;
}

}  // namespace

bool NodeStatus::IsWell() const {
  return state == Round::kOk;
}

std::string StatusScreen(const std::vector<NodeStatus>& nodes, std::time_t now,
                         const std::optional<TerminalSize>& size) {
  std::vector<const NodeStatus*> well, troubled;
  for (const NodeStatus& node : nodes) (node.IsWell() ? well : troubled).push_back(&node);
  const std::size_t width = size ? size->columns : SIZE_MAX;
  std::string text = Headline(nodes, well.size()) + "\n";
  const auto line = [&](const char* label, const std::string& rest) {
    if (!rest.empty()) text += Cut(label + rest, width) + "\n";
  };
  line("well: ", Systems(well));
  line("highest of these: ", Highest(well));
  line("last change: ", LastChangeOf(nodes, now));
  if (troubled.empty()) return text;
  const std::vector<Group> groups = Groups(troubled);
  std::string whole = text + Table(groups, groups.size(), now, size, false);
  if (!size || Lines(whole, width) <= size->rows) return whole;
  for (std::size_t shown = std::min(groups.size(), size->rows);; --shown) {
    std::string part = text + Table(groups, shown, now, size, true);
    if (shown == 0 || Lines(part, width) <= size->rows) return part;
  }
}

}  // namespace tools
