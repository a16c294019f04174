// key rotate --method ssh: by the ssh(1) of this host and its configuration, without a run.

#include <sys/resource.h>

#include <memory>

#include "brefir/sshkey_generate.h"
#include "console/interrupt.h"
#include "console/node_table.h"
#include "fleet/node_names.h"
#include "fleet/node_work.h"
#include "fleet/ssh_rotation.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

/// Its command lines quote nothing.
fleet::KeySetup ReadKeySetup(const Context& context) {
  const fleet::KeyChange pair = PanelPair(context);
  RequirePlain(pair.private_key, "--private");
  RequirePlain(pair.public_key, "--public");
  fleet::KeySetup setup{.nodes = AboutWord(fleet::kNodeName, "--nodes",
                                           [&] { return fleet::KeyAddresses(KeyNodes(context)); }),
                        .public_key = pair.public_key,
                        .private_key = pair.private_key,
                        .known_hosts = context.PathSetting("known-hosts", "known_hosts"),
                        .accept_new = context.values.Has("accept-new"),
                        .timeout = static_cast<int>(context.values.Int("timeout"))};
  if (!setup.known_hosts.empty()) RequirePlain(setup.known_hosts, "--known-hosts");
  return setup;
}

/// Work on nodes as the user sees it, and his way to interrupt it. Log lines and the table would overwrite
/// each other.
struct NodeScreen {
  NodeScreen(const Context& context, const std::vector<std::string>& nodes)
      : table(nodes, !context.values.Has("verbose") && !context.values.Has("quiet")) {}

  /// The answer; whether a node was changed is not known of one that failed.
  Answer Told(int code) {
    Answer answer(table.Records());
    for (Record& record : answer.records) {
      const fleet::NodeState state = table.State(console::Cell(*record.Find("node")));
      record.Add("changed", state == fleet::NodeState::kError
                                ? Value()
                                : Value(state == fleet::NodeState::kVerified));
    }
    for (const Field& field : console::kNodeFields) answer.columns.push_back(field.name);
    answer.code = code;
    return answer;
  }

  const console::NotedInterruption interruption;
  console::NodeTable table;
};

/// What shows work there; it holds the screen.
fleet::NodeWatch WatchOn(const std::shared_ptr<NodeScreen>& screen) {
  return {
      .changed = [screen](const std::string& node, fleet::NodeState state,
                          const std::string& reason) { screen->table.Set(node, state, reason); },
      .stop = [screen] { return screen->interruption.Happened(); },
      .reason = [](const pnl_err::Error& error) { return ErrorText(error, Format::kTable); }};
}

/// Raises the limit: all nodes are worked on at the same time, with a few descriptors each.
void AllowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::string KeyDir(const Context& context) {
  if (!context.values.Has("copy-keys")) return "";
  std::string dir = NodePath(context, "dest");
  RequirePlain(dir, "--dest");
  return dir;
}

/// Prints each message, and shows the table of nodes during the work.
void EndKilledRotations(Context& context, const fleet::KeySetup& setup) {
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

Answer Make(Context& context, const fleet::KeySetup& setup, const std::string& key_dir) {
  AllowManyDescriptors();
  EndKilledRotations(context, setup);
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  try {
    fleet::RotateKeys(setup, key_dir, WatchOn(screen));
    return screen->Told(kDone);
  } catch (const pnl_err::Error& error) {
    if (error.type() != ssh_gen::kCopyFailed) throw;
    screen->table.End();
    context.Report(error);
    return screen->Told(kFailed);
  }
}

/// When the plan fails on some nodes, all are listed.
fleet::Plan Preview(Context& context, const fleet::KeySetup& setup, const std::string& key_dir) {
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  try {
    fleet::Plan plan = fleet::PreviewRotation(setup, key_dir, WatchOn(screen));
    screen->table.End();
    return plan;
  } catch (const pnl_err::Error& error) {
    if (error.type() == ssh_gen::kCopyFailed) context.out.List(screen->table.Records());
    throw;
  }
}

}  // namespace

void AddSshMethodOptions(opts::Args& args) {
  args.Option("copy-keys")
      .Help("with --method ssh: also place the key files on each node")
      .Needs("dest");
  args.Option("dest")
      .Value("PATH")
      .Help("the directory on each node for the key files")
      .Needs("copy-keys");
}

int RotateBySsh(Context& context) {
  const fleet::KeySetup setup = ReadKeySetup(context);
  const std::string key_dir = KeyDir(context);
  if (context.OnlyPlans())
    return CarryOut(context, {Preview(context, setup, key_dir), {}, setup.nodes});
  const auto make = [&] { return Make(context, setup, key_dir); };
  return CarryOut(context, {{}, make});
}

}  // namespace tools
