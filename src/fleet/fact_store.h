#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/facts.h"
#include "pnldb/db.h"

/// The last facts of each node.
///
///     fleet::FactStore store(fleet::OpenFleetDatabase());
///     store.Store({{host.Name(), fleet::AskFacts(host)}});
///     if (const auto facts = store.Find("web1")) Show(facts->os, facts->asked);
namespace fleet {

struct NodeFacts {
  std::string node;  ///< as pnl_host::Host::Name returns it
  Facts facts;
};

/// Thread-safe. All functions throw what the database throws.
class FLEET_API FactStore {
 public:
  /// Makes a missing table. When it is there, read permission is enough for Find and All.
  explicit FactStore(std::shared_ptr<pnl_db::Cache> db);

  /// Stores all in one transaction. Facts that are older than the stored ones are left out. Facts
  /// without a count of updates keep the stored count, with its own time.
  void Store(std::vector<NodeFacts> nodes);

  [[nodiscard]] std::optional<Facts> Find(const std::string& node) const;
  [[nodiscard]] std::vector<NodeFacts> All() const;  ///< sorted by the node's name

 private:
  std::shared_ptr<pnl_db::Cache> db_;
};

}  // namespace fleet
