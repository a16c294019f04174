#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "pnl/file.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

/// Standard input, whole, in a file without a name: nothing on the node is touched before all of it
/// has come.
pnl_file::Fd StandardInput(const Context& context) {
  if (isatty(STDIN_FILENO) != 0 && !context.values.Has("quiet"))
    std::fputs("brefirctl: reading the content from the terminal; Ctrl-D ends it\n", stderr);
  const pnl_file::Tmp name("/tmp/brefirctl");
  pnl_file::Fd file = pnl_file::Open(name, O_RDWR);
  char block[65536];
  while (const std::size_t n =
             pnl_file::ReadSome(STDIN_FILENO, block, sizeof block, "standard input"))
    pnl_file::WriteAll(file.Get(), {block, n}, name.Str());
  if (lseek(file.Get(), 0, SEEK_SET) != 0) throw pnl_err::System("seek", name.Str(), errno);
  return file;
}

/// The new content of a file.
class Content {
 public:
  explicit Content(const Context& context) : from_(context.values.Str("from")) {
    const bool input = from_.empty() || from_ == "-";
    fd_ = input ? StandardInput(context) : pnl_file::OpenRegular(context.Path(from_)).fd;
    size_ = pnl_file::Info(fd_, from_).Size();
  }

  std::size_t Give(char* block, std::size_t size) {
    return pnl_file::ReadSome(fd_.Get(), block, size, from_);
  }
  std::uint64_t Size() const { return size_; }  ///< bytes

  std::string All() {
    std::string all;
    char block[65536];
    while (const std::size_t n = Give(block, sizeof block)) all.append(block, n);
    return all;
  }

 private:
  std::string from_;
  pnl_file::Fd fd_;
  std::uint64_t size_ = 0;
};

/// The content is in the plan only where that is what is wanted: it may be larger than memory.
Change Write(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const auto content = std::make_shared<Content>(context);
  pnl_host::Host host(OpenNode(context, {"PATH"}));
  fleet::Step step{.node = host.Name(), .kind = fleet::StepKind::kFile, .object = path};
  if (context.OnlyPlans()) {
    OnHostFile(host, path, "remote_read", "read", [&] { step.before = host.Read(path); });
    step.after = content->All();
  } else {
    step.after = "";
  }
  const auto make = [=]() mutable -> Answer {
    OnHostFile(host, path, "remote_write", "written", [&] {
      host.Replace(path, content->Size(),
                   [&](char* block, std::size_t size) { return content->Give(block, size); });
    });
    return Record().Add("path", path).Add("size", content->Size());
  };
  return {{step}, make};
}

void DescribeWrite(opts::Args& args) {
  DescribePath(args);
  args.Option("from").Value("FILE").Help("the new content; else standard input");
}

}  // namespace

Verb NodeWriteVerb() {
  return {
      .name = "write",
      .summary = "Gives a file new content.",
      .describe = DescribeWrite,
      .change = Write,
      .checks = true,
      .examples = {"/etc/motd --from motd --node 192.0.2.7 --dry-run"},
      .fields = {kPathField, {"size", "bytes of the new content"}},
  };
}

}  // namespace tools
