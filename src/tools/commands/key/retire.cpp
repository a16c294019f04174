#include "fleet/authorized_keys.h"
#include "fleet/edits.h"
#include "fleet/fleet_database.h"
#include "fleet/rotation.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

std::string KeyInFile(const std::string& path) {
  std::string text = pnl_file::ReadE(path);
  while (!text.empty()) {
    std::string key = fleet::KeyOf(str::GetWord(text, '\n'));
    if (!key.empty()) return key;
  }
  throw UsageError("--old", path, "'" + path + "' contains no public key");
}

/// The key of --old; without it, the one that the last rotation has replaced.
std::string OldKey(const Context& context, const fleet::Journal& journal,
                   const fleet::KeyChange& pair, const std::string& present) {
  if (context.values.Has("old")) {
    const std::string path = context.Path(context.values.Str("old"));
    std::string key = KeyInFile(path);
    if (key != present) return key;
    throw pnl_err::Error("key_in_use", "key", path)
        .add_param("message", "'" + path + "' is the key that the panel logs in with; " +
                                  "make a new one first with 'brefirctl key rotate'");
  }
  for (const fleet::PanelKey& key : fleet::PanelKeys(journal, pair))
    if (!key.present && !key.file.empty()) return key.key;
  throw UsageError("--old", "",
                   "no rotation has left an old key beside '" + pair.private_key +
                       "': name its public half with --old FILE");
}

int Retire(Context& context) {
  fleet::KeyChange pair = PanelPair(context);
  const std::string present = PresentKey(pair);
  EditJob job{.targets = KeyTargets(context, pair), .command = "key retire"};
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  pnl_file::Lock lock;
  if (!context.OnlyPlans()) lock = fleet::LockKey(pair.private_key);
  fleet::RequireNoOpenRotation(journal, pair.private_key);
  pair.retired = OldKey(context, journal, pair, present);
  pair.machine = fleet::OwnMachine();
  job.key = pair;
  job.edits = [&job, &pair, &present](std::size_t target) {
    fleet::Edit edit = fleet::RetireKeyEdit(job.targets[target].login->user, pair.retired, present);
    return std::vector<HostEdit>{
        {.look = std::move(edit.look), .make = [make = std::move(edit.make)](fleet::Draft& draft) {
           make(draft);
           return Answer(Record());
         }}};
  };
  return RunEdits(context, job);
}

void Describe(opts::Args& args) {
  args.Option("old").Value("FILE").Help(
      "the public half of the old key; default: the one that the last rotation has replaced");
  AddKeyRunOptions(args);
  args.Details(
      "All lines with that key are removed, on all nodes or on none, whatever their options are. "
      "Each node is logged in to with the present key, and puts the lines back by itself if that "
      "does not work in time. A rotation can no longer be undone then, unless this run is undone "
      "first.");
}

}  // namespace

Verb KeyRetireVerb() {
  return {.name = "retire",
          .summary = "Removes an old key from all nodes, or from none.",
          .describe = Describe,
          .run = Retire,
          .examples = {"--nodes etc/nodes", "--old etc/panel.key.pub.old --nodes etc/nodes"},
          .fields = KeyRunFields()};
}

}  // namespace tools
