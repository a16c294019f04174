#include "tools/node_file.h"

#include <exception>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "tools/interrupt.h"
#include "tools/node.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;

pnl_file::Tmp Keep(const std::string& path, const std::string& suffix, const std::string& text) {
  pnl_file::MkDir("var");
  pnl_file::Tmp tmp("var/" + pnl_file::Name(path) + "." + suffix);
  tmp.Write(text);
  tmp.Close();
  return tmp;
}

/// Leaves both files; `reason` is what is known about the node's.
pnl_err::Error Cut(const pnl_rpc::SSH& ssh, const std::string& path, const std::string& reason,
                   pnl_file::Tmp& before, pnl_file::Tmp& after) {
  const std::string old_text = pnl_file::RealPath(before.Release());
  const std::string new_text = pnl_file::RealPath(after.Release());
  return NodeError(ssh, path,
                   "'" + path + "' " + reason + "; the text it had is kept here in '" + old_text +
                       "', the wanted one in '" + new_text + "'")
      .add_param("before", old_text)
      .add_param("after", new_text);
}

}  // namespace

void RequireThere(pnl_rpc::SSH& ssh, const std::string& path) {
  if (file::Exists(ssh, path, "e")) return;
  throw pnl_err::Missed("file", path)
      .add_param("message", ssh.Host() + ": there is no '" + path + "'");
}

std::string NodeText(pnl_rpc::SSH& ssh, const std::string& path) {
  std::string text;
  if (file::Exists(ssh, path, "e"))
    OnNodeFile(ssh, path, "read", [&] { text = file::Read(ssh, path); });
  return text;
}

void OverwriteNodeFile(pnl_rpc::SSH& ssh, const std::string& path, const std::string& before,
                       const std::string& after, const std::function<void()>& write) {
  pnl_file::Tmp kept_before = Keep(path, "before", before);
  pnl_file::Tmp kept_after = Keep(path, "after", after);
  const NotedInterruption interruption;
  std::exception_ptr thrown;
  try {
    write();
  } catch (const pnl_err::Error&) {
    thrown = std::current_exception();
  }
  std::string now;
  try {
    now = NodeText(ssh, path);
  } catch (const pnl_err::Error& error) {
    throw Cut(ssh, path, "may be cut: it could not be read back (" + error.type() + ")",
              kept_before, kept_after);
  }
  if (now != before && now != after)
    throw Cut(ssh, path, "is neither as it was nor as wanted", kept_before, kept_after);
  if (thrown) std::rethrow_exception(thrown);
  if (now != after) {
    throw NodeError(
        ssh, path,
        "'" + path + "' could not be written and stays as it was; -v shows what the node answered");
  }
}

}  // namespace tools
