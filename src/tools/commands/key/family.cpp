// key: the panel's SSH key on its nodes.

#include <sys/resource.h>

#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/retirement.h"
#include "fleet/rotation.h"
#include "pnl/file.h"
#include "tools/commands/families.h"
#include "tools/commands/key/nodes.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

using fleet::KeySetup;

/// Two of these commands at once would take each other's ".old" files for leftovers.
pnl_file::Lock LockKeys(const KeySetup& setup) {
  constexpr int kSeconds = 3;
  pnl_file::Lock lock;
  lock.DoLockWithTimeout(setup.private_key, true, kSeconds, 1);
  return lock;
}

// --- rotate

/// All nodes are worked on at once, each with a few descriptors.
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

/// Tells each of them, and shows the nodes on a screen that goes with the work on them.
void EndKilledRotations(Context& context, const KeySetup& setup) {
  std::weak_ptr<NodeScreen> shown;
  const auto begin = [&](const std::vector<std::string>& nodes) {
    const auto screen = std::make_shared<NodeScreen>(context, nodes, NodeTable::News::kNone);
    shown = screen;
    return WatchOn(screen);
  };
  const auto tell = [&](const std::string& message) {
    if (const auto screen = shown.lock()) screen->table.End();
    context.bar.Clear();
    TellError(pnl_err::Error("earlier_rotation").add_param("message", message),
              context.out.GetFormat());
  };
  WithPrivateKey([&] { fleet::EndKilledRotations(setup, {.begin = begin, .tell = tell}); });
}

/// Does `work` and shows all nodes when it is done, or failed on some.
template <class Work>
void Showing(NodeScreen& screen, const Work& work) {
  try {
    work();
  } catch (const pnl_err::Error& error) {
    if (error.type() == ssh_gen::kCopyFailed) screen.table.Print();
    throw;
  }
}

int Rotate(Context& context) {
  const KeySetup setup = ReadKeySetup(context);
  const std::string key_dir = KeyDir(context);
  const bool dry_run = context.values.Has("dry-run");
  const pnl_file::Lock lock = dry_run ? pnl_file::Lock() : LockKeys(setup);
  if (!dry_run) {
    context.out.TellOfWork();
    AllowManyDescriptors();
    EndKilledRotations(context, setup);
  }
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes, NodeTable::News::kLines);
  std::string diffs;
  Showing(*screen, [&] {
    if (dry_run) {
      diffs = fleet::PreviewRotation(setup, key_dir, WatchOn(screen));
    } else {
      fleet::RotateKeys(setup, key_dir, WatchOn(screen));
    }
  });
  if (!dry_run) {
    screen->table.Print();
    return kDone;
  }
  screen->table.End();
  context.out.Text("diff", diffs);
  return kDone;
}

// --- verify

int Verify(Context& context) {
  const KeySetup setup = ReadKeySetup(context);
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes, NodeTable::News::kNone);
  fleet::NodeWork work(setup.nodes, WatchOn(screen));
  work.Visit([&](const std::string& node) {
    pnl_rpc::SSH ssh = fleet::LogIn(setup, node, setup.private_key);
    if (ssh.Execute("true").Result() != 0) throw NodeError(ssh, "", "no command can be run there");
    return "ACCEPTED";
  });
  screen->table.Print();
  return work.Failed() ? kFailed : kDone;
}

// --- retire

std::string KeyInFile(const std::string& path) {
  std::string text = pnl_file::ReadE(path);
  while (!text.empty()) {
    std::string key = fleet::KeyOf(str::GetWord(text, '\n'));
    if (!key.empty()) return key;
  }
  throw UsageError("--key", path, "'" + path + "' holds no public key");
}

fleet::Retirement ReadRetirement(const Context& context, const KeySetup& setup) {
  const std::string path = context.Path(context.values.Str("key"));
  fleet::Retirement retirement{
      KeyInFile(path), WithPrivateKey([&] { return fleet::PublicHalf(setup.private_key); })};
  if (retirement.old_key == retirement.current_key) {
    throw pnl_err::Error("key_in_use", "key", path)
        .add_param("message", "'" + path + "' is the key that the panel logs in with; " +
                                  "'brefirctl key rotate' makes a new one first");
  }
  return retirement;
}

int Retire(Context& context) {
  const KeySetup setup = ReadKeySetup(context);
  const fleet::Retirement retirement = ReadRetirement(context, setup);
  const bool dry_run = context.values.Has("dry-run");
  const pnl_file::Lock lock = dry_run ? pnl_file::Lock() : LockKeys(setup);
  if (!dry_run) context.out.TellOfWork();
  std::map<std::string, std::string> diffs;
  for (const std::string& node : setup.nodes) diffs[node];  // before threads use it
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes, NodeTable::News::kNone);
  fleet::NodeWork work(setup.nodes, WatchOn(screen));
  work.Visit([&](const std::string& node) {
    if (!dry_run) return fleet::RetireKey(setup, retirement, node) ? "RETIRED" : "ABSENT";
    diffs.at(node) = fleet::PreviewRetirement(setup, retirement, node);
    return diffs.at(node).empty() ? "ABSENT" : "WOULD RETIRE";
  });
  if (!dry_run || work.Failed()) {
    screen->table.Print();
    return work.Failed() ? kFailed : kDone;
  }
  screen->table.End();
  std::string all;
  for (const std::string& node : setup.nodes) all += diffs[node];
  context.out.Text("diff", all);
  return kDone;
}

// --- Descriptions

void DescribeRotate(opts::Args& args) {
  args.Option("copy-keys").Help("also place the key files on each node").Needs("dest");
  args.Option("dest")
      .Value("PATH")
      .Help("the directory on each node for the key files")
      .Needs("copy-keys");
  args.Option("dry-run").Help("show what each node's file would become");
  args.Details(
      "Every node is checked first and proved to accept the new key before anything is final; when "
      "one fails, all go back to the old key. The old key stays valid until 'key retire'.\nFor "
      "programs (-o json) every change of a node's state is a record of its own, one in each line, "
      "while the command runs.");
}

void DescribeRetire(opts::Args& args) {
  args.Option("key").Value("FILE").Required().Help(
      "the old public key; 'key rotate' leaves it beside the new one, with .old behind its name");
  args.Option("dry-run").Help("show what each node's file would become");
}

}  // namespace

Family KeyFamily() {
  return {
      .name = "key",
      .summary = "The panel's SSH key on its nodes.",
      .describe = AddKeyOptions,
      .verbs =
          {
              {
                  .name = "rotate",
                  .summary = "Makes a new key pair and adds it on all nodes, or on none.",
                  .describe = DescribeRotate,
                  .run = Rotate,
                  .examples = {"--nodes etc/nodes --dry-run", "--nodes 192.0.2.7,192.0.2.8"},
                  .fields = Fields(kNodeFields, {kDiffField}),
              },
              {
                  .name = "verify",
                  .summary = "Tells which nodes accept the present key.",
                  .run = Verify,
                  .examples = {"--nodes etc/nodes"},
                  .fields = kNodeFields,
              },
              {
                  .name = "retire",
                  .summary = "Removes an old key from all nodes.",
                  .describe = DescribeRetire,
                  .run = Retire,
                  .examples = {"--key etc/panel.key.pub.old --nodes etc/nodes"},
                  .fields = Fields(kNodeFields, {kDiffField}),
              },
          },
      .files = {{"etc/panel.key", "the private key, unless the settings name another"},
                {"etc/panel.key.pub", "its public half"},
                {"etc/panel.key.rotation",
                 "what a rotation has begun; one that is killed leaves it to "
                 "the next, which cleans up"}},
      .see_also = {"brefir.conf(5)", "ssh(1)", "sshd(8)"},
  };
}

}  // namespace tools
