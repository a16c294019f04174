#pragma once

#include <string>
#include <vector>

#include "fleet/database.h"
#include "fleet/journal.h"

/// How the journal lies in its tables; for the sources of this directory only.
///
///      runs        a row for each run
///      run_nodes   a row for each node of a run; "number" is its place in the run
///      run_steps   a row for each step of a node, with the node's number
namespace fleet {

/// Makes missing tables and indexes; with all of them there, only reads.
void MakeRunTables(pnl_db::Cache& db);

/// A text with every byte as the tables have it: they cannot hold all bytes.
[[nodiscard]] std::string Exact(std::string_view text);
/// The text of such a column.
[[nodiscard]] std::string ExactOf(const pnl_db::Query& row, const std::string& column);
/// A text for people.
[[nodiscard]] std::string Readable(std::string_view text);

/// The states in which a run has not ended, and those in which a node of it is not free, as a list of
/// SQL in parentheses.
[[nodiscard]] std::string UnfinishedStates();
[[nodiscard]] std::string BusyStates();
/// Those in which a node of an ended run owes something; there is an index of these.
[[nodiscard]] std::string OwingStates();
/// A state as the tables have it.
[[nodiscard]] std::string WordOf(NodeRunState state);
/// One state as a literal of SQL.
[[nodiscard]] std::string Literal(RunState state);
[[nodiscard]] std::string Literal(NodeRunState state);

/// Inserts the run without its nodes; returns its id.
[[nodiscard]] std::int64_t InsertHead(pnl_db::Cache& db, const RunHead& run);
void InsertNodes(pnl_db::Cache& db, std::int64_t run, const std::vector<RunNode>& nodes);
/// Replaces the steps of a node; throws Missed("node", name) if the run does not have it.
void ReplaceSteps(pnl_db::Cache& db, std::int64_t run, const std::string& node,
                  const std::vector<RunStep>& steps);

/// The run in the current row, which has all columns of "runs".
[[nodiscard]] RunHead HeadOf(const pnl_db::Query& row);
/// The node's state in the column "node_state".
[[nodiscard]] NodeRunState NodeStateOf(const pnl_db::Query& row);
/// The runs that `where` selects, with the order of the rows.
[[nodiscard]] std::vector<RunHead> ReadHeads(pnl_db::Cache& db, const std::string& where,
                                             const Arguments& args = {});
/// One run; throws Missed without it.
[[nodiscard]] RunHead FindHead(pnl_db::Cache& db, std::int64_t run);
/// The same for nodes (n), in the order of the columns `order`, and then of the runs.
enum class With { kSteps, kNoSteps };
[[nodiscard]] std::vector<Journal::Debt> ReadNodes(pnl_db::Cache& db, With with,
                                                   const std::string& where, const Arguments& args,
                                                   const std::string& order = "");
[[nodiscard]] std::vector<RunNode> NodesOf(pnl_db::Cache& db, std::int64_t run, With with);

}  // namespace fleet
