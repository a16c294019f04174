// stat: the kernel's counters of this host and of nodes, over time.

#include "tools/commands/stat/stat.h"

#include "tools/commands/families.h"

namespace tools {

Family StatFamily() {
  const auto describe = [](opts::Args& args) {
    args.Details(
        "'collect', run by cron(8) say, reads what the kernel has counted and stores the increase "
        "since the last time; the first time there is none. 'show' adds it up.");
  };
  return {.name = "stat",
          .summary = "Traffic, processor and disk counters over time.",
          .describe = describe,
          .verbs = {StatCollectVerb(), StatShowVerb(), StatCountersVerb()},
          .files = {{"var/stat.counters", "the last values"},
                    {"var/stat.db",
                     "the samples, unless stat_database of the settings says otherwise"}},
          .see_also = {"stat.counters(5)", "brefir.conf(5)", "proc(5)"}};
}

}  // namespace tools
