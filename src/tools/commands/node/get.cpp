#include <cerrno>
#include <optional>

#include "console/interrupt.h"
#include "pnl/progress.h"
#include "tools/commands/node/node.h"

namespace tools {

/// The target of `get`: in an existing directory the file keeps its name; a link is followed.
static std::string LocalTarget(const Context& context, const std::string& name) {
  const std::string& word = context.values.Str("LOCAL");
  std::string path = context.Path(word.empty() ? name : word);
  if (word.ends_with('/') && !pnl_file::IsDir(path))
    throw pnl_err::System("write", word, pnl_file::Exists(path) ? ENOTDIR : ENOENT);
  if (pnl_file::IsDir(path)) path = pnl_file::ConcatPath(path, name);
  const std::string real = pnl_file::RealPath(path);
  return real.empty() ? path : real;
}

/// The regular file that `get` fetches.
static pnl_host::FileState RegularFile(pnl_host::Host& host, const std::string& path) {
  pnl_host::FileState file;
  OnHostFile(host, path, "remote_read", "read", [&] { file = host.Look(path); });
  if (file.kind == pnl_host::FileKind::kFile) return file;
  throw pnl_err::Error("node", host.Name(), path)
      .add_param("message", host.Name() + ": there is no regular file '" + path + "'");
}

/// Fetches the file; returns its size in bytes.
static std::uint64_t Fetch(const Context& context, pnl_host::Host& host, const std::string& remote,
                           const pnl_host::FileState& file, const std::string& local) {
  pnl_file::Tmp tmp(local);
  // With --nodes an interruption ends the session, and then this function.
  std::optional<console::RemovedWhenInterrupted> guard;
  if (!context.values.Has("nodes")) guard.emplace(tmp);
  std::uint64_t size = 0;
  OnHostFile(host, remote, "remote_read", "read", [&] {
    host.Read(file.path, [&](std::string_view block) {
      tmp.Write(block);
      pnl_progress::Report(remote, size += block.size(), file.size);
    });
  });
  if (size != file.size || RegularFile(host, remote).version != file.version) {
    throw pnl_err::Error("changed", host.Name(), remote)
        .add_param("message", host.Name() + ": '" + remote +
                                  "' was changed while it was copied; '" + local +
                                  "' stays as it was. Copy it again");
  }
  tmp.CopyAttrs(local);
  tmp.Close();
  if (context.values.Has("checksum")) CompareSums(host, remote, tmp);
  tmp.Replace(local);
  return size;
}

static Change Get(Context& context) {
  const std::string remote = MovablePath(context, "REMOTE");
  const std::string local = LocalTarget(context, pnl_file::Name(remote));
  pnl_host::Host host(OpenNode(context, {"REMOTE"}));
  const pnl_host::FileState file = RegularFile(host, remote);
  fleet::Step step{.node = "localhost", .kind = fleet::StepKind::kFile, .object = local};
  step.after = "";
  if (context.OnlyPlans()) {
    step.before = pnl_host::Host().Read(local);
    step.after = HostText(host, remote);
  }
  return {{step}, [=, &context]() mutable -> Answer {
            const std::uint64_t size = Fetch(context, host, remote, file, local);
            return Record().Add("path", remote).Add("local", local).Add("size", size);
          }};
}

/// With --nodes: into one directory for each node.
static Question GetOf(Context& context) {
  if (context.OnlyPlans())
    throw UsageError("--nodes", "", "--dry-run and --check go with --node, not with --nodes");
  const std::string remote = MovablePath(context, "REMOTE");
  const std::string& word = context.values.Str("LOCAL");
  const std::string dir = context.Path(word.empty() ? "." : word);
  context.out.TellOfWork();
  return [=, &context](pnl_host::Host& host) {
    pnl_rpc::SSH ssh = *host.Session();
    RequireMeant(context, ssh, "REMOTE");
    const pnl_host::FileState file = RegularFile(host, remote);
    const std::string own = pnl_file::ConcatPath(dir, host.Name());
    pnl_file::MkDir(own);
    const std::string local = pnl_file::ConcatPath(own, pnl_file::Name(remote));
    const std::uint64_t size = Fetch(context, host, remote, file, local);
    Answer answer =
        Record().Add("path", remote).Add("local", local).Add("size", size).Add("changed", true);
    answer.text = std::to_string(size) + " bytes";
    return answer;
  };
}

static void DescribeGet(opts::Args& args) {
  args.Positional("REMOTE").Help("a file on the node");
  args.Positional("LOCAL")
      .Optional()
      .Help(
          "a file or directory on this host; default: the same name in the current directory; with "
          "--nodes, a directory that gets a directory for each node")
      .Completes("files");
  DescribeChecksum(args);
}

Verb NodeGetVerb() {
  return {
      .name = "get",
      .summary = "Fetches a file; the local file appears only when it is complete.",
      .describe = DescribeGet,
      .ask = GetOf,
      .change = Get,
      .checks = true,
      .examples = {"/var/log/syslog /tmp/node7.log --node 192.0.2.7"},
      .fields = kCopiedFields,
  };
}

}  // namespace tools
