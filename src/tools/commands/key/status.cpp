#include <ctime>

#include "brefir/str_utils.h"
#include "fleet/fleet_database.h"
#include "fleet/key_login.h"
#include "fleet/node_range.h"
#include "fleet/rotation.h"
#include "tools/commands/key/key.h"
#include "tools/commands/run/run.h"

namespace tools {
namespace {

struct Row {
  fleet::PanelKey key;
  std::string fingerprint;
};

Value Names(const std::vector<std::string>& names) {
  return str::Join(fleet::FoldNames(names), ",");
}

std::string StateOf(const fleet::PanelKey& key) {
  if (key.present) return "present";
  return key.nodes.empty() && key.owed.empty() ? "retired" : "old";
}

constexpr std::int64_t kDay = 86400;

const FieldTable<Row>& StatusFields() {
  static const auto* const table = new FieldTable<Row>{
      {{"state",
        "present: the panel logs in with it; old: nodes still accept it; retired: no node of the "
        "journal does"},
       [](const Row& row) { return StateOf(row.key); }},
      {{"type", "its type"},
       [](const Row& row) { return row.key.key.substr(0, row.key.key.find(' ')); }},
      {{"fingerprint", "as ssh-keygen -l prints it"}, &Row::fingerprint},
      {{"since", "when its rotation was committed; without one, when its file was made"},
       [](const Row& row) {
         return row.key.since == 0 ? Value() : Value(pnl_date::DateTime(row.key.since));
       }},
      {{"days", "its age"},
       [](const Row& row) {
         return row.key.since == 0
                    ? Value()
                    : Value((std::int64_t{std::time(nullptr)} - row.key.since) / kDay);
       }},
      {{"run", "the rotation that added it, or null"},
       [](const Row& row) { return row.key.run == 0 ? Value() : Value(row.key.run); }},
      {{"nodes", "the nodes that accept it, as far as the journal knows"},
       [](const Row& row) { return Names(row.key.nodes); }},
      {{"owed", "the nodes that are owed it: 'key resume'"},
       [](const Row& row) { return Names(row.key.owed); }},
      {{"file", "its private key here, or null"},
       [](const Row& row) { return row.key.file.empty() ? Value() : Value(row.key.file); }},
      {{"line", "its line of authorized_keys files"}, [](const Row& row) { return row.key.line; }},
  };
  return *table;
}

/// Unfinished rotations are worth a word; the table has only what is certain.
void TellUnfinished(Context& context, const fleet::Journal& journal, const fleet::KeyChange& pair) {
  try {
    fleet::RequireNoOpenRotation(journal, pair.private_key);
  } catch (const pnl_err::Error& error) {
    if (error.type() != fleet::kRunBusy) throw;
    context.Warn(error);
  }
}

int Status(Context& context) {
  const fleet::KeyChange pair = PanelPair(context);
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  std::vector<Row> rows;
  std::vector<std::string> keys;
  for (fleet::PanelKey& key : fleet::PanelKeys(journal, pair)) {
    keys.push_back(key.key);
    rows.push_back({std::move(key), ""});
  }
  const std::vector<std::string> fingerprints = fleet::Fingerprints(keys);
  for (std::size_t i = 0; i < rows.size(); ++i) rows[i].fingerprint = fingerprints[i];
  context.out.List(ToRecords(StatusFields(), rows),
                   {"state", "type", "fingerprint", "since", "days", "run", "nodes", "owed"});
  TellUnfinished(context, journal, pair);
  return kDone;
}

}  // namespace

Verb KeyStatusVerb() {
  return {
      .name = "status",
      .summary = "Shows the panel's keys, their ages, and which nodes have them or are owed them.",
      .describe =
          [](opts::Args& args) {
            args.Details(
                "It asks the journal and the files of this host, no node: 'key verify' shows "
                "whether nodes accept the present key, 'key audit' every key that is on them.");
          },
      .run = Status,
      .examples = {"", "-o json"},
      .fields = Declared(StatusFields())};
}

}  // namespace tools
