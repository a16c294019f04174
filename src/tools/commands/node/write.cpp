#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/commands/node/node.h"

namespace tools {

static NewContent Given(const Context& context) {
  const std::string& from = context.values.Str("from");
  if (!from.empty() && from != "-") return NewContent(context.Path(from));
  if (context.IsLine())
    throw UsageError("--from", from,
                     "--from FILE is missing: a line of a file has no standard input");
  if (isatty(STDIN_FILENO) != 0 && !context.values.Has("quiet"))
    std::fputs("brefirctl: reading the content from the terminal; Ctrl-D ends it\n", stderr);
  return NewContent::StandardInput();
}

static HostEdit Write(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const auto content = std::make_shared<const NewContent>(Given(context));
  return {.look = [=](fleet::Looks& looks) { looks.files.insert(path); },
          .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, word, "PATH");
            content->Write(draft, path);
            return Record().Add("path", path).Add("size", content->Size());
          }};
}

static void DescribeWrite(opts::Args& args) {
  DescribePath(args);
  args.Option("from").Value("FILE").Help("the file with the new content; default: standard input");
  AddSecretOption(args);
}

Verb NodeWriteVerb() {
  return {.name = "write",
          .summary = "Writes a file, or replaces its content.",
          .describe = DescribeWrite,
          .edit = Write,
          .examples = {"/etc/motd --from motd --node 192.0.2.7 --dry-run"},
          .fields = {kPathField, {"size", "bytes of the new content"}}};
}

}  // namespace tools
