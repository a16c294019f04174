#include "fleet/fact_store.h"

#include <algorithm>
#include <utility>

#include "fleet/database.h"

namespace fleet {
namespace {

constexpr int kNameWidth = 255;

/// The host's own words are stored, so that no second format is needed. Those about the updates have
/// a column of their own: they stay when the next question leaves the updates out.
struct FactTable : pnl_db::CustomTable {
  FactTable() : CustomTable("node_facts") {}
  pnl_db::StringField& node = *new pnl_db::StringField(this, "node", kNameWidth);
  pnl_db::LongField& asked = *new pnl_db::LongField(this, "asked");
  pnl_db::StringField& reply = *new pnl_db::StringField(this, "reply", kMaxFacts);
  pnl_db::StringField& updates = *new pnl_db::StringField(this, "updates", kMaxFacts);
};

std::string Key(const std::string& node) {
  return str::Shorten(node, kNameWidth);
}

bool IsAboutUpdates(std::string_view line) {
  str::NextWord(line, ' ');
  return str::NextWord(line, ' ').starts_with("updates");
}

/// The words about the updates, or all others. An unanswered question for updates is left out.
std::string Part(const Facts& facts, bool about_updates) {
  if (about_updates && !facts.updates) return "";
  std::string part;
  for (std::string_view rest = facts.reply; !rest.empty();) {
    const std::string_view line = str::NextWord(rest, '\n');
    if (IsAboutUpdates(line) == about_updates) part.append(line) += '\n';
  }
  return part;
}

std::vector<NodeFacts> Read(pnl_db::Cache& db, const std::string& where,
                            const std::vector<std::string>& args) {
  std::vector<NodeFacts> nodes;
  const auto query = db.Select(
      "select node, asked, reply, updates from node_facts " + where + " order by node", args);
  while (query->Next())
    nodes.push_back(
        {query->AsString("node"), ParseFacts(query->AsString("reply") + query->AsString("updates"),
                                             query->AsInt64("asked"))});
  return nodes;
}

}  // namespace

FactStore::FactStore(std::shared_ptr<pnl_db::Cache> db) : db_(std::move(db)) {
  if (HasTable(*db_, FactTable())) return;
  pnl_db::Transaction transaction(*db_);
  FactTable().Create(*db_);
  db_->Execute("create unique index if not exists node_facts_node on node_facts (node)");
  transaction.Commit();
}

void FactStore::Store(std::vector<NodeFacts> nodes) {
  // In one order, so that two panels do not wait for each other.
  std::stable_sort(nodes.begin(), nodes.end(),
                   [](const NodeFacts& a, const NodeFacts& b) { return a.node < b.node; });
  pnl_db::Transaction transaction(*db_);
  for (const auto& [node, facts] : nodes) {
    db_->Execute(
        "insert into node_facts (node, asked, reply, updates) values (?, ?, ?, ?) "
        "on conflict (node) do update set asked = excluded.asked, reply = excluded.reply, "
        "updates = case excluded.updates when '' then node_facts.updates else excluded.updates end "
        "where node_facts.asked <= excluded.asked",
        {Key(node), std::to_string(facts.asked), Part(facts, false), Part(facts, true)});
  }
  transaction.Commit();
}

std::optional<Facts> FactStore::Find(const std::string& node) const {
  std::vector<NodeFacts> found = Read(*db_, "where node = ?", {Key(node)});
  if (found.empty()) return std::nullopt;
  return std::move(found.front().facts);
}

std::vector<NodeFacts> FactStore::All() const {
  return Read(*db_, "", {});
}

}  // namespace fleet
