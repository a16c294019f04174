#include "tools/commands/node/copies.h"

#include <cerrno>
#include <map>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/progress.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/frame/interrupt.h"

namespace tools {
namespace {

/// With --checksum: both files have one sum. A copy that was changed on the way has another.
void CompareSums(const Context& context, pnl_host::Host& host, const std::string& remote,
                 const std::string& local) {
  if (!context.values.Has("checksum")) return;
  std::string sum;
  OnHostFile(host, remote, "remote_read", "summed", [&] { sum = host.Sha256(remote); });
  if (sum == pnl_host::Host().Sha256(local)) return;
  throw pnl_err::Error("checksum", host.Name(), remote)
      .add_param("message", host.Name() + ": '" + remote + "' and '" + local +
                                "' differ: one of them was changed meanwhile; copy it again");
}

/// Where `get` puts a file: an existing directory takes its name, a link leads to its target.
std::string LocalTarget(const Context& context, const std::string& name) {
  const std::string& word = context.values.Str("LOCAL");
  std::string path = context.Path(word.empty() ? name : word);
  if (word.ends_with('/') && !pnl_file::IsDir(path))
    throw pnl_err::System("write", word, pnl_file::Exists(path) ? ENOTDIR : ENOENT);
  if (pnl_file::IsDir(path)) path = pnl_file::ConcatPath(path, name);
  const std::string real = pnl_file::RealPath(path);
  return real.empty() ? path : real;
}

/// The regular file that `get` fetches.
pnl_host::FileState RegularFile(pnl_host::Host& host, const std::string& path) {
  pnl_host::FileState file;
  OnHostFile(host, path, "remote_read", "read", [&] { file = host.Look(path); });
  if (file.kind == pnl_host::FileKind::kFile) return file;
  throw pnl_err::Error("node", host.Name(), path)
      .add_param("message", host.Name() + ": there is no regular file '" + path + "'");
}

int Get(Context& context) {
  const std::string remote = MovablePath(context, "REMOTE");
  const std::string local = LocalTarget(context, pnl_file::Name(remote));
  pnl_host::Host host(OpenNode(context, {"REMOTE"}));
  const pnl_host::FileState file = RegularFile(host, remote);
  pnl_file::Tmp tmp(local);
  const RemovedWhenInterrupted guard(tmp);
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
  CompareSums(context, host, remote, tmp);
  tmp.Replace(local);
  context.out.One(Record().Add("path", remote).Add("local", local).Add("size", size));
  return kDone;
}

int Put(Context& context) {
  const std::string local = context.Path(context.values.Str("LOCAL"));
  std::string remote = NodePath(context, "REMOTE");
  const pnl_file::Info info(local);
  if (!info.IsFile())
    throw pnl_err::System("read", local,
                          !info.Exists() ? ENOENT : (info.IsDir() ? EISDIR : EINVAL));
  const pnl_file::OpenFile file = pnl_file::OpenRegular(local);
  pnl_host::Host host(OpenNode(context, {"REMOTE"}));
  OnHostFile(host, remote, "remote_write", "looked at", [&] {
    if (host.Look(remote).kind == pnl_host::FileKind::kDirectory)
      remote = pnl_file::ConcatPath(remote, pnl_file::Name(local));
  });
  OnHostFile(host, remote, "remote_write", "written", [&] {
    host.Replace(remote, file.info.Size(), [&](char* block, std::size_t size) {
      return pnl_file::ReadSome(file.fd.Get(), block, size, local);
    });
  });
  CompareSums(context, host, remote, local);
  context.out.One(Record().Add("path", remote).Add("local", local).Add("size", file.info.Size()));
  return kDone;
}

/// Names by the directory that they are in.
std::map<std::string, std::vector<std::string>> ByFolder(const Context& context) {
  std::map<std::string, std::vector<std::string>> folders;
  for (const std::string& word : context.values.List("SRC")) {
    const std::string path = context.Path(word);
    const std::string name = pnl_file::Name(path);
    RequirePathComponent(name, "SRC");
    RequirePlain(path, "SRC");
    if (!pnl_file::Info(path, true).Exists()) throw pnl_err::System("read", path, ENOENT);
    const std::string folder = pnl_file::Folder(path);
    // From "./" on no name is an option of tar.
    folders[folder.empty() ? "/" : folder].push_back("./" + name);
  }
  return folders;
}

int Tree(Context& context) {
  const std::string dest = NodePath(context, "dest");
  RequirePlain(dest, "--dest");
  const auto folders = ByFolder(context);
  pnl_rpc::SSH ssh = OpenNode(context);
  MakeNodeDir(ssh, dest);
  for (const auto& [folder, names] : folders) {
    OnNodeFile(ssh, dest, "filled", [&, &from = folder, &what = names] {
      ssh_utils::CopyViaTar(what, from, ssh, dest, context.values.Has("gzip") ? "z" : "");
    });
  }
  context.out.One(Record().Add("path", dest).Add("sources", context.values.List("SRC")));
  return kDone;
}

/// What rsync is told: it starts an ssh client of its own.
struct SyncPlan {
  std::string source;
  std::string dest;
  std::string node;
  std::string key;
  std::string known_hosts;
  std::vector<std::string> names;
};

SyncPlan PlanSync(const Context& context) {
  const pnl_rpc::SshOptions options = NodeOptions(context);
  const opts::Values& values = context.values;
  if (options.key_file.empty())
    throw UsageError("--key", "", "--key is missing: sync logs in with a key file only");
  if (options.user != "root")
    throw UsageError("--node", options.user,
                     "sync logs in as root only, not '" + options.user + "'");
  if (options.port != 22 && !values.Has("port")) {
    throw UsageError("--node", values.Str("node"),
                     "sync through another port is asked for by --port, since the host key is not "
                     "checked then");
  }
  SyncPlan plan{
      context.Path(values.Str("SRC")),
      NodePath(context, "dest"),
      options.host.find(':') == std::string::npos ? options.host : "[" + options.host + "]",
      options.key_file,
      options.known_hosts,
      values.List("NAME")};
  if (plan.known_hosts.empty()) plan.known_hosts = "~/.ssh/known_hosts";
  if (plan.names.empty()) plan.names = {"."};
  RequirePlain(options.host, "--node");
  RequirePlain(plan.source, "SRC");
  RequirePlain(plan.dest, "--dest");
  RequirePlain(plan.key, "--key");
  if (!options.known_hosts.empty()) RequirePlain(plan.known_hosts, "--known-hosts");
  return plan;
}

int RunSync(const Context& context, const SyncPlan& plan) {
  if (context.values.Has("port")) {
    return ssh_utils::CopyViaRsyncBmx(plan.source, plan.names, plan.node, plan.key, plan.dest,
                                      plan.known_hosts,
                                      static_cast<int>(context.values.Int("port")));
  }
  return ssh_utils::CopyViaRsync(plan.source, plan.names, plan.node, plan.key, plan.dest,
                                 plan.known_hosts, context.values.Str("options"));
}

int Sync(Context& context) {
  const SyncPlan plan = PlanSync(context);
  if (!pnl_file::IsDir(plan.source)) throw pnl_err::System("read", plan.source, ENOTDIR);
  pnl_rpc::SSH ssh = OpenNode(context);  // says clearly what rsync would only hint at
  MakeNodeDir(ssh, plan.dest);
  pnl_file::MkDir("var");
  const std::string log = ssh_utils::RsyncLog(plan.node);
  if (const int code = RunSync(context, plan); code != 0) {
    throw NodeError(ssh, plan.dest,
                    "rsync ended with exit code " + std::to_string(code) + "; " + log +
                        " and -v show how far it came");
  }
  context.out.One(Record().Add("path", plan.dest).Add("source", plan.source).Add("log", log));
  return kDone;
}

const std::vector<Field> kCopied = {
    {"path", "the file on the node"}, {"local", "the file here"}, {"size", "bytes"}};
const Field kDestField = {"path", "the directory on the node"};

void DescribeChecksum(opts::Args& args) {
  args.Option("checksum").Help("compare the SHA-256 sums of both files at the end");
}

void DescribeGet(opts::Args& args) {
  args.Positional("REMOTE").Help("a file on the node");
  args.Positional("LOCAL")
      .Optional()
      .Help("file or directory here; else its name, here")
      .Completes("files");
  DescribeChecksum(args);
}

void DescribePut(opts::Args& args) {
  args.Positional("LOCAL").Help("a file here").Completes("files");
  args.Positional("REMOTE").Help("file or directory on the node");
  DescribeChecksum(args);
}

void DescribeTree(opts::Args& args) {
  args.Positional("SRC")
      .Repeated()
      .Help("files and directories here; no blanks in their names")
      .Completes("files");
  args.Option("dest").Value("DIR").Required().Help("the directory on the node; made when missing");
  args.Option("gzip").Help("compress on the way");
}

void DescribeSync(opts::Args& args) {
  args.Positional("SRC").Help("a directory here").Completes("dirs");
  args.Positional("NAME").Repeated().Optional().Help("what of it to send; else everything");
  args.Option("dest").Value("DIR").Required().Help("the directory on the node; made when missing");
  args.Option("options").Value("TEXT").Help(
      "further options for rsync, such as --options=--delete");
  args.Option("port")
      .Number("N", 1, 65535)
      .Help("rsync through this port, without a check of the host key")
      .Excludes("options");
}

}  // namespace

std::vector<Verb> NodeCopies() {
  return {
      {
          .name = "get",
          .summary = "Fetches a file; it appears only when whole.",
          .describe = DescribeGet,
          .run = Get,
          .examples = {"/var/log/syslog /tmp/node7.log --node 192.0.2.7"},
          .fields = kCopied,
      },
      {
          .name = "put",
          .summary = "Sends a file; it takes its place only when whole.",
          .describe = DescribePut,
          .run = Put,
          .examples = {"motd /etc/motd --node 192.0.2.7"},
          .fields = kCopied,
      },
      {
          .name = "tree",
          .summary = "Sends files and directories in one stream.",
          .describe = DescribeTree,
          .run = Tree,
          .examples = {"site --dest /srv/www --gzip --node 192.0.2.7"},
          .fields = {kDestField, {"sources", "what was sent, as it was named"}},
      },
      {
          .name = "sync",
          .summary = "Sends what differs of a directory.",
          .describe = DescribeSync,
          .run = Sync,
          .examples = {"site --dest /srv/www --node 192.0.2.7 --key etc/panel.key"},
          .fields = {kDestField, {"source", "the directory here"}, {"log", "what rsync did"}},
      },
  };
}

}  // namespace tools
