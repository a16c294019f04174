#include "tools/commands/node/node.h"

namespace tools {

static int Read(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_host::Host host(OpenNode(context, {"PATH"}));
  if (context.out.GetFormat() == Format::kJson) {
    context.out.Text("content", HostText(host, path));
  } else {
    OnHostFile(host, path, "remote_read", "read",
               [&] { host.Read(path, [&](std::string_view block) { context.out.Piece(block); }); });
  }
  return kDone;
}

static Question ReadOf(Context& context) {
  const std::string path = NodePath(context, "PATH");
  return [path, &context](pnl_host::Host& host) {
    pnl_rpc::SSH ssh = *host.Session();
    RequireMeant(context, ssh, "PATH");
    Answer answer = Record().Add("content", HostText(host, path));
    answer.word = "content";
    return answer;
  };
}

Verb NodeReadVerb() {
  return {
      .name = "read",
      .summary = "Prints a file.",
      .describe = DescribePath,
      .run = Read,
      .ask = ReadOf,
      .examples = {"/etc/hostname --node 192.0.2.7", "/etc/hosts --node root@[2001:db8::7]:2222"},
      .fields = {{"content", "the text of the file; bytes that are not UTF-8 become U+FFFD"}}};
}

}  // namespace tools
