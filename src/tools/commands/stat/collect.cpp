#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "fleet/sample_store.h"
#include "tools/commands/host_file.h"
#include "tools/commands/stat/stat.h"
#include "tools/frame/login.h"

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
    {{"node", "the host of the counters"},
     [](const Readings& readings) { return readings[0].device.host; }},
    {{"taken", "time of the sample", "not with --dry-run"},
     [](const Readings& readings) { return pnl_date::DateTime(readings[0].taken); }},
    {{"devices", "number of devices of each kind: net, cpu, disk", "not with --dry-run"}, Counts}};

struct RawCounter {
  const fleet::Device& device;
  std::string counter;
  std::int64_t raw;
};

const FieldTable<RawCounter> kRawFields = {
    {{"node", "the host"}, [](const RawCounter& raw) { return raw.device.host; }},
    {{"kind", "net, cpu or disk", "with --dry-run"},
     [](const RawCounter& raw) { return raw.device.kind->name; }},
    {{"device", "its name", "with --dry-run"},
     [](const RawCounter& raw) { return raw.device.name; }},
    {{"counter", "the counter's name", "with --dry-run"}, &RawCounter::counter},
    {{"raw", "its value in the kernel", "with --dry-run"}, &RawCounter::raw}};

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
      "The command prints what it stored only on a terminal and with '-o json'. In cron(8) it "
      "prints only errors.");
  AddNodeOptions(args);
  args.Option("dry-run").Help("show the counters of the kernel; store nothing");
}

}  // namespace

Verb StatCollectVerb() {
  return {.name = "collect",
          .summary = "Stores the increase of all counters since the last sample.",
          .describe = Describe,
          .run = Collect,
          .examples = {"", "--node 192.0.2.7"},
          .fields = Declared(kRawFields, Declared(kCollectedFields))};
}

}  // namespace tools
