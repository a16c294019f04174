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

Verb NodeReadVerb() {
  return {
      .name = "read",
      .summary = "Prints a file.",
      .describe = DescribePath,
      .run = Read,
      .examples = {"/etc/hostname --node 192.0.2.7", "/etc/hosts --node root@[2001:db8::7]:2222"},
      .fields = {{"content", "the text of the file; bytes that are not UTF-8 become U+FFFD"}}};
}

}  // namespace tools
