#include <cerrno>
#include <map>

#include "tools/commands/catalogue.h"
#include "tools/commands/node/node.h"

namespace tools {

/// The names by their directory.
static std::map<std::string, std::vector<std::string>> ByFolder(const Context& context) {
  std::map<std::string, std::vector<std::string>> folders;
  for (const std::string& word : context.values.List("SRC")) {
    const std::string path = context.Path(word);
    const std::string name = pnl_file::Name(path);
    RequirePathComponent(name, "SRC");
    RequirePlain(path, "SRC");
    if (!pnl_file::Info(path, true).Exists()) throw pnl_err::System("read", path, ENOENT);
    const std::string folder = pnl_file::Folder(path);
    // A name that begins with "./" is never an option of tar.
    folders[folder.empty() ? "/" : folder].push_back("./" + name);
  }
  return folders;
}

static Change Tree(Context& context) {
  const std::string dest = NodePath(context, "dest");
  RequirePlain(dest, "--dest");
  const auto folders = ByFolder(context);
  const char* flags = context.values.Has("gzip") ? "z" : "";
  pnl_rpc::SSH ssh = OpenNode(context);
  Change change = ActChange(ssh.Host(), MakeDirCommand(dest), [=, &context]() mutable -> Answer {
    MakeNodeDir(ssh, dest);
    for (const auto& [folder, names] : folders) {
      OnNodeFile(ssh, dest, "filled", [&, &from = folder, &what = names] {
        ssh_utils::CopyViaTar(what, from, ssh, dest, flags);
      });
    }
    return Record().Add("path", dest).Add("sources", context.values.List("SRC"));
  });
  for (const auto& [folder, names] : folders)
    change.plan.push_back(
        {.node = ssh.Host(), .words = ssh_utils::TarCommand(names, folder, dest, flags)});
  return change;
}

static void DescribeTree(opts::Args& args) {
  args.Positional("SRC")
      .Repeated()
      .Help("files and directories on this host, without blanks in their names")
      .Completes("files");
  args.Option("dest").Value("DIR").Required().Help("the directory on the node; made if missing");
  args.Option("gzip").Help("compress the stream");
}

Verb NodeTreeVerb() {
  return {.name = "tree",
          .summary = "Sends files and directories in one stream.",
          .describe = DescribeTree,
          .change = Tree,
          .examples = {"site --dest /srv/www --gzip --node 192.0.2.7"},
          .fields = {kDestField, {"sources", "the words SRC"}}};
}

}  // namespace tools
