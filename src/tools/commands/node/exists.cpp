#include "tools/commands/node/node.h"

namespace tools {

static int Exists(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context);
  // With a "/" at its end the path must be a directory.
  const bool exists =
      ssh_utils::file::Exists(ssh, context.values.Str("PATH"), context.values.Str("type"));
  context.out.Truth(Record().Add("path", path).Add("exists", exists), "exists");
  return exists ? kDone : kNo;
}

static void DescribeExists(opts::Args& args) {
  DescribePath(args);
  args.Option("type")
      .OneOf({"f", "d", "e", "s", "p"})
      .Default("e")
      .Help("e: anything; f: regular file; d: directory; s: file that is not empty; p: named pipe");
}

Verb NodeExistsVerb() {
  return {.name = "exists",
          .summary = "Checks whether a file exists; exit code 3 for no.",
          .describe = DescribeExists,
          .run = Exists,
          .examples = {"/etc/motd --type f --node 192.0.2.7"},
          .fields = {kPathField, {"exists", "whether it exists and is of that type"}}};
}

}  // namespace tools
