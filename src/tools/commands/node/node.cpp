#include "tools/commands/node/node.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "pnl/cksum.h"

namespace tools {

Change ActChange(const std::string& node, const std::string& words, std::function<Answer()> work) {
  return {{{.node = node, .words = words}}, std::move(work)};
}

// --- New content

constexpr std::uint64_t kKept = std::uint64_t{1} << 20;  // larger content is read when it is sent
constexpr std::size_t kBlock = 65536;

NewContent::NewContent(const std::string& path) : source_(path) {
  const pnl_file::Info info(path);
  if (!info.IsFile())
    throw pnl_err::System("read", path, !info.Exists() ? ENOENT : (info.IsDir() ? EISDIR : EINVAL));
  const pnl_file::OpenFile file = pnl_file::OpenRegular(path);
  pnl_file::Cksum sum;
  std::string text;
  char block[kBlock];
  while (const std::size_t n = pnl_file::ReadSome(file.fd.Get(), block, sizeof block, path)) {
    sum.Add({block, n});
    if (sum.Size() <= kKept) text.append(block, n);
  }
  size_ = sum.Size();
  sum_ = sum.Sum();
  if (size_ <= kKept) text_ = std::make_shared<const std::string>(std::move(text));
}

NewContent NewContent::StandardInput() {
  const auto tmp = std::make_shared<const pnl_file::Tmp>("/tmp/brefirctl");
  const pnl_file::Fd file = pnl_file::Open(*tmp, O_RDWR);
  char block[kBlock];
  while (const std::size_t n =
             pnl_file::ReadSome(STDIN_FILENO, block, sizeof block, "standard input"))
    pnl_file::WriteAll(file.Get(), {block, n}, tmp->Str());
  NewContent content(tmp->Str());
  content.tmp_ = tmp;
  return content;
}

void NewContent::Write(fleet::Draft& draft, const std::string& path) const {
  if (text_) return draft.Write(path, text_, {});
  draft.WriteFrom(path, source_, size_, sum_, {});
}

// --- Paths

HostEdit FromTo(Context& context, TwoPaths edit) {
  const std::string from = MovablePath(context, "FROM");
  const std::string to = NodePath(context, "TO");
  const std::string inside = pnl_file::ConcatPath(to, pnl_file::Name(from));
  return {.look =
              [=](fleet::Looks& looks) {
                for (const std::string& path : {from, to, inside}) {
                  looks.files.insert(path);
                  looks.entries.insert(path);
                }
              },
          .make = [=, from_word = context.values.Str("FROM"),
                   to_word = context.values.Str("TO")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, from_word, "FROM");
            RequireMeant(draft, to_word, "TO");
            const bool in = draft.File(to).kind == fleet::PathKind::kDirectory;
            (draft.*edit)(from, in ? inside : to);
            return Record().Add("path", in ? inside : to).Add("from", from);
          }};
}

void RequireMeant(const fleet::Draft& draft, const std::string& word, const std::string& name) {
  if (!word.ends_with('/')) return;
  std::string path = word;
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  if (draft.File(path).kind != fleet::PathKind::kDirectory) RequireNoSlash(draft, word, name);
}

void RequireNoSlash(const fleet::Draft& draft, const std::string& word, const std::string& name) {
  if (!word.ends_with('/') || word == "/") return;
  draft.Absent(word, "there is no directory '" + word + "'; if " + name +
                         " is a file, remove the \"/\" at its end");
}

// --- Sums

void CompareSums(pnl_host::Host& host, const std::string& remote, const std::string& local) {
  std::string sum;
  OnHostFile(host, remote, "remote_read", "summed", [&] { sum = host.Sha256(remote); });
  if (sum == pnl_host::Host().Sha256(local)) return;
  throw pnl_err::Error("checksum", host.Name(), remote)
      .add_param("message", host.Name() + ": '" + remote + "' and '" + local +
                                "' differ: one of them was changed meanwhile; copy it again");
}

void DescribePath(opts::Args& args) {
  args.Positional("PATH").Help("an absolute path on the node");
}

void DescribeFromTo(opts::Args& args) {
  args.Positional("FROM").Help("an existing path on the node");
  args.Positional("TO").Help("a file or directory on the node");
  AddSecretOption(args);
}

void DescribePid(opts::Args& args) {
  args.Positional("PID").Number("PID", 1, 1 << 22).Help("a process of the node");
}

void DescribeChecksum(opts::Args& args) {
  args.Option("checksum").Help("compare the SHA-256 sums of both files at the end");
}

int Pid(const Context& context) {
  return static_cast<int>(context.values.Int("PID"));
}

}  // namespace tools
