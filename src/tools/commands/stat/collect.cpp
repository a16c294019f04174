#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "fleet/sample_store.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/stat/stat.h"

namespace tools {
namespace {

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
    {{"node", "whose counters"}, [](const Readings& readings) { return readings[0].device.host; }},
    {{"taken", "when", "not with --dry-run"},
     [](const Readings& readings) { return pnl_date::DateTime(readings[0].taken); }},
    {{"devices", "how many of each kind: net, cpu, disk", "not with --dry-run"}, Counts}};

struct RawCounter {
  const fleet::Device& device;
  std::string counter;
  std::int64_t raw;
};

const FieldTable<RawCounter> kRawFields = {
    {{"node", "whose counters"}, [](const RawCounter& raw) { return raw.device.host; }},
    {{"kind", "net, cpu or disk", "with --dry-run"},
     [](const RawCounter& raw) { return raw.device.kind->name; }},
    {{"device", "its name", "with --dry-run"},
     [](const RawCounter& raw) { return raw.device.name; }},
    {{"counter", "the counter's name", "with --dry-run"}, &RawCounter::counter},
    {{"raw", "what the kernel counts", "with --dry-run"}, &RawCounter::raw}};

std::vector<Record> RawCounters(const Readings& readings) {
  std::vector<Record> records;
  for (const auto& [device, taken, counters] : readings) {
    for (std::size_t i = 0; i < counters.size(); ++i)
      records.push_back(ToRecord(kRawFields, {device, device.kind->counters[i].name, counters[i]}));
  }
  return records;
}

int Collect(Context& context) {
  const bool remote = context.values.Has("node");
  const std::string node = remote ? fleet::SampleHost(NodeOptions(context)) : "localhost";
  pnl_host::Host source = OpenHost(context);  // may wait: call it before locking
  const auto sample = [&] {
    const std::string output = source.Run(fleet::SampleCommand()).output;
    return fleet::ParseSample(node, std::time(nullptr), output);
  };
  if (context.values.Has("dry-run")) {
    context.out.List(RawCounters(sample()));
    return kDone;
  }
  fleet::SampleStore store(fleet::OpenStatDatabase());
  const Readings readings = sample();
  store.Store(readings);
  // No output: cron(8) would send it as a mail.
  if (context.out.ForPeople() && isatty(STDOUT_FILENO) == 0) return kDone;
  context.out.One(ToRecord(kCollectedFields, readings));
  return kDone;
}

void Describe(opts::Args& args) {
  args.Details(
      "Tells what it stored on a terminal and with '-o json' only, so that cron(8) is "
      "silent while all is well.");
  AddNodeOptions(args);
  args.Option("dry-run").Help("show what the kernel counts, and keep nothing");
}

}  // namespace

Verb StatCollectVerb() {
  return {.name = "collect",
          .summary = "Stores what was counted since the last time.",
          .describe = Describe,
          .run = Collect,
          .examples = {"", "--node 192.0.2.7"},
          .fields = Declared(kRawFields, Declared(kCollectedFields))};
}

}  // namespace tools
