#include "brefir/ssh_utils.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <limits>
#include <utility>

#include "brefir/layout.h"
#include "brefir/str_utils.h"
#include "pnl/client.h"
#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/host.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/progress.h"
#include "pnl/test.h"

namespace ssh_utils {
namespace {

pnl_log::Module log_module("sshutils");

constexpr std::size_t kBlock = 65536;
constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();
constexpr int kTarTimeout = 300;        // seconds; a node may unpack for a long time without output
constexpr int kProcessWaitStep = 1000;  // milliseconds

// Limits for the output of a node, in bytes.
constexpr std::size_t kMaxAnswer = std::size_t{64} << 10;  // of an answer, or of a release file
constexpr std::size_t kMaxReply = std::size_t{64} << 20;   // of the control utility
constexpr std::uint64_t kMaxWorkingCopy = std::uint64_t{64} << 20;  // of a configuration file

// --- Commands

/// Logs exit codes that no caller sees.
int Logged(const std::string& command, int code) {
  if (code != 0) PNL_LOG(log_module, 3, "'%s': exit code %d", command.c_str(), code);
  return code;
}

int Run(pnl_rpc::SSH& ssh, const std::string& command) {
  return pnl_host::Host(ssh).Do(command);
}

std::string Output(pnl_rpc::SSH& ssh, const std::string& command, std::size_t limit = kMaxAnswer) {
  return pnl_host::Host(ssh).Run(command, {}, limit).output;
}

/// Passes the output of a command to `take`; when `take` throws, the rest is not awaited.
template <class Take>
auto Taking(pnl_rpc::SSH& run, const Take& take) {
  try {
    return take();
  } catch (...) {
    run.Abandon();
    throw;
  }
}

/// The remote work of a destructor: exceptions are only logged.
template <class Work>
void Quietly(const std::string& path, const Work& work) noexcept {
  try {
    work();
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "'%s': %s", path.c_str(), error.what());
  }
}

// --- The pump

/// Fills the buffer and returns how many bytes; 0 at the end.
using Source = std::function<std::size_t(char* buffer, std::size_t size)>;
/// False when it accepts no more data.
using Sink = std::function<bool(char* data, std::size_t size)>;

/// Moves `wanted` bytes in blocks. Ends early with false when the sink accepts no more, and with
/// true at the end of the source.
bool Pump(std::uint64_t wanted, const Source& source, const Sink& sink) {
  std::vector<char> block(kBlock);
  while (wanted > 0) {
    const auto limit = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, kBlock));
    const std::size_t size = source(block.data(), limit);
    if (size < kBlock) PNL_TRACE(log_module, "readen %d", static_cast<int>(size));
    if (size == 0) break;
    if (!sink(block.data(), size)) return false;
    wanted -= size;
  }
  return true;
}

Source From(std::istream& in) {
  return [&in](char* buffer, std::size_t size) {
    in.read(buffer, static_cast<std::streamsize>(size));
    return static_cast<std::size_t>(in.gcount());
  };
}

Sink Into(std::ostream& out) {
  return [&out](const char* data, std::size_t size) {
    return static_cast<bool>(out.write(data, static_cast<std::streamsize>(size)));
  };
}

}  // namespace

// --- Files

namespace file {
namespace {

using pnl_proc::Escape;

constexpr const char* kTmpConf = "/tmp/conf";

/// dd's report of blocks is discarded on the node. The login shell need not be a Bourne shell.
std::string Dd(const std::string& operand, const std::string& path) {
  return "/bin/sh -c " + Escape("dd " + operand + "=" + Escape(path) + " 2>/dev/null");
}

int Move(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to) {
  return Run(ssh, "mv -f " + Escape(from) + " " + Escape(to));
}

/// Copies one file with progress reports. True when `total` bytes were copied.
bool PumpFile(const std::string& remote_path, std::uint64_t total, const Source& source,
              const Sink& sink) {
  DownloadWatcher watcher(total);
  std::uint64_t done = 0;
  Pump(total, source, [&](char* data, std::size_t size) {
    watcher.OnGetData(data, size);
    pnl_progress::Report(remote_path, done += size, total);
    return sink(data, size);
  });
  const bool finished = watcher.Finished();
  PNL_TRACE(log_module, "Finished: %d", finished ? 1 : 0);
  return finished;
}

/// CopyFrom with a limit in bytes. True when the local file is complete and the remote file kept
/// its size.
bool Fetch(pnl_rpc::SSH& ssh, const std::string& remote_path, const std::string& local_path,
           std::uint64_t limit = kToTheEnd) {
  const auto total = static_cast<std::uint64_t>(std::max<std::int64_t>(Size(ssh, remote_path), 0));
  if (total > limit) {
    throw pnl_err::Error("remote_read", "file", remote_path)
        .add_param("reason", "it has more than " + std::to_string(limit) + " bytes");
  }
  pnl_file::Fd local = pnl_file::Open(local_path, O_WRONLY | O_CREAT | O_TRUNC);
  const std::string command = Dd("if", remote_path);
  pnl_rpc::SSH run = ssh.Execute(command);
  const bool finished = Taking(run, [&] {
    const bool all =
        PumpFile(remote_path, total, From(run.Out()), [&](const char* data, std::size_t size) {
          pnl_file::WriteAll(local.Get(), {data, size}, local_path);
          return true;
        });
    local.Close(local_path);
    return all;
  });
  // A lost connection looks like the end of the data: here it throws.
  const std::optional<int> code = run.Finish();
  if (!code) PNL_LOG(log_module, 3, "'%s': there is more than was announced", command.c_str());
  return code && Logged(command, *code) == 0 && finished;
}

/// CopyTo. True when the node has read all of it.
bool Send(const std::string& local_path, pnl_rpc::SSH& ssh, const std::string& remote_path) {
  const pnl_file::Info info(local_path);
  // Checked before the remote file is truncated; opening a FIFO would block.
  if (info.Exists() && !info.IsFile()) throw pnl_err::System("read", local_path, EINVAL);
  const pnl_file::Fd local = pnl_file::Open(local_path, O_RDONLY);
  const std::string command = Dd("of", remote_path);
  pnl_rpc::SSH run = ssh.Execute(command);
  const auto source = [&](char* buffer, std::size_t size) {
    return pnl_file::ReadSome(local.Get(), buffer, size, local_path);
  };
  const bool finished = PumpFile(remote_path, info.Size(), source, Into(run.In()));
  return Logged(command, run.Result()) == 0 && finished;
}

/// The local copy of a RemoteFile. For a missing remote file (checked only when no data came) it is
/// only an unpredictable name.
pnl_file::Tmp FetchTmp(pnl_rpc::SSH& ssh, const std::string& remote_path) {
  pnl_file::Tmp local(kTmpConf);
  local.Close();
  if (Fetch(ssh, remote_path, local, kMaxWorkingCopy)) return local;
  if (Exists(ssh, remote_path, "e")) throw pnl_err::Error("remote_read", "file", remote_path);
  return pnl_file::Tmp::Adopt(std::string(kTmpConf) + "." + str::hex::Encode(str::Random(16)));
}

/// Keeps a working copy that could not be written back: it is the only good one.
void Keep(pnl_file::Tmp& copy, const std::string& remote_path, const std::string& why) noexcept {
  PNL_LOG(log_module, 3, "'%s' could not be written back: %s; the text is kept in '%s'",
          remote_path.c_str(), why.c_str(), copy.Str().c_str());
  copy.Release();
}

/// AssertExec, with a limit of its own.
std::string Asserted(pnl_rpc::SSH& ssh, const std::string& command, const std::string& error_type,
                     std::size_t limit) {
  pnl_rpc::SSH run = ssh.Execute(command);
  std::string text = run.Str(limit);
  if (run.Result() != 0) {
    PNL_TRACE(log_module, "'%s': %s", command.c_str(), text.c_str());
    throw pnl_err::Error(error_type);
  }
  return text;
}

std::string FreeBackup(pnl_rpc::SSH& ssh, const std::string& path) {
  std::time_t number = std::time(nullptr);
  while (true) {
    std::string backup = path + "." + str::Str(number++);
    if (!Exists(ssh, backup, "e")) return backup;
  }
}

}  // namespace

void AssertExec(pnl_rpc::SSH& ssh, const std::string& command, const std::string& error_type,
                std::string* output) {
  std::string text = Asserted(ssh, command, error_type, pnl_rpc::kMaxOutput);
  if (output != nullptr) *output = std::move(text);
}

std::string Read(pnl_rpc::SSH& ssh, const std::string& path) {
  return Read(ssh, path, pnl_rpc::kMaxOutput);
}

std::string Read(pnl_rpc::SSH& ssh, const std::string& path, std::size_t limit) {
  return Asserted(ssh, Dd("if", path), "remote_read", limit);
}

void Write(pnl_rpc::SSH& ssh, const std::string& path, const std::string& content) {
  pnl_rpc::SSH run = ssh.Execute(Dd("of", path));
  run.In().write(content.data(), static_cast<std::streamsize>(content.size()));
  run.CloseIn();
  if (run.Result() != 0) throw pnl_err::Error("remote_write");
}

void Read(pnl_rpc::SSH& ssh, const std::string& path,
          const std::function<void(std::string_view)>& take) {
  pnl_rpc::SSH run = ssh.Execute(Dd("if", path));
  Taking(run, [&] {
    return Pump(kToTheEnd, From(run.Out()), [&](const char* data, std::size_t size) {
      take({data, size});
      return true;
    });
  });
  if (run.Result() != 0) throw pnl_err::Error("remote_read");
}

void Write(pnl_rpc::SSH& ssh, const std::string& path,
           const std::function<std::size_t(char* buffer, std::size_t size)>& give) {
  pnl_rpc::SSH run = ssh.Execute(Dd("of", path));
  const bool taken = Pump(kToTheEnd, give, Into(run.In()));
  if (run.Result() != 0 || !taken) throw pnl_err::Error("remote_write");
}

void Touch(pnl_rpc::SSH& ssh, const std::string& path) {
  AssertExec(ssh, "touch " + Escape(path), "remote_touch", nullptr);
}

void MkDir(pnl_rpc::SSH& ssh, const std::string& path) {
  AssertExec(ssh, "mkdir -p " + Escape(path), "remote_mkdir", nullptr);
}

void Remove(pnl_rpc::SSH& ssh, const std::string& path) {
  AssertExec(ssh, "rm -rf " + Escape(path), "remote_rm", nullptr);
}

void MkLink(pnl_rpc::SSH& ssh, const std::string& target, const std::string& link) {
  AssertExec(ssh, "ln -s " + Escape(target) + " " + Escape(link), "remote_ln", nullptr);
}

void Chmod(pnl_rpc::SSH& ssh, const std::string& path, const std::string& mode) {
  // The mode is unquoted: callers add options of chmod ("-R 0600").
  AssertExec(ssh, "chmod " + mode + " " + Escape(path), "remote_chmod", nullptr);
}

std::int64_t Size(pnl_rpc::SSH& ssh, const std::string& path) {
  return str::Int64(Output(ssh, "stat -c '%s' " + Escape(path)));
}

void Rename(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to) {
  Move(ssh, from, to);
}

void Copy(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to) {
  Run(ssh, "cp -f " + Escape(from) + " " + Escape(to));
}

bool Exists(pnl_rpc::SSH& ssh, const std::string& path, std::string type) {
  if (type.empty() || type.find_first_not_of("fdesp") != std::string::npos) type = "e";
  return ssh.Execute("test -" + type + " " + Escape(path)).Result() == 0;
}

FileInfo GetInfo(pnl_rpc::SSH& ssh, const std::string& path) {
  FileInfo info;
  info.path = path;
  info.exists = Exists(ssh, path, "e");
  if (!info.exists) return info;
  info.size = Size(ssh, path);
  if (!Exists(ssh, path, "f")) info.type = Exists(ssh, path, "d") ? 1 : 2;

  // Unquoted: callers use patterns here.
  const std::string command = "stat -c '%X:%Y:%Z' " + path;
  pnl_rpc::SSH run = ssh.Execute(command);
  std::string times = run.Str(kMaxAnswer);
  if (Logged(command, run.Result()) != 0) return info;
  for (pnl_date::DateTime* time : {&info.atime, &info.mtime, &info.ctime}) {
    *time = pnl_date::DateTime(std::time_t{str::Int(str::GetWord(times, ':'))});
  }
  return info;
}

DownloadWatcher::DownloadWatcher(std::uint64_t total) : total_(total) {
  PNL_TRACE(log_module, "writing %llu bytes", static_cast<unsigned long long>(total_));
}

void DownloadWatcher::OnGetData(char* /*data*/, unsigned long size) {
  const std::uint64_t before = received_;
  received_ += size;
  if (total_ == 0) return;
  const std::uint64_t percentage = before * 100 / total_;
  if (percentage % 5 != 0 || percentage == last_percentage_) return;
  PNL_TRACE(log_module, "readen %d%% (%llu of %llu)", static_cast<int>(percentage),
            static_cast<unsigned long long>(received_), static_cast<unsigned long long>(total_));
  last_percentage_ = percentage;
}

bool DownloadWatcher::Finished() {
  return received_ == total_;
}

DownloadWatcher::~DownloadWatcher() = default;

void CopyFrom(pnl_rpc::SSH& ssh, const std::string& remote_path, const std::string& local_path) {
  Fetch(ssh, remote_path, local_path);
}

void CopyTo(const std::string& local_path, pnl_rpc::SSH& ssh, const std::string& remote_path) {
  Send(local_path, ssh, remote_path);
}

TmpFile::TmpFile(pnl_rpc::SSH ssh, const std::string& dir, std::string prefix)
    : ssh_(std::move(ssh)) {
  prefix += ".XXXXXX";
  std::string output;
  AssertExec(ssh_, str::Format("mktemp %s", Escape(pnl_file::ConcatPath(dir, prefix))), "mktemp",
             &output);
  path_ = str::Trim(output);
}

TmpFile::~TmpFile() {
  Quietly(path_, [this] { Run(ssh_, "rm -f " + Escape(path_)); });
}

RemoteFile::RemoteFile(pnl_rpc::SSH& ssh, const std::string& remote_path)
    : ssh_(ssh), remote_path_(remote_path), local_(FetchTmp(ssh_, remote_path_)) {}

RemoteFile::~RemoteFile() {
  try {
    WriteBack();
  } catch (const std::exception&) {  // already logged
  }
}

void RemoteFile::WriteBack() {
  if (std::exchange(done_, true) || !pnl_file::Exists(local_)) return;
  const std::string kept = local_.Str();
  try {
    if (!Send(local_, ssh_, remote_path_))
      throw pnl_err::Error("remote_write", "file", remote_path_);
  } catch (pnl_err::Error& error) {
    Keep(local_, remote_path_, error.what());
    throw error.add_param("kept", kept);
  } catch (const std::exception& error) {
    Keep(local_, remote_path_, error.what());
    throw;
  }
}

RemoveFileJob::RemoveFileJob(pnl_rpc::SSH& ssh, const std::string& path)
    : ssh_(ssh), path_(path), backup_(FreeBackup(ssh_, path_)) {
  // Otherwise a rollback would take the file itself for a new file and remove it.
  if (Move(ssh_, path_, backup_) != 0 && Exists(ssh_, path_, "e")) backup_.clear();
}

RemoveFileJob::~RemoveFileJob() = default;

void RemoveFileJob::onCommit() {
  if (!backup_.empty()) Remove(ssh_, backup_);
}

void RemoveFileJob::onRollback() {
  if (backup_.empty()) return;
  if (Exists(ssh_, path_, "e")) Remove(ssh_, path_);
  Rename(ssh_, backup_, path_);
}

}  // namespace file

// --- Operating system

namespace os_info {
namespace {

constexpr const char* kRedHatRelease = "/etc/redhat-release";
constexpr const char* kDebianVersion = "/etc/debian_version";
constexpr const char* kLsbRelease = "/etc/lsb-release";
constexpr const char* kGentooRelease = "/etc/gentoo-release";
constexpr const char* kIssue = "/etc/issue";

constexpr int kRedHatFamily = 0x20100;
constexpr int kDebianFamily = 0x20200;

bool IsOf(int family, int type) {
  return (type & family) == family;
}

std::string RedHatVersion(pnl_rpc::SSH& ssh) {
  pnl_rpc::SSH rpm = ssh.Execute("rpm -q --qf '%{version}.%{release}' -f /etc/redhat-release");
  std::string output = rpm.Str(kMaxAnswer);
  const int code = rpm.Result();
  if (code == 0) return output;
  PNL_LOG(log_module, 3, "failed to detect remote OS version, code %d, output: '%s'", code,
          output.c_str());
  return "";
}

release::Answers AnswersOf(pnl_rpc::SSH& ssh) {
  return {.exists = [&](const std::string& path) { return file::Exists(ssh, path, "e"); },
          .read = [&](const std::string& path) { return file::Read(ssh, path, kMaxAnswer); },
          .rpm_release = [&] { return RedHatVersion(ssh); }};
}

}  // namespace

std::string Arch(pnl_rpc::SSH& ssh) {
  return str::Trim(Output(ssh, "uname -m"));
}

pnl_date::DateTime BootDate(pnl_rpc::SSH& ssh) {
  std::string uptime;
  file::AssertExec(ssh, "cat /proc/uptime | grep -o '^[0-9]*'", "remote_uptime", &uptime);
  const pnl_date::DateTime date(std::time(nullptr) - str::Int(uptime));
  PNL_TRACE(log_module, "Boot date: %s", date.Str().c_str());
  return date;
}

int Type(pnl_rpc::SSH& ssh) {
  const OsType type = release::Type(AnswersOf(ssh));
  PNL_LOG(log_module, 5, "os version: %06x", static_cast<unsigned>(type));
  return type;
}

std::string Version(pnl_rpc::SSH& ssh) {
  const auto type = static_cast<OsType>(Type(ssh));
  if (type == OsUbuntu) return release::UbuntuVersion(pnl_file::Read(kLsbRelease));
  return release::Version(type, AnswersOf(ssh));
}

std::string GetOs(pnl_rpc::SSH& ssh) {
  const char* prefix = release::DisplayPrefix(Type(ssh));
  return prefix == nullptr ? "" : prefix + Version(ssh);
}

namespace release {

OsType Type(const Answers& answers) {
  if (answers.exists(kRedHatRelease)) return RedHatType(answers.read(kRedHatRelease));
  if (answers.exists(kDebianVersion)) {
    return answers.exists(kLsbRelease) ? DebianType(answers.read(kLsbRelease)) : OsDebian;
  }
  return answers.exists(kGentooRelease) ? OsGentoo : OsUnknown;
}

std::string Version(OsType type, const Answers& answers) {
  if (IsOf(kRedHatFamily, type)) return answers.rpm_release();
  if (!IsOf(kDebianFamily, type)) return "";
  const std::string version = DebianVersion(answers.read(kDebianVersion));
  return version.empty() ? IssueVersion(answers.read(kIssue)) : version;
}

const char* DisplayPrefix(int type) {
  switch (type) {
    case OsCentOS:
      return "CentOS ";
    case OsCloudLinux:
      return "CloudLinux ";
    case OsVirtuozzo:
      return "VirtuozzoLinux ";
    case OsDebian:
      return "Debian ";
    case OsUbuntu:
      return "Ubuntu ";
    default:
      return nullptr;
  }
}

OsType RedHatType(std::string_view redhat_release) {
  constexpr std::pair<const char*, OsType> kBeginnings[] = {
      {"Fedora release", OsFedora},           {"CentOS release", OsCentOS},
      {"CentOS Linux release", OsCentOS},     {"CloudLinux", OsCloudLinux},
      {"Scientific Linux release", OsCentOS}, {"Virtuozzo Linux release", OsVirtuozzo},
  };
  for (const auto& [beginning, type] : kBeginnings) {
    if (redhat_release.starts_with(beginning)) return type;
  }
  return OsRedHat;
}

OsType DebianType(std::string_view lsb_release) {
  return lsb_release.find("Ubuntu") != std::string_view::npos ? OsUbuntu : OsDebian;
}

std::string DebianVersion(std::string debian_version) {
  if (debian_version.ends_with('\n')) debian_version.pop_back();
  const std::string major = str::GetWord(debian_version, '.');
  std::string minor = str::GetWord(debian_version, '.');
  if (minor.empty()) minor = "0";
  return test::Numeric(major) && test::Numeric(minor) ? major + "." + minor : "";
}

std::string IssueVersion(std::string issue) {
  std::string word = str::GetWord(issue);
  while (!word.empty() && !test::Numeric(word[0])) word = str::GetWord(issue);
  return word;
}

std::string UbuntuVersion(std::string_view lsb_release) {
  StringMap settings;
  str::SplitConfig(lsb_release, settings, "=", "");
  return settings["DISTRIB_RELEASE"];
}

}  // namespace release

}  // namespace os_info

// --- Processes and command lines

namespace {

/// Sends the signal and waits up to `seconds`; true when the process has ended.
bool EndBySignal(pnl_rpc::SSH& ssh, int pid, int signal, int seconds) {
  const pnl_time::Deadline over{std::chrono::seconds(seconds)};
  Kill(ssh, pid, signal);
  while (ProcessExists(ssh, pid)) {
    if (over.Passed()) return false;
    PNL_TRACE(log_module, "Waiting for process %d", pid);
    pnl_proc::Sleep(kProcessWaitStep);
  }
  return true;
}

}  // namespace

int Kill(pnl_rpc::SSH ssh, int pid, int signal) {
  return ssh.Execute(str::Fmt("kill -? ?", signal, pid)).Result();
}

bool ProcessExists(pnl_rpc::SSH ssh, int pid) {
  return Kill(std::move(ssh), pid, 0) == 0;
}

bool Terminate(pnl_rpc::SSH ssh, int pid, int term_wait, int kill_wait) {
  return !ProcessExists(ssh, pid) || EndBySignal(ssh, pid, SIGTERM, term_wait) ||
         EndBySignal(ssh, pid, SIGKILL, kill_wait);
}

std::string PnlCtlCommand(const std::string& install_dir, const std::string& module,
                          const std::string& function, const StringMap& params) {
  return pnl_file::ConcatPath(install_dir, pnl_client::kUtility) + " -m " + module + " -o xml " +
         function + " " + str::JoinParams(params, " ", "=");
}

pnl_xml::Xml PnlCtl(pnl_rpc::SSH& ssh, const std::string& install_dir, const std::string& module,
                    const std::string& function, const StringMap& params) {
  pnl_xml::Xml reply(Output(ssh, PnlCtlCommand(install_dir, module, function, params), kMaxReply));
  pnl_client::ThrowError(reply);
  return reply;
}

std::string BuildSshCmd(const std::string& private_key, const std::string& ip,
                        const std::string& cmd) {
  using str::formater::MkNamed;
  return str::Fmt2(
      "ssh -i {PRIVATEKEY} {IP} -o UserKnownHostsFile=/dev/null -o GlobalKnownHostsFile=/dev/null "
      "-o StrictHostKeyChecking=no \"{CMD}\"",
      MkNamed("privateKey", private_key), MkNamed("ip", ip), MkNamed("cmd", cmd));
}

void FixPublicKey(const std::string& path) {
  const std::string key = pnl_file::ReadE(path);
  if (!key.empty() && !key.ends_with('\n')) pnl_file::Write(path, key + "\n");
}

// --- Many files

namespace {

/// Pipes a local tar to one on the node, and waits for both.
void Transfer(const std::string& pack, const std::string& unpack, pnl_rpc::SSH& ssh,
              const std::string& dst_dir) {
  pnl_proc::Execute local(pack, pnl_proc::kNoInput);
  pnl_rpc::SSH remote = ssh.Execute(unpack);
  const Sink into_node = Into(remote.In());
  std::uint64_t done = 0;
  const bool taken = Pump(kToTheEnd, From(local.Out()), [&](char* data, std::size_t size) {
    pnl_progress::Report(dst_dir, done += size, 0);
    return into_node(data, size);
  });
  // When the node reads no more, its result is checked first: a lost connection is another error.
  // Waiting for the local tar would read the rest of the archive into memory.
  if (!taken) Logged(unpack, remote.Result());
  if (!taken || Logged(pack, local.Result()) != 0 || Logged(unpack, remote.Result()) != 0) {
    throw pnl_err::Error("scp_failed");
  }
}

/// The list file of an rsync, removed with the object.
pnl_file::Tmp ListFile(const std::vector<std::string>& files) {
  pnl_file::Tmp list("/tmp/filelist");
  list.Write(str::Join(files, "\n"));
  list.Close();
  return list;
}

/// Runs rsync; `options` is unquoted and ends with a blank.
int Rsync(const std::string& options, const std::string& ssh, const std::string& file_list,
          const std::string& src_dir, const std::string& node, const std::string& dst_dir) {
  const std::string command =
      str::Format("rsync -avr %s-e '%s' --files-from=%s %s %s:%s/ > %s", options, ssh,
                  pnl_proc::Escape(file_list), src_dir, node, dst_dir, RsyncLog(node));
  // Its ssh must not prompt for a password.
  return pnl_proc::Execute(command, pnl_proc::kOwnSession).Result();
}

}  // namespace

std::string RsyncLog(const std::string& node) {
  return layout::kRsyncLog + node + ".log";
}

namespace {

std::string PackCommand(const std::string& names, const std::string& src_dir,
                        const std::string& flags) {
  return "tar c" + flags + "pf - -C " + src_dir + " " + names;
}

std::string UnpackCommand(const std::string& dst_dir, const std::string& flags) {
  return "tar x" + flags + "pf - -C " + dst_dir;
}

}  // namespace

std::string TarCommand(const std::vector<std::string>& names, const std::string& src_dir,
                       const std::string& dst_dir, const std::string& flags) {
  return PackCommand(str::Join(names, " "), src_dir, flags) + " | " + UnpackCommand(dst_dir, flags);
}

void CopyViaTar(const std::string& names, const std::string& src_dir, pnl_rpc::SSH& ssh,
                const std::string& dst_dir, const std::string& flags) {
  ssh.SetTimeout(kTarTimeout);
  Transfer(PackCommand(names, src_dir, flags), UnpackCommand(dst_dir, flags), ssh, dst_dir);
}

void CopyViaTar(const std::vector<std::string>& names, const std::string& src_dir,
                pnl_rpc::SSH& ssh, const std::string& dst_dir, const std::string& flags) {
  CopyViaTar(str::Join(names, " "), src_dir, ssh, dst_dir, flags);
}

void CopyViaTar(const std::string& src_dir, pnl_rpc::SSH& ssh, const std::string& dst_dir,
                const std::string& flags) {
  file::MkDir(ssh, dst_dir);
  Transfer("tar c" + flags + "pf - " + src_dir, UnpackCommand(dst_dir, flags), ssh, dst_dir);
}

int CopyViaRsync(std::string src_dir, const std::string& file_list, const std::string& node,
                 const std::string& private_key, const std::string& dst_dir,
                 const std::string& known_hosts, const std::string& options) {
  if (src_dir.empty()) src_dir = pnl_file::GetCurrentDir();
  const std::string ssh =
      str::Fmt("ssh -l root -o UserKnownHostsFile=? -i ?", known_hosts, private_key);
  return Rsync(options + " ", ssh, file_list, src_dir, node, dst_dir);
}

int CopyViaRsync(std::string src_dir, const std::vector<std::string>& files,
                 const std::string& node, const std::string& private_key,
                 const std::string& dst_dir, const std::string& known_hosts,
                 const std::string& options) {
  return CopyViaRsync(std::move(src_dir), ListFile(files).Str(), node, private_key, dst_dir,
                      known_hosts, options);
}

int CopyViaRsyncBmx(std::string src_dir, const std::string& file_list, const std::string& node,
                    const std::string& private_key, const std::string& dst_dir,
                    const std::string& known_hosts, const int& port) {
  if (src_dir.empty()) src_dir = pnl_file::GetCurrentDir();
  const std::string port_part = port == 0 ? "" : "-p " + str::Str(port);
  const std::string ssh =
      str::Fmt("ssh ? -l root -o StrictHostKeyChecking=no -o UserKnownHostsFile=? -i ?", port_part,
               known_hosts, private_key);
  return Rsync("", ssh, file_list, src_dir, node, dst_dir);
}

int CopyViaRsyncBmx(std::string src_dir, const std::vector<std::string>& files,
                    const std::string& node, const std::string& private_key,
                    const std::string& dst_dir, const std::string& known_hosts, const int& port) {
  return CopyViaRsyncBmx(std::move(src_dir), ListFile(files).Str(), node, private_key, dst_dir,
                         known_hosts, port);
}

}  // namespace ssh_utils
