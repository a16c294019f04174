#include "fleet/last_change.h"

#include "fleet/database.h"
#include "pnl/utf8.h"

namespace fleet {
namespace {

struct Changes : pnl_db::CustomTable {
  static constexpr int kNameWidth = 255;
  Changes() : CustomTable("last_changes") {}
  pnl_db::StringField& node = *new pnl_db::StringField(this, "node", kNameWidth);
  pnl_db::LongField& time = *new pnl_db::LongField(this, "changed");
  pnl_db::StringField& what = *new pnl_db::StringField(this, "what", int{kChangeText});
};

}  // namespace

void NoteChange(pnl_db::Cache& db, const std::string& node, const std::string& what) {
  Changes row;
  if (!HasTable(db, row)) row.Create(db);
  row.node = node;
  row.time = std::time(nullptr);
  row.what = std::string(utf8::Cut(utf8::Printable(what), kChangeText));
  pnl_db::Transaction transaction(db);
  if (row.Update(db, {{"node", node}}) == 0) row.Insert(db);
  transaction.Commit();
}

std::map<std::string, LastChange> LastChanges(pnl_db::Cache& db) {
  std::map<std::string, LastChange> changes;
  Changes row;
  if (!HasTable(db, row)) return changes;
  // Two panels that note the first change of a node at the same moment make two rows.
  const auto query = db.Select("select node, changed, what from last_changes order by changed");
  while (query->Next()) {
    row.Load(*query);
    changes[row.node] = {static_cast<std::time_t>(row.time.Int()), row.what};
  }
  return changes;
}

}  // namespace fleet
