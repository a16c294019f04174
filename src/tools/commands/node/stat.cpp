#include "brefir/ssh_utils.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;

const char* TypeName(int type) {
  if (type == 0) return "file";
  return type == 1 ? "directory" : "other";
}

int Stat(Context& context) {
  const std::string path = NodePath(context, "PATH");
  RequirePlain(path, "PATH");  // one of the questions to the node leaves it unquoted
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  const file::FileInfo info = file::GetInfo(ssh, path);
  const auto known = [&](const auto& value) { return info.exists ? Value(value) : Value(); };
  context.out.One(Record()
                      .Add("path", info.path)
                      .Add("size", known(info.size))
                      .Add("type", known(TypeName(info.type)))
                      .Add("exists", info.exists)
                      .Add("atime", known(info.atime.Str()))
                      .Add("mtime", known(info.mtime.Str()))
                      .Add("ctime", known(info.ctime.Str())));
  return kDone;
}

}  // namespace

Verb NodeStatVerb() {
  return {
      .name = "stat",
      .summary = "Tells size, type and times of a file.",
      .describe = DescribePath,
      .run = Stat,
      .examples = {"/etc/motd --node 192.0.2.7"},
      .fields = {kPathField,
                 {"size", "bytes; null like all that follows but exists when there is none"},
                 {"type", "file, directory or other"},
                 {"exists", "whether it is there"},
                 {"atime", "last access: YYYY-MM-DD HH:MM:SS, UTC"},
                 {"mtime", "last change of the content"},
                 {"ctime", "last change of owner, mode or content"}},
  };
}

}  // namespace tools
