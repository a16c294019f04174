#include <cerrno>

#include "tools/commands/node/node.h"

namespace tools {

static Change Put(Context& context) {
  const std::string local = context.Path(context.values.Str("LOCAL"));
  std::string remote = NodePath(context, "REMOTE");
  const pnl_file::Info info(local);
  if (!info.IsFile())
    throw pnl_err::System("read", local,
                          !info.Exists() ? ENOENT : (info.IsDir() ? EISDIR : EINVAL));
  pnl_file::OpenFile file = pnl_file::OpenRegular(local);
  pnl_host::Host host(OpenNode(context, {"REMOTE"}));
  OnHostFile(host, remote, "remote_write", "inspected", [&] {
    if (host.Look(remote).kind == pnl_host::FileKind::kDirectory)
      remote = pnl_file::ConcatPath(remote, pnl_file::Name(local));
  });
  return ContentChange(context, host, remote, {std::move(file.fd), local, file.info.Size()},
                       Record().Add("path", remote).Add("local", local),
                       [=, &context]() mutable { CompareSums(context, host, remote, local); });
}

static void DescribePut(opts::Args& args) {
  args.Positional("LOCAL").Help("a file on this host").Completes("files");
  args.Positional("REMOTE").Help("a file or directory on the node");
  DescribeChecksum(args);
}

Verb NodePutVerb() {
  return {.name = "put",
          .summary = "Sends a file; the node's file is replaced only when the new one is complete.",
          .describe = DescribePut,
          .change = Put,
          .checks = true,
          .examples = {"motd /etc/motd --node 192.0.2.7"},
          .fields = kCopiedFields};
}

}  // namespace tools
