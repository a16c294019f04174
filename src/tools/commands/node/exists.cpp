#include "tools/commands/node/node.h"

namespace tools {

static Question Exists(Context& context) {
  const std::string path = NodePath(context, "PATH");
  // A "/" at its end asks for a directory.
  return [path, word = context.values.Str("PATH"),
          type = context.values.Str("type")](pnl_host::Host& host) {
    pnl_rpc::SSH ssh = *host.Session();
    const bool exists = ssh_utils::file::Exists(ssh, word, type);
    Answer answer = Record().Add("path", path).Add("exists", exists);
    answer.text = exists ? "true\n" : "false\n";
    answer.code = exists ? kDone : kNo;
    return answer;
  };
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
          .ask = Exists,
          .examples = {"/etc/motd --type f --node 192.0.2.7"},
          .fields = {kPathField, {"exists", "whether it exists and is of that type"}}};
}

}  // namespace tools
