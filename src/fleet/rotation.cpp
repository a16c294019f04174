#include "fleet/rotation.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <set>

#include "brefir/sshkey_generate.h"
#include "brefir/str_utils.h"
#include "fleet/authorized_keys.h"
#include "fleet/node_range.h"
#include "fleet/run_keys.h"
#include "pnl/err.h"
#include "pnl/file.h"

namespace fleet {
namespace {

using ssh_gen::kPublic;

/// The runs of a key, the oldest first.
std::vector<BookedRun> RunsOf(const Journal& journal, const std::string& private_key) {
  std::vector<BookedRun> runs;
  for (const RunHead& run : journal.KeyRuns())
    if (KeyChange::Read(run.key).private_key == private_key) runs.push_back(journal.Find(run.id));
  return runs;
}

std::string NamesIn(const BookedRun& run, NodeRunState state) {
  std::vector<std::string> names;
  for (const RunNode& node : run.nodes)
    if (node.state == state) names.push_back(node.name);
  return str::Join(FoldNames(names), ",");
}

// --- What the books know of keys

struct Holders {
  PanelKey key;
  std::set<std::string> nodes;
  std::set<std::string> owed;
};
using KeyBooks = std::map<std::string, Holders>;

/// The entry of the key in this line; null for a line without one.
Holders* EntryOf(KeyBooks& books, const std::string& line) {
  const std::string key = KeyOf(line);
  if (key.empty()) return nullptr;
  Holders& entry = books[key];
  entry.key.key = key;
  if (entry.key.line.empty()) entry.key.line = str::Trim(line);
  return &entry;
}

/// The file of a pair, if it is here.
void Locate(KeyBooks& books, const std::string& private_key, const std::string& public_key) {
  if (!pnl_file::Exists(private_key)) return;
  Holders* const entry = EntryOf(books, pnl_file::Read(public_key));
  if (entry == nullptr) return;
  entry->key.file = private_key;
  if (entry->key.since == 0) entry->key.since = pnl_file::Info(private_key).Stat().st_mtime;
}

/// All nodes of a rotation accepted the key that it replaced.
void AddRotation(KeyBooks& books, const BookedRun& run, const KeyChange& key) {
  const std::string kept = KeptKey(key, run.head.id);
  Locate(books, kept, kept + kPublic);
  if (Holders* const old = EntryOf(books, pnl_file::Read(kept + kPublic)))
    for (const RunNode& node : run.nodes) old->nodes.insert(node.name);
  Holders* const entry = EntryOf(books, key.added);
  if (entry == nullptr) return;
  entry->key.run = run.head.id;
  entry->key.since = run.head.committed;
  for (const RunNode& node : run.nodes) {
    const NodeRunState state = node.state;
    if (state == NodeRunState::kBehind) entry->owed.insert(node.name);
    // What could not be undone may still be there.
    const bool never = state == NodeRunState::kBehind || state == NodeRunState::kUndone ||
                       state == NodeRunState::kUnchanged || state == NodeRunState::kWaiting ||
                       (state == NodeRunState::kWrittenOff && IsUnplanned(node));
    if (!never) entry->nodes.insert(node.name);
  }
}

void AddRetirement(KeyBooks& books, const BookedRun& run, const KeyChange& key) {
  Holders* const entry = EntryOf(books, key.retired);
  if (entry == nullptr) return;
  for (const RunNode& node : run.nodes) {
    const bool had_none = node.state == NodeRunState::kUnchanged && node.reason.empty();
    if (had_none || node.state == NodeRunState::kDone || node.state == NodeRunState::kCommitted)
      entry->nodes.erase(node.name);
  }
}

}  // namespace

Edit NewKeyEdit(const std::string& user, const KeyChange& key) {
  Edit edit = AuthorizedKeyEdit(user, key.added, true);
  edit.words = "the new key of the panel, for user " + user;
  return edit;
}

/// What is to be done about the rotation; "" if nothing is.
static std::string OpenRotation(const BookedRun& run) {
  const std::string id = std::to_string(run.head.id);
  if (!IsEnd(run.head.state))
    return "run " + id + " (" + run.head.command +
           ") of this key is unfinished: brefirctl key resume, or brefirctl run undo " + id;
  const std::string behind = NamesIn(run, NodeRunState::kBehind);
  if (behind.empty()) return "";
  return "run " + id + " owes its new key to " + behind +
         ": when they are back, brefirctl key resume; if they never come back, brefirctl run "
         "write-off " +
         id + " --nodes " + behind + " --reason TEXT";
}

void RequireNoOpenRotation(const Journal& journal, const std::string& private_key) {
  for (const BookedRun& run : RunsOf(journal, private_key)) {
    const std::string message = OpenRotation(run);
    if (message.empty()) continue;
    throw pnl_err::Error(kRunBusy, std::to_string(run.head.id), private_key)
        .add_param("message", message);
  }
}

std::vector<PanelKey> PanelKeys(const Journal& journal, const KeyChange& present) {
  KeyBooks books;
  for (const BookedRun& run : RunsOf(journal, present.private_key)) {
    const KeyChange key = KeyChange::Read(run.head.key);
    AddRotation(books, run, key);
    AddRetirement(books, run, key);
  }
  Locate(books, present.private_key, present.public_key);
  const std::string now = KeyOf(pnl_file::Read(present.public_key));
  std::vector<PanelKey> keys;
  for (auto& [key, entry] : books) {
    if (entry.key.file.empty() && entry.nodes.empty() && entry.owed.empty()) continue;
    entry.key.present = key == now;
    entry.key.nodes.assign(entry.nodes.begin(), entry.nodes.end());
    entry.key.owed.assign(entry.owed.begin(), entry.owed.end());
    keys.push_back(std::move(entry.key));
  }
  std::sort(keys.begin(), keys.end(), [](const PanelKey& a, const PanelKey& b) {
    return a.present != b.present ? a.present : a.since > b.since;
  });
  return keys;
}

}  // namespace fleet
