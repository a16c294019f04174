// key: the panel's SSH key on its nodes.

#include <sys/resource.h>

#include <algorithm>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/diff.h"
#include "fleet/rotation.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands.h"
#include "tools/key_nodes.h"
#include "tools/node.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;
using fleet::KeySetup;
using pnl_proc::Escape;
using ssh_gen::kAuthorizedKeys;

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
    if (error.type() == "copy_ssh_keys") screen.table.Print();
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

/// What is taken away, and what must stay.
struct Retirement {
  std::string old_key;
  std::string current_key;
};

std::string KeyInFile(const std::string& path) {
  std::string text = pnl_file::ReadE(path);
  while (!text.empty()) {
    std::string key = fleet::KeyOf(str::GetWord(text, '\n'));
    if (!key.empty()) return key;
  }
  throw UsageError("--key", path, "'" + path + "' holds no public key");
}

Retirement ReadRetirement(const Context& context, const KeySetup& setup) {
  const std::string path = context.Path(context.values.Str("key"));
  Retirement retirement{KeyInFile(path),
                        WithPrivateKey([&] { return fleet::PublicHalf(setup.private_key); })};
  if (retirement.old_key == retirement.current_key) {
    throw pnl_err::Error("key_in_use", "key", path)
        .add_param("message", "'" + path + "' is the key that the panel logs in with; " +
                                  "'brefirctl key rotate' makes a new one first");
  }
  return retirement;
}

/// Replaces a file of the node by what `filter`, reading it and `input`, prints: beside it, with
/// its owner and mode, synced, and only when it came whole. A lost connection changes nothing.
void ReplaceOnNode(pnl_rpc::SSH& ssh, const std::string& path, const std::string& filter,
                   const std::string& input) {
  const std::string script = "set -e; f=$(readlink -f " + Escape(path) +
                             "); t=$(mktemp \"$f.XXXXXX\"); trap 'rm -f \"$t\"' EXIT; "
                             "i=$(mktemp \"$f.XXXXXX\"); trap 'rm -f \"$t\" \"$i\"' EXIT; "
                             "cat >\"$i\"; [ \"$(wc -c <\"$i\")\" -eq " +
                             std::to_string(input.size()) + " ]; cp -p \"$f\" \"$t\"; " + filter +
                             " >\"$t\"; sync \"$t\"; mv -f \"$t\" \"$f\"";
  pnl_rpc::SSH run = ssh.Execute(script);
  run.In() << input;
  run.CloseIn();
  if (run.Result() != 0)
    throw NodeError(ssh, path, "'" + path + "' could not be replaced; it stays as it was");
}

/// The lines go to the node and not the whole file, so that what somebody else adds meanwhile
/// stays.
void RemoveLines(pnl_rpc::SSH& ssh, const std::vector<std::string>& lines) {
  std::string patterns;
  for (const std::string& line : lines) patterns += line + "\n";
  ReplaceOnNode(ssh, kAuthorizedKeys, "grep -avxF -f \"$i\" \"$f\"", patterns);
}

std::string Retire(const KeySetup& setup, const Retirement& retirement, const std::string& node,
                   std::string* diff) {
  pnl_rpc::SSH ssh = fleet::LogIn(setup, node, setup.private_key);
  const std::string keys = file::Read(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys);
  const std::vector<std::string> lines = fleet::LinesWith(keys, retirement.old_key);
  if (lines.empty()) return "ABSENT";
  const std::string rest = fleet::WithoutKey(keys, retirement.old_key);
  if (fleet::LinesWith(rest, retirement.current_key).empty())
    throw NodeError(ssh, kAuthorizedKeys,
                    std::string("refused: '") + kAuthorizedKeys +
                        "' would not hold the key that the panel logs in with");
  if (diff != nullptr) {
    *diff = fleet::UnifiedDiff(keys, rest, node + ":" + kAuthorizedKeys);
    return "WOULD RETIRE";
  }
  RemoveLines(ssh, lines);
  try {
    (void)fleet::LogIn(setup, node, setup.private_key);
  } catch (const pnl_err::Error&) {
    ReplaceOnNode(ssh, kAuthorizedKeys, "cat \"$i\"", keys);  // over the connection still open
    throw;
  }
  return "RETIRED";
}

int Retire(Context& context) {
  const KeySetup setup = ReadKeySetup(context);
  const Retirement retirement = ReadRetirement(context, setup);
  const bool dry_run = context.values.Has("dry-run");
  const pnl_file::Lock lock = dry_run ? pnl_file::Lock() : LockKeys(setup);
  if (!dry_run) context.out.TellOfWork();
  std::map<std::string, std::string> diffs;
  for (const std::string& node : setup.nodes) diffs[node];  // before threads use it
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes, NodeTable::News::kNone);
  fleet::NodeWork work(setup.nodes, WatchOn(screen));
  work.Visit([&](const std::string& node) {
    return Retire(setup, retirement, node, dry_run ? &diffs.at(node) : nullptr);
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
  return {"key",
          "The panel's SSH key on its nodes.",
          AddKeyOptions,
          {{"rotate",
            "Makes a new key pair and adds it on all nodes, or on none.",
            DescribeRotate,
            Rotate,
            {"--nodes etc/nodes --dry-run", "--nodes 192.0.2.7,192.0.2.8"},
            Fields(kNodeFields, {kDiffField})},
           {"verify",
            "Tells which nodes accept the present key.",
            nullptr,
            Verify,
            {"--nodes etc/nodes"},
            kNodeFields},
           {"retire",
            "Removes an old key from all nodes.",
            DescribeRetire,
            Retire,
            {"--key etc/panel.key.pub.old --nodes etc/nodes"},
            Fields(kNodeFields, {kDiffField})}},
          {{"etc/panel.key", "the private key, unless the settings name another"},
           {"etc/panel.key.pub", "its public half"},
           {"etc/panel.key.rotation",
            "what a rotation has begun; one that is killed leaves it to "
            "the next, which cleans up"}},
          {"brefir.conf(5)", "ssh(1)", "sshd(8)"}};
}

}  // namespace tools
