#include <sys/resource.h>

#include "brefir/sshkey_generate.h"
#include "fleet/rotation.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {

/// Raises the limit: all nodes are worked on at the same time, with a few descriptors each.
static void AllowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

static std::string KeyDir(const Context& context) {
  if (!context.values.Has("copy-keys")) return "";
  std::string dir = NodePath(context, "dest");
  RequirePlain(dir, "--dest");
  return dir;
}

/// Prints each message, and shows the table of nodes during the work.
static void EndKilledRotations(Context& context, const fleet::KeySetup& setup) {
  std::weak_ptr<NodeScreen> shown;
  const auto begin = [&](const std::vector<std::string>& nodes) {
    const auto screen = std::make_shared<NodeScreen>(context, nodes);
    shown = screen;
    return WatchOn(screen);
  };
  const auto tell = [&](const std::string& message) {
    if (const auto screen = shown.lock()) screen->table.End();
    context.Warn(pnl_err::Error("earlier_rotation").add_param("message", message));
  };
  AboutWord(fleet::kUnusableKey, "--private",
            [&] { fleet::EndKilledRotations(setup, {.begin = begin, .tell = tell}); });
}

static Answer Make(Context& context, const fleet::KeySetup& setup, const std::string& key_dir) {
  const pnl_file::Lock lock = fleet::LockKeys(setup);
  AllowManyDescriptors();
  EndKilledRotations(context, setup);
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  try {
    fleet::RotateKeys(setup, key_dir, WatchOn(screen));
    return screen->Told(fleet::NodeState::kVerified, kDone);
  } catch (const pnl_err::Error& error) {
    if (error.type() != ssh_gen::kCopyFailed) throw;
    screen->table.End();
    context.Report(error);
    return screen->Told(fleet::NodeState::kVerified, kFailed);
  }
}

static Change Rotate(Context& context) {
  const fleet::KeySetup setup = ReadKeySetup(context);
  const std::string key_dir = KeyDir(context);
  if (!context.OnlyPlans()) return {{}, [=, &context] { return Make(context, setup, key_dir); }};
  return Previewed(context, setup, [&](const fleet::NodeWatch& watch) {
    return fleet::PreviewRotation(setup, key_dir, watch);
  });
}

static void Describe(opts::Args& args) {
  args.Option("copy-keys").Help("also place the key files on each node").Needs("dest");
  args.Option("dest")
      .Value("PATH")
      .Help("the directory on each node for the key files")
      .Needs("copy-keys");
  args.Details(
      "All nodes are checked first. The change is final when all of them accept the new key. If a "
      "node fails, all nodes are restored. The old key stays valid until 'key retire'.");
}

Verb KeyRotateVerb() {
  return {.name = "rotate",
          .summary = "Makes a new key pair and adds it on all nodes, or on none.",
          .describe = Describe,
          .change = Rotate,
          .checks = true,
          .examples = {"--nodes etc/nodes --dry-run", "--nodes 192.0.2.7,192.0.2.8"},
          .fields = Declared(console::kNodeFields)};
}

}  // namespace tools
