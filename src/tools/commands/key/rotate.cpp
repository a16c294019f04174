#include "fleet/rotation.h"

#include <algorithm>

#include "fleet/fleet_database.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

constexpr std::int64_t kMostOwed = 100'000;

fleet::KeyType TypeOf(const std::string& word) {
  if (word == "rsa") return fleet::KeyType::kRsa;
  return word == "ecdsa" ? fleet::KeyType::kEcdsa : fleet::KeyType::kEd25519;
}

/// What a plan shows in place of a key that is not made yet.
fleet::KeyChange Planned(fleet::KeyChange pair, const std::string& type) {
  pair.added = (type == "ecdsa" ? "ecdsa-sha2-nistp256" : "ssh-" + type) + " (the new key)";
  pair.machine = fleet::OwnMachine();
  return pair;
}

bool IsInUnfinishedRun(const fleet::Journal& journal, const fleet::KeyChange& pair) {
  const std::vector<fleet::RunHead> runs = journal.Unfinished();
  return std::any_of(runs.begin(), runs.end(), [&](const fleet::RunHead& run) {
    return fleet::KeyChange::Read(run.key).private_key == pair.private_key;
  });
}

/// Removes the new pair, unless a run has it that another process is to end. Without an answer of the
/// journal it stays: the next rotation removes it.
class NextPair {
 public:
  NextPair(const fleet::Journal& journal, const fleet::KeyChange& pair)
      : journal_(journal), pair_(pair) {}
  NextPair(const NextPair&) = delete;
  NextPair& operator=(const NextPair&) = delete;
  ~NextPair() {
    try {
      if (!IsInUnfinishedRun(journal_, pair_)) fleet::DropNextPair(pair_);
    } catch (const std::exception&) {  // see above
    }
  }

 private:
  const fleet::Journal& journal_;
  const fleet::KeyChange pair_;
};

/// Every node logs in as its own user.
EditJob JobOf(std::vector<fleet::RunTarget> targets, fleet::KeyChange key) {
  EditJob job{.targets = std::move(targets), .command = "key rotate", .key = key};
  job.edits = [logins = job.targets, key = std::move(key)](std::size_t target) {
    fleet::Edit edit = fleet::NewKeyEdit(logins[target].login->user, key);
    return std::vector<HostEdit>{
        {.look = std::move(edit.look), .make = [make = std::move(edit.make)](fleet::Draft& draft) {
           make(draft);
           return Answer(Record());
         }}};
  };
  return job;
}

int RotateByRun(Context& context) {
  const opts::Values& values = context.values;
  const fleet::KeyChange pair = PanelPair(context);
  static_cast<void>(PresentKey(pair));  // it is the one that all nodes accept
  const std::string type = values.Has("type") ? values.Str("type") : "ed25519";
  std::vector<fleet::RunTarget> targets = KeyTargets(context, pair);
  const auto run = [&](fleet::KeyChange key) {
    EditJob job = JobOf(std::move(targets), std::move(key));
    job.allow_owed = static_cast<std::size_t>(values.Int("allow-owed"));
    return RunEdits(context, std::move(job));
  };
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  if (context.OnlyPlans()) {
    fleet::RequireNoOpenRotation(journal, pair.private_key);
    return run(Planned(pair, type));
  }
  const pnl_file::Lock lock = fleet::LockKey(pair.private_key);
  fleet::RequireNoOpenRotation(journal, pair.private_key);
  const NextPair next(journal, pair);
  return run(fleet::MakeNextPair(pair, TypeOf(type)));
}

int RotateAllBySsh(Context& context) {
  const fleet::KeyChange pair = PanelPair(context);
  const pnl_file::Lock lock = fleet::LockKey(pair.private_key);
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  fleet::RequireNoOpenRotation(journal, pair.private_key);
  return RotateBySsh(context);
}

/// Options that only one method has.
void RequireMethod(const opts::Values& values, bool ssh) {
  const std::vector<const char*> others =
      ssh ? std::vector<const char*>{"type",  "allow-owed",    "guard",   "no-guard",
                                     "forks", "node-deadline", "deadline"}
          : std::vector<const char*>{"copy-keys"};
  for (const char* option : others)
    if (values.Has(option))
      throw UsageError(
          std::string("--") + option, "",
          std::string("--") + option + " is not for --method " + (ssh ? "ssh" : "run"));
}

int Rotate(Context& context) {
  const bool ssh = context.values.Str("method") == "ssh";
  RequireMethod(context.values, ssh);
  return ssh ? RotateAllBySsh(context) : RotateByRun(context);
}

void Describe(opts::Args& args) {
  args.Option("type").OneOf({"ed25519", "rsa", "ecdsa"}).Help("of the new key; default: ed25519");
  args.Option("allow-owed")
      .Number("N", 0, kMostOwed)
      .Help(
          "go on without up to N nodes that cannot be reached; they are owed the new key, and 'key "
          "resume' pays; default: 0");
  args.Option("method")
      .OneOf({"run", "ssh"})
      .Help("ssh: by the ssh of this host and its configuration, without a run; default: run");
  AddSshMethodOptions(args);
  AddKeyRunOptions(args);
  args.Details(
      "The new key is added on all nodes, or on none. Each node is logged in to with it and no "
      "other key, and takes it away by itself if that does not work in time. Then the new pair "
      "replaces the old one here, which stays as FILE.run-N. The old key stays valid on the nodes "
      "until 'key retire'; until then 'run undo N' goes back. If this command is killed, 'key "
      "resume' goes on.");
}

/// --method ssh has no run, and its own states.
std::vector<Field> RotationFields() {
  std::vector<Field> fields = KeyRunFields();
  for (Field& field : fields) {
    if (field.name == "run") field.when = "not with --method ssh";
    if (field.name == "state")
      field.meaning += "; with --method ssh CHECKED, VERIFIED, RESTORED, or ERROR";
  }
  fields.push_back({"ms", "milliseconds from the start to this state", "with --method ssh"});
  return fields;
}

}  // namespace

Verb KeyRotateVerb() {
  return {.name = "rotate",
          .summary = "Makes a new key pair and adds it on all nodes, or on none.",
          .describe = Describe,
          .run = Rotate,
          .examples = {"--nodes etc/nodes --dry-run", "--nodes 192.0.2.7,192.0.2.8 --allow-owed 1"},
          .fields = RotationFields()};
}

}  // namespace tools
