#include <cerrno>
#include <map>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

/// Names by the directory that they are in.
std::map<std::string, std::vector<std::string>> ByFolder(const Context& context) {
  std::map<std::string, std::vector<std::string>> folders;
  for (const std::string& word : context.values.List("SRC")) {
    const std::string path = context.Path(word);
    const std::string name = pnl_file::Name(path);
    RequirePathComponent(name, "SRC");
    RequirePlain(path, "SRC");
    if (!pnl_file::Info(path, true).Exists()) throw pnl_err::System("read", path, ENOENT);
    const std::string folder = pnl_file::Folder(path);
    // From "./" on no name is an option of tar.
    folders[folder.empty() ? "/" : folder].push_back("./" + name);
  }
  return folders;
}

int Tree(Context& context) {
  const std::string dest = NodePath(context, "dest");
  RequirePlain(dest, "--dest");
  const auto folders = ByFolder(context);
  pnl_rpc::SSH ssh = OpenNode(context);
  MakeNodeDir(ssh, dest);
  for (const auto& [folder, names] : folders) {
    OnNodeFile(ssh, dest, "filled", [&, &from = folder, &what = names] {
      ssh_utils::CopyViaTar(what, from, ssh, dest, context.values.Has("gzip") ? "z" : "");
    });
  }
  context.out.One(Record().Add("path", dest).Add("sources", context.values.List("SRC")));
  return kDone;
}

void DescribeTree(opts::Args& args) {
  args.Positional("SRC")
      .Repeated()
      .Help("files and directories here; no blanks in their names")
      .Completes("files");
  args.Option("dest").Value("DIR").Required().Help("the directory on the node; made when missing");
  args.Option("gzip").Help("compress on the way");
}

}  // namespace

Verb NodeTreeVerb() {
  return {
      .name = "tree",
      .summary = "Sends files and directories in one stream.",
      .describe = DescribeTree,
      .run = Tree,
      .examples = {"site --dest /srv/www --gzip --node 192.0.2.7"},
      .fields = {kDestField, {"sources", "what was sent, as it was named"}},
  };
}

}  // namespace tools
