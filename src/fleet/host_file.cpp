#include "fleet/host_file.h"

#include "brefir/ssh_utils.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {

using pnl_host::Host;

pnl_err::Missed NoSuchFile(const Host& host, const std::string& path) {
  pnl_err::Missed error("file", path);
  error.add_param("message", host.Name() + ": there is no '" + path + "'");
  return error;
}

void RequireThere(pnl_rpc::SSH& ssh, const std::string& path) {
  if (!ssh_utils::file::Exists(ssh, path, "e")) throw NoSuchFile(Host(ssh), path);
}

pnl_host::Content HostContent(Host& host, const std::string& path) {
  pnl_host::Content text;
  OnHostFile(host, path, "remote_read", "read", [&] { text = host.Read(path); });
  return text;
}

std::string HostText(Host& host, const std::string& path) {
  pnl_host::Content text = HostContent(host, path);
  if (!text) throw NoSuchFile(host, path);
  return *std::move(text);
}

void OnHostFile(const Host& host, const std::string& path, const char* type, const char* done,
                const std::function<void()>& work) {
  try {
    work();
  } catch (const pnl_err::Missed&) {
    throw NoSuchFile(host, path);
  } catch (const pnl_err::Error& error) {
    if (error.object() != host.Name() || pnl_rpc::SessionFailed(error)) throw;
    const bool conflict = error.type() == pnl_host::kConflict;
    const std::string reason =
        conflict ? "another program has changed it meanwhile" : error.param("reason");
    throw pnl_err::Error(conflict ? "conflict" : type, host.Name(), path)
        .add_param("message", host.Name() + ": '" + path + "' could not be " + done + ": " +
                                  str::Replace(reason, "\n", "; "));
  }
}

std::string Said(const pnl_host::Outcome& run) {
  if (run.complaint.empty()) return "exit code " + std::to_string(run.code);
  return str::Replace(run.complaint, "\n", "; ");
}

void RunOnFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* type, const char* done,
               const std::string& command) {
  const pnl_host::Outcome run = Host(ssh).Run(command);
  if (run.code == 0) return;
  throw pnl_err::Error(type, ssh.Host(), path)
      .add_param("message",
                 ssh.Host() + ": '" + path + "' could not be " + done + ": " + Said(run));
}

std::string MakeDirCommand(const std::string& path) {
  return "mkdir -p " + pnl_proc::Escape(path);
}

void MakeNodeDir(const pnl_rpc::SSH& ssh, const std::string& path) {
  RunOnFile(ssh, path, "remote_mkdir", "made", MakeDirCommand(path));
}

void ReplaceText(Host& host, const std::string& path, const std::string& text,
                 const pnl_host::Content& before) {
  OnHostFile(host, path, "remote_write", "written",
             [&] { host.Replace(path, text, {.before = before}); });
}

std::string WithSbin(const std::string& command) {
  return "env \"PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin\" " + command;
}

}  // namespace fleet
