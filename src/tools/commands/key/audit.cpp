#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

#include "brefir/str_utils.h"
#include "console/render.h"
#include "fleet/authorized_keys.h"
#include "fleet/fleet_database.h"
#include "fleet/gather.h"
#include "fleet/key_audit.h"
#include "fleet/key_login.h"
#include "fleet/node_range.h"
#include "fleet/rotation.h"
#include "pnl/file.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

using fleet::AcceptedKey;
using fleet::KeyAudit;

constexpr const char* kKnownKeys = "etc/known_keys";
constexpr const char* kNobody = "NOBODY KNOWS";
constexpr std::size_t kTold = 20;  // so many different warnings are printed

// --- Whose keys are known

/// "" if there is no such key here: nodes may be logged in to with one of an SSH agent.
std::string PresentKeyIn(const Context& context, const fleet::KeyChange& pair) {
  if (!context.values.Has("private") && !pnl_file::Exists(pair.private_key)) return "";
  try {
    return fleet::PublicHalf(pair.private_key);
  } catch (const pnl_err::Error& error) {
    // A pass phrase keeps the private half to the agent.
    std::string key =
        error.type() == fleet::kUnusableKey ? fleet::KeyOf(pnl_file::Read(pair.public_key)) : "";
    if (key.empty()) throw;
    return key;
  }
}

/// Former keys, too, as far as files here or the journal have them: nodes accept these until they are retired.
void AddPanelKeys(Context& context, fleet::KeyOwners& owners) {
  fleet::KeyChange pair{.private_key = context.PathSetting("private", "private_key"),
                        .public_key = context.PathSetting("public", "public_key")};
  const std::string present =
      AboutWord(fleet::kUnusableKey, "--private", [&] { return PresentKeyIn(context, pair); });
  if (present.empty()) return;
  try {
    pair.private_key = pnl_file::RealPath(pair.private_key);
    const fleet::Journal journal(fleet::OpenFleetDatabase());
    for (const fleet::PanelKey& key : fleet::PanelKeys(journal, pair))
      owners[key.key] = "this panel, a former key";
  } catch (const pnl_err::Error& error) {
    context.Warn(pnl_err::Error(error.type(), error.object(), error.value())
                     .add_param("message", "the panel's former keys are not known: " +
                                               ErrorText(error, Format::kTable)));
  }
  owners[present] = "this panel";
}

fleet::KeyOwners Owners(Context& context) {
  fleet::KeyOwners owners;
  const bool given = context.values.Has("known");
  const std::string path = given ? context.Path(context.values.Str("known")) : kKnownKeys;
  if (given || pnl_file::Exists(path)) {
    const std::string& name = given ? context.values.Str("known") : path;
    owners = fleet::KnownKeys(pnl_file::ReadE(path), name);
  }
  AddPanelKeys(context, owners);
  return owners;
}

// --- Asking

std::vector<fleet::Node> AskedNodes(const Context& context) {
  std::vector<fleet::Node> nodes = KeyNodes(context);
  if (nodes.empty() && !context.values.Has("nodes")) nodes = PanelInventory().Nodes();
  if (!nodes.empty()) return nodes;
  throw UsageError("--nodes", "", "there are no nodes: name some with --nodes");
}

/// What could not be read makes the audit of the node incomplete: it has failed, and has an answer.
Answer Told(const KeyAudit& audit) {
  Answer answer{Record()};
  if (!audit.unread.empty()) answer.code = kFailed;
  return answer;
}

std::vector<KeyAudit> AskAll(Context& context, Round& round) {
  std::vector<KeyAudit> audits(round.Nodes().size());
  const NodeLogins logins(context);
  const bool chosen = context.values.Has("private");
  const std::string key = context.PathSetting("private", "private_key");
  const auto ask = [&](const fleet::Node& node, pnl_host::Host& host) {
    KeyAudit& audit = audits[static_cast<std::size_t>(&node - round.Nodes().data())];
    audit = fleet::AskKeys(host);
    return Told(audit);
  };
  const auto login = [&](const fleet::Node& node) {
    pnl_rpc::SshOptions options = logins.Of(node);
    if (chosen) options.key_file = key;
    return options;
  };
  round.Visit(ask, {.login = login});
  return audits;
}

// --- Records

std::string TypeOf(const AcceptedKey& key) {
  return key.key.substr(0, key.key.find(' '));
}
Value Text(const std::string& text) {
  return text.empty() ? Value() : Value(text);
}
Value Time(const std::optional<std::time_t>& time) {
  return time ? Value(pnl_date::DateTime(*time)) : Value();
}

const FieldTable<AcceptedKey>& KeyFields() {
  static const auto* const fields = new FieldTable<AcceptedKey>{
      {{"user", "who can be logged in to with the key"}, &AcceptedKey::user},
      {{"file", "the file there that has it"}, &AcceptedKey::file},
      {{"line", "the line of the file"}, &AcceptedKey::line},
      {{"type", "such as ssh-ed25519"}, TypeOf},
      {{"fingerprint", "as ssh-keygen(1) prints it; null if sshd would not take the key"},
       [](const AcceptedKey& key) { return Text(key.fingerprint); }},
      {{"comment", "as it is in the file; it proves nothing"},
       [](const AcceptedKey& key) { return Text(key.comment); }},
      {{"options", "what sshd(8) has in front of a key: from=..., command=..."},
       [](const AcceptedKey& key) { return Text(key.options); }},
      {{"whose", "whose key it is; null if nobody knows"},
       [](const AcceptedKey& key) { return Value(key.whose); }},
      {{"known", "whether somebody knows"},
       [](const AcceptedKey& key) { return key.whose.has_value(); }},
      {{"last_seen", "the user's last login with it in the logs of the node, or null"},
       [](const AcceptedKey& key) { return Time(key.last_seen); }},
      {{"from", "the address from which that came"},
       [](const AcceptedKey& key) { return Text(key.from); }}};
  return *fields;
}

/// A record without a key: of a file that was not read, or of a node that was not asked.
Record WithoutKey(const std::string& node, const std::string& user, const std::string& file,
                  const std::string& error) {
  Record record = Record().Add("node", node);
  for (const Field& field : KeyFields())
    record.Add(field.name, field.name == "user"   ? Text(user)
                           : field.name == "file" ? Text(file)
                                                  : Value());
  return record.Add("error", error);
}

std::vector<Record> Records(const Round& round, const std::vector<KeyAudit>& audits) {
  std::vector<Record> records;
  for (std::size_t i = 0; i < audits.size(); ++i) {
    const std::string& node = round.Nodes()[i].name;
    if (round.HasFailed(i) && audits[i].unread.empty())
      records.push_back(WithoutKey(node, "", "", round.Reason(i)));
    for (const AcceptedKey& key : audits[i].keys) {
      records.push_back(ToRecord(KeyFields(), key, Record().Add("node", node)));
      records.back().Add("error", Value());
    }
    for (const fleet::UnreadKeys& unread : audits[i].unread)
      records.push_back(WithoutKey(node, unread.user, unread.file, unread.reason));
  }
  return records;
}

// --- For people

/// A key, wherever it is.
struct KeyOfAll {
  const AcceptedKey* key = nullptr;  // of its first place
  StringSet users, comments;
  std::vector<std::string> nodes = {};
  std::optional<std::time_t> last_seen = {};
};

std::map<std::string_view, KeyOfAll> Folded(const Round& round,
                                            const std::vector<KeyAudit>& audits) {
  std::map<std::string_view, KeyOfAll> all;
  for (std::size_t i = 0; i < audits.size(); ++i) {
    for (const AcceptedKey& key : audits[i].keys) {
      KeyOfAll& one = all[key.key];
      if (one.key == nullptr) one.key = &key;
      one.users.insert(key.user);
      if (!key.comment.empty()) one.comments.insert(key.comment);
      const std::string& node = round.Nodes()[i].name;
      if (one.nodes.empty() || one.nodes.back() != node) one.nodes.push_back(node);
      one.last_seen = std::max(one.last_seen, key.last_seen);
    }
  }
  return all;
}

/// The keys that nobody knows are last: next to the prompt.
std::string KeyTable(const std::map<std::string_view, KeyOfAll>& all) {
  std::vector<const KeyOfAll*> keys;
  keys.reserve(all.size());
  for (const auto& [text, key] : all) keys.push_back(&key);
  std::stable_sort(keys.begin(), keys.end(), [](const KeyOfAll* a, const KeyOfAll* b) {
    return std::pair(!a->key->whose, a->key->whose) < std::pair(!b->key->whose, b->key->whose);
  });
  std::vector<Record> rows;
  rows.reserve(keys.size());
  for (const KeyOfAll* one : keys)
    rows.push_back(Record()
                       .Add("fingerprint", Text(one->key->fingerprint))
                       .Add("type", TypeOf(*one->key))
                       .Add("whose", one->key->whose.value_or(kNobody))
                       .Add("users", one->users)
                       .Add("nodes", str::Join(fleet::FoldNames(one->nodes), ","))
                       .Add("last_seen", Time(one->last_seen))
                       .Add("comment", one->comments));
  if (rows.empty()) return "";
  std::vector<std::string> columns;
  for (const auto& [name, value] : rows.front().fields) columns.push_back(name);
  return console::Table(rows, columns, true);
}

void Warn(Context& context, const Round& round, const std::vector<KeyAudit>& audits) {
  std::vector<std::string> names, texts;
  for (std::size_t i = 0; i < audits.size(); ++i) {
    const auto add = [&](const std::string& text) {
      names.push_back(round.Nodes()[i].name);
      texts.push_back(text);
    };
    for (const std::string& note : audits[i].notes) add(note);
    for (const fleet::UnreadKeys& unread : audits[i].unread) add(unread.reason);
    if (round.HasFailed(i) && audits[i].unread.empty()) add(round.Reason(i));
  }
  const std::vector<fleet::Gathered> groups = fleet::Gather(names, texts);
  for (std::size_t i = 0; i < std::min(groups.size(), kTold); ++i)
    context.Warn(pnl_err::Error("key_audit", groups[i].names)
                     .add_param("message", groups[i].names + ": " + groups[i].answer));
  if (groups.size() > kTold)
    context.Warn(pnl_err::Error("key_audit")
                     .add_param("message", "and " + std::to_string(groups.size() - kTold) +
                                               " more such messages"));
}

std::string Counted(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string Summary(const Round& round, const std::vector<KeyAudit>& audits, std::size_t keys,
                    std::size_t unknown) {
  std::size_t failed = 0, unread = 0;
  for (std::size_t i = 0; i < audits.size(); ++i) {
    if (round.HasFailed(i) && audits[i].unread.empty()) ++failed;
    unread += audits[i].unread.size();
  }
  std::string text = Counted(keys, "key", "keys") + " on " +
                     Counted(audits.size() - failed, "node", "nodes") + ", " +
                     std::to_string(unknown) + " of them known to nobody";
  if (unread > 0) text += "; " + Counted(unread, "file was not read", "files were not read");
  if (failed > 0) text += "; " + Counted(failed, "node was not asked", "nodes were not asked");
  return text;
}

int Audit(Context& context) {
  const fleet::KeyOwners owners = Owners(context);
  Round round(context, AskedNodes(context));
  std::vector<KeyAudit> audits = AskAll(context, round);
  fleet::CompleteAudits(audits, owners);
  const auto all = Folded(round, audits);
  const auto unknown = static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(), [](const auto& one) { return !one.second.key->whose; }));
  if (context.out.ForPeople() && !context.out.IsShaped()) {
    context.out.Raw(KeyTable(all));
    context.out.Flush();  // on a terminal, the messages are below it
  } else {
    context.out.List(Records(round, audits));
  }
  Warn(context, round, audits);
  if (!context.values.Has("quiet"))
    std::fputs((Summary(round, audits, all.size(), unknown) + "\n").c_str(), stderr);
  bool failed = false;
  for (std::size_t i = 0; i < audits.size(); ++i) {
    if (round.State(i) == Round::kInterruptedState) return kInterrupted;
    failed = failed || round.HasFailed(i);
  }
  if (unknown > 0) return kNo;  // worse than a node that could not be asked
  return failed ? kFailed : kDone;
}

void Describe(opts::Args& args) {
  args.Option("known").Value("FILE").Help(
      "public keys that are known, in the format of authorized_keys, with their owners as "
      "comments; "
      "default: etc/known_keys if it exists");
  AddFanOptions(args, true);
  args.Details(
      "Asks each node in one command for the keys of all its users: those in the files that its "
      "sshd "
      "reads. A key is known if it is the panel's own, or if it is in the file of --known. The "
      "comment "
      "of a key on a node proves nothing. For people, a key is one line, wherever it is, and those "
      "that "
      "nobody knows are last. The last login is that of the node's journal, auth.log or secure, as "
      "far "
      "as these can be read and go back.\n"
      "Without --nodes and the setting nodes, all nodes of the inventory are asked. A node that is "
      "logged "
      "in to as another user than root should have become = sudo in the inventory: otherwise the "
      "files of "
      "other users cannot be read. Keys that sshd gets from a command, and certificates, are not "
      "listed, "
      "but a warning tells of them.\n"
      "The exit code is 3 if there is a key that nobody knows. Otherwise it is 1 if a node could "
      "not be asked or a file could not be read, and 0 if not.");
}

}  // namespace

Verb KeyAuditVerb() {
  return {.name = "audit",
          .summary = "Shows every key that the users of nodes accept, and which nobody knows.",
          .describe = Describe,
          .run = Audit,
          .examples = {"--nodes '@web'", "--nodes @all --known etc/known_keys -o json"},
          .fields = Fields(Fields({{"node", "its name"}}, Declared(KeyFields())),
                           {{"error",
                             "null, or why the node could not be asked or the file could not be "
                             "read"}})};
}

}  // namespace tools
