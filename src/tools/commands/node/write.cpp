#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/commands/node/node.h"

namespace tools {

/// Reads all of standard input into a file without a name: the node is not changed before that.
static NewContent StandardInput(const Context& context) {
  if (isatty(STDIN_FILENO) != 0 && !context.values.Has("quiet"))
    std::fputs("brefirctl: reading the content from the terminal; Ctrl-D ends it\n", stderr);
  const pnl_file::Tmp name("/tmp/brefirctl");
  pnl_file::Fd file = pnl_file::Open(name, O_RDWR);
  char block[65536];
  std::uint64_t size = 0;
  while (const std::size_t n =
             pnl_file::ReadSome(STDIN_FILENO, block, sizeof block, "standard input")) {
    pnl_file::WriteAll(file.Get(), {block, n}, name.Str());
    size += n;
  }
  if (lseek(file.Get(), 0, SEEK_SET) != 0) throw pnl_err::System("seek", name.Str(), errno);
  return {std::move(file), "standard input", size};
}

static NewContent Given(const Context& context) {
  const std::string& from = context.values.Str("from");
  if (from.empty() || from == "-") return StandardInput(context);
  pnl_file::OpenFile file = pnl_file::OpenRegular(context.Path(from));
  return {std::move(file.fd), from, file.info.Size()};
}

static Change Write(Context& context) {
  const std::string path = NodePath(context, "PATH");
  NewContent content = Given(context);
  return ContentChange(context, pnl_host::Host(OpenNode(context, {"PATH"})), path,
                       std::move(content), Record().Add("path", path));
}

static void DescribeWrite(opts::Args& args) {
  DescribePath(args);
  args.Option("from").Value("FILE").Help("the file with the new content; default: standard input");
}

Verb NodeWriteVerb() {
  return {.name = "write",
          .summary = "Writes a file, or replaces its content.",
          .describe = DescribeWrite,
          .change = Write,
          .checks = true,
          .examples = {"/etc/motd --from motd --node 192.0.2.7 --dry-run"},
          .fields = {kPathField, {"size", "bytes of the new content"}}};
}

}  // namespace tools
