#include "tools/node_copies.h"

#include <cerrno>
#include <map>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "tools/catalogue.h"
#include "tools/interrupt.h"
#include "tools/node.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;

/// The copies themselves do not look at how the other side ended: what arrived is the proof.
void RequireWhole(const pnl_rpc::SSH& ssh, const std::string& path, std::int64_t arrived,
                  std::int64_t wanted, const std::string& rest) {
  if (arrived == wanted) return;
  throw NodeError(ssh, path,
                  "the copy of '" + path + "' is not whole: " + std::to_string(arrived) + " of " +
                      std::to_string(wanted) + " bytes arrived; " + rest);
}

std::int64_t LocalSize(const std::string& path) {
  return static_cast<std::int64_t>(pnl_file::Info(path).Size());
}

/// Where `get` puts a file: an existing directory takes its name, a link leads to its target.
std::string LocalTarget(const Context& context, const std::string& name) {
  const std::string& word = context.values.Str("LOCAL");
  std::string path = context.Path(word.empty() ? name : word);
  if (pnl_file::IsDir(path)) path = pnl_file::ConcatPath(path, name);
  const std::string real = pnl_file::RealPath(path);
  return real.empty() ? path : real;
}

int Get(Context& context) {
  const std::string remote = MovablePath(context, "REMOTE");
  const std::string local = LocalTarget(context, pnl_file::Name(remote));
  pnl_rpc::SSH ssh = OpenNode(context);
  if (!file::Exists(ssh, remote, "f"))
    throw NodeError(ssh, remote, "there is no regular file '" + remote + "'");
  pnl_file::Tmp tmp(local);
  const RemovedWhenInterrupted guard(tmp);
  tmp.Close();  // the copy writes it by its name
  file::CopyFrom(ssh, remote, tmp);
  const std::int64_t size = file::Size(ssh, remote);
  RequireWhole(ssh, remote, LocalSize(tmp), size, "'" + local + "' stays as it was");
  tmp.CopyAttrs(local);
  tmp.Replace(local);
  context.out.One(Record().Add("path", remote).Add("local", local).Add("size", size));
  return kDone;
}

int Put(Context& context) {
  const std::string local = context.Path(context.values.Str("LOCAL"));
  std::string remote = NodePath(context, "REMOTE");
  const pnl_file::Info info(local);
  if (!info.Exists()) throw pnl_err::System("read", local, ENOENT);
  if (!info.IsFile()) throw pnl_err::System("read", local, info.IsDir() ? EISDIR : EINVAL);
  pnl_rpc::SSH ssh = OpenNode(context);
  if (file::Exists(ssh, remote, "d")) remote = pnl_file::ConcatPath(remote, pnl_file::Name(local));
  file::CopyTo(local, ssh, remote);
  const bool there = file::Exists(ssh, remote, "f");
  RequireWhole(ssh, remote, there ? file::Size(ssh, remote) : 0, LocalSize(local),
               there ? "what is there on the node is not to be used" : "the node has no such file");
  if (!there) throw NodeError(ssh, remote, "'" + remote + "' could not be made on the node");
  context.out.One(Record().Add("path", remote).Add("local", local).Add("size", LocalSize(local)));
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
  OnNodeFile(ssh, dest, "made", [&] { file::MkDir(ssh, dest); });
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
  OnNodeFile(ssh, plan.dest, "made", [&] { file::MkDir(ssh, plan.dest); });
  pnl_file::MkDir("var");
  const std::string log = "var/rsync-node-" + plan.node + ".log";
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

void DescribeGet(opts::Args& args) {
  args.Positional("REMOTE").Help("a file on the node");
  args.Positional("LOCAL")
      .Optional()
      .Help("file or directory here; else its name, here")
      .Completes("files");
}

void DescribePut(opts::Args& args) {
  args.Positional("LOCAL").Help("a file here").Completes("files");
  args.Positional("REMOTE").Help("file or directory on the node");
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

std::vector<Command> NodeCopies() {
  return {
      {"get",
       "Fetches a file; it appears only when whole.",
       DescribeGet,
       Get,
       {"/var/log/syslog /tmp/node7.log --node 192.0.2.7"},
       kCopied},
      {"put", "Sends a file.", DescribePut, Put, {"motd /etc/motd --node 192.0.2.7"}, kCopied},
      {"tree",
       "Sends files and directories in one stream.",
       DescribeTree,
       Tree,
       {"site --dest /srv/www --gzip --node 192.0.2.7"},
       {kDestField, {"sources", "what was sent, as it was named"}}},
      {"sync",
       "Sends what differs of a directory.",
       DescribeSync,
       Sync,
       {"site --dest /srv/www --node 192.0.2.7 --key etc/panel.key"},
       {kDestField, {"source", "the directory here"}, {"log", "what rsync did"}}},
  };
}

}  // namespace tools
