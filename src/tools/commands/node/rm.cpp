#include "console/interrupt.h"
#include "pnl/job.h"
#include "tools/commands/node/node.h"

namespace tools {

/// Moves `path` aside, as a job of this thread's transaction.
static void MoveAside(pnl_rpc::SSH& ssh, const std::string& path) {
  RequireThere(ssh, path);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new ssh_utils::file::RemoveFileJob(ssh, path);
  if (ssh_utils::file::Exists(ssh, path, "e"))
    throw NodeError(ssh, path,
                    "'" + path + "' could not be renamed; it is unchanged, and -v shows why");
}

static pnl_err::Error Undone(pnl_rpc::SSH& ssh, const std::string& path, const std::string& why) {
  bool back = false;
  try {
    back = ssh_utils::file::Exists(ssh, path, "e");
  } catch (const pnl_err::Error&) {
    back = false;  // the connection is lost: nothing was restored
  }
  return NodeError(ssh, path,
                   why + (back ? "; '" + path + "' is restored"
                               : "; '" + path + "' could NOT be restored: it is on the node as '" +
                                     path + ".NUMBER'"));
}

static void RemoveUnlessFailing(pnl_rpc::SSH& ssh, const std::string& path,
                                const std::string& command) {
  const console::NotedInterruption interruption;
  pnl_job::Transaction transaction;
  MoveAside(ssh, path);
  const int code = interruption.Happened() ? 0 : interruption.Run(command);
  if (code != 0 || interruption.Happened()) {
    pnl_job::Rollback();
    throw Undone(ssh, path,
                 interruption.Happened()
                     ? "interrupted"
                     : "command '" + command + "' ended with exit code " + std::to_string(code));
  }
  transaction.Commit();
}

static Change Remove(Context& context) {
  const std::string path = MovablePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  if (!context.values.Has("recursive") && ssh_utils::file::Exists(ssh, path, "d")) {
    throw NodeError(ssh, path,
                    "'" + path + "' is a directory; --recursive removes it with all its content");
  }
  const Record record = Record().Add("path", path).Add("removed", true);
  Change change = CommandChange({.ssh = ssh,
                                 .path = path,
                                 .type = "remote_rm",
                                 .done = "removed",
                                 .command = "rm -rf " + pnl_proc::Escape(path)},
                                record);
  // ls(1) also finds dangling links.
  if (pnl_host::Host(ssh).Run("ls -d " + pnl_proc::Escape(path)).code != 0) change.plan.clear();
  if (context.values.Has("undo-on-failure")) {
    change.make = [=, command = context.values.Str("undo-on-failure")]() mutable -> Answer {
      RemoveUnlessFailing(ssh, path, command);
      return record;
    };
  }
  return change;
}

static void DescribeRemove(opts::Args& args) {
  DescribePath(args);
  args.Option("recursive").Help("remove a directory with all its content");
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command here before the removal is final; undo the removal if it fails")
      .Excludes("dry-run")
      .Excludes("check");
}

Verb NodeRmVerb() {
  return {.name = "rm",
          .summary = "Removes a file or directory; --undo-on-failure can undo it.",
          .describe = DescribeRemove,
          .change = Remove,
          .checks = true,
          .examples = {"/srv/www/old --recursive --node 192.0.2.7 --dry-run",
                       "/etc/motd --undo-on-failure ./check --node 192.0.2.7"},
          .fields = {kPathField, {"removed", "true"}}};
}

}  // namespace tools
