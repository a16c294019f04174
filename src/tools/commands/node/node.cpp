#include "tools/commands/node/node.h"

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {

Change CommandChange(const NodeCommand& command, const Record& record) {
  const fleet::Step step{.node = command.ssh.Host(),
                         .kind = fleet::StepKind::kCommand,
                         .object = command.path,
                         .words = command.command};
  const auto make = [=]() -> Answer {
    RunOnFile(command.ssh, command.path, command.type, command.done, command.command);
    return record;
  };
  return {{step}, make};
}

NodeTarget::NodeTarget(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to)
    : path(to), word(to) {
  if (!ssh_utils::file::Exists(ssh, to, "d")) return;
  path = pnl_file::ConcatPath(to, pnl_file::Name(from));
  if (!word.ends_with('/')) word += '/';
}

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

void DescribePath(opts::Args& args) {
  args.Positional("PATH").Help("an absolute path on the node");
}

void DescribeFromTo(opts::Args& args) {
  args.Positional("FROM").Help("what is there on the node");
  args.Positional("TO").Help("file or directory on the node");
}

void DescribePid(opts::Args& args) {
  args.Positional("PID").Number("PID", 1, 1 << 22).Help("a process of the node");
}

void DescribeChecksum(opts::Args& args) {
  args.Option("checksum").Help("compare the SHA-256 sums of both files at the end");
}

int Pid(const Context& context) {
  return static_cast<int>(context.values.Int("PID"));
}

std::vector<Field> CopiedFields() {
  return {{"path", "the file on the node"}, {"local", "the file here"}, {"size", "bytes"}};
}

}  // namespace tools
