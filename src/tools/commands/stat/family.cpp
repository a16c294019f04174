// stat: the kernel's counters of this host and of nodes, over time.

#include "tools/commands/stat/stat.h"

#include "tools/commands/families.h"

namespace tools {

Family StatFamily() {
  const auto describe = [](opts::Args& args) {
    args.Details(
        "'collect' stores the increase of the kernel's counters since the last sample. Run it from "
        "cron(8). The first sample stores no increase. 'show' adds the increases up.");
  };
  return {.name = "stat",
          .summary = "Statistics of traffic, processor and disks.",
          .describe = describe,
          .verbs = {StatCollectVerb(), StatShowVerb(), StatCountersVerb()},
          .files = {{"var/stat.counters", "the last values"},
                    {"var/stat.db", "the samples (setting stat_database)"}},
          .see_also = {"stat.counters(5)", "brefir.conf(5)", "proc(5)"}};
}

}  // namespace tools
