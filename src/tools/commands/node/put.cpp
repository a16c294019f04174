#include <cerrno>

#include "pnl/file.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

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

void DescribePut(opts::Args& args) {
  args.Positional("LOCAL").Help("a file here").Completes("files");
  args.Positional("REMOTE").Help("file or directory on the node");
  DescribeChecksum(args);
}

}  // namespace

Verb NodePutVerb() {
  return {
      .name = "put",
      .summary = "Sends a file; it takes its place only when whole.",
      .describe = DescribePut,
      .run = Put,
      .examples = {"motd /etc/motd --node 192.0.2.7"},
      .fields = CopiedFields(),
  };
}

}  // namespace tools
