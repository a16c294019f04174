// stat: the kernel's counters of this host and of nodes, over time.

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <utility>

#include "brefir/stat_raw.h"
#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "console/chart.h"
#include "fleet/sample_store.h"
#include "tools/commands/families.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

constexpr long kHour = 3600;
constexpr long kDay = 86400;

counter::Cache& Counters() {
  return Singleton<counter::Cache>::Instance();
}

// --- collect

/// What the rows of a host are known by: nodes behind one address differ in their ports.
std::string HostKey(const Context& context) {
  if (!context.values.Has("node")) return "localhost";
  pnl_rpc::SshOptions options;
  ParseNode(context.values.Str("node"), options);
  const std::string port = options.port == 22 ? "" : ":" + std::to_string(options.port);
  // An IPv6 address keeps its colons: the device's name, behind the last one, has none.
  const std::string host = str::Replace(fleet::SafeKey(str::Lower(options.host)), "%3a", ":");
  return fleet::ColumnKey(host + port);
}

using Readings = std::vector<fleet::Reading>;

std::vector<Record> Counts(const Readings& readings) {
  Record counts;
  for (const fleet::SampleKind& kind : fleet::SampleKinds()) {
    counts.Add(kind.name, std::count_if(readings.begin(), readings.end(), [&](const auto& reading) {
                 return reading.device.kind == &kind;
               }));
  }
  return {counts};
}

const FieldTable<Readings> kCollectedFields = {
    {{"host", "whose counters"}, [](const Readings& readings) { return readings[0].device.host; }},
    {{"taken", "when, in seconds since 1970", "not with --dry-run"},
     [](const Readings& readings) { return std::int64_t{readings[0].taken}; }},
    {{"devices", "how many of each kind: net, cpu, disk", "not with --dry-run"}, Counts}};

struct RawCounter {
  std::string host;
  std::string kind;
  std::string device;
  std::string counter;
  std::int64_t raw;
};

const FieldTable<RawCounter> kRawFields = {
    {{"host", "whose counters", "with --dry-run"}, &RawCounter::host},
    {{"kind", "net, cpu or disk", "with --dry-run"}, &RawCounter::kind},
    {{"device", "its name", "with --dry-run"}, &RawCounter::device},
    {{"counter", "the counter's name", "with --dry-run"}, &RawCounter::counter},
    {{"raw", "what the kernel counts", "with --dry-run"}, &RawCounter::raw}};

std::vector<Record> RawCounters(const Readings& readings) {
  std::vector<Record> records;
  for (const auto& [device, taken, counters] : readings) {
    const fleet::SampleKind& kind = *device.kind;
    for (std::size_t i = 0; i < counters.size(); ++i) {
      const RawCounter raw = {device.host, kind.name, device.name, kind.counters[i].name,
                              counters[i]};
      records.push_back(ToRecord(kRawFields, raw));
    }
  }
  return records;
}

int Collect(Context& context) {
  const std::string host = HostKey(context);
  pnl_host::Host source = OpenHost(context);  // may wait: before the lock
  const auto sample = [&] {
    const std::string output = source.Run(fleet::SampleCommand()).output;
    return fleet::ParseSample(host, std::time(nullptr), output);
  };
  if (context.values.Has("dry-run")) {
    context.out.List(RawCounters(sample()));
    return kDone;
  }
  fleet::SampleStore store(fleet::OpenStatDatabase());
  const Readings readings = sample();
  store.Store(readings);
  // From cron(8) each word would become a mail.
  if (context.out.GetFormat() == Format::kTable && isatty(STDOUT_FILENO) == 0) return kDone;
  context.out.One(ToRecord(kCollectedFields, readings));
  return kDone;
}

void DescribeCollect(opts::Args& args) {
  args.Details(
      "Tells what it stored on a terminal and with '-o json' only, so that cron(8) is "
      "silent while all is well.");
  AddNodeOptions(args);
  args.Option("dry-run").Help("show what the kernel counts, and keep nothing");
}

// --- show

std::string LocalTime(std::time_t time) {
  tm local{};
  localtime_r(&time, &local);
  char text[32];
  return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

/// "YYYY-MM-DD", with "HH:MM" or "HH:MM:SS" behind it or not, in local time.
std::time_t ParseTime(const Context& context, const std::string& option) {
  const std::string& text = context.values.Str(option);
  for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"}) {
    tm local{};
    const char* const end = strptime(text.c_str(), format, &local);
    // A year of two digits is one of antiquity there.
    if (end == nullptr || *end != '\0' || local.tm_year < 0) continue;
    const int day = local.tm_mday;
    local.tm_isdst = -1;  // as the zone has it on that day
    const std::time_t time = mktime(&local);
    if (local.tm_mday == day) return time;  // not so of February 30
  }
  throw UsageError("--" + option, text,
                   "--" + option + " '" + text + "' is no time like '2024-05-31 18:00'");
}

fleet::StatFold ReadFold(const Context& context) {
  fleet::StatFold fold;
  fold.block = context.values.Str("block") == "day" ? kDay : kHour;
  fold.to = std::numeric_limits<std::time_t>::max();
  if (context.values.Has("from")) fold.from = ParseTime(context, "from");
  if (context.values.Has("to")) fold.to = ParseTime(context, "to");
  fold.keys = context.values.List("by");
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
      {{"begin", "of the block: YYYY-MM-DD HH:MM:SS, local time"},
       [](const Shown& shown) { return LocalTime(shown.row.taken.Int()); }},
      {{"end", "its last second"},
       [](const Shown& shown) {
         return LocalTime(StatUtils::block_right(shown.row.taken.Int(), shown.block));
       }},
      {{"time", "its beginning in seconds since 1970"},
       [](const Shown& shown) { return shown.row.taken.Int(); }}};
  for (const Field& key : {Field{"host", "whose counters", "unless --by device alone"},
                           Field{"device", "of which device", "unless --by host alone"}}) {
    if (std::count(keys.begin(), keys.end(), key.name) == 0) continue;
    fields.push_back({key, [name = key.name](const Shown& shown) {
                        return shown.row.FieldByName(name)->Value();
                      }});
  }
  for (std::size_t i = 0; i < kind.counters.size(); ++i) {
    fields.push_back(
        {{kind.counters[i].name, i == 0 ? "counted in the block" : "", "with --kind " + kind.name},
         [i](const Shown& shown) { return shown.row.counters[i]->Int(); }});
  }
  return fields;
}

/// People can tell the end and the time from the beginning.
std::vector<std::string> Columns(const FieldTable<Shown>& fields) {
  std::vector<std::string> columns;
  for (const Field& field : fields)
    if (field.name != "end" && field.name != "time") columns.push_back(field.name);
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

int Plot(Context& context, const fleet::SampleKind& kind, const fleet::StatFold& fold,
         const fleet::StoredRows& rows) {
  const std::string counter = PlottedCounter(context, kind);
  std::vector<console::Bar> bars;
  for (const auto& row : rows) {
    std::string label = LocalTime(row->taken.Int());
    for (const std::string& key : fold.keys) label += " " + row->FieldByName(key)->Value();
    bars.push_back({label, str::Int64(row->FieldByName(counter)->Value())});
  }
  context.out.Raw(counter + "\n" + console::Chart(bars, opts::TerminalWidth()));
  return kDone;
}

int Show(Context& context) {
  const bool plot = context.values.Has("plot");
  if (plot && context.out.GetFormat() == Format::kJson)
    throw UsageError("--plot", "json", "--plot draws for people; leave it out for JSON");
  const fleet::SampleKind& kind = fleet::FindSampleKind(context.values.Str("kind"));
  const fleet::StatFold fold = ReadFold(context);
  const fleet::StoredRows rows = fleet::FoldSamples(*fleet::OpenStatDatabase(), kind, fold);
  if (plot) return Plot(context, kind, fold, rows);
  const FieldTable<Shown> fields = ShownFields(kind, fold.keys);
  std::vector<Record> records;
  records.reserve(rows.size());
  for (const auto& row : rows) records.push_back(ToRecord(fields, {*row, fold.block}));
  context.out.List(records, Columns(fields));
  return kDone;
}

std::vector<Field> ShownFields() {
  std::vector<Field> fields;
  for (const fleet::SampleKind& kind : fleet::SampleKinds())
    fields = Declared(ShownFields(kind, {"host", "device"}), std::move(fields));
  return fields;
}

void DescribeShow(opts::Args& args) {
  std::vector<std::string> kinds;
  for (const fleet::SampleKind& kind : fleet::SampleKinds()) kinds.push_back(kind.name);
  args.Option("kind").OneOf(kinds).Default(kinds.front()).Help("whose counters");
  args.Option("block").OneOf({"hour", "day"}).Default("hour").Help("what a line stands for");
  args.Option("from").Value("TIME").Help("samples from this local time on: '2024-05-31 18:00'");
  args.Option("to").Value("TIME").Help("samples before this time");
  args.Option("by")
      .OneOf({"host", "device"})
      .Repeated()
      .Help("add up what this key does not keep apart; else both do");
  args.Option("plot").Help("draw one of the counters instead of a table");
  args.Option("counter").Value("NAME").Needs("plot").Help("which one; else the first");
}

// --- counters

struct LastValue {
  std::string name;
  std::string cname;
  std::int64_t value;
};

const FieldTable<LastValue> kCounterFields = {
    {{"name", "host and device, with a colon between them", "not of reset"}, &LastValue::name},
    {{"cname", "the counter", "not of reset"}, &LastValue::cname},
    {{"value", "what the kernel counted last", "not of reset"}, &LastValue::value}};

int ListCounters(Context& context) {
  std::vector<Record> records;
  for (const auto& [name, values] : Counters().GetCounters()) {
    if (context.values.Has("NAME") && context.values.Str("NAME") != name) continue;
    for (const auto& [cname, value] : values)
      records.push_back(ToRecord(kCounterFields, {name, cname, value.Val()}));
  }
  context.out.List(records);
  return kDone;
}

int GetCounter(Context& context) {
  const std::string& name = context.values.Str("NAME");
  const std::string& cname = context.values.Str("CNAME");
  if (cname.empty())
    throw UsageError("CNAME", "", "'counters get' wants NAME and CNAME; 'counters list' has them");
  if (!Counters().HasCounter(name, cname)) throw pnl_err::Missed("counter", name + " " + cname);
  context.out.One(
      ToRecord(kCounterFields, {name, cname, Counters().GetCounter(name, cname).Val()}));
  return kDone;
}

int ResetCounters(Context& context) {
  fleet::SampleStore store(fleet::OpenStatDatabase());
  const std::size_t count = store.Reset(context.values.Str("NAME"), context.values.Str("CNAME"));
  context.out.One(Record().Add("reset", count));
  return kDone;
}

int CountersVerb(Context& context) {
  const std::string& action = context.values.Str("ACTION");
  if (action == "reset") return ResetCounters(context);
  Counters().Load();
  return action == "list" ? ListCounters(context) : GetCounter(context);
}

void DescribeCounters(opts::Args& args) {
  args.Details(
      "'reset' forgets the last values, so that the next sample begins a new count: of all "
      "counters, or only those of NAME.");
  args.Positional("ACTION").OneOf({"list", "get", "reset"}).Help("what to do");
  args.Positional("NAME").Optional().Help("the object, as in localhost:eth0");
  args.Positional("CNAME").Optional().Help("its counter, as in rx_bytes");
}

}  // namespace

Family StatFamily() {
  return {
      .name = "stat",
      .summary = "Traffic, processor and disk counters over time.",
      .describe =
          [](opts::Args& args) {
            args.Details(
                "'collect', run by cron(8) say, reads what the kernel has counted and stores the "
                "increase since the last time; the first time there is none. 'show' adds it up.");
          },
      .verbs =
          {
              {
                  .name = "collect",
                  .summary = "Stores what was counted since the last time.",
                  .describe = DescribeCollect,
                  .run = Collect,
                  .examples = {"", "--node 192.0.2.7"},
                  .fields = Declared(kRawFields, Declared(kCollectedFields)),
              },
              {
                  .name = "show",
                  .summary = "Shows what was counted, by hours or days.",
                  .describe = DescribeShow,
                  .run = Show,
                  .examples = {"--block day --by host",
                               "--kind cpu --plot --from '2024-05-31 18:00'"},
                  .fields = ShownFields(),
              },
              {
                  .name = "counters",
                  .summary = "The last values, in var/stat.counters.",
                  .describe = DescribeCounters,
                  .run = CountersVerb,
                  .examples = {"list localhost:eth0", "reset"},
                  .fields = Fields(Declared(kCounterFields),
                                   {{"reset", "how many counters were forgotten", "of reset"}}),
              },
          },
      .files = {{"var/stat.counters", "the last values"},
                {"var/stat.db",
                 "the samples, unless stat_database of the settings says otherwise"}},
      .see_also = {"stat.counters(5)", "brefir.conf(5)", "proc(5)"},
  };
}

}  // namespace tools
