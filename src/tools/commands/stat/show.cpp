#include <algorithm>
#include <ctime>
#include <limits>
#include <utility>

#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "console/chart.h"
#include "fleet/sample_store.h"
#include "tools/commands/stat/stat.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

using pnl_date::DateTime;

constexpr long kHour = 3600;
constexpr long kDay = 86400;

std::time_t TimeOption(const Context& context, const std::string& option) {
  const std::string& text = context.values.Str(option);
  if (const auto time = console::ParseLocalTime(text)) return time->Seconds();
  throw UsageError("--" + option, text,
                   "--" + option + " '" + text + "' is not a time such as '2024-05-31 18:00'");
}

/// The form of a key in the database.
std::string Column(const std::string& key) {
  return key == "node" ? "host" : key;
}

fleet::StatFold ReadFold(const Context& context) {
  fleet::StatFold fold;
  fold.block = context.values.Str("block") == "day" ? kDay : kHour;
  fold.to = std::numeric_limits<std::time_t>::max();
  if (context.values.Has("from")) fold.from = TimeOption(context, "from");
  if (context.values.Has("to")) fold.to = TimeOption(context, "to");
  for (const std::string& key : context.values.List("by")) fold.keys.push_back(Column(key));
  std::sort(fold.keys.begin(), fold.keys.end(), std::greater<>());  // host before device
  fold.keys.erase(std::unique(fold.keys.begin(), fold.keys.end()), fold.keys.end());
  if (fold.keys.empty()) fold.keys = {"host", "device"};
  return fold;
}

struct Shown {
  const fleet::StoredRow& row;
  long block;
};

FieldTable<Shown> ShownFields(const fleet::SampleKind& kind, const std::vector<std::string>& keys) {
  FieldTable<Shown> fields = {
      {{"begin", "first second of the block"},
       [](const Shown& shown) { return DateTime(shown.row.taken.Int()); }},
      {{"end", "last second of the block"}, [](const Shown& shown) {
         return DateTime(StatUtils::block_right(shown.row.taken.Int(), shown.block));
       }}};
  for (const Field& key : {Field{"node", "the host", "unless --by device alone"},
                           Field{"device", "the device", "unless --by node alone"}}) {
    if (std::count(keys.begin(), keys.end(), Column(key.name)) == 0) continue;
    fields.push_back({key, [column = Column(key.name)](const Shown& shown) {
                        return shown.row.FieldByName(column)->Value();
                      }});
  }
  for (std::size_t i = 0; i < kind.counters.size(); ++i) {
    fields.push_back(
        {{kind.counters[i].name, i == 0 ? "increase in the block" : "", "with --kind " + kind.name},
         [i](const Shown& shown) { return shown.row.counters[i]->Int(); }});
  }
  return fields;
}

/// The columns for people, without `end`: they know it from the beginning.
std::vector<std::string> Columns(const FieldTable<Shown>& fields) {
  std::vector<std::string> columns;
  for (const Field& field : fields)
    if (field.name != "end") columns.push_back(field.name);
  return columns;
}

/// The name of the counter that --plot draws.
std::string PlottedCounter(const Context& context, const fleet::SampleKind& kind) {
  const std::string& wanted = context.values.Str("counter");
  if (wanted.empty()) return kind.counters.front().name;
  std::vector<std::string> names;
  for (const fleet::SampleCounter& counter : kind.counters) {
    if (counter.name == wanted) return wanted;
    names.push_back(counter.name);
  }
  throw UsageError(
      "--counter", wanted,
      "--counter '" + wanted + "' is none of " + kind.name + ": " + str::Join(names, ", "));
}

void Plot(Context& context, const std::string& counter, const fleet::StatFold& fold,
          const fleet::StoredRows& rows) {
  std::vector<console::Bar> bars;
  for (const auto& row : rows) {
    std::string label = LocalTime(DateTime(row->taken.Int()));
    for (const std::string& key : fold.keys) label += " " + row->FieldByName(key)->Value();
    bars.push_back({label, str::Int64(row->FieldByName(counter)->Value())});
  }
  context.out.Raw(counter + "\n" + Chart(bars, opts::TerminalWidth()));
}

int Show(Context& context) {
  const bool plot = context.values.Has("plot");
  if (plot && !context.out.ForPeople())
    throw UsageError("--plot", "json",
                     "--plot draws a chart for people; leave out -o json or -o csv");
  const fleet::SampleKind& kind = fleet::FindSampleKind(context.values.Str("kind"));
  const std::string counter = PlottedCounter(context, kind);
  const fleet::StatFold fold = ReadFold(context);
  const fleet::StoredRows rows = fleet::FoldSamples(*fleet::OpenStatDatabase(), kind, fold);
  if (plot) {
    Plot(context, counter, fold, rows);
    return kDone;
  }
  const FieldTable<Shown> fields = ShownFields(kind, fold.keys);
  std::vector<Record> records;
  records.reserve(rows.size());
  for (const auto& row : rows) records.push_back(ToRecord(fields, {*row, fold.block}));
  context.out.List(records, Columns(fields));
  return kDone;
}

std::vector<Field> AllShown() {
  std::vector<Field> fields;
  for (const fleet::SampleKind& kind : fleet::SampleKinds())
    fields = Declared(ShownFields(kind, {"host", "device"}), std::move(fields));
  return fields;
}

void Describe(opts::Args& args) {
  std::vector<std::string> kinds;
  for (const fleet::SampleKind& kind : fleet::SampleKinds()) kinds.push_back(kind.name);
  args.Option("kind").OneOf(kinds).Default(kinds.front()).Help("the kind of counters");
  args.Option("block").OneOf({"hour", "day"}).Default("hour").Help("the period of each line");
  args.Option("from").Value("TIME").Help("samples from this local time on, as '2024-05-31 18:00'");
  args.Option("to").Value("TIME").Help("samples before this local time");
  args.Option("by")
      .OneOf({"node", "device"})
      .Also("host")
      .Repeated()
      .Help(
          "one line for each node or each device; given twice: for each device of each node "
          "(default)");
  args.Option("plot").Help("draw a chart of one counter instead of a table");
  args.Option("counter").Value("NAME").Needs("plot").Help("the counter; default: the first");
}

}  // namespace

Verb StatShowVerb() {
  return {.name = "show",
          .summary = "Shows the increases, by hours or days of local time.",
          .describe = Describe,
          .run = Show,
          .examples = {"--block day --by node", "--kind cpu --plot --from '2024-05-31 18:00'"},
          .fields = AllShown()};
}

}  // namespace tools
