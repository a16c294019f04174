#include "tools/commands/node/node.h"

namespace tools {

static HostEdit Put(Context& context) {
  const std::string local = context.Path(context.values.Str("LOCAL"));
  const std::string remote = NodePath(context, "REMOTE");
  const std::string inside = pnl_file::ConcatPath(remote, pnl_file::Name(local));
  const bool compares = context.values.Has("checksum");
  const auto content = std::make_shared<const NewContent>(local);
  return {.look =
              [=](fleet::Looks& looks) {
                looks.files.insert({remote, inside});
              },
          .make = [=, word = context.values.Str("REMOTE")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, word, "REMOTE");
            const bool in = draft.File(remote).kind == fleet::PathKind::kDirectory;
            const std::string path = in ? inside : remote;
            content->Write(draft, path);
            if (compares)
              draft.Verify([=](pnl_host::Host& host) { CompareSums(host, path, local); });
            return Record().Add("path", path).Add("local", local).Add("size", content->Size());
          }};
}

static void DescribePut(opts::Args& args) {
  args.Positional("LOCAL").Help("a file on this host").Completes("files");
  args.Positional("REMOTE").Help("a file or directory on the node");
  DescribeChecksum(args);
  AddSecretOption(args);
}

Verb NodePutVerb() {
  return {.name = "put",
          .summary = "Sends a file; the node's file is replaced only when the new one is complete.",
          .describe = DescribePut,
          .edit = Put,
          .examples = {"motd /etc/motd --node 192.0.2.7"},
          .fields = kCopiedFields};
}

}  // namespace tools
