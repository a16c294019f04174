#include "tools/commands/node/node.h"

namespace tools {

Change ActChange(const std::string& node, const std::string& words, std::function<Answer()> work) {
  return {{{.node = node, .words = words}}, std::move(work)};
}

Change CommandChange(const NodeCommand& command, const Record& record) {
  return ActChange(command.ssh.Host(), command.command, [=]() -> Answer {
    RunOnFile(command.ssh, command.path, command.type, command.done, command.command);
    return record;
  });
}

std::size_t NewContent::Give(char* block, std::size_t room) const {
  return pnl_file::ReadSome(fd.Get(), block, room, name);
}

Change ContentChange(const Context& context, pnl_host::Host host, const std::string& path,
                     NewContent content, Record record, const std::function<void()>& then) {
  fleet::Step step{.node = host.Name(), .kind = fleet::StepKind::kFile, .object = path};
  step.after = "";
  if (context.OnlyPlans()) {
    OnHostFile(host, path, "remote_read", "read", [&] { step.before = host.Read(path); });
    char block[65536];
    while (const std::size_t n = content.Give(block, sizeof block)) step.after->append(block, n);
  }
  record.Add("size", content.size);
  const auto shared = std::make_shared<const NewContent>(std::move(content));
  const auto make = [=]() mutable -> Answer {
    OnHostFile(host, path, "remote_write", "written", [&] {
      host.Replace(path, shared->size,
                   [&](char* block, std::size_t size) { return shared->Give(block, size); });
    });
    then();
    return record;
  };
  return {{step}, make};
}

Change FromTo(Context& context, const std::string& command, const char* done) {
  const std::string from = MovablePath(context, "FROM");
  std::string to = NodePath(context, "TO");
  pnl_rpc::SSH ssh = OpenNode(context, {"FROM", "TO"});
  RequireThere(ssh, from);
  std::string word = to;
  if (ssh_utils::file::Exists(ssh, to, "d")) {
    to = pnl_file::ConcatPath(to, pnl_file::Name(from));
    if (!word.ends_with('/')) word += '/';
  }
  return CommandChange(
      {.ssh = ssh,
       .path = from,
       .type = "node",
       .done = done,
       .command = command + " " + pnl_proc::Escape(from) + " " + pnl_proc::Escape(word)},
      Record().Add("path", to).Add("from", from));
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
  args.Positional("FROM").Help("an existing path on the node");
  args.Positional("TO").Help("a file or directory on the node");
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

}  // namespace tools
