#include <mutex>

#include "console/render.h"
#include "fleet/fact_store.h"
#include "fleet/fleet_database.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

using fleet::Disk;
using fleet::Facts;
using pnl_date::DateTime;

std::optional<DateTime> Time(const std::optional<std::time_t>& time) {
  return time ? std::optional(DateTime(*time)) : std::nullopt;
}

std::optional<console::Bytes> Size(const std::optional<std::int64_t>& bytes) {
  return bytes ? std::optional(console::Bytes{*bytes}) : std::nullopt;
}

const FieldTable<Disk>& DiskFields() {
  static const auto* const fields = new FieldTable<Disk>{
      {{"device", ""}, &Disk::device},
      {{"mount", ""}, &Disk::mount},
      {{"size", ""}, [](const Disk& disk) { return console::Bytes{disk.size}; }},
      {{"used", ""}, [](const Disk& disk) { return console::Bytes{disk.used}; }},
      {{"free", ""}, [](const Disk& disk) { return console::Bytes{disk.free}; }},
      {{"percent", ""}, &Disk::Percent}};
  return *fields;
}

const FieldTable<Facts>& FactFields() {
  static const auto* const fields = new FieldTable<Facts>{
      {{"arch", "architecture, as in uname(1)"}, &Facts::arch},
      {{"boot_date", "time of the last boot"}, [](const Facts& facts) { return Time(facts.boot); }},
      {{"type", "the operating system as a code of six hexadecimal digits"},
       [](const Facts& facts) { return str::Format("%06x", facts.type); }},
      {{"version", "version of the operating system"}, &Facts::version},
      {{"os", "its name and version for people"}, &Facts::os},
      {{"hostname", "as the node calls itself"}, &Facts::hostname},
      {{"kernel", "release of the kernel"}, &Facts::kernel},
      {{"load", "average load of the last minute"}, &Facts::load},
      {{"processors", "number of processors that are online"}, &Facts::processors},
      {{"memory", "bytes"}, [](const Facts& facts) { return Size(facts.memory); }},
      {{"memory_free", "bytes that programs can still get without swapping"},
       [](const Facts& facts) { return Size(facts.memory_free); }},
      {{"disks",
        "mounted devices: device, mount, size, used, free (bytes for users other than root), "
        "percent"},
       [](const Facts& facts) { return ToRecords(DiskFields(), facts.disks); }},
      {{"addresses", "IPv4 and IPv6, without loopback and link-local ones"}, &Facts::addresses},
      {{"package_manager", "apt, dnf, yum, zypper, apk, emerge or pacman"},
       [](const Facts& facts) { return OrNull(facts.package_manager); }},
      {{"reboot_wanted", "whether an update waits for a reboot; null if nobody can tell"},
       &Facts::reboot_wanted},
      {{"updates", "number of packages that could be updated; null unless --updates asked for it"},
       &Facts::updates},
      {{"updates_asked", "when that was"},
       [](const Facts& facts) { return Time(facts.updates_asked); }},
      {{"panel_version", "of brefirctl there; null if it is missing"},
       [](const Facts& facts) { return OrNull(facts.panel_version); }},
      {{"asked", "when the node answered"},
       [](const Facts& facts) { return DateTime(facts.asked); }},
      {{"late", "fields that did not come in time"}, &Facts::late}};
  return *fields;
}

/// People see what the node told.
Answer Told(const Facts& facts) {
  const Record record = ToRecord(FactFields(), facts);
  std::vector<std::string> shown;
  for (const auto& [name, value] : record.fields) {
    const std::string cell = console::Cell(value);
    if (!cell.empty() && cell != "-") shown.push_back(name);
  }
  return {record, shown};
}

/// The facts of earlier commands, and those of this one. Thread-safe.
class Kept {
 public:
  explicit Kept(Context& context)
      : context_(context),
        only_(context.values.Has("cached")),
        max_age_(context.values.HasAtAll("max-age") ? context.values.Int("max-age") : -1),
        updates_(context.values.Has("updates")) {
    if (Reads()) WithStore([](fleet::FactStore&) {});
  }

  bool Reads() const { return only_ || max_age_ >= 0; }

  std::optional<Answer> Find(const std::string& node) {
    std::optional<Facts> facts;
    WithStore([&](fleet::FactStore& store) { facts = store.Find(node); });
    if (facts && (only_ || IsFresh(*facts))) return Told(*facts);
    if (!only_) return std::nullopt;
    throw pnl_err::Missed("facts", node)
        .add_param("message",
                   node + ": no facts of it are kept; without --cached it is asked for them");
  }

  void Add(const std::string& node, const Facts& facts) {
    const std::lock_guard guard(mutex_);
    asked_.push_back({node, facts});
  }

  void Store() {
    if (asked_.empty()) return;
    WithStore([&](fleet::FactStore& store) { store.Store(std::move(asked_)); });
  }

 private:
  bool IsFresh(const Facts& facts) const {
    const std::time_t now = std::time(nullptr);
    const auto is_fresh = [&](std::time_t asked) {
      return asked <= now && now - asked <= max_age_;
    };
    return is_fresh(facts.asked) &&
           (!updates_ || (facts.updates_asked && is_fresh(*facts.updates_asked)));
  }

  /// A database that cannot be used is told once. Only --cached is of no use without it.
  template <class Work>
  void WithStore(const Work& work) {
    const std::lock_guard guard(mutex_);
    if (broken_) return;
    try {
      if (!store_) store_.emplace(fleet::OpenFleetDatabase());
      work(*store_);
    } catch (const pnl_err::Error& error) {
      if (only_) throw;
      broken_ = true;
      context_.Warn(pnl_err::Error(error.type(), error.object(), error.value())
                        .add_param("message", "the facts cannot be kept: " +
                                                  ErrorText(error, Format::kTable)));
    }
  }

  Context& context_;
  const bool only_;
  const std::int64_t max_age_;  // seconds; -1: none is asked for
  const bool updates_;
  std::mutex mutex_;
  std::optional<fleet::FactStore> store_;
  bool broken_ = false;
  std::vector<fleet::NodeFacts> asked_;
};

Question FactsOf(Context& context) {
  const auto kept = std::make_shared<Kept>(context);
  const fleet::FactsQuestion question{.updates = context.values.Has("updates")};
  Question asked = [=](pnl_host::Host& host) {
    const Facts facts = fleet::AskFacts(host, question);
    kept->Add(host.Name(), facts);
    return Told(facts);
  };
  if (kept->Reads()) asked.known = [=](const std::string& node) { return kept->Find(node); };
  asked.end = [=] { kept->Store(); };
  return asked;
}

void Describe(opts::Args& args) {
  constexpr int kMaxAge = 1 << 30;
  args.Details("One command asks for all facts. What does not come within " +
               std::to_string(fleet::kFactsTime) +
               " seconds, such as the disks of a node with a dead mount, is left out and named in "
               "'late'. The "
               "facts are kept in the database of the setting fleet_database.");
  args.Option("updates").Help("also count the pending updates, which takes seconds");
  args.Option("cached").Excludes("updates").Excludes("max-age").Help(
      "show the facts that are kept; log in to no node");
  args.Option("max-age")
      .Number("S", 0, kMaxAge)
      .Help(
          "ask only if the kept facts are older than S "
          "seconds");
}

}  // namespace

Verb NodeFactsVerb() {
  return {
      .name = "facts",
      .summary = "Shows what a node is and how it does: system, load, memory, disks, addresses.",
      .describe = Describe,
      .ask = FactsOf,
      .examples = {"--node 192.0.2.7", "--nodes @web --max-age 3600",
                   "--nodes @all --updates -o json"},
      .fields = Declared(FactFields())};
}

}  // namespace tools
