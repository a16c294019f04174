#include "tools/commands/node/node.h"

namespace tools {
namespace {

using ssh_utils::file::FileInfo;

const char* TypeName(int type) {
  if (type == 0) return "file";
  return type == 1 ? "directory" : "other";
}

/// Fields of an existing file only.
template <class Get>
FieldOf<FileInfo> IfThere(const char* name, const char* meaning, const Get& get) {
  return {{name, meaning}, [=](const FileInfo& info) {
            return info.exists ? Value(std::invoke(get, info)) : Value();
          }};
}

const FieldTable<FileInfo>& StatFields() {
  static const auto* const fields = new FieldTable<FileInfo>{
      {kPathField, &FileInfo::path},
      IfThere("size", "bytes; null if it does not exist, like all fields except path and exists",
              &FileInfo::size),
      IfThere("type", "file, directory or other",
              [](const FileInfo& info) { return TypeName(info.type); }),
      {{"exists", "whether it exists"}, &FileInfo::exists},
      IfThere("atime", "last access", &FileInfo::atime),
      IfThere("mtime", "last change of the content", &FileInfo::mtime),
      IfThere("ctime", "last change of owner, mode or content", &FileInfo::ctime)};
  return *fields;
}

Question Stat(Context& context) {
  const std::string path = NodePath(context, "PATH");
  RequirePlain(path, "PATH");  // one of the library's commands has it unquoted
  return [path, &context](pnl_host::Host& host) -> Answer {
    pnl_rpc::SSH ssh = *host.Session();
    RequireMeant(context, ssh, "PATH");
    return ToRecord(StatFields(), ssh_utils::file::GetInfo(ssh, path));
  };
}

}  // namespace

Verb NodeStatVerb() {
  return {.name = "stat",
          .summary = "Shows size, type and times of a file.",
          .describe = DescribePath,
          .ask = Stat,
          .examples = {"/etc/motd --node 192.0.2.7"},
          .fields = Declared(StatFields())};
}

}  // namespace tools
